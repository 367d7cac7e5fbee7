#include "kvtrack/view/LineSimplification.h"

#include <algorithm>
#include <cmath>
#include <numbers>
#include <utility>

namespace kvtrack {

namespace {

// The sphere of the system's distance formula.
constexpr double kEarthRadiusMetres = 6371000.0;
constexpr double kRadiansPerDegree = std::numbers::pi / 180.0;

// Longitude difference folded into -180..180, so lines across the 180th
// meridian are measured the short way.
double longitudeDelta(double from, double to) {
  double delta = to - from;
  if (delta > 180.0) delta -= 360.0;
  if (delta < -180.0) delta += 360.0;
  return delta;
}

struct Flat {
  double x = 0.0, y = 0.0;
};

Flat project(const GeoVertex& v, const GeoVertex& origin, double cosLatitude) {
  return {kEarthRadiusMetres * kRadiansPerDegree * longitudeDelta(origin.longitude, v.longitude) *
              cosLatitude,
          kEarthRadiusMetres * kRadiansPerDegree * (v.latitude - origin.latitude)};
}

}  // namespace

double distanceToSegmentInMetres(const GeoVertex& p, const GeoVertex& a, const GeoVertex& b) {
  const double cosLatitude = std::cos(a.latitude * kRadiansPerDegree);
  const Flat fb = project(b, a, cosLatitude);
  const Flat fp = project(p, a, cosLatitude);
  const double lengthSquared = fb.x * fb.x + fb.y * fb.y;
  double t = 0.0;
  if (lengthSquared > 0.0) t = std::clamp((fp.x * fb.x + fp.y * fb.y) / lengthSquared, 0.0, 1.0);
  return std::hypot(fp.x - t * fb.x, fp.y - t * fb.y);
}

std::vector<size_t> simplifyLine(std::span<const GeoVertex> line, double toleranceMetres) {
  std::vector<size_t> kept;
  if (line.size() <= 2) {
    for (size_t i = 0; i < line.size(); ++i) kept.push_back(i);
    return kept;
  }
  std::vector<bool> keep(line.size(), false);
  keep.front() = keep.back() = true;
  // Ranges still to examine, as (first, last) indices of kept vertices.
  std::vector<std::pair<size_t, size_t>> pending{{0, line.size() - 1}};
  while (!pending.empty()) {
    const auto [first, last] = pending.back();
    pending.pop_back();
    double farthest = -1.0;
    size_t index = first;
    for (size_t i = first + 1; i < last; ++i) {
      const double d = distanceToSegmentInMetres(line[i], line[first], line[last]);
      if (d > farthest) {
        farthest = d;
        index = i;
      }
    }
    if (index == first || !(farthest > toleranceMetres)) continue;
    keep[index] = true;
    pending.emplace_back(first, index);
    pending.emplace_back(index, last);
  }
  for (size_t i = 0; i < line.size(); ++i) {
    if (keep[i]) kept.push_back(i);
  }
  return kept;
}

}  // namespace kvtrack
