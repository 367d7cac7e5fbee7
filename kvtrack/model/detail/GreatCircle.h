#pragma once
// The system's one distance formula: the spherical law of cosines on a
// sphere of radius 6371.0 km, written out term by term so that every caller
// gets bit-identical results. Whole-track passes precompute the sines and
// cosines of each point once; the products below are evaluated in exactly
// the same order as the direct formula, so cached and direct results agree
// to the last bit.

#include <cmath>

namespace kvtrack::detail {

constexpr double kEarthRadiusKm = 6371.0;

inline double radians(double degrees) {
  return (degrees / 180.0) * 3.141592653589793;  // division first, as always
}

struct SphericalCoordinate {
  double sinLat, cosLat, sinLon, cosLon;

  static SphericalCoordinate of(double latitudeDegrees, double longitudeDegrees) {
    const double lat = radians(latitudeDegrees);
    const double lon = radians(longitudeDegrees);
    return {std::sin(lat), std::cos(lat), std::sin(lon), std::cos(lon)};
  }
};

/// Kilometres from a to b; 0.0 where rounding pushes the cosine above 1.
inline double greatCircleDistance(const SphericalCoordinate& a, const SphericalCoordinate& b) {
  // The sum rounds to just below 1 for many identical positions (47.123456789,
  // 8.987654321 gives 0.13 m); a point is always exactly 0 km from itself.
  if (a.sinLat == b.sinLat && a.cosLat == b.cosLat && a.sinLon == b.sinLon && a.cosLon == b.cosLon) {
    return 0.0;
  }
  const double q = a.cosLat * a.cosLon * b.cosLat * b.cosLon +
                   a.sinLon * a.cosLat * b.cosLat * b.sinLon + a.sinLat * b.sinLat;
  const double d = std::acos(q) * kEarthRadiusKm;
  return std::isnan(d) ? 0.0 : d;
}

}  // namespace kvtrack::detail
