#pragma once
// Builders for dates, points and waypoints shared by the model and GPX tests.

#include "kvtrack/model/Track.h"
#include "kvtrack/support/ISODate.h"

#include <gtest/gtest.h>

#include <string>

namespace kvtrack::testing {

/// The date of a GPX time text; a test failure when it does not parse.
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

/// Appends a point timed that many seconds after 2012-05-01T10:00:00Z.
inline TrackPointPtr addTimedPoint(Track& track, double seconds, double latitude = 47.0,
                                   double longitude = 8.0) {
  auto point = addPoint(track, latitude, longitude);
  point->setTime(at("2012-05-01T10:00:00Z").dateByAddingYears(0, 0, 0, 0, 0, seconds));
  return point;
}

/// Appends a named waypoint.
inline TrackPointPtr addWaypoint(Track& track, double latitude, double longitude,
                                 const std::string& name) {
  auto point = addPoint(track, latitude, longitude);
  point->setIsWayPoint(true);
  point->setName(name);
  return point;
}

}  // namespace kvtrack::testing
