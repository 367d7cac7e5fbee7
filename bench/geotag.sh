#!/usr/bin/env bash
# Library-wide matching plus writing GPS positions into generated JPEGs:
# `wayfolio geotag DIR --write gps` through the persistent exiftool sessions
# against `exiftool -geotag` on a copy of the same photos, in one run.
# Usage: bench/geotag.sh [PHOTOS] [--big] [--points N] [--processes] [--row LABEL]
#   --big         4000x3000 camera-sized JPEGs (about 6 MB each) instead of 1x1 ones
#   --points N    a track of N points (default: three per photo)
#   --processes   also time one exiftool process per call (minutes for 300 photos)
#   --row LABEL   end with a table row "| LABEL | now | peer | ratio | target |"
set -euo pipefail
cd "$(dirname "$0")/.."
photos=500 big=0 points=0 processes=0 row=""
while [ $# -gt 0 ]; do
  case $1 in
    --big) big=1 ;;
    --points) points=$2; shift ;;
    --processes) processes=1 ;;
    --row) row=$2; shift ;;
    [0-9]*) photos=$1 ;;
    *) echo "unknown option $1" >&2; exit 2 ;;
  esac
  shift
done
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
[ "$points" -gt $((photos * 3 + 3)) ] || points=$((photos * 3 + 3))
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

# The photos: copies of one JPEG, their times set by one exiftool run.
mkdir -p "$work/photos"
if [ "$big" = 1 ]; then  # noise in three bands compresses like a camera's photo
  for band in r g b; do vips gaussnoise "$work/$band.v" 4000 3000 --sigma 30 --mean 128; done
  vips bandjoin "$work/r.v $work/g.v $work/b.v" "$work/rgb.v"
  vips cast "$work/rgb.v" "$work/u.v" uchar
  vips copy "$work/u.v" "$work/base.jpg[Q=85]"
  rm -f "$work"/*.v
else
  printf '\xff\xd8\xff\xdb\x00\x43\x00' > "$work/base.jpg"
  head -c 64 /dev/zero | tr '\0' '\1' >> "$work/base.jpg"
  printf '\xff\xc0\x00\x0b\x08\x00\x01\x00\x01\x01\x01\x11\x00' >> "$work/base.jpg"
  for class in '\x00' '\x10'; do
    printf "\xff\xc4\x00\x14$class\x01" >> "$work/base.jpg"
    head -c 16 /dev/zero >> "$work/base.jpg"
  done
  printf '\xff\xda\x00\x08\x01\x01\x00\x00\x3f\x00\x3f\xff\xd9' >> "$work/base.jpg"
fi
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
for copy in exiftool sessions processes; do
  if [ "$copy" != processes ] || [ "$processes" = 1 ]; then cp -a "$work/photos" "$work/$copy"; fi
done

seconds() { local s; s=$(date +%s.%N); "$@" >/dev/null; awk -v a="$s" -v b="$(date +%s.%N)" 'BEGIN { print b - a }'; }

library() {  # a fresh library holding the track
  rm -rf "$work/library"
  "$wayfolio" --library "$work/library" import "$work/track.gpx" >/dev/null
}

geotag() {  # $1: sessions on or off, $2: the photo folder
  library
  printf '[preferences]\nexiftoolPersistentSessions = %s\n' "$1" > "$work/settings.toml"
  WAYFOLIO_SETTINGS="$work/settings.toml" seconds "$wayfolio" --library "$work/library" \
    geotag "$2" --write gps
}

size=$(stat -c %s "$work/base.jpg")
echo "$photos photos of $size bytes, $points track points; exiftool $(exiftool -ver), $(nproc) cores"
# The same run of both tools, one after the other: wayfolio, exiftool.
sessions=$(geotag true "$work/sessions")
reference=$(seconds exiftool -geotag "$work/track.gpx" -api GeoMaxIntSecs=0 -api GeoMaxExtSecs=43200 \
  -overwrite_original "$work/exiftool")
copies=sessions
if [ "$processes" = 1 ]; then
  processes=$(geotag false "$work/processes")
  copies="sessions processes"
fi

# The same positions in every folder.
for i in 0 $((photos / 2)) $((photos - 1)); do
  name=$(printf 'photo%04d.jpg' "$i")
  want=$(exiftool -s3 -n -GPSPosition "$work/exiftool/$name")
  for copy in $copies; do
    got=$(exiftool -s3 -n -GPSPosition "$work/$copy/$name")
    [ "$got" = "$want" ] || { echo "position of $copy/$name: $got, exiftool: $want" >&2; exit 1; }
  done
done

awk -v n="$photos" -v e="$reference" -v s="$sessions" 'BEGIN {
  printf "exiftool -geotag:                     %6.2f s (%5.1f ms/photo)\n", e, e * 1000 / n
  printf "wayfolio geotag, persistent sessions: %6.2f s (%5.1f ms/photo), %.2fx exiftool\n", s, s * 1000 / n, s / e
}'
if [ "$processes" != 0 ]; then
  awk -v n="$photos" -v e="$reference" -v p="$processes" 'BEGIN {
    printf "wayfolio geotag, a process per call:  %6.2f s (%5.1f ms/photo), %.2fx exiftool\n", p, p * 1000 / n, p / e
  }'
fi
if [ -n "$row" ]; then
  awk -v l="$row" -v e="$reference" -v s="$sessions" 'BEGIN {
    printf "| %-44s | %6.2f s | %6.2f s | %5.2fx | <= 0.80x |\n", l, s, e, s / e
  }'
fi
