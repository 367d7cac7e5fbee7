#pragma once
// A file descriptor with one owner at a time, closed when its owner goes.
// Moving hands it on; copying is not possible.

#include <utility>

namespace kvtrack {

class UniqueFd {
 public:
  UniqueFd() = default;
  explicit UniqueFd(int descriptor) : descriptor_(descriptor) {}
  UniqueFd(UniqueFd&& other) noexcept : descriptor_(std::exchange(other.descriptor_, -1)) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept {
    if (this != &other) reset(std::exchange(other.descriptor_, -1));
    return *this;
  }
  UniqueFd(const UniqueFd&) = delete;
  UniqueFd& operator=(const UniqueFd&) = delete;
  ~UniqueFd() { reset(); }

  int get() const { return descriptor_; }
  bool valid() const { return descriptor_ >= 0; }
  explicit operator bool() const { return valid(); }
  /// Gives up ownership without closing.
  int release() { return std::exchange(descriptor_, -1); }
  /// Closes the descriptor held (never retried: Linux frees it even on
  /// EINTR) and takes the new one.
  void reset(int descriptor = -1);

 private:
  int descriptor_ = -1;
};

}  // namespace kvtrack
