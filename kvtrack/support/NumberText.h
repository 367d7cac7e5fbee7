#pragma once
// Numbers to text and back, as the exchange formats need them. Locale-free.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace kvtrack {

/// Shortest plain decimal text that reads back to the same double, never
/// with an exponent (48.137154, 0.00001, -3). NaN is "NaN", infinities "inf"/"-inf".
std::string decimalText(double value);
/// printf "%f": six decimals.
std::string fixedText(double value);

/// A decimal number from text (blanks around it allowed, a trailing
/// non-number part ignored: "12.5m" is 12.5); NaN when no number starts it.
double parseDecimal(std::string_view text);
/// A number and nothing else (blanks around it allowed): "47.5", "-8",
/// "1e-3"; nothing for "abc", "12abc", "", "nan" or "inf".
std::optional<double> parseFiniteNumber(std::string_view text);
/// Single precision, 0 when no number starts it (like C's atof).
float parseFloatValue(std::string_view text);
/// Leading blanks, optional sign, digits; 0 when there are none; clamped to
/// the 32-bit range.
int32_t parseIntValue(std::string_view text);
int64_t parseLongLongValue(std::string_view text);

}  // namespace kvtrack
