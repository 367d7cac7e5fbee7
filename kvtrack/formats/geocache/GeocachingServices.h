#pragma once
// The geocaching web sites kvtrack knows: which one a waypoint comes from,
// and where each one searches for caches around a position.

#include "kvtrack/model/GeocachingService.h"

#include <memory>
#include <string>
#include <vector>

namespace kvtrack {

class GeocachingCom final : public GeocachingService {
 public:
  static constexpr const char* kDomain = "geocaching.com";
  static constexpr const char* kSearchAddress =
      "https://www.geocaching.com/seek/nearest.aspx?origin_lat={:f}&origin_long={:f}&dist={:f}"
      "&submit3=Search";

  std::string name() const override { return "geocaching.com"; }
  /// The site searches in miles.
  std::string urlForLatitude(double latitude, double longitude, double distanceInKM) const override;
  bool belongsToThisService(const TrackPoint& waypoint) const override;
};

class OpenCaching final : public GeocachingService {
 public:
  static constexpr const char* kDomain = "opencaching.de";
  static constexpr const char* kSearchAddress =
      "https://www.opencaching.de/search.php?searchto=searchbydistance&showresult=1&expert=0"
      "&output=HTML&utf8=1&sort=bydistance&orderRatingFirst=0&f_userowner=0&f_userfound=0"
      "&f_inactive=1&f_ignored=1&country=&cachetype=&cache_attribs=&cache_attribs_not=7"
      "&latNS=N&lat_h={:f}&lat_min=0&lonEW=E&lon_h={:f}&lon_min=0&distance={:f}&unit=km";

  std::string name() const override { return "opencaching.de"; }
  std::string urlForLatitude(double latitude, double longitude, double distanceInKM) const override;
  bool belongsToThisService(const TrackPoint& waypoint) const override;
};

class GeocachingServices {
 public:
  /// Every known service, made once and alive until exit.
  static const std::vector<std::unique_ptr<GeocachingService>>& services();
  /// The first service the waypoint belongs to, or null.
  static const GeocachingService* geocachingService(const TrackPoint& waypoint);
};

}  // namespace kvtrack
