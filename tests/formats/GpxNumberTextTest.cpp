// The number forms of the GPX writer against the standard library's: the
// shortest text that reads back ("decimal") and printf's "%f", over
// coordinates, elevations and speeds as files hold them, halves that round
// either way, and values across the whole range of doubles.
#include "kvtrack/formats/gpx/TrackPointMarkup.h"

#include <gtest/gtest.h>

#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <limits>
#include <random>
#include <string>
#include <vector>

namespace kvtrack {
namespace {

std::string decimalOf(double value) {
  std::string text;
  gpx::appendDecimal(text, value);
  return text;
}

std::string fixedOf(double value) {
  std::string text;
  gpx::appendFixed(text, value);
  return text;
}

std::string shortest(double value) {
  if (std::isnan(value)) return "NaN";
  if (std::isinf(value)) return value > 0 ? "inf" : "-inf";
  char buffer[400];
  const auto result = std::to_chars(buffer, buffer + sizeof buffer, value, std::chars_format::fixed);
  return std::string(buffer, result.ptr);
}

std::string printfFixed(double value) {
  char buffer[400];
  std::snprintf(buffer, sizeof buffer, "%f", value);
  return buffer;
}

std::vector<double> samples() {
  std::mt19937_64 random(7);
  std::vector<double> values = {0.0,
                                -0.0,
                                1.0,
                                -1.0,
                                0.5,
                                0.0000005,
                                -0.0000005,
                                0.0000015,
                                0.0000025,
                                1e-7,
                                5e-324,
                                1e300,
                                8e6,
                                7999999.99999999,
                                999999.9999995,
                                999999.9999994,
                                1e6,
                                47.137154,
                                8.540000000000001,
                                400.25};
  for (int i = 0; i < 100000; ++i) {
    const int kind = i % 4;
    double v = 0;
    if (kind == 0) {  // coordinates with up to nine decimals, as files write them
      const int decimals = static_cast<int>(random() % 10);
      v = static_cast<double>(static_cast<int64_t>(random() % 360'000'000'000) - 180'000'000'000) / 1e9;
      v = std::round(v * std::pow(10, decimals)) / std::pow(10, decimals);
    } else if (kind == 1) {  // halves of the sixth decimal and their neighbours
      v = (static_cast<double>(random() % 2'000'000'000) + 0.5) / 1e6;
      v = std::nextafter(v, (random() & 1) ? 1e9 : -1e9);
      if (random() & 1) v = (static_cast<double>(random() % 2'000'000) + 0.5) / 1e6;
    } else if (kind == 2) {  // any double
      const uint64_t bits = random();
      std::memcpy(&v, &bits, sizeof v);
    } else {  // random magnitudes from 1e-12 to 1e12
      v = std::ldexp(static_cast<double>(random() % (1ULL << 52)) / (1ULL << 52) + 1.0,
                     static_cast<int>(random() % 80) - 40);
    }
    values.push_back((random() & 1) ? v : -v);
  }
  return values;
}

// Decimal is the shortest text that reads back; fixed is printf's six decimals
// (printf and to_chars differ only in the sign of NaN).
TEST(GpxNumberText, DecimalIsTheShortestTextAndFixedIsPrintfs) {
  for (const double v : samples()) {
    ASSERT_EQ(decimalOf(v), shortest(v)) << std::hexfloat << v;
    if (!std::isnan(v)) {
      ASSERT_EQ(fixedOf(v), printfFixed(v)) << std::hexfloat << v;
    }
  }
  EXPECT_EQ(fixedOf(std::numeric_limits<double>::quiet_NaN()), "nan");
}

}  // namespace
}  // namespace kvtrack
