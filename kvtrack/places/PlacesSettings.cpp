#include "kvtrack/places/PlacesSettings.h"

#include "kvtrack/support/Log.h"
#include "kvtrack/support/UserDefaults.h"

#include <cmath>

namespace kvtrack {

namespace {

constexpr std::string_view kTable = "places";

void readText(const SettingsFile& settings, std::string_view key, std::string& into) {
  if (auto value = settings.string(kTable, key)) {
    while (!value->empty() && value->back() == '/') value->pop_back();
    if (!value->empty()) into = std::move(*value);
  }
}

// Seconds as a number; negative or absurd values are refused (logged).
void readSpacing(const SettingsFile& settings, std::string_view key,
                 PlacesSettings::Duration& into) {
  const auto seconds = settings.number(kTable, key);
  if (!seconds) return;
  if (!std::isfinite(*seconds) || *seconds < 0.0 || *seconds > 3600.0) {
    logf("settings: {} must be between 0 and 3600 seconds, not {}; keeping {} ms", key, *seconds,
         into.count());
    return;
  }
  into = PlacesSettings::Duration(static_cast<int64_t>(std::llround(*seconds * 1000.0)));
}

}  // namespace

PlacesSettings PlacesSettings::fromSettings(const SettingsFile& settings) {
  PlacesSettings result;
  if (auto user = settings.string(kTable, "geoNamesUserName")) result.geoNamesUserName = *user;
  readText(settings, "geoNamesServer", result.geoNamesServer);
  readText(settings, "geolocationServer", result.geolocationServer);
  readText(settings, "terraServiceServer", result.terraServiceServer);
  if (auto ns = settings.string(kTable, "terraServiceNamespace"); ns && !ns->empty()) {
    result.terraServiceNamespace = *ns;
  }
  readSpacing(settings, "geoNamesRequestSpacing", result.geoNamesRequestSpacing);
  readSpacing(settings, "geolocationServerRequestSpacing",
              result.geolocationServerRequestSpacing);
  readSpacing(settings, "terraServiceRequestSpacing", result.terraServiceRequestSpacing);
  if (auto locale = settings.string("defaults", UserDefaults::kGeoNamesLocale);
      locale && !locale->empty()) {
    result.geoNamesLocale = *locale;
  }
  return result;
}

}  // namespace kvtrack
