#!/usr/bin/env bash
# Installs what is missing, builds wayfolio, imports the bundled examples
# into a fresh library in build/sample-library, attaches the sample photos
# to the hike, prints the tree, exports the hike as KMZ and CSV and the
# whole library as a zip archive into build/sample-exports, and writes the
# hike's view (an HTML page with map and profiles) there too.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh
cmake --preset default >/dev/null
cmake --build --preset default --target wayfolio

wayfolio=build/default/tools/wayfolio/wayfolio
library=build/sample-library
exports=build/sample-exports
rm -rf "$library" "$exports"
mkdir -p "$exports"

echo "== wayfolio import examples"
"$wayfolio" --library "$library" import examples
echo
echo "== wayfolio tree"
"$wayfolio" --library "$library" tree
echo
echo "== wayfolio geotag examples/photos"
"$wayfolio" --library "$library" geotag examples/photos
echo
echo "== wayfolio export 'Bachalpsee hike' --kmz / --csv, zip"
"$wayfolio" --library "$library" export 'Bachalpsee hike' --kmz "$exports/bachalpsee-hike.kmz"
"$wayfolio" --library "$library" export 'Bachalpsee hike' --csv "$exports/bachalpsee-hike.csv"
"$wayfolio" --library "$library" zip "$exports/library.zip" --folder / --subfolders
ls -l "$exports"
echo
echo "== wayfolio view 'Bachalpsee hike'"
"$wayfolio" --library "$library" view 'Bachalpsee hike' --html "$exports/bachalpsee-hike.html"
echo "Open it in a browser: file://$(pwd)/$exports/bachalpsee-hike.html"
