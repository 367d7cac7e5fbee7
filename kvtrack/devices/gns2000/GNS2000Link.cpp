// GNS2000Link: finding the receiver, the exchange with the waiting caller.
// The protocol itself (lines, requests, the dump) is in GNS2000Protocol.cpp.

#include "kvtrack/devices/gns2000/GNS2000Link.h"

#include "kvtrack/devices/gns2000/GNS2000.h"
#include "kvtrack/devices/serial/DownloadCancel.h"
#include "kvtrack/support/CaseInsensitive.h"
#include "kvtrack/support/Log.h"

#include <fmt/format.h>

#include <thread>
#include <utility>

namespace kvtrack {

namespace {

// How often a waiting caller looks for a cancel.
constexpr std::chrono::milliseconds kCancelPoll{50};

}  // namespace

GNS2000Link::GNS2000Link(std::shared_ptr<BluetoothStack> stack, RunLoop& loop)
    : stack_(std::move(stack)), loop_(loop) {}

GNS2000Link::~GNS2000Link() {
  // Only the channel's own reader may still refer to us; closing stops it.
  if (rfcommChannel_) rfcommChannel_->closeChannel();
}

GNS2000Link::Outcome GNS2000Link::exchange(Work work, Settings settings, Hooks hooks) {
  Lock lock(mutex_);
  const uint64_t exchange = ++exchange_;
  settings_ = std::move(settings);
  hooks_ = std::move(hooks);
  outcome_.reset();
  waiting_ = true;
  loop_.post([weak = weak_from_this(), exchange, work] {
    if (const auto self = weak.lock()) self->begin(exchange, work);
  });
  bool cancelled = false;
  // The outcome is the predicate: a stop before this wait is not lost.
  while (!outcome_) {
    if (downloadsCancelled()) {
      cancelled = true;
      cancel();
      break;
    }
    stopCondition_.wait_for(lock, kCancelPoll);
  }
  waiting_ = false;
  active_ = false;
  hooks_ = {};
  if (cancelled) return Outcome{GNS2000::kStateFailed, {}, Status::failure("the exchange was cancelled")};
  return std::move(*outcome_);
}

void GNS2000Link::begin(uint64_t exchange, Work work) {
  Lock lock(mutex_);
  if (exchange != exchange_ || !waiting_) return;  // its caller has given up
  active_ = true;
  prepare();
  if (work == Work::kImport) {
    doImport(lock);
  } else {
    doErase(lock);
  }
}

void GNS2000Link::prepare() {
  receivedData_.clear();
  firstResponseReceived_ = false;
  failure_ = Status();
}

void GNS2000Link::doImport(Lock& lock) {
  currentTrack_ = Track::track();
  tracks_ = {currentTrack_};
  previousTimestamp_ = 0;
  createNewTrack_ = false;
  protocolCommand_ = GNS2000::kStateReadRequested;
  // With a channel open nothing is sent now: the request follows the next
  // sentence received.
  if (needsConnecting()) connect(lock);
}

void GNS2000Link::doErase(Lock& lock) {
  protocolCommand_ = GNS2000::kStateEraseRequested;
  if (needsConnecting()) connect(lock);
}

bool GNS2000Link::needsConnecting() {
  if (bluetoothDevice_ && !isReceiver(*bluetoothDevice_)) {
    // Another receiver was chosen since: its predecessor's channel goes.
    bluetoothDevice_.reset();
    if (rfcommChannel_) std::exchange(rfcommChannel_, nullptr)->closeChannel();
  }
  return !rfcommChannel_ || !rfcommChannel_->isOpen();
}

bool GNS2000Link::isReceiver(const BluetoothDevice& device) const {
  if (settings_.receiver.empty()) return device.name() == GNS2000::kReceiverName;
  return device.name() == settings_.receiver ||
         equalsCaseInsensitive(device.addressString(), settings_.receiver);
}

void GNS2000Link::findReceiver(Lock& lock) {
  const std::shared_ptr<BluetoothStack> stack = stack_;
  lock.unlock();
  Result<std::vector<std::shared_ptr<BluetoothDevice>>> devices = stack->pairedDevices();
  lock.lock();
  if (!devices) {
    failure_ = devices.status();
    return;
  }
  // When several fit, the last one listed wins.
  for (const auto& device : *devices) {
    if (isReceiver(*device)) bluetoothDevice_ = device;
  }
  if (!bluetoothDevice_) {
    const std::string& wanted =
        settings_.receiver.empty() ? std::string(GNS2000::kReceiverName) : settings_.receiver;
    failure_ = Status::failure(fmt::format("no paired Bluetooth device is called \"{}\" ({} paired)",
                                           wanted, devices->size()));
  }
}

void GNS2000Link::connect(Lock& lock) {
  if (!bluetoothDevice_) findReceiver(lock);
  if (!bluetoothDevice_) {
    logLine("No GNS 2000 found.");
    fail(failure_.prefixed("No GNS 2000 found"));
    return;
  }
  const std::shared_ptr<BluetoothDevice> device = bluetoothDevice_;
  const std::chrono::milliseconds settle = settings_.settleTime;
  rfcommChannel_.reset();
  lock.unlock();
  // A connection left from before is dropped so that the receiver starts afresh.
  if (device->isConnected()) {
    if (Status closed = device->closeConnection(); !closed) logf("GNS2000: {}", closed.reason());
    std::this_thread::sleep_for(settle);
  }
  Status opened;
  if (!device->isConnected()) {
    opened = device->openConnection();
    std::this_thread::sleep_for(settle);
  }
  const bool connected = device->isConnected();
  Status query;
  if (connected) {
    query = device->performSDPQuery([weak = weak_from_this()](const Status& status) {
      if (const auto self = weak.lock()) self->sdpQueryComplete(status);
    });
  }
  lock.lock();
  if (!connected) {
    fail((opened ? Status::failure("the connection did not come up") : opened)
             .prefixed("cannot connect to " + device->addressString()));
  } else if (!query) {
    fail(query.prefixed("cannot ask " + device->addressString() + " for its services"));
  }
}

void GNS2000Link::sdpQueryComplete(const Status& status) {
  Lock lock(mutex_);
  if (!status) logf("GNS2000: {}", status.reason());
  openGPSChannel(lock);
}

void GNS2000Link::openGPSChannel(Lock& lock) {
  const std::shared_ptr<BluetoothDevice> device = bluetoothDevice_;
  if (!device) return fail(Status::failure("the receiver went away"));
  bool offered = false;
  for (const BluetoothServiceRecord& service : device->services()) {
    if (service.serviceName == GNS2000::kServiceName &&
        service.rfcommChannelID == GNS2000::kServiceChannel) {
      offered = true;
      break;
    }
  }
  if (!offered) {
    return fail(Status::failure(fmt::format("{} offers no \"{}\" service on RFCOMM channel {}",
                                            device->addressString(), GNS2000::kServiceName,
                                            GNS2000::kServiceChannel)));
  }
  lock.unlock();
  Result<std::shared_ptr<RfcommChannel>> channel =
      device->openRFCOMMChannelSync(GNS2000::kServiceChannel, weak_from_this());
  lock.lock();
  if (!channel) return fail(channel.status());
  rfcommChannel_ = std::move(*channel);
  // Now the receiver's stream is awaited.
}

void GNS2000Link::fail(const Status& reason) {
  logf("GNS2000: {}", reason.reason());
  failure_ = reason;
  protocolCommand_ = GNS2000::kStateFailed;
  stop();
}

void GNS2000Link::stop() {
  if (!active_ || outcome_) return;
  outcome_ = Outcome{protocolCommand_, tracks_, failure_};
  active_ = false;
  stopCondition_.notify_all();
}

void GNS2000Link::cancel() {
  logLine("GNS2000: cancelled, closing the channel");
  protocolCommand_ = GNS2000::kStateFailed;
  failure_ = Status::failure("the exchange was cancelled");
  // The receiver would go on dumping into a channel nobody reads.
  loop_.post([weak = weak_from_this()] {
    const auto self = weak.lock();
    if (!self) return;
    std::shared_ptr<RfcommChannel> channel;
    {
      Lock lock(self->mutex_);
      channel = self->rfcommChannel_;
    }
    if (channel) channel->closeChannel();
  });
}

void GNS2000Link::rfcommChannelOpenComplete(RfcommChannel& channel, const Status& status) {
  Lock lock(mutex_);
  if (&channel != rfcommChannel_.get() || status) return;
  fail(status.prefixed("the channel did not open"));
}

void GNS2000Link::rfcommChannelClosed(RfcommChannel& channel) {
  Lock lock(mutex_);
  if (&channel != rfcommChannel_.get()) return;
  logLine("GNS2000: the channel was closed");
  rfcommChannel_.reset();
  if (protocolCommand_ != GNS2000::kStateFinished && failure_) {
    failure_ = Status::failure("the receiver closed the channel");
  }
  stop();
}

}  // namespace kvtrack
