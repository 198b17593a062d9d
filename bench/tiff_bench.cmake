# The TIFF benchmark compares with the system's libtiff, linked into this
# benchmark only, never into the library.
find_library(SYSTEM_LIBTIFF tiff)
find_path(SYSTEM_LIBTIFF_INCLUDE tiffio.h)
if(SYSTEM_LIBTIFF AND SYSTEM_LIBTIFF_INCLUDE)
  target_link_libraries(tiff_bench PRIVATE ${SYSTEM_LIBTIFF})
  target_include_directories(tiff_bench PRIVATE ${SYSTEM_LIBTIFF_INCLUDE})
  target_compile_definitions(tiff_bench PRIVATE BRIVANTA_BENCH_LIBTIFF=1)
endif()
