#include "kvtrack/places/GeoNames.h"

#include "kvtrack/support/Log.h"

#include <fmt/format.h>

#include <cctype>
#include <cstdlib>

namespace kvtrack {

namespace {

// GeoNames reports errors as <status message="..." value="10"/> with
// HTTP status 200; the message is the only useful reason there is.
std::optional<std::string> serviceError(std::string_view text) {
  constexpr std::string_view kStatus = "<status message=\"";
  const size_t start = text.find(kStatus);
  if (start == std::string_view::npos) return std::nullopt;
  const size_t from = start + kStatus.size();
  const size_t end = text.find('"', from);
  if (end == std::string_view::npos) return std::string("an unreadable error");
  return std::string(text.substr(from, end - from));
}

std::optional<std::string> localeLanguage() {
  for (const char* name : {"LC_ALL", "LC_MESSAGES", "LANG"}) {
    const char* value = std::getenv(name);
    if (!value || !*value) continue;
    std::string language(value);
    language = language.substr(0, language.find_first_of("_.@"));
    if (language == "C" || language == "POSIX") return std::nullopt;
    for (char& c : language) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return language;
  }
  return std::nullopt;
}

}  // namespace

GeoNames::GeoNames(PlacesSettings settings)
    : settings_(std::move(settings)), spacing_(settings_.geoNamesRequestSpacing) {}

std::string GeoNames::languageExtension(const std::optional<std::string>& geoNamesLocale) {
  const auto language = geoNamesLocale && !geoNamesLocale->empty() ? geoNamesLocale
                                                                   : localeLanguage();
  if (!language || language->empty()) return {};
  return "&lang=" + percentEscaped(*language);
}

Status GeoNames::requireAccount() const {
  if (!settings_.geoNamesUserName.empty()) return {};
  return Status::failure(
      "GeoNames needs an account name: register at https://www.geonames.org/login, enable the "
      "free web services on the account page and set geoNamesUserName in table [places] of the "
      "settings file");
}

Result<std::string> GeoNames::fetch(const std::string& url, std::chrono::milliseconds timeout) {
  spacing_.wait();
  if (logsExchanges_) logLine(url);
  auto text = detail::answerText(url, sendHttpRequest({url, {}, {}, timeout}));
  if (!text) return text;
  if (logsExchanges_) logLine(*text);
  if (auto error = serviceError(*text)) return Status::failure("GeoNames: " + *error);
  return text;
}

Status GeoNames::ConvertLon(double lon, double lat, std::string& toCity, std::string& state,
                            std::string& country, std::string& isoCountryCode,
                            std::string& place) {
  if (Status account = requireAccount(); !account) return account;
  const std::string query =
      fmt::format("?username={}&lat={:f}&lng={:f}&style=FULL{}",
                  percentEscaped(settings_.geoNamesUserName), lat, lon,
                  languageExtension(settings_.geoNamesLocale));
  const auto nearby =
      fetch(settings_.geoNamesServer + "/findNearbyPlaceName" + query, settings_.lookupTimeout);
  if (!nearby) return nearby.status();
  const auto postal =
      fetch(settings_.geoNamesServer + "/findNearbyPostalCodes" + query, settings_.lookupTimeout);
  if (!postal) return postal.status();

  const auto assign = [](std::string& into, std::optional<std::string> value) {
    if (value) into = std::move(*value);
  };
  assign(toCity, contentOfTag("name", *postal));
  assign(state, contentOfTag("adminName1", *postal));
  assign(country, contentOfTag("countryName", *nearby));
  assign(isoCountryCode, contentOfTag("countryCode", *nearby));
  assign(place, contentOfTag("name", *nearby));
  return {};
}

Result<std::string> GeoNames::search(const std::string& address, int maxRows) {
  if (Status account = requireAccount(); !account) return account;
  const std::string url = fmt::format(
      "{}/search?username={}&q={}&maxRows={}{}", settings_.geoNamesServer,
      percentEscaped(settings_.geoNamesUserName), percentEscaped(address), maxRows,
      languageExtension(settings_.geoNamesLocale));
  spacing_.wait();
  if (logsExchanges_) logLine(url);
  const auto answer = sendHttpRequest({url, {}, {}, settings_.searchTimeout});
  if (answer && answer->status != 200) {
    logf("GeoNames: ConvertAddress: statusCode = {}", answer->status);
  }
  auto text = detail::answerText(url, answer);
  if (!text) return text;
  if (logsExchanges_) logLine(*text);
  if (auto error = serviceError(*text)) return Status::failure("GeoNames: " + *error);
  return text;
}

Status GeoNames::ConvertAddress(const std::string& address, double& toLon, double& toLat) {
  const auto text = search(address, 1);
  if (!text) return text.status();
  const auto lat = contentOfTag("lat", *text);
  const auto lng = contentOfTag("lng", *text);
  const auto latitude = lat ? detail::decimalNumber(*lat) : std::nullopt;
  const auto longitude = lng ? detail::decimalNumber(*lng) : std::nullopt;
  if (!latitude || !longitude) {
    return Status::failure(fmt::format("GeoNames found no place named '{}'", address));
  }
  toLat = *latitude;
  toLon = *longitude;
  return {};
}

Result<std::vector<GISLocation>> GeoNames::ConvertAddress(const std::string& address) {
  const auto answer = search(address, 20);
  if (!answer) return answer.status();
  std::vector<GISLocation> hits;
  hits.reserve(32);
  std::optional<std::string> text = *answer;
  while (text && !text->empty()) {
    const auto lat = contentOfTag("lat", *text);
    const auto lng = contentOfTag("lng", *text);
    const auto latitude = lat ? detail::decimalNumber(*lat) : std::nullopt;
    const auto longitude = lng ? detail::decimalNumber(*lng) : std::nullopt;
    if (latitude && longitude) {
      GISLocation hit{contentOfTag("name", *text), contentOfTag("countryName", *text), *latitude,
                      *longitude, contentOfTag("fcl", *text)};
      if (logsExchanges_) logf("{} {}", hit.name.value_or(""), hit.country.value_or(""));
      hits.push_back(std::move(hit));
    }
    text = remainingStringAfterTag("geoname", *text);
    if (logsExchanges_) logf("Remaining: {}", text.value_or(""));
  }
  return hits;
}

}  // namespace kvtrack
