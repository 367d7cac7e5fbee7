#pragma once
// The serial ports present on this machine, and announcements of ports that
// come and go. Ports are callout nodes in FileHandling's device folder whose
// names start with one of its callout prefixes (ttyACM, ttyUSB).
//
// Ports are found through libudev (subsystem "tty"). When udev reports none
// (containers, or a device folder other than /dev/ pointed at a scratch
// folder in tests), the device folder itself is listed by prefix instead.
//
// While monitoring, a background thread re-enumerates on every udev event and
// every half second, and posts through NotificationCenter::defaultCenter():
//   "ZtSerialPortListDidAddPortsNotification"    the ports under "ZtSerialPortListAddedPorts"
//   "ZtSerialPortListDidRemovePortsNotification" the ports under "ZtSerialPortListRemovedPorts"
// The notification's object is a ZtSerialPortListChange dictionary; the
// ports in it are the list's own port objects. Observers run on that thread.

#include <atomic>
#include <cstddef>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <map>

#include "kvtrack/devices/serial/ZtSerialPort.h"
#include "kvtrack/devices/serial/ZtStandardEnumerator.h"
#include "kvtrack/support/UniqueFd.h"

namespace kvtrack {

inline constexpr const char* ZtSerialPortListDidAddPortsNotification =
    "ZtSerialPortListDidAddPortsNotification";
inline constexpr const char* ZtSerialPortListDidRemovePortsNotification =
    "ZtSerialPortListDidRemovePortsNotification";
inline constexpr const char* ZtSerialPortListAddedPorts = "ZtSerialPortListAddedPorts";
inline constexpr const char* ZtSerialPortListRemovedPorts = "ZtSerialPortListRemovedPorts";

using ZtSerialPortPtr = std::shared_ptr<ZtSerialPort>;
/// The object of the list's notifications: one entry, the ports that came or went.
using ZtSerialPortListChange = std::map<std::string, std::vector<ZtSerialPortPtr>>;
using ZtSerialPortEnumerator = ZtStandardEnumerator<ZtSerialPortPtr>;

class ZtSerialPortList {
 public:
  /// The one list of the process; enumerates on first use.
  static ZtSerialPortList& sharedPortList();

  ZtSerialPortList(const ZtSerialPortList&) = delete;
  ZtSerialPortList& operator=(const ZtSerialPortList&) = delete;
  ~ZtSerialPortList();

  std::vector<std::shared_ptr<ZtSerialPort>> serialPorts();
  std::vector<std::shared_ptr<ZtSerialPort>> serialPortsOfType(const std::string& type);
  std::shared_ptr<ZtSerialPort> portByPath(const std::string& path);
  std::shared_ptr<ZtSerialPort> objectWithName(const std::string& name);
  std::size_t count();
  std::shared_ptr<ZtSerialPort> objectAtIndex(std::size_t index);
  /// Walks the live list (ports that go while it walks are not returned twice
  /// or past the end). nextObject() gives nullptr at the end.
  ZtSerialPortEnumerator portEnumerator();
  /// Walks the ports of that type present when it was made.
  ZtSerialPortEnumerator portEnumeratorForSerialPortsOfType(const std::string& type);

  /// Enumerates again (e.g. after the device folder changed); posts nothing.
  void refresh();

  /// Starts the background watcher; true when it runs. Stopping joins it.
  bool startMonitoring();
  void stopMonitoring();
  bool isMonitoring() const { return monitoring_.load(); }

  /// The sorted paths of the serial ports present now.
  static std::vector<std::string> enumeratePortPaths();

 private:
  ZtSerialPortList();
  void monitorLoop();
  /// Applies a fresh enumeration; returns the ports added and removed.
  void update(const std::vector<std::string>& paths, std::vector<ZtSerialPortPtr>* added,
              std::vector<ZtSerialPortPtr>* removed);
  void announce(const std::vector<ZtSerialPortPtr>& added, const std::vector<ZtSerialPortPtr>& removed);

  std::mutex lock_;
  std::vector<std::shared_ptr<ZtSerialPort>> ports_;
  std::atomic<bool> monitoring_{false};
  std::thread monitor_;
  UniqueFd stopRead_;
  UniqueFd stopWrite_;
};

}  // namespace kvtrack
