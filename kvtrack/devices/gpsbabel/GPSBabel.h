#pragma once
// GPSBabel: the one bridge to GPS loggers and foreign track files. It runs
// the external gpsbabel program, helper programs named by a device-type
// template, or a built-in driver, and always leaves its result in a GPX file.
//
// Device type: "*Name" selects the built-in driver Name; "!command" (with an
// optional "!DEL!erase command") runs a helper through the shell; anything
// else is a gpsbabel input format, where "format#suffix" runs the executable
// with the suffix appended (an older gpsbabel kept next to the current one).
// Results carry status numbers and their reasons (see TransferStatus); nothing
// throws. Safe to use from several threads.

#include "kvtrack/devices/GpsDriver.h"

#include "kvtrack/support/Status.h"

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace kvtrack {

/// What a download or an erase came to: the status number (0 success) and,
/// when it failed, why, in words a person can read, with the first
/// complaint of gpsbabel or the helper where it gave one.
struct [[nodiscard]] TransferStatus {
  int32_t code = 0;
  std::string reason;

  bool ok() const { return code == 0; }
  explicit operator bool() const { return ok(); }
  bool operator==(int32_t other) const { return code == other; }
};

class GPSBabel {
 public:
  /// The process-wide bridge, set up from the preferences on first use.
  static GPSBabel& singleton();

  /// A bridge with no device settings (tests); the singleton stays as it is.
  GPSBabel();
  GPSBabel(const GPSBabel&) = delete;
  GPSBabel& operator=(const GPSBabel&) = delete;

  // --- settings --------------------------------------------------------------
  /// Serial device name without its folder, e.g. "ttyACM0".
  std::optional<std::string> device() const;
  void setDevice(std::optional<std::string> value);
  std::optional<std::string> deviceType() const;
  void setDeviceType(std::optional<std::string> value);
  /// gpsbabel options, optionally followed by "!FILTER!" and filter options.
  std::optional<std::string> additionalCommandlineOptions() const;
  void setAdditionalCommandlineOptions(std::optional<std::string> value);

  /// Importable file formats in menu order, and description <-> name maps.
  const std::vector<std::string>& fileFormats() const { return fileFormats_; }
  const std::map<std::string, std::string>& fileNameToDescription() const {
    return fileNameToDescription_;
  }
  const std::map<std::string, std::string>& fileDescriptionToName() const {
    return fileDescriptionToName_;
  }

  /// Files a built-in driver under its name (replacing one of that name).
  void registerDriver(std::shared_ptr<GpsDriver> driver);
  /// The built-in driver filed under the name, or null.
  std::shared_ptr<GpsDriver> driverNamed(const std::string& name) const;
  /// The names of every built-in driver, in name order.
  std::vector<std::string> driverNames() const;

  // --- parts of the settings ---------------------------------------------------
  /// The options before "!FILTER!" (all of them when there is none).
  std::string getAdditionalArguments() const;
  /// The options after "!FILTER!", or "".
  std::string getFilterCommand() const;
  /// The erase template after "!DEL!" in the device type.
  std::optional<std::string> getDeleteCommand() const;

  /// Expands $APP_BUNDLE, $BUNDLE, $TMPDIR, $DEVICE, $GPX_NO_EXT, $GPX and
  /// $INPUTFILE; file names become single shell words. Without TMPDIR in the
  /// environment only the application placeholders are expanded.
  std::string replaceTemplates(const std::string& text) const {
    return replaceTemplates(text, std::nullopt, std::nullopt);
  }
  std::string replaceTemplates(const std::string& text, const std::optional<std::string>& inputFile,
                               const std::optional<std::string>& gpxFile) const;

  /// USB serial devices get a new number when replugged: when the chosen
  /// device is missing, takes the (last by name) device with the prefix.
  void correctDeviceNameWithDynamicPrefix(const std::string& prefix);

  // --- logger ------------------------------------------------------------------
  /// Downloads tracks and waypoints into the GPX file (replaced). Code 0 on
  /// success; -1 settings missing or the helper wrote no file; -2 the helper
  /// wrote under 10 bytes; 1 driver unknown or failed, nothing read, or the
  /// template is too short; 2 no TMPDIR; otherwise the shell's exit status.
  TransferStatus importTracksAndWaypointToFile(const std::string& gpxPath);
  /// Erases the logger. Status as above, and 254 when gpsbabel cannot erase
  /// loggers of this format.
  TransferStatus deleteTracksAndWaypointToFile(const std::string& gpxPath);
  /// The command line that streams the live position as CSV; not run here.
  std::string getRealtimeTrackingString() const;
  /// Stops every gpsbabel this user runs (ends a hanging download).
  void killAllRunningProcesses();

  // --- files (shell exit status; 0 is success) ---------------------------------
  /// Reads a file in the preferred import format; gpsbabel's messages are
  /// appended to errorString, one trimmed line each, when it is given.
  int32_t importTracksAndWaypointFromFile(const std::string& inputFile, const std::string& gpxFile,
                                          std::string* errorString);
  /// Turns the waypoints of a GPX file into a track; the first message line
  /// goes to errorString.
  int32_t convertToTrackFromFile(const std::string& inputFile, const std::string& outputFile,
                                 std::string* errorString);
  // Conversions fail with gpsbabel's exit status and its first complaint:
  // "gpsbabel could not read a.kml as kml (status 1): <its message>".
  Status convertGPX(const std::string& gpxFile, const std::string& kmlFile);
  Status convertKML(const std::string& kmlFile, const std::string& gpxFile);
  Status convertLOC(const std::string& locFile, const std::string& gpxFile);
  Status convertGPI(const std::string& gpiFile, const std::string& gpxFile);
  /// Any gpsbabel input format to GPX.
  Status convert(const std::string& inputFile, const std::string& gpxFile, const std::string& format);
  /// Drops duplicate places, then thins tracks to at most count points.
  Status simplifyFile(const std::string& inputFile, const std::string& outputFile, uint32_t count);

  // --- helpers -----------------------------------------------------------------
  /// Moves settings written for the old application layout to the current
  /// one; the very same text when nothing applies.
  static std::string correctSetting(const std::string& setting);
  /// The folder of the running program.
  static std::string applicationFolder();
  /// Where helper scripts are installed: <prefix>/share/wayfolio next to the
  /// program's folder when it exists, else the program's folder.
  static std::string applicationResourceFolder();
  /// The gpsbabel to run: the preference, else "gpsbabel" from PATH.
  static std::string gpsbabelExecutable();
  /// Splits "format#suffix" into the executable to run and the format.
  static std::pair<std::string, std::string> executableAndFormat(const std::string& format);

 private:
  struct Settings {
    std::optional<std::string> device, deviceType, options;
  };
  Settings settings() const;
  /// deviceFolder + device_.
  std::string devicePath() const;
  /// Steps shared by download and erase: settings present, device repaired.
  std::optional<Settings> prepareDevice();
  TransferStatus downloadWithDriver(const std::string& type, const std::string& gpxPath);
  TransferStatus downloadWithTemplate(const std::string& type, const std::string& gpxPath);
  TransferStatus downloadWithGpsbabel(const Settings& settings, const std::string& gpxPath);
  TransferStatus eraseWithTemplate(const std::string& type, const std::string& gpxPath);
  TransferStatus eraseWithGpsbabel(const std::string& type, const std::string& gpxPath);
  /// Runs a conversion, logging "<prefix> <command>" and its exit status.
  static Status runConversion(const std::string& prefix, const std::string& commandLine,
                              const std::string& inputFile, const std::string& format);
  /// $TMPDIR from the environment; absent when unset or empty.
  static std::optional<std::string> temporaryFolder();
  using Replacements = std::vector<std::pair<std::string, std::string>>;
  /// Replaces the placeholders in one pass, trying them in the given order at
  /// each position, so text put in is never expanded again.
  static std::string expandPlaceholders(const std::string& text, const Replacements& replacements);
  void buildFileFormats();

  mutable std::mutex mutex_;
  std::optional<std::string> device_;
  std::optional<std::string> deviceType_;
  std::optional<std::string> additionalCommandlineOptions_;
  std::vector<std::string> fileFormats_;
  std::map<std::string, std::string> fileNameToDescription_;
  std::map<std::string, std::string> fileDescriptionToName_;
  std::map<std::string, std::shared_ptr<GpsDriver>> internalDrivers_;
};

}  // namespace kvtrack
