# ImageMagick's MagickWand, for the comparison, linked into this benchmark
# only; without it the benchmark measures ours alone.
find_package(PkgConfig)
if(PKG_CONFIG_FOUND)
  pkg_check_modules(MAGICKWAND IMPORTED_TARGET MagickWand)
endif()
if(MAGICKWAND_FOUND)
  target_link_libraries(${name} PRIVATE PkgConfig::MAGICKWAND)
  target_compile_definitions(${name} PRIVATE HAVE_MAGICKWAND)
endif()
# Our tool, for the whole-process comparison with netpbm's converters.
add_dependencies(${name} brivanta_tool)
target_compile_definitions(${name} PRIVATE BRIVANTA_TOOL="$<TARGET_FILE:brivanta_tool>")
