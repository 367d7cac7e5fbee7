#!/usr/bin/env bash
# Installs what is missing, fuzzes the readers of outside files (GPX, the
# library index, sync records and gzip files) for 45 s each, then builds
# and runs the whole test suite three times: in the optimised build, under
# AddressSanitizer + UndefinedBehaviorSanitizer and under ThreadSanitizer.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh

echo "== fuzzing the readers of files from outside"
scripts/fuzz.sh 45

for preset in default sanitize tsan; do
  echo "== $preset build"
  cmake --preset "$preset" >/dev/null
  cmake --build --preset "$preset"
  ctest --preset "$preset"
done
