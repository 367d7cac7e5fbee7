#pragma once
// Opening a library folder whatever state it is in, and checking it. An
// index that is missing while track files are there, or that cannot be
// read, is never taken for an empty library: the library is rebuilt from
// what the folder still holds.
//
// A rebuild starts from what the damaged index yields before its error,
// adds the tracks of the previous index ("library.wayfolio.previous", one
// save older) whose files are still there, in their folders, and adopts
// every remaining track file into the folder "Recovered" with the name,
// times and counts its GPX holds. The damaged index is kept aside at the
// next save ("library.wayfolio.damaged-<time>").

#include "kvtrack/library/TrackLibrary.h"
#include "kvtrack/support/Status.h"

#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace kvtrack {

enum class IndexState { kSound, kMissing, kDamaged };

/// A track file that could not be read, and why.
struct UnreadableFile {
  std::string filename;
  std::string reason;
};

/// What opening found and did.
struct LibraryOpening {
  IndexState index = IndexState::kSound;
  /// Why the index could not be read (damaged only).
  std::string indexProblem;
  /// Tracks that came back from the previous index.
  size_t tracksFromPreviousIndex = 0;
  /// Track files adopted into the folder "Recovered".
  std::vector<std::string> adoptedFiles;
  /// Track files left where they are because nothing in them could be read.
  std::vector<UnreadableFile> unreadableFiles;
  /// Where the next save keeps the damaged index (in the library folder).
  std::optional<std::string> damagedIndexAside;

  bool rebuilt() const { return index != IndexState::kSound; }
  size_t recoveredTracks() const { return tracksFromPreviousIndex + adoptedFiles.size(); }
};

/// Reads the library's index into it, rebuilding as told above when the
/// index is missing (and track files are there) or damaged. Recovered
/// tracks get content ids "<trackIdPrefix>:<start>-<end>" when their times
/// allow one, as imports give them. The counter is moved behind every
/// track file name in use.
LibraryOpening openLibrary(TrackLibrary& library, const std::string& trackIdPrefix);

/// The state of a library against its folder.
struct LibraryCheck {
  IndexState index = IndexState::kSound;
  std::string indexProblem;
  size_t trackCount = 0;
  /// Files the index names that are not in the folder.
  std::vector<std::string> missingFiles;
  /// Track files in the folder that no track names.
  std::vector<std::string> orphanFiles;
  /// Track files that cannot be read whole.
  std::vector<UnreadableFile> damagedFiles;

  bool sound() const {
    return index == IndexState::kSound && missingFiles.empty() && orphanFiles.empty() &&
           damagedFiles.empty();
  }
};

/// Reads every track file of an opened library; the opening tells how the
/// index was found. Changes nothing.
LibraryCheck checkLibrary(TrackLibrary& library, const LibraryOpening& opening);

/// Adopts the track files no track names into "Recovered" (the library
/// must be saved afterwards to keep them).
std::vector<std::string> adoptOrphanFiles(TrackLibrary& library, const std::string& trackIdPrefix,
                                          std::vector<UnreadableFile>& unreadable);

/// "<prefix>:<start>-<end>" in exiftool's time form, for a track whose start
/// and end differ; the id imports give so that a file is imported once.
std::optional<std::string> contentTrackId(const Track& track, const std::string& prefix);

}  // namespace kvtrack
