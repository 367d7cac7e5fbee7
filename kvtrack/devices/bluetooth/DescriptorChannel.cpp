#include "kvtrack/devices/bluetooth/DescriptorChannel.h"

#include "kvtrack/support/Log.h"
#include "kvtrack/support/SystemCalls.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

namespace kvtrack {

namespace {

// Writes without raising SIGPIPE when the far side has gone: send() on
// sockets, write() on anything else (pseudo-terminals).
ssize_t writeSome(int descriptor, const uint8_t* bytes, size_t size) {
  for (;;) {
    ssize_t n = ::send(descriptor, bytes, size, MSG_NOSIGNAL);
    if (n < 0 && errno == ENOTSOCK) n = SystemCalls::current().write(descriptor, bytes, size);
    if (n >= 0 || errno != EINTR) return n;
  }
}

// The reader reads with read(2) itself, not through the SystemCalls seam: a
// channel kept open until the process exits has its reader still running
// while static objects (the seam among them) are destroyed.
ssize_t readPiece(int descriptor, uint8_t* buffer, size_t size) {
  for (;;) {
    const ssize_t n = ::read(descriptor, buffer, size);
    if (n >= 0 || errno != EINTR) return n;
  }
}

}  // namespace

Result<std::shared_ptr<DescriptorChannel>> DescriptorChannel::start(
    UniqueFd descriptor, RunLoop& loop, std::weak_ptr<RfcommChannelDelegate> delegate) {
  if (!descriptor) return Status::failure("the channel has no open descriptor");
  UniqueFd wake(::eventfd(0, EFD_CLOEXEC));
  if (!wake) return Status::failure(std::string("cannot make an event descriptor: ") + std::strerror(errno));
  std::shared_ptr<DescriptorChannel> channel(
      new DescriptorChannel(std::move(descriptor), std::move(wake), loop, std::move(delegate)));
  // Open-complete goes first: the reader posts only after it.
  loop.post([weakChannel = channel->weak_from_this(), weakDelegate = channel->delegate_] {
    const auto self = weakChannel.lock();
    const auto listener = weakDelegate.lock();
    if (self && listener) listener->rfcommChannelOpenComplete(*self, Status());
  });
  channel->reader_ = std::thread([raw = channel.get()] { raw->readLoop(); });
  return channel;
}

DescriptorChannel::DescriptorChannel(UniqueFd descriptor, UniqueFd wake, RunLoop& loop,
                                     std::weak_ptr<RfcommChannelDelegate> delegate)
    : descriptor_(std::move(descriptor)),
      wake_(std::move(wake)),
      loop_(loop),
      delegate_(std::move(delegate)) {}

DescriptorChannel::~DescriptorChannel() { shutDown(); }

void DescriptorChannel::readLoop() {
  std::vector<uint8_t> buffer(kReadSize);
  for (;;) {
    pollfd watch[2] = {{descriptor_.get(), POLLIN, 0}, {wake_.get(), POLLIN, 0}};
    if (::poll(watch, 2, -1) < 0) {
      if (errno == EINTR) continue;
      logf("Bluetooth channel: cannot wait for data: {}", std::strerror(errno));
      break;
    }
    if (watch[1].revents != 0) return;  // closed from this side
    const ssize_t count = readPiece(descriptor_.get(), buffer.data(), buffer.size());
    if (count <= 0) {
      if (count < 0) logf("Bluetooth channel: read failed: {}", std::strerror(errno));
      break;
    }
    loop_.post([weakChannel = weak_from_this(), weakDelegate = delegate_,
                data = std::vector<uint8_t>(buffer.begin(), buffer.begin() + count)] {
      const auto self = weakChannel.lock();
      const auto listener = weakDelegate.lock();
      if (self && listener) listener->rfcommChannelData(*self, data);
    });
  }
  // The far side ended the channel.
  open_ = false;
  postClosed();
}

void DescriptorChannel::postClosed() {
  if (closedPosted_.exchange(true)) return;
  loop_.post([weakChannel = weak_from_this(), weakDelegate = delegate_] {
    const auto self = weakChannel.lock();
    const auto listener = weakDelegate.lock();
    if (self && listener) listener->rfcommChannelClosed(*self);
  });
}

bool DescriptorChannel::shutDown() {
  std::lock_guard lock(shutDownMutex_);
  if (!descriptor_) return false;
  const uint64_t one = 1;
  [[maybe_unused]] const ssize_t ignored = ::write(wake_.get(), &one, sizeof one);
  if (reader_.joinable()) reader_.join();
  ::shutdown(descriptor_.get(), SHUT_RDWR);
  descriptor_.reset();
  open_ = false;
  return true;
}

void DescriptorChannel::closeChannel() {
  if (shutDown()) postClosed();
}

Status DescriptorChannel::writeSync(std::span<const uint8_t> bytes) {
  std::lock_guard lock(shutDownMutex_);
  if (!descriptor_ || !open_) return Status::failure("the Bluetooth channel is closed");
  while (!bytes.empty()) {
    const ssize_t n = writeSome(descriptor_.get(), bytes.data(), bytes.size());
    if (n < 0) return Status::failure(std::string("cannot write to the Bluetooth channel: ") + std::strerror(errno));
    bytes = bytes.subspan(static_cast<size_t>(n));
  }
  return {};
}

}  // namespace kvtrack
