#include "kvtrack/support/NumberText.h"

#include <fmt/format.h>

#include <charconv>
#include <cmath>
#include <limits>

namespace kvtrack {

namespace {

std::string_view trimLeft(std::string_view text) {
  while (!text.empty() && (text.front() == ' ' || text.front() == '\t' || text.front() == '\n' ||
                           text.front() == '\r')) {
    text.remove_prefix(1);
  }
  return text;
}

template <typename Float>
bool parseFloating(std::string_view text, Float& out) {
  text = trimLeft(text);
  if (!text.empty() && text.front() == '+') text.remove_prefix(1);
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), out);
  if (error == std::errc::result_out_of_range) {
    // Magnitudes beyond the type: keep the sign, saturate.
    out = (!text.empty() && text.front() == '-') ? -std::numeric_limits<Float>::infinity()
                                                 : std::numeric_limits<Float>::infinity();
    return end != text.data();
  }
  return error == std::errc() && end != text.data();
}

}  // namespace

std::string decimalText(double value) {
  if (std::isnan(value)) return "NaN";
  if (std::isinf(value)) return value > 0 ? "inf" : "-inf";
  char buffer[400];  // fixed notation of the largest double has 309 digits
  const auto result = std::to_chars(buffer, buffer + sizeof buffer, value, std::chars_format::fixed);
  return std::string(buffer, result.ptr);
}

std::optional<double> parseFiniteNumber(std::string_view text) {
  text = trimLeft(text);
  while (!text.empty() && trimLeft(text.substr(text.size() - 1)).empty()) text.remove_suffix(1);
  if (!text.empty() && text.front() == '+') text.remove_prefix(1);
  double value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size() || !std::isfinite(value)) {
    return std::nullopt;
  }
  return value;
}

std::string fixedText(double value) { return fmt::format("{:.6f}", value); }

double parseDecimal(std::string_view text) {
  double value = 0;
  return parseFloating(text, value) ? value : std::numeric_limits<double>::quiet_NaN();
}

float parseFloatValue(std::string_view text) {
  float value = 0;
  return parseFloating(text, value) ? value : 0.0f;
}

int64_t parseLongLongValue(std::string_view text) {
  text = trimLeft(text);
  bool negative = false;
  if (!text.empty() && (text.front() == '+' || text.front() == '-')) {
    negative = text.front() == '-';
    text.remove_prefix(1);
  }
  uint64_t magnitude = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), magnitude);
  if (end == text.data()) return 0;
  if (error == std::errc::result_out_of_range ||
      magnitude > static_cast<uint64_t>(std::numeric_limits<int64_t>::max())) {
    return negative ? std::numeric_limits<int64_t>::min() : std::numeric_limits<int64_t>::max();
  }
  const auto value = static_cast<int64_t>(magnitude);
  return negative ? -value : value;
}

int32_t parseIntValue(std::string_view text) {
  const int64_t value = parseLongLongValue(text);
  if (value > std::numeric_limits<int32_t>::max()) return std::numeric_limits<int32_t>::max();
  if (value < std::numeric_limits<int32_t>::min()) return std::numeric_limits<int32_t>::min();
  return static_cast<int32_t>(value);
}

}  // namespace kvtrack
