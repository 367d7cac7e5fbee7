#pragma once
// An emulated BG-728 logger on the master side of a pty pair. A thread reads
// the driver's request sentences and answers them byte for byte as the
// logger does, from a list of stored points. Faults can be planned for the
// first arrival of a given request to make the logger misbehave.

#include "tests/devices/LoggerWire.h"
#include "tests/devices/PtyPair.h"

#include <atomic>
#include <chrono>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace kvtrack::test {

struct BG728Point {
  std::string time;      // "HH:MM:SS"
  std::string date;      // "MMDDYY"
  std::string latitude;  // decimal degrees as the logger writes them
  std::string longitude;
  std::string elevation;  // metres
};

class BG728Emulator {
 public:
  enum class Fault {
    WrongChecksum,         // the answer's checksum is off by one
    TwoAnswersInOneWrite,  // the answer twice, in one write
    ForeignLineFirst,      // a GPS fix sentence, then the answer, in one write
    SplitAcrossWrites,     // half the answer, a pause of splitPause, the rest
    StallMidLine,          // half the answer, then nothing more
    WrongIndex,            // a point request answered with the next point
    Silence,               // no answer at all
    HangUp,                // the far side closes instead of answering
  };

  /// Request texts as the driver sends them, without CR LF.
  static constexpr const char* kTimezoneRequest = "$BG728,0,3*3B";
  static constexpr const char* kCountRequest = "$BG728,0,16*0F";
  static constexpr const char* kDeleteRequest = "$BG728,1,18*00";
  static std::string pointRequest(int index);

  /// The pty pair must outlive the emulator; its master side is used.
  explicit BG728Emulator(PtyPair& pty);
  ~BG728Emulator();
  BG728Emulator(const BG728Emulator&) = delete;
  BG728Emulator& operator=(const BG728Emulator&) = delete;

  // Set up before start().
  void setPoints(std::vector<BG728Point> points) { points_ = std::move(points); }
  void setTimezone(int hours) { timezone_ = hours; }
  /// Every answer with a wrong checksum (a logger on a noisy line).
  void setAlwaysWrongChecksum(bool on) { alwaysWrongChecksum_ = on; }
  void setUpperCaseChecksums(bool on) { upperCaseChecksums_ = on; }
  void setSplitPause(std::chrono::milliseconds pause) { splitPause_ = pause; }
  /// The fault hits the first arrival of the request (text without CR LF).
  void addFault(const std::string& request, Fault fault);

  void start();
  void stop();

  /// Every request line received, in order (without CR LF).
  std::vector<std::string> requests() const { return lockedCopy(mutex_, requests_); }
  int countOf(const std::string& request) const;
  std::size_t requestCount() const { return requests().size(); }
  /// Points still stored (a delete request clears them).
  std::size_t storedPointCount() const { return lockedCopy(mutex_, points_).size(); }

  /// "$" + body + "*" + checksum + CR LF, the checksum in lower case.
  static std::string sentence(const std::string& body) { return nmeaSentence(body, false); }

 private:
  void run();
  void answer(const std::string& request);
  /// The answer body (between "$" and "*"), or empty when the logger stays silent.
  std::string answerBody(const std::string& request, bool wrongIndex);

  PtyPair& pty_;
  std::vector<BG728Point> points_;
  int timezone_ = 0;
  bool alwaysWrongChecksum_ = false;
  bool upperCaseChecksums_ = false;
  std::chrono::milliseconds splitPause_{300};
  std::map<std::string, Fault> faults_;

  mutable std::mutex mutex_;  // guards requests_, faults_ and points_ once running
  std::vector<std::string> requests_;
  std::atomic<bool> stopping_{false};
  bool hungUp_ = false;
  std::thread thread_;
};

}  // namespace kvtrack::test
