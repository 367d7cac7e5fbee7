#pragma once
// Replacing library files only by complete ones, and a set of them as one
// step as far as a file system allows. Each new content goes to a hidden
// temporary file beside its target (".<name>.XXXXXX") and is flushed to the
// disk; only when every file of the set is written does commit() rename
// them over their targets, in the order staged. A full disk or an I/O
// error therefore fails while staging, before any target changed; a crash
// leaves temporaries that the library removes on its next save.

#include "kvtrack/support/OutputFile.h"
#include "kvtrack/support/Status.h"

#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace kvtrack {

class StagedFiles {
 public:
  using Writer = std::function<Status(OutputFile& file)>;

  StagedFiles() = default;
  /// Removes the temporaries of files not committed.
  ~StagedFiles();
  StagedFiles(const StagedFiles&) = delete;
  StagedFiles& operator=(const StagedFiles&) = delete;

  /// Writes the new content of path (mode 0644) to its temporary file.
  Status stage(const std::string& path, const Writer& write);
  Status stage(const std::string& path, std::string_view bytes);
  /// Renames every staged file over its target, then flushes the folders.
  /// On failure the files renamed before stay replaced; the rest are kept
  /// as they were.
  Status commit();
  bool empty() const { return staged_.empty(); }

 private:
  struct Staged {
    std::string temporary;
    std::string target;
  };
  std::vector<Staged> staged_;
};

/// One file replaced by a complete one; on failure the old file stays as
/// it was. A device or pipe is written into instead (never replaced).
Status replaceFile(const std::string& path, const StagedFiles::Writer& write);
/// The same, and "Error writing file: PATH (reason)" logged on failure.
Status writeFileAtomically(const std::string& path, const StagedFiles::Writer& write);
Status writeFileAtomically(const std::string& path, std::string_view bytes);

/// Whether a name is that of a temporary file of a save that was killed
/// before it could replace its target (".Track00000001.gpx.a1B2c3").
bool isLeftoverOfInterruptedSave(std::string_view name);

}  // namespace kvtrack
