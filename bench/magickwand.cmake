# ImageMagick's MagickWand, for the comparison, linked into the including
# benchmark only; without it that benchmark measures ours alone.
bench_compare_with(${name} MAGICKWAND MagickWand)
