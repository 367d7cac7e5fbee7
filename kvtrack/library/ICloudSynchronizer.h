#pragma once
// The host's mirror of tracks in a synchronised store. The library tells it
// about new, changed and deleted tracks; every operation does nothing by
// default, so a host without synchronisation needs no code.

#include <memory>
#include <optional>
#include <string>

namespace kvtrack {

class Track;
class TrackPhoto;

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
  /// Takes the photo file at filepath into the store; the photo's new id
  /// there, or absent when it was not taken.
  virtual std::optional<std::string> movePhotoToiCloud(const std::string& /*filepath*/,
                                                       TrackPhoto& /*photo*/) {
    return std::nullopt;
  }
  /// Asks for a local copy of the file at the URL; returns at once.
  virtual void downloadFileIfNotAvailable(const std::string& /*url*/) {}
};

}  // namespace kvtrack
