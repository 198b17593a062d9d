# The JPEG-in-TIFF benchmark makes its strips with an independent encoder, linked here only.
find_library(TURBOJPEG_LIBRARY turbojpeg REQUIRED)
target_link_libraries(tiff_jpeg_bench PRIVATE ${TURBOJPEG_LIBRARY})
