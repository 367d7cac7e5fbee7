#pragma once
// The root of the track library: the folder tree, the counter that names
// new track files, the two collections of all geocaches and all loose
// waypoints, and the folder on disk where everything lives flat:
// "library.wayfolio" (the index), one GPX file per track, and the
// collections' files. Tracks are read lazily and saved by syncToDisk.
//
// Files the library writes go to a temporary file in the same folder that
// then replaces the old one, so an interrupted or failed save never leaves
// a half-written file behind.

#include "kvtrack/library/TrackLibraryFolder.h"
#include "kvtrack/support/FileHandling.h"

#include <memory>
#include <optional>
#include <string>

namespace kvtrack {

class GpxExportConfiguration;
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

  int32_t trackCounter() const;
  void setTrackCounter(int32_t counter);
  void increaseTrackCounter();
  FileHandling& fileHandling() const { return fileHandling_; }
  /// The library folder.
  std::string folder() const { return fileHandling_.userApplicationSupport(); }
  const TrackPtr& geocacheTrack() const { return geocacheTrack_; }
  const TrackPtr& waypointTrack() const { return waypointTrack_; }

  /// Saves every dirty loaded track, both collections and the index, then
  /// removes files no track names. False when some file could not be
  /// written (each failure is logged; the previous file stays).
  bool syncToDisk();
  /// Reads "library.wayfolio" into the tree; tracks stay unloaded.
  void syncFromDisk();
  bool atLeastOneTrackDirty() const;
  /// The track's name followed by ".gpx".
  std::string generateFilename(const Track& track) const;
  /// Deletes ".gpx" files in the library folder that no track names.
  void cleanup();

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

  bool exportGPX(const std::string& path, GpxExportConfiguration& configuration) const;
  bool exportSelectedGPX(const std::string& path, GpxExportConfiguration& configuration) const;

 private:
  TrackLibraryFolderPtr walkPath(const std::string& path, bool lenient, std::string_view& last) const;

  FileHandling& fileHandling_;
  int32_t trackCounter_ = 0;
  TrackPtr geocacheTrack_;
  TrackPtr waypointTrack_;
};

}  // namespace kvtrack
