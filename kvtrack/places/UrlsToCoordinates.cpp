#define PCRE2_CODE_UNIT_WIDTH 8
#include "kvtrack/places/UrlsToCoordinates.h"

#include <pcre2.h>

#include <memory>

namespace kvtrack {

namespace {

// The host's dots match any character, as in the links' first users' pattern.
constexpr std::string_view kPattern =
    R"(.*maps.google.com.*[\&\?]ll=([+-]?\d+\.\d+),([+-]?\d+\.\d+).*)";

struct CodeDeleter {
  void operator()(pcre2_code* code) const { pcre2_code_free(code); }
};
struct MatchDataDeleter {
  void operator()(pcre2_match_data* data) const { pcre2_match_data_free(data); }
};

// Compiled once; a compiled pattern may be shared by threads.
const pcre2_code* linkPattern() {
  static const std::unique_ptr<pcre2_code, CodeDeleter> code = [] {
    int error = 0;
    PCRE2_SIZE offset = 0;
    return std::unique_ptr<pcre2_code, CodeDeleter>(
        pcre2_compile(reinterpret_cast<PCRE2_SPTR>(kPattern.data()), kPattern.size(), 0, &error,
                      &offset, nullptr));
  }();
  return code.get();
}

std::optional<double> capture(pcre2_match_data* data, std::string_view text, uint32_t group) {
  const PCRE2_SIZE* offsets = pcre2_get_ovector_pointer(data);
  if (offsets[2 * group] == PCRE2_UNSET) return std::nullopt;
  return detail::decimalNumber(
      text.substr(offsets[2 * group], offsets[2 * group + 1] - offsets[2 * group]));
}

}  // namespace

Status UrlsToCoordinates::ConvertAddress(const std::string& address, double& toLon,
                                         double& toLat) {
  const pcre2_code* pattern = linkPattern();
  if (!pattern) return Status::failure("the map-link pattern does not compile");
  const std::unique_ptr<pcre2_match_data, MatchDataDeleter> data(
      pcre2_match_data_create_from_pattern(pattern, nullptr));
  if (!data) return Status::failure("out of memory matching a map link");
  const int matched = pcre2_match(pattern, reinterpret_cast<PCRE2_SPTR>(address.data()),
                                  address.size(), 0, 0, data.get(), nullptr);
  const auto latitude = matched >= 3 ? capture(data.get(), address, 1) : std::nullopt;
  const auto longitude = matched >= 3 ? capture(data.get(), address, 2) : std::nullopt;
  if (!latitude || !longitude) {
    return Status::failure("not a Google Maps link with a position (ll=LATITUDE,LONGITUDE)");
  }
  toLat = *latitude;
  toLon = *longitude;
  return {};
}

}  // namespace kvtrack
