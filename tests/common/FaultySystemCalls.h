#pragma once
// System calls that fail the way real disks do, at the moment a test
// chooses: the nth write with ENOSPC or EIO, writes that take only part of
// their bytes, an fsync that reports an I/O error, a rename that does not
// happen. Counting runs without faults tell how many calls an operation
// makes, so a test can fail each one in turn.

#include "kvtrack/support/SystemCalls.h"

#include <algorithm>
#include <atomic>
#include <cerrno>

namespace kvtrack::testing {

class FaultySystemCalls : public SystemCalls {
 public:
  enum class Call { kWrite, kFsync, kRename };

  /// The nth call (1-based, counted from now) of the kind fails with the
  /// error; 0 fails none.
  void failNth(Call call, int n, int error) {
    resetCounts();
    failCall_ = call;
    failAt_ = n;
    error_ = error;
  }
  /// Every write takes at most this many bytes (a short write).
  void limitWrites(size_t bytes) { writeLimit_ = bytes; }
  /// Counts from now; a fault chosen stays chosen.
  void resetCounts() { writes_ = fsyncs_ = renames_ = 0; }
  int count(Call call) const {
    return call == Call::kWrite ? writes_.load() : call == Call::kFsync ? fsyncs_.load() : renames_.load();
  }

  ssize_t write(int descriptor, const void* buffer, size_t size) override {
    if (fails(Call::kWrite, ++writes_)) return -1;
    return SystemCalls::write(descriptor, buffer, writeLimit_ ? std::min(size, writeLimit_) : size);
  }
  int fsync(int descriptor) override {
    if (fails(Call::kFsync, ++fsyncs_)) return -1;
    return SystemCalls::fsync(descriptor);
  }
  int rename(const char* from, const char* to) override {
    if (fails(Call::kRename, ++renames_)) return -1;
    return SystemCalls::rename(from, to);
  }

 private:
  bool fails(Call call, int number) {
    if (failAt_ == 0 || call != failCall_ || number != failAt_) return false;
    errno = error_;
    return true;
  }

  std::atomic<int> writes_{0}, fsyncs_{0}, renames_{0};
  Call failCall_ = Call::kWrite;
  int failAt_ = 0;
  int error_ = ENOSPC;
  size_t writeLimit_ = 0;
};

}  // namespace kvtrack::testing
