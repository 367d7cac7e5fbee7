#include "kvtrack/model/TrackPhoto.h"

#include "kvtrack/model/TrackPoint.h"
#include "kvtrack/support/KvSandbox.h"

#include <filesystem>
#include <mutex>

namespace kvtrack {

namespace {
std::mutex readerMutex;
TrackPhoto::CaptureTimeReader captureTimeReader;
}  // namespace

void TrackPhoto::setCaptureTimeReader(CaptureTimeReader reader) {
  std::lock_guard lock(readerMutex);
  captureTimeReader = std::move(reader);
}

std::shared_ptr<TrackPhoto> TrackPhoto::copy() const {
  auto c = std::make_shared<TrackPhoto>(filepath_);
  c->timeOfPhoto_ = timeOfPhoto_;
  c->trackPoint_ = trackPoint_;
  c->base64Bookmark_ = base64Bookmark_;
  c->securityScopeURL_ = securityScopeURL_;
  c->city_ = city_;
  c->state_ = state_;
  c->country_ = country_;
  c->isoCountryCode_ = isoCountryCode_;
  c->place_ = place_;
  c->iPhotoId_ = iPhotoId_;
  c->iPhotoIdAppleScript_ = iPhotoIdAppleScript_;
  return c;
}

const std::optional<ISODate>& TrackPhoto::timeOfPhoto() {
  if (!timeOfPhoto_) loadTimeOfPhotoFromFile();
  return timeOfPhoto_;
}

void TrackPhoto::loadTimeOfPhotoFromFile() {
  CaptureTimeReader reader;
  {
    std::lock_guard lock(readerMutex);
    reader = captureTimeReader;
  }
  if (!reader) return;  // no reader installed: nothing can be read
  timeOfPhoto_ = reader(filepath_);
  if (trackPoint_) trackPoint_->makeDirty();
}

void TrackPhoto::updateBookmarkFromPath() {
  if (filepath_.empty() || (base64Bookmark_ && !base64Bookmark_->empty())) return;
  std::error_code error;
  if (!std::filesystem::exists(filepath_, error)) return;  // no file, nothing to point at
  base64Bookmark_ = KvSandbox::singleton().base64bookmarkForFile(filepath_);
}

bool TrackPhoto::updatePathFromBookmark() {
  if (!base64Bookmark_ || base64Bookmark_->empty()) return false;
  securityScopeURL_.reset();
  bool stale = false;
  std::optional<std::string> url = KvSandbox::singleton().urlForBase64Bookmark(*base64Bookmark_, stale);
  if (!url) return false;
  securityScopeURL_ = url;
  // A file URL's path; plain paths pass unchanged.
  constexpr std::string_view scheme = "file://";
  const std::string path = url->starts_with(scheme) ? url->substr(scheme.size()) : *url;
  std::error_code error;
  if (path.empty() || !std::filesystem::exists(path, error)) return false;
  filepath_ = path;
  if (!stale) return false;
  base64Bookmark_.reset();
  updateBookmarkFromPath();
  return true;
}

}  // namespace kvtrack
