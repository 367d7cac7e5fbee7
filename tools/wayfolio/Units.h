#pragma once
// Figures as text in the units the user chose (KvPreferences::unitMode):
// miles, feet and mph; nautical miles, feet and knots; or kilometres,
// metres and km/h. The library keeps kilometres, metres and km/h.
// Figures that are not numbers show as "-".

#include <string>

namespace wayfolio {

class Units {
 public:
  /// The user's choice from the settings file.
  static Units fromPreferences();
  explicit Units(int mode) : mode_(mode) {}

  /// Track lengths: "12.34 km", "7.67 mi", "6.66 nmi".
  std::string length(double kilometres) const;
  /// Short distances such as the leg between two points: "152 m", "499 ft".
  std::string shortLength(double kilometres) const;
  std::string elevation(double metres) const;
  std::string speed(double kilometresPerHour) const;

 private:
  int mode_;
};

}  // namespace wayfolio
