#include "kvtrack/support/UnitConverter.h"

namespace kvtrack {

double UnitConverter::metersToMiles(double meters) { return meters / kMetersPerMile; }

double UnitConverter::metersToNauticalMiles(double meters) {
  return meters / kMetersPerNauticalMile;
}

double UnitConverter::metersToFeet(double meters) { return meters / kMetersPerFoot; }

}  // namespace kvtrack
