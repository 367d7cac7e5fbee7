#!/usr/bin/env bash
# The Debian packages as a user gets them: built from the build with
# scripts/package.sh, installed into a fresh root with dpkg --root (unpacked
# with dpkg-deb when not run as root), every file checked against where
# Debian policy puts it, the installed wayfolio run (--version, and the
# sample import, geotag and exports from another folder) and its manual page
# formatted, the packages removed again without leaving a file behind, and
# lintian run on both, which must report no error.
#   deb-test.sh SOURCE_DIR BUILD_DIR
set -euo pipefail
source_dir=$(cd "$1" && pwd) build=$(cd "$2" && pwd)
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
root=$scratch/root
arch=$(dpkg-architecture -qDEB_HOST_MULTIARCH)

fail() { echo "deb-test: $*" >&2; exit 1; }

"$source_dir/scripts/package.sh" --build-dir "$build" --output "$scratch/packages" \
  >"$scratch/debs.txt" 2>"$scratch/cpack.log" || { cat "$scratch/cpack.log"; fail "package.sh failed"; }
mapfile -t debs <"$scratch/debs.txt"
[ ${#debs[@]} -eq 2 ] || fail "package.sh printed ${#debs[@]} paths, not 2"
program_deb=${debs[0]} dev_deb=${debs[1]}
[[ $(basename "$program_deb") == wayfolio_*.deb ]] || fail "first package is $program_deb"

# --- where every file goes ------------------------------------------------
# Each listed file: "<mode> <owner> <path>". Directories are 0755, files
# 0644, programs 0755, all owned by root; each path matches its package's
# places and nothing lies anywhere else.
check_listing() {
  local deb=$1 package places
  package=$(dpkg-deb -f "$deb" Package)
  places=$2
  dpkg-deb -c "$deb" | awk '{print $1, $2, $6}' >"$scratch/$package.list"
  while read -r mode owner path; do
    [ "$owner" = root/root ] || fail "$package: $path belongs to $owner"
    case $mode in
      d*) [ "$mode" = drwxr-xr-x ] || fail "$package: folder $path has mode $mode"
          [[ $path =~ ^\./(usr/((bin|include|lib|share)/.*)?)?$ ]] || fail "$package: folder $path"
          continue ;;
      -rwxr-xr-x) [[ $path == ./usr/bin/* ]] || fail "$package: $path is executable" ;;
      -rw-r--r--) ;;
      *) fail "$package: $path has mode $mode" ;;
    esac
    [[ $path =~ $places ]] || fail "$package: $path is not where Debian puts such a file"
  done <"$scratch/$package.list"
}
doc="usr/share/doc/%s/(copyright|changelog\.gz)"
check_listing "$program_deb" "^\./($(printf "$doc" wayfolio)|usr/bin/wayfolio|usr/share/man/man1/wayfolio\.1\.gz|usr/share/bash-completion/completions/wayfolio|usr/share/zsh/vendor-completions/_wayfolio|usr/lib/udev/rules\.d/60-wayfolio\.rules)$"
check_listing "$dev_deb" "^\./($(printf "$doc" libkvtrack-dev)|usr/include/kvtrack/[a-z0-9/]+/[A-Za-z0-9]+\.h|usr/lib/$arch/libkvtrack_[a-z]+\.a|usr/lib/$arch/cmake/kvtrack/kvtrack[A-Za-z-]*\.cmake)$"
for path in ./usr/bin/wayfolio ./usr/share/man/man1/wayfolio.1.gz ./usr/lib/udev/rules.d/60-wayfolio.rules \
            ./usr/share/bash-completion/completions/wayfolio ./usr/share/zsh/vendor-completions/_wayfolio; do
  grep -q " $path\$" "$scratch/wayfolio.list" || fail "wayfolio lacks $path"
done
grep -q "/cmake/kvtrack/kvtrackConfig.cmake$" "$scratch/libkvtrack-dev.list" || fail "no CMake package"
dpkg-deb -f "$program_deb" Depends | grep -q "gpsbabel" || fail "wayfolio does not depend on gpsbabel"
dpkg-deb -f "$program_deb" Depends | grep -q "libimage-exiftool-perl" || fail "no exiftool dependency"
dpkg-deb -f "$program_deb" Depends | grep -q "libc6" || fail "no dependencies from the linked libraries"

# --- into a fresh root ----------------------------------------------------
mkdir -p "$root/var/lib/dpkg/info" "$root/var/lib/dpkg/updates" "$root/var/log"
touch "$root/var/lib/dpkg/status"
if [ "$(id -u)" -eq 0 ]; then
  # The root holds nothing else, so what the packages depend on is missing
  # there; the host has it. Nothing of the packages is left out, whatever
  # the host's dpkg excludes.
  dpkg --root="$root" --force-depends --force-script-chrootless --path-include='*' \
       --install "$program_deb" "$dev_deb" >"$scratch/dpkg.log" 2>&1 || { cat "$scratch/dpkg.log"; fail "dpkg --install failed"; }
else
  echo "deb-test: not root, so the packages are unpacked with dpkg-deb instead of installed"
  dpkg-deb -x "$program_deb" "$root"
  dpkg-deb -x "$dev_deb" "$root"
fi

# --- the installed program ------------------------------------------------
version=$("$root/usr/bin/wayfolio" --version)
[ "$version" = "wayfolio $(dpkg-deb -f "$program_deb" Version)" ] || fail "--version says '$version'"
LC_ALL=C MANWIDTH=80 man --warnings -l "$root/usr/share/man/man1/wayfolio.1.gz" >"$scratch/man.txt" 2>"$scratch/man.err"
[ ! -s "$scratch/man.err" ] || { cat "$scratch/man.err"; fail "man -l complains"; }
grep -q "^EXIT STATUS" "$scratch/man.txt" || fail "the manual page has no EXIT STATUS"
grep -q "^ *wayfolio import" "$scratch/man.txt" || fail "the manual page lacks the import command"
bash -n "$root/usr/share/bash-completion/completions/wayfolio"
if command -v zsh >/dev/null; then zsh -n "$root/usr/share/zsh/vendor-completions/_wayfolio"; fi

# The sample, from a folder of its own, with a home of its own.
mkdir -p "$scratch/elsewhere"
cp -r "$source_dir/examples" "$scratch/elsewhere/"
(
  cd "$scratch/elsewhere"
  export HOME=$scratch/home XDG_DATA_HOME= XDG_CONFIG_HOME= XDG_CACHE_HOME= WAYFOLIO_LIBRARY= WAYFOLIO_SETTINGS=
  wayfolio=$root/usr/bin/wayfolio
  "$wayfolio" import examples | tee import.txt
  grep -q "3 tracks added" import.txt || fail "the sample import did not add 3 tracks"
  "$wayfolio" tree
  "$wayfolio" geotag examples/photos
  "$wayfolio" export 'Bachalpsee hike' --kmz hike.kmz
  "$wayfolio" zip library.zip --folder / --subfolders
  [ -s hike.kmz ] && [ -s library.zip ] || fail "the exports are missing"
  [ -f "$HOME/.local/share/wayfolio/library.wayfolio" ] || fail "no library in the default folder"
)

# --- removal --------------------------------------------------------------
if [ "$(id -u)" -eq 0 ]; then
  dpkg --root="$root" --force-script-chrootless --purge wayfolio libkvtrack-dev >"$scratch/dpkg.log" 2>&1 ||
    { cat "$scratch/dpkg.log"; fail "dpkg --purge failed"; }
  left=$(find "$root" -mindepth 1 \( -path "$root/var" -prune \) -o -print)
  [ -z "$left" ] || fail "left behind after removal: $left"
fi

# --- lintian ----------------------------------------------------------------
lintian --fail-on error --tag-display-limit 0 "$program_deb" "$dev_deb" || fail "lintian reports errors"
echo "deb-test: $(basename "$program_deb") and $(basename "$dev_deb") install, run and pass lintian"
