#include "tools/wayfolio/LibraryLock.h"

#include "tools/wayfolio/Commands.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <fmt/format.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace wayfolio {

namespace {

bool lockFile(int fd, int operation) {
  while (::flock(fd, operation) != 0) {
    if (errno != EINTR) return false;
  }
  return true;
}

}  // namespace

LibraryLock::LibraryLock(const std::string& libraryFolder, bool noWait) {
  const std::string path = libraryFolder + "/.wayfolio.lock";
  // Close-on-exec: gpsbabel and other children must not inherit the lock.
  fd_ = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
  if (fd_ < 0) {
    throw CommandError(fmt::format("cannot open the lock file {}: {}", path, std::strerror(errno)));
  }
  if (lockFile(fd_, LOCK_EX | LOCK_NB)) return;
  const int error = errno;
  if (error != EWOULDBLOCK) {
    ::close(fd_);
    throw CommandError(fmt::format("cannot lock {}: {}", path, std::strerror(error)));
  }
  if (noWait) {
    ::close(fd_);
    throw LibraryBusy(fmt::format(
        "the library {} is busy (another wayfolio is working on it)", libraryFolder));
  }
  std::fprintf(stderr, "wayfolio: waiting for another wayfolio working on %s…\n",
               libraryFolder.c_str());
  std::fflush(stderr);
  if (!lockFile(fd_, LOCK_EX)) {
    const int waitError = errno;
    ::close(fd_);
    throw CommandError(fmt::format("cannot lock {}: {}", path, std::strerror(waitError)));
  }
}

LibraryLock::~LibraryLock() {
  if (fd_ >= 0) ::close(fd_);  // closing the only descriptor releases the lock
}

}  // namespace wayfolio
