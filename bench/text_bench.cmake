# Our tool, for the whole-process comparison with GraphicsMagick.
add_dependencies(${name} brivanta_tool)
target_compile_definitions(${name} PRIVATE BRIVANTA_TOOL="$<TARGET_FILE:brivanta_tool>")
