# libpng and stb_image, for the comparison, linked into this benchmark only;
# without them the benchmark measures ours alone.
find_package(PkgConfig)
if(PKG_CONFIG_FOUND)
  pkg_check_modules(PNG_REFS IMPORTED_TARGET libpng stb)
endif()
if(PNG_REFS_FOUND)
  target_link_libraries(${name} PRIVATE PkgConfig::PNG_REFS)
  target_compile_definitions(${name} PRIVATE HAVE_PNG_REFS)
endif()
