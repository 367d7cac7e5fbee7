#!/usr/bin/env bash
# Builds the optimised preset and runs the benchmarks, printing the figures
# that the closing notes of each change report.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh
cmake --preset default >/dev/null
cmake --build --preset default

echo "== memory per track point"
build/default/bench/point_memory
echo
echo "== updateAll against a bare great-circle loop"
build/default/bench/model_bench --benchmark_color=false
echo
echo "== place lookups against the loopback emulator, and cache hits"
build/default/bench/places_bench --benchmark_color=false
echo
echo "== BG-728 downloads from the emulated logger against the raw pty"
build/default/bench/bg728_bench
echo
echo "== track views of 10,000 and 100,000 points: build against GPX writing, then Chromium"
build/default/bench/view_bench
echo
echo "== GPX: read and write a 1,000,000-point file; now / floor / ratio / target"
bench/gpx.sh
echo
echo "== geotag 300 photos library-wide, GPS written: wayfolio (now) against exiftool -geotag (peer), one run each"
echo "| case                                         |      now |     peer | ratio | target   |"
echo "|----------------------------------------------|----------|----------|-------|----------|"
export WAYFOLIO=$PWD/build/default/tools/wayfolio/wayfolio
bench/geotag.sh 300 --row "300 small photos" | grep '^|'
bench/geotag.sh 300 --big --row "300 photos of 4000x3000" | grep '^|'
bench/geotag.sh 300 --points 100000 --row "300 small photos, 100,000-point track" | grep '^|'
