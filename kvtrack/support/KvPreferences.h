#pragma once
// KvPreferences: the user's choices, kept in table "preferences" of the
// settings file. Every getter is absent when nothing was chosen; callers
// apply their defaults. Setters change memory only; save() writes the file.
// Setting nullopt removes the choice.

#include "kvtrack/support/SettingsFile.h"

#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

namespace kvtrack {

// Defined by the synchronisation code; the host hands one in at start-up.
class ICloudSynchronizer;

class KvPreferences {
 public:
  static constexpr int kDefaultMinIntervalSpeedCalculation = 1;

  /// Values of unitMode(); any other number means metres and km/h.
  static constexpr int kUnitModeMetric = 0;
  static constexpr int kUnitModeFeetAndMph = 1;
  static constexpr int kUnitModeFeetAndKnots = 2;

  /// The process-wide preferences on SettingsFile::shared().
  static KvPreferences& singleton();

  /// Preferences on another settings file, which must outlive them.
  explicit KvPreferences(SettingsFile& settings);

  /// Loads another settings file (also seen by UserDefaults on the same file).
  bool load(const std::string& path);
  bool save();
  std::string settingsPath() const;
  /// Forgets every preference in memory and the synchronizer.
  void reset();

  /// Seconds between points used for speeds.
  std::optional<int> minIntervalSpeedCalculation() const;
  void setMinIntervalSpeedCalculation(std::optional<int> value);
  std::optional<int> unitMode() const;
  void setUnitMode(std::optional<int> value);
  /// Offset from UTC for showing times, in minutes.
  std::optional<int> timeZoneInMinutes() const;
  void setTimeZoneInMinutes(std::optional<int> value);

  std::optional<bool> kmlExportIncludePhotos() const;
  void setKmlExportIncludePhotos(std::optional<bool> value);
  std::optional<int> kmlExportMaxWidth() const;
  void setKmlExportMaxWidth(std::optional<int> value);
  std::optional<int> kmlExportMaxHeight() const;
  void setKmlExportMaxHeight(std::optional<int> value);
  /// 0..10; other stored values count as unset, the setter clamps.
  std::optional<int> kmlExportJPEGQuality() const;
  void setKmlExportJPEGQuality(std::optional<int> value);

  std::optional<int> rawFileMode() const;
  void setRawFileMode(std::optional<int> value);
  std::optional<bool> iCloudSupported() const;
  void setICloudSupported(std::optional<bool> value);
  /// The folder the host mirrors the library into (its synchronizer).
  std::optional<std::string> syncFolder() const;
  void setSyncFolder(std::optional<std::string> value);

  std::optional<std::string> device() const;
  void setDevice(std::optional<std::string> value);
  std::optional<std::string> deviceType() const;
  void setDeviceType(std::optional<std::string> value);
  std::optional<std::string> additionalArguments() const;
  void setAdditionalArguments(std::optional<std::string> value);
  std::optional<std::string> gpsFileFormat() const;
  void setGpsFileFormat(std::optional<std::string> value);
  std::optional<std::string> gpsFileAdditionalArguments() const;
  void setGpsFileAdditionalArguments(std::optional<std::string> value);

  /// Programs are looked up on PATH unless these name another path.
  std::optional<std::string> exiftoolPath() const;
  void setExiftoolPath(std::optional<std::string> value);
  std::optional<std::string> gpsbabelPath() const;
  void setGpsbabelPath(std::optional<std::string> value);

  /// Not stored in the file: the host sets it while running.
  std::shared_ptr<ICloudSynchronizer> iCloudSynchronizer() const;
  void setICloudSynchronizer(std::shared_ptr<ICloudSynchronizer> synchronizer);

 private:
  std::optional<int> integer(std::string_view key) const;
  void store(std::string_view key, std::optional<int> value);
  std::optional<bool> boolean(std::string_view key) const;
  void store(std::string_view key, std::optional<bool> value);
  std::optional<std::string> string(std::string_view key) const;
  void store(std::string_view key, const std::optional<std::string>& value);

  SettingsFile& settings_;
  mutable std::mutex synchronizerMutex_;
  std::shared_ptr<ICloudSynchronizer> synchronizer_;
};

}  // namespace kvtrack
