# pixman, for the comparison, linked into this benchmark only.
find_package(PkgConfig REQUIRED)
pkg_check_modules(PIXMAN REQUIRED IMPORTED_TARGET pixman-1)
target_link_libraries(${name} PRIVATE PkgConfig::PIXMAN)
