#include "tools/wayfolio/Units.h"

#include "kvtrack/support/KvPreferences.h"
#include "kvtrack/support/UnitConverter.h"

#include <fmt/format.h>

#include <cmath>

namespace wayfolio {

using kvtrack::KvPreferences;
using kvtrack::UnitConverter;

namespace {

std::string figure(double value, int decimals, const char* unit) {
  if (!std::isfinite(value)) return "-";
  return fmt::format("{:.{}f} {}", value, decimals, unit);
}

}  // namespace

Units Units::fromPreferences() {
  return Units(KvPreferences::singleton().unitMode().value_or(KvPreferences::kUnitModeMetric));
}

std::string Units::length(double kilometres) const {
  const double metres = kilometres * 1000.0;
  switch (mode_) {
    case KvPreferences::kUnitModeFeetAndMph:
      return figure(UnitConverter::metersToMiles(metres), 2, "mi");
    case KvPreferences::kUnitModeFeetAndKnots:
      return figure(UnitConverter::metersToNauticalMiles(metres), 2, "nmi");
    default:
      return figure(kilometres, 2, "km");
  }
}

std::string Units::shortLength(double kilometres) const {
  // Short lengths read like elevations: whole metres or feet.
  return elevation(kilometres * 1000.0);
}

std::string Units::elevation(double metres) const {
  switch (mode_) {
    case KvPreferences::kUnitModeFeetAndMph:
    case KvPreferences::kUnitModeFeetAndKnots:
      return figure(UnitConverter::metersToFeet(metres), 0, "ft");
    default:
      return figure(metres, 0, "m");
  }
}

std::string Units::speed(double kilometresPerHour) const {
  // A speed is a length per hour, so the length conversions apply.
  const double metresPerHour = kilometresPerHour * 1000.0;
  switch (mode_) {
    case KvPreferences::kUnitModeFeetAndMph:
      return figure(UnitConverter::metersToMiles(metresPerHour), 1, "mph");
    case KvPreferences::kUnitModeFeetAndKnots:
      return figure(UnitConverter::metersToNauticalMiles(metresPerHour), 1, "kn");
    default:
      return figure(kilometresPerHour, 1, "km/h");
  }
}

}  // namespace wayfolio
