#pragma once
// Reverse lookups through our own geolocation search server (a Gisgraphy
// server: "geolocationServer" in the settings); name searches go to the
// GeoNames web service as with GeoNames, with requests and answers logged.

#include "kvtrack/places/GeoNames.h"

namespace kvtrack {

class MyGeoNames : public GeoNames {
 public:
  explicit MyGeoNames(PlacesSettings settings);

  /// The same display name as GeoNames: users see one source.
  std::optional<std::string> name() const override { return "GeoNames.org"; }

  /// The nearest city, then its names by a full-text search for its
  /// feature id. Leaves the place text alone.
  Status ConvertLon(double lon, double lat, std::string& toCity, std::string& state,
                    std::string& country, std::string& isoCountryCode,
                    std::string& place) override;

 private:
  Result<std::string> fetchFromServer(const std::string& pathAndQuery);

  RequestSpacing serverSpacing_;
};

}  // namespace kvtrack
