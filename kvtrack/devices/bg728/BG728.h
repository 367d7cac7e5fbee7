#pragma once
// BG728: the driver for the BG-728 logger. The logger speaks NMEA-style
// sentences ("$BG728,<code>,<id>,<args…>*<xor>\r\n") at 115,200 baud. The
// driver asks for the time zone, then the point count, then every point by
// index, and builds one Track. Every fitting answer triggers the next
// request; anything else triggers a resend of the current one, bounded by
// 130 read passes without a fitting answer.
//
// Nothing throws: the results are an absent track list or false, plus log
// lines. One exchange at a time per instance (calls are serialised).

#include "kvtrack/devices/GpsDriver.h"
#include "kvtrack/model/Track.h"

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kvtrack {

class ZtSerialPort;

class BG728 : public GpsDriver {
 public:
  /// Values of protocolCommand().
  static constexpr int64_t kStateCountRequested = 1;
  static constexpr int64_t kStatePointsRequested = 2;
  static constexpr int64_t kStateFinished = 3;
  static constexpr int64_t kStateFailed = 4;
  static constexpr int64_t kStateDeleteRequested = 5;
  static constexpr int64_t kStateTimezoneRequested = 6;

  /// One answer line taken apart; the checksum has been verified.
  struct Response {
    std::string identifier;   // "$BG728" for the logger's own answers
    std::string commandCode;
    std::string commandId;
    std::vector<std::string> arguments;  // the last one without "*xx"
  };

  BG728();
  ~BG728() override;
  BG728(const BG728&) = delete;
  BG728& operator=(const BG728&) = delete;

  std::string name() const override { return "BG728"; }
  /// device: the serial device path; options are not used. One track (possibly
  /// empty for an empty logger), or absent when the exchange failed.
  std::optional<std::vector<TrackPtr>> importTracksFromDevice(const std::string& device,
                                                              const Options& options) override;
  bool deleteTracksFromDevice(const std::string& device, const Options& options) override;

  /// Seconds a read may wait for the rest of a line; 30 s for the real logger.
  void setReadTimeout(double seconds) { readTimeout_ = seconds; }
  double readTimeout() const { return readTimeout_; }

  /// The protocol state left by the last exchange (see the constants).
  int64_t protocolCommand() const { return protocolCommand_; }

  /// XOR of the characters, as two lower-case hex digits.
  static std::string calculateChecksum(std::string_view text);
  /// An answer line without CR LF; absent when malformed or the checksum is wrong.
  static std::optional<Response> splitResponse(std::string_view line);

 private:
  std::shared_ptr<ZtSerialPort> port() const { return port_; }
  void setPort(std::shared_ptr<ZtSerialPort> port);
  void initPort(const std::string& path);
  void closePort();

  void requestTrackPointCount();
  void requestTimezone();
  void requestDeleteTracks();
  void requestTrackPoint();
  void processTrackPointCountResponse(const std::vector<std::string>& arguments);
  void processTrackPointResponse(const std::vector<std::string>& arguments);
  void processDeleteTracksResponse(const std::vector<std::string>& arguments);
  void processTimezoneResponse(const std::vector<std::string>& arguments);
  void sendRequest();
  void processResponse(const std::string& identifier, int32_t commandId,
                       const std::vector<std::string>& arguments);
  void readData();
  /// Writes a request whose write errors do not matter (the resends cover them).
  void write(std::string_view text);

  std::shared_ptr<ZtSerialPort> port_;
  TrackPtr currentTrack_;
  int64_t protocolCommand_ = 0;
  int64_t numberOfTrackPoints_ = 0;
  int64_t trackPointCounter_ = 0;
  int64_t timezone_ = 0;  // hours
  int64_t wrongResponseCounter_ = 0;
  double readTimeout_ = 30.0;
  std::mutex exchangeMutex_;
};

}  // namespace kvtrack
