#pragma once
// Loading and saving tracks in the library folder. The library installs
// its store for every track (see TrackStore), so Track::loadFromLibrary,
// saveToLibrary and unload reach the files here.
//
// Saves are batches (LibrarySave): every file of a save is written to a
// temporary file first, and only when all of them are complete are they
// put in place, the index last. A full disk or an I/O error thus leaves
// every file as it was before the save.

#include "kvtrack/model/TrackStore.h"
#include "kvtrack/support/StagedFiles.h"

#include <mutex>
#include <string>
#include <vector>

namespace kvtrack {

class TrackLibrary;

class LibraryTrackStore : public TrackStore {
 public:
  explicit LibraryTrackStore(TrackLibrary& library) : library_(library) {}
  /// A file that cannot be read whole marks the track damaged (Track::damage).
  void loadTrack(Track& track) override;
  std::string generateFilename(Track& track) override;
  Status saveTrack(Track& track) override;
  Status saveTrackWithExternalGPX(Track& track) override;
  const TrackLibrary* library() const { return &library_; }
  std::string pathOf(const Track& track) const;

 private:
  TrackLibrary& library_;
};

/// One save of library files, committed as a whole.
class LibrarySave {
 public:
  explicit LibrarySave(LibraryTrackStore& store) : store_(store) {}

  /// Stages the track's file when it has something to write: loaded and
  /// dirty, or loaded with no file written yet. The bytes of a damaged
  /// track's file are kept aside first ("<file>.damaged-<time>"). The
  /// track stays locked until the save ends.
  Status addTrack(Track& track);
  /// The same for one of the library's collections (descriptions in the
  /// "_ext" folder beside it).
  Status addCollection(Track& collection);
  Status addFile(const std::string& path, std::string_view bytes);
  /// Puts every staged file in place; then the tracks written are clean
  /// and the synchroniser hears about them.
  Status commit();

 private:
  StagedFiles files_;
  LibraryTrackStore& store_;
  std::vector<std::unique_lock<Track>> locks_;
  std::vector<Track*> written_, collections_, metadataOnly_;
};

/// A copy of the track's library file for use elsewhere, without the
/// attributes that tie it to the owner's synchronised store. Saves first.
bool exportExternalGpx(Track& track, const std::string& path, bool withPhotos,
                       const std::vector<std::string>& additionalFiles);

}  // namespace kvtrack
