#pragma once
// ReceiveBuffer: everything an i-gotU sends, poured by a background thread
// into one linear 32 MiB buffer that the driver takes bytes from in order.
// The buffer is never wrapped or reset while the link lives, so bytes handed
// out stay valid until the ReceiveBuffer is destroyed; a logger that sends
// more than the buffer holds ends the reading ("ReceiveThread: Buffer
// overflow!").
//
// take() waits without a time limit, looking every 10 ms, because a logger
// may pause for long; it ends early only when the reader has stopped and
// nothing is left (link lost) or when the caller's cancel test says so.

#include "kvtrack/devices/usb/HidTransport.h"
#include "kvtrack/support/Status.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <thread>

namespace kvtrack {

class ReceiveBuffer {
 public:
  static constexpr size_t kCapacity = 33554432;  // 32 MiB
  static constexpr size_t kReadSize = 4096;      // asked of the transport at a time

  /// Starts reading from the transport, which must outlive this object.
  explicit ReceiveBuffer(HidTransport& transport);
  /// Stops the reader and waits for it.
  ~ReceiveBuffer();
  ReceiveBuffer(const ReceiveBuffer&) = delete;
  ReceiveBuffer& operator=(const ReceiveBuffer&) = delete;

  /// The next `count` bytes, once they are all there.
  Result<std::span<const uint8_t>> take(size_t count, const std::function<bool()>& cancelled);
  /// Bytes received and not yet taken.
  uint64_t unread() const {
    return end_.load(std::memory_order_acquire) - cursor_.load(std::memory_order_relaxed);
  }
  bool isRunning() const { return running_.load(std::memory_order_acquire); }

 private:
  void run();

  HidTransport& transport_;
  std::unique_ptr<uint8_t[]> buffer_;
  std::atomic<uint64_t> end_{0};  // written by the reader only
  std::atomic<uint64_t> cursor_{0};  // written by the caller only
  std::atomic<bool> running_{true};
  std::atomic<bool> stopRequested_{false};
  std::thread thread_;
};

}  // namespace kvtrack
