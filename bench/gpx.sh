#!/usr/bin/env bash
# GPX reading and writing against the xmllint parsing floor (measured by
# gpx_bench in the same run) and gpsbabel, on one deterministic
# 1,000,000-point file. Usage: bench/gpx.sh [POINTS]
set -euo pipefail
cd "$(dirname "$0")/.."
points=${1:-1000000}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

cmake --preset default >/dev/null
cmake --build --preset default --target gpx_bench >/dev/null
bench/make-gpx.sh "$work/in.gpx" "$points"
echo "file: $points points, $(du -m "$work/in.gpx" | cut -f1) MB"

timed() {  # prints "seconds peak-MB" of a command
  /usr/bin/time -f "%e %M" "$@" 2>&1 >/dev/null | tail -1 | awk '{printf "%.2f s, peak %.0f MB", $1, $2/1024}'
}

echo "gpsbabel -t -w gpx -> gpx: $(timed gpsbabel -t -w -i gpx -f "$work/in.gpx" -o gpx -F /dev/null)"
echo "-- TrackGPX"
build/default/bench/gpx_bench "$work/in.gpx" "$work/out.gpx"
# What only copying the written bytes to the disk costs: the floor under any writer.
echo
echo "written file: $(du -m "$work/out.gpx" | cut -f1) MB; copying it with dd conv=fsync: $(timed dd if="$work/out.gpx" of="$work/copy.gpx" bs=4M conv=fsync)"
