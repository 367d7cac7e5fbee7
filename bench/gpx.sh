#!/usr/bin/env bash
# GPX reading and writing against gpsbabel and the xmllint parsing floor, on
# one deterministic 1,000,000-point file. Usage: bench/gpx.sh [POINTS]
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

echo "xmllint --stream --noout: $(timed xmllint --stream --noout "$work/in.gpx")"
echo "gpsbabel -t -w gpx -> gpx: $(timed gpsbabel -t -w -i gpx -f "$work/in.gpx" -o gpx -F /dev/null)"
echo "-- TrackGPX"
build/default/bench/gpx_bench "$work/in.gpx" "$work/out.gpx"
