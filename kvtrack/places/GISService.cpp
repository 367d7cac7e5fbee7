#include "kvtrack/places/GISService.h"

#include "kvtrack/places/GeoNames.h"

#include <unicode/utf8.h>

#include <fmt/format.h>

#include <charconv>

namespace kvtrack {

std::string GISLocation::feature() const {
  static constexpr std::pair<std::string_view, std::string_view> kFeatures[] = {
      {"A", "Administrative Boundary"}, {"H", "Hydrographic"},     {"L", "Area"},
      {"P", "Populated Place"},         {"R", "Road / Railroad"}, {"S", "Spot"},
      {"T", "Hypsographic"},            {"U", "Undersea"},        {"V", "Vegetation"}};
  const std::string code = featureClass.value_or("");
  for (const auto& [key, text] : kFeatures) {
    if (code == key) return std::string(text);
  }
  return code;
}

std::optional<std::string> GISService::resultStringForData(std::string_view data) {
  const std::string_view text = data.substr(0, data.find('\0'));
  const auto* bytes = reinterpret_cast<const uint8_t*>(text.data());
  const auto length = static_cast<int32_t>(text.size());
  for (int32_t i = 0; i < length;) {
    UChar32 c = 0;
    U8_NEXT(bytes, i, length, c);
    if (c < 0) return std::nullopt;
  }
  return std::string(text);
}

std::optional<std::string> GISService::contentOfTag(std::string_view tag, std::string_view text) {
  const std::string open = "<" + std::string(tag) + ">";
  const std::string close = "</" + std::string(tag) + ">";
  const size_t start = text.find(open);
  const size_t end = text.find(close);
  // An unterminated element (an answer cut short) yields nothing.
  if (start == std::string_view::npos || end == std::string_view::npos) return std::nullopt;
  const size_t from = start + open.size();
  if (end <= from) return std::nullopt;  // empty, or the closing tag first
  return std::string(text.substr(from, end - from));
}

std::optional<std::string> GISService::contentOfString(std::string_view name,
                                                       std::string_view text) {
  const std::string open = "<str name=\"" + std::string(name) + "\">";
  const size_t start = text.find(open);
  if (start == std::string_view::npos) return std::nullopt;
  const size_t end = text.find("</str>", start);
  if (end == std::string_view::npos) return std::nullopt;
  const size_t from = start + open.size();
  if (end <= from) return std::nullopt;
  return std::string(text.substr(from, end - from));
}

std::optional<std::string> GISService::remainingStringAfterTag(std::string_view tag,
                                                               std::string_view text) {
  if (!contentOfTag(tag, text)) return std::nullopt;
  const std::string close = "</" + std::string(tag) + ">";
  const size_t after = text.find(close) + close.size() + 1;  // skips one character, by design
  if (after >= text.size()) return std::string();
  return std::string(text.substr(after));
}

GISServices::GISServices(const PlacesSettings& settings) {
  services_.push_back(std::make_shared<GeoNames>(settings));
}

namespace detail {

std::optional<double> decimalNumber(std::string_view text) {
  while (!text.empty() && (text.front() == ' ' || text.front() == '\n' || text.front() == '\t' ||
                           text.front() == '\r')) {
    text.remove_prefix(1);
  }
  if (!text.empty() && text.front() == '+') text.remove_prefix(1);
  double value = 0.0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end == text.data()) return std::nullopt;
  return value;
}


Result<std::string> answerText(const std::string& url, const Result<HttpAnswer>& answer) {
  if (!answer) return answer.status();
  if (answer->status != 200) {
    return Status::failure(fmt::format("{} answered with HTTP status {}", url, answer->status));
  }
  auto text = GISService::resultStringForData(answer->body);
  if (!text) return Status::failure(url + " answered with text that is not UTF-8");
  return std::move(*text);
}

}  // namespace detail
}  // namespace kvtrack
