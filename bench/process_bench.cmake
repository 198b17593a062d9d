# libvips and ImageMagick's MagickWand, for the comparison, linked into this
# benchmark only; without them the benchmark measures ours and memcpy.
find_package(PkgConfig)
if(PKG_CONFIG_FOUND)
  pkg_check_modules(VIPS IMPORTED_TARGET vips)
endif()
if(VIPS_FOUND)
  target_link_libraries(${name} PRIVATE PkgConfig::VIPS)
  target_compile_definitions(${name} PRIVATE HAVE_VIPS)
endif()
include(${CMAKE_CURRENT_LIST_DIR}/magickwand.cmake)
