#include "kvtrack/support/KvSandbox.h"

#include "kvtrack/support/Base64.h"
#include "kvtrack/support/HookSlot.h"

namespace kvtrack {

namespace {

HookSlot<KvSandbox>& sandboxSlot() {
  static HookSlot<KvSandbox> slot;
  return slot;
}

}  // namespace

KvSandbox& KvSandbox::singleton() { return sandboxSlot().get(); }

void KvSandbox::setSingleton(std::shared_ptr<KvSandbox> sandbox) { sandboxSlot().set(std::move(sandbox)); }

std::string KvSandbox::base64bookmarkForFile(const std::string& path) { return base64Encode(path); }

std::optional<std::string> KvSandbox::urlForBase64Bookmark(const std::string& bookmark, bool& bookmarkIsStale) {
  bookmarkIsStale = false;
  auto path = base64Decode(bookmark);
  if (!path || path->empty()) return std::nullopt;
  return path;
}

}  // namespace kvtrack
