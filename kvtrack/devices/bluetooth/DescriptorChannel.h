#pragma once
// DescriptorChannel: an RfcommChannel over a connected stream descriptor (an
// RFCOMM socket, or in tests one end of a socket pair or a pseudo-terminal).
// A reader thread waits on the descriptor and posts every piece it reads
// (at most kReadSize bytes) to the run loop as one rfcommChannelData call;
// the end of the stream or a read error is posted as rfcommChannelClosed.
//
// Delegate calls are made only while both the channel and the delegate are
// alive. closeChannel and the destructor stop the reader and close the
// descriptor; call them from any thread but the reader's (the channel is
// only ever destroyed from outside the reader).

#include "kvtrack/devices/bluetooth/RfcommChannel.h"
#include "kvtrack/support/RunLoop.h"
#include "kvtrack/support/UniqueFd.h"

#include <atomic>
#include <cstddef>
#include <memory>
#include <mutex>
#include <thread>

namespace kvtrack {

class DescriptorChannel final : public RfcommChannel,
                                public std::enable_shared_from_this<DescriptorChannel> {
 public:
  /// Bytes asked of the descriptor per read: about one RFCOMM frame.
  static constexpr size_t kReadSize = 1024;

  /// Takes the descriptor, posts rfcommChannelOpenComplete (success) and
  /// starts reading. Fails when the reader cannot be set up.
  static Result<std::shared_ptr<DescriptorChannel>> start(
      UniqueFd descriptor, RunLoop& loop, std::weak_ptr<RfcommChannelDelegate> delegate);

  ~DescriptorChannel() override;
  DescriptorChannel(const DescriptorChannel&) = delete;
  DescriptorChannel& operator=(const DescriptorChannel&) = delete;

  Status writeSync(std::span<const uint8_t> bytes) override;
  void closeChannel() override;
  bool isOpen() const override { return open_.load(); }

 private:
  DescriptorChannel(UniqueFd descriptor, UniqueFd wake, RunLoop& loop,
                    std::weak_ptr<RfcommChannelDelegate> delegate);
  void readLoop();
  /// Stops the reader and closes the descriptor; true the first time.
  bool shutDown();
  void postClosed();

  UniqueFd descriptor_;
  UniqueFd wake_;  // an eventfd that tells the reader to stop
  RunLoop& loop_;
  std::weak_ptr<RfcommChannelDelegate> delegate_;
  std::atomic<bool> open_{true};
  std::atomic<bool> closedPosted_{false};
  std::mutex shutDownMutex_;
  std::thread reader_;
};

}  // namespace kvtrack
