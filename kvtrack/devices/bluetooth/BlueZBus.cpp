#include "kvtrack/devices/bluetooth/BlueZBus.h"

#include <systemd/sd-bus.h>

#include <cstring>
#include <memory>
#include <string_view>

namespace kvtrack::bluez {

namespace {

constexpr const char* kService = "org.bluez";
constexpr const char* kDeviceInterface = "org.bluez.Device1";
constexpr const char* kAdapterInterface = "org.bluez.Adapter1";

struct BusCloser {
  void operator()(sd_bus* bus) const { sd_bus_flush_close_unref(bus); }
};
struct MessageReleaser {
  void operator()(sd_bus_message* message) const { sd_bus_message_unref(message); }
};
using Bus = std::unique_ptr<sd_bus, BusCloser>;
using Message = std::unique_ptr<sd_bus_message, MessageReleaser>;

// An sd_bus_error that frees itself.
class BusError {
 public:
  BusError() = default;
  ~BusError() { sd_bus_error_free(&error_); }
  BusError(const BusError&) = delete;
  BusError& operator=(const BusError&) = delete;
  sd_bus_error* get() { return &error_; }
  bool isServiceMissing() const {
    return sd_bus_error_has_name(&error_, "org.freedesktop.DBus.Error.ServiceUnknown") ||
           sd_bus_error_has_name(&error_, "org.freedesktop.DBus.Error.NameHasNoOwner");
  }
  std::string text(int code) const {
    if (error_.message != nullptr) return error_.message;
    return std::strerror(-code);
  }

 private:
  sd_bus_error error_ = SD_BUS_ERROR_NULL;
};

Result<Bus> openSystemBus() {
  sd_bus* bus = nullptr;
  const int r = sd_bus_open_system(&bus);
  if (r < 0) {
    return Status::failure(std::string("BlueZ cannot be asked, the system D-Bus is out of reach: ") +
                           std::strerror(-r));
  }
  return Bus(bus);
}

Status callFailure(const BusError& error, int code) {
  if (error.isServiceMissing()) {
    return Status::failure("BlueZ is not running (no bluetoothd on the system D-Bus)");
  }
  return Status::failure("BlueZ did not answer: " + error.text(code));
}

// One variant holding a string or a boolean, stored in `into` by key.
int readProperty(sd_bus_message* m, DeviceProperties& into) {
  const char* key = nullptr;
  int r = sd_bus_message_read_basic(m, 's', &key);
  if (r < 0) return r;
  const std::string_view name(key);
  std::string* text = name == "Address" ? &into.address
                      : name == "Name"  ? &into.name
                                        : nullptr;
  bool* flag = name == "Paired" ? &into.paired : name == "Connected" ? &into.connected : nullptr;
  if (name == "Alias" && into.name.empty()) text = &into.name;
  char type = 0;
  const char* contents = nullptr;
  if ((r = sd_bus_message_peek_type(m, &type, &contents)) < 0) return r;
  const bool isString = contents != nullptr && std::string_view(contents) == "s";
  const bool isBoolean = contents != nullptr && std::string_view(contents) == "b";
  if ((text != nullptr && isString) || (flag != nullptr && isBoolean)) {
    if ((r = sd_bus_message_enter_container(m, 'v', contents)) < 0) return r;
    if (text != nullptr) {
      const char* value = nullptr;
      if ((r = sd_bus_message_read_basic(m, 's', &value)) < 0) return r;
      *text = value;
    } else {
      int value = 0;
      if ((r = sd_bus_message_read_basic(m, 'b', &value)) < 0) return r;
      *flag = value != 0;
    }
    return sd_bus_message_exit_container(m);
  }
  return sd_bus_message_skip(m, "v");
}

// a{sv}: the properties of one interface.
int readProperties(sd_bus_message* m, DeviceProperties& into) {
  int r = sd_bus_message_enter_container(m, 'a', "{sv}");
  if (r < 0) return r;
  while ((r = sd_bus_message_enter_container(m, 'e', "sv")) > 0) {
    if ((r = readProperty(m, into)) < 0) return r;
    if ((r = sd_bus_message_exit_container(m)) < 0) return r;
  }
  if (r < 0) return r;
  return sd_bus_message_exit_container(m);
}

// oa{sa{sv}}: one object with its interfaces.
int readObject(sd_bus_message* m, ManagedObjects& into) {
  const char* path = nullptr;
  int r = sd_bus_message_read_basic(m, 'o', &path);
  if (r < 0) return r;
  if ((r = sd_bus_message_enter_container(m, 'a', "{sa{sv}}")) < 0) return r;
  while ((r = sd_bus_message_enter_container(m, 'e', "sa{sv}")) > 0) {
    const char* interface = nullptr;
    if ((r = sd_bus_message_read_basic(m, 's', &interface)) < 0) return r;
    if (std::string_view(interface) == kDeviceInterface) {
      DeviceProperties device;
      device.objectPath = path;
      if ((r = readProperties(m, device)) < 0) return r;
      into.devices.push_back(std::move(device));
    } else {
      if (std::string_view(interface) == kAdapterInterface) ++into.adapterCount;
      if ((r = sd_bus_message_skip(m, "a{sv}")) < 0) return r;
    }
    if ((r = sd_bus_message_exit_container(m)) < 0) return r;
  }
  if (r < 0) return r;
  return sd_bus_message_exit_container(m);
}

}  // namespace

Result<ManagedObjects> readManagedObjects() {
  Result<Bus> bus = openSystemBus();
  if (!bus) return bus.status();
  BusError error;
  sd_bus_message* raw = nullptr;
  int r = sd_bus_call_method(bus->get(), kService, "/", "org.freedesktop.DBus.ObjectManager",
                             "GetManagedObjects", error.get(), &raw, "");
  if (r < 0) return callFailure(error, r);
  const Message reply(raw);
  ManagedObjects objects;
  if ((r = sd_bus_message_enter_container(raw, 'a', "{oa{sa{sv}}}")) >= 0) {
    while ((r = sd_bus_message_enter_container(raw, 'e', "oa{sa{sv}}")) > 0) {
      if ((r = readObject(raw, objects)) < 0) break;
      if ((r = sd_bus_message_exit_container(raw)) < 0) break;
    }
  }
  if (r < 0) {
    return Status::failure(std::string("BlueZ's list of devices cannot be read: ") + std::strerror(-r));
  }
  return objects;
}

Result<bool> readConnected(const std::string& objectPath) {
  Result<Bus> bus = openSystemBus();
  if (!bus) return bus.status();
  BusError error;
  int connected = 0;
  const int r = sd_bus_get_property_trivial(bus->get(), kService, objectPath.c_str(),
                                            kDeviceInterface, "Connected", error.get(), 'b',
                                            &connected);
  if (r < 0) return callFailure(error, r);
  return connected != 0;
}

Status disconnect(const std::string& objectPath) {
  Result<Bus> bus = openSystemBus();
  if (!bus) return bus.status();
  BusError error;
  sd_bus_message* reply = nullptr;
  const int r = sd_bus_call_method(bus->get(), kService, objectPath.c_str(), kDeviceInterface,
                                   "Disconnect", error.get(), &reply, "");
  sd_bus_message_unref(reply);
  if (r < 0) return callFailure(error, r);
  return {};
}

}  // namespace kvtrack::bluez
