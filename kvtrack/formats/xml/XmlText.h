#pragma once
// Control characters XML 1.0 does not allow anywhere, not even as character
// references: a track named with one would be saved to a file no parser
// reads back. Writers drop them. And the escaping libxml2 applies when it
// saves text and attribute values in UTF-8, for markup written directly.

#include <algorithm>
#include <string>
#include <string_view>

namespace kvtrack::xml {

constexpr bool isForbiddenInXml(char c) {
  const auto byte = static_cast<unsigned char>(c);
  return byte < 0x20 && byte != '\t' && byte != '\n' && byte != '\r';
}

inline bool hasForbiddenXmlCharacters(std::string_view text) {
  return std::any_of(text.begin(), text.end(), isForbiddenInXml);
}

inline std::string withoutForbiddenXmlCharacters(std::string_view text) {
  std::string kept;
  kept.reserve(text.size());
  std::copy_if(text.begin(), text.end(), std::back_inserter(kept),
               [](char c) { return !isForbiddenInXml(c); });
  return kept;
}

namespace detail {

// Runs without special characters are copied in one piece; forbidden
// characters are dropped; bytes above 0x7f pass through unchanged.
template <typename Replacement>
void appendEscaped(std::string& out, std::string_view text, Replacement replacement) {
  size_t start = 0;
  for (size_t i = 0; i < text.size(); ++i) {
    if (isForbiddenInXml(text[i])) {
      out.append(text.data() + start, i - start);
      start = i + 1;
      continue;
    }
    const std::string_view escaped = replacement(text[i]);
    if (escaped.empty()) continue;
    out.append(text.data() + start, i - start);
    out += escaped;
    start = i + 1;
  }
  out.append(text.data() + start, text.size() - start);
}

}  // namespace detail

/// Element text as libxml2 saves it.
inline void appendEscapedText(std::string& out, std::string_view text) {
  detail::appendEscaped(out, text, [](char c) -> std::string_view {
    switch (c) {
      case '<': return "&lt;";
      case '>': return "&gt;";
      case '&': return "&amp;";
      case '\r': return "&#13;";
      default: return {};
    }
  });
}

/// An attribute value (without its quotes) as libxml2 saves it.
inline void appendEscapedAttribute(std::string& out, std::string_view value) {
  detail::appendEscaped(out, value, [](char c) -> std::string_view {
    switch (c) {
      case '<': return "&lt;";
      case '>': return "&gt;";
      case '&': return "&amp;";
      case '"': return "&quot;";
      case '\n': return "&#10;";
      case '\r': return "&#13;";
      case '\t': return "&#9;";
      default: return {};
    }
  });
}

}  // namespace kvtrack::xml
