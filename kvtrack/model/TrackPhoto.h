#pragma once
// A photo attached to a track point: a reference to an image file, never
// the image data. Reading and writing the file's metadata belongs to the
// photos subsystem, which plugs the capture-time reader in here.

#include "kvtrack/support/ISODate.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace kvtrack {

class TrackPoint;

class TrackPhoto {
 public:
  TrackPhoto() = default;
  explicit TrackPhoto(std::string filepath) : filepath_(std::move(filepath)) {}
  static std::shared_ptr<TrackPhoto> trackPhotoWithFilepath(std::string filepath) {
    return std::make_shared<TrackPhoto>(std::move(filepath));
  }

  /// Time, path, point, bookmark, place names and iPhoto ids; the phone
  /// file name and the iCloud id stay with the original.
  std::shared_ptr<TrackPhoto> copy() const;

  /// Capture time; read from the file on first use when not set.
  const std::optional<ISODate>& timeOfPhoto();
  /// The stored time without touching the file.
  const std::optional<ISODate>& storedTimeOfPhoto() const { return timeOfPhoto_; }
  void setTimeOfPhoto(std::optional<ISODate> time) { timeOfPhoto_ = time; }
  /// Reads the capture time with the installed reader (camera wall clock
  /// stored as UTC) and marks the owning point dirty.
  void loadTimeOfPhotoFromFile();

  using CaptureTimeReader = std::function<std::optional<ISODate>(const std::string& path)>;
  static void setCaptureTimeReader(CaptureTimeReader reader);

  const std::string& originalFilepath() const { return filepath_; }
  /// Replaces the path only when it differs.
  void setFilepath(const std::string& path) {
    if (path != filepath_) filepath_ = path;
  }

  TrackPoint* trackPoint() const { return trackPoint_; }
  void setTrackPoint(TrackPoint* point) { trackPoint_ = point; }

  const std::optional<std::string>& base64Bookmark() const { return base64Bookmark_; }
  void setBase64Bookmark(std::optional<std::string> v) { base64Bookmark_ = std::move(v); }
  const std::optional<std::string>& securityScopeURL() const { return securityScopeURL_; }
  void setSecurityScopeURL(std::optional<std::string> v) { securityScopeURL_ = std::move(v); }
  bool securityScopeURLStarted() const { return securityScopeURLStarted_; }
  void setSecurityScopeURLStarted(bool v) { securityScopeURLStarted_ = v; }
  /// Makes the bookmark from the path through KvSandbox when there is none
  /// yet and the file exists.
  void updateBookmarkFromPath();
  /// Follows the bookmark to the file (the path follows a moved file); true
  /// only when the bookmark was stale and has been renewed, so that the
  /// caller saves the track.
  bool updatePathFromBookmark();

  const std::optional<std::string>& city() const { return city_; }
  void setCity(std::optional<std::string> v) { city_ = std::move(v); }
  const std::optional<std::string>& state() const { return state_; }
  void setState(std::optional<std::string> v) { state_ = std::move(v); }
  const std::optional<std::string>& country() const { return country_; }
  void setCountry(std::optional<std::string> v) { country_ = std::move(v); }
  const std::optional<std::string>& isoCountryCode() const { return isoCountryCode_; }
  void setIsoCountryCode(std::optional<std::string> v) { isoCountryCode_ = std::move(v); }
  const std::optional<std::string>& place() const { return place_; }
  void setPlace(std::optional<std::string> v) { place_ = std::move(v); }

  const std::optional<std::string>& iPhotoIdAppleScript() const { return iPhotoIdAppleScript_; }
  void setIPhotoIdAppleScript(std::optional<std::string> v) { iPhotoIdAppleScript_ = std::move(v); }
  int64_t iPhotoId() const { return iPhotoId_; }
  void setIPhotoId(int64_t v) { iPhotoId_ = v; }
  const std::optional<std::string>& iPhoneFilename() const { return iPhoneFilename_; }
  void setIPhoneFilename(std::optional<std::string> v) { iPhoneFilename_ = std::move(v); }
  const std::optional<std::string>& iCloudId() const { return iCloudId_; }
  void setICloudId(std::optional<std::string> v) { iCloudId_ = std::move(v); }

 private:
  std::optional<ISODate> timeOfPhoto_;
  std::optional<std::string> base64Bookmark_;
  std::optional<std::string> securityScopeURL_;
  bool securityScopeURLStarted_ = false;
  std::string filepath_;
  TrackPoint* trackPoint_ = nullptr;  // back reference; the point owns the photo
  std::optional<std::string> city_, state_, country_, isoCountryCode_, place_;
  std::optional<std::string> iPhotoIdAppleScript_;
  int64_t iPhotoId_ = 0;
  std::optional<std::string> iPhoneFilename_;
  std::optional<std::string> iCloudId_;
};

using TrackPhotoPtr = std::shared_ptr<TrackPhoto>;

}  // namespace kvtrack
