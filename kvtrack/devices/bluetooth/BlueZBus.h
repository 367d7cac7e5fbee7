#pragma once
// What the Bluetooth layer asks of the BlueZ daemon over the system D-Bus:
// its devices with their properties, one device's connection state, and a
// disconnect. Each call opens its own bus connection (sd-bus connections
// belong to one thread), which the environment variable
// DBUS_SYSTEM_BUS_ADDRESS can point elsewhere. Internal to the layer.

#include "kvtrack/support/Status.h"

#include <string>
#include <vector>

namespace kvtrack::bluez {

struct DeviceProperties {
  std::string objectPath;  // "/org/bluez/hci0/dev_00_1B_C1_0A_0B_0C"
  std::string address;     // "00:1B:C1:0A:0B:0C"
  std::string name;        // Name, else Alias
  bool paired = false;
  bool connected = false;
};

struct ManagedObjects {
  int adapterCount = 0;
  std::vector<DeviceProperties> devices;  // in the daemon's order
};

/// Every adapter and device bluetoothd knows.
Result<ManagedObjects> readManagedObjects();
/// The device's Connected property, read now.
Result<bool> readConnected(const std::string& objectPath);
/// Asks bluetoothd to drop every connection to the device.
Status disconnect(const std::string& objectPath);

}  // namespace kvtrack::bluez
