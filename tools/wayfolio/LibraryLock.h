#pragma once
// One wayfolio at a time per library: an exclusive flock on
// "<library>/.wayfolio.lock", held until the object goes away. The kernel
// drops it when the process dies, so a crash never leaves the library locked.

#include <stdexcept>
#include <string>

namespace wayfolio {

/// Another wayfolio holds the lock and the user asked not to wait.
class LibraryBusy : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

class LibraryLock {
 public:
  /// Takes the lock, waiting for another holder (announced once on standard
  /// error) unless noWait is set; then a busy library throws LibraryBusy.
  /// Throws CommandError when the lock file cannot be opened.
  LibraryLock(const std::string& libraryFolder, bool noWait);
  ~LibraryLock();
  LibraryLock(const LibraryLock&) = delete;
  LibraryLock& operator=(const LibraryLock&) = delete;

 private:
  int fd_ = -1;
};

}  // namespace wayfolio
