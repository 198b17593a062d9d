#!/bin/sh
# Runs the outputs program of the Linux build and of the Windows build on the
# same inputs and compares the two directories byte for byte.
# Usage: compare_outputs.sh HOST_PROGRAM RUNNER WINDOWS_PROGRAM FIXTURES WORK_DIR
set -eu
host=$1 runner=$2 program=$3 fixtures=$4 work=$5
rm -rf "$work"
mkdir -p "$work"
"$host" "$work/linux" "$fixtures"
$runner "$program" "$work/windows" "$fixtures"
files=$(find "$work/linux" -type f | wc -l)
# A handful of files would mean the writers were not reached at all.
if [ "$files" -lt 50 ]; then
  echo "only $files files written on Linux"
  exit 1
fi
if ! diff -r "$work/linux" "$work/windows"; then
  echo "the Windows build writes different files"
  exit 1
fi
echo "$files files identical"
