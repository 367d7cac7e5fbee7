#pragma once
// Names one point inside a track, for navigation, splitting and
// nearest-point searches. Neither pointer is owned.

#include <cstdint>

namespace kvtrack {

class Track;
class TrackPoint;

struct PointInTrack {
  Track* track = nullptr;
  TrackPoint* trackPoint = nullptr;
  int32_t index = -1;              // -1 in the end value
  double relativeDistance = -1.0;  // squared degrees; -1.0 when not set

  /// The value that names no position.
  static constexpr PointInTrack end() { return {}; }
  bool isEnd() const { return track == nullptr && trackPoint == nullptr && index == -1; }
};

}  // namespace kvtrack
