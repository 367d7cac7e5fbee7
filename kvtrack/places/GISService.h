#pragma once
// Address lookup services. Callers hold a service through one of two
// interfaces and never need to know which back end answers:
// GISServiceConvertLocation turns a position into place names (reverse
// lookup), GISServiceConvertAddress a text or link into a position.
// GISService is the common base of the web back ends, with the small text
// operations they read their XML answers with (plain tag search, no XML
// parser: the answers are small and their layout is fixed).
//
// Positions are degrees, north and east positive. Every operation is
// synchronous and may block its thread for up to the request's time-out.

#include "kvtrack/places/HttpRequest.h"
#include "kvtrack/places/PlacesSettings.h"
#include "kvtrack/support/Status.h"

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kvtrack {

class GISServiceConvertLocation {
 public:
  virtual ~GISServiceConvertLocation() = default;
  /// Fills those of the five texts it finds and leaves the others as the
  /// caller set them. Safe to call from several threads at once.
  virtual Status ConvertLon(double lon, double lat, std::string& toCity, std::string& state,
                            std::string& country, std::string& isoCountryCode,
                            std::string& place) = 0;
};

class GISServiceConvertAddress {
 public:
  virtual ~GISServiceConvertAddress() = default;
  /// The position of a free-text address or a link.
  virtual Status ConvertAddress(const std::string& address, double& toLon, double& toLat) = 0;
};

/// One hit of a forward search.
struct GISLocation {
  std::optional<std::string> name;
  std::optional<std::string> country;
  double latitude = 0.0;
  double longitude = 0.0;
  /// GeoNames feature class ("P", "H", ...), or a description.
  std::optional<std::string> featureClass;

  static GISLocation gisLocation() { return {}; }
  /// The feature class in words ("P" is "Populated Place"); unknown codes as they are.
  std::string feature() const;
};

class GISService {
 public:
  virtual ~GISService() = default;
  /// The display name of the back end; absent for the base.
  virtual std::optional<std::string> name() const { return std::nullopt; }

  /// The bytes of an answer as text: up to the first zero byte; absent
  /// when that is not valid UTF-8.
  static std::optional<std::string> resultStringForData(std::string_view data);
  /// The text between the first "<tag>" and the first "</tag>"; absent
  /// when it is empty, when the closing tag comes first or is missing, or
  /// when the opening tag is missing. Attributes in the opening tag are
  /// not supported.
  static std::optional<std::string> contentOfTag(std::string_view tag, std::string_view text);
  /// In search-server answers: the text of the first <str name="NAME">
  /// element; absent when missing, empty or unterminated.
  static std::optional<std::string> contentOfString(std::string_view name, std::string_view text);
  /// What follows the first "</tag>", less the one character right after
  /// it (the line break between repeated elements); absent when the
  /// element is empty or missing. Walks repeated elements.
  static std::optional<std::string> remainingStringAfterTag(std::string_view tag,
                                                            std::string_view text);
};

/// The services offered to users: one GeoNames on the given settings.
class GISServices {
 public:
  explicit GISServices(const PlacesSettings& settings);
  const std::vector<std::shared_ptr<GISService>>& services() const { return services_; }

 private:
  std::vector<std::shared_ptr<GISService>> services_;
};

namespace detail {
/// A decimal number at the start of the text (blanks around allowed), or absent.
std::optional<double> decimalNumber(std::string_view text);
/// The text of an HTTP answer that counts: status 200, valid UTF-8.
Result<std::string> answerText(const std::string& url, const Result<HttpAnswer>& answer);
}  // namespace detail

}  // namespace kvtrack
