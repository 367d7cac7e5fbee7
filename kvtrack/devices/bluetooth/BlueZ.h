#pragma once
// BlueZStack: the Bluetooth stack of a Linux machine. Paired devices and
// their names come from the BlueZ daemon over the system D-Bus (sd-bus); the
// baseband connection, the SDP query and the RFCOMM channel use the kernel's
// Bluetooth sockets through libbluetooth.
//
// Without a system bus, a running bluetoothd or an adapter, pairedDevices()
// fails with a reason a person can act on ("BlueZ is not running: ...").

#include "kvtrack/devices/bluetooth/BluetoothDevice.h"
#include "kvtrack/support/RunLoop.h"

namespace kvtrack {

class BlueZStack final : public BluetoothStack {
 public:
  /// Channel events and SDP completions are posted to `loop`.
  explicit BlueZStack(RunLoop& loop = RunLoop::main()) : loop_(loop) {}

  Result<std::vector<std::shared_ptr<BluetoothDevice>>> pairedDevices() override;

 private:
  RunLoop& loop_;
};

}  // namespace kvtrack
