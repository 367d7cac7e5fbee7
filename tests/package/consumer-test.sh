#!/usr/bin/env bash
# cmake --install of the build into a scratch prefix, checked for the
# folders Debian uses; then a small program of someone else's is configured
# against it with find_package(kvtrack), built and run: it writes a track of
# 11 points 0.001 degrees of latitude apart as GPX and reads it back
# (10 x 0.1112 km on the sphere of 6371 km).
#   consumer-test.sh BUILD_DIR CONSUMER_SOURCE_DIR
set -euo pipefail
build=$1 consumer=$2
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
prefix=$scratch/prefix

cmake --install "$build" --prefix "$prefix" >/dev/null
arch=$(dpkg-architecture -qDEB_HOST_MULTIARCH)
for file in bin/wayfolio share/man/man1/wayfolio.1.gz share/bash-completion/completions/wayfolio \
            share/zsh/vendor-completions/_wayfolio lib/udev/rules.d/60-wayfolio.rules \
            include/kvtrack/model/Track.h include/kvtrack/support/Status.h \
            "lib/$arch/libkvtrack_support.a" "lib/$arch/cmake/kvtrack/kvtrackConfig.cmake"; do
  [ -f "$prefix/$file" ] || { echo "not installed: $file"; exit 1; }
done

cmake -S "$consumer" -B "$scratch/build" -G Ninja -DCMAKE_BUILD_TYPE=Release \
      -DCMAKE_PREFIX_PATH="$prefix" >"$scratch/configure.log" 2>&1 ||
  { cat "$scratch/configure.log"; exit 1; }
cmake --build "$scratch/build" >"$scratch/build.log" 2>&1 || { cat "$scratch/build.log"; exit 1; }
result=$("$scratch/build/consumer" "$scratch/walk.gpx")
echo "consumer: $result"
[ "$result" = "11 points, 1.112 km" ]
