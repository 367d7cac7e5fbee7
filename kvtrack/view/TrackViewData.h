#pragma once
// What a track view shows of one track, gathered in one pass over its
// points while the track's lock is held (as the GPX and KML writers read
// them), then thinned for drawing: the map line simplified, the profiles
// down-sampled, the photos reduced to thumbnails.

#include "kvtrack/model/Track.h"
#include "kvtrack/view/LineSimplification.h"
#include "kvtrack/view/ProfileSampling.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace kvtrack {

struct TrackViewSettings {
  /// Every recorded point lies within this many metres of the map line.
  double lineToleranceMetres = kLineToleranceMetres;
  /// Runs per profile series (see extremeSamples); 0 keeps every point.
  size_t profileRuns = kProfileRuns;
  /// Largest width and height of a photo thumbnail, pixels.
  int thumbnailSize = 320;
  /// JPEG quality of thumbnails, 0..1.
  float thumbnailQuality = 0.7f;
};

/// One point of the profiles. Missing values are NaN.
struct ProfileSample {
  size_t index = 0;          // position in the track's point list
  double distance = 0.0;     // km along the track from its first point
  double seconds = 0.0;      // since the track's first timed point
  double latitude = 0.0, longitude = 0.0;
  double elevation = 0.0;    // metres
  double speed = 0.0;        // km/h
};

struct ViewWaypoint {
  std::string name;
  std::string description;
  double latitude = 0.0, longitude = 0.0;
  double elevation = 0.0;  // metres, NaN when unknown
  bool geocache = false;
};

struct ViewPhoto {
  std::string file;   // the photo's path
  std::string time;   // capture time as shown to people; empty when unknown
  std::string place;  // "City, State, Country" parts present; may be empty
  double latitude = 0.0, longitude = 0.0;
  /// Upright JPEG thumbnail bytes; empty when the file cannot be read.
  std::string thumbnail;
};

/// The track's figures, in kilometres, metres, km/h, seconds and minutes.
struct ViewStatistics {
  double length = 0.0;
  double duration = 0.0;  // NaN without times
  double ascent = 0.0, descent = 0.0;
  double minElevation = 0.0, maxElevation = 0.0;
  double maxSpeed = 0.0, averageSpeed = 0.0;  // NaN without times
  int32_t timezoneOffset = 0;
  double startSeconds = 0.0;  // Unix time of the first timed point, NaN without
  std::string start, end;     // first and last point times as shown; empty without
  size_t points = 0;
  int32_t photos = 0, waypoints = 0, geocaches = 0;
};

struct TrackViewData {
  std::string name;
  Color color;
  float width = 1.0f;
  float corridorMetres = 0.0f;  // half-width of the shaded corridor, 0 for none
  int32_t type = Track::kRecordedTrack;
  /// The map line, one list per segment, already simplified. Empty for
  /// collections without a line (geocaches, the library's collections).
  std::vector<std::vector<GeoVertex>> segments;
  std::vector<ProfileSample> profile;
  std::vector<ViewWaypoint> waypoints;
  std::vector<ViewPhoto> photos;
  ViewStatistics statistics;

  size_t drawnVertexCount() const;
};

/// Loads the track, brings its statistics up to date (updateAll) and reads
/// everything the view shows. Photos whose files cannot be read keep their
/// marker without a thumbnail (logged).
TrackViewData gatherTrackView(Track& track, const TrackViewSettings& settings);

/// The map line's segments before simplification: the points in order, a
/// new segment after each end-of-segment point. Empty for tracks of type 2
/// and 3. The caller holds the track's lock.
std::vector<std::vector<GeoVertex>> recordedSegments(Track& track);

}  // namespace kvtrack
