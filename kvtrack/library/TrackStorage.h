#pragma once
// Loading and saving tracks in the library folder. The library installs
// this store for every track (see TrackStore), so Track::loadFromLibrary,
// saveToLibrary and unload reach the files here.

#include "kvtrack/model/TrackStore.h"

#include <string>
#include <vector>

namespace kvtrack {

class TrackLibrary;

class LibraryTrackStore : public TrackStore {
 public:
  explicit LibraryTrackStore(TrackLibrary& library) : library_(library) {}
  void loadTrack(Track& track) override;
  std::string generateFilename(Track& track) override;
  bool saveTrack(Track& track) override;
  bool saveTrackWithExternalGPX(Track& track) override;
  const TrackLibrary* library() const { return &library_; }

 private:
  TrackLibrary& library_;
};

/// A copy of the track's library file for use elsewhere, without the
/// attributes that tie it to the owner's synchronised store. Saves first.
bool exportExternalGpx(Track& track, const std::string& path, bool withPhotos,
                       const std::vector<std::string>& additionalFiles);

}  // namespace kvtrack
