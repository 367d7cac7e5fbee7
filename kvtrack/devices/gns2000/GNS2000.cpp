#include "kvtrack/devices/gns2000/GNS2000.h"

#include "kvtrack/devices/bluetooth/BlueZ.h"
#include "kvtrack/devices/gns2000/GNS2000Link.h"
#include "kvtrack/devices/serial/DownloadCancel.h"
#include "kvtrack/support/KvPreferences.h"
#include "kvtrack/support/Log.h"

#include <utility>

namespace kvtrack {

GNS2000::GNS2000() : GNS2000(std::make_shared<BlueZStack>(RunLoop::main()), RunLoop::main()) {}

GNS2000::GNS2000(std::shared_ptr<BluetoothStack> stack, RunLoop& loop)
    : loop_(loop), link_(std::make_shared<GNS2000Link>(std::move(stack), loop)) {}

GNS2000::~GNS2000() = default;

void GNS2000::setReceiver(std::string nameOrAddress) {
  std::lock_guard lock(exchangeMutex_);
  receiver_ = std::move(nameOrAddress);
}

void GNS2000::setConnectionSettleTime(std::chrono::milliseconds pause) {
  std::lock_guard lock(exchangeMutex_);
  settleTime_ = pause;
}

bool GNS2000::mayStart(const char* operation) {
  if (loop_.isLoopThread()) {
    // The Bluetooth work runs on that very loop: waiting there would hang.
    lastStatus_ = Status::failure(std::string(operation) + " must not run on the main loop's thread");
  } else if (downloadsCancelled()) {
    lastStatus_ = Status::failure(std::string(operation) + " was cancelled");
  } else {
    return true;
  }
  logf("GNS2000: {}", lastStatus_.reason());
  protocolCommand_ = kStateFailed;
  return false;
}

std::optional<std::vector<TrackPtr>> GNS2000::importTracksFromDevice(const std::string& /*device*/,
                                                                     const Options& /*options*/) {
  std::lock_guard lock(exchangeMutex_);
  resetInvalidPositionCount();
  if (!mayStart("the download")) return std::nullopt;
  GNS2000Link::Hooks hooks;
  hooks.progress = [this](uint64_t done, uint64_t total, const char* unit) {
    reportProgress(done, total, unit);
  };
  hooks.acceptPosition = [this](double latitude, double longitude) {
    return acceptPosition(latitude, longitude);
  };
  GNS2000Link::Outcome outcome = link_->exchange(GNS2000Link::Work::kImport,
                                                 {receiver_, settleTime_}, std::move(hooks));
  protocolCommand_ = outcome.state;
  if (outcome.state != kStateFinished) {
    lastStatus_ = outcome.status ? Status::failure("the download ended before the whole log came")
                                 : outcome.status;
    logf("GNS2000: nothing was imported: {}", lastStatus_.reason());
    return std::nullopt;
  }
  lastStatus_ = Status();
  const int32_t offset = KvPreferences::singleton().timeZoneInMinutes().value_or(0);
  for (const TrackPtr& track : outcome.tracks) {
    track->setTimezoneOffset(offset);
    if (track->loadedPointCount() > 0) {
      if (const auto& time = track->trackPoints().front()->time()) track->setName(time->descriptionForGui());
    }
  }
  return std::move(outcome.tracks);
}

bool GNS2000::deleteTracksFromDevice(const std::string& /*device*/, const Options& /*options*/) {
  std::lock_guard lock(exchangeMutex_);
  if (!mayStart("the erase")) return false;
  const GNS2000Link::Outcome outcome =
      link_->exchange(GNS2000Link::Work::kErase, {receiver_, settleTime_}, {});
  protocolCommand_ = outcome.state;
  if (outcome.state != kStateFinished) {
    lastStatus_ = outcome.status ? Status::failure("the receiver did not acknowledge the erase")
                                 : outcome.status;
    logf("GNS2000: the erase failed: {}", lastStatus_.reason());
    return false;
  }
  lastStatus_ = Status();
  return true;
}

Result<std::vector<GNS2000::PairedReceiver>> GNS2000::pairedReceivers(BluetoothStack& stack) {
  Result<std::vector<std::shared_ptr<BluetoothDevice>>> devices = stack.pairedDevices();
  if (!devices) return devices.status();
  std::vector<PairedReceiver> receivers;
  for (const auto& device : *devices) {
    if (!device->name().starts_with("GNS")) continue;
    receivers.push_back({device->name(), device->addressString(), device->isConnected()});
  }
  return receivers;
}

Result<std::vector<GNS2000::PairedReceiver>> GNS2000::pairedReceivers() {
  BlueZStack stack;
  return pairedReceivers(stack);
}

}  // namespace kvtrack
