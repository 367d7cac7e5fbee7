#!/usr/bin/env bash
# Writes a deterministic GPX 1.1 file with one track of N points (default
# 1,000,000): a random walk around Zurich, one fix per second, with
# elevation, time and a handful of waypoints. Usage: make-gpx.sh FILE [N]
set -euo pipefail
out=${1:?usage: make-gpx.sh FILE [POINTS]}
points=${2:-1000000}

awk -v n="$points" 'BEGIN {
  seed = 12345
  lat = 47.37; lon = 8.54; ele = 400
  start = 1335866400  # 2012-05-01T10:00:00Z
  print "<?xml version=\"1.0\" encoding=\"UTF-8\"?>"
  print "<gpx xmlns=\"http://www.topografix.com/GPX/1/1\" version=\"1.1\" creator=\"make-gpx\">"
  for (w = 0; w < 10; w++) {
    printf "  <wpt lat=\"%.7f\" lon=\"%.7f\"><ele>%.1f</ele><name>WPT%02d</name></wpt>\n", 47.3 + w * 0.01, 8.5 + w * 0.01, 400 + w, w
  }
  print "  <trk><name>Benchmark walk</name><trkseg>"
  for (i = 0; i < n; i++) {
    seed = (seed * 1103515245 + 12345) % 2147483648; lat += (seed / 2147483648 - 0.5) * 0.0001
    seed = (seed * 1103515245 + 12345) % 2147483648; lon += (seed / 2147483648 - 0.5) * 0.0001
    seed = (seed * 1103515245 + 12345) % 2147483648; ele += (seed / 2147483648 - 0.5) * 2
    t = start + i
    printf "    <trkpt lat=\"%.7f\" lon=\"%.7f\"><ele>%.1f</ele><time>%s</time></trkpt>\n", lat, lon, ele, strftime("%Y-%m-%dT%H:%M:%SZ", t, 1)
  }
  print "  </trkseg></trk>"
  print "</gpx>"
}' > "$out"
