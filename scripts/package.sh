#!/usr/bin/env bash
# Builds the Debian packages with CPack and prints their paths, one a line,
# the program's first:
#   wayfolio_<version>_<arch>.deb        wayfolio, its manual page, bash and
#                                        zsh completion, udev rules
#   libkvtrack-dev_<version>_<arch>.deb  headers, static libraries, CMake package
#
#   scripts/package.sh        installs what is missing, builds the default
#                             preset, packages into build/packages
#   scripts/package.sh --build-dir DIR [--output DIR]
#                             packages a build that is already made
# Install with: sudo apt install ./build/packages/wayfolio_*.deb
set -euo pipefail
cd "$(dirname "$0")/.."

build="" output=build/packages
while [ $# -gt 0 ]; do
  case $1 in
    --build-dir) build=$2; shift 2 ;;
    --output) output=$2; shift 2 ;;
    *) echo "usage: scripts/package.sh [--build-dir DIR] [--output DIR]" >&2; exit 2 ;;
  esac
done

if [ -z "$build" ]; then
  scripts/install-deps.sh >&2
  cmake --preset default >&2
  # The program links every kvtrack library; the manual page is made from it.
  cmake --build --preset default --target wayfolio wayfolio_manual >&2
  build=build/default
fi

mkdir -p "$output"
output=$(cd "$output" && pwd)
rm -f "$output"/*.deb
cpack --config "$build/CPackConfig.cmake" -B "$output" >&2
for package in wayfolio libkvtrack-dev; do
  found=("$output/${package}"_*.deb)
  [ -f "${found[0]}" ] || { echo "package.sh: CPack made no $package package" >&2; exit 1; }
  echo "${found[0]}"
done
