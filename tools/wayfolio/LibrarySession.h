#pragma once
// The library for the length of one command: the folder chosen, the lock
// taken, the library opened (rebuilt when its index is missing or damaged,
// with a word to the user), and at the end released while the lock is
// still held. Only save() writes: a command that fails, or that only
// reads, leaves the library's files as they were.

#include "kvtrack/library/LibraryRecovery.h"
#include "tools/wayfolio/LibraryLock.h"

#include <optional>
#include <string>

namespace wayfolio {

/// The prefix of the content ids imports give tracks ("wayfolio:<start>-<end>").
inline constexpr const char* kTrackIdPrefix = "wayfolio";

class LibrarySession {
 public:
  /// folderOption: --library, empty for FileHandling's default folder.
  /// Throws CommandError (or LibraryBusy) when the library cannot be used.
  LibrarySession(const std::string& folderOption, bool noWait, bool readOnly);
  ~LibrarySession();
  LibrarySession(const LibrarySession&) = delete;
  LibrarySession& operator=(const LibrarySession&) = delete;

  /// Writes every change; throws CommandError with the library's reason.
  void save();
  /// How the library was found when it was opened.
  const kvtrack::LibraryOpening& opening() const { return opening_; }

 private:
  std::optional<LibraryLock> lock_;
  kvtrack::LibraryOpening opening_;
  bool saved_ = false;
};

}  // namespace wayfolio
