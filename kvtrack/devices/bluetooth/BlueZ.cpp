#include "kvtrack/devices/bluetooth/BlueZ.h"

#include "kvtrack/devices/bluetooth/BlueZBus.h"
#include "kvtrack/devices/bluetooth/BlueZDevice.h"

namespace kvtrack {

Result<std::vector<std::shared_ptr<BluetoothDevice>>> BlueZStack::pairedDevices() {
  Result<bluez::ManagedObjects> objects = bluez::readManagedObjects();
  if (!objects) return objects.status();
  if (objects->adapterCount == 0) return Status::failure("this machine has no Bluetooth adapter");
  std::vector<std::shared_ptr<BluetoothDevice>> devices;
  for (bluez::DeviceProperties& device : objects->devices) {
    if (device.paired) devices.push_back(std::make_shared<BlueZDevice>(std::move(device), loop_));
  }
  return devices;
}

}  // namespace kvtrack
