#!/usr/bin/env bash
# Builds the libFuzzer targets with clang and runs each for a fixed time on
# its seed corpus (new inputs go to a scratch folder, not into the tree).
# Usage: scripts/fuzz.sh [SECONDS]
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-60}

cmake --preset fuzz >/dev/null
cmake --build --preset fuzz
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
ASAN_OPTIONS=detect_leaks=1 build/fuzz/tests/fuzz/gpx_reader_fuzzer \
  -max_total_time="$seconds" -timeout=20 -rss_limit_mb=4096 -print_final_stats=1 \
  "$scratch" tests/fuzz/corpus
