#pragma once
// Thinning a drawn line without changing what a map shows: Douglas-Peucker
// with a tolerance in metres. Distances from a vertex to the chord between
// two kept vertices are measured on a local flat projection centred on the
// chord's start (east-west scaled by the cosine of its latitude), which is
// within a fraction of a percent for chords of a few hundred kilometres,
// far below any tolerance that matters on a map.

#include <cstddef>
#include <span>
#include <vector>

namespace kvtrack {

/// A vertex of a drawn line: degrees, north and east positive.
struct GeoVertex {
  double latitude = 0.0;
  double longitude = 0.0;
};

/// The tolerance of the map line in a track view: every recorded point lies
/// within this many metres of the line drawn. Consumer GPS receivers are
/// good to about 5 m, so detail finer than this is noise.
inline constexpr double kLineToleranceMetres = 5.0;

/// Indices (ascending) of the vertices to keep: the first and the last
/// always, and every vertex farther than toleranceMetres (>= 0) from the
/// line through the vertices kept around it. A line of two vertices or
/// fewer is kept whole. Iterative, so 100,000-vertex lines are fine.
std::vector<size_t> simplifyLine(std::span<const GeoVertex> line, double toleranceMetres);

/// Metres from p to the segment a-b on the flat projection described above.
double distanceToSegmentInMetres(const GeoVertex& p, const GeoVertex& a, const GeoVertex& b);

}  // namespace kvtrack
