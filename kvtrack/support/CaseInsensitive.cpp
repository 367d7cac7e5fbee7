#include "kvtrack/support/CaseInsensitive.h"

#include <unicode/uchar.h>
#include <unicode/unistr.h>

namespace kvtrack {

int compareCaseInsensitive(std::string_view a, std::string_view b) {
  const icu::UnicodeString ua = icu::UnicodeString::fromUTF8(icu::StringPiece(a.data(), static_cast<int32_t>(a.size())));
  const icu::UnicodeString ub = icu::UnicodeString::fromUTF8(icu::StringPiece(b.data(), static_cast<int32_t>(b.size())));
  const int8_t r = ua.caseCompare(ub, U_FOLD_CASE_DEFAULT);
  return r < 0 ? -1 : (r > 0 ? 1 : 0);
}

}  // namespace kvtrack
