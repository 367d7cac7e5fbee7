#pragma once
// Reads and writes one track as GPX: the library's own track files and
// user exports. Writing builds an element tree and saves it once; reading
// streams the file through a chain of element handlers.

#include "kvtrack/formats/gpx/GpxExportConfiguration.h"
#include "kvtrack/model/Track.h"
#include "kvtrack/support/OutputFile.h"
#include "kvtrack/support/Status.h"

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

  /// Writes the track to the file, which is replaced only by a complete
  /// one. Sets the configuration's filename. On failure "Error writing
  /// file: <path> (<reason>)" is logged and the old file stays.
  Status exportTo(const std::string& path, GpxExportConfiguration& configuration);
  /// The same into a file being written (the library stages its saves).
  Status writeTo(OutputFile& file, GpxExportConfiguration& configuration);
  /// The document as text.
  std::string exportText(GpxExportConfiguration& configuration);
  /// Several tracks into one file: all waypoints first, then the tracks.
  Status exportTo(const std::string& path, const std::vector<TrackPtr>& tracks,
                  GpxExportConfiguration& configuration);

  /// Reads the file into the track: its points and attributes, then merges
  /// the file's waypoints into them. Fails when the file could not be read
  /// completely (the reason gives the parser's line and column); what was
  /// read before an error stays in the track. Points whose position is not
  /// valid are skipped and counted.
  Status importFrom(const std::string& path);
  /// Points the last import skipped for their position.
  int32_t invalidPositionCount() const { return invalidPositions_; }

  /// The path being read, empty outside an import.
  const std::string& importFilename() const { return importFilename_; }

 private:
  std::shared_ptr<Track> track_;
  std::string importFilename_;
  int32_t invalidPositions_ = 0;
};

}  // namespace kvtrack
