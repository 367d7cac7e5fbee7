#pragma once
// The root of the track library: the folder tree, the counter that names
// new track files, the two collections of all geocaches and all loose
// waypoints, and the folder on disk where everything lives flat:
// "library.wayfolio" (the index), one GPX file per track, and the
// collections' files. Tracks are read lazily and saved by syncToDisk.
//
// A save writes every changed file to a temporary file in the same folder
// first and puts them in place only when all are complete, the index last:
// an interrupted or failed save never leaves a half-written file, and the
// index never names a file that was not written. Files are deleted only
// when this library stopped naming them (a track removed), never because
// the index does not know them.

#include "kvtrack/library/TrackLibraryFolder.h"
#include "kvtrack/support/FileHandling.h"
#include "kvtrack/support/Status.h"

#include <atomic>
#include <memory>
#include <optional>
#include <set>
#include <string>

namespace kvtrack {

class GpxExportConfiguration;
class LibrarySave;
class LibraryTrackStore;
class TrackLibrary;
using TrackLibraryPtr = std::shared_ptr<TrackLibrary>;

class TrackLibrary : public TrackLibraryFolder {
 public:
  /// The one library; made on first use on FileHandling::singleton(), then
  /// its index is read.
  static TrackLibraryPtr singleton();
  /// The current library without creating one.
  static TrackLibraryPtr current();
  /// Makes a library on the given folders and registers it as the one
  /// library (logging an internal error when one exists already). The two
  /// collections are loaded at once; the index is not read.
  static TrackLibraryPtr trackLibraryWithFileHandling(FileHandling& fileHandling);
  /// Forgets the registered library, which saves when the last user lets
  /// go. Hosts call this before they exit: the registration itself lives on.
  static void releaseSingleton();

  explicit TrackLibrary(FileHandling& fileHandling);
  /// Saves everything.
  ~TrackLibrary() override;

  // The counter needs no lock of the library: folders take numbers while
  // they hold their own lock, which must never wait for the root's.
  int32_t trackCounter() const { return trackCounter_.load(); }
  void setTrackCounter(int32_t counter) { trackCounter_.store(counter); }
  /// The counter's value, which then advances by one: never handed out twice.
  int32_t takeTrackCounter() { return trackCounter_.fetch_add(1); }
  FileHandling& fileHandling() const { return fileHandling_; }
  /// The library folder.
  std::string folder() const { return fileHandling_.userApplicationSupport(); }
  const TrackPtr& geocacheTrack() const { return geocacheTrack_; }
  const TrackPtr& waypointTrack() const { return waypointTrack_; }

  /// Saves every dirty loaded track, both collections and the index (when
  /// it changed), then removes the files it stopped naming. On failure
  /// (logged, and the reason returned) every file stays as it was. Does
  /// nothing for a read-only library.
  Status syncToDisk();
  /// Reads "library.wayfolio" into the tree; tracks stay unloaded. Fails
  /// when the index is missing or cannot be read whole; what was read
  /// before an error stays.
  Status syncFromDisk();
  bool atLeastOneTrackDirty() const;
  /// The track's name followed by ".gpx".
  std::string generateFilename(const Track& track) const;
  /// Deletes the track files this library named at its last load or save
  /// and names no more, and temporaries of interrupted saves.
  void cleanup();

  /// A read-only library never writes: syncToDisk (also the one of its
  /// destruction) returns at once. Hosts open libraries this way for work
  /// that only reads, and to drop the changes of work that failed.
  bool isReadOnly() const { return readOnly_; }
  void setReadOnly(bool readOnly) { readOnly_ = readOnly; }
  /// "<folder>/library.wayfolio", and the copy of the index before its
  /// last save, kept for rebuilding a library that lost its index.
  std::string indexPath() const { return folder() + "/" + kIndexName; }
  std::string previousIndexPath() const { return folder() + "/" + kPreviousIndexName; }
  static constexpr const char* kIndexName = "library.wayfolio";
  static constexpr const char* kPreviousIndexName = "library.wayfolio.previous";
  /// The index on disk is damaged: the next save keeps its bytes under
  /// this name (in the library folder) before replacing it.
  void keepDamagedIndexAs(std::optional<std::string> name) { damagedIndexAside_ = std::move(name); }
  const std::optional<std::string>& damagedIndexAside() const { return damagedIndexAside_; }
  /// Moves the counter behind every "Track%08d.gpx" name in the index and
  /// in the folder, so a new track never takes the name of an existing file.
  void repairTrackCounter();

  TrackLibraryFolderPtr trackLibraryFolderWithPath(const std::string& path) const;
  TrackPtr trackWithPath(const std::string& path) const;
  /// The first track running at a local wall-clock time read in each
  /// track's own zone; both ends count.
  TrackPtr findTrackForDateWithLocalTimezone(const ISODate& localTime) const;
  /// Over the selected tracks (always, whatever the flag says).
  PointInTrack findNearestPointForLatitude(double latitude, double longitude,
                                           PointInTrack nearestPoint, bool selectedTracksOnly) const;
  PointInTrack findNearestPointForLatitude(double latitude, double longitude,
                                           bool selectedTracksOnly) const;

  Status exportGPX(const std::string& path, GpxExportConfiguration& configuration) const;
  Status exportSelectedGPX(const std::string& path, GpxExportConfiguration& configuration) const;

 private:
  TrackLibraryFolderPtr walkPath(const std::string& path, bool lenient, std::string_view& last) const;
  std::set<std::string> currentFilenames() const;
  Status stageIndex(LibrarySave& save, std::optional<std::string>& staged);

  FileHandling& fileHandling_;
  std::atomic<int32_t> trackCounter_{0};
  TrackPtr geocacheTrack_;
  TrackPtr waypointTrack_;
  std::shared_ptr<LibraryTrackStore> store_;
  bool readOnly_ = false;
  // The files named at the last load or save: the only ones cleanup may delete.
  std::set<std::string> namedFiles_;
  // The bytes of the sound index on disk, as last read or written.
  std::optional<std::string> indexOnDisk_;
  std::optional<std::string> damagedIndexAside_;
};

}  // namespace kvtrack
