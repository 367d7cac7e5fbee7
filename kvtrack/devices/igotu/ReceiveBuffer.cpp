#include "kvtrack/devices/igotu/ReceiveBuffer.h"

#include "kvtrack/support/Log.h"

#include <chrono>

namespace kvtrack {

namespace {

// How long one read of the transport waits, so that a stop is seen soon.
constexpr std::chrono::milliseconds kReadWait{100};
constexpr std::chrono::milliseconds kPollInterval{10};

}  // namespace

ReceiveBuffer::ReceiveBuffer(HidTransport& transport)
    : transport_(transport), buffer_(std::make_unique_for_overwrite<uint8_t[]>(kCapacity)) {
  thread_ = std::thread([this] { run(); });
}

ReceiveBuffer::~ReceiveBuffer() {
  stopRequested_ = true;
  if (thread_.joinable()) thread_.join();
}

void ReceiveBuffer::run() {
  bool announce = true;
  while (!stopRequested_.load()) {
    if (announce) logLine("ReceiveThread: reading");
    const uint64_t end = end_.load(std::memory_order_relaxed);
    Result<size_t> received =
        transport_.readInput(std::span<uint8_t>(buffer_.get() + end, kReadSize), kReadWait);
    if (!received) {
      logf("ReceiveThread: other error: {}", received.reason());
      break;
    }
    announce = *received > 0;
    if (*received == 0) continue;
    end_.store(end + *received, std::memory_order_release);
    logf("ReceiveThread: received: new {}  buffer {}", *received, end + *received - cursor_.load(std::memory_order_relaxed));
    if (end + *received + kReadSize >= kCapacity) {
      logLine("ReceiveThread: Buffer overflow!");
      break;
    }
  }
  running_.store(false, std::memory_order_release);
}

Result<std::span<const uint8_t>> ReceiveBuffer::take(size_t count,
                                                     const std::function<bool()>& cancelled) {
  // A cancel is seen even while answers keep coming.
  if (cancelled && cancelled()) return Status::failure("the download was cancelled");
  while (unread() < count) {
    if (cancelled && cancelled()) return Status::failure("the download was cancelled");
    // Bytes that came just before the reader stopped are still taken.
    if (!isRunning() && unread() < count) {
      return Status::failure("the logger's link ended before its answer was complete");
    }
    std::this_thread::sleep_for(kPollInterval);
  }
  const uint64_t cursor = cursor_.load(std::memory_order_relaxed);
  const std::span<const uint8_t> bytes(buffer_.get() + cursor, count);
  cursor_.store(cursor + count, std::memory_order_relaxed);
  logf("{} bytes returned.", count);
  return bytes;
}

}  // namespace kvtrack
