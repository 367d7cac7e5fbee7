#pragma once
// An emulated i-gotU USB logger behind the HidTransport the driver uses. It
// keeps the logger's flash (records of 32 bytes from 0x1000 on, the rest
// erased to 0xFF) and answers the 16-byte command frames, which arrive as two
// 8-byte output reports, as the logger does: 93 00 00 after the first half,
// 93 and the big-endian data length after the second, then the data. Input
// goes out in interrupt packets of at most 64 bytes.
//
// On request it sends stray answers (3 bytes not starting with 0x93, as
// often as asked) before an acknowledgement, goes silent, or is unplugged.

#include "kvtrack/devices/usb/HidTransport.h"
#include "tests/devices/LoggerWire.h"

#include <array>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <vector>

namespace kvtrack::test {

/// One logged fix; the year is a calendar year, stored as its place in the 16-year cycle.
struct IGotUFix {
  std::uint8_t flags = 0x04;  // normal log
  int year = 2024;
  int month = 5, day = 17, hour = 21, minute = 42, milliseconds = 30500;
  std::int32_t latitude = 481234567, longitude = 115678901, elevationCm = 52049;
  std::uint8_t satellites = 0x58;  // 5 found, 8 qualified
};

class IGotUEmulator {
 public:
  static constexpr std::size_t kRecordSize = 32;
  static constexpr std::size_t kRecordStart = 0x1000;
  static constexpr std::size_t kPacketSize = 64;
  using Frame = std::array<std::uint8_t, 16>;

  enum class Fault {
    kNone,
    /// `repeat` stray 3-byte answers before each acknowledgement of the frame.
    kStrayAnswers,
    /// From the frame on, nothing is answered (the reports still go through).
    kSilence,
    /// At the frame the logger is pulled out: sending and reading fail from then on.
    kUnplug,
  };

  IGotUEmulator() = default;
  IGotUEmulator(const IGotUEmulator&) = delete;
  IGotUEmulator& operator=(const IGotUEmulator&) = delete;

  /// The 32-byte record of a fix.
  static std::vector<std::uint8_t> record(const IGotUFix& fix);
  /// Flash holding the records from 0x1000 on; the count reports their number.
  void setRecords(const std::vector<std::vector<std::uint8_t>>& records);
  void setIdentity(std::uint32_t serialNumber, std::uint8_t modelByte);
  /// Misbehaves at the nth frame (0-based) with command byte `command` (byte 1).
  void setFault(Fault fault, std::uint8_t command, int occurrence, int repeat = 1);

  /// Connects a new link to the logger; the emulator must outlive it.
  HidTransportOpener opener();

  /// Complete frames received, in order.
  std::vector<Frame> frames() const { return lockedCopy(mutex_, frames_); }
  int badFrames() const { return lockedCopy(mutex_, badFrames_); }
  int linksOpened() const { return lockedCopy(mutex_, linksOpened_); }
  int linksOpen() const { return lockedCopy(mutex_, linksOpen_); }
  /// Waits until the fault's frame has come in; false after the time-out.
  bool waitForFault(std::chrono::milliseconds timeout) const;

 private:
  class Link;
  friend class Link;

  Status receive(std::span<const std::uint8_t> report);
  Result<size_t> transmit(std::span<std::uint8_t> into, std::chrono::milliseconds timeout);
  void handleFrame(const Frame& frame);
  std::vector<std::uint8_t> answerTo(const Frame& frame);
  void queue(std::initializer_list<std::uint8_t> bytes);
  void queueStrays();
  bool faultStartsAt(std::uint8_t command);

  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  std::vector<std::uint8_t> flash_;
  std::uint16_t recordCount_ = 0;
  std::uint32_t serialNumber_ = 0x01020304;
  std::uint8_t modelByte_ = 8;
  Fault fault_ = Fault::kNone;
  std::uint8_t faultCommand_ = 0;
  int faultOccurrence_ = 0;
  int faultRepeat_ = 1;
  bool faultActive_ = false;  // the current frame misbehaves
  bool faultReached_ = false;
  bool silent_ = false;
  bool unplugged_ = false;
  std::map<std::uint8_t, int> seen_;
  std::vector<std::uint8_t> firstHalf_;
  std::deque<std::uint8_t> outgoing_;
  std::vector<Frame> frames_;
  int badFrames_ = 0;
  int linksOpened_ = 0;
  int linksOpen_ = 0;
};

}  // namespace kvtrack::test
