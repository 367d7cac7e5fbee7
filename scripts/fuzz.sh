#!/usr/bin/env bash
# Builds the libFuzzer targets with clang and runs each for a fixed time on
# its seed corpus (new inputs go to a scratch folder, not into the tree).
# Usage: scripts/fuzz.sh [SECONDS per target]
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-60}

cmake --preset fuzz >/dev/null
cmake --build --preset fuzz
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
run() {  # fuzzer, seed corpus
  mkdir -p "$scratch/$1"
  echo "== $1 for $seconds s"
  ASAN_OPTIONS=detect_leaks=1 "build/fuzz/tests/fuzz/$1" \
    -max_total_time="$seconds" -timeout=20 -rss_limit_mb=4096 -print_final_stats=1 \
    "$scratch/$1" "$2"
}
run gpx_reader_fuzzer tests/fuzz/corpus
run index_reader_fuzzer tests/fuzz/corpus-index
run sync_record_fuzzer tests/fuzz/corpus-sync
