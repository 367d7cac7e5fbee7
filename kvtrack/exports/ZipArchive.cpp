#include "kvtrack/exports/ZipArchive.h"

#include "kvtrack/support/Log.h"

#include <zip.h>

namespace kvtrack {

namespace {

Status logged(std::string reason) {
  logf("ZipArchive: {}", reason);
  return Status::failure(std::move(reason));
}

}  // namespace

ZipArchive::~ZipArchive() {
  if (archive_) zip_discard(archive_);
}

Status ZipArchive::CreateZipFile2(const std::string& path) {
  if (archive_) zip_discard(archive_);
  int code = 0;
  archive_ = zip_open(path.c_str(), ZIP_CREATE | ZIP_TRUNCATE, &code);
  path_ = path;
  if (archive_) return {};
  zip_error_t error;
  zip_error_init_with_code(&error, code);
  const std::string reason = fmt::format("cannot create {}: {}", path, zip_error_strerror(&error));
  zip_error_fini(&error);
  return logged(reason);
}

bool ZipArchive::containsEntry(const std::string& name) const {
  return archive_ && zip_name_locate(archive_, name.c_str(), ZIP_FL_ENC_UTF_8) >= 0;
}

Status ZipArchive::addFileToZip(const std::string& file, const std::string& newname) {
  if (!archive_) return Status::failure("cannot add " + file + ": no archive is open");
  zip_source_t* source = zip_source_file(archive_, file.c_str(), 0, -1);
  if (!source || zip_file_add(archive_, newname.c_str(), source, ZIP_FL_ENC_UTF_8) < 0) {
    if (source) zip_source_free(source);
    return logged(fmt::format("cannot add {} as {} to {}: {}", file, newname, path_, zip_strerror(archive_)));
  }
  return {};
}

Status ZipArchive::CloseZipFile2() {
  if (!archive_) return Status::failure("cannot write " + path_ + ": no archive is open");
  zip_t* archive = std::exchange(archive_, nullptr);
  if (zip_close(archive) == 0) return {};
  const Status failed = logged(fmt::format("cannot write {}: {}", path_, zip_strerror(archive)));
  zip_discard(archive);
  return failed;
}

}  // namespace kvtrack
