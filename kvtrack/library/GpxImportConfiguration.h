#pragma once
// Options and results of importing a GPX file into the library.

#include "kvtrack/model/Track.h"
#include "kvtrack/support/Status.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace kvtrack {

class TrackLibraryFolder;

/// Hears about tracks as an import creates them; every call is optional.
class GpxImportDelegate {
 public:
  virtual ~GpxImportDelegate() = default;
  virtual void newTrackAdded(Track&) {}
  virtual void notificationNewTrack() {}
  virtual void notificationNewTrackOk() {}
};

/// What reading one file into the library did.
struct GpxFileImport {
  /// The file's new tracks plus those refused as duplicates.
  int32_t trackCount = 0;
  /// A failure when the file could not be read whole; the tracks read
  /// before the error are in the folder and the configuration all the same.
  Status status;
};

class GpxImportConfiguration {
 public:
  static std::shared_ptr<GpxImportConfiguration> gpxImportConfiguration() {
    return std::make_shared<GpxImportConfiguration>();
  }

  /// Give tracks without a time zone in the file the user's zone.
  bool setTimeZone() const { return setTimeZone_; }
  void setSetTimeZone(bool v) { setTimeZone_ = v; }
  GpxImportDelegate* delegate() const { return delegate_; }  // not owned
  void setDelegate(GpxImportDelegate* v) { delegate_ = v; }
  bool removeAllWaypoints() const { return removeAllWaypoints_; }
  void setRemoveAllWaypoints(bool v) { removeAllWaypoints_ = v; }
  /// With a prefix, tracks get content-derived ids and duplicates are refused.
  const std::optional<std::string>& trackIdPrefix() const { return trackIdPrefix_; }
  void setTrackIdPrefix(std::optional<std::string> v) { trackIdPrefix_ = std::move(v); }
  /// Tracks this configuration imported, over all its imports.
  const std::vector<TrackPtr>& importedTracks() const { return importedTracks_; }
  std::vector<TrackPtr>& mutableImportedTracks() { return importedTracks_; }
  /// Points filed into the library's waypoint collection.
  std::vector<TrackPointPtr>& importedPOIs() { return importedPOIs_; }
  const std::shared_ptr<TrackLibraryFolder>& targetFolder() const { return targetFolder_; }
  void setTargetFolder(std::shared_ptr<TrackLibraryFolder> v) { targetFolder_ = std::move(v); }
  bool doNotImportPOIs() const { return doNotImportPOIs_; }
  void setDoNotImportPOIs(bool v) { doNotImportPOIs_ = v; }
  const std::optional<std::string>& filename() const { return filename_; }
  void setFilename(std::optional<std::string> v) { filename_ = std::move(v); }
  int64_t newTrackCounter() const { return newTrackCounter_; }
  void setNewTrackCounter(int64_t v) { newTrackCounter_ = v; }
  int64_t identicalTrackCounter() const { return identicalTrackCounter_; }
  void setIdenticalTrackCounter(int64_t v) { identicalTrackCounter_ = v; }
  /// Points skipped for a missing, non-numeric or impossible position.
  int64_t invalidPositionCounter() const { return invalidPositionCounter_; }
  void setInvalidPositionCounter(int64_t v) { invalidPositionCounter_ = v; }
  /// Tracks from a device: marked newly imported, and those too small to
  /// be a track (fewer than two points, not a lone waypoint) are dropped.
  bool isExternal() const { return isExternal_; }
  void setIsExternal(bool v) { isExternal_ = v; }
  /// Points filed into the library's geocache collection.
  int64_t filedGeocacheCounter() const { return filedGeocacheCounter_; }
  void setFiledGeocacheCounter(int64_t v) { filedGeocacheCounter_ = v; }

 private:
  bool setTimeZone_ = true;
  GpxImportDelegate* delegate_ = nullptr;
  bool removeAllWaypoints_ = false;
  std::optional<std::string> trackIdPrefix_;
  std::vector<TrackPtr> importedTracks_;
  std::vector<TrackPointPtr> importedPOIs_;
  std::shared_ptr<TrackLibraryFolder> targetFolder_;
  bool doNotImportPOIs_ = false;
  std::optional<std::string> filename_;
  int64_t newTrackCounter_ = 0;
  int64_t identicalTrackCounter_ = 0;
  int64_t invalidPositionCounter_ = 0;
  bool isExternal_ = false;
  int64_t filedGeocacheCounter_ = 0;
};

}  // namespace kvtrack
