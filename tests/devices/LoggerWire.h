#pragma once
// The checks the emulated loggers put on the wire: NMEA-style sentences
// (BG728, GNS 2000) and the 16-byte command frames of the i-gotU family.

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include <fmt/format.h>

namespace kvtrack::test {

/// The XOR of the bytes between "$" and "*".
inline std::uint8_t nmeaChecksum(std::string_view body) {
  std::uint8_t sum = 0;
  for (const char c : body) sum ^= static_cast<std::uint8_t>(c);
  return sum;
}

/// "$" body "*" checksum CR LF; spoil flips the checksum's lowest bit.
inline std::string nmeaSentence(std::string_view body, bool upperCase, bool spoil = false) {
  const std::uint8_t sum = static_cast<std::uint8_t>(nmeaChecksum(body) ^ (spoil ? 1 : 0));
  return upperCase ? fmt::format("${}*{:02X}\r\n", body, sum) : fmt::format("${}*{:02x}\r\n", body, sum);
}

/// The byte sum of a frame's first count bytes; a whole frame sums to zero.
template <typename Bytes>
std::uint8_t frameSum(const Bytes& frame, std::size_t count) {
  std::uint8_t sum = 0;
  for (std::size_t i = 0; i < count; ++i) sum = static_cast<std::uint8_t>(sum + frame[i]);
  return sum;
}

}  // namespace kvtrack::test
