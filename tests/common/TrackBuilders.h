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

/// A loaded track of n points one minute apart, walking north from 47.0 / 8.0
/// and climbing a metre a minute from 400 m.
inline TrackPtr walk(const std::string& name, int n,
                     const std::string& start = "2012-05-01T10:00:00+02:00") {
  auto track = Track::trackWithName(name);
  track->setIsLoaded(true);
  const ISODate begin = at(start);
  for (int i = 0; i < n; ++i) {
    auto point = addPoint(*track, 47.0 + i * 0.001, 8.0, {}, 400 + i);
    point->setTime(begin.dateByAddingYears(0, 0, 0, 0, i, 0));
  }
  track->updateAll();
  return track;
}

}  // namespace kvtrack::testing
