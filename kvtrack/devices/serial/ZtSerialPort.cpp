// Opening, closing, cancelling, the delegate and the ownership token.
// Settings: ZtSerialPortSettings.cpp; reads and writes: ZtSerialPortIO.cpp;
// background threads: ZtSerialPortBackground.cpp.

#include "kvtrack/devices/serial/ZtSerialPort.h"

#include <fcntl.h>
#include <sys/file.h>

#include <cerrno>
#include <cstring>
#include <set>

#include "kvtrack/devices/serial/ZtSerialPortSpeed.h"
#include "kvtrack/devices/serial/ZtSerialWake.h"
#include "kvtrack/support/Log.h"
#include "kvtrack/support/SystemCalls.h"

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

}  // namespace

namespace detail {

bool makeWakePipe(UniqueFd& readEnd, UniqueFd& writeEnd) {
  int ends[2] = {-1, -1};
  if (::pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0) {
    logf("serial port: cannot create a wake-up pipe: {}", std::strerror(errno));
    readEnd.reset();
    writeEnd.reset();
    return false;
  }
  readEnd.reset(ends[0]);
  writeEnd.reset(ends[1]);
  return true;
}

void signalWake(const UniqueFd& writeEnd) {
  if (!writeEnd) return;
  const char one = 1;
  [[maybe_unused]] const ssize_t ignored = ::write(writeEnd.get(), &one, 1);
}

void drainWake(const UniqueFd& readEnd) {
  if (!readEnd) return;
  char sink[64];
  while (::read(readEnd.get(), sink, sizeof sink) > 0) {
  }
}

}  // namespace detail

// The delegate's defaults do nothing, so a delegate overrides what it needs.
void ZtSerialPortDelegate::serialPortReadData(ZtSerialPort&, const std::vector<std::uint8_t>&) {}
void ZtSerialPortDelegate::serialPortReadEnded(ZtSerialPort&, const ZtSerialError&) {}
void ZtSerialPortDelegate::serialPortWriteProgress(ZtSerialPort&, std::uint64_t, std::uint64_t) {}
void ZtSerialPortDelegate::serialPortWriteEnded(ZtSerialPort&, const ZtSerialError&) {}

ZtSerialPort::ZtSerialPort(std::string bsdPath, std::string name, std::string type)
    : bsdPath_(std::move(bsdPath)), name_(std::move(name)), type_(std::move(type)) {
  detail::makeWakePipe(wakeRead_, wakeWrite_);
}

ZtSerialPort::~ZtSerialPort() {
  close();
  // Still joinable only when a delegate let go of the port from inside its
  // last call on that thread; the thread touches nothing of the port after it.
  if (reader_.joinable()) reader_.detach();
  if (writer_.joinable()) writer_.detach();
}

bool ZtSerialPort::open() { return openWithFlags(O_RDWR | O_NOCTTY); }

bool ZtSerialPort::openWithFlags(int flags) {
  if (isOpen()) return true;
  UniqueFd fd = openFile(bsdPath_, flags);
  if (!fd) {
    const int e = errno;
    logf("serial port: cannot open {}: {}", bsdPath_, std::strerror(e));
    if (e == EACCES) logf("serial port: no permission for {} (is the user in the dialout group?)", bsdPath_);
    return false;
  }
  // Another program holding the port would scramble the exchange: claim it
  // and say clearly when it is taken.
  if (::flock(fd.get(), LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK) {
    logf("serial port: {} is busy (another program has it open)", bsdPath_);
    return false;
  }
  if (::tcgetattr(fd.get(), &originalSettings_) != 0) {
    logf("serial port: {} is not a terminal: {}", bsdPath_, std::strerror(errno));
    return false;
  }
  // A terminal line starts in line mode, with echo and CR turned into LF,
  // which would swallow or change a logger's bytes: the port works raw.
  struct termios raw = originalSettings_;
  ::cfmakeraw(&raw);
  raw.c_cflag |= CLOCAL | CREAD;
  if (::tcsetattr(fd.get(), TCSANOW, &raw) != 0) {
    logf("serial port: cannot set {} to raw mode: {}", bsdPath_, std::strerror(errno));
    return false;
  }
  settings_ = raw;
  originalSpeed_ =
      (originalSettings_.c_cflag & CBAUD) == kOtherSpeed ? detail::arbitrarySpeed(fd.get()) : 0;
  speed_ = originalSpeed_;
  errorFlag_ = false;
  lastErrno_ = 0;
  cancelled_ = false;
  detail::drainWake(wakeRead_);
  descriptor_ = std::move(fd);
  fileDescriptor_ = descriptor_.get();
  options_ = options();
  registerOpen();
  return true;
}

void ZtSerialPort::registerOpen() {
  {
    std::lock_guard lock(registryLock());
    openPorts().insert(this);
  }
  if (allCancelled) cancel();
}

void ZtSerialPort::close() {
  stopReadInBackground();
  stopWriteInBackground();
  std::lock_guard lock(closeLock_);
  if (!isOpen()) return;
  {
    std::lock_guard registry(registryLock());
    openPorts().erase(this);
  }
  // Others see the port closed from now on; a read waiting on another
  // thread wakes up and leaves before the node is let go.
  const int fd = fileDescriptor_.exchange(-1);
  detail::signalWake(wakeWrite_);
  std::scoped_lock quiet(readLock_, writeLock_);
  // Non-blocking so that restoring the settings cannot wait on unsent output.
  const int fl = ::fcntl(fd, F_GETFL);
  if (fl >= 0) ::fcntl(fd, F_SETFL, fl | O_NONBLOCK);
  apply(fd, originalSettings_, originalSpeed_);
  descriptor_.reset();
}

void ZtSerialPort::cancel() {
  cancelled_ = true;
  detail::signalWake(wakeWrite_);
}

void ZtSerialPort::cancelAllPorts() {
  allCancelled = true;
  std::lock_guard lock(registryLock());
  for (ZtSerialPort* port : openPorts()) port->cancel();
}

void ZtSerialPort::resumeAllPorts() { allCancelled = false; }

bool ZtSerialPort::allPortsCancelled() { return allCancelled; }

// --- Delegate and ownership -----------------------------------------------

void ZtSerialPort::setDelegate(std::weak_ptr<ZtSerialPortDelegate> delegate) {
  std::lock_guard lock(delegateLock_);
  delegate_ = std::move(delegate);
}

std::shared_ptr<ZtSerialPortDelegate> ZtSerialPort::delegate() const {
  std::lock_guard lock(delegateLock_);
  return delegate_.lock();
}

bool ZtSerialPort::obtainBy(const std::string& owner) {
  std::lock_guard lock(ownerLock_);
  if (owner_ && *owner_ != owner) return false;
  owner_ = owner;
  return true;
}

void ZtSerialPort::free() {
  std::lock_guard lock(ownerLock_);
  owner_.reset();
}

std::optional<std::string> ZtSerialPort::owner() const {
  std::lock_guard lock(ownerLock_);
  return owner_;
}

}  // namespace kvtrack
