#pragma once
// The external track-point file of a GPX export: one text line per point,
// "lat,lon,ele,isWayPoint,isEndOfSegment,seconds" with the time in whole
// seconds since 2001-01-01T00:00:00Z (0 without a time). The GPX file then
// keeps only the points with photos, each naming its line by index.

#include "kvtrack/model/Track.h"

#include <string>
#include <vector>

namespace kvtrack::gpx {

/// Writes every point, in order. False when the file cannot be written.
bool writeExternalTrackPoints(const std::string& path, const std::vector<TrackPointPtr>& points);

/// Appends one point per line to the track (under its lock) until a line
/// holds no number at all. Coordinates and elevation are read in single
/// precision, as they always were. A missing file adds nothing. Returns
/// the number of lines skipped for a position outside the earth.
int32_t readExternalTrackPoints(const std::string& path, Track& track);

}  // namespace kvtrack::gpx
