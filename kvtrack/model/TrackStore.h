#pragma once
// Where tracks live on disk. The library installs its store here so that a
// track can read its points on first use and get a file name, without the
// model depending on the library.

#include "kvtrack/support/Status.h"

#include <memory>
#include <string>

namespace kvtrack {

class Track;

class TrackStore {
 public:
  virtual ~TrackStore() = default;

  /// Reads the points of a track that names a file; called with the track
  /// locked and already marked loaded.
  virtual void loadTrack(Track& track) = 0;
  /// A fresh file name for a track.
  virtual std::string generateFilename(Track& track) = 0;
  /// Writes a dirty loaded track to its file.
  virtual Status saveTrack(Track&) { return {}; }
  /// Writes one of the library's collections with its descriptions kept
  /// in a folder beside the file.
  virtual Status saveTrackWithExternalGPX(Track&) { return {}; }

  /// The store of the running library, or null when there is none.
  static std::shared_ptr<TrackStore> shared();
  static void setShared(std::shared_ptr<TrackStore> store);
};

}  // namespace kvtrack
