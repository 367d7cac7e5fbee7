#include "kvtrack/photos/PhotoHooks.h"

#include "kvtrack/model/TrackPhoto.h"
#include "kvtrack/photos/ExifTool.h"
#include "kvtrack/support/Base64.h"

#include <mutex>
#include <vector>

namespace kvtrack {

namespace {

// Hooks are swapped rarely but read from any thread: callers get a shared
// reference that stays valid while they use it.
template <typename Hook>
class HookSlot {
 public:
  Hook& get() {
    std::lock_guard lock(mutex_);
    if (!current_) current_ = std::make_shared<Hook>();
    // Keep every installed hook alive: a caller may still hold the old one.
    return *current_;
  }
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

HookSlot<KvSandbox>& sandboxSlot() {
  static HookSlot<KvSandbox> slot;
  return slot;
}

HookSlot<iPhotoConnection>& iPhotoSlot() {
  static HookSlot<iPhotoConnection> slot;
  return slot;
}

}  // namespace

KvSandbox& KvSandbox::singleton() { return sandboxSlot().get(); }
void KvSandbox::setSingleton(std::shared_ptr<KvSandbox> sandbox) {
  sandboxSlot().set(std::move(sandbox));
}

std::string KvSandbox::base64bookmarkForFile(const std::string& path) {
  return base64Encode(path);
}

std::optional<std::string> KvSandbox::urlForBase64Bookmark(const std::string& bookmark,
                                                           bool& bookmarkIsStale) {
  bookmarkIsStale = false;
  auto path = base64Decode(bookmark);
  if (!path || path->empty()) return std::nullopt;
  return path;
}

iPhotoConnection& iPhotoConnection::singleton() { return iPhotoSlot().get(); }
void iPhotoConnection::setSingleton(std::shared_ptr<iPhotoConnection> connection) {
  iPhotoSlot().set(std::move(connection));
}

void installPhotoHooks() {
  TrackPhoto::setCaptureTimeReader([](const std::string& path) {
    return ExifTool::isoDateForFile(path, 0, true);
  });
}

}  // namespace kvtrack
