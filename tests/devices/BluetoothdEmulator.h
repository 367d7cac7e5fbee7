#pragma once
// A stand-in for bluetoothd on a private D-Bus daemon: PrivateBus starts
// dbus-daemon with a system-bus configuration on a socket in a scratch
// folder; BluetoothdEmulator takes the name org.bluez there and answers as
// bluetoothd does: GetManagedObjects (an adapter and the devices, with
// properties of several types), the Connected property and Disconnect.

#include <sys/types.h>
#include <systemd/sd-bus.h>

#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace kvtrack::test {

struct FakeDevice {
  std::string path, address, name;
  bool paired = true;
  bool connected = false;
};

class BluetoothdEmulator {
 public:
  BluetoothdEmulator(const std::string& busAddress, bool withAdapter, std::vector<FakeDevice> devices);
  ~BluetoothdEmulator();
  BluetoothdEmulator(const BluetoothdEmulator&) = delete;
  BluetoothdEmulator& operator=(const BluetoothdEmulator&) = delete;

  bool started() const { return started_; }
  /// Addresses of the devices asked to disconnect, in order.
  std::vector<std::string> disconnected();

 private:
  static int handle(sd_bus_message* m, void* self, sd_bus_error*);
  int answer(sd_bus_message* m);
  int managedObjects(sd_bus_message* call);

  sd_bus* bus_ = nullptr;
  bool started_ = false;
  bool withAdapter_;
  std::mutex mutex_;
  std::vector<FakeDevice> devices_;
  std::vector<std::string> disconnected_;
  std::atomic<bool> stopping_{false};
  std::thread thread_;
};

/// A private system bus for the object's life.
class PrivateBus {
 public:
  explicit PrivateBus(const std::string& folder);
  ~PrivateBus();
  PrivateBus(const PrivateBus&) = delete;
  PrivateBus& operator=(const PrivateBus&) = delete;

  bool running() const { return ready_; }
  /// For DBUS_SYSTEM_BUS_ADDRESS.
  std::string address() const { return "unix:path=" + socket_; }

 private:
  bool accepts() const;

  std::string socket_;
  pid_t pid_ = -1;
  bool ready_ = false;
};

}  // namespace kvtrack::test
