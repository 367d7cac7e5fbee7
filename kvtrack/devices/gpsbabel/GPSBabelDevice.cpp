// GPSBabel: downloading from and erasing a GPS logger.

#include "kvtrack/devices/gpsbabel/GPSBabel.h"

#include "kvtrack/formats/gpx/GpxExportConfiguration.h"
#include "kvtrack/formats/gpx/TrackGPX.h"
#include "kvtrack/support/ExternalProgram.h"
#include "kvtrack/support/FileHandling.h"
#include "kvtrack/support/KvPreferences.h"
#include "kvtrack/support/Log.h"

#include <cstdint>
#include <filesystem>
#include <string_view>
#include <system_error>

namespace kvtrack {

namespace fs = std::filesystem;

namespace {

constexpr std::string_view kDeleteMarker = "!DEL!";

// Helpers that write less than this have certainly failed.
constexpr uintmax_t kSmallestUsefulOutput = 10;

std::string shellWord(const std::string& path) { return FileHandling::filenameForShell(path); }

}  // namespace

std::optional<GPSBabel::Settings> GPSBabel::prepareDevice() {
  const Settings current = settings();
  if (!current.device || !current.deviceType || !current.options) return std::nullopt;
  for (const std::string& prefix : FileHandling::singleton().calloutPrefixes()) {
    correctDeviceNameWithDynamicPrefix(prefix);
  }
  return settings();
}

int32_t GPSBabel::importTracksAndWaypointToFile(const std::string& gpxPath) {
  const std::optional<Settings> current = prepareDevice();
  if (!current) {
    logLine("importTracksAndWaypointToFile: device, device type or options not set");
    return -1;
  }
  // A file left from an earlier download must not pass for a result.
  std::error_code ignored;
  fs::remove(gpxPath, ignored);

  const std::string& type = *current->deviceType;
  if (type.starts_with('*')) return downloadWithDriver(type, gpxPath);
  if (type.starts_with('!')) return downloadWithTemplate(type, gpxPath);
  return downloadWithGpsbabel(*current, gpxPath);
}

int32_t GPSBabel::downloadWithDriver(const std::string& type, const std::string& gpxPath) {
  if (type.size() < 2) return 1;
  const std::shared_ptr<GpsDriver> driver = driverNamed(type.substr(1));
  if (!driver) {
    logf("importTracksAndWaypointToFile: no built-in driver {}", type.substr(1));
    return 1;
  }
  std::optional<std::vector<TrackPtr>> tracks = driver->importTracksFromDevice(devicePath(), {});
  if (tracks) std::erase(*tracks, nullptr);
  if (!tracks || tracks->empty()) {
    logf("importTracksAndWaypointToFile: {} read no tracks", type.substr(1));
    return 1;
  }
  // The file is read back like any foreign GPX, so our extensions are useless.
  GpxExportConfiguration configuration;
  configuration.setExportWayfolioExtensions(false);
  TrackGPX writer(tracks->front());
  return writer.exportTo(gpxPath, *tracks, configuration) ? 0 : 1;
}

int32_t GPSBabel::downloadWithTemplate(const std::string& type, const std::string& gpxPath) {
  if (type.size() < 2) return 1;
  const size_t erase = type.find(kDeleteMarker, 1);
  const std::string command =
      replaceTemplates(type.substr(1, erase == std::string::npos ? std::string::npos : erase - 1),
                       std::nullopt, gpxPath);
  logf("importTracksAndWaypointToFile: {}", command);
  const int status = runShellCommand(command);
  logf("importTracksAndWaypointToFile: EXIT with error code {}", status);
  // Helpers often exit 0 without having read anything; the file tells.
  std::error_code error;
  const uintmax_t size = fs::file_size(gpxPath, error);
  if (error) return -1;
  if (size < kSmallestUsefulOutput) return -2;
  return status;
}

int32_t GPSBabel::downloadWithGpsbabel(const Settings& current, const std::string& gpxPath) {
  const auto [executable, format] = executableAndFormat(*current.deviceType);
  const std::optional<std::string> temporary = temporaryFolder();
  if (!temporary) {
    logLine("importTracksAndWaypointToFile: TMPDIR is not set");
    return 2;
  }
  const std::string arguments = getAdditionalArguments();
  const std::string device = FileHandling::stringForShell(devicePath());
  std::string command;
  // Options starting with "," belong to the input format ("-i mtk,erase").
  if (arguments.starts_with(',')) {
    command = fmt::format("cd {}; {} -t -w -i {}{} -f \"{}\" {} -o gpx -F {}",
                          shellWord(*temporary), shellWord(executable), format, arguments, device,
                          getFilterCommand(), shellWord(gpxPath));
  } else {
    command = fmt::format("cd {}; {} -t -w -i {} -f \"{}\" {} -o gpx -F {} {}",
                          shellWord(*temporary), shellWord(executable), format, device,
                          getFilterCommand(), shellWord(gpxPath), arguments);
  }
  logf("importTracksAndWaypointToFile: {}", command);
  const int status = runShellCommand(command);
  logf("importTracksAndWaypointToFile: exit with error code {}", status);
  return status;
}

int32_t GPSBabel::deleteTracksAndWaypointToFile(const std::string& gpxPath) {
  const std::optional<Settings> current = prepareDevice();
  if (!current) {
    logLine("deleteTracksAndWaypointToFile: device, device type or options not set");
    return -1;
  }
  const std::string& type = *current->deviceType;
  if (type.starts_with('*')) {
    if (type.size() < 2) return 1;
    const std::shared_ptr<GpsDriver> driver = driverNamed(type.substr(1));
    if (!driver) {
      logf("deleteTracksAndWaypointToFile: no built-in driver {}", type.substr(1));
      return 1;
    }
    return driver->deleteTracksFromDevice(devicePath(), {}) ? 0 : 1;
  }
  if (type.starts_with('!')) return eraseWithTemplate(type, gpxPath);
  return eraseWithGpsbabel(type, gpxPath);
}

int32_t GPSBabel::eraseWithTemplate(const std::string& type, const std::string& gpxPath) {
  const size_t marker = type.find(kDeleteMarker);
  if (type.size() < 2 || marker == std::string::npos) return 1;
  Replacements replacements{{"$APP_BUNDLE", applicationResourceFolder()}};
  const std::optional<std::string> temporary = temporaryFolder();
  if (!temporary) {
    logLine("deleteTracksAndWaypointToFile: TMPDIR is not set");
    return 2;
  }
  replacements.emplace_back("$TMPDIR", shellWord(*temporary));
  replacements.emplace_back("$DEVICE", shellWord(devicePath()));
  replacements.emplace_back("$GPX_NO_EXT",
                            shellWord(fs::path(gpxPath).replace_extension().string()));
  replacements.emplace_back("$GPX", shellWord(gpxPath));
  const std::string command =
      expandPlaceholders(type.substr(marker + kDeleteMarker.size()), replacements);
  logf("deleteTracksAndWaypointToFile: {}", command);
  const int status = runShellCommand(command);
  // Same wording as the download, so log filters catch both.
  logf("importTracksAndWaypointToFile: exit with error code {}", status);
  return status;
}

int32_t GPSBabel::eraseWithGpsbabel(const std::string& type, const std::string& gpxPath) {
  const auto [executable, format] = executableAndFormat(type);
  // Only these loggers have an erase option in gpsbabel.
  const bool canErase = format.starts_with("wbt") || format.starts_with("mtk") ||
                        format.starts_with("skytraq") || format.starts_with("m241");
  if (!canErase) {
    logf("deleteTracksAndWaypointToFile: gpsbabel cannot erase loggers of format {}", format);
    return 254;
  }
  const std::optional<std::string> temporary = temporaryFolder();
  if (!temporary) {
    logLine("deleteTracksAndWaypointToFile: TMPDIR is not set");
    return 2;
  }
  // The skytraq reader would download everything before erasing.
  const char* erase = format == "skytraq" ? "erase,no-output" : "erase";
  const std::string command =
      fmt::format("cd {}; {} -t -w -i {},{}{} -f \"{}\" -o gpx -F {}", shellWord(*temporary),
                  shellWord(executable), format, erase,
                  KvPreferences::singleton().additionalArguments().value_or(""),
                  FileHandling::stringForShell(devicePath()), shellWord(gpxPath));
  logf("deleteTracksAndWaypointToFile: {}", command);
  const int status = runShellCommand(command);
  logf("deleteTracksAndWaypointToFile: exit with error code {}", status);
  return status;
}

}  // namespace kvtrack
