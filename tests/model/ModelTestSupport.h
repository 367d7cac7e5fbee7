#pragma once
// Small builders shared by the model tests.

#include "kvtrack/model/Track.h"
#include "kvtrack/support/ISODate.h"

#include <gtest/gtest.h>

#include <string>

namespace kvtrack::testing {

inline ISODate at(const std::string& text) {
  auto date = ISODate::isoDateWithString(text);
  EXPECT_TRUE(date.has_value()) << text;
  return date.value_or(ISODate());
}

/// Appends a point to the track and returns it.
inline TrackPointPtr addPoint(Track& track, double latitude, double longitude,
                              const std::string& time = {}, double elevation = 0.0) {
  auto point = TrackPoint::trackPointWithParent(&track);
  point->setLatitude(latitude);
  point->setLongitude(longitude);
  point->setElevation(elevation);
  if (!time.empty()) point->setTime(at(time));
  track.addTrackPoint(point);
  return point;
}

/// A point at the given offset in seconds from a fixed start, one metre-ish apart.
inline TrackPointPtr addTimedPoint(Track& track, double secondsFromStart, double latitude = 47.0,
                                   double longitude = 8.0) {
  auto point = TrackPoint::trackPointWithParent(&track);
  point->setLatitude(latitude);
  point->setLongitude(longitude);
  point->setTime(at("2012-05-01T10:00:00Z").dateByAddingYears(0, 0, 0, 0, 0, secondsFromStart));
  track.addTrackPoint(point);
  return point;
}

}  // namespace kvtrack::testing
