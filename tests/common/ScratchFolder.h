#pragma once
// A fresh folder for one test, removed with everything in it afterwards.

#include "kvtrack/support/FileHandling.h"

#include <filesystem>
#include <fstream>
#include <string>

namespace kvtrack::testing {

class ScratchFolder {
 public:
  ScratchFolder()
      : path_(std::filesystem::temp_directory_path() / ("kvtrack-test-" + FileHandling::guid())) {
    std::filesystem::create_directories(path_);
  }
  ~ScratchFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  ScratchFolder(const ScratchFolder&) = delete;
  ScratchFolder& operator=(const ScratchFolder&) = delete;

  const std::filesystem::path& path() const { return path_; }
  std::string file(const std::string& name) const { return (path_ / name).string(); }

  /// Writes the text to a file in the folder and returns its path.
  std::string write(const std::string& name, const std::string& text) const {
    const std::string p = file(name);
    std::ofstream(p, std::ios::binary) << text;
    return p;
  }

  static std::string read(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
  }

 private:
  std::filesystem::path path_;
};

}  // namespace kvtrack::testing
