#pragma once
// The host's mirror of tracks in a synchronised store. The library tells it
// about new, changed and deleted tracks; every operation does nothing by
// default, so a host without synchronisation needs no code.

#include <memory>

namespace kvtrack {

class Track;

class ICloudSynchronizer {
 public:
  virtual ~ICloudSynchronizer() = default;
  virtual bool active() const { return false; }
  virtual void writeTrackToiCloud(Track&) {}
  virtual void deleteTrackFromiCloud(Track&) {}
  virtual void newTrackInTrackLibrary(Track&) {}
};

}  // namespace kvtrack
