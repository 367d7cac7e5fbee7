#pragma once
// The host's side of photo handling: sandbox access to files (bookmarks)
// and the bridge to an iPhoto library. Both are interfaces whose defaults
// do nothing harmful, so a host without a sandbox or iPhoto needs no code:
// off a sandbox a bookmark is the base64 text of the path and every file is
// accessible; the iPhoto bridge finds and changes nothing.
//
// URLs here are plain absolute paths: nothing beyond local files is opened.

#include <memory>
#include <optional>
#include <string>

namespace kvtrack {

class TrackPhoto;

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

// The class keeps the bridge's own name, lower-case first letter included.
class iPhotoConnection {
 public:
  virtual ~iPhotoConnection() = default;

  static iPhotoConnection& singleton();
  /// Installs a host's bridge; nullptr restores the default.
  static void setSingleton(std::shared_ptr<iPhotoConnection> connection);

  /// Finds a moved photo through the iPhoto library; true when found.
  virtual bool relocatePhoto(TrackPhoto& /*photo*/) { return false; }
  virtual void updateTrackPhoto(TrackPhoto& /*photo*/) {}
  virtual void writeLocationToIPhoto(TrackPhoto& /*photo*/) {}
};

/// Makes TrackPhoto read capture times with exiftool (the camera's wall
/// clock stored as UTC, offset 0). Hosts and tests call it once at start.
void installPhotoHooks();

}  // namespace kvtrack
