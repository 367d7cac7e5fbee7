#pragma once
// One serial device node (a callout node such as /dev/ttyUSB0) with its
// terminal settings, blocking reads with a time-out and single-call writes.
// The GPS logger drivers use: construct, open, configure, write, read, close.
// Failures are reported through ZtSerialError and log lines; nothing throws.

#include <sys/select.h>
#include <sys/types.h>
#include <termios.h>
#include <unistd.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kvtrack {

inline constexpr const char* ZtSerialErrorDomain = "org.wayfolio.Serial.ErrorDomain";

/// Outcome codes of reads and writes.
inline constexpr int ZtSerialErrorNone = 0;            ///< the operation ended normally
inline constexpr int ZtSerialErrorFatal = 99;          ///< select/read/write failed, hang-up, cancelled
inline constexpr int ZtSerialErrorTimeout = 100;       ///< the read time-out ran out
inline constexpr int ZtSerialErrorBufferFull = 101;    ///< 4,096 bytes read without an end
inline constexpr int ZtSerialErrorNothingToWrite = 200;
inline constexpr int ZtSerialErrorShortWrite = 201;    ///< fewer bytes written than asked

/// Why a read with code 0 ended.
inline constexpr int ZtSerialEndNone = 0;
inline constexpr int ZtSerialEndStopChar = 1;          ///< the stop character arrived
inline constexpr int ZtSerialEndExactCount = 2;        ///< exactly the requested count
inline constexpr int ZtSerialEndMoreThanCount = 3;

/// The error record every read and write fills when asked for one (also on success).
struct ZtSerialError {
  std::string domain = ZtSerialErrorDomain;
  int code = ZtSerialErrorNone;
  std::uint64_t bytesRead = 0;     ///< reads only
  std::uint64_t bytesWritten = 0;  ///< writes only, when at least one byte went out
  int endCode = ZtSerialEndNone;   ///< meaningful when code is 0
  int posixError = 0;              ///< errno of the failing call, 0 when none
};

/// The system calls the port makes while reading and writing. Tests replace
/// them to inject EINTR, short reads and failures.
struct ZtSerialSystemCalls {
  ssize_t (*read)(int fd, void* buffer, size_t count) = ::read;
  ssize_t (*write)(int fd, const void* buffer, size_t count) = ::write;
  int (*select)(int nfds, fd_set* readfds, fd_set* writefds, fd_set* exceptfds,
                struct timeval* timeout) = ::select;
};

class ZtSerialPort {
 public:
  using Data = std::vector<std::uint8_t>;
  /// Keys "ZtSerialOptionServiceName", "ZtSerialOptionSpeed", "ZtSerialOptionDataBits",
  /// "ZtSerialOptionParity" ("Even"/"Odd", absent for none), "ZtSerialOptionStopBits",
  /// "ZtSerialOptionInputFlowControl" ("RTS"/"DTR"), "ZtSerialOptionOutputFlowControl"
  /// ("CTS"/"DSR"/"CAR"), "ZtSerialOptionEcho", "ZtSerialOptionCanonicalMode" ("YES").
  using Options = std::map<std::string, std::string>;
  static constexpr std::size_t kBufferSize = 4096;

  /// path: the device node; name and type are informative (e.g. "ttyUSB0", "tty").
  ZtSerialPort(std::string bsdPath, std::string name, std::string type);
  ~ZtSerialPort();  ///< closes
  ZtSerialPort(const ZtSerialPort&) = delete;
  ZtSerialPort& operator=(const ZtSerialPort&) = delete;

  const std::string& bsdPath() const { return bsdPath_; }
  const std::string& name() const { return name_; }
  const std::string& type() const { return type_; }

  /// Opens read/write without becoming the controlling terminal; false (and a
  /// log line) when the node cannot be opened or is not a terminal.
  bool open();
  bool openWithFlags(int flags);
  bool isOpen() const { return fileDescriptor_.load() >= 0; }
  int fileDescriptor() const { return fileDescriptor_.load(); }
  /// Restores the settings found at open and closes; harmless when closed.
  void close();

  // --- Settings. setSpeed applies at once; the others change the working
  // settings until commitChanges().
  Options options();
  void setOptions(const Options& options);
  /// Any rate in bit/s, through termios2 (BOTHER); false when refused.
  bool setSpeed(unsigned long speed);
  unsigned long getSpeed();
  void setDataBits(int bits);  ///< 8, 7 or 6; anything else gives 5
  int dataBits();
  void setParity(int parity);  ///< 0 none, 1 odd, 2 even; other values change nothing
  void setParityNone();
  void setParityEven();
  void setParityOdd();
  bool testParity();
  bool testParityOdd();
  void setStopBits(int bits);  ///< 1 or 2; other values change nothing
  void setStopBits2(bool two);
  int stopBits();
  void setEchoEnabled(bool echo);
  bool testEchoEnabled();
  void setRTSInputFlowControl(bool on);
  void setDTRInputFlowControl(bool on);
  void setCTSOutputFlowControl(bool on);
  void setDSROutputFlowControl(bool on);
  void setCAROutputFlowControl(bool on);
  bool testRTSInputFlowControl();
  bool testDTRInputFlowControl();
  bool testCTSOutputFlowControl();
  bool testDSROutputFlowControl();
  bool testCAROutputFlowControl();
  void setHangupOnClose(bool on);
  bool testHangupOnClose();
  void setLocalMode(bool on);      ///< ignore modem status lines (CLOCAL)
  void setCanonicalMode(bool on);
  /// Applies the working settings now. False when an earlier failure left the
  /// sticky error flag set, or tcsetattr fails (then the flag and errno are kept).
  bool commitChanges();
  /// Raw mode at 9,600 baud, committed.
  bool makeRaw();
  bool errorFlag() const { return errorFlag_; }
  int lastErrno() const { return lastErrno_; }

  // --- Reading. Every read waits at most readTimeout() seconds in all.
  void setReadTimeout(double seconds) { readTimeout_ = seconds; }
  double readTimeout() const { return readTimeout_; }
  /// Exactly count bytes, a time-out or an error. Returns the bytes read (also
  /// after a time-out or a full buffer), or nothing when none came or code is 99.
  std::optional<Data> readBytes(std::size_t count, ZtSerialError* error = nullptr);
  std::optional<Data> readUpToChar(std::uint8_t stop, ZtSerialError* error = nullptr);
  std::optional<Data> readBytesUpToChar(std::size_t count, std::uint8_t stop,
                                        ZtSerialError* error = nullptr);
  /// Whatever arrives until the time-out or a full buffer.
  std::optional<Data> readData(ZtSerialError* error = nullptr);
  /// String variants: the bytes taken as they are (ASCII/UTF-8).
  std::optional<std::string> readString(ZtSerialError* error = nullptr);
  std::optional<std::string> readStringBytes(std::size_t count, ZtSerialError* error = nullptr);
  std::optional<std::string> readStringUpToChar(std::uint8_t stop, ZtSerialError* error = nullptr);
  std::optional<std::string> readStringBytesUpToChar(std::size_t count, std::uint8_t stop,
                                                     ZtSerialError* error = nullptr);

  // --- Writing: one write() of everything (repeated only after EINTR).
  bool writeBytes(const void* bytes, std::size_t length, ZtSerialError* error = nullptr);
  bool writeData(const Data& data, ZtSerialError* error = nullptr);
  bool writeString(std::string_view text, ZtSerialError* error = nullptr);

  // --- Line control.
  int bytesAvailable();  ///< FIONREAD; -1 when closed or failing
  bool drainInput();     ///< waits until all output is sent (tcdrain)
  bool flushInput(bool input, bool output);
  bool sendBreak();
  bool setDTR();
  bool clearDTR();

  /// Makes a blocked read, and every later one until the next open(), end at
  /// once with code 99. Safe from any thread, not from a signal handler.
  void cancel();
  bool isCancelled() const { return cancelled_.load(); }

  /// Cancels every open port, and ports opened until resumeAllPorts().
  static void cancelAllPorts();
  static void resumeAllPorts();
  static bool allPortsCancelled();

  /// Replaces the system calls for this port (tests).
  void setSystemCalls(const ZtSerialSystemCalls& calls) { calls_ = calls; }

 private:
  std::optional<Data> readCore(bool stopAfterCount, std::size_t count, bool stopAtChar,
                               std::uint8_t stopChar, ZtSerialError* error);
  void recordFailure(const char* what);
  bool apply(int fd, const struct termios& settings, unsigned long speed);

  const std::string bsdPath_;
  const std::string name_;
  const std::string type_;
  std::atomic<int> fileDescriptor_{-1};
  struct termios originalSettings_ {};
  struct termios settings_ {};
  Options options_;
  // Speeds set through termios2, which tcsetattr cannot carry; 0 for none.
  unsigned long originalSpeed_ = 0;
  unsigned long speed_ = 0;
  std::uint8_t buffer_[kBufferSize] = {};
  double readTimeout_ = 1.0;
  bool errorFlag_ = false;
  bool dtrInputFlow_ = false;   // no Linux counterpart; remembered for the options
  bool dsrOutputFlow_ = false;
  int lastErrno_ = 0;
  ZtSerialSystemCalls calls_;
  std::atomic<bool> cancelled_{false};
  int cancelPipe_[2] = {-1, -1};  // written by cancel(), watched by select
  std::mutex writeLock_;
  std::mutex readLock_;
  std::mutex closeLock_;
};

}  // namespace kvtrack
