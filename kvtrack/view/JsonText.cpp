#include "kvtrack/view/JsonText.h"

#include <fmt/format.h>

#include <cmath>

namespace kvtrack {

std::string JsonText::escaped(std::string_view text) {
  std::string out;
  out.reserve(text.size() + 8);
  for (const char c : text) {
    switch (c) {
      case '"': out += "\\\""; break;
      case '\\': out += "\\\\"; break;
      case '\n': out += "\\n"; break;
      case '\r': out += "\\r"; break;
      case '\t': out += "\\t"; break;
      case '<': out += "\\u003c"; break;
      case '>': out += "\\u003e"; break;
      case '&': out += "\\u0026"; break;
      default:
        if (static_cast<unsigned char>(c) < 0x20) {
          out += fmt::format("\\u{:04x}", static_cast<unsigned>(c));
        } else {
          out += c;
        }
    }
  }
  return out;
}

void JsonText::separate() {
  if (afterKey_) {
    afterKey_ = false;
    return;
  }
  if (firstInContainer_.empty()) return;
  if (!firstInContainer_.back()) text_ += ',';
  firstInContainer_.back() = false;
}

JsonText& JsonText::open(char bracket) {
  separate();
  text_ += bracket;
  firstInContainer_.push_back(true);
  return *this;
}

JsonText& JsonText::close(char bracket) {
  text_ += bracket;
  if (!firstInContainer_.empty()) firstInContainer_.pop_back();
  return *this;
}

JsonText& JsonText::key(std::string_view name) {
  separate();
  text_ += '"';
  text_ += escaped(name);
  text_ += "\":";
  afterKey_ = true;
  return *this;
}

JsonText& JsonText::string(std::string_view value) {
  separate();
  text_ += '"';
  text_ += escaped(value);
  text_ += '"';
  return *this;
}

JsonText& JsonText::number(double value, int decimals) {
  if (!std::isfinite(value)) return null();
  separate();
  std::string digits = fmt::format("{:.{}f}", value, decimals);
  if (digits.find('.') != std::string::npos) {
    while (digits.back() == '0') digits.pop_back();
    if (digits.back() == '.') digits.pop_back();
  }
  if (digits == "-0") digits = "0";
  text_ += digits;
  return *this;
}

JsonText& JsonText::integer(int64_t value) {
  separate();
  fmt::format_to(std::back_inserter(text_), "{}", value);
  return *this;
}

JsonText& JsonText::boolean(bool value) {
  separate();
  text_ += value ? "true" : "false";
  return *this;
}

JsonText& JsonText::null() {
  separate();
  text_ += "null";
  return *this;
}

}  // namespace kvtrack
