#pragma once
// The host's mirror of tracks in a synchronised store. The library tells it
// about new, changed and deleted tracks; every operation does nothing by
// default, so a host without synchronisation needs no code.

#include <memory>
#include <optional>
#include <string>

namespace kvtrack {

class Track;

class ICloudSynchronizer {
 public:
  virtual ~ICloudSynchronizer() = default;
  virtual bool active() const { return false; }
  virtual void writeTrackToiCloud(Track&) {}
  virtual void deleteTrackFromiCloud(Track&) {}
  virtual void newTrackInTrackLibrary(Track&) {}
  /// Where the synchronised copy of a photo and of its thumbnail lives (a
  /// file URL or a plain path); absent when there is none.
  virtual std::optional<std::string> urlForPhotoId(const std::string& /*photoId*/) const {
    return std::nullopt;
  }
  virtual std::optional<std::string> urlForThumbnailPhotoId(const std::string& /*photoId*/) const {
    return std::nullopt;
  }
};

}  // namespace kvtrack
