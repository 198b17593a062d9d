# The JPEG benchmark compares against two independent codecs, linked here only.
find_library(TURBOJPEG_LIBRARY turbojpeg REQUIRED)
find_library(STB_LIBRARY stb REQUIRED)
target_link_libraries(jpeg_bench PRIVATE ${TURBOJPEG_LIBRARY} ${STB_LIBRARY})
