#pragma once
// The Bluetooth operations a device driver needs, apart from any one stack:
// the paired devices with their names, the baseband connection to one, its
// service records (SDP) and an RFCOMM channel to one of its services.
// BlueZStack is the stack of a Linux machine; tests supply emulated devices.
//
// Calls block their thread (opening a connection or a channel may take
// seconds); completions and channel events are posted to the run loop the
// stack was made with.

#include "kvtrack/devices/bluetooth/RfcommChannel.h"
#include "kvtrack/support/Status.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace kvtrack {

/// One service record of a device.
struct BluetoothServiceRecord {
  std::string serviceName;  // "" when the record has none
  /// The RFCOMM channel the service listens on; absent for other protocols.
  std::optional<uint8_t> rfcommChannelID;
};

class BluetoothDevice {
 public:
  virtual ~BluetoothDevice() = default;

  /// The name the device gave itself when paired ("" when unknown).
  virtual std::string name() const = 0;
  /// "00:1B:C1:0A:0B:0C", upper case.
  virtual std::string addressString() const = 0;

  /// Whether a baseband (ACL) connection to the device is up.
  virtual bool isConnected() = 0;
  virtual Status openConnection() = 0;
  virtual Status closeConnection() = 0;

  /// Starts reading the device's service records; `completion` runs on the
  /// run loop when the query has ended, with its outcome. A failure to
  /// start is returned and `completion` is not called.
  virtual Status performSDPQuery(std::function<void(const Status&)> completion) = 0;
  /// The records found by the last query that succeeded.
  virtual std::vector<BluetoothServiceRecord> services() const = 0;

  /// Opens an RFCOMM channel and returns once it is open (or has failed).
  /// The delegate hears rfcommChannelOpenComplete, then the channel's data.
  virtual Result<std::shared_ptr<RfcommChannel>> openRFCOMMChannelSync(
      uint8_t channelID, std::weak_ptr<RfcommChannelDelegate> delegate) = 0;
};

class BluetoothStack {
 public:
  virtual ~BluetoothStack() = default;
  /// The devices paired with this machine, in the stack's order. A failure
  /// means the stack cannot be asked (no Bluetooth service running).
  virtual Result<std::vector<std::shared_ptr<BluetoothDevice>>> pairedDevices() = 0;
};

}  // namespace kvtrack
