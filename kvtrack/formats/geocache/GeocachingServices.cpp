#include "kvtrack/formats/geocache/GeocachingServices.h"

#include "kvtrack/model/TrackPoint.h"

#include <fmt/format.h>

namespace kvtrack {

namespace {

constexpr double kMilesPerKilometre = 0.621371;

bool urlContains(const TrackPoint& waypoint, const char* domain) {
  const auto& url = waypoint.url();
  return url && url->find(domain) != std::string::npos;
}

}  // namespace

std::string GeocachingCom::urlForLatitude(double latitude, double longitude,
                                          double distanceInKM) const {
  // The site has always been given the distance in single precision.
  const float miles = static_cast<float>(distanceInKM * kMilesPerKilometre);
  return fmt::format(fmt::runtime(kSearchAddress), latitude, longitude, static_cast<double>(miles));
}

bool GeocachingCom::belongsToThisService(const TrackPoint& waypoint) const {
  return urlContains(waypoint, kDomain);
}

std::string OpenCaching::urlForLatitude(double latitude, double longitude,
                                        double distanceInKM) const {
  return fmt::format(fmt::runtime(kSearchAddress), latitude, longitude, distanceInKM);
}

bool OpenCaching::belongsToThisService(const TrackPoint& waypoint) const {
  return urlContains(waypoint, kDomain);
}

const std::vector<std::unique_ptr<GeocachingService>>& GeocachingServices::services() {
  static const auto* list = [] {
    auto* made = new std::vector<std::unique_ptr<GeocachingService>>();
    made->push_back(std::make_unique<GeocachingCom>());
    made->push_back(std::make_unique<OpenCaching>());
    return made;
  }();
  return *list;
}

const GeocachingService* GeocachingServices::geocachingService(const TrackPoint& waypoint) {
  for (const auto& service : services()) {
    if (service->belongsToThisService(waypoint)) return service.get();
  }
  return nullptr;
}

}  // namespace kvtrack
