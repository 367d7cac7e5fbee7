#pragma once
// The GeoNames web service (api.geonames.org): reverse lookups from the
// nearest populated place and the nearest postal code, and name searches.
// Every request carries the configured account name; without one no
// request is sent and the operation says how to get one.

#include "kvtrack/places/GISService.h"
#include "kvtrack/places/HttpRequest.h"

namespace kvtrack {

class GeoNames : public GISService,
                 public GISServiceConvertLocation,
                 public GISServiceConvertAddress {
 public:
  explicit GeoNames(PlacesSettings settings);

  std::optional<std::string> name() const override { return "GeoNames.org"; }

  /// "&lang=xx" from the GeoNamesLocale setting when set, else from the
  /// language of the user's locale (LC_ALL, LC_MESSAGES, LANG); empty when
  /// there is no language at all.
  static std::string languageExtension(const std::optional<std::string>& geoNamesLocale);

  /// City and state from the nearest postal code, country, country code
  /// and place from the nearest populated place. Two requests.
  Status ConvertLon(double lon, double lat, std::string& toCity, std::string& state,
                    std::string& country, std::string& isoCountryCode,
                    std::string& place) override;
  /// The position of the first hit of a name search.
  Status ConvertAddress(const std::string& address, double& toLon, double& toLat) override;
  /// Up to 20 hits of a name search, in the service's order.
  Result<std::vector<GISLocation>> ConvertAddress(const std::string& address);

 protected:
  /// Fails without an account; no request is sent then.
  Status requireAccount() const;
  /// The body of a GET answered with status 200, as UTF-8 text.
  Result<std::string> fetch(const std::string& url, std::chrono::milliseconds timeout);
  /// The search request for that many rows.
  Result<std::string> search(const std::string& address, int maxRows);

  const PlacesSettings settings_;
  RequestSpacing spacing_;
  /// The own search server's flavour logs requests and answers.
  bool logsExchanges_ = false;
};

}  // namespace kvtrack
