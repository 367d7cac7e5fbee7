#pragma once
// A file being written: bytes are collected and handed to the system in
// large pieces. The first failure is kept and every later write ignored,
// so writers format without checking each call and ask once at the end.

#include "kvtrack/support/Status.h"
#include "kvtrack/support/UniqueFd.h"

#include <string>
#include <string_view>

namespace kvtrack {

class OutputFile {
 public:
  /// Takes an open descriptor; path names the file in failure reasons.
  OutputFile(UniqueFd descriptor, std::string path);
  OutputFile(OutputFile&&) = default;
  OutputFile& operator=(OutputFile&&) = default;

  /// Creates or empties the file (mode before the umask).
  static Result<OutputFile> create(const std::string& path, unsigned mode = 0644);

  void write(std::string_view bytes);
  OutputFile& operator<<(std::string_view bytes) {
    write(bytes);
    return *this;
  }
  /// Writes what is buffered, flushes it to the disk when asked, closes.
  Status finish(bool syncToDisk);
  /// The first failure so far.
  const Status& status() const { return status_; }
  const std::string& path() const { return path_; }

 private:
  void flushBuffer();

  UniqueFd descriptor_;
  std::string path_;
  std::string buffer_;
  Status status_;
};

}  // namespace kvtrack
