#include "kvtrack/places/MyGeoNames.h"

#include "kvtrack/support/Log.h"

#include <fmt/format.h>

namespace kvtrack {

MyGeoNames::MyGeoNames(PlacesSettings settings)
    : GeoNames(std::move(settings)), serverSpacing_(settings_.geolocationServerRequestSpacing) {
  logsExchanges_ = true;
}

Result<std::string> MyGeoNames::fetchFromServer(const std::string& pathAndQuery) {
  const std::string url = settings_.geolocationServer + pathAndQuery;
  serverSpacing_.wait();
  logLine(url);
  auto text = detail::answerText(url, sendHttpRequest({url, {}, {}, settings_.lookupTimeout}));
  if (text) logLine(*text);
  return text;
}

Status MyGeoNames::ConvertLon(double lon, double lat, std::string& toCity, std::string& state,
                              std::string& country, std::string& isoCountryCode,
                              std::string& /*place*/) {
  const auto nearest = fetchFromServer(fmt::format(
      "/geoloc/findnearbylocation?lat={:f}&lng={:f}&from=1&to=1&format=xml&placetype=city"
      "&indent=true",
      lat, lon));
  if (!nearest) return nearest.status();
  const auto featureId = contentOfTag("featureId", *nearest);
  if (!featureId) {
    return Status::failure(
        fmt::format("{} knows no city near {:f}, {:f}", settings_.geolocationServer, lat, lon));
  }
  const auto names = fetchFromServer(fmt::format(
      "/fulltext/fulltextsearch?q={}&lat={:f}&lng={:f}&from=1&to=1&format=xml&lang=en"
      "&style=full&placetype=city&indent=true",
      percentEscaped(*featureId), lat, lon));
  if (!names) return names.status();
  const auto assign = [](std::string& into, std::optional<std::string> value) {
    if (value) into = std::move(*value);
  };
  assign(toCity, contentOfString("name", *names));
  assign(country, contentOfString("country_name", *names));
  assign(isoCountryCode, contentOfString("country_code", *names));
  assign(state, contentOfString("adm1_name", *names));
  return {};
}

}  // namespace kvtrack
