#include "kvtrack/devices/serial/ZtSerialPort.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <set>

#include "kvtrack/devices/serial/ZtSerialPortSpeed.h"
#include "kvtrack/support/Log.h"

namespace kvtrack {

namespace {

// Every open port, so that a download can be cancelled from outside the driver.
std::mutex& registryLock() {
  static std::mutex lock;
  return lock;
}
std::set<ZtSerialPort*>& openPorts() {
  static std::set<ZtSerialPort*> ports;
  return ports;
}
std::atomic<bool> allCancelled{false};

// The CBAUD value that stands for "speed in c_ospeed" (BOTHER in the kernel's headers).
constexpr tcflag_t kOtherSpeed = 0010000;

void drainPipe(int fd) {
  char sink[64];
  while (::read(fd, sink, sizeof sink) > 0) {
  }
}

}  // namespace

ZtSerialPort::ZtSerialPort(std::string bsdPath, std::string name, std::string type)
    : bsdPath_(std::move(bsdPath)), name_(std::move(name)), type_(std::move(type)) {
  if (::pipe2(cancelPipe_, O_CLOEXEC | O_NONBLOCK) != 0) {
    logf("serial port: cannot create the cancel pipe: {}", std::strerror(errno));
    cancelPipe_[0] = cancelPipe_[1] = -1;
  }
}

ZtSerialPort::~ZtSerialPort() {
  close();
  for (int fd : cancelPipe_) {
    if (fd >= 0) ::close(fd);
  }
}

bool ZtSerialPort::open() { return openWithFlags(O_RDWR | O_NOCTTY); }

bool ZtSerialPort::openWithFlags(int flags) {
  if (isOpen()) return true;
  int fd = ::open(bsdPath_.c_str(), flags | O_CLOEXEC);
  if (fd < 0) {
    int e = errno;
    logf("serial port: cannot open {}: {}", bsdPath_, std::strerror(e));
    if (e == EACCES) logf("serial port: no permission for {} (is the user in the dialout group?)", bsdPath_);
    return false;
  }
  // Another program holding the port would scramble the exchange: claim it
  // and say clearly when it is taken.
  if (::flock(fd, LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK) {
    logf("serial port: {} is busy (another program has it open)", bsdPath_);
    ::close(fd);
    return false;
  }
  if (::tcgetattr(fd, &originalSettings_) != 0) {
    logf("serial port: {} is not a terminal: {}", bsdPath_, std::strerror(errno));
    ::close(fd);
    return false;
  }
  settings_ = originalSettings_;
  originalSpeed_ = (originalSettings_.c_cflag & CBAUD) == kOtherSpeed ? detail::arbitrarySpeed(fd) : 0;
  speed_ = originalSpeed_;
  errorFlag_ = false;
  lastErrno_ = 0;
  cancelled_ = false;
  if (cancelPipe_[0] >= 0) drainPipe(cancelPipe_[0]);
  fileDescriptor_ = fd;
  options_ = options();
  {
    std::lock_guard lock(registryLock());
    openPorts().insert(this);
  }
  if (allCancelled) cancel();
  return true;
}

void ZtSerialPort::close() {
  if (!isOpen()) return;
  std::lock_guard lock(closeLock_);
  {
    std::lock_guard registry(registryLock());
    openPorts().erase(this);
  }
  int fd = fileDescriptor_.exchange(-1);
  if (fd < 0) return;
  // Non-blocking so that restoring the settings cannot wait on unsent output.
  int fl = ::fcntl(fd, F_GETFL);
  if (fl >= 0) ::fcntl(fd, F_SETFL, fl | O_NONBLOCK);
  apply(fd, originalSettings_, originalSpeed_);
  ::close(fd);
}

void ZtSerialPort::cancel() {
  cancelled_ = true;
  if (cancelPipe_[1] >= 0) {
    char one = 1;
    [[maybe_unused]] ssize_t ignored = ::write(cancelPipe_[1], &one, 1);
  }
}

void ZtSerialPort::cancelAllPorts() {
  allCancelled = true;
  std::lock_guard lock(registryLock());
  for (ZtSerialPort* port : openPorts()) port->cancel();
}

void ZtSerialPort::resumeAllPorts() { allCancelled = false; }

bool ZtSerialPort::allPortsCancelled() { return allCancelled; }

// --- Settings -------------------------------------------------------------

ZtSerialPort::Options ZtSerialPort::options() {
  Options o;
  o["ZtSerialOptionServiceName"] = name_;
  o["ZtSerialOptionSpeed"] = std::to_string(getSpeed());
  o["ZtSerialOptionDataBits"] = std::to_string(dataBits());
  if (testParity()) o["ZtSerialOptionParity"] = testParityOdd() ? "Odd" : "Even";
  o["ZtSerialOptionStopBits"] = std::to_string(stopBits());
  if (testRTSInputFlowControl()) o["ZtSerialOptionInputFlowControl"] = "RTS";
  else if (testDTRInputFlowControl()) o["ZtSerialOptionInputFlowControl"] = "DTR";
  if (testCTSOutputFlowControl()) o["ZtSerialOptionOutputFlowControl"] = "CTS";
  else if (testDSROutputFlowControl()) o["ZtSerialOptionOutputFlowControl"] = "DSR";
  else if (testCAROutputFlowControl()) o["ZtSerialOptionOutputFlowControl"] = "CAR";
  if (testEchoEnabled()) o["ZtSerialOptionEcho"] = "YES";
  if (settings_.c_lflag & ICANON) o["ZtSerialOptionCanonicalMode"] = "YES";
  return o;
}

void ZtSerialPort::setOptions(const Options& options) {
  auto value = [&](const char* key) -> std::string {
    auto it = options.find(key);
    return it == options.end() ? std::string() : it->second;
  };
  if (auto v = value("ZtSerialOptionDataBits"); !v.empty()) setDataBits(std::atoi(v.c_str()));
  auto parity = value("ZtSerialOptionParity");
  setParity(parity == "Odd" ? 1 : parity == "Even" ? 2 : 0);
  if (auto v = value("ZtSerialOptionStopBits"); !v.empty()) setStopBits(std::atoi(v.c_str()));
  auto in = value("ZtSerialOptionInputFlowControl");
  setRTSInputFlowControl(in == "RTS");
  setDTRInputFlowControl(in == "DTR");
  auto out = value("ZtSerialOptionOutputFlowControl");
  setCTSOutputFlowControl(out == "CTS");
  setDSROutputFlowControl(out == "DSR");
  setCAROutputFlowControl(out == "CAR");
  setEchoEnabled(value("ZtSerialOptionEcho") == "YES");
  setCanonicalMode(value("ZtSerialOptionCanonicalMode") == "YES");
  commitChanges();
  if (auto v = value("ZtSerialOptionSpeed"); !v.empty()) setSpeed(std::strtoul(v.c_str(), nullptr, 10));
}

bool ZtSerialPort::setSpeed(unsigned long speed) {
  int fd = fileDescriptor_;
  if (fd < 0 || speed == 0) return false;
  if (int e = detail::setArbitrarySpeed(fd, speed); e != 0) {
    logf("serial port: {} refuses the speed {}: {}", bsdPath_, speed, std::strerror(e));
    return false;
  }
  speed_ = speed;  // so that the next commit keeps it
  options_["ZtSerialOptionSpeed"] = std::to_string(speed);
  return true;
}

unsigned long ZtSerialPort::getSpeed() {
  int fd = fileDescriptor_;
  return fd < 0 ? 0 : detail::arbitrarySpeed(fd);
}

void ZtSerialPort::setDataBits(int bits) {
  settings_.c_cflag &= ~CSIZE;
  settings_.c_cflag |= bits == 8 ? CS8 : bits == 7 ? CS7 : bits == 6 ? CS6 : CS5;
}

int ZtSerialPort::dataBits() {
  switch (settings_.c_cflag & CSIZE) {
    case CS8: return 8;
    case CS7: return 7;
    case CS6: return 6;
    default: return 5;
  }
}

void ZtSerialPort::setParity(int parity) {
  if (parity == 0) {
    settings_.c_cflag &= ~PARENB;  // only the enable flag, as callers expect
  } else if (parity == 1) {
    settings_.c_cflag |= PARENB | PARODD;
  } else if (parity == 2) {
    settings_.c_cflag |= PARENB;
    settings_.c_cflag &= ~PARODD;
  }
}
void ZtSerialPort::setParityNone() { setParity(0); }
void ZtSerialPort::setParityEven() { setParity(2); }
void ZtSerialPort::setParityOdd() { setParity(1); }
bool ZtSerialPort::testParity() { return settings_.c_cflag & PARENB; }
bool ZtSerialPort::testParityOdd() { return (settings_.c_cflag & PARENB) && (settings_.c_cflag & PARODD); }

void ZtSerialPort::setStopBits(int bits) {
  if (bits == 1) settings_.c_cflag &= ~CSTOPB;
  else if (bits == 2) settings_.c_cflag |= CSTOPB;
}
void ZtSerialPort::setStopBits2(bool two) { setStopBits(two ? 2 : 1); }
int ZtSerialPort::stopBits() { return (settings_.c_cflag & CSTOPB) ? 2 : 1; }

namespace {
void setFlag(tcflag_t& field, tcflag_t flag, bool on) {
  if (on) field |= flag;
  else field &= ~flag;
}
}  // namespace

void ZtSerialPort::setEchoEnabled(bool echo) { setFlag(settings_.c_lflag, ECHO, echo); }
bool ZtSerialPort::testEchoEnabled() { return settings_.c_lflag & ECHO; }
// Linux has one hardware handshake flag for both directions (RTS/CTS) and
// none for DTR/DSR or carrier; those map onto CRTSCTS / CLOCAL as the nearest.
void ZtSerialPort::setRTSInputFlowControl(bool on) { setFlag(settings_.c_cflag, CRTSCTS, on); }
void ZtSerialPort::setDTRInputFlowControl(bool on) { dtrInputFlow_ = on; }
void ZtSerialPort::setCTSOutputFlowControl(bool on) { setFlag(settings_.c_cflag, CRTSCTS, on); }
void ZtSerialPort::setDSROutputFlowControl(bool on) { dsrOutputFlow_ = on; }
void ZtSerialPort::setCAROutputFlowControl(bool on) { setFlag(settings_.c_cflag, CLOCAL, !on); }
bool ZtSerialPort::testRTSInputFlowControl() { return settings_.c_cflag & CRTSCTS; }
bool ZtSerialPort::testDTRInputFlowControl() { return dtrInputFlow_; }
bool ZtSerialPort::testCTSOutputFlowControl() { return settings_.c_cflag & CRTSCTS; }
bool ZtSerialPort::testDSROutputFlowControl() { return dsrOutputFlow_; }
bool ZtSerialPort::testCAROutputFlowControl() { return !(settings_.c_cflag & CLOCAL); }
void ZtSerialPort::setHangupOnClose(bool on) { setFlag(settings_.c_cflag, HUPCL, on); }
bool ZtSerialPort::testHangupOnClose() { return settings_.c_cflag & HUPCL; }
void ZtSerialPort::setLocalMode(bool on) { setFlag(settings_.c_cflag, CLOCAL, on); }
void ZtSerialPort::setCanonicalMode(bool on) { setFlag(settings_.c_lflag, ICANON, on); }

bool ZtSerialPort::commitChanges() {
  if (errorFlag_) return false;
  int fd = fileDescriptor_;
  if (fd < 0) return false;
  if (!apply(fd, settings_, speed_)) {
    recordFailure("cannot apply the settings");
    return false;
  }
  options_ = options();
  return true;
}

bool ZtSerialPort::makeRaw() {
  ::cfmakeraw(&settings_);
  settings_.c_cflag |= CLOCAL | CREAD;
  ::cfsetspeed(&settings_, B9600);
  speed_ = 0;
  return commitChanges();
}

bool ZtSerialPort::apply(int fd, const struct termios& settings, unsigned long speed) {
  if (speed == 0) return ::tcsetattr(fd, TCSANOW, &settings) == 0;
  static_assert(NCCS >= 19, "the kernel's termios2 has 19 control characters");
  int e = detail::applySettings(fd, settings.c_iflag, settings.c_oflag, settings.c_cflag,
                                settings.c_lflag, settings.c_cc, speed);
  errno = e;
  return e == 0;
}

void ZtSerialPort::recordFailure(const char* what) {
  lastErrno_ = errno;
  errorFlag_ = true;
  logf("serial port: {} on {}: {}", what, bsdPath_, std::strerror(lastErrno_));
}

// --- Reading --------------------------------------------------------------

std::optional<ZtSerialPort::Data> ZtSerialPort::readCore(bool stopAfterCount, std::size_t count,
                                                         bool stopAtChar, std::uint8_t stopChar,
                                                         ZtSerialError* error) {
  std::lock_guard lock(readLock_);
  using Clock = std::chrono::steady_clock;
  long long remaining = static_cast<long long>(readTimeout_ * 1000000.0);
  const auto start = Clock::now();
  const std::size_t limit = stopAfterCount ? std::min(count, kBufferSize) : kBufferSize;
  std::size_t have = 0;
  int code = ZtSerialErrorTimeout;
  int endCode = ZtSerialEndNone;
  int posixError = 0;
  const int fd = fileDescriptor_;

  if (fd < 0) {
    code = ZtSerialErrorFatal;
    logf("serial port: read from {} while closed", bsdPath_);
  } else if (cancelled_) {
    code = ZtSerialErrorFatal;
    logLine("serial port: read cancelled");
  } else if (stopAfterCount && count == 0) {
    code = ZtSerialErrorNone;
    endCode = ZtSerialEndExactCount;
  } else if (remaining >= 1) {
    for (;;) {
      fd_set readable;
      FD_ZERO(&readable);
      FD_SET(fd, &readable);
      int highest = fd;
      if (cancelPipe_[0] >= 0) {
        FD_SET(cancelPipe_[0], &readable);
        highest = std::max(highest, cancelPipe_[0]);
      }
      long long wait = std::max(remaining, 1LL);
      struct timeval tv {};
      tv.tv_sec = static_cast<time_t>(wait / 1000000);
      tv.tv_usec = static_cast<suseconds_t>(wait % 1000000);
      int ready = calls_.select(highest + 1, &readable, nullptr, nullptr, &tv);
      if (ready < 0 && errno == EINTR) {
        // A signal is no reason to give up; the clock still runs.
      } else if (ready < 0) {
        code = ZtSerialErrorFatal;
        posixError = errno;
        logf("serial port: waiting on {} failed: {}", bsdPath_, std::strerror(posixError));
        break;
      } else if (ready == 0) {
        break;  // time-out
      } else if (cancelled_ || (cancelPipe_[0] >= 0 && FD_ISSET(cancelPipe_[0], &readable))) {
        code = ZtSerialErrorFatal;
        logLine("serial port: read cancelled");
        break;
      } else {
        ssize_t got = calls_.read(fd, buffer_ + have, limit - have);
        if (got < 0 && errno == EINTR) {
          // Retried on the next pass, within the remaining time.
        } else if (got <= 0) {
          code = ZtSerialErrorFatal;
          if (got < 0) posixError = errno;
          logf("serial port: {} stopped answering ({})", bsdPath_,
               got < 0 ? std::strerror(posixError) : "end of file");
          break;
        } else {
          have += static_cast<std::size_t>(got);
          if (stopAfterCount && have >= count) {
            code = ZtSerialErrorNone;
            endCode = have == count ? ZtSerialEndExactCount : ZtSerialEndMoreThanCount;
            break;
          }
          if (stopAtChar && buffer_[have - 1] == stopChar) {
            code = ZtSerialErrorNone;
            endCode = ZtSerialEndStopChar;
            break;
          }
          if (have >= kBufferSize) {
            code = ZtSerialErrorBufferFull;
            break;
          }
        }
      }
      // The whole time since the start is subtracted on every pass, so the
      // wait shrinks faster than real time after several partial reads. The
      // drivers' time-outs are tuned to this; keep it.
      auto elapsed = std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - start);
      remaining -= elapsed.count();
      if (remaining < 1) {
        code = ZtSerialErrorTimeout;
        break;
      }
    }
  }

  if (error) {
    *error = ZtSerialError{};
    error->code = code;
    error->bytesRead = have;
    error->endCode = code == ZtSerialErrorNone ? endCode : ZtSerialEndNone;
    error->posixError = posixError;
  }
  if (have == 0 || code == ZtSerialErrorFatal) return std::nullopt;
  return Data(buffer_, buffer_ + have);
}

std::optional<ZtSerialPort::Data> ZtSerialPort::readBytes(std::size_t count, ZtSerialError* error) {
  return readCore(true, count, false, 0, error);
}
std::optional<ZtSerialPort::Data> ZtSerialPort::readUpToChar(std::uint8_t stop, ZtSerialError* error) {
  return readCore(false, 0, true, stop, error);
}
std::optional<ZtSerialPort::Data> ZtSerialPort::readBytesUpToChar(std::size_t count, std::uint8_t stop,
                                                                  ZtSerialError* error) {
  return readCore(true, count, true, stop, error);
}
std::optional<ZtSerialPort::Data> ZtSerialPort::readData(ZtSerialError* error) {
  return readCore(false, 0, false, 0, error);
}

namespace {
std::optional<std::string> asString(const std::optional<ZtSerialPort::Data>& data) {
  if (!data) return std::nullopt;
  return std::string(data->begin(), data->end());
}
}  // namespace

std::optional<std::string> ZtSerialPort::readString(ZtSerialError* error) { return asString(readData(error)); }
std::optional<std::string> ZtSerialPort::readStringBytes(std::size_t count, ZtSerialError* error) {
  return asString(readBytes(count, error));
}
std::optional<std::string> ZtSerialPort::readStringUpToChar(std::uint8_t stop, ZtSerialError* error) {
  return asString(readUpToChar(stop, error));
}
std::optional<std::string> ZtSerialPort::readStringBytesUpToChar(std::size_t count, std::uint8_t stop,
                                                                 ZtSerialError* error) {
  return asString(readBytesUpToChar(count, stop, error));
}

// --- Writing --------------------------------------------------------------

bool ZtSerialPort::writeBytes(const void* bytes, std::size_t length, ZtSerialError* error) {
  std::lock_guard lock(writeLock_);
  int code = ZtSerialErrorNone;
  int posixError = 0;
  std::uint64_t written = 0;
  const int fd = fileDescriptor_;
  if (length == 0) {
    code = ZtSerialErrorNothingToWrite;
  } else if (fd < 0) {
    code = ZtSerialErrorFatal;
    logf("serial port: write to {} while closed", bsdPath_);
  } else {
    ssize_t done;
    do {
      done = calls_.write(fd, bytes, length);
    } while (done < 0 && errno == EINTR);
    if (done < 0) {
      code = ZtSerialErrorFatal;
      posixError = errno;
      logf("serial port: write to {} failed: {}", bsdPath_, std::strerror(posixError));
    } else {
      written = static_cast<std::uint64_t>(done);
      code = written < length ? ZtSerialErrorShortWrite : ZtSerialErrorNone;
    }
  }
  if (error) {
    *error = ZtSerialError{};
    error->code = code;
    error->bytesWritten = written;
    error->posixError = posixError;
  }
  return code == ZtSerialErrorNone;
}

bool ZtSerialPort::writeData(const Data& data, ZtSerialError* error) {
  return writeBytes(data.data(), data.size(), error);
}
bool ZtSerialPort::writeString(std::string_view text, ZtSerialError* error) {
  return writeBytes(text.data(), text.size(), error);
}

// --- Line control ---------------------------------------------------------

int ZtSerialPort::bytesAvailable() {
  int fd = fileDescriptor_;
  int count = 0;
  if (fd < 0 || ::ioctl(fd, FIONREAD, &count) != 0) return -1;
  return count;
}

bool ZtSerialPort::drainInput() {
  int fd = fileDescriptor_;
  return fd >= 0 && ::tcdrain(fd) == 0;
}

bool ZtSerialPort::flushInput(bool input, bool output) {
  int fd = fileDescriptor_;
  if (fd < 0 || (!input && !output)) return false;
  return ::tcflush(fd, input && output ? TCIOFLUSH : input ? TCIFLUSH : TCOFLUSH) == 0;
}

bool ZtSerialPort::sendBreak() {
  int fd = fileDescriptor_;
  return fd >= 0 && ::tcsendbreak(fd, 0) == 0;
}

bool ZtSerialPort::setDTR() {
  int fd = fileDescriptor_;
  int bits = TIOCM_DTR;
  return fd >= 0 && ::ioctl(fd, TIOCMBIS, &bits) == 0;
}

bool ZtSerialPort::clearDTR() {
  int fd = fileDescriptor_;
  int bits = TIOCM_DTR;
  return fd >= 0 && ::ioctl(fd, TIOCMBIC, &bits) == 0;
}

}  // namespace kvtrack
