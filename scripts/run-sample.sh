#!/usr/bin/env bash
# Installs what is missing, builds wayfolio, imports the bundled examples
# into a fresh library in build/sample-library and prints its tree.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh
cmake --preset default >/dev/null
cmake --build --preset default --target wayfolio

wayfolio=build/default/tools/wayfolio/wayfolio
library=build/sample-library
rm -rf "$library"

echo "== wayfolio import examples"
"$wayfolio" --library "$library" import examples
echo
echo "== wayfolio tree"
"$wayfolio" --library "$library" tree
