#include "kvtrack/support/KvPreferences.h"

#include <algorithm>
#include <limits>

namespace kvtrack {

namespace {
constexpr std::string_view kTable = "preferences";
}  // namespace

KvPreferences& KvPreferences::singleton() {
  static KvPreferences* instance = new KvPreferences(SettingsFile::shared());
  return *instance;
}

KvPreferences::KvPreferences(SettingsFile& settings) : settings_(settings) {}

bool KvPreferences::load(const std::string& path) { return settings_.load(path); }

bool KvPreferences::save() { return settings_.save(); }

std::string KvPreferences::settingsPath() const { return settings_.path(); }

void KvPreferences::reset() {
  settings_.clearTable(kTable);
  setICloudSynchronizer(nullptr);
}

// A number that does not fit an int is as good as no number.
std::optional<int> KvPreferences::integer(std::string_view key) const {
  std::optional<int64_t> value = settings_.integer(kTable, key);
  if (!value || *value < std::numeric_limits<int>::min() ||
      *value > std::numeric_limits<int>::max()) {
    return std::nullopt;
  }
  return static_cast<int>(*value);
}

void KvPreferences::store(std::string_view key, std::optional<int> value) {
  if (value) {
    settings_.setInteger(kTable, key, *value);
  } else {
    settings_.erase(kTable, key);
  }
}

std::optional<bool> KvPreferences::boolean(std::string_view key) const {
  return settings_.boolean(kTable, key);
}

void KvPreferences::store(std::string_view key, std::optional<bool> value) {
  if (value) {
    settings_.setBoolean(kTable, key, *value);
  } else {
    settings_.erase(kTable, key);
  }
}

std::optional<std::string> KvPreferences::string(std::string_view key) const {
  return settings_.string(kTable, key);
}

void KvPreferences::store(std::string_view key, const std::optional<std::string>& value) {
  if (value) {
    settings_.setString(kTable, key, *value);
  } else {
    settings_.erase(kTable, key);
  }
}

// The key in the file is the getter's name.
#define KVTRACK_PREFERENCE(Type, getter, setter, kind)                        \
  std::optional<Type> KvPreferences::getter() const { return kind(#getter); } \
  void KvPreferences::setter(std::optional<Type> value) {                      \
    store(#getter, value);                                                     \
  }

KVTRACK_PREFERENCE(int, minIntervalSpeedCalculation, setMinIntervalSpeedCalculation, integer)
KVTRACK_PREFERENCE(int, unitMode, setUnitMode, integer)
KVTRACK_PREFERENCE(int, timeZoneInMinutes, setTimeZoneInMinutes, integer)
KVTRACK_PREFERENCE(bool, kmlExportIncludePhotos, setKmlExportIncludePhotos, boolean)
KVTRACK_PREFERENCE(int, kmlExportMaxWidth, setKmlExportMaxWidth, integer)
KVTRACK_PREFERENCE(int, kmlExportMaxHeight, setKmlExportMaxHeight, integer)
KVTRACK_PREFERENCE(int, rawFileMode, setRawFileMode, integer)
KVTRACK_PREFERENCE(bool, iCloudSupported, setICloudSupported, boolean)
KVTRACK_PREFERENCE(std::string, syncFolder, setSyncFolder, string)
KVTRACK_PREFERENCE(std::string, device, setDevice, string)
KVTRACK_PREFERENCE(std::string, deviceType, setDeviceType, string)
KVTRACK_PREFERENCE(std::string, additionalArguments, setAdditionalArguments, string)
KVTRACK_PREFERENCE(std::string, gpsFileFormat, setGpsFileFormat, string)
KVTRACK_PREFERENCE(std::string, gpsFileAdditionalArguments, setGpsFileAdditionalArguments,
                   string)
KVTRACK_PREFERENCE(std::string, exiftoolPath, setExiftoolPath, string)
KVTRACK_PREFERENCE(std::string, gpsbabelPath, setGpsbabelPath, string)

#undef KVTRACK_PREFERENCE

std::optional<int> KvPreferences::kmlExportJPEGQuality() const {
  std::optional<int> value = integer("kmlExportJPEGQuality");
  if (value && (*value < 0 || *value > 10)) return std::nullopt;
  return value;
}

void KvPreferences::setKmlExportJPEGQuality(std::optional<int> value) {
  if (value) value = std::clamp(*value, 0, 10);
  store("kmlExportJPEGQuality", value);
}

std::shared_ptr<ICloudSynchronizer> KvPreferences::iCloudSynchronizer() const {
  std::lock_guard lock(synchronizerMutex_);
  return synchronizer_;
}

void KvPreferences::setICloudSynchronizer(std::shared_ptr<ICloudSynchronizer> synchronizer) {
  std::lock_guard lock(synchronizerMutex_);
  synchronizer_ = std::move(synchronizer);
}

}  // namespace kvtrack
