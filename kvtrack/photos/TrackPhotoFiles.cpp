#include "kvtrack/photos/TrackPhotoFiles.h"

#include "kvtrack/library/ICloudSynchronizer.h"
#include "kvtrack/model/Track.h"
#include "kvtrack/model/TrackPoint.h"
#include "kvtrack/photos/ExifTool.h"
#include "kvtrack/photos/PhotoHooks.h"
#include "kvtrack/support/FileHandling.h"
#include "kvtrack/support/KvPreferences.h"
#include "kvtrack/support/Log.h"

#include <algorithm>
#include <filesystem>
#include <mutex>

namespace kvtrack::TrackPhotos {

namespace fs = std::filesystem;

namespace {

std::mutex bundleMutex;
std::string hostBundleIdentifier = "org.kvtrack.wayfolio";

bool fileExists(const std::string& path) {
  std::error_code error;
  return !path.empty() && fs::exists(path, error);
}

bool nonEmpty(const std::optional<std::string>& text) { return text && !text->empty(); }

// A file URL's path; plain paths pass unchanged.
std::string pathOfURL(const std::string& url) {
  constexpr std::string_view scheme = "file://";
  return url.starts_with(scheme) ? url.substr(scheme.size()) : url;
}

std::shared_ptr<ICloudSynchronizer> synchronizerFor(const TrackPhoto& photo) {
  KvPreferences& preferences = KvPreferences::singleton();
  if (!preferences.iCloudSupported().value_or(false) || !nonEmpty(photo.iCloudId())) return nullptr;
  return preferences.iCloudSynchronizer();
}

// "/a/Masters/b.jpg" split at "/" and put together again with one rendition
// folder swapped for the other; absent when the path has neither folder.
std::optional<std::string> swappedRenditionPath(const std::string& path, bool previewsToo,
                                                bool mastersToo) {
  std::vector<std::string> components;
  size_t start = 0;
  for (size_t slash; (slash = path.find('/', start)) != std::string::npos; start = slash + 1) {
    components.push_back(path.substr(start, slash - start));
  }
  components.push_back(path.substr(start));
  auto at = mastersToo ? std::find(components.begin(), components.end(), "Masters")
                       : components.end();
  if (at != components.end()) {
    *at = "Previews";
  } else {
    at = previewsToo ? std::find(components.begin(), components.end(), "Previews")
                     : components.end();
    if (at == components.end()) return std::nullopt;
    *at = "Masters";
  }
  std::string rebuilt;
  for (const auto& component : components) rebuilt += "/" + component;
  if (rebuilt.starts_with("//")) rebuilt.erase(0, 1);
  return FileHandling::resolveAlias(rebuilt);
}

// Renditions often differ in extension only: the first entry of the folder
// whose path begins with the candidate's path without extension.
std::optional<std::string> sameNameOtherExtension(const std::string& candidate) {
  const fs::path path(candidate);
  const std::string stem = (path.parent_path() / path.stem()).string();
  std::vector<std::string> entries;
  std::error_code error;
  for (fs::directory_iterator it(path.parent_path(), error), end; !error && it != end;
       it.increment(error)) {
    entries.push_back(it->path().string());
  }
  std::sort(entries.begin(), entries.end());  // a stable "listing order"
  for (const auto& entry : entries) {
    if (entry.starts_with(stem)) return entry;
  }
  return std::nullopt;
}

std::optional<std::string> findRendition(const std::optional<std::string>& candidate,
                                         bool tryParentFolder) {
  if (!candidate) return std::nullopt;
  if (fileExists(*candidate)) return candidate;
  if (auto found = sameNameOtherExtension(*candidate)) return found;
  if (!tryParentFolder) return std::nullopt;
  const fs::path path(*candidate);
  const std::string inParent = (path.parent_path().parent_path() / path.filename()).string();
  logf("filenameInParentDirectory: {}", inParent);
  if (fileExists(inParent)) return inParent;
  return std::nullopt;
}

}  // namespace

std::string filepath(TrackPhoto& photo) {
  const std::string& stored = photo.originalFilepath();
  if (fileExists(stored)) return stored;
  if (!stored.empty()) {
    photo.updatePathFromBookmark();
    if (fileExists(photo.originalFilepath())) return photo.originalFilepath();
  }
  if (auto copy = iCloudFilepath(photo)) return *copy;
  return photo.originalFilepath();
}

std::string filepathWithoutContainer(TrackPhoto& photo) {
  std::string infix;
  {
    std::lock_guard lock(bundleMutex);
    infix = "/Library/Containers/" + hostBundleIdentifier + "/Data";
  }
  std::string path = filepath(photo);
  for (size_t at; (at = path.find(infix)) != std::string::npos;) path.erase(at, infix.size());
  return path;
}

void setHostBundleIdentifier(std::string identifier) {
  std::lock_guard lock(bundleMutex);
  hostBundleIdentifier = std::move(identifier);
}

void startAccessingSecurityScopedResource(TrackPhoto& photo) {
  if (photo.securityScopeURLStarted()) return;
  KvSandbox& sandbox = KvSandbox::singleton();
  if (sandbox.isSandboxed() && photo.securityScopeURL()) {
    photo.updatePathFromBookmark();
    const auto& url = photo.securityScopeURL();
    if (url && sandbox.canAccessURL(*url)) {
      sandbox.startAccessingURL(*url);
      photo.setSecurityScopeURLStarted(true);
    }
    return;
  }
  sandbox.canAccessFile(filepath(photo));
}

void stopAccessingSecurityScopedResource(TrackPhoto& photo) {
  if (!photo.securityScopeURLStarted()) return;
  if (const auto& url = photo.securityScopeURL()) KvSandbox::singleton().stopAccessingURL(*url);
  photo.setSecurityScopeURLStarted(false);
}

bool checkExistenceOfPhotos(TrackPhoto& photo) {
  if (fileExists(filepath(photo))) return true;
  if (hasLinkToiPhoto(photo)) return iPhotoConnection::singleton().relocatePhoto(photo);
  return false;
}

bool hasLinkToiPhoto(const TrackPhoto& photo) { return nonEmpty(photo.iPhotoIdAppleScript()); }

std::optional<std::string> iCloudURL(const TrackPhoto& photo) {
  auto synchronizer = synchronizerFor(photo);
  return synchronizer ? synchronizer->urlForPhotoId(*photo.iCloudId()) : std::nullopt;
}

std::optional<std::string> iCloudFilepath(const TrackPhoto& photo) {
  auto url = iCloudURL(photo);
  if (!url) return std::nullopt;
  return pathOfURL(*url);
}

std::optional<std::string> iCloudThumbnailURL(const TrackPhoto& photo) {
  auto synchronizer = synchronizerFor(photo);
  return synchronizer ? synchronizer->urlForThumbnailPhotoId(*photo.iCloudId()) : std::nullopt;
}

void deleteFromiCloud(TrackPhoto& photo) {
  if (!synchronizerFor(photo)) return;
  for (const auto& url : {iCloudURL(photo), iCloudThumbnailURL(photo)}) {
    std::error_code ignored;
    if (url) fs::remove(pathOfURL(*url), ignored);
  }
  photo.setICloudId(std::nullopt);
  if (TrackPoint* point = photo.trackPoint()) {
    if (Track* track = point->track()) track->makeDirty();
  }
}

void setLocationInformationFromExif(TrackPhoto& photo) {
  if (const auto tags = ExifTool::exifTagsForFileAndXmp(filepath(photo))) {
    setLocationInformationFromTags(photo, *tags);
  }
}

void setLocationInformationFromTags(TrackPhoto& photo, const ExifTool::Tags& tags) {
  if (tags.empty()) return;
  if (auto v = ExifTool::cityFromDictionary(tags)) photo.setCity(v);
  if (auto v = ExifTool::countryFromDictionary(tags)) photo.setCountry(v);
  if (auto v = ExifTool::stateFromDictionary(tags)) photo.setState(v);
  if (auto v = ExifTool::locationFromDictionary(tags)) photo.setPlace(v);
  if (auto v = ExifTool::isoCountryCodeFromDictionary(tags)) photo.setIsoCountryCode(v);
}

bool hasLocationData(const TrackPhoto& photo) {
  return nonEmpty(photo.city()) || nonEmpty(photo.state()) || nonEmpty(photo.country()) ||
         nonEmpty(photo.isoCountryCode()) || nonEmpty(photo.place());
}

std::optional<std::string> isoCountryCodeWith3Chars(const TrackPhoto& photo) {
  if (!nonEmpty(photo.isoCountryCode())) return std::nullopt;
  std::string code = *photo.isoCountryCode() + "   ";
  code.resize(3);
  return code;
}

std::optional<std::string> iPhotoOtherFilepath(TrackPhoto& photo) {
  return findRendition(swappedRenditionPath(filepath(photo), true, true), true);
}

std::optional<std::string> iPhotoMastersFilepath(const std::string& path) {
  return findRendition(swappedRenditionPath(path, true, false), false);
}

std::vector<std::string> updateiPhotoPreviewPaths(const std::vector<std::string>& paths) {
  std::vector<std::string> updated;
  updated.reserve(paths.size());
  for (const auto& path : paths) updated.push_back(iPhotoMastersFilepath(path).value_or(path));
  return updated;
}

bool interpolateForDate(const ISODate& date, const TrackPoint* previousTrackPoint,
                        const TrackPoint* nextTrackPoint, double& longitude, double& latitude,
                        double& elevation) {
  longitude = latitude = elevation = 0.0;
  if (!previousTrackPoint || !nextTrackPoint) return false;
  const auto t0 = previousTrackPoint->time();
  const auto t1 = nextTrackPoint->time();
  if (!t0 || !t1) return false;
  const double d = t1->timeIntervalSinceDate(*t0);
  if (!(d > 0)) return false;
  const double e = date.timeIntervalSinceDate(*t0);
  if (!(e >= 0 && e <= d)) return false;
  const double f = e / d;
  if (!(f >= 0 && f <= 1)) return false;
  const TrackPoint& p = *previousTrackPoint;
  const TrackPoint& n = *nextTrackPoint;
  longitude = p.longitude() + (n.longitude() - p.longitude()) * f;
  latitude = p.latitude() + (n.latitude() - p.latitude()) * f;
  elevation = p.elevation() + (n.elevation() - p.elevation()) * f;
  return true;
}

}  // namespace kvtrack::TrackPhotos
