#pragma once
// A synchronizer that mirrors tracks and photos into a folder the user
// chooses, typically one that Nextcloud, Syncthing or a network share keeps
// in step with other machines:
//
//   FOLDER/tracks/<iCloudId>.gpx.gz    the track's GPX, gzip-compressed
//   FOLDER/tracks/<iCloudId>.plist     its metadata record (TrackICloud)
//   FOLDER/photos/<photoId><.ext>      copies of photo files, extension lower-cased
//   FOLDER/thumbnails/<photoId>.jpg    thumbnails, where some other program made them
//
// Ids become file names through FileHandling::filenameWithoutSpecialCharacters,
// so a hostile id never leaves its folder. Every file is written to a hidden
// temporary file beside it and renamed, so the programs that carry the
// folder to other machines never pick up half a file. The folder itself is
// never created here: when it is missing (an unmounted disk, a share that
// went away) every write logs one line and changes nothing, rather than
// filling a stray folder in its place.

#include "kvtrack/library/ICloudSynchronizer.h"
#include "kvtrack/sync/PropertyList.h"

#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace kvtrack {

class FolderSynchronizer : public ICloudSynchronizer {
 public:
  explicit FolderSynchronizer(std::string folder);

  const std::string& folder() const { return folder_; }
  /// The folder exists.
  bool active() const override;

  /// Writes the track's GPX and record (loading the track when needed);
  /// false, logged, when nothing or not all was written. Tracks without an
  /// iCloudId are not mirrored.
  bool writeTrack(Track& track);
  void writeTrackToiCloud(Track& track) override { writeTrack(track); }
  /// Removes the track's two files.
  void deleteTrackFromiCloud(Track& track) override;
  /// Deliberate: a track new in the library gets an iCloudId when it has
  /// none, so the next save mirrors it and the mirror stays complete.
  void newTrackInTrackLibrary(Track& track) override;

  /// A copy of the photo file, never the original moved: the user's photo
  /// collection stays as it is. The copy's fresh id, or absent (logged).
  std::optional<std::string> movePhotoToiCloud(const std::string& filepath,
                                               TrackPhoto& photo) override;
  /// The copy of the photo; where it would be (without extension) when
  /// there is none.
  std::optional<std::string> urlForPhotoId(const std::string& photoId) const override;
  /// Where the thumbnail is or would be; thumbnails are not made here.
  std::optional<std::string> urlForThumbnailPhotoId(const std::string& photoId) const override;
  /// A local folder has nothing to download: logs a file that is missing.
  void downloadFileIfNotAvailable(const std::string& url) override;

  std::string trackFile(const std::string& iCloudId) const;
  std::string recordFile(const std::string& iCloudId) const;

  struct Record {
    std::string trackFile;   // the .gpx.gz file
    std::string recordFile;  // the .plist file
    PropertyRecord metadata;
  };
  /// The readable records that have a track file, in file-name order.
  /// Unreadable records and records without a track file are logged and
  /// left out.
  std::vector<Record> records() const;

 private:
  // The subfolder, made when the folder exists; empty (logged) otherwise.
  std::string subfolder(const char* name, const std::string& what) const;
  std::optional<std::string> cachedPhotoPath(const std::string& name) const;

  std::string folder_;
  mutable std::mutex photoMutex_;
  // Photo file name without extension -> path, filled by scanning "photos".
  mutable std::map<std::string, std::string> photoPaths_;
};

}  // namespace kvtrack
