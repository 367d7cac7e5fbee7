#pragma once
// The position in a Google Maps link: the "ll=LATITUDE,LONGITUDE" query
// item, read without any request. Both numbers need a decimal point.

#include "kvtrack/places/GISService.h"

namespace kvtrack {

class UrlsToCoordinates : public GISServiceConvertAddress {
 public:
  /// Fails for text that is not a maps.google.com link with such an item.
  Status ConvertAddress(const std::string& address, double& toLon, double& toLat) override;
};

}  // namespace kvtrack
