#pragma once
// A geocaching web site that waypoints can belong to.

#include <string>

namespace kvtrack {

class TrackPoint;

class GeocachingService {
 public:
  virtual ~GeocachingService() = default;
  virtual std::string name() const = 0;
  /// Address of a search for caches around a position.
  virtual std::string urlForLatitude(double latitude, double longitude, double distanceInKM) const = 0;
  virtual bool belongsToThisService(const TrackPoint& waypoint) const = 0;
};

}  // namespace kvtrack
