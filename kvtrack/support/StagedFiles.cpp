#include "kvtrack/support/StagedFiles.h"

#include "kvtrack/support/Log.h"
#include "kvtrack/support/SystemCalls.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <set>

namespace kvtrack {

namespace {

std::string temporaryTemplate(const std::string& path) {
  const std::filesystem::path target(path);
  return (target.parent_path() / ("." + target.filename().string() + ".XXXXXX")).string();
}

std::string folderOf(const std::string& path) {
  const std::string folder = std::filesystem::path(path).parent_path().string();
  return folder.empty() ? "." : folder;
}

// A rename is durable once its folder is flushed.
void syncFolder(const std::string& folder) {
  const UniqueFd descriptor = openFile(folder, O_RDONLY | O_DIRECTORY);
  if (descriptor) SystemCalls::current().fsync(descriptor.get());
}

}  // namespace

StagedFiles::~StagedFiles() {
  for (const auto& file : staged_) SystemCalls::current().unlink(file.temporary.c_str());
}

Status StagedFiles::stage(const std::string& path, const Writer& write) {
  std::string temporary = temporaryTemplate(path);
  UniqueFd descriptor(SystemCalls::current().mkstemp(temporary.data()));
  if (!descriptor) return systemFailure("write", path);
  ::fchmod(descriptor.get(), 0644);  // mkstemp makes 0600; library files are readable
  OutputFile file(std::move(descriptor), path);
  Status written = write(file);
  Status finished = file.finish(true);
  if (!written || !finished) {
    SystemCalls::current().unlink(temporary.c_str());
    return written ? finished : written;
  }
  staged_.push_back({std::move(temporary), path});
  return {};
}

Status StagedFiles::stage(const std::string& path, std::string_view bytes) {
  return stage(path, [bytes](OutputFile& file) {
    file.write(bytes);
    return file.status();
  });
}

Status StagedFiles::commit() {
  std::set<std::string> folders;
  Status status;
  size_t renamed = 0;
  for (; renamed < staged_.size(); ++renamed) {
    const Staged& file = staged_[renamed];
    if (SystemCalls::current().rename(file.temporary.c_str(), file.target.c_str()) != 0) {
      status = systemFailure("replace", file.target);
      break;
    }
    folders.insert(folderOf(file.target));
  }
  staged_.erase(staged_.begin(), staged_.begin() + static_cast<std::ptrdiff_t>(renamed));
  for (const auto& folder : folders) syncFolder(folder);
  return status;
}

namespace {

// A device or pipe (/dev/null, /dev/stdout, a FIFO) as the target: a file
// renamed over it would replace the device itself, so it is written into.
bool isSpecialFile(const std::string& path) {
  struct stat info;
  return ::stat(path.c_str(), &info) == 0 && !S_ISREG(info.st_mode) && !S_ISDIR(info.st_mode);
}

Status writeInto(const std::string& path, const StagedFiles::Writer& write) {
  UniqueFd descriptor = openFile(path, O_WRONLY | O_NOCTTY);
  if (!descriptor) return systemFailure("write", path);
  OutputFile file(std::move(descriptor), path);
  const Status written = write(file);
  const Status finished = file.finish(false);
  return written ? finished : written;
}

}  // namespace

Status replaceFile(const std::string& path, const StagedFiles::Writer& write) {
  if (isSpecialFile(path)) return writeInto(path, write);
  StagedFiles files;
  Status status = files.stage(path, write);
  return status ? files.commit() : status;
}

Status writeFileAtomically(const std::string& path, const StagedFiles::Writer& write) {
  const Status status = replaceFile(path, write);
  if (!status) logf("Error writing file: {} ({})", path, status.reason());
  return status;
}

Status writeFileAtomically(const std::string& path, std::string_view bytes) {
  return writeFileAtomically(path, [bytes](OutputFile& file) {
    file.write(bytes);
    return file.status();
  });
}

bool isLeftoverOfInterruptedSave(std::string_view name) {
  if (name.size() < 9 || name.front() != '.' || name[name.size() - 7] != '.') return false;
  return std::all_of(name.end() - 6, name.end(),
                     [](unsigned char c) { return std::isalnum(c) != 0; });
}

}  // namespace kvtrack
