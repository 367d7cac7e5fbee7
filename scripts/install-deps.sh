#!/usr/bin/env bash
# Installs every Debian package that the build, the tests and the benchmarks use.
# Idempotent: packages already present are skipped; the package lists are
# refreshed only when something has to be installed.
set -euo pipefail

packages=(
  build-essential cmake ninja-build pkg-config git
  clang libclang-rt-14-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  libfmt-dev libspdlog-dev libcli11-dev libtomlplusplus-dev
  libicu-dev uuid-dev libxml2-dev libxml2-utils libpcre2-dev zlib1g-dev
  libcurl4-openssl-dev
  time
  gpsbabel
  libimage-exiftool-perl libvips-tools libvips-dev
  libudev-dev libusb-1.0-0-dev libbluetooth-dev libsystemd-dev dbus-daemon
  libzip-dev libplist-dev zip unzip
  gdal-bin libplist-utils python3
  libjs-leaflet chromium nlohmann-json3-dev xdg-utils
  dpkg-dev lintian man-db groff-base zsh
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$p")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  echo "install-deps: all ${#packages[@]} packages present"
  exit 0
fi

echo "install-deps: installing ${missing[*]}"
sudo=""
[ "$(id -u)" -eq 0 ] || sudo="sudo"
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -q
$sudo apt-get install -y -q --no-install-recommends "${missing[@]}"
