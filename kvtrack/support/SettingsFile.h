#pragma once
// SettingsFile: the one TOML settings file, as tables of typed values.
// KvPreferences and UserDefaults are views on tables of the shared instance.
// Reading never fails hard: a missing file is empty settings, a broken one is
// logged and treated as empty. Changes stay in memory until save().

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace kvtrack {

class SettingsFile {
 public:
  /// The process-wide file, loaded from defaultPath() on first use.
  static SettingsFile& shared();

  /// $WAYFOLIO_SETTINGS, else $XDG_CONFIG_HOME/wayfolio/settings.toml,
  /// else $HOME/.config/wayfolio/settings.toml.
  static std::string defaultPath();

  /// Empty settings without a path (tests, or before load()).
  SettingsFile();
  ~SettingsFile();
  SettingsFile(const SettingsFile&) = delete;
  SettingsFile& operator=(const SettingsFile&) = delete;

  /// Replaces the values with those of the file and remembers the path for
  /// save(). False (logged) when the file exists but cannot be read or
  /// parsed; the settings are empty then. A missing file is not an error.
  bool load(const std::string& path);

  /// Writes all values to path() through a temporary file and a rename, so
  /// readers never see half a file. False (logged) on failure.
  bool save();

  std::string path() const;

  /// Drops every value, or those of one table, in memory.
  void clear();
  void clearTable(std::string_view table);

  /// Absent when the key is missing or holds another type. integer() takes
  /// whole floating-point numbers too, number() takes integers.
  std::optional<int64_t> integer(std::string_view table, std::string_view key) const;
  std::optional<double> number(std::string_view table, std::string_view key) const;
  std::optional<bool> boolean(std::string_view table, std::string_view key) const;
  std::optional<std::string> string(std::string_view table, std::string_view key) const;

  void setInteger(std::string_view table, std::string_view key, int64_t value);
  void setNumber(std::string_view table, std::string_view key, double value);
  void setBoolean(std::string_view table, std::string_view key, bool value);
  /// TOML holds only UTF-8 text: other bytes are refused (logged, false).
  bool setString(std::string_view table, std::string_view key, std::string_view value);
  void erase(std::string_view table, std::string_view key);

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace kvtrack
