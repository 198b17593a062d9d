# libpng and stb_image, for the comparison, linked into this benchmark only;
# without them the benchmark measures ours alone.
bench_compare_with(${name} PNG_REFS libpng stb)
