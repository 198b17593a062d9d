# MagickWand and libimagequant, for the comparison, linked into this benchmark only.
find_package(PkgConfig REQUIRED)
pkg_check_modules(MAGICKWAND REQUIRED IMPORTED_TARGET MagickWand)
find_library(IMAGEQUANT imagequant REQUIRED)
find_path(IMAGEQUANT_INCLUDE libimagequant.h REQUIRED)
target_include_directories(${name} PRIVATE ${IMAGEQUANT_INCLUDE})
target_link_libraries(${name} PRIVATE PkgConfig::MAGICKWAND ${IMAGEQUANT})
