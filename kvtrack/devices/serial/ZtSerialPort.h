#pragma once
// One serial device node (a callout node such as /dev/ttyUSB0) with its
// terminal settings, blocking reads with a time-out, single-call writes, and
// optional background reading and writing that report to a delegate.
// The GPS logger drivers use: construct, open, configure, write, read, close.
// Failures are reported through ZtSerialError and log lines; nothing throws.
//
// Threads: reads, writes and close each have their own lock. close() (and
// cancel()) wake a read blocked on another thread, which then ends with code
// 99; close() stops the background threads before it lets go of the node.

#include <sys/select.h>
#include <sys/types.h>
#include <termios.h>
#include <unistd.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "kvtrack/devices/serial/ZtSerialText.h"
#include "kvtrack/support/UniqueFd.h"

namespace kvtrack {

inline constexpr const char* ZtSerialErrorDomain = "org.wayfolio.Serial.ErrorDomain";

/// Outcome codes of reads and writes.
inline constexpr int ZtSerialErrorNone = 0;            ///< the operation ended normally
inline constexpr int ZtSerialErrorFatal = 99;          ///< select/read/write failed, hang-up, closed, cancelled
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

class ZtSerialPort;

/// Receives what the background threads of a port have to tell. Every call
/// comes on that port's reading or writing thread. A delegate may stop the
/// background work of the port, or close it, from inside a call; it may let
/// go of its last reference to the port only from the ...Ended calls.
class ZtSerialPortDelegate {
 public:
  virtual ~ZtSerialPortDelegate() = default;
  /// Bytes the background reader received, in arrival order, never empty.
  virtual void serialPortReadData(ZtSerialPort& port, const std::vector<std::uint8_t>& data);
  /// The background reader ended: code 0 when stopped (stopReadInBackground,
  /// close), 99 when the line failed, hung up or the port was cancelled.
  virtual void serialPortReadEnded(ZtSerialPort& port, const ZtSerialError& error);
  /// After every piece the background writer got out: bytes so far, of total.
  virtual void serialPortWriteProgress(ZtSerialPort& port, std::uint64_t written, std::uint64_t total);
  /// The background writer ended: code 0 when everything went out, 201 when
  /// stopped before that, 99 when the line failed; bytesWritten says how far it came.
  virtual void serialPortWriteEnded(ZtSerialPort& port, const ZtSerialError& error);
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
  ~ZtSerialPort();  ///< stops the background threads and closes
  ZtSerialPort(const ZtSerialPort&) = delete;
  ZtSerialPort& operator=(const ZtSerialPort&) = delete;

  const std::string& bsdPath() const { return bsdPath_; }
  const std::string& name() const { return name_; }
  const std::string& type() const { return type_; }

  /// Opens read/write without becoming the controlling terminal; false (and a
  /// log line) when the node cannot be opened, is taken or is not a terminal.
  bool open();
  bool openWithFlags(int flags);
  bool isOpen() const { return fileDescriptor_.load() >= 0; }
  int fileDescriptor() const { return fileDescriptor_.load(); }
  /// Stops the background threads, restores the settings found at open and
  /// closes; a read blocked on another thread ends with code 99. Harmless when closed.
  void close();

  // --- The delegate: held weakly, told about background reads and writes.
  void setDelegate(std::weak_ptr<ZtSerialPortDelegate> delegate);
  std::shared_ptr<ZtSerialPortDelegate> delegate() const;

  // --- Ownership token: a port found in the port list may be claimed by one
  // user at a time. Nothing enforces it; users ask before they take a port.
  /// True when the port was free or already held by this owner; the owner then holds it.
  bool obtainBy(const std::string& owner);
  /// Gives the port back, whoever holds it.
  void free();
  /// Who holds the port, or nothing when it is free.
  std::optional<std::string> owner() const;
  bool available() const { return !owner().has_value(); }

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
  /// Until a read brings the stop character as its last byte (a whole line
  /// from a device that answers line by line), a time-out or a full buffer.
  std::optional<Data> readUpToChar(std::uint8_t stop, ZtSerialError* error = nullptr);
  /// Whichever comes first: count bytes or the stop character.
  std::optional<Data> readBytesUpToChar(std::size_t count, std::uint8_t stop,
                                        ZtSerialError* error = nullptr);
  /// Whatever arrives until the time-out or a full buffer.
  std::optional<Data> readData(ZtSerialError* error = nullptr);
  /// The same reads as text, converted from the encoding to UTF-8. Nothing
  /// when no byte came, or the bytes are not text in that encoding (the error
  /// record still tells how the read ended).
  std::optional<std::string> readStringUsingEncoding(ZtStringEncoding encoding,
                                                     ZtSerialError* error = nullptr);
  std::optional<std::string> readBytes(std::size_t count, ZtStringEncoding encoding,
                                       ZtSerialError* error = nullptr);
  std::optional<std::string> readUpToChar(std::uint8_t stop, ZtStringEncoding encoding,
                                          ZtSerialError* error = nullptr);
  std::optional<std::string> readBytesUpToChar(std::size_t count, std::uint8_t stop,
                                               ZtStringEncoding encoding,
                                               ZtSerialError* error = nullptr);
  /// Older name: readStringUsingEncoding with UTF-8.
  std::optional<std::string> readString(ZtSerialError* error = nullptr);

  // --- Writing: one write() of everything (repeated only after EINTR).
  bool writeBytes(const void* bytes, std::size_t length, ZtSerialError* error = nullptr);
  bool writeData(const Data& data, ZtSerialError* error = nullptr);
  /// The text (UTF-8) converted to the encoding; text that the encoding
  /// cannot carry writes nothing and gives code 200.
  bool writeString(std::string_view text, ZtStringEncoding encoding, ZtSerialError* error = nullptr);
  /// Older name: the bytes of the text as they are.
  bool writeString(std::string_view text, ZtSerialError* error = nullptr);

  // --- Background reading and writing, reported to the delegate.
  /// Starts a thread that hands every arrival to the delegate until stopped,
  /// the line fails or the port closes. False when closed or already running.
  bool readDataInBackground();
  /// Ends the background reader and waits for it; harmless when none runs.
  void stopReadInBackground();
  bool isReadingInBackground() const { return reading_.load(); }
  /// Starts a thread that writes the data piece by piece, reporting progress.
  /// False when closed, the data is empty or a background write still runs.
  bool writeDataInBackground(Data data);
  /// Ends the background writer after the piece in progress and waits for it.
  void stopWriteInBackground();
  bool isWritingInBackground() const { return writing_.load(); }

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
  struct ReadGoal;
  struct ReadState;
  std::optional<Data> readCore(const ReadGoal& goal, ZtSerialError* error);
  bool refuseRead(const ReadGoal& goal, ReadState& state) const;
  void readLoop(int fd, const ReadGoal& goal, ReadState& state);
  int waitReadable(int fd, long long microseconds, ReadState& state);
  bool readOnce(int fd, const ReadGoal& goal, ReadState& state);
  void recordFailure(const char* what);
  bool apply(int fd, const struct termios& settings, unsigned long speed);
  void registerOpen();
  void backgroundReadLoop(int stopFd);
  int waitForBackgroundRead(int fd, int stopFd);
  void backgroundWriteLoop(Data data, int stopFd);
  bool writePiece(const Data& data, std::uint64_t& written, ZtSerialError& outcome);

  const std::string bsdPath_;
  const std::string name_;
  const std::string type_;
  UniqueFd descriptor_;                 // owns the node while open
  std::atomic<int> fileDescriptor_{-1};  // what other threads see of it
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
  // Written by cancel() and close(), watched by every wait; emptied at open.
  UniqueFd wakeRead_;
  UniqueFd wakeWrite_;
  std::mutex writeLock_;
  std::mutex readLock_;
  std::mutex closeLock_;

  mutable std::mutex delegateLock_;
  std::weak_ptr<ZtSerialPortDelegate> delegate_;
  mutable std::mutex ownerLock_;
  std::optional<std::string> owner_;

  std::mutex backgroundLock_;  // starting and stopping the threads
  std::thread reader_;
  std::thread writer_;
  std::atomic<bool> reading_{false};
  std::atomic<bool> writing_{false};
  UniqueFd readerStop_[2];
  UniqueFd writerStop_[2];
};

}  // namespace kvtrack
