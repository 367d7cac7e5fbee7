#pragma once
// The platform geocoder's place in the set of services. Linux has no
// system geocoder, so every search reports no hit; the class still offers
// both interfaces so that callers can hold it like any other service.

#include "kvtrack/places/GISService.h"

#include <functional>

namespace kvtrack {

class CoreLocationService : public GISService,
                            public GISServiceConvertLocation,
                            public GISServiceConvertAddress {
 public:
  using Completion = std::function<void(std::vector<GISLocation>)>;

  /// Calls the completion with the hits (here: none), on the caller's thread.
  static void ConvertAddress(const std::string& address, const Completion& completionHandler);

  /// Succeed and fill nothing.
  Status ConvertLon(double lon, double lat, std::string& toCity, std::string& state,
                    std::string& country, std::string& isoCountryCode,
                    std::string& place) override;
  Status ConvertAddress(const std::string& address, double& toLon, double& toLat) override;
};

}  // namespace kvtrack
