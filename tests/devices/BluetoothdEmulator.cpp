#include "tests/devices/BluetoothdEmulator.h"

#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <chrono>
#include <filesystem>
#include <fstream>

extern char** environ;

namespace kvtrack::test {

using namespace std::chrono_literals;

BluetoothdEmulator::BluetoothdEmulator(const std::string& busAddress, bool withAdapter,
                                       std::vector<FakeDevice> devices)
    : withAdapter_(withAdapter), devices_(std::move(devices)) {
  sd_bus_new(&bus_);
  sd_bus_set_address(bus_, busAddress.c_str());
  sd_bus_set_bus_client(bus_, 1);
  started_ = sd_bus_start(bus_) >= 0 && sd_bus_request_name(bus_, "org.bluez", 0) >= 0 &&
             sd_bus_add_fallback(bus_, nullptr, "/", &BluetoothdEmulator::handle, this) >= 0;
  thread_ = std::thread([this] {
    while (!stopping_) {
      if (sd_bus_process(bus_, nullptr) > 0) continue;
      sd_bus_wait(bus_, 20000);  // microseconds
    }
  });
}

BluetoothdEmulator::~BluetoothdEmulator() {
  stopping_ = true;
  thread_.join();
  sd_bus_flush_close_unref(bus_);
}

std::vector<std::string> BluetoothdEmulator::disconnected() {
  std::lock_guard lock(mutex_);
  return disconnected_;
}

int BluetoothdEmulator::handle(sd_bus_message* m, void* self, sd_bus_error*) {
  return static_cast<BluetoothdEmulator*>(self)->answer(m);
}

int BluetoothdEmulator::answer(sd_bus_message* m) {
  std::lock_guard lock(mutex_);
  if (sd_bus_message_is_method_call(m, "org.freedesktop.DBus.ObjectManager", "GetManagedObjects")) {
    return managedObjects(m);
  }
  FakeDevice* device = nullptr;
  for (FakeDevice& d : devices_) device = d.path == sd_bus_message_get_path(m) ? &d : device;
  if (device && sd_bus_message_is_method_call(m, "org.freedesktop.DBus.Properties", "Get")) {
    return sd_bus_reply_method_return(m, "v", "b", device->connected ? 1 : 0);
  }
  if (device && sd_bus_message_is_method_call(m, "org.bluez.Device1", "Disconnect")) {
    device->connected = false;
    disconnected_.push_back(device->address);
    return sd_bus_reply_method_return(m, "");
  }
  return 0;
}

int BluetoothdEmulator::managedObjects(sd_bus_message* call) {
  sd_bus_message* reply = nullptr;
  sd_bus_message_new_method_return(call, &reply);
  sd_bus_message_open_container(reply, 'a', "{oa{sa{sv}}}");
  if (withAdapter_) {
    sd_bus_message_append(reply, "{oa{sa{sv}}}", "/org/bluez/hci0", 1, "org.bluez.Adapter1", 1, "Powered",
                          "b", 1);
  }
  for (const FakeDevice& d : devices_) {
    // Properties of other types among them, as bluetoothd sends.
    sd_bus_message_append(reply, "{oa{sa{sv}}}", d.path.c_str(), 2, "org.freedesktop.DBus.Introspectable", 0,
                          "org.bluez.Device1", 7, "Address", "s", d.address.c_str(), "UUIDs", "as", 1,
                          "00001101-0000-1000-8000-00805f9b34fb", "RSSI", "n", -60, "Name", "s",
                          d.name.c_str(), "Alias", "s", "alias", "Paired", "b", d.paired ? 1 : 0, "Connected",
                          "b", d.connected ? 1 : 0);
  }
  sd_bus_message_close_container(reply);
  const int r = sd_bus_send(nullptr, reply, nullptr);
  sd_bus_message_unref(reply);
  return r < 0 ? r : 1;
}

PrivateBus::PrivateBus(const std::string& folder) : socket_(folder + "/system_bus_socket") {
  const std::string config = folder + "/bus.conf";
  std::ofstream(config) << "<busconfig><type>system</type><listen>unix:path=" << socket_
                        << "</listen><auth>EXTERNAL</auth><policy context=\"default\">"
                           "<allow user=\"*\"/><allow own=\"*\"/>"
                           "<allow send_destination=\"*\" eavesdrop=\"true\"/>"
                           "<allow eavesdrop=\"true\"/></policy></busconfig>\n";
  const std::string option = "--config-file=" + config;
  char* arguments[] = {const_cast<char*>("dbus-daemon"), const_cast<char*>("--nofork"),
                       const_cast<char*>(option.c_str()), nullptr};
  if (::posix_spawnp(&pid_, "dbus-daemon", nullptr, nullptr, arguments, environ) != 0) pid_ = -1;
  // The socket appears before the daemon listens on it: ready once a client gets in.
  for (int i = 0; i < 500 && pid_ > 0 && !(ready_ = accepts()); ++i) {
    std::this_thread::sleep_for(10ms);
  }
}

PrivateBus::~PrivateBus() {
  if (pid_ <= 0) return;
  ::kill(pid_, SIGTERM);
  ::waitpid(pid_, nullptr, 0);
}

bool PrivateBus::accepts() const {
  if (!std::filesystem::exists(socket_)) return false;
  sd_bus* client = nullptr;
  sd_bus_new(&client);
  sd_bus_set_address(client, address().c_str());
  sd_bus_set_bus_client(client, 1);
  const bool connected = sd_bus_start(client) >= 0;
  sd_bus_flush_close_unref(client);
  return connected;
}

}  // namespace kvtrack::test
