#pragma once
// GPX files and the library: importing a file as new tracks of a folder
// (refusing duplicates, filing points of interest and geocaches into the
// library's collections), and exporting the library, its selected tracks or
// one of its tracks as one GPX 1.1 file.

#include "kvtrack/formats/gpx/GpxExportConfiguration.h"
#include "kvtrack/library/GpxImportConfiguration.h"
#include "kvtrack/model/Track.h"

#include <functional>
#include <string>
#include <vector>

namespace kvtrack {

class TrackLibraryGPX {
 public:
  /// Exports take the library's tracks.
  TrackLibraryGPX();
  /// allTracks: the tracks to export, in order, asked for at each export.
  explicit TrackLibraryGPX(std::function<std::vector<TrackPtr>()> allTracks)
      : allTracks_(std::move(allTracks)) {}

  /// Reads the file into the configuration's target folder (the library's
  /// root when none); the configuration collects the tracks, refused
  /// duplicates and filed points over all its imports.
  GpxFileImport importFrom(const std::string& path, GpxImportConfiguration& configuration);

  /// With trackOnly, that track alone (waypoints and track, whatever
  /// exportWaypointsOnly says); otherwise every track, or the selected ones.
  /// Ignores useGPX10 and leaves the configuration's filename alone.
  Status exportTo(const std::string& path, bool selectedOnly, const TrackPtr& trackOnly,
                  GpxExportConfiguration& configuration);

  Status exportTo(const std::string& path, GpxExportConfiguration& configuration) {
    return exportTo(path, false, nullptr, configuration);
  }
  Status exportSelected(const std::string& path, GpxExportConfiguration& configuration) {
    return exportTo(path, true, nullptr, configuration);
  }
  Status exportTo(const std::string& path, bool selectedOnly, GpxExportConfiguration& configuration) {
    return exportTo(path, selectedOnly, nullptr, configuration);
  }
  Status exportTo(const std::string& path, const TrackPtr& track,
                  GpxExportConfiguration& configuration) {
    return exportTo(path, false, track, configuration);
  }

 private:
  std::function<std::vector<TrackPtr>()> allTracks_;
};

}  // namespace kvtrack
