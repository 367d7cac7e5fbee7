#pragma once
// The library for the length of one command: the folder chosen, the lock
// taken, the index checked, the library opened; at the end the library is
// released (it saves as it goes) while the lock is still held.

#include "tools/wayfolio/LibraryLock.h"

#include <optional>
#include <string>

namespace wayfolio {

class LibrarySession {
 public:
  /// folderOption: --library, empty for FileHandling's default folder.
  /// Throws CommandError (or LibraryBusy) when the library cannot be used.
  LibrarySession(const std::string& folderOption, bool noWait);
  ~LibrarySession();
  LibrarySession(const LibrarySession&) = delete;
  LibrarySession& operator=(const LibrarySession&) = delete;

  /// Writes every change; throws CommandError with the library's reason.
  void save();

 private:
  std::optional<LibraryLock> lock_;
};

}  // namespace wayfolio
