#pragma once
// What the place services need to know: account, servers, time-outs and
// how far apart requests to one service must be. Read once from the
// settings file (table "places", and "GeoNamesLocale" of table "defaults")
// and handed to each service; nothing here is read behind the caller's back.
//
// [places]
// geoNamesUserName = "me"                       # needed for every GeoNames request
// geoNamesServer = "http://api.geonames.org"
// geolocationServer = "http://localhost:8080"    # own search server (MyGeoNames)
// terraServiceServer = "http://terraservice.net"
// terraServiceNamespace = "http://terraservice.net/terraserver/"
// geoNamesRequestSpacing = 4.0                   # seconds between two requests
// geolocationServerRequestSpacing = 0.0
// terraServiceRequestSpacing = 1.0

#include "kvtrack/support/SettingsFile.h"

#include <chrono>
#include <optional>
#include <string>

namespace kvtrack {

struct PlacesSettings {
  using Duration = std::chrono::milliseconds;

  /// The GeoNames account; empty when none is configured.
  std::string geoNamesUserName;
  /// Base addresses (scheme, host, optional port), without a trailing "/".
  std::string geoNamesServer = "http://api.geonames.org";
  std::string geolocationServer = "http://localhost:8080";
  std::string terraServiceServer = "http://terraservice.net";
  std::string terraServiceNamespace = "http://terraservice.net/terraserver/";
  /// "GeoNamesLocale" of the user defaults: the language of GeoNames answers.
  std::optional<std::string> geoNamesLocale;

  /// The free GeoNames account allows 1000 credits an hour and 10000 a day;
  /// a reverse lookup costs two requests. 4 s apart keeps a long run under
  /// the hourly limit with room for other use of the same account.
  Duration geoNamesRequestSpacing{4000};
  Duration geolocationServerRequestSpacing{0};
  Duration terraServiceRequestSpacing{1000};

  /// Time-outs of one request (not in the settings file).
  Duration lookupTimeout{30000};
  Duration searchTimeout{60000};
  Duration terraServiceTimeout{60000};

  /// The defaults, overridden by what the settings file holds.
  static PlacesSettings fromSettings(const SettingsFile& settings);
};

}  // namespace kvtrack
