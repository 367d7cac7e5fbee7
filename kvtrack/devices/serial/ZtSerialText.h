#pragma once
// Text on a serial line: the encodings the port's string reads and writes
// understand, converted to and from the UTF-8 the rest of kvtrack uses.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kvtrack {

enum class ZtStringEncoding {
  ASCII,      ///< 7-bit; any byte above 127 is refused
  UTF8,
  ISOLatin1,  ///< ISO 8859-1
  MacRoman,   ///< Mac OS Roman, as older Mac-made devices and files use
};

/// The bytes as UTF-8 text, or nothing when they are not text in that encoding.
std::optional<std::string> decodeSerialText(const std::vector<std::uint8_t>& bytes,
                                            ZtStringEncoding encoding);
/// UTF-8 text as bytes in the encoding, or nothing when the text is not valid
/// UTF-8 or holds a character the encoding cannot carry.
std::optional<std::vector<std::uint8_t>> encodeSerialText(std::string_view text,
                                                          ZtStringEncoding encoding);

}  // namespace kvtrack
