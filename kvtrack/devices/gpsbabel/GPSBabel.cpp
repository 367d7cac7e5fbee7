// GPSBabel: settings, placeholder expansion and device-name repair.

#include "kvtrack/devices/gpsbabel/GPSBabel.h"

#include "kvtrack/devices/bg728/BG728.h"
#include "kvtrack/devices/gns2000/GNS2000.h"
#include "kvtrack/devices/gt800/IGotUGT800.h"
#include "kvtrack/devices/igotu/IGotU.h"

#include "kvtrack/support/FileHandling.h"
#include "kvtrack/support/KvPreferences.h"
#include "kvtrack/support/Log.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <string_view>
#include <system_error>

namespace kvtrack {

namespace fs = std::filesystem;

namespace {

constexpr std::string_view kFilterMarker = "!FILTER!";
constexpr std::string_view kDeleteMarker = "!DEL!";

}  // namespace

GPSBabel& GPSBabel::singleton() {
  // Never destroyed: a download may still run on another thread at exit.
  static GPSBabel* instance = [] {
    auto* created = new GPSBabel();
    KvPreferences& preferences = KvPreferences::singleton();
    if (auto value = preferences.device()) created->device_ = std::move(value);
    if (auto value = preferences.deviceType()) created->deviceType_ = std::move(value);
    if (auto value = preferences.additionalArguments()) {
      created->additionalCommandlineOptions_ = std::move(value);
    }
    // The built-in logger drivers, filed under their names.
    created->registerDriver(std::make_shared<IGotU>());
    created->registerDriver(std::make_shared<IGotUGT800>());
    created->registerDriver(std::make_shared<BG728>());
    created->registerDriver(std::make_shared<GNS2000>());
    return created;
  }();
  return *instance;
}

GPSBabel::GPSBabel() { buildFileFormats(); }

std::optional<std::string> GPSBabel::device() const {
  std::lock_guard lock(mutex_);
  return device_;
}

void GPSBabel::setDevice(std::optional<std::string> value) {
  std::lock_guard lock(mutex_);
  device_ = std::move(value);
}

std::optional<std::string> GPSBabel::deviceType() const {
  std::lock_guard lock(mutex_);
  return deviceType_;
}

void GPSBabel::setDeviceType(std::optional<std::string> value) {
  std::lock_guard lock(mutex_);
  deviceType_ = std::move(value);
}

std::optional<std::string> GPSBabel::additionalCommandlineOptions() const {
  std::lock_guard lock(mutex_);
  return additionalCommandlineOptions_;
}

void GPSBabel::setAdditionalCommandlineOptions(std::optional<std::string> value) {
  std::lock_guard lock(mutex_);
  additionalCommandlineOptions_ = std::move(value);
}

void GPSBabel::registerDriver(std::shared_ptr<GpsDriver> driver) {
  if (!driver) return;
  std::string name = driver->name();
  std::lock_guard lock(mutex_);
  internalDrivers_[std::move(name)] = std::move(driver);
}

std::shared_ptr<GpsDriver> GPSBabel::driverNamed(const std::string& name) const {
  std::lock_guard lock(mutex_);
  auto found = internalDrivers_.find(name);
  return found == internalDrivers_.end() ? nullptr : found->second;
}

std::vector<std::string> GPSBabel::driverNames() const {
  std::lock_guard lock(mutex_);
  std::vector<std::string> names;
  for (const auto& [name, driver] : internalDrivers_) names.push_back(name);
  return names;
}

GPSBabel::Settings GPSBabel::settings() const {
  std::lock_guard lock(mutex_);
  return {device_, deviceType_, additionalCommandlineOptions_};
}

std::string GPSBabel::getAdditionalArguments() const {
  const std::string options = additionalCommandlineOptions().value_or("");
  return options.substr(0, options.find(kFilterMarker));
}

std::string GPSBabel::getFilterCommand() const {
  const std::string options = additionalCommandlineOptions().value_or("");
  const size_t marker = options.find(kFilterMarker);
  return marker == std::string::npos ? std::string()
                                     : options.substr(marker + kFilterMarker.size());
}

std::optional<std::string> GPSBabel::getDeleteCommand() const {
  const std::string type = deviceType().value_or("");
  const size_t marker = type.find(kDeleteMarker);
  if (marker == std::string::npos) return std::nullopt;
  return type.substr(marker + kDeleteMarker.size());
}

std::string GPSBabel::devicePath() const {
  std::string folder = FileHandling::singleton().deviceFolder();
  if (!folder.empty() && folder.back() != '/') folder += '/';
  return folder + device().value_or("");
}

std::optional<std::string> GPSBabel::temporaryFolder() {
  const char* value = std::getenv("TMPDIR");
  if (!value || !*value) return std::nullopt;
  return std::string(value);
}

std::string GPSBabel::expandPlaceholders(const std::string& text,
                                         const Replacements& replacements) {
  std::string result;
  result.reserve(text.size());
  for (size_t i = 0; i < text.size();) {
    const auto match = std::find_if(replacements.begin(), replacements.end(), [&](const auto& r) {
      return std::string_view(text).substr(i).starts_with(r.first);
    });
    if (match == replacements.end()) {
      result += text[i++];
    } else {
      result += match->second;
      i += match->first.size();
    }
  }
  return result;
}

std::string GPSBabel::replaceTemplates(const std::string& text,
                                       const std::optional<std::string>& inputFile,
                                       const std::optional<std::string>& gpxFile) const {
  const std::string bundle = applicationFolder();
  Replacements replacements{{"$APP_BUNDLE", bundle + "/Contents/Resources"}, {"$BUNDLE", bundle}};
  if (const auto temporary = temporaryFolder()) {
    replacements.emplace_back("$TMPDIR", FileHandling::filenameForShell(*temporary));
    replacements.emplace_back("$DEVICE", FileHandling::filenameForShell(devicePath()));
    if (gpxFile) {
      const std::string withoutExtension = fs::path(*gpxFile).replace_extension().string();
      replacements.emplace_back("$GPX_NO_EXT", FileHandling::filenameForShell(withoutExtension));
      replacements.emplace_back("$GPX", FileHandling::filenameForShell(*gpxFile));
    }
    if (inputFile)
      replacements.emplace_back("$INPUTFILE", FileHandling::filenameForShell(*inputFile));
  }
  return expandPlaceholders(text, replacements);
}

void GPSBabel::correctDeviceNameWithDynamicPrefix(const std::string& prefix) {
  const std::optional<std::string> current = device();
  if (!current || current->empty() || !current->starts_with(prefix)) return;
  const std::string path = devicePath();
  std::error_code error;
  if (fs::exists(path, error)) return;

  std::vector<std::string> names;
  const fs::path folder(FileHandling::singleton().deviceFolder());
  for (fs::directory_iterator it(folder, error), end; !error && it != end; it.increment(error)) {
    names.push_back(it->path().filename().string());
  }
  if (error) logf("correctedDeviceName: cannot list {}: {}", folder.string(), error.message());
  // Sorted, so the last match is the same on every run.
  std::sort(names.begin(), names.end());
  for (const std::string& name : names) {
    if (!name.starts_with(prefix)) continue;
    setDevice(name);
    logf("correctedDeviceName: {}", name);
  }
}

std::string GPSBabel::applicationFolder() {
  std::error_code error;
  const fs::path program = fs::read_symlink("/proc/self/exe", error);
  if (error) {
    logf("GPSBabel: cannot find the program's folder: {}", error.message());
    return ".";
  }
  return program.parent_path().string();
}

std::string GPSBabel::applicationResourceFolder() {
  const std::string program = applicationFolder();
  const std::string shared = program + "/../share/wayfolio";
  std::error_code error;
  return fs::is_directory(shared, error) ? shared : program;
}

std::string GPSBabel::gpsbabelExecutable() {
  std::optional<std::string> path = KvPreferences::singleton().gpsbabelPath();
  return path && !path->empty() ? *path : std::string("gpsbabel");
}

std::pair<std::string, std::string> GPSBabel::executableAndFormat(const std::string& format) {
  const size_t hash = format.find('#');
  if (hash == std::string::npos) return {gpsbabelExecutable(), format};
  return {gpsbabelExecutable() + format.substr(hash + 1), format.substr(0, hash)};
}

}  // namespace kvtrack
