#pragma once
// Reads and writes one track as GPX: the library's own track files and
// user exports. Writing builds an element tree and saves it once; reading
// streams the file through a chain of element handlers.

#include "kvtrack/formats/gpx/GpxExportConfiguration.h"
#include "kvtrack/model/Track.h"

#include <memory>
#include <string>
#include <vector>

namespace kvtrack {

class TrackGPX {
 public:
  explicit TrackGPX(std::shared_ptr<Track> track);
  /// For a track the caller keeps alive (one held by reference, maybe not
  /// by a shared pointer) for as long as this object is used.
  explicit TrackGPX(Track& track);
  static std::unique_ptr<TrackGPX> trackGPXWithTrack(std::shared_ptr<Track> track) {
    return std::make_unique<TrackGPX>(std::move(track));
  }

  const std::shared_ptr<Track>& track() const { return track_; }

  /// Writes the track to the file (not atomically). Sets the configuration's
  /// filename. False, with "Error writing file: <path>" logged, on failure.
  bool exportTo(const std::string& path, GpxExportConfiguration& configuration);
  /// Several tracks into one file: all waypoints first, then the tracks;
  /// written atomically.
  bool exportTo(const std::string& path, const std::vector<TrackPtr>& tracks,
                GpxExportConfiguration& configuration);

  /// Reads the file into the track: its points and attributes, then merges
  /// the file's waypoints into them. False when the file could not be read
  /// completely; what was read before an error stays in the track.
  bool importFrom(const std::string& path);

  /// The path being read, empty outside an import.
  const std::string& importFilename() const { return importFilename_; }

 private:
  std::shared_ptr<Track> track_;
  std::string importFilename_;
};

}  // namespace kvtrack
