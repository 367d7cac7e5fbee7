#!/usr/bin/env bash
# Capture times of generated JPEGs read through persistent exiftool sessions
# against one exiftool process per photo. Usage: bench/photos.sh [PHOTOS]
set -euo pipefail
cd "$(dirname "$0")/.."
photos=${1:-500}

cmake --preset default >/dev/null
cmake --build --preset default --target exif_bench >/dev/null
echo "exiftool $(exiftool -ver), $(nproc) cores"
build/default/bench/exif_bench "$photos"
