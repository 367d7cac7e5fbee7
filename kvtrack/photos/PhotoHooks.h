#pragma once
// The host's side of photo handling: the bridge to an iPhoto library (an
// interface whose default finds and changes nothing) and the hook that reads
// capture times with exiftool. Sandbox access to files is KvSandbox.

#include "kvtrack/support/KvSandbox.h"

#include <memory>
#include <optional>
#include <string>

namespace kvtrack {

class TrackPhoto;

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
