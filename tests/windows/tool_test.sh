#!/bin/sh
# brivanta.exe's demo writes the same files as the Linux tool's (PNG: the same
# pixels), and a program linked to the import library converts one of them
# back to the same bytes.
# Usage: tool_test.sh HOST_TOOL RUNNER WINDOWS_TOOL LINK_EXAMPLE WORK_DIR
set -eu
host=$1 runner=$2 tool=$3 example=$4 work=$5
rm -rf "$work"
mkdir -p "$work"
"$host" demo "$work/linux" >/dev/null
$runner "$tool" demo "$work/windows" >/dev/null
files=$(find "$work/linux" -type f | wc -l)
if [ "$files" -lt 5 ]; then
  echo "only $files demo files written on Linux"
  exit 1
fi
# Text pages are drawn by each system's own rasteriser, so they are left out;
# PNG is each system's own codec: those files need only hold the same pixels,
# which the Linux tool reads out of both.
if ! diff -r -x 'text_*' -x '*.png' "$work/linux" "$work/windows"; then
  echo "the Windows tool writes different files"
  exit 1
fi
for png in "$work"/linux/*.png; do
  leaf=$(basename "$png" .png)
  "$host" convert "$png" "$work/$leaf.linux.bmp" >/dev/null
  "$host" convert "$work/windows/$leaf.png" "$work/$leaf.windows.bmp" >/dev/null
  cmp "$work/$leaf.linux.bmp" "$work/$leaf.windows.bmp"
done
echo "demo: $files files identical (PNG by their pixels)"
# The text page's lines sit where the Linux page has them: the same bands of
# ink rows one line pitch apart, shifted by at most 3 pixels (Wine draws a
# substitute face for Courier New, whose ascent differs).
/usr/bin/python3 - "$work/linux/text_page.tif" "$work/windows/text_page.tif" <<'PY'
import sys
import numpy as np
from PIL import Image

def bands(path):
    ink = (np.asarray(Image.open(path).convert("L")) < 128).any(axis=1)
    edges = np.flatnonzero(np.diff(np.concatenate(([0], ink.astype(int), [0]))))
    return edges.reshape(-1, 2)

a, b = bands(sys.argv[1]), bands(sys.argv[2])
assert len(a) == len(b) > 1, (a.tolist(), b.tolist())
assert np.abs(b - a).max() <= 3 and np.abs(np.diff(b[:, 1]) - np.diff(a[:, 1])).max() <= 1, (a.tolist(), b.tolist())
print("text page: %d lines where Linux draws them" % len(a))
PY
$runner "$example" "$work/windows/card24.bmp" "$work/copy.bmp" 1
cmp "$work/windows/card24.bmp" "$work/copy.bmp"
echo "import library: BMP to BMP unchanged"
