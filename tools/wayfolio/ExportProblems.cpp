#include "tools/wayfolio/ExportProblems.h"

#include <fmt/format.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string_view>

namespace wayfolio {

namespace fs = std::filesystem;

std::string cannotWrite(const std::string& path) {
  std::error_code error;
  std::string reason = "the file could not be written";
  fs::path folder = fs::path(path).parent_path();
  if (folder.empty()) folder = ".";
  if (fs::is_directory(path, error)) {
    reason = "it is a folder";
  } else if (!fs::is_directory(folder, error)) {
    reason = fmt::format("there is no folder {}", folder.string());
  } else if (::access(folder.c_str(), W_OK) != 0) {
    reason = std::strerror(errno);
  }
  return fmt::format("could not write {}: {}", path, reason);
}

size_t ExportProblems::report() const {
  // The parts that log a photo or track they had to leave out.
  constexpr std::array<std::string_view, 4> kTags = {"GxImage: ", "TrackKML: ",
                                                     "TrackLibraryArchive: ", "ZipArchive: "};
  size_t printed = 0;
  for (const auto& line : capture_.lines()) {
    for (const auto tag : kTags) {
      if (line.rfind(tag, 0) != 0) continue;
      std::fprintf(stderr, "  warning: %s\n", line.substr(tag.size()).c_str());
      ++printed;
    }
  }
  return printed;
}

}  // namespace wayfolio
