#pragma once
// Exports the library, its selected tracks or one of its tracks as one GPX
// 1.1 file: all waypoints first, then the tracks and routes.

#include "kvtrack/formats/gpx/GpxExportConfiguration.h"
#include "kvtrack/model/Track.h"

#include <functional>
#include <string>
#include <vector>

namespace kvtrack {

class TrackLibraryGPX {
 public:
  /// allTracks: the library's tracks in export order, asked for at each export.
  explicit TrackLibraryGPX(std::function<std::vector<TrackPtr>()> allTracks)
      : allTracks_(std::move(allTracks)) {}

  /// With trackOnly, that track alone (waypoints and track, whatever
  /// exportWaypointsOnly says); otherwise every track, or the selected ones.
  /// Ignores useGPX10 and leaves the configuration's filename alone. False
  /// when the file cannot be written (not logged).
  bool exportTo(const std::string& path, bool selectedOnly, const TrackPtr& trackOnly,
                GpxExportConfiguration& configuration);

  bool exportTo(const std::string& path, GpxExportConfiguration& configuration) {
    return exportTo(path, false, nullptr, configuration);
  }
  bool exportSelected(const std::string& path, GpxExportConfiguration& configuration) {
    return exportTo(path, true, nullptr, configuration);
  }
  bool exportTo(const std::string& path, bool selectedOnly, GpxExportConfiguration& configuration) {
    return exportTo(path, selectedOnly, nullptr, configuration);
  }
  bool exportTo(const std::string& path, const TrackPtr& track,
                GpxExportConfiguration& configuration) {
    return exportTo(path, false, track, configuration);
  }

 private:
  std::function<std::vector<TrackPtr>()> allTracks_;
};

}  // namespace kvtrack
