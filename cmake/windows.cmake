# The Windows DLL: its export table comes from a module-definition file made
# from the public header, and the build checks the finished table against it.

# The system's interpreter: the export scripts need nothing beyond it.
if(NOT DEFINED Python3_EXECUTABLE AND EXISTS /usr/bin/python3)
  set(Python3_EXECUTABLE /usr/bin/python3)
endif()
find_package(Python3 REQUIRED COMPONENTS Interpreter)

# Names are undecorated in the table: on 32-bit the .def lists name@bytes, as
# __stdcall functions are named inside, and --kill-at strips the suffix.
set(BRIVANTA_DEF ${CMAKE_BINARY_DIR}/brivanta.def)
if(CMAKE_SIZEOF_VOID_P EQUAL 4)
  set(BRIVANTA_DEF_STYLE --stdcall)
  target_link_options(brivanta PRIVATE -Wl,--kill-at)
endif()
add_custom_command(OUTPUT ${BRIVANTA_DEF}
  COMMAND Python3::Interpreter ${PROJECT_SOURCE_DIR}/tools/exports.py def
          ${PROJECT_SOURCE_DIR}/include/brivanta.h ${BRIVANTA_DEF} ${BRIVANTA_DEF_STYLE}
  DEPENDS ${PROJECT_SOURCE_DIR}/include/brivanta.h ${PROJECT_SOURCE_DIR}/tools/exports.py
  COMMENT "Export list from brivanta.h")
target_sources(brivanta PRIVATE ${BRIVANTA_DEF})

# The .def alone names the exports: no __declspec(dllexport) in the objects.
target_compile_definitions(brivanta_objects PRIVATE BRIVANTA_STATIC)

# M_PI and its kin, which strict C++ on Windows hides unless asked for.
target_compile_definitions(brivanta_objects PRIVATE _USE_MATH_DEFINES)
add_compile_definitions(_USE_MATH_DEFINES)

# brivanta.dll with brivanta.lib beside it; no runtime DLLs to ship.
set_target_properties(brivanta PROPERTIES PREFIX "" IMPORT_PREFIX "" IMPORT_SUFFIX ".lib")
add_link_options(-static)
target_link_options(brivanta PRIVATE -static)

# The import library comes from the .def through dlltool: on 32-bit, ld's own
# would name the symbols without the @bytes that __stdcall callers look for.
add_custom_command(TARGET brivanta POST_BUILD
  COMMAND ${CMAKE_DLLTOOL} -k -d ${BRIVANTA_DEF} -D $<TARGET_FILE_NAME:brivanta> -l $<TARGET_LINKER_FILE:brivanta>
  COMMAND Python3::Interpreter ${PROJECT_SOURCE_DIR}/tools/exports.py check-pe
          ${PROJECT_SOURCE_DIR}/include/brivanta.h $<TARGET_FILE:brivanta> ${CMAKE_OBJDUMP}
  VERBATIM)
if(CMAKE_SIZEOF_VOID_P EQUAL 4)
  # No 32-bit Windows here to run the DLL on: its code shows the convention.
  add_custom_command(TARGET brivanta POST_BUILD
    COMMAND Python3::Interpreter ${PROJECT_SOURCE_DIR}/tools/exports.py check-stdcall
            ${PROJECT_SOURCE_DIR}/include/brivanta.h $<TARGET_FILE:brivanta> ${CMAKE_OBJDUMP}
    VERBATIM)
endif()
