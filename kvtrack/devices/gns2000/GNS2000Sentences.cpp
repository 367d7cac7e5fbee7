// GNS2000: sentences, checksums and LOCUS records.

#include "kvtrack/devices/gns2000/GNS2000.h"

#include <fmt/format.h>

#include <array>
#include <bit>
#include <cctype>
#include <cstring>

namespace kvtrack {

namespace {

constexpr size_t kRecordSize = 16;

std::vector<std::string> split(std::string_view text, char separator) {
  std::vector<std::string> parts;
  size_t start = 0;
  for (;;) {
    const size_t end = text.find(separator, start);
    parts.emplace_back(text.substr(start, end == std::string_view::npos ? end : end - start));
    if (end == std::string_view::npos) return parts;
    start = end + 1;
  }
}

int hexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

template <typename T>
T littleEndian(const std::array<uint8_t, kRecordSize>& bytes, size_t offset) {
  static_assert(std::endian::native == std::endian::little, "records are read in place");
  T value;
  std::memcpy(&value, bytes.data() + offset, sizeof value);
  return value;
}

}  // namespace

std::string GNS2000::calculateChecksum(std::string_view body) {
  unsigned char checksum = 0;
  for (const char c : body) checksum ^= static_cast<unsigned char>(c);
  return fmt::format("{:02x}", checksum);
}

std::string GNS2000::sentence(std::string_view body) {
  return fmt::format("${}*{}\r\n", body, calculateChecksum(body));
}

std::optional<GNS2000::Response> GNS2000::splitResponse(std::string_view line) {
  std::vector<std::string> parts = split(line, ',');
  if (parts.size() < 2) return std::nullopt;
  Response response;
  response.identifier = std::move(parts[0]);
  response.arguments.assign(std::make_move_iterator(parts.begin() + 1),
                            std::make_move_iterator(parts.end()));
  const std::vector<std::string> pieces = split(response.arguments.back(), '*');
  if (pieces.size() != 2) return std::nullopt;
  response.arguments.back() = pieces[0];
  // The checksum covers what lies between "$" and "*"; the line's last
  // three characters are "*" and two hex digits.
  if (line.size() < 4) return std::nullopt;
  std::string expected = pieces[1];
  for (char& c : expected) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  if (calculateChecksum(line.substr(1, line.size() - 4)) != expected) return std::nullopt;
  return response;
}

std::optional<GNS2000::LocusRecord> GNS2000::decodeLocusRecord(std::string_view hex) {
  if (hex.size() != 2 * kRecordSize) return std::nullopt;
  if (hex.find_first_not_of("Ff") == std::string_view::npos) return std::nullopt;  // empty
  std::array<uint8_t, kRecordSize> bytes{};
  for (size_t i = 0; i < kRecordSize; ++i) {
    const int high = hexDigit(hex[2 * i]), low = hexDigit(hex[2 * i + 1]);
    if (high < 0 || low < 0) return std::nullopt;
    bytes[i] = static_cast<uint8_t>(high << 4 | low);
  }
  LocusRecord record;
  record.time = littleEndian<int32_t>(bytes, 0);
  record.fixType = bytes[4];
  record.latitude = littleEndian<float>(bytes, 5);
  record.longitude = littleEndian<float>(bytes, 9);
  record.height = littleEndian<int16_t>(bytes, 13);
  // Byte 15 is the record's own checksum; the receiver's sentence checksum
  // already covers the text.
  return record;
}

}  // namespace kvtrack
