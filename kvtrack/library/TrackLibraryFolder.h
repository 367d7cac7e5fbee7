#pragma once
// A folder of the track library: an ordered list of tracks and an ordered
// list of subfolders. Each folder is its own recursive lock, held for every
// operation; walks lock parent before child.

#include "kvtrack/model/Track.h"
#include "kvtrack/model/TrackFolder.h"
#include "kvtrack/support/Status.h"

#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace kvtrack {

class GpxImportConfiguration;
class GpxImportDelegate;
class TrackLibraryFolder;
using TrackLibraryFolderPtr = std::shared_ptr<TrackLibraryFolder>;

class TrackLibraryFolder : public TrackFolder,
                           public std::enable_shared_from_this<TrackLibraryFolder> {
 public:
  explicit TrackLibraryFolder(std::string name = {});
  static TrackLibraryFolderPtr trackLibraryFolder(std::string name = {}) {
    return std::make_shared<TrackLibraryFolder>(std::move(name));
  }

  void lock() const { mutex_.lock(); }
  void unlock() const { mutex_.unlock(); }
  bool try_lock() const { return mutex_.try_lock(); }

  // --- tree editing --------------------------------------------------------
  std::vector<TrackPtr> tracks() const;
  std::vector<TrackLibraryFolderPtr> folders() const;
  void setTracks(std::vector<TrackPtr> tracks);
  TrackLibraryFolderPtr parent() const { return parent_.lock(); }
  void setParent(const TrackLibraryFolderPtr& parent) { parent_ = parent; }
  std::shared_ptr<TrackFolder> parentFolder() const override { return parent(); }
  bool isSelected() const { return isSelected_; }
  void setIsSelected(bool value) { isSelected_ = value; }
  bool doNotSaveInStandardLibrary() const { return doNotSaveInStandardLibrary_; }
  void setDoNotSaveInStandardLibrary(bool value) { doNotSaveInStandardLibrary_ = value; }

  /// Appends the track; a missing file name becomes "Track%08d.gpx" and a
  /// missing name "Track%08d" with the library's counter, which then always
  /// advances by one.
  void addTrack(const TrackPtr& track);
  /// As addTrack, but directly behind the given track (appended when that
  /// track is not here).
  void addTrack(const TrackPtr& track, const Track* afterTrack);
  /// Appends with the given name and file name; the counter is not used.
  void addTrack(const TrackPtr& track, std::string name, std::string filename);
  /// A track received as a gzip-compressed GPX file: its data become the
  /// track's library file, read on first use. Null when it does not inflate.
  Result<TrackPtr> addTrackFromiCloudFile(std::string name, const std::string& path);
  void addFolder(const TrackLibraryFolderPtr& folder);
  void addFolderAtBeginning(const TrackLibraryFolderPtr& folder);
  /// Files stay on disk until the library's clean-up.
  void deleteFolder(const TrackLibraryFolderPtr& folder);
  void deleteTrack(const TrackPtr& track);
  /// Direct subfolder of exactly that name.
  TrackLibraryFolderPtr getFolder(const std::string& name) const;
  int indexOfTrack(const Track& track) const override;
  int indexOfTrackLibraryFolder(const TrackLibraryFolder& folder) const;
  /// Renaming changes the path of every track beneath: their metadata are dirty.
  void setName(std::string name) override;
  void setMetadataDirtyOfAllTracks(bool dirty);

  // --- moving ----------------------------------------------------------------
  void moveTrackHere(const TrackPtr& track);
  /// Refused silently when the folder is this one or one of its ancestors.
  void moveTrackLibraryFolderHere(const TrackLibraryFolderPtr& folder);

  // --- selection and collections (subfolders first, depth-first) --------------
  void unselectAll();
  void selectAllTracks();
  std::vector<TrackPtr> allTracks() const;
  /// Locks this folder and every one beneath it, parents first, until the
  /// locks are let go; walks under them then take no lock of their own.
  void lockSubtree(std::vector<std::unique_lock<const TrackLibraryFolder>>& locks) const;
  std::vector<TrackPtr> allSelectedTracks() const;
  std::vector<TrackLibraryFolderPtr> allSelectedFolders() const;
  TrackPtr firstSelectedTrack() const;
  TrackLibraryFolderPtr firstSelectedTrackFolder() const;
  std::vector<TrackPhotoPtr> trackPhotosOfTracks() const;
  std::vector<TrackPhotoPtr> trackPhotosOfSelectedFolders() const;
  /// Own tracks before the subfolders'.
  TrackPtr trackWithTrackId(const std::string& trackId) const;
  void addAllTracksToArray(std::vector<TrackPtr>& into) const;
  void addAllSelectedTracksToArray(std::vector<TrackPtr>& into) const;
  void addAllSelectedFoldersToArray(std::vector<TrackLibraryFolderPtr>& into) const;
  void addtrackPhotosOfTracks(std::vector<TrackPhotoPtr>& into) const;
  void addtrackPhotosOfSelectedFolders(std::vector<TrackPhotoPtr>& into) const;

  // --- paths ----------------------------------------------------------------
  /// Positions from below the root down to here, each followed by "."; "" for the root.
  std::string path() const;
  void addPath(std::string& path) const override;

  // --- sorting (in place, then recursively) ---------------------------------
  void sortByNameAscending(bool ascending);
  void sortByDateAscending(bool ascending);
  /// Subfolders of this level by name, deeper levels by date only.
  void sortByDateAndNameAscending(bool ascending);
  void sortByLengthAscending(bool ascending);
  void sortByDurationAscending(bool ascending);
  int compareName(const TrackLibraryFolder& other) const;
  int compareNameDescending(const TrackLibraryFolder& other) const;

  // --- splitting ---------------------------------------------------------------
  /// Splits the position's track in two; the split point belongs to both parts.
  void splitAtPointInTrack(const PointInTrack& position);
  /// Splits in three at two positions of one track.
  void splitAtPointInTrack(const PointInTrack& first, const PointInTrack& second);

  // --- importing files into this folder -----------------------------------------
  /// By file ending: .kml, .loc, .gpi, .ov2 through gpsbabel, anything else as GPX.
  /// A failure names what could not be read (the file, or gpsbabel's
  /// complaint about it); tracks read before an error stay in the folder
  /// and in the configuration.
  Status importGPX(const std::string& path, GpxImportConfiguration& configuration);
  Status importKML(const std::string& path);
  Status importKML(const std::string& path, bool setTimeZone, GpxImportDelegate* delegate);
  Status importLOC(const std::string& path);
  Status importLOC(const std::string& path, bool setTimeZone, GpxImportDelegate* delegate);
  /// Any gpsbabel format.
  Status importFrom(const std::string& path, const std::string& format);
  Status importFrom(const std::string& path, const std::string& format,
                    GpxImportConfiguration* gpxConfiguration);

 protected:
  mutable std::recursive_mutex mutex_;

 private:
  void insertTrack(const TrackPtr& track, std::ptrdiff_t position);
  template <typename Compare>
  void sortTracks(Compare compare);

  std::vector<TrackPtr> tracks_;
  std::vector<TrackLibraryFolderPtr> folders_;
  std::weak_ptr<TrackLibraryFolder> parent_;
  bool isSelected_ = false;
  bool doNotSaveInStandardLibrary_ = false;
};

}  // namespace kvtrack
