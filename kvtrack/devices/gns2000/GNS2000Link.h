#pragma once
// GNS2000Link: the part of the GNS 2000 driver that lives on the run loop.
// It finds the receiver, opens its channel, reads the stream line by line
// and runs the protocol; the driver's calling thread hands it one exchange
// at a time (exchange()) and waits until it ends.
//
// All state is guarded by one mutex. Run-loop work holds it except around
// calls that block (connecting, opening the channel, pauses), so a waiting
// caller always gets to see a cancel. The end of an exchange is kept as its
// outcome, so a wake-up that comes before the caller waits is not lost.

#include "kvtrack/devices/GpsDriver.h"
#include "kvtrack/devices/bluetooth/BluetoothDevice.h"
#include "kvtrack/model/Track.h"
#include "kvtrack/support/RunLoop.h"
#include "kvtrack/support/Status.h"

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace kvtrack {

class GNS2000Link final : public RfcommChannelDelegate,
                          public std::enable_shared_from_this<GNS2000Link> {
 public:
  enum class Work { kImport, kErase };

  struct Settings {
    std::string receiver;  // name or address; "" for "GNS 2000"
    std::chrono::milliseconds settleTime{2000};
  };
  /// Called on the run loop while an exchange is under way.
  struct Hooks {
    GpsDriver::Progress progress;
    std::function<bool(double latitude, double longitude)> acceptPosition;
  };
  struct Outcome {
    int64_t state = 0;
    std::vector<TrackPtr> tracks;
    Status status;  // why it failed, when it did
  };

  GNS2000Link(std::shared_ptr<BluetoothStack> stack, RunLoop& loop);
  ~GNS2000Link() override;
  GNS2000Link(const GNS2000Link&) = delete;
  GNS2000Link& operator=(const GNS2000Link&) = delete;

  /// Runs the work on the run loop and waits until it ends or the download
  /// is cancelled. Call from a thread other than the run loop's.
  Outcome exchange(Work work, Settings settings, Hooks hooks);

  void rfcommChannelData(RfcommChannel& channel, std::span<const uint8_t> data) override;
  void rfcommChannelOpenComplete(RfcommChannel& channel, const Status& status) override;
  void rfcommChannelClosed(RfcommChannel& channel) override;

 private:
  using Lock = std::unique_lock<std::mutex>;

  void begin(uint64_t exchange, Work work);
  void prepare();
  void doImport(Lock& lock);
  void doErase(Lock& lock);
  /// True when no channel to the chosen receiver is open.
  bool needsConnecting();
  void connect(Lock& lock);
  void findReceiver(Lock& lock);
  bool isReceiver(const BluetoothDevice& device) const;
  void sdpQueryComplete(const Status& status);
  void openGPSChannel(Lock& lock);
  void fail(const Status& reason);
  void stop();
  void cancel();

  void sendCommand(const std::string& body);
  void requestVersionInfo();
  void requestReadUsedLoggerMemory();
  void requestEraseLoggerMemory();
  void sendRequest();
  void readData();
  bool processResponse(const std::string& identifier, const std::vector<std::string>& arguments);
  bool processPMTKLOX(const std::vector<std::string>& arguments);
  void addRecord(const std::string& hex);

  std::shared_ptr<BluetoothStack> stack_;
  RunLoop& loop_;

  std::mutex mutex_;
  std::condition_variable stopCondition_;
  uint64_t exchange_ = 0;        // the caller's latest exchange
  bool waiting_ = false;         // a caller waits for exchange_
  bool active_ = false;          // exchange_ has begun on the run loop
  std::optional<Outcome> outcome_;
  Settings settings_;
  Hooks hooks_;
  Status failure_;

  std::shared_ptr<BluetoothDevice> bluetoothDevice_;
  std::shared_ptr<RfcommChannel> rfcommChannel_;
  TrackPtr currentTrack_;
  std::vector<TrackPtr> tracks_;
  int64_t protocolCommand_ = 0;
  int64_t pmtkloxCount_ = 0;
  int64_t pmtkloxPacketCounter_ = 0;
  int64_t nonPResponseCounter_ = 0;
  int64_t previousTimestamp_ = 0;
  bool createNewTrack_ = false;
  std::string receivedData_;
  bool firstResponseReceived_ = false;
};

}  // namespace kvtrack
