#!/usr/bin/env bash
# Installs what is missing, fuzzes the readers of outside files (GPX, the
# library index, sync records and gzip files) for 45 s each, then builds
# and runs the whole test suite twice: in the optimised build and under
# AddressSanitizer + UndefinedBehaviorSanitizer; then the test programs of
# the subsystems that share data between threads under ThreadSanitizer.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh

echo "== fuzzing the readers of files from outside"
scripts/fuzz.sh 45

for preset in default sanitize; do
  echo "== $preset build"
  cmake --preset "$preset" >/dev/null
  cmake --build --preset "$preset"
  ctest --preset "$preset"
done

# The tsan build of the whole suite takes as long as the sanitizer one; CI
# runs the programs of the subsystems that share data between threads.
threaded=(support_tests model_tests)
echo "== tsan build (${threaded[*]})"
cmake --preset tsan >/dev/null
cmake --build --preset tsan --target "${threaded[@]}"
ctest --preset tsan -L "^($(IFS='|'; echo "${threaded[*]}"))\$"
