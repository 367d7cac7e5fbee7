#pragma once
// Reverse lookups through the TerraService SOAP interface
// ("ConvertLonLatPtToNearestPlace"): city, state and country of the
// nearest place. Host and namespace come from the settings.

#include "kvtrack/places/GISService.h"
#include "kvtrack/places/HttpRequest.h"

namespace kvtrack {

class TerraService : public GISService, public GISServiceConvertLocation {
 public:
  explicit TerraService(PlacesSettings settings);

  std::optional<std::string> name() const override { return "Microsoft TerraService"; }

  /// Fills city, state and country; leaves the country code and place alone.
  Status ConvertLon(double lon, double lat, std::string& toCity, std::string& state,
                    std::string& country, std::string& isoCountryCode,
                    std::string& place) override;

 private:
  const PlacesSettings settings_;
  RequestSpacing spacing_;
};

}  // namespace kvtrack
