// Terminal settings of the serial port: the working copy, the options
// dictionary, speeds through termios2, commits; and line control.

#include "kvtrack/devices/serial/ZtSerialPort.h"

#include <sys/ioctl.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "kvtrack/devices/serial/ZtSerialPortSpeed.h"
#include "kvtrack/support/Log.h"

namespace kvtrack {

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
