#pragma once
// Standard base64 (RFC 4648 alphabet, "=" padding), as photo bookmarks are
// stored in GPX files.

#include <optional>
#include <string>
#include <string_view>

namespace kvtrack {

std::string base64Encode(std::string_view bytes);
/// The bytes, or absent for text that is not base64. Line breaks and blanks
/// between the characters are skipped; padding is optional.
std::optional<std::string> base64Decode(std::string_view text);

}  // namespace kvtrack
