#!/usr/bin/env bash
# Library figures: opening and listing a 10,000-track library against
# `xmllint --stream` over its index, memory per unloaded track, and
# importing 1,000 small GPX files against gpsbabel converting them one by one.
# Usage: bench/library.sh [TRACKS] [FILES]
set -euo pipefail
cd "$(dirname "$0")/.."
tracks=${1:-10000}
files=${2:-1000}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

cmake --preset default >/dev/null
cmake --build --preset default --target library_bench >/dev/null
bench=build/default/bench/library_bench

$bench make "$work/library" "$tracks"
echo "index: $(du -k "$work/library/library.wayfolio" | cut -f1) KB"
start=$(date +%s.%N)
for i in 1 2 3 4 5 6 7 8 9 10; do xmllint --stream --noout "$work/library/library.wayfolio"; done
end=$(date +%s.%N)
awk -v s="$start" -v e="$end" 'BEGIN { printf "xmllint --stream --noout over the index: %.3f s (mean of 10 runs)\n", (e - s) / 10 }'
$bench open "$work/library"

mkdir -p "$work/files"
for i in $(seq 1 "$files"); do
  awk -v i="$i" 'BEGIN {
    print "<?xml version=\"1.0\"?><gpx xmlns=\"http://www.topografix.com/GPX/1/1\" version=\"1.1\" creator=\"bench\"><trk><name>Walk " i "</name><trkseg>"
    for (p = 0; p < 50; p++) printf "<trkpt lat=\"%.6f\" lon=\"%.6f\"><ele>%d</ele><time>%d-05-%02dT%02d:%02d:%02dZ</time></trkpt>\n", 47 + i * 0.001 + p * 0.0001, 8 + p * 0.0001, 400 + p, 2012 + int(i / 672), 1 + (i % 28), int(i / 28) % 24, int(p / 60), p % 60
    print "</trkseg></trk></gpx>"
  }' > "$work/files/walk$i.gpx"
done
$bench import "$work/imported" "$work/files"/*.gpx
start=$(date +%s.%N)
for f in "$work/files"/*.gpx; do gpsbabel -t -w -i gpx -f "$f" -o gpx -F "$work/out.gpx"; done
end=$(date +%s.%N)
awk -v s="$start" -v e="$end" -v n="$files" 'BEGIN { printf "gpsbabel one by one: %.3f s: %.0f files/s\n", e - s, n / (e - s) }'
