#pragma once
// Control characters XML 1.0 does not allow anywhere, not even as character
// references: a track named with one would be saved to a file no parser
// reads back. Writers drop them.

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

}  // namespace kvtrack::xml
