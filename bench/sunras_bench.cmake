include(${CMAKE_CURRENT_LIST_DIR}/magickwand.cmake)
# Our tool, for the whole-process comparison with netpbm's converters.
add_dependencies(${name} brivanta_tool)
target_compile_definitions(${name} PRIVATE BRIVANTA_TOOL="$<TARGET_FILE:brivanta_tool>")
