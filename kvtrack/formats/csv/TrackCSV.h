#pragma once
// TrackCSV: the points of one track as a semicolon-separated table for
// spreadsheets, in the user's units and with numbers in the user's locale.
// Export only. Fields are not quoted: a ';' or line break inside a point
// name passes into the file as it is.

#include "kvtrack/model/Track.h"
#include "kvtrack/support/Status.h"

#include <memory>
#include <string>

namespace kvtrack {

class TrackCSV {
 public:
  /// The track is shared, not copied; nullptr exports the header alone.
  explicit TrackCSV(std::shared_ptr<Track> track);
  static std::shared_ptr<TrackCSV> trackCSVWithTrack(std::shared_ptr<Track> track);

  const std::shared_ptr<Track>& track() const { return track_; }

  /// Writes the table to the path as UTF-16 little-endian with a byte-order
  /// mark, replacing any file there only once the new one is complete.
  /// Units follow KvPreferences unitMode (1: ft and mph, 2: ft and knots,
  /// else m and km/h); numbers and times follow ICU's default locale.
  /// Fails, with one log line, when the file could not be written.
  Status exportTo(const std::string& path);

 private:
  std::shared_ptr<Track> track_;
};

}  // namespace kvtrack
