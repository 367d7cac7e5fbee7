#pragma once
// System calls that fail the way real disks, pipes and process tables do,
// at the moment a test chooses: the nth write with ENOSPC or EIO, writes
// and reads that take only part of their bytes, reads interrupted by
// signals, an fsync that reports an I/O error, a rename that does not
// happen, a pipe or a process that cannot be made. Counting runs without
// faults tell how many calls an operation makes, so a test can fail each
// one in turn.

#include "kvtrack/support/SystemCalls.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>

namespace kvtrack::testing {

class FaultySystemCalls : public SystemCalls {
 public:
  enum class Call { kWrite, kFsync, kRename, kPipe, kSpawn, kRead };

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
  /// Every read gives at most this many bytes, and every other one is
  /// interrupted (EINTR) before it reads anything.
  void limitReads(size_t bytes) { readLimit_ = bytes; }
  /// Counts from now; a fault chosen stays chosen.
  void resetCounts() {
    for (auto& count : counts_) count = 0;
  }
  int count(Call call) const { return counts_[static_cast<size_t>(call)].load(); }

  ssize_t write(int descriptor, const void* buffer, size_t size) override {
    if (fails(Call::kWrite)) return -1;
    return SystemCalls::write(descriptor, buffer, writeLimit_ ? std::min(size, writeLimit_) : size);
  }
  ssize_t read(int descriptor, void* buffer, size_t size) override {
    if (fails(Call::kRead)) return -1;
    if (readLimit_ == 0) return SystemCalls::read(descriptor, buffer, size);
    if (count(Call::kRead) % 2 == 1) {
      errno = EINTR;
      return -1;
    }
    return SystemCalls::read(descriptor, buffer, std::min(size, readLimit_));
  }
  int fsync(int descriptor) override { return fails(Call::kFsync) ? -1 : SystemCalls::fsync(descriptor); }
  int rename(const char* from, const char* to) override {
    return fails(Call::kRename) ? -1 : SystemCalls::rename(from, to);
  }
  int pipe(int ends[2]) override { return fails(Call::kPipe) ? -1 : SystemCalls::pipe(ends); }
  int spawn(pid_t* processId, const char* program, const posix_spawn_file_actions_t* actions,
            const posix_spawnattr_t* attributes, char* const arguments[],
            char* const environment[]) override {
    if (fails(Call::kSpawn)) return error_;
    return SystemCalls::spawn(processId, program, actions, attributes, arguments, environment);
  }

 private:
  bool fails(Call call) {
    const int number = ++counts_[static_cast<size_t>(call)];
    if (failAt_ == 0 || call != failCall_ || number != failAt_) return false;
    errno = error_;
    return true;
  }

  std::array<std::atomic<int>, 6> counts_{};
  Call failCall_ = Call::kWrite;
  int failAt_ = 0;
  int error_ = ENOSPC;
  size_t writeLimit_ = 0;
  size_t readLimit_ = 0;
};

}  // namespace kvtrack::testing
