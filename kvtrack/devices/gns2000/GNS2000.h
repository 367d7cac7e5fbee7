#pragma once
// GNS2000: the driver for the GNS 2000 Bluetooth GPS receiver and its
// built-in logger.
//
// The receiver streams NMEA sentences on its "GNS GPS" service (RFCOMM
// channel 3) all the time. The driver's requests are sentences of its own:
// "$PGNS,R*74" asks for the log, "$PGNS,C*65" erases it. The log comes back
// as MediaTek LOCUS sentences: "$PMTKLOX,0,<count>" starts the dump, each
// "$PMTKLOX,1,<n>,<w>,<w>,..." carries 16-byte records as words of 8 hex
// digits, "$PMTKLOX,2" ends it; "$PMTK001,..." acknowledges the erase.
// Every sentence ends in "*" and the XOR of the characters between "$" and
// "*" in hex; sentences with a wrong checksum are dropped.
//
// The Bluetooth work runs on the host's run loop (the main thread), which
// must be running while a caller on another thread waits for the exchange
// to end. A request goes out only after the first complete sentence from
// the receiver has arrived, and each piece of data the link delivers lets
// the driver handle one line. Records go into tracks in order; a record
// older than the one before starts a new track. Records without a fix
// (fix type 0 or above 4) and empty ones (all 0xFF) are skipped.
//
// Progress is reported in dump sentences, from the run loop's thread. Noise
// on the link (over 8 KiB without a line end) is dropped.
//
// There is no time limit: a silent receiver is waited for until its channel
// closes or the download is cancelled (cancelRunningDownloads(), Ctrl-C in
// wayfolio); the wait then ends and nothing is returned, so nothing half
// downloaded is ever imported. A cancel closes the channel; otherwise the
// receiver and its open channel are kept for the next call.

#include "kvtrack/devices/GpsDriver.h"
#include "kvtrack/devices/bluetooth/BluetoothDevice.h"
#include "kvtrack/support/RunLoop.h"
#include "kvtrack/support/Status.h"

#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kvtrack {

class GNS2000Link;

class GNS2000 : public GpsDriver {
 public:
  /// Values of protocolCommand().
  static constexpr int64_t kStateFinished = 2;
  static constexpr int64_t kStateFailed = 3;
  static constexpr int64_t kStateReadRequested = 4;
  static constexpr int64_t kStateDumping = 5;
  static constexpr int64_t kStateEraseRequested = 6;

  /// The paired name the receiver is looked for by, unless told otherwise.
  static constexpr const char* kReceiverName = "GNS 2000";
  static constexpr const char* kServiceName = "GNS GPS";
  static constexpr uint8_t kServiceChannel = 3;

  /// The receiver among the devices paired with BlueZ; work on the main loop.
  GNS2000();
  /// Any Bluetooth stack (tests: emulated receivers); work on `loop`.
  GNS2000(std::shared_ptr<BluetoothStack> stack, RunLoop& loop);
  ~GNS2000() override;
  GNS2000(const GNS2000&) = delete;
  GNS2000& operator=(const GNS2000&) = delete;

  std::string name() const override { return "GNS2000"; }
  /// Both arguments are ignored: the receiver is found among the paired
  /// Bluetooth devices. The tracks of the log (one empty track for an empty
  /// log), or absent. Must not be called on the run loop's thread.
  std::optional<std::vector<TrackPtr>> importTracksFromDevice(const std::string& device,
                                                              const Options& options) override;
  /// Erases the logger; true once the receiver has acknowledged it.
  bool deleteTracksFromDevice(const std::string& device, const Options& options) override;

  /// Which paired device to use: its name or its address. Empty (the
  /// default): the device named "GNS 2000", the last one listed when several are.
  void setReceiver(std::string nameOrAddress);
  /// The pause after the baseband connection is closed or opened: 2 s for
  /// the real receiver.
  void setConnectionSettleTime(std::chrono::milliseconds pause);

  /// Why the last exchange failed (success when it did not).
  const Status& lastStatus() const { return lastStatus_; }
  /// The protocol state the last exchange ended in (see the constants).
  int64_t protocolCommand() const { return protocolCommand_; }

  // --- sentences ----------------------------------------------------------------
  /// XOR of the characters, as two lower-case hex digits.
  static std::string calculateChecksum(std::string_view body);
  /// "$" body "*" checksum CR LF.
  static std::string sentence(std::string_view body);
  struct Response {
    std::string identifier;              // "$PMTKLOX"
    std::vector<std::string> arguments;  // the last one without "*xx"
  };
  /// A line without CR LF taken apart; absent when malformed or its
  /// checksum is wrong.
  static std::optional<Response> splitResponse(std::string_view line);

  /// One LOCUS record (all fields little-endian in the 16 bytes).
  struct LocusRecord {
    int32_t time = 0;       // seconds since 1970-01-01 UTC
    uint8_t fixType = 0;    // 1 to 4 are fixes
    float latitude = 0;     // degrees
    float longitude = 0;    // degrees
    int16_t height = 0;     // metres
  };
  /// The record written as 32 hex digits; absent for an empty record (all
  /// "F") and for text that is no record.
  static std::optional<LocusRecord> decodeLocusRecord(std::string_view hex);

  /// A paired device whose name starts with "GNS".
  struct PairedReceiver {
    std::string name;
    std::string address;
    bool connected = false;
  };
  static Result<std::vector<PairedReceiver>> pairedReceivers(BluetoothStack& stack);
  /// The same, asked of BlueZ.
  static Result<std::vector<PairedReceiver>> pairedReceivers();

 private:
  /// False (and the reason kept) when the exchange cannot start here.
  bool mayStart(const char* operation);

  RunLoop& loop_;
  std::shared_ptr<GNS2000Link> link_;
  std::mutex exchangeMutex_;  // one exchange at a time; guards what follows
  std::string receiver_;
  std::chrono::milliseconds settleTime_{2000};
  Status lastStatus_;
  int64_t protocolCommand_ = 0;
};

}  // namespace kvtrack
