#include "kvtrack/devices/serial/ZtSerialPortList.h"

#include <dirent.h>
#include <fcntl.h>
#include <libudev.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "kvtrack/support/FileHandling.h"
#include "kvtrack/support/Log.h"
#include "kvtrack/support/NotificationCenter.h"

namespace kvtrack {

namespace {

bool hasCalloutPrefix(const std::string& name, const std::vector<std::string>& prefixes) {
  return std::any_of(prefixes.begin(), prefixes.end(), [&](const std::string& prefix) {
    return !prefix.empty() && name.size() > prefix.size() && name.compare(0, prefix.size(), prefix) == 0;
  });
}

std::string withSlash(std::string folder) {
  if (folder.empty() || folder.back() != '/') folder += '/';
  return folder;
}

std::string baseName(const std::string& path) {
  auto slash = path.rfind('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

std::vector<std::string> udevPortPaths(const std::string& folder, const std::vector<std::string>& prefixes) {
  std::vector<std::string> paths;
  struct udev* udev = udev_new();
  if (!udev) return paths;
  struct udev_enumerate* enumerate = udev_enumerate_new(udev);
  if (enumerate && udev_enumerate_add_match_subsystem(enumerate, "tty") >= 0 &&
      udev_enumerate_scan_devices(enumerate) >= 0) {
    struct udev_list_entry* entry;
    udev_list_entry_foreach(entry, udev_enumerate_get_list_entry(enumerate)) {
      struct udev_device* device = udev_device_new_from_syspath(udev, udev_list_entry_get_name(entry));
      if (!device) continue;
      const char* node = udev_device_get_devnode(device);
      const char* name = udev_device_get_sysname(device);
      // Only nodes in the device folder count, so a scratch folder in tests
      // is not mixed with the machine's real ports.
      if (node && name && hasCalloutPrefix(name, prefixes) && std::string(node) == folder + name)
        paths.emplace_back(node);
      udev_device_unref(device);
    }
  }
  if (enumerate) udev_enumerate_unref(enumerate);
  udev_unref(udev);
  return paths;
}

std::vector<std::string> folderPortPaths(const std::string& folder, const std::vector<std::string>& prefixes) {
  std::vector<std::string> paths;
  DIR* dir = ::opendir(folder.c_str());
  if (!dir) return paths;
  while (struct dirent* entry = ::readdir(dir)) {
    std::string name = entry->d_name;
    if (hasCalloutPrefix(name, prefixes)) paths.push_back(folder + name);
  }
  ::closedir(dir);
  return paths;
}

}  // namespace

std::vector<std::string> ZtSerialPortList::enumeratePortPaths() {
  auto& files = FileHandling::singleton();
  const std::string folder = withSlash(files.deviceFolder());
  const auto prefixes = files.calloutPrefixes();
  auto paths = udevPortPaths(folder, prefixes);
  if (paths.empty()) paths = folderPortPaths(folder, prefixes);
  std::sort(paths.begin(), paths.end());
  paths.erase(std::unique(paths.begin(), paths.end()), paths.end());
  return paths;
}

ZtSerialPortList& ZtSerialPortList::sharedPortList() {
  static ZtSerialPortList list;
  return list;
}

ZtSerialPortList::ZtSerialPortList() { refresh(); }

ZtSerialPortList::~ZtSerialPortList() { stopMonitoring(); }

void ZtSerialPortList::refresh() { update(enumeratePortPaths(), nullptr, nullptr); }

void ZtSerialPortList::update(const std::vector<std::string>& paths, std::vector<ZtSerialPortPtr>* added,
                              std::vector<ZtSerialPortPtr>* removed) {
  std::lock_guard lock(lock_);
  std::vector<ZtSerialPortPtr> kept;
  for (auto& port : ports_) {
    if (std::binary_search(paths.begin(), paths.end(), port->bsdPath())) kept.push_back(port);
    else if (removed) removed->push_back(port);
  }
  for (const auto& path : paths) {
    bool known = std::any_of(kept.begin(), kept.end(), [&](const auto& port) { return port->bsdPath() == path; });
    if (known) continue;
    kept.push_back(std::make_shared<ZtSerialPort>(path, baseName(path), "tty"));
    if (added) added->push_back(kept.back());
  }
  std::sort(kept.begin(), kept.end(), [](const auto& a, const auto& b) { return a->bsdPath() < b->bsdPath(); });
  ports_ = std::move(kept);
}

void ZtSerialPortList::announce(const std::vector<ZtSerialPortPtr>& added,
                                const std::vector<ZtSerialPortPtr>& removed) {
  auto& center = NotificationCenter::defaultCenter();
  if (!added.empty()) {
    center.postNotification(ZtSerialPortListDidAddPortsNotification,
                            ZtSerialPortListChange{{ZtSerialPortListAddedPorts, added}});
  }
  if (!removed.empty()) {
    center.postNotification(ZtSerialPortListDidRemovePortsNotification,
                            ZtSerialPortListChange{{ZtSerialPortListRemovedPorts, removed}});
  }
}

std::vector<std::shared_ptr<ZtSerialPort>> ZtSerialPortList::serialPorts() {
  std::lock_guard lock(lock_);
  return ports_;
}

std::vector<std::shared_ptr<ZtSerialPort>> ZtSerialPortList::serialPortsOfType(const std::string& type) {
  std::lock_guard lock(lock_);
  std::vector<std::shared_ptr<ZtSerialPort>> result;
  for (auto& port : ports_)
    if (port->type() == type) result.push_back(port);
  return result;
}

std::shared_ptr<ZtSerialPort> ZtSerialPortList::portByPath(const std::string& path) {
  std::lock_guard lock(lock_);
  for (auto& port : ports_)
    if (port->bsdPath() == path) return port;
  return nullptr;
}

std::shared_ptr<ZtSerialPort> ZtSerialPortList::objectWithName(const std::string& name) {
  std::lock_guard lock(lock_);
  for (auto& port : ports_)
    if (port->name() == name) return port;
  return nullptr;
}

std::size_t ZtSerialPortList::count() {
  std::lock_guard lock(lock_);
  return ports_.size();
}

std::shared_ptr<ZtSerialPort> ZtSerialPortList::objectAtIndex(std::size_t index) {
  std::lock_guard lock(lock_);
  return index < ports_.size() ? ports_[index] : nullptr;
}

ZtSerialPortEnumerator ZtSerialPortList::portEnumerator() {
  // The list lives as long as the process.
  return ZtSerialPortEnumerator([this] { return count(); }, [this](std::size_t index) { return objectAtIndex(index); });
}

ZtSerialPortEnumerator ZtSerialPortList::portEnumeratorForSerialPortsOfType(const std::string& type) {
  auto ports = std::make_shared<std::vector<ZtSerialPortPtr>>(serialPortsOfType(type));
  return ZtSerialPortEnumerator([ports] { return ports->size(); },
                                [ports](std::size_t index) { return (*ports)[index]; });
}

bool ZtSerialPortList::startMonitoring() {
  if (monitoring_) return true;
  int ends[2] = {-1, -1};
  if (::pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0) {
    logf("serial port list: cannot watch for ports: {}", std::strerror(errno));
    return false;
  }
  stopRead_.reset(ends[0]);
  stopWrite_.reset(ends[1]);
  monitoring_ = true;
  monitor_ = std::thread([this] { monitorLoop(); });
  return true;
}

void ZtSerialPortList::stopMonitoring() {
  if (!monitoring_) return;
  char one = 1;
  [[maybe_unused]] ssize_t ignored = ::write(stopWrite_.get(), &one, 1);
  if (monitor_.joinable()) monitor_.join();
  stopRead_.reset();
  stopWrite_.reset();
  monitoring_ = false;
}

void ZtSerialPortList::monitorLoop() {
  struct udev* udev = udev_new();
  struct udev_monitor* monitor = udev ? udev_monitor_new_from_netlink(udev, "udev") : nullptr;
  if (monitor && (udev_monitor_filter_add_match_subsystem_devtype(monitor, "tty", nullptr) < 0 ||
                  udev_monitor_enable_receiving(monitor) < 0)) {
    udev_monitor_unref(monitor);
    monitor = nullptr;
  }
  // Without udev events (containers) the half-second rescan still notices ports.
  for (;;) {
    struct pollfd fds[2] = {{stopRead_.get(), POLLIN, 0}, {monitor ? udev_monitor_get_fd(monitor) : -1, POLLIN, 0}};
    int ready = ::poll(fds, 2, 500);
    if (ready < 0 && errno != EINTR) break;
    if (fds[0].revents) break;
    if (monitor && (fds[1].revents & POLLIN)) {
      if (struct udev_device* device = udev_monitor_receive_device(monitor)) udev_device_unref(device);
    }
    std::vector<ZtSerialPortPtr> added, removed;
    update(enumeratePortPaths(), &added, &removed);
    announce(added, removed);
  }
  if (monitor) udev_monitor_unref(monitor);
  if (udev) udev_unref(udev);
}

}  // namespace kvtrack
