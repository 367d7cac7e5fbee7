#pragma once
// RfcommChannel: an open serial channel to a Bluetooth device, and the
// delegate that hears what happens on it. Every delegate call runs on the
// host's run loop (the main thread), in the order the events happened:
// first rfcommChannelOpenComplete, then one rfcommChannelData per piece the
// link delivered, and rfcommChannelClosed once when the channel ends (closed
// here or by the device). Writes are synchronous.
//
// The BlueZ layer opens these on RFCOMM sockets; tests open the same kind of
// channel on one end of a socket pair whose other end is an emulated device.

#include "kvtrack/support/Status.h"

#include <cstdint>
#include <span>

namespace kvtrack {

class RfcommChannel;

class RfcommChannelDelegate {
 public:
  virtual ~RfcommChannelDelegate() = default;
  /// Bytes received: one piece as the link delivered it.
  virtual void rfcommChannelData(RfcommChannel& channel, std::span<const uint8_t> data) = 0;
  /// The channel is ready (status success) or could not be opened.
  virtual void rfcommChannelOpenComplete(RfcommChannel& channel, const Status& status) = 0;
  /// The channel has ended; nothing more comes from it.
  virtual void rfcommChannelClosed(RfcommChannel& channel) = 0;
};

class RfcommChannel {
 public:
  virtual ~RfcommChannel() = default;
  /// Writes every byte before returning.
  virtual Status writeSync(std::span<const uint8_t> bytes) = 0;
  /// Ends the channel; the delegate hears rfcommChannelClosed.
  virtual void closeChannel() = 0;
  virtual bool isOpen() const = 0;
};

}  // namespace kvtrack
