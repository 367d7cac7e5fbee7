#pragma once
// An emulated i-gotU GT-800 on the master side of a pseudo-terminal. It keeps
// the logger's serial flash (4 KiB sectors, erased to 0xFF) and answers the
// 16-byte command frames as the logger does: 0x93, a big-endian 16-bit data
// length, then the data. On request it misbehaves so that the driver's
// handling of a bad link can be tested.

#include "tests/devices/LoggerWire.h"
#include "tests/devices/PtyPair.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <thread>
#include <vector>

namespace kvtrack::test {

/// One logged fix; only the year's place in the 16-year cycle is stored.
struct GT800Fix {
  std::uint8_t flags = 0;  // a plain track point
  int year = 0;
  int month = 5, day = 17, hour = 21, minute = 42, milliseconds = 30500;
  std::int32_t latitude = 481234567, longitude = 115678901, elevationCm = 52049;
  std::uint8_t satellites = 0x58;  // 5 found, 8 qualified
};

class GT800Emulator {
 public:
  static constexpr std::size_t kSectorSize = 4096;
  static constexpr std::size_t kSectorCount = 0x700;  // 7 MiB of flash
  static constexpr std::size_t kRecordSize = 32;
  /// Third JEDEC identification byte; 0x17 makes the driver's model type 1.
  static constexpr std::uint8_t kCapacityId = 0x17;

  enum class Fault {
    kNone,
    /// The command is taken as garbled on the line (bad checksum) and dropped unanswered.
    kDropCommand,
    /// Garbage (not starting with 0x93) of the answer's length goes out before the answer.
    kGarbageBeforeAnswer,
    /// The answer is replaced by garbage; nothing else follows.
    kGarbageInsteadOfAnswer,
    /// A read-data answer carries only half of the bytes asked for.
    kTruncatedData,
    /// The acknowledgement and the data of a read go out in one write (normally two).
    kTwoAnswersInOneWrite,
    /// From the command on, the logger answers nothing.
    kSilence,
    /// The logger closes the line (hang-up) instead of answering.
    kHangUp,
  };

  /// The pair must outlive the emulator; the emulator owns its master side.
  explicit GT800Emulator(PtyPair& pty);
  ~GT800Emulator();
  GT800Emulator(const GT800Emulator&) = delete;
  GT800Emulator& operator=(const GT800Emulator&) = delete;

  void start();
  void stop();

  /// Misbehaves at the nth command frame (0-based, counted over the whole
  /// session) whose flash opcode (byte 6) or, for opcode-less commands, byte 1
  /// matches `command`; any command when `command` is 0.
  void setFault(Fault fault, std::uint8_t command = 0, int occurrence = 0);

  /// The 32-byte record of a fix (elevation at byte 20).
  static std::vector<std::uint8_t> record(const GT800Fix& fix) { return packedRecord(fix, 20); }

  /// Writes one 32-byte record at record index i (stored from 0x1000 on).
  void putRecord(std::size_t index, const std::vector<std::uint8_t>& record);
  void putBytes(std::size_t address, const std::vector<std::uint8_t>& bytes);
  /// Number of records the count command reports.
  void setRecordCount(std::uint32_t count) { lockedSet(mutex_, recordCount_, count); }
  /// Status reads answering "busy" after each erase before it is done.
  void setEraseBusyPolls(int polls) { lockedSet(mutex_, eraseBusyPolls_, polls); }

  std::vector<std::uint8_t> image() const { return lockedCopy(mutex_, flash_); }
  /// Sectors erased, in the order of the erase commands.
  std::vector<std::size_t> erasedSectors() const { return lockedCopy(mutex_, erased_); }
  /// Erase commands refused for want of a write enable first.
  int refusedErases() const { return lockedCopy(mutex_, refusedErases_); }
  /// Frames received with a wrong checksum.
  int badFrames() const { return lockedCopy(mutex_, badFrames_); }
  /// NMEA output modes set, in order.
  std::vector<std::uint8_t> nmeaModes() const { return lockedCopy(mutex_, nmeaModes_); }

 private:
  void run();
  using Writes = std::vector<std::vector<std::uint8_t>>;  // each element goes out in one write()
  void handle(const std::uint8_t* frame);
  /// The fault planned for this frame, when it is its turn (mutex_ held).
  Fault faultFor(const std::uint8_t* frame);
  /// The logger's answer to a good frame; false for an unknown command (mutex_ held).
  bool answerFrame(const std::uint8_t* frame, Fault fault, Writes& writes);
  void answerReadData(const std::uint8_t* frame, Fault fault, Writes& writes);
  void answerSectorErase(const std::uint8_t* frame, Writes& writes);
  void send(const std::vector<std::uint8_t>& bytes);
  static std::vector<std::uint8_t> answer(const std::vector<std::uint8_t>& data);

  PtyPair& pty_;
  std::thread thread_;
  std::atomic<bool> running_{false};
  mutable std::mutex mutex_;
  std::vector<std::uint8_t> flash_;
  std::uint32_t recordCount_ = 0;
  bool writeEnabled_ = false;
  int busyPollsLeft_ = 0;
  int eraseBusyPolls_ = 2;
  Fault fault_ = Fault::kNone;
  std::uint8_t faultCommand_ = 0;
  int faultOccurrence_ = 0;
  int matchingSeen_ = 0;
  bool silent_ = false;
  std::vector<std::size_t> erased_;
  int refusedErases_ = 0;
  int badFrames_ = 0;
  std::vector<std::uint8_t> nmeaModes_;
};

}  // namespace kvtrack::test
