#pragma once
// UserDefaults: small remembered values (last user name, import options) in
// table "defaults" of the same settings file as KvPreferences. Changes stay
// in memory until save().

#include "kvtrack/support/SettingsFile.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace kvtrack {

class UserDefaults {
 public:
  static constexpr std::string_view kIgnoreTrackIdDuringImport = "IgnoreTrackIdDuringImport";
  static constexpr std::string_view kGeocachingComUserName = "GeocachingComUserName";
  static constexpr std::string_view kGeoNamesLocale = "GeoNamesLocale";

  /// The process-wide defaults on SettingsFile::shared().
  static UserDefaults& singleton();

  /// Defaults on another settings file, which must outlive them.
  explicit UserDefaults(SettingsFile& settings);

  /// Absent when the key is missing or holds another type.
  std::optional<bool> boolForKey(std::string_view key) const;
  std::optional<std::string> stringForKey(std::string_view key) const;
  std::optional<int64_t> integerForKey(std::string_view key) const;

  void setBoolForKey(std::string_view key, bool value);
  /// False (logged) for text that is not valid UTF-8.
  bool setStringForKey(std::string_view key, std::string_view value);
  void setIntegerForKey(std::string_view key, int64_t value);
  void removeObjectForKey(std::string_view key);

  bool save();
  /// Forgets every default in memory.
  void reset();

 private:
  SettingsFile& settings_;
};

}  // namespace kvtrack
