#pragma once
// Case-insensitive comparison of UTF-8 texts by Unicode case folding (ICU),
// with no numeric or locale-specific ordering.

#include <string_view>

namespace kvtrack {

/// -1, 0 or +1, comparing the case-folded texts by UTF-16 code unit.
int compareCaseInsensitive(std::string_view a, std::string_view b);

inline bool equalsCaseInsensitive(std::string_view a, std::string_view b) {
  return compareCaseInsensitive(a, b) == 0;
}

}  // namespace kvtrack
