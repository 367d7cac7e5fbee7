// wayfolio devices, download and erase.
#include "tools/wayfolio/DeviceCommands.h"

#include "kvtrack/devices/bg728/BG728.h"
#include "kvtrack/devices/gns2000/GNS2000.h"
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
#include "kvtrack/support/RunLoop.h"
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
#include <functional>
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

// The GNS 2000 is found among the paired Bluetooth devices; --device may
// name it (its paired name or address).
constexpr const char* kGNS2000Type = "*GNS2000";
bool isGNS2000(const DeviceOptions& options) { return options.type == kGNS2000Type; }

// What messages call the logger.
std::string deviceLabel(const DeviceOptions& options) {
  if (!options.device.empty()) return options.device;
  if (isIGotU(options)) return "the i-gotU";
  if (isGNS2000(options)) return "the GNS 2000";
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

void printBluetoothReceivers() {
  const auto receivers = GNS2000::pairedReceivers();
  if (!receivers) {
    fmt::print("GNS receivers on Bluetooth cannot be looked for: {}\n", receivers.reason());
    return;
  }
  for (const GNS2000::PairedReceiver& receiver : *receivers) {
    fmt::print("{} {} (Bluetooth, paired{})\n", receiver.name, receiver.address,
               receiver.connected ? ", connected" : "");
  }
}

// Why a built-in driver that keeps its reason failed; empty when it did not.
std::string driverFailure(const std::shared_ptr<GpsDriver>& driver) {
  const auto receiver = std::dynamic_pointer_cast<GNS2000>(driver);
  return receiver && !receiver->lastStatus() ? receiver->lastStatus().reason() : std::string();
}

// The GNS 2000 does its Bluetooth work on the main loop, which must run
// while the bridge waits for the driver: the bridge runs on a worker.
TransferStatus besideMainLoop(const std::function<TransferStatus()>& transfer) {
  std::atomic<bool> done{false};
  TransferStatus status;
  std::thread worker([&] {
    status = transfer();
    done = true;
  });
  while (!RunLoop::main().runUntil([&] { return done.load(); }, std::chrono::hours(1))) {
  }
  worker.join();
  return status;
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
  if (auto receiver = std::dynamic_pointer_cast<GNS2000>(babel.driverNamed("GNS2000"))) {
    receiver->setReceiver(isGNS2000(options) ? options.device : std::string());
  }
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
  printBluetoothReceivers();
  return {};
}

// What reading the logger came to, and whether the user cancelled it.
struct Transfer {
  TransferStatus status;
  bool interrupted = false;
};

// Reads the logger into the GPX file, with the blocks or points read shown
// on a terminal.
Transfer downloadToFile(const std::shared_ptr<GpsDriver>& driver, const std::string& gpx) {
  InterruptGuard guard;
  const bool showProgress = driver && ::isatty(STDERR_FILENO) == 1;
  if (showProgress) {
    driver->setProgress([](uint64_t done, uint64_t total, const char* unit) {
      std::fprintf(stderr, "\r\033[KRead %llu of %llu %s", static_cast<unsigned long long>(done),
                   static_cast<unsigned long long>(total), unit);
      std::fflush(stderr);
    });
  }
  TransferStatus status =
      besideMainLoop([&gpx] { return GPSBabel::singleton().importTracksAndWaypointToFile(gpx); });
  if (driver) driver->setProgress(nullptr);
  if (showProgress) std::fputs("\r\033[K", stderr);
  return {std::move(status), guard.interrupted()};
}

// Imports the downloaded file into the folder: all of it or nothing.
Outcome importDownload(const DeviceOptions& options, const std::string& label, const std::string& gpx,
                       uint64_t skippedByDriver) {
  auto library = TrackLibrary::singleton();
  bool created = false;
  const TrackLibraryFolderPtr target = makeFolders(*library, options.into, created);
  GpxImportConfiguration configuration;
  configuration.setTrackIdPrefix(kTrackIdPrefix);
  configuration.setSetTimeZone(true);
  configuration.setIsExternal(true);
  std::fprintf(stderr, "Importing the download ...\n");
  const Status imported = target->importGPX(gpx, configuration);
  if (!imported) {
    // Whatever the broken file yielded goes again.
    for (const auto& track : configuration.importedTracks()) {
      if (auto folder = folderOf(*track)) folder->deleteTrack(track);
    }
    return commandFailed(fmt::format("the download from {} was not readable: {}", label, imported.reason()),
                         created);
  }
  const auto& tracks = configuration.importedTracks();
  std::string report =
      fmt::format("Downloaded from {}: {} tracks added, {} duplicates refused, {} waypoints filed\n",
                  label, tracks.size(), configuration.identicalTrackCounter(),
                  configuration.importedPOIs().size());
  if (const uint64_t invalid =
          static_cast<uint64_t>(configuration.invalidPositionCounter()) + skippedByDriver) {
    report += fmt::format("  {} points with invalid coordinates skipped\n", invalid);
  }
  for (const auto& track : tracks) {
    report += fmt::format("  {} ({} points)\n", trackPath(*track), track->pointCount());
  }
  return libraryChanged(true, std::move(report));
}

// The built-in driver of a "*NAME" type; none for a gpsbabel format.
std::shared_ptr<GpsDriver> builtInDriver(const DeviceOptions& options) {
  return options.type.starts_with('*') ? GPSBabel::singleton().driverNamed(options.type.substr(1)) : nullptr;
}

// Why a transfer ("download from", "erase of") failed, in the driver's words
// when it kept them; nothing when it did not fail.
std::optional<std::string> transferFailure(const std::string& what, const std::string& label,
                                           const TransferStatus& status,
                                           const std::shared_ptr<GpsDriver>& driver) {
  if (status) return std::nullopt;
  if (const std::string reason = driverFailure(driver); !reason.empty()) {
    return fmt::format("the {} {} failed: {}", what, label, reason);
  }
  return fmt::format("the {} {} failed (status {}): {}", what, label, status.code, status.reason);
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
  const auto driver = builtInDriver(options);
  const Transfer transfer = downloadToFile(driver, gpx);
  const auto iGotU = std::dynamic_pointer_cast<IGotU>(driver);
  std::optional<std::string> failure;
  if (transfer.interrupted) {
    failure = fmt::format("the download from {} was cancelled", label);
  } else if (iGotU && !iGotU->lastDownloadStatus()) {
    // A logger that could not be opened still yields one empty track.
    failure = iGotUFailure(iGotU->lastDownloadStatus());
  } else {
    failure = transferFailure("download from", label, transfer.status, driver);
  }
  Outcome outcome = failure ? commandFailed(*failure)
                            : importDownload(options, label, gpx, driver ? driver->invalidPositionCount() : 0);
  fs::remove(gpx, ignored);
  return outcome;
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
  TransferStatus status;
  {
    InterruptGuard guard;
    status = besideMainLoop([&sandbox] {
      return GPSBabel::singleton().deleteTracksAndWaypointToFile(sandbox + "/erase.gpx");
    });
  }
  if (auto failure = transferFailure("erase of", label, status, builtInDriver(options))) {
    return commandFailed(std::move(*failure));
  }
  fmt::print("Erased the tracks on {}\n", label);
  return {};
}

void addDeviceOptions(CLI::App* command, DeviceOptions& options) {
  command->add_option("--type", options.type,
                      "Logger type: *i-gotU, *BG728, *i-gotUGT800, *GNS2000, or a gpsbabel format (e.g. nmea, mtk)")
      ->required();
  command->add_option("--device", options.device,
                      "Serial port, e.g. ttyUSB0 or /dev/ttyUSB0 (not for *i-gotU, found on USB); for "
                      "*GNS2000 the paired receiver's name or address (default: \"GNS 2000\")");
}

}  // namespace

void addDeviceCommands(CLI::App& app, Invocation& invocation) {
  if (const char* folder = std::getenv("WAYFOLIO_DEVICE_FOLDER"); folder && *folder)
    FileHandling::singleton().setDeviceFolder(folder);

  CLI::App* devices = app.add_subcommand("devices", "List the serial ports, and the GPS loggers present on USB and Bluetooth");
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
    invocation.action = [download] { return runDownload(*download); };
  });

  auto erase = std::make_shared<DeviceOptions>();
  CLI::App* eraseCommand = app.add_subcommand("erase", "Erase the tracks on a GPS logger");
  addDeviceOptions(eraseCommand, *erase);
  eraseCommand->add_flag("--yes", erase->yes, "Do not ask for confirmation");
  eraseCommand->callback([&invocation, erase] {
    invocation.usesLibrary = false;
    invocation.action = [erase] { return runErase(*erase); };
  });
}

}  // namespace wayfolio
