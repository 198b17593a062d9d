# giflib, for the comparison, linked into this benchmark only.
find_library(GIFLIB gif REQUIRED)
find_path(GIFLIB_INCLUDE gif_lib.h REQUIRED)
target_include_directories(${name} PRIVATE ${GIFLIB_INCLUDE})
target_link_libraries(${name} PRIVATE ${GIFLIB})
