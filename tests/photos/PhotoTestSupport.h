#pragma once
// Real image files for the photo tests: tiny JPEG and TIFF files written from
// bytes, with tags set by the real exiftool, and a way to read tags back.

#include "kvtrack/support/ExternalProgram.h"
#include "kvtrack/support/FileHandling.h"

#include <cstdint>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace kvtrack::testing {

/// A 1x1 grey baseline JPEG: one quantisation table, one-code Huffman tables
/// (DC difference 0, end of block), one scan byte.
inline const std::vector<uint8_t>& minimalJpegBytes() {
  static const std::vector<uint8_t> bytes = [] {
    std::vector<uint8_t> b = {0xFF, 0xD8,                     // start of image
                              0xFF, 0xDB, 0x00, 0x43, 0x00};  // quantisation table 0
    b.insert(b.end(), 64, 0x01);
    const uint8_t frame[] = {0xFF, 0xC0, 0x00, 0x0B, 0x08, 0x00, 0x01,
                             0x00, 0x01, 0x01, 0x01, 0x11, 0x00};  // 1x1, one component
    b.insert(b.end(), std::begin(frame), std::end(frame));
    for (uint8_t tableClass : {uint8_t{0x00}, uint8_t{0x10}}) {  // DC 0, AC 0
      const uint8_t head[] = {0xFF, 0xC4, 0x00, 0x14, tableClass, 0x01};
      b.insert(b.end(), std::begin(head), std::end(head));
      b.insert(b.end(), 15, 0x00);
      b.push_back(0x00);  // the one symbol: category 0 / end of block
    }
    const uint8_t scan[] = {0xFF, 0xDA, 0x00, 0x08, 0x01, 0x01, 0x00, 0x00, 0x3F, 0x00,
                            0x3F,  // bits 00 (DC 0, EOB) padded with ones
                            0xFF, 0xD9};
    b.insert(b.end(), std::begin(scan), std::end(scan));
    return b;
  }();
  return bytes;
}

/// A 1x1 8-bit grey uncompressed little-endian TIFF.
inline std::vector<uint8_t> minimalTiffBytes() {
  std::vector<uint8_t> b = {'I', 'I', 42, 0, 8, 0, 0, 0};
  auto u16 = [&b](uint16_t v) {
    b.push_back(v & 0xFF);
    b.push_back(v >> 8);
  };
  auto u32 = [&](uint32_t v) {
    u16(v & 0xFFFF);
    u16(v >> 16);
  };
  struct Entry {
    uint16_t tag, type;
    uint32_t value;
  };
  const uint32_t pixelOffset = 8 + 2 + 8 * 12 + 4;
  const Entry entries[] = {{256, 3, 1}, {257, 3, 1},           {258, 3, 8}, {259, 3, 1},
                           {262, 3, 1}, {273, 4, pixelOffset}, {278, 3, 1}, {279, 4, 1}};
  u16(8);
  for (const Entry& e : entries) {
    u16(e.tag);
    u16(e.type);
    u32(1);
    u32(e.value);  // a SHORT sits in the first two bytes, little-endian
  }
  u32(0);             // no further directory
  b.push_back(0x80);  // the pixel
  return b;
}

inline bool writeBytes(const std::string& path, const std::vector<uint8_t>& bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
  return static_cast<bool>(out);
}

/// Sets tags with one exiftool run; each entry is an exiftool assignment
/// without the dash, e.g. "DateTimeOriginal=2012:06:01 10:00:00" or
/// "GPSLatitudeRef=S". True when exiftool reports success.
inline bool writeTags(const std::string& path, const std::vector<std::string>& assignments) {
  if (assignments.empty()) return true;
  std::string command = "exiftool -q -overwrite_original";
  for (const std::string& a : assignments) command += " \"-" + FileHandling::stringForShell(a) + "\"";
  command += " " + FileHandling::filenameForShell(path);
  return runShellCommand(command) == 0;
}

/// A small real JPEG at path carrying the given tags.
inline bool makeJpeg(const std::string& path, const std::vector<std::string>& assignments = {}) {
  return writeBytes(path, minimalJpegBytes()) && writeTags(path, assignments);
}

/// A small real TIFF (a format that is not a JPEG) carrying the given tags.
inline bool makeTiff(const std::string& path, const std::vector<std::string>& assignments = {}) {
  return writeBytes(path, minimalTiffBytes()) && writeTags(path, assignments);
}

/// What exiftool reads back from a file: the value of one tag, e.g.
/// "GPSLatitude" or "XMP:City"; numeric (-n) unless asked otherwise. Empty
/// when the tag is missing.
inline std::string readTag(const std::string& path, const std::string& tag, bool numeric = true) {
  const std::string command = std::string("exiftool -s3 ") + (numeric ? "-n " : "") + "\"-" +
                              FileHandling::stringForShell(tag) + "\" " +
                              FileHandling::filenameForShell(path);
  std::string text = runShellCommandReadingOutput(command).output;
  while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.pop_back();
  return text;
}

/// The values of several tags (as readTag reads one) from one exiftool run;
/// empty for a missing tag.
inline std::vector<std::string> readTags(const std::string& path, const std::vector<std::string>& tags) {
  std::string command = "exiftool -f -s3 -n";
  for (const std::string& tag : tags) command += " \"-" + FileHandling::stringForShell(tag) + "\"";
  std::istringstream output(
      runShellCommandReadingOutput(command + " " + FileHandling::filenameForShell(path)).output);
  std::vector<std::string> values;
  for (std::string line; std::getline(output, line);) values.push_back(line == "-" ? "" : line);
  return values;
}

}  // namespace kvtrack::testing
