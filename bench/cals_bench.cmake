# MagickWand, for the comparison, linked into this benchmark only.
find_package(PkgConfig REQUIRED)
pkg_check_modules(MAGICKWAND REQUIRED IMPORTED_TARGET MagickWand)
target_link_libraries(${name} PRIVATE PkgConfig::MAGICKWAND)
