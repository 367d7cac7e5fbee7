#pragma once
// Writing a zip archive from files on disk (libzip). Files are read when the
// archive is closed, so they must stay in place until then.

#include "kvtrack/support/Status.h"

#include <string>

typedef struct zip zip_t;

namespace kvtrack {

class ZipArchive {
 public:
  ZipArchive() = default;
  ~ZipArchive();
  ZipArchive(const ZipArchive&) = delete;
  ZipArchive& operator=(const ZipArchive&) = delete;

  /// Starts a new archive, replacing any file at the path when it is closed.
  Status CreateZipFile2(const std::string& path);
  /// Adds the file under the entry name; fails (logged) when the name is
  /// already taken or the archive is not open.
  Status addFileToZip(const std::string& file, const std::string& newname);
  /// True when the archive holds the entry name.
  bool containsEntry(const std::string& name) const;
  /// Writes the archive; fails (logged) when that failed.
  Status CloseZipFile2();

 private:
  zip_t* archive_ = nullptr;
  std::string path_;
};

}  // namespace kvtrack
