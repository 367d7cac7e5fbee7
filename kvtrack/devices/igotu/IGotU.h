#pragma once
// IGotU: the driver for i-gotU GPS loggers that appear on USB as a HID
// device (vendor 0x0DF7, product 0x0B80).
//
// Every command is a 16-byte frame (byte 15 makes the sum of all bytes 0
// modulo 256) sent as two 8-byte output reports; the logger acknowledges
// each half with 3 bytes starting with 0x93 and then sends the command's
// data. Answers that do not start with 0x93 where an acknowledgement is due
// are passed over. A background reader collects everything the logger sends
// (see ReceiveBuffer); waits for answers have no time limit.
//
// The download reads at most 12 blocks of 4 KiB from address 0x1000 on
// (1,536 records of 32 bytes) and turns every record with a fix into a point
// of one track. Outcomes:
//   - no logger, or it cannot be opened: one empty track ("Device not found"
//     and the reason are logged, and kept in lastDownloadStatus());
//   - the link fails or the download is cancelled (cancelRunningDownloads())
//     after the logger was opened: nothing; the device is closed either way.
// Erasing is not done by this driver: deleteTracksFromDevice sends nothing
// and answers true.

#include "kvtrack/devices/GpsDriver.h"
#include "kvtrack/devices/usb/HidTransport.h"
#include "kvtrack/devices/usb/UsbHidDevice.h"
#include "kvtrack/model/Track.h"
#include "kvtrack/support/Status.h"

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace kvtrack {

class ReceiveBuffer;

class IGotU : public GpsDriver {
 public:
  static constexpr uint16_t kVendorId = 0x0DF7;
  static constexpr uint16_t kProductId = 0x0B80;
  static constexpr size_t kRecordSize = 32;
  static constexpr size_t kBlockSize = 4096;
  static constexpr uint64_t kMaximumBlocks = 12;

  /// Talks to the logger on the USB bus.
  IGotU();
  /// Talks to whatever the opener connects (tests: an emulated logger).
  explicit IGotU(HidTransportOpener opener);
  ~IGotU() override;
  IGotU(const IGotU&) = delete;
  IGotU& operator=(const IGotU&) = delete;

  std::string name() const override { return "i-gotU"; }
  /// Both arguments are ignored: the logger is found on the bus.
  std::optional<std::vector<TrackPtr>> importTracksFromDevice(const std::string& device,
                                                              const Options& options) override;
  /// Sends nothing and answers true: this driver does not erase the logger.
  bool deleteTracksFromDevice(const std::string& device, const Options& options) override;

  /// Why the last download read nothing (success when it read the logger).
  const Status& lastDownloadStatus() const { return lastStatus_; }
  uint32_t serialNumber() const { return serialNumber_; }
  /// 1, 2 or 3 by the identification reply; 0 unknown.
  int32_t loggerType() const { return loggerType_; }
  /// Records the logger reports holding.
  uint64_t trackPointCount() const { return trackPointCount_; }

  /// i-gotU loggers on the bus and whether this user may open them.
  static Result<std::vector<UsbDevicePresence>> connectedLoggers();

  /// Decodes the records in `records` (at most `count` of them, never past
  /// the bytes given) into the current track; exposed for benchmarks.
  void createTrackPoints(std::span<const uint8_t> records, uint64_t count);
  /// The track being filled (a new empty one before each download).
  const TrackPtr& currentTrack() const { return currentTrack_; }

 private:
  using Frame = std::array<uint8_t, 16>;

  Status openConnection();
  bool isConnected() const { return transport_ != nullptr && receiver_ != nullptr; }
  void closeConnection();
  Status download();
  Result<std::span<const uint8_t>> read(size_t count);
  Result<std::span<const uint8_t>> sendCommandWithChunk(std::span<const uint8_t> chunk,
                                                        size_t responseLength);
  Status sendCommand(Frame frame);
  Status sendIdentificationCommand();
  Status sendNmeaSwitchCommand(uint8_t mode);
  Status sendCountCommand();
  Result<std::span<const uint8_t>> sendReadCommandForPosition(uint32_t position, uint16_t size);
  Status readTrackData();

  HidTransportOpener opener_;
  std::unique_ptr<HidTransport> transport_;
  std::unique_ptr<ReceiveBuffer> receiver_;  // reads transport_; goes first
  TrackPtr currentTrack_;
  uint64_t trackPointCount_ = 0;
  uint32_t serialNumber_ = 0;
  int32_t loggerType_ = 0;
  Status lastStatus_;
};

}  // namespace kvtrack
