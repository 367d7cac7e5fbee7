// wayfolio devices, download and erase.
#include "tools/wayfolio/DeviceCommands.h"

#include "kvtrack/devices/bg728/BG728.h"
#include "kvtrack/devices/gpsbabel/GPSBabel.h"
#include "kvtrack/devices/gt800/IGotUGT800.h"
#include "kvtrack/devices/igotu/IGotU.h"
#include "kvtrack/devices/serial/DownloadCancel.h"
#include "kvtrack/devices/serial/ZtSerialPortList.h"
#include "kvtrack/library/GpxImportConfiguration.h"
#include "kvtrack/library/TrackLibrary.h"
#include "kvtrack/library/TrackLibraryGPX.h"
#include "kvtrack/support/FileHandling.h"
#include "kvtrack/support/Log.h"
#include "tools/wayfolio/CapturedStandardError.h"
#include "tools/wayfolio/LibraryNames.h"
#include "tools/wayfolio/LibrarySession.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <memory>
#include <thread>

namespace wayfolio {

namespace fs = std::filesystem;
using namespace kvtrack;

namespace {

struct DeviceOptions {
  std::string type;
  std::string device;
  std::string into;
  bool yes = false;
  bool verbose = false;
};

// Ctrl-C during a download: the handler only writes to a pipe (all a signal
// handler may do); a watcher thread cancels the open serial ports, so the
// driver stops at its next read and nothing half-read is imported.
int interruptPipe[2] = {-1, -1};

extern "C" void onInterrupt(int) {
  const int saved = errno;
  const char cancel = 'c';
  [[maybe_unused]] ssize_t ignored = ::write(interruptPipe[1], &cancel, 1);
  errno = saved;
}

class InterruptGuard {
 public:
  InterruptGuard() {
    resumeDownloads();
    if (::pipe2(interruptPipe, O_CLOEXEC) != 0) return;
    struct sigaction action {};
    action.sa_handler = onInterrupt;
    action.sa_flags = SA_RESTART;
    sigemptyset(&action.sa_mask);
    ::sigaction(SIGINT, &action, &previous_);
    watcher_ = std::thread([this] {
      char byte = 0;
      while (::read(interruptPipe[0], &byte, 1) == 1 && byte == 'c') {
        interrupted_ = true;
        cancelRunningDownloads();
      }
    });
  }
  ~InterruptGuard() {
    if (!watcher_.joinable()) return;
    ::sigaction(SIGINT, &previous_, nullptr);
    const char quit = 'q';
    [[maybe_unused]] ssize_t ignored = ::write(interruptPipe[1], &quit, 1);
    watcher_.join();
    ::close(interruptPipe[0]);
    ::close(interruptPipe[1]);
    interruptPipe[0] = interruptPipe[1] = -1;
    resumeDownloads();
  }
  InterruptGuard(const InterruptGuard&) = delete;
  InterruptGuard& operator=(const InterruptGuard&) = delete;
  bool interrupted() const { return interrupted_; }

 private:
  struct sigaction previous_ {};
  std::thread watcher_;
  std::atomic<bool> interrupted_{false};
};

// The i-gotU is found on the USB bus; every other logger needs --device.
constexpr const char* kIGotUType = "*i-gotU";
constexpr const char* kIGotUAccessHint =
    "no permission: add yourself to the plugdev group and log in again, with the udev rules of the "
    "wayfolio package (or packaging/60-wayfolio.rules copied into /etc/udev/rules.d/), then plug "
    "the logger in again";

bool isIGotU(const DeviceOptions& options) { return options.type == kIGotUType; }

// What messages call the logger.
std::string deviceLabel(const DeviceOptions& options) {
  if (!options.device.empty()) return options.device;
  if (isIGotU(options)) return "the i-gotU";
  throw CommandError(fmt::format("--device is required for logger type {}", options.type));
}

// Why the i-gotU could not be read: a logger present without permission
// names the udev rule, anything else keeps the driver's reason.
std::string iGotUFailure(const Status& status) {
  const auto loggers = IGotU::connectedLoggers();
  if (loggers) {
    for (const UsbDevicePresence& logger : *loggers) {
      if (logger.accessDenied) return fmt::format("the i-gotU cannot be opened ({})", kIGotUAccessHint);
    }
  }
  return fmt::format("the download from the i-gotU failed: {}", status.reason());
}

void printUsbLoggers() {
  const auto loggers = IGotU::connectedLoggers();
  if (!loggers) {
    fmt::print("i-gotU loggers on USB cannot be looked for: {}\n", loggers.reason());
    return;
  }
  for (const UsbDevicePresence& logger : *loggers) {
    std::string line = fmt::format("i-gotU on USB bus {:03} device {:03}", logger.bus, logger.address);
    if (logger.accessDenied) line += fmt::format(" ({})", kIGotUAccessHint);
    else if (!logger.access) line += fmt::format(" (cannot be opened: {})", logger.access.reason());
    fmt::print("{}\n", line);
  }
}

// The bridge names devices relative to the device folder; a path elsewhere
// moves the folder for this run so that any node (or file) can be used.
void chooseDevice(const DeviceOptions& options) {
  auto& files = FileHandling::singleton();
  std::string name = options.device;
  if (name.find('/') != std::string::npos) {
    std::string folder = files.deviceFolder();
    if (!folder.empty() && folder.back() != '/') folder += '/';
    if (name.starts_with(folder)) {
      name = name.substr(folder.size());
    } else {
      const fs::path path = fs::absolute(name);
      files.setDeviceFolder(path.parent_path().string() + "/");
      name = path.filename().string();
    }
  }
  auto& babel = GPSBabel::singleton();
  babel.setDevice(name);
  babel.setDeviceType(options.type);
  if (!babel.additionalCommandlineOptions()) babel.setAdditionalCommandlineOptions("");
  const std::string sandbox = files.sandbox();
  if (std::getenv("TMPDIR") == nullptr && !sandbox.empty()) ::setenv("TMPDIR", sandbox.c_str(), 0);
}

Outcome runDevices() {
  const auto paths = ZtSerialPortList::enumeratePortPaths();
  if (paths.empty()) fmt::print("No serial ports in {}\n", FileHandling::singleton().deviceFolder());
  for (const auto& path : paths) {
    if (::access(path.c_str(), R_OK | W_OK) == 0) fmt::print("{}\n", path);
    else fmt::print("{} (no permission: add yourself to the dialout group)\n", path);
  }
  printUsbLoggers();
  return {};
}

Outcome runDownload(const DeviceOptions& options) {
  const std::string label = deviceLabel(options);
  chooseDevice(options);
  const std::string sandbox = FileHandling::singleton().sandbox();
  if (sandbox.empty()) throw CommandError("no private folder for the download");
  const std::string gpx = sandbox + "/download.gpx";
  std::error_code ignored;
  fs::remove(gpx, ignored);

  std::fprintf(stderr, "Downloading from %s (%s) ...\n", label.c_str(), options.type.c_str());
  std::fflush(stderr);
  int status = 0;
  bool interrupted = false;
  std::string complaint;
  auto driver = options.type.starts_with("*") ? GPSBabel::singleton().driverNamed(options.type.substr(1))
                                              : nullptr;
  {
    InterruptGuard guard;
    // Blocks or points read, on a terminal only.
    if (driver && ::isatty(STDERR_FILENO) == 1) {
      driver->setProgress([](uint64_t done, uint64_t total, const char* unit) {
        std::fprintf(stderr, "\r\033[KRead %llu of %llu %s", static_cast<unsigned long long>(done),
                     static_cast<unsigned long long>(total), unit);
        std::fflush(stderr);
      });
    }
    CapturedStandardError captured(!options.verbose);
    status = GPSBabel::singleton().importTracksAndWaypointToFile(gpx);
    if (driver) {
      driver->setProgress(nullptr);
      if (::isatty(STDERR_FILENO) == 1) std::fputs("\r\033[K", stderr);
    }
    complaint = captured.firstLine();
    interrupted = guard.interrupted();
  }
  if (interrupted) {
    fs::remove(gpx, ignored);
    return Outcome{.failure = fmt::format("the download from {} was cancelled", label)};
  }
  // A logger that could not be opened still yields one empty track.
  if (const auto iGotU = std::dynamic_pointer_cast<IGotU>(driver);
      iGotU && !iGotU->lastDownloadStatus()) {
    fs::remove(gpx, ignored);
    return Outcome{.failure = iGotUFailure(iGotU->lastDownloadStatus())};
  }
  if (status != 0) {
    fs::remove(gpx, ignored);
    std::string message = fmt::format("the download from {} failed (status {})", label, status);
    if (!complaint.empty()) message += ": " + complaint;
    return Outcome{.failure = message};
  }

  auto library = TrackLibrary::singleton();
  bool created = false;
  const TrackLibraryFolderPtr target = makeFolders(*library, options.into, created);
  GpxImportConfiguration configuration;
  configuration.setTrackIdPrefix(kTrackIdPrefix);
  configuration.setSetTimeZone(true);
  std::fprintf(stderr, "Importing the download ...\n");
  configuration.setIsExternal(true);
  const Status imported = target->importGPX(gpx, configuration);
  fs::remove(gpx, ignored);
  if (!imported) {
    // Whatever the broken file yielded goes again: all or nothing.
    for (const auto& track : configuration.importedTracks()) {
      if (auto folder = folderOf(*track)) folder->deleteTrack(track);
    }
    return Outcome{.changed = created,
                   .failure = fmt::format("the download from {} was not readable: {}", label,
                                          imported.reason())};
  }
  const auto& tracks = configuration.importedTracks();
  std::string report =
      fmt::format("Downloaded from {}: {} tracks added, {} duplicates refused, {} waypoints filed\n",
                  label, tracks.size(), configuration.identicalTrackCounter(),
                  configuration.importedPOIs().size());
  const uint64_t skippedByDriver = driver ? driver->invalidPositionCount() : 0;
  if (const uint64_t invalid =
          static_cast<uint64_t>(configuration.invalidPositionCounter()) + skippedByDriver) {
    report += fmt::format("  {} points with invalid coordinates skipped\n", invalid);
  }
  for (const auto& track : tracks) {
    report += fmt::format("  {} ({} points)\n", trackPath(*track), track->pointCount());
  }
  return libraryChanged(true, std::move(report));
}

bool confirmed(const std::string& question) {
  std::fprintf(stderr, "%s [y/N] ", question.c_str());
  std::fflush(stderr);
  std::string answer;
  if (!std::getline(std::cin, answer)) return false;
  return answer == "y" || answer == "Y" || answer == "yes" || answer == "YES" || answer == "Yes";
}

Outcome runErase(const DeviceOptions& options) {
  if (isIGotU(options)) {
    fmt::print("Nothing erased: wayfolio does not erase i-gotU loggers\n");
    return {};
  }
  const std::string label = deviceLabel(options);
  if (!options.yes && !confirmed(fmt::format("Erase all tracks on {}?", label))) {
    fmt::print("Nothing erased\n");
    return {};
  }
  chooseDevice(options);
  const std::string sandbox = FileHandling::singleton().sandbox();
  if (sandbox.empty()) throw CommandError("no private folder for the erase");
  int status = 0;
  std::string complaint;
  {
    InterruptGuard guard;
    CapturedStandardError captured(!options.verbose);
    status = GPSBabel::singleton().deleteTracksAndWaypointToFile(sandbox + "/erase.gpx");
    complaint = captured.firstLine();
  }
  if (status != 0) {
    std::string message = fmt::format("the erase of {} failed (status {})", label, status);
    if (!complaint.empty()) message += ": " + complaint;
    return Outcome{.failure = message};
  }
  fmt::print("Erased the tracks on {}\n", label);
  return {};
}

void addDeviceOptions(CLI::App* command, DeviceOptions& options) {
  command->add_option("--type", options.type,
                      "Logger type: *i-gotU, *BG728, *i-gotUGT800, or a gpsbabel format (e.g. nmea, mtk)")
      ->required();
  command->add_option("--device", options.device,
                      "Serial port, e.g. ttyUSB0 or /dev/ttyUSB0 (not for *i-gotU, found on USB)");
}

}  // namespace

void addDeviceCommands(CLI::App& app, Invocation& invocation) {
  if (const char* folder = std::getenv("WAYFOLIO_DEVICE_FOLDER"); folder && *folder)
    FileHandling::singleton().setDeviceFolder(folder);

  CLI::App* devices = app.add_subcommand("devices", "List the serial ports GPS loggers can use");
  devices->callback([&invocation] {
    invocation.usesLibrary = false;
    invocation.action = [] { return runDevices(); };
  });

  auto download = std::make_shared<DeviceOptions>();
  CLI::App* downloadCommand = app.add_subcommand("download", "Download the tracks of a GPS logger");
  addDeviceOptions(downloadCommand, *download);
  downloadCommand->add_option("--into", download->into, "Library folder to import into (made when missing)");
  downloadCommand->callback([&invocation, download] {
    invocation.changesLibrary = true;
    invocation.action = [&invocation, download] {
      download->verbose = invocation.verbose;
      return runDownload(*download);
    };
  });

  auto erase = std::make_shared<DeviceOptions>();
  CLI::App* eraseCommand = app.add_subcommand("erase", "Erase the tracks on a GPS logger");
  addDeviceOptions(eraseCommand, *erase);
  eraseCommand->add_flag("--yes", erase->yes, "Do not ask for confirmation");
  eraseCommand->callback([&invocation, erase] {
    invocation.usesLibrary = false;
    invocation.action = [&invocation, erase] {
      erase->verbose = invocation.verbose;
      return runErase(*erase);
    };
  });
}

}  // namespace wayfolio
