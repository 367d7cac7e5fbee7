#include "kvtrack/support/AtomicFile.h"

#include "kvtrack/support/Log.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

namespace kvtrack {

namespace {

bool syncToStorage(const std::string& path, int flags) {
  const int fd = ::open(path.c_str(), flags | O_CLOEXEC);
  if (fd < 0) return false;
  const bool ok = ::fsync(fd) == 0;
  ::close(fd);
  return ok;
}

// Writes all bytes, retrying after signals and short writes.
bool writeAll(int fd, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t n = ::write(fd, bytes.data(), bytes.size());
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    bytes.remove_prefix(static_cast<size_t>(n));
  }
  return true;
}

}  // namespace

bool writeFileAtomically(const std::string& path,
                         const std::function<bool(const std::string&)>& write) {
  const std::filesystem::path target(path);
  std::string temporary =
      (target.parent_path() / ("." + target.filename().string() + ".XXXXXX")).string();
  const int fd = ::mkstemp(temporary.data());
  if (fd < 0) {
    logf("Error writing file: {} ({})", path, std::strerror(errno));
    return false;
  }
  ::fchmod(fd, 0644);
  ::close(fd);
  std::error_code error;
  if (!write(temporary) || !syncToStorage(temporary, O_RDONLY)) {
    std::filesystem::remove(temporary, error);
    logf("Error writing file: {} (the previous file is kept)", path);
    return false;
  }
  std::filesystem::rename(temporary, target, error);
  if (error) {
    logf("Error writing file: {} ({})", path, error.message());
    std::filesystem::remove(temporary, error);
    return false;
  }
  syncToStorage(target.parent_path().empty() ? "." : target.parent_path().string(),
                O_RDONLY | O_DIRECTORY);
  return true;
}

bool writeFileAtomically(const std::string& path, std::string_view bytes) {
  return writeFileAtomically(path, [bytes](const std::string& temporary) {
    const int fd = ::open(temporary.c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC);
    if (fd < 0) return false;
    const bool written = writeAll(fd, bytes);
    return ::close(fd) == 0 && written;
  });
}

}  // namespace kvtrack
