# libvips and ImageMagick's MagickWand, for the comparison, linked into this
# benchmark only; without them the benchmark measures ours and memcpy.
bench_compare_with(${name} VIPS vips)
include(${CMAKE_CURRENT_LIST_DIR}/magickwand.cmake)
