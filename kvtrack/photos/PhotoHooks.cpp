#include "kvtrack/photos/PhotoHooks.h"

#include "kvtrack/model/TrackPhoto.h"
#include "kvtrack/photos/ExifTool.h"
#include "kvtrack/support/HookSlot.h"

namespace kvtrack {

namespace {

HookSlot<iPhotoConnection>& iPhotoSlot() {
  static HookSlot<iPhotoConnection> slot;
  return slot;
}

}  // namespace

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
