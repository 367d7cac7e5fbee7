#pragma once
// Deterministic synthetic tracks for the benchmarks: a random walk around
// Zurich with one fix per second and a wandering elevation.

#include "kvtrack/model/Track.h"

#include <random>

namespace kvtrack::bench {

inline std::shared_ptr<Track> makeWalk(size_t points, uint32_t seed = 42) {
  auto track = Track::trackWithName("walk");
  std::mt19937 random(seed);
  std::normal_distribution<double> step(0.0, 0.00005), climb(0.0, 1.5);
  double lat = 47.37, lon = 8.54, ele = 400.0;
  const int64_t start = 1335866400LL * 1000000;  // 2012-05-01T10:00:00Z
  for (size_t i = 0; i < points; ++i) {
    auto p = TrackPoint::trackPointWithParent(track.get());
    lat += step(random);
    lon += step(random);
    ele += climb(random);
    p->setLatitude(lat);
    p->setLongitude(lon);
    p->setElevation(ele);
    p->setTime(ISODate::fromMicrosecondsSince1970(start + static_cast<int64_t>(i) * 1000000, 120));
    track->addTrackPoint(std::move(p));
  }
  return track;
}

}  // namespace kvtrack::bench
