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
$runner "$example" "$work/windows/card24.bmp" "$work/copy.bmp" 1
cmp "$work/windows/card24.bmp" "$work/copy.bmp"
echo "import library: BMP to BMP unchanged"
