# ImageMagick's MagickWand, for the comparison, linked into the including
# benchmark only; without it that benchmark measures ours alone.
find_package(PkgConfig)
if(PKG_CONFIG_FOUND)
  pkg_check_modules(MAGICKWAND IMPORTED_TARGET MagickWand)
endif()
if(MAGICKWAND_FOUND)
  target_link_libraries(${name} PRIVATE PkgConfig::MAGICKWAND)
  target_compile_definitions(${name} PRIVATE HAVE_MAGICKWAND)
endif()
