#pragma once
// A replaceable hook object that a host installs and any thread reads.
// Hooks are swapped rarely; callers get a reference that stays valid while
// they use it, because every hook ever installed is kept alive.

#include <memory>
#include <mutex>
#include <vector>

namespace kvtrack {

template <typename Hook>
class HookSlot {
 public:
  /// The installed hook, or a default-constructed one.
  Hook& get() {
    std::lock_guard lock(mutex_);
    if (!current_) current_ = std::make_shared<Hook>();
    return *current_;
  }
  /// Installs the hook; nullptr restores the default.
  void set(std::shared_ptr<Hook> hook) {
    std::lock_guard lock(mutex_);
    if (current_) retired_.push_back(current_);
    current_ = hook ? std::move(hook) : std::make_shared<Hook>();
  }

 private:
  std::mutex mutex_;
  std::shared_ptr<Hook> current_;
  std::vector<std::shared_ptr<Hook>> retired_;
};

}  // namespace kvtrack
