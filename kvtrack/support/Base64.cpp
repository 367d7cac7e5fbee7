#include "kvtrack/support/Base64.h"

#include <array>
#include <cstdint>

namespace kvtrack {

namespace {

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

constexpr std::array<int8_t, 256> makeDecodeTable() {
  std::array<int8_t, 256> table{};
  for (auto& entry : table) entry = -1;
  for (int i = 0; i < 64; ++i)
    table[static_cast<unsigned char>(kAlphabet[i])] = static_cast<int8_t>(i);
  return table;
}

constexpr auto kDecode = makeDecodeTable();

bool isBlank(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

}  // namespace

std::string base64Encode(std::string_view bytes) {
  std::string out;
  out.reserve((bytes.size() + 2) / 3 * 4);
  size_t i = 0;
  for (; i + 3 <= bytes.size(); i += 3) {
    const uint32_t n = static_cast<uint8_t>(bytes[i]) << 16 |
                       static_cast<uint8_t>(bytes[i + 1]) << 8 | static_cast<uint8_t>(bytes[i + 2]);
    out += kAlphabet[n >> 18];
    out += kAlphabet[(n >> 12) & 63];
    out += kAlphabet[(n >> 6) & 63];
    out += kAlphabet[n & 63];
  }
  const size_t rest = bytes.size() - i;
  if (rest > 0) {
    uint32_t n = static_cast<uint8_t>(bytes[i]) << 16;
    if (rest == 2) n |= static_cast<uint8_t>(bytes[i + 1]) << 8;
    out += kAlphabet[n >> 18];
    out += kAlphabet[(n >> 12) & 63];
    out += rest == 2 ? kAlphabet[(n >> 6) & 63] : '=';
    out += '=';
  }
  return out;
}

std::optional<std::string> base64Decode(std::string_view text) {
  std::string out;
  out.reserve(text.size() / 4 * 3);
  uint32_t bits = 0;
  int count = 0;  // six-bit groups collected in bits
  size_t padding = 0;
  for (const char c : text) {
    if (isBlank(c)) continue;
    if (c == '=') {
      ++padding;
      continue;
    }
    const int8_t value = kDecode[static_cast<unsigned char>(c)];
    if (value < 0 || padding > 0) return std::nullopt;  // data after padding is not base64
    bits = bits << 6 | static_cast<uint32_t>(value);
    if (++count == 4) {
      out += static_cast<char>(bits >> 16);
      out += static_cast<char>(bits >> 8);
      out += static_cast<char>(bits);
      bits = 0;
      count = 0;
    }
  }
  // A lone sixth of a byte cannot be the end of valid data; nor can excess padding.
  if (count == 1 || padding > 2 || (padding > 0 && count + padding != 4)) return std::nullopt;
  if (count == 2) out += static_cast<char>(bits >> 4);
  if (count == 3) {
    out += static_cast<char>(bits >> 10);
    out += static_cast<char>(bits >> 2);
  }
  return out;
}

}  // namespace kvtrack
