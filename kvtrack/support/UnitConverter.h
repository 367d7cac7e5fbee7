#pragma once
// UnitConverter: metres into the imperial and nautical units shown to users.

namespace kvtrack {

class UnitConverter {
 public:
  static constexpr double kMetersPerMile = 1609.344;
  static constexpr double kMetersPerNauticalMile = 1852.0;
  static constexpr double kMetersPerFoot = 0.3048;

  static double metersToMiles(double meters);
  static double metersToNauticalMiles(double meters);
  static double metersToFeet(double meters);
};

}  // namespace kvtrack
