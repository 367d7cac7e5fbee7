#pragma once
// BlueZDevice: one paired device as BlueZStack reports it. The baseband
// connection is an SDP session held open (it keeps the ACL link up);
// closing also asks bluetoothd to disconnect the device. SDP queries run on
// a thread of their own and report on the run loop. Internal to the
// Bluetooth layer.

#include "kvtrack/devices/bluetooth/BlueZBus.h"
#include "kvtrack/devices/bluetooth/BluetoothDevice.h"
#include "kvtrack/support/RunLoop.h"

#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace kvtrack {

class BlueZDevice final : public BluetoothDevice {
 public:
  BlueZDevice(bluez::DeviceProperties properties, RunLoop& loop);
  ~BlueZDevice() override;
  BlueZDevice(const BlueZDevice&) = delete;
  BlueZDevice& operator=(const BlueZDevice&) = delete;

  std::string name() const override { return properties_.name; }
  std::string addressString() const override { return properties_.address; }
  bool isConnected() override;
  Status openConnection() override;
  Status closeConnection() override;
  Status performSDPQuery(std::function<void(const Status&)> completion) override;
  std::vector<BluetoothServiceRecord> services() const override;
  Result<std::shared_ptr<RfcommChannel>> openRFCOMMChannelSync(
      uint8_t channelID, std::weak_ptr<RfcommChannelDelegate> delegate) override;

 private:
  class SdpSession;  // an open libbluetooth SDP session
  Result<std::vector<BluetoothServiceRecord>> queryServices() const;

  bluez::DeviceProperties properties_;
  RunLoop& loop_;
  std::unique_ptr<SdpSession> session_;
  mutable std::mutex mutex_;  // guards services_
  std::vector<BluetoothServiceRecord> services_;
  std::thread query_;
};

}  // namespace kvtrack
