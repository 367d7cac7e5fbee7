#include "kvtrack/exports/ZipArchive.h"

#include "kvtrack/support/Log.h"

#include <zip.h>

namespace kvtrack {

ZipArchive::~ZipArchive() {
  if (archive_) zip_discard(archive_);
}

bool ZipArchive::CreateZipFile2(const std::string& path) {
  if (archive_) zip_discard(archive_);
  int code = 0;
  archive_ = zip_open(path.c_str(), ZIP_CREATE | ZIP_TRUNCATE, &code);
  path_ = path;
  if (!archive_) {
    zip_error_t error;
    zip_error_init_with_code(&error, code);
    logf("ZipArchive: cannot create {}: {}", path, zip_error_strerror(&error));
    zip_error_fini(&error);
    return false;
  }
  return true;
}

bool ZipArchive::containsEntry(const std::string& name) const {
  return archive_ && zip_name_locate(archive_, name.c_str(), ZIP_FL_ENC_UTF_8) >= 0;
}

bool ZipArchive::addFileToZip(const std::string& file, const std::string& newname) {
  if (!archive_) return false;
  zip_source_t* source = zip_source_file(archive_, file.c_str(), 0, -1);
  if (!source || zip_file_add(archive_, newname.c_str(), source, ZIP_FL_ENC_UTF_8) < 0) {
    logf("ZipArchive: cannot add {} as {} to {}: {}", file, newname, path_,
         zip_strerror(archive_));
    if (source) zip_source_free(source);
    return false;
  }
  return true;
}

bool ZipArchive::CloseZipFile2() {
  if (!archive_) return false;
  const bool written = zip_close(archive_) == 0;
  if (!written) {
    logf("ZipArchive: cannot write {}: {}", path_, zip_strerror(archive_));
    zip_discard(archive_);
  }
  archive_ = nullptr;
  return written;
}

}  // namespace kvtrack
