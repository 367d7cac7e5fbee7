#include "tools/wayfolio/ImportFormats.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <filesystem>
#include <string_view>
#include <utility>

namespace wayfolio {

std::string gpsbabelFormatForFile(const std::string& path) {
  // The common exports of devices and other programs; --format covers the rest.
  static constexpr std::array<std::pair<std::string_view, std::string_view>, 11> kFormats{{
      {".kml", "kml"},
      {".loc", "geo"},
      {".gpi", "garmin_gpi"},
      {".ov2", "tomtom"},
      {".tcx", "gtrnctr"},
      {".fit", "garmin_fit"},
      {".igc", "igc"},
      {".nmea", "nmea"},
      {".csv", "unicsv"},
      {".plt", "ozi"},
      {".wpt", "ozi"},
  }};
  std::string ending = std::filesystem::path(path).extension().string();
  std::transform(ending.begin(), ending.end(), ending.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  for (const auto& [suffix, format] : kFormats) {
    if (ending == suffix) return std::string(format);
  }
  return {};
}

}  // namespace wayfolio
