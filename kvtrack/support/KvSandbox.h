#pragma once
// The host's sandbox: access to files through bookmarks. The default does
// nothing harmful, so a host without a sandbox needs no code: a bookmark is
// the base64 text of the path and every file is accessible.
//
// URLs here are plain absolute paths: nothing beyond local files is opened.

#include <memory>
#include <optional>
#include <string>

namespace kvtrack {

class KvSandbox {
 public:
  virtual ~KvSandbox() = default;

  /// The installed sandbox (the default one unless a host set another).
  static KvSandbox& singleton();
  /// Installs a host's sandbox; nullptr restores the default.
  static void setSingleton(std::shared_ptr<KvSandbox> sandbox);

  virtual bool isSandboxed() const { return false; }
  virtual std::string base64bookmarkForFile(const std::string& path);
  /// The path a bookmark names, or absent; bookmarkIsStale asks the caller
  /// to make a new bookmark.
  virtual std::optional<std::string> urlForBase64Bookmark(const std::string& bookmark,
                                                          bool& bookmarkIsStale);
  virtual bool canAccessURL(const std::string& /*url*/) { return true; }
  /// Lets the host obtain access to a file that has no bookmark.
  virtual bool canAccessFile(const std::string& /*path*/) { return true; }
  virtual bool startAccessingURL(const std::string& /*url*/) { return true; }
  virtual void stopAccessingURL(const std::string& /*url*/) {}
};

}  // namespace kvtrack
