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

TransferStatus failed(int32_t code, std::string reason) { return {code, std::move(reason)}; }

// Runs the transfer's command line; its complaints are logged and the
// first becomes the reason when it fails.
TransferStatus runTransfer(const std::string& prefix, const std::string& what, const std::string& command) {
  logf("{}: {}", prefix, command);
  const ShellOutput result = runShellCommandReadingErrors(command);
  std::string complaint;
  std::string_view errors = result.errors;
  while (!errors.empty()) {
    const size_t end = errors.find('\n');
    std::string line(errors.substr(0, end));
    line.erase(0, line.find_first_not_of(" \t\r"));
    line.erase(line.find_last_not_of(" \t\r") + 1);
    if (!line.empty()) logf("{}: {}", prefix, line);
    if (complaint.empty()) complaint = line;
    errors = end == std::string_view::npos ? std::string_view() : errors.substr(end + 1);
  }
  if (result.status == 0) return {};
  if (result.status == 127) return failed(127, what + " is not installed or not on the PATH");
  return failed(result.status, complaint.empty() ? what + " gave no message" : what + ": " + complaint);
}

}  // namespace

std::optional<GPSBabel::Settings> GPSBabel::prepareDevice() {
  const Settings current = settings();
  if (!current.device || !current.deviceType || !current.options) return std::nullopt;
  for (const std::string& prefix : FileHandling::singleton().calloutPrefixes()) {
    correctDeviceNameWithDynamicPrefix(prefix);
  }
  return settings();
}

TransferStatus GPSBabel::importTracksAndWaypointToFile(const std::string& gpxPath) {
  const std::optional<Settings> current = prepareDevice();
  if (!current) {
    logLine("importTracksAndWaypointToFile: device, device type or options not set");
    return failed(-1, "no device, device type or options are set");
  }
  // A file left from an earlier download must not pass for a result.
  std::error_code ignored;
  fs::remove(gpxPath, ignored);

  const std::string& type = *current->deviceType;
  if (type.starts_with('*')) return downloadWithDriver(type, gpxPath);
  if (type.starts_with('!')) return downloadWithTemplate(type, gpxPath);
  return downloadWithGpsbabel(*current, gpxPath);
}

TransferStatus GPSBabel::downloadWithDriver(const std::string& type, const std::string& gpxPath) {
  if (type.size() < 2) return failed(1, "no driver is named");
  const std::shared_ptr<GpsDriver> driver = driverNamed(type.substr(1));
  if (!driver) {
    logf("importTracksAndWaypointToFile: no built-in driver {}", type.substr(1));
    return failed(1, "there is no built-in driver " + type.substr(1));
  }
  std::optional<std::vector<TrackPtr>> tracks = driver->importTracksFromDevice(devicePath(), {});
  if (tracks) std::erase(*tracks, nullptr);
  if (!tracks || tracks->empty()) {
    logf("importTracksAndWaypointToFile: {} read no tracks", type.substr(1));
    return failed(1, fmt::format("the {} driver read no tracks", type.substr(1)));
  }
  // The file is read back like any foreign GPX, so our extensions are useless.
  GpxExportConfiguration configuration;
  configuration.setExportWayfolioExtensions(false);
  TrackGPX writer(tracks->front());
  const Status written = writer.exportTo(gpxPath, *tracks, configuration);
  return written ? TransferStatus{} : failed(1, written.reason());
}

TransferStatus GPSBabel::downloadWithTemplate(const std::string& type, const std::string& gpxPath) {
  if (type.size() < 2) return failed(1, "the helper command is empty");
  const size_t erase = type.find(kDeleteMarker, 1);
  const std::string command =
      replaceTemplates(type.substr(1, erase == std::string::npos ? std::string::npos : erase - 1),
                       std::nullopt, gpxPath);
  TransferStatus status = runTransfer("importTracksAndWaypointToFile", "the helper", command);
  logf("importTracksAndWaypointToFile: EXIT with error code {}", status.code);
  // Helpers often exit 0 without having read anything; the file tells.
  std::error_code error;
  const uintmax_t size = fs::file_size(gpxPath, error);
  if (error) return failed(-1, status ? "the helper wrote no file" : status.reason + " (and wrote no file)");
  if (size < kSmallestUsefulOutput) return failed(-2, fmt::format("the helper wrote only {} bytes", size));
  return status;
}

TransferStatus GPSBabel::downloadWithGpsbabel(const Settings& current, const std::string& gpxPath) {
  const auto [executable, format] = executableAndFormat(*current.deviceType);
  const std::optional<std::string> temporary = temporaryFolder();
  if (!temporary) {
    logLine("importTracksAndWaypointToFile: TMPDIR is not set");
    return failed(2, "there is no temporary folder (TMPDIR)");
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
  TransferStatus status = runTransfer("importTracksAndWaypointToFile", "gpsbabel", command);
  logf("importTracksAndWaypointToFile: exit with error code {}", status.code);
  return status;
}

TransferStatus GPSBabel::deleteTracksAndWaypointToFile(const std::string& gpxPath) {
  const std::optional<Settings> current = prepareDevice();
  if (!current) {
    logLine("deleteTracksAndWaypointToFile: device, device type or options not set");
    return failed(-1, "no device, device type or options are set");
  }
  const std::string& type = *current->deviceType;
  if (type.starts_with('*')) {
    if (type.size() < 2) return failed(1, "no driver is named");
    const std::shared_ptr<GpsDriver> driver = driverNamed(type.substr(1));
    if (!driver) {
      logf("deleteTracksAndWaypointToFile: no built-in driver {}", type.substr(1));
      return failed(1, "there is no built-in driver " + type.substr(1));
    }
    if (driver->deleteTracksFromDevice(devicePath(), {})) return {};
    return failed(1, fmt::format("the {} driver could not erase the logger", type.substr(1)));
  }
  if (type.starts_with('!')) return eraseWithTemplate(type, gpxPath);
  return eraseWithGpsbabel(type, gpxPath);
}

TransferStatus GPSBabel::eraseWithTemplate(const std::string& type, const std::string& gpxPath) {
  const size_t marker = type.find(kDeleteMarker);
  if (type.size() < 2 || marker == std::string::npos) return failed(1, "the helper has no erase command");
  Replacements replacements{{"$APP_BUNDLE", applicationResourceFolder()}};
  const std::optional<std::string> temporary = temporaryFolder();
  if (!temporary) {
    logLine("deleteTracksAndWaypointToFile: TMPDIR is not set");
    return failed(2, "there is no temporary folder (TMPDIR)");
  }
  replacements.emplace_back("$TMPDIR", shellWord(*temporary));
  replacements.emplace_back("$DEVICE", shellWord(devicePath()));
  replacements.emplace_back("$GPX_NO_EXT",
                            shellWord(fs::path(gpxPath).replace_extension().string()));
  replacements.emplace_back("$GPX", shellWord(gpxPath));
  const std::string command =
      expandPlaceholders(type.substr(marker + kDeleteMarker.size()), replacements);
  TransferStatus status = runTransfer("deleteTracksAndWaypointToFile", "the helper", command);
  // Same wording as the download, so log filters catch both.
  logf("importTracksAndWaypointToFile: exit with error code {}", status.code);
  return status;
}

TransferStatus GPSBabel::eraseWithGpsbabel(const std::string& type, const std::string& gpxPath) {
  const auto [executable, format] = executableAndFormat(type);
  // Only these loggers have an erase option in gpsbabel.
  const bool canErase = format.starts_with("wbt") || format.starts_with("mtk") ||
                        format.starts_with("skytraq") || format.starts_with("m241");
  if (!canErase) {
    logf("deleteTracksAndWaypointToFile: gpsbabel cannot erase loggers of format {}", format);
    return failed(254, fmt::format("gpsbabel cannot erase loggers of format {}", format));
  }
  const std::optional<std::string> temporary = temporaryFolder();
  if (!temporary) {
    logLine("deleteTracksAndWaypointToFile: TMPDIR is not set");
    return failed(2, "there is no temporary folder (TMPDIR)");
  }
  // The skytraq reader would download everything before erasing.
  const char* erase = format == "skytraq" ? "erase,no-output" : "erase";
  const std::string command =
      fmt::format("cd {}; {} -t -w -i {},{}{} -f \"{}\" -o gpx -F {}", shellWord(*temporary),
                  shellWord(executable), format, erase,
                  KvPreferences::singleton().additionalArguments().value_or(""),
                  FileHandling::stringForShell(devicePath()), shellWord(gpxPath));
  TransferStatus status = runTransfer("deleteTracksAndWaypointToFile", "gpsbabel", command);
  logf("deleteTracksAndWaypointToFile: exit with error code {}", status.code);
  return status;
}

}  // namespace kvtrack
