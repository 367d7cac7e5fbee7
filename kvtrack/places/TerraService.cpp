#include "kvtrack/places/TerraService.h"

#include <fmt/format.h>

namespace kvtrack {

namespace {

constexpr std::string_view kOperation = "ConvertLonLatPtToNearestPlace";

std::string xmlEscaped(std::string_view text) {
  std::string escaped;
  for (const char c : text) {
    switch (c) {
      case '&': escaped += "&amp;"; break;
      case '<': escaped += "&lt;"; break;
      case '>': escaped += "&gt;"; break;
      case '"': escaped += "&quot;"; break;
      default: escaped += c;
    }
  }
  return escaped;
}

std::string envelope(std::string_view ns, double lon, double lat) {
  return fmt::format(
      "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n"
      "<soap:Envelope xmlns:xsi=\"http://www.w3.org/2001/XMLSchema-instance\" "
      "xmlns:xsd=\"http://www.w3.org/2001/XMLSchema\" "
      "xmlns:soap=\"http://schemas.xmlsoap.org/soap/envelope/\">\n"
      "  <soap:Body>\n"
      "    <{0} xmlns=\"{1}\">\n"
      "      <point>\n"
      "        <Lon>{2:f}</Lon>\n"
      "        <Lat>{3:f}</Lat>\n"
      "      </point>\n"
      "    </{0}>\n"
      "  </soap:Body>\n"
      "</soap:Envelope>\n",
      kOperation, xmlEscaped(ns), lon, lat);
}

// "Seattle, Washington, United States" → its three parts; anything else fails.
std::optional<std::vector<std::string>> threeParts(std::string_view text) {
  std::vector<std::string> parts;
  for (size_t from = 0;;) {
    const size_t comma = text.find(", ", from);
    parts.emplace_back(text.substr(from, comma - from));
    if (comma == std::string_view::npos) break;
    from = comma + 2;
  }
  if (parts.size() != 3) return std::nullopt;
  return parts;
}

}  // namespace

TerraService::TerraService(PlacesSettings settings)
    : settings_(std::move(settings)), spacing_(settings_.terraServiceRequestSpacing) {}

Status TerraService::ConvertLon(double lon, double lat, std::string& toCity, std::string& state,
                                std::string& country, std::string& /*isoCountryCode*/,
                                std::string& /*place*/) {
  HttpRequest request;
  request.url = settings_.terraServiceServer + "/TerraService2.asmx";
  request.body = envelope(settings_.terraServiceNamespace, lon, lat);
  request.headers = {"Soapaction: " + settings_.terraServiceNamespace + std::string(kOperation),
                     "Content-Type: text/xml; charset=utf-8"};
  request.timeout = settings_.terraServiceTimeout;
  spacing_.wait();
  const auto text = detail::answerText(request.url, sendHttpRequest(request));
  if (!text) return text.status();
  const std::string tag = std::string(kOperation) + "Result";
  const auto result = contentOfTag(tag, *text);
  const auto parts = result ? threeParts(*result) : std::nullopt;
  if (!parts) {
    return Status::failure(fmt::format("{} gave no 'city, state, country' for {:f}, {:f}",
                                       request.url, lat, lon));
  }
  toCity = (*parts)[0];
  state = (*parts)[1];
  country = (*parts)[2];
  return {};
}

}  // namespace kvtrack
