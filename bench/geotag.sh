#!/usr/bin/env bash
# Library-wide matching plus writing GPS positions into generated JPEGs:
# `wayfolio geotag DIR --write gps` (persistent exiftool sessions on, then
# off) against `exiftool -geotag` on a copy of the same photos.
# Usage: bench/geotag.sh [PHOTOS]
set -euo pipefail
cd "$(dirname "$0")/.."
photos=${1:-500}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
export TZ=UTC  # exiftool -geotag reads camera times in the local zone; the track is in UTC

wayfolio=${WAYFOLIO:-}  # a wayfolio built elsewhere, or the default build
if [ -z "$wayfolio" ]; then
  cmake --preset default >/dev/null
  cmake --build --preset default --target wayfolio >/dev/null
  wayfolio=$PWD/build/default/tools/wayfolio/wayfolio
fi

# A track of one point every 10 s, covering a photo every 30 s (photos fall
# on points, so both tools must find the same positions). Perl comes with
# exiftool, so it writes the files.
points=$((photos * 3 + 3))
start=1714550400  # 2024-05-01T08:00:00Z
perl -MPOSIX=strftime -e '
  my ($path, $n, $start) = @ARGV;
  open(my $out, ">", $path) or die;
  print $out qq(<?xml version="1.0" encoding="UTF-8"?>\n<gpx version="1.1" creator="bench" ),
    qq(xmlns="http://www.topografix.com/GPX/1/1"><trk><name>Bench</name><trkseg>\n);
  for my $i (0 .. $n - 1) {
    my $t = strftime("%Y-%m-%dT%H:%M:%SZ", gmtime($start + 10 * $i));
    printf $out qq(<trkpt lat="%.6f" lon="%.6f"><ele>%d</ele><time>%s</time></trkpt>\n),
      46.5 + $i * 1e-4, 7.5 + $i * 2e-4, 500 + $i % 50, $t;
  }
  print $out "</trkseg></trk></gpx>\n";' "$work/track.gpx" "$points" "$start"

# The photos: copies of one small JPEG, their times set by one exiftool run.
mkdir -p "$work/photos"
printf '\xff\xd8\xff\xdb\x00\x43\x00' > "$work/base.jpg"
head -c 64 /dev/zero | tr '\0' '\1' >> "$work/base.jpg"
printf '\xff\xc0\x00\x0b\x08\x00\x01\x00\x01\x01\x01\x11\x00' >> "$work/base.jpg"
for class in '\x00' '\x10'; do
  printf "\xff\xc4\x00\x14$class\x01" >> "$work/base.jpg"
  head -c 16 /dev/zero >> "$work/base.jpg"
done
printf '\xff\xda\x00\x08\x01\x01\x00\x00\x3f\x00\x3f\xff\xd9' >> "$work/base.jpg"
perl -MPOSIX=strftime -MFile::Copy -e '
  my ($work, $n, $start) = @ARGV;
  open(my $args, ">", "$work/times.args") or die;
  for my $i (0 .. $n - 1) {
    my $photo = sprintf("%s/photos/photo%04d.jpg", $work, $i);
    copy("$work/base.jpg", $photo) or die;
    my $t = strftime("%Y:%m:%d %H:%M:%S", gmtime($start + 10 + 30 * $i));
    print $args "-q\n-overwrite_original\n-DateTimeOriginal=$t\n$photo\n-execute\n";
  }' "$work" "$photos" "$start"
exiftool -@ "$work/times.args" >/dev/null
for copy in exiftool sessions processes; do cp -a "$work/photos" "$work/$copy"; done

seconds() { local s; s=$(date +%s.%N); "$@" >/dev/null; awk -v a="$s" -v b="$(date +%s.%N)" 'BEGIN { print b - a }'; }

library() {  # a fresh library holding the track
  rm -rf "$work/library"
  "$wayfolio" --library "$work/library" import "$work/track.gpx" >/dev/null
}

echo "$photos photos, $points track points; exiftool $(exiftool -ver), $(nproc) cores"
reference=$(seconds exiftool -geotag "$work/track.gpx" -api GeoMaxIntSecs=0 -api GeoMaxExtSecs=43200 \
  -overwrite_original "$work/exiftool")

library
printf '[preferences]\nexiftoolPersistentSessions = true\n' > "$work/settings.toml"
sessions=$(WAYFOLIO_SETTINGS="$work/settings.toml" seconds "$wayfolio" --library "$work/library" \
  geotag "$work/sessions" --write gps)

library
printf '[preferences]\nexiftoolPersistentSessions = false\n' > "$work/settings.toml"
processes=$(WAYFOLIO_SETTINGS="$work/settings.toml" seconds "$wayfolio" --library "$work/library" \
  geotag "$work/processes" --write gps)

# The same positions in all three folders.
for i in 0 $((photos / 2)) $((photos - 1)); do
  name=$(printf 'photo%04d.jpg' "$i")
  want=$(exiftool -s3 -n -GPSPosition "$work/exiftool/$name")
  for copy in sessions processes; do
    got=$(exiftool -s3 -n -GPSPosition "$work/$copy/$name")
    [ "$got" = "$want" ] || { echo "position of $copy/$name: $got, exiftool: $want" >&2; exit 1; }
  done
done

awk -v n="$photos" -v e="$reference" -v s="$sessions" -v p="$processes" 'BEGIN {
  printf "exiftool -geotag:                     %6.2f s (%5.1f ms/photo)\n", e, e * 1000 / n
  printf "wayfolio geotag, persistent sessions: %6.2f s (%5.1f ms/photo), %.2fx exiftool\n", s, s * 1000 / n, s / e
  printf "wayfolio geotag, a process per call:  %6.2f s (%5.1f ms/photo), %.2fx exiftool\n", p, p * 1000 / n, p / e
}'
