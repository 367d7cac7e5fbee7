#include "kvtrack/support/UserDefaults.h"

namespace kvtrack {

namespace {
constexpr std::string_view kTable = "defaults";
}  // namespace

UserDefaults& UserDefaults::singleton() {
  static UserDefaults* instance = new UserDefaults(SettingsFile::shared());
  return *instance;
}

UserDefaults::UserDefaults(SettingsFile& settings) : settings_(settings) {}

std::optional<bool> UserDefaults::boolForKey(std::string_view key) const {
  return settings_.boolean(kTable, key);
}

std::optional<std::string> UserDefaults::stringForKey(std::string_view key) const {
  return settings_.string(kTable, key);
}

std::optional<int64_t> UserDefaults::integerForKey(std::string_view key) const {
  return settings_.integer(kTable, key);
}

void UserDefaults::setBoolForKey(std::string_view key, bool value) {
  settings_.setBoolean(kTable, key, value);
}

bool UserDefaults::setStringForKey(std::string_view key, std::string_view value) {
  return settings_.setString(kTable, key, value);
}

void UserDefaults::setIntegerForKey(std::string_view key, int64_t value) {
  settings_.setInteger(kTable, key, value);
}

void UserDefaults::removeObjectForKey(std::string_view key) { settings_.erase(kTable, key); }

bool UserDefaults::save() { return settings_.save(); }

void UserDefaults::reset() { settings_.clearTable(kTable); }

}  // namespace kvtrack
