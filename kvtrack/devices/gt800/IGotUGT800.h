#pragma once
// IGotUGT800: the driver for the i-gotU GT-800 logger, which appears as a
// serial port. Every command is one 16-byte frame (byte 15 makes the sum of
// all bytes 0 modulo 256); byte 6 carries a serial-flash opcode. The logger
// answers with 0x93 and a big-endian 16-bit data length, then the data.
// Records are 32 bytes from flash address 0x1000 on; a track-start record
// opens a new track, flag 0x04 marks a waypoint, 0xF1 a debug text.
//
// Failures are log lines and results: an import that fails part way returns
// nothing (never a partial track) and the port is always closed afterwards.
// Every read waits at most the read time-out (5 s unless set otherwise).

#include "kvtrack/devices/GpsDriver.h"
#include "kvtrack/devices/serial/ZtSerialPort.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace kvtrack {

class IGotUGT800 : public GpsDriver {
 public:
  using AlertCallback = std::function<void(const std::string&)>;

  IGotUGT800() = default;
  ~IGotUGT800() override;

  std::string name() const override { return "i-gotUGT800"; }
  /// device: the serial device path; options are ignored.
  std::optional<std::vector<TrackPtr>> importTracksFromDevice(const std::string& device,
                                                              const Options& options) override;
  /// Erases every flash sector holding data (sector 0 never), then shows the alert.
  bool deleteTracksFromDevice(const std::string& device, const Options& options) override;

  /// Receives the message shown after a successful erase; nullptr restores
  /// the default, which logs it. Process-wide, safe from any thread.
  static void setAlertCallback(AlertCallback callback);

  /// Seconds a read may wait for the logger's answer; 5 s for the real logger.
  void setReadTimeout(double seconds) { readTimeout_ = seconds; }
  double readTimeout() const { return readTimeout_; }

  /// The held port (absent when none is open).
  const std::shared_ptr<ZtSerialPort>& port() const { return port_; }
  /// Does nothing when handed the port already held.
  void setPort(std::shared_ptr<ZtSerialPort> port);

  /// 1 when the flash identification ends in 0x17, else 0.
  int32_t modelType() const { return modelType_; }
  uint64_t trackPointCount() const { return trackPointCount_; }

  /// Decodes records (32 bytes each) into the download's tracks; exposed for
  /// benchmarks. `count` records are read from `records`.
  void createTrackPoints(const uint8_t* records, uint64_t count);
  /// Tracks of the current download, in order.
  const std::vector<TrackPtr>& tracks() const { return tracks_; }
  /// Starts a fresh download result with one empty track.
  void resetTracks();

 private:
  bool isConnected() const;
  void initPort(const std::string& path);
  void closePort();
  /// Exactly n bytes or nothing (time-out, error, hang-up).
  std::optional<ZtSerialPort::Data> read(size_t count);
  /// 0 when sent (and, for a response length, answered); -1 otherwise.
  int sendCommandWithChunk(uint8_t* command, size_t length, ZtSerialPort::Data* response,
                           size_t responseLength);
  bool sendNmeaSwitchCommand(uint8_t mode);
  bool sendModelCommand();
  bool sendCountCommand();
  bool sendUnknownWriteCommand1();
  bool sendUnknownWriteCommand2ForPurge(uint8_t* status);
  bool sendWriteCommandForPurgeWithPosition(uint32_t position);
  std::optional<ZtSerialPort::Data> sendReadCommandForPosition(uint32_t position, uint16_t size);
  bool readTrackData();
  bool purgeMemory();

  std::shared_ptr<ZtSerialPort> port_;
  TrackPtr currentTrack_;
  std::vector<TrackPtr> tracks_;
  uint64_t trackPointCount_ = 0;
  int32_t modelType_ = 0;
  double readTimeout_ = 5.0;
};

}  // namespace kvtrack
