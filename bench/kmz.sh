#!/usr/bin/env bash
# KMZ export of a track with many 4000 x 3000 photos: `wayfolio export
# --kmz` against its floor, vipsthumbnail scaling the same photos to 1024
# pixels plus one exiftool run copying their metadata to the scaled copies.
# Usage: bench/kmz.sh [PHOTOS]
set -euo pipefail
cd "$(dirname "$0")/.."
photos=${1:-200}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

wayfolio=${WAYFOLIO:-}  # a wayfolio built elsewhere, or the default build
if [ -z "$wayfolio" ]; then
  cmake --preset default >/dev/null
  cmake --build --preset default --target wayfolio >/dev/null
  wayfolio=$PWD/build/default/tools/wayfolio/wayfolio
fi

# One camera-like photo (noise compresses and decodes like a real scene)
# copied, each copy with its own capture time during the bundled hike
# (08:00 to 10:00 at +02:00, a photo every 30 s).
mkdir -p "$work/photos" "$work/floor"
vips gaussnoise "$work/noise.v" 4000 3000 --sigma 40 --mean 128
vips bandjoin "$work/noise.v $work/noise.v $work/noise.v" "$work/rgb.v"
vips cast "$work/rgb.v" "$work/base.jpg[Q=90]" uchar
exiftool -q -overwrite_original -Make=Bench -Model=KMZ -ISO=100 "$work/base.jpg"
perl -MFile::Copy -e '
  my ($work, $n) = @ARGV;
  open(my $args, ">", "$work/times.args") or die;
  for my $i (0 .. $n - 1) {
    my $photo = sprintf("%s/photos/photo%04d.jpg", $work, $i);
    copy("$work/base.jpg", $photo) or die;
    my $s = 30 * $i;
    my $t = sprintf("2024:06:15 %02d:%02d:%02d", 8 + int($s / 3600), int($s / 60) % 60, $s % 60);
    print $args "-q\n-overwrite_original\n-DateTimeOriginal=$t\n$photo\n-execute\n";
  }' "$work" "$photos"
exiftool -@ "$work/times.args" >/dev/null

seconds() { local s; s=$(date +%s.%N); "$@" >/dev/null; awk -v a="$s" -v b="$(date +%s.%N)" 'BEGIN { print b - a }'; }

"$wayfolio" --library "$work/library" import examples >/dev/null
"$wayfolio" --library "$work/library" geotag "$work/photos" >/dev/null
printf '[preferences]\nkmlExportJPEGQuality = 7\n' > "$work/settings.toml"
export WAYFOLIO_SETTINGS="$work/settings.toml"

echo "$photos photos of 4000 x 3000 pixels; vips $(vips --version | cut -d' ' -f1 | cut -d- -f2), exiftool $(exiftool -ver), $(nproc) cores"
ours=$(seconds "$wayfolio" --library "$work/library" export 'Bachalpsee hike' --kmz "$work/hike.kmz")
scaling=$(seconds vipsthumbnail "$work"/photos/*.jpg --size 1024 -o "$work/floor/%s.jpg[Q=70,strip]")
copying=$(seconds exiftool -q -overwrite_original_in_place -tagsFromFile "$work/photos/%f.jpg" "$work/floor")

entries=$(unzip -Z1 "$work/hike.kmz" | grep -c '^image')
[ "$entries" -eq "$photos" ] || { echo "the KMZ holds $entries photos, not $photos" >&2; exit 1; }

awk -v n="$photos" -v o="$ours" -v s="$scaling" -v c="$copying" 'BEGIN {
  printf "vipsthumbnail --size 1024:            %6.2f s (%5.1f ms/photo)\n", s, s * 1000 / n
  printf "exiftool -tagsFromFile (one run):     %6.2f s (%5.1f ms/photo)\n", c, c * 1000 / n
  printf "floor (both):                         %6.2f s (%5.1f ms/photo)\n", s + c, (s + c) * 1000 / n
  printf "wayfolio export --kmz:                %6.2f s (%5.1f ms/photo), %.2fx the floor\n", o, o * 1000 / n, o / (s + c)
}'
