#pragma once
// The checks the emulated loggers put on the wire: NMEA-style sentences
// (BG728, GNS 2000) and the 16-byte command frames and 32-byte records of
// the i-gotU family; and what the emulators share besides.

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

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

/// The 32-byte record of an i-gotU-family fix: flags, the year's place in the
/// 16-year cycle and the packed date and time, then big-endian integers:
/// latitude and longitude (1e-7 degrees) at 12 and 16, elevation (cm) where
/// the model keeps it, and the satellites at 29.
template <typename Fix>
std::vector<std::uint8_t> packedRecord(const Fix& fix, std::size_t elevationAt) {
  std::vector<std::uint8_t> r(32, 0);
  const auto put32 = [&r](std::size_t at, std::int32_t value) {
    for (int i = 0; i < 4; ++i)
      r[at + i] = static_cast<std::uint8_t>(static_cast<std::uint32_t>(value) >> (24 - 8 * i));
  };
  r[0] = fix.flags;
  r[1] = static_cast<std::uint8_t>(((fix.year % 16) << 4) | fix.month);
  r[2] = static_cast<std::uint8_t>((fix.day << 3) | (fix.hour >> 2));
  r[3] = static_cast<std::uint8_t>(((fix.hour & 3) << 6) | fix.minute);
  r[4] = static_cast<std::uint8_t>(fix.milliseconds >> 8);
  r[5] = static_cast<std::uint8_t>(fix.milliseconds & 0xFF);
  put32(elevationAt, fix.elevationCm);
  put32(12, fix.latitude);
  put32(16, fix.longitude);
  r[29] = fix.satellites;
  return r;
}

/// Changes an emulator's state under its lock.
template <typename T>
void lockedSet(std::mutex& mutex, T& target, T value) {
  std::lock_guard lock(mutex);
  target = std::move(value);
}

/// A copy of an emulator's state, taken under its lock.
template <typename T>
T lockedCopy(std::mutex& mutex, const T& value) {
  std::lock_guard lock(mutex);
  return value;
}

}  // namespace kvtrack::test
