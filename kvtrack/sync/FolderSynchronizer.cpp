#include "kvtrack/sync/FolderSynchronizer.h"

#include "kvtrack/formats/gpx/TrackGPX.h"
#include "kvtrack/library/TrackStorage.h"
#include "kvtrack/sync/TrackICloudMetadata.h"
#include "kvtrack/model/Track.h"
#include "kvtrack/support/StagedFiles.h"
#include "kvtrack/support/FileHandling.h"
#include "kvtrack/support/Gzip.h"
#include "kvtrack/support/Log.h"
#include "kvtrack/support/SystemCalls.h"

#include <fmt/format.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>

namespace kvtrack {

namespace fs = std::filesystem;

namespace {

bool hasText(const std::optional<std::string>& text) { return text && !text->empty(); }

std::string safeName(const std::string& id) {
  return FileHandling::filenameWithoutSpecialCharacters(id);
}

bool isHidden(const fs::path& path) { return path.filename().string().starts_with('.'); }

std::string lowerCase(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) {
    return static_cast<char>(std::tolower(c));
  });
  return text;
}

// The track as the library writes it.
std::string gpxOfTrack(Track& track) {
  GpxExportConfiguration configuration;
  return TrackGPX(track).exportText(configuration);
}

}  // namespace

FolderSynchronizer::FolderSynchronizer(std::string folder) : folder_(std::move(folder)) {}

bool FolderSynchronizer::active() const {
  std::error_code error;
  return fs::is_directory(folder_, error);
}

std::string FolderSynchronizer::subfolder(const char* name, const std::string& what) const {
  if (!active()) {
    logf("sync folder {} is not there: {}", folder_, what);
    return {};
  }
  const std::string path = (fs::path(folder_) / name).string();
  std::error_code error;
  fs::create_directory(path, error);  // never the sync folder itself
  if (error) {
    logf("sync folder {}: cannot make {} ({}): {}", folder_, path, error.message(), what);
    return {};
  }
  return path;
}

std::string FolderSynchronizer::trackFile(const std::string& iCloudId) const {
  return (fs::path(folder_) / "tracks" / (safeName(iCloudId) + ".gpx.gz")).string();
}

std::string FolderSynchronizer::recordFile(const std::string& iCloudId) const {
  return (fs::path(folder_) / "tracks" / (safeName(iCloudId) + ".plist")).string();
}

bool FolderSynchronizer::writeTrack(Track& track) {
  if (!hasText(track.iCloudId())) {
    logf("track {} has no iCloudId: not mirrored to {}", track.name(), folder_);
    return false;
  }
  if (subfolder("tracks", fmt::format("track {} not mirrored", track.name())).empty()) return false;
  std::lock_guard<Track> lock(track);
  track.loadFromLibrary();
  const auto compressed = gzipDeflate(gpxOfTrack(track));
  if (!compressed) {
    logf("track {} not mirrored to {}: its GPX could not be made", track.name(), folder_);
    return false;
  }
  const std::string id = *track.iCloudId();
  // The record goes last: whoever sees it finds the track file complete.
  return writeFileAtomically(trackFile(id), *compressed) &&
         TrackICloud::writeiCloudMetadataToURL(track, recordFile(id));
}

void FolderSynchronizer::deleteTrackFromiCloud(Track& track) {
  if (!hasText(track.iCloudId())) return;
  if (!active()) {
    logf("sync folder {} is not there: track {} not removed from it", folder_, track.name());
    return;
  }
  for (const auto& path : {trackFile(*track.iCloudId()), recordFile(*track.iCloudId())}) {
    std::error_code error;
    fs::remove(path, error);
    if (error) logf("sync folder {}: cannot remove {} ({})", folder_, path, error.message());
  }
}

void FolderSynchronizer::newTrackInTrackLibrary(Track& track) {
  if (!hasText(track.iCloudId())) track.setICloudId(FileHandling::guid());
}

std::optional<std::string> FolderSynchronizer::movePhotoToiCloud(const std::string& filepath,
                                                                 TrackPhoto& /*photo*/) {
  std::error_code error;
  if (filepath.empty() || !fs::is_regular_file(filepath, error)) {
    logf("photo file {} is missing: not copied to sync folder {}", filepath, folder_);
    return std::nullopt;
  }
  const std::string photos = subfolder("photos", fmt::format("photo {} not copied", filepath));
  if (photos.empty()) return std::nullopt;
  const std::string id = FileHandling::guid();
  const std::string name = safeName(id);
  const std::string copy =
      (fs::path(photos) / (name + lowerCase(fs::path(filepath).extension().string()))).string();
  const Result<std::string> bytes = readWholeFile(filepath);
  if (!bytes) {
    logf("photo {} not copied to sync folder {}: {}", filepath, folder_, bytes.reason());
    return std::nullopt;
  }
  if (!writeFileAtomically(copy, *bytes)) return std::nullopt;
  std::lock_guard lock(photoMutex_);
  photoPaths_[name] = copy;
  return id;
}

std::optional<std::string> FolderSynchronizer::cachedPhotoPath(const std::string& name) const {
  const auto it = photoPaths_.find(name);
  std::error_code error;
  if (it == photoPaths_.end() || !fs::exists(it->second, error)) return std::nullopt;
  return it->second;
}

std::optional<std::string> FolderSynchronizer::urlForPhotoId(const std::string& photoId) const {
  const std::string name = safeName(photoId);
  const fs::path photos = fs::path(folder_) / "photos";
  std::lock_guard lock(photoMutex_);
  if (auto path = cachedPhotoPath(name)) return path;
  // One scan answers every later question about the photos present now.
  photoPaths_.clear();
  std::error_code error;
  for (const auto& entry : fs::directory_iterator(photos, error)) {
    if (!isHidden(entry.path())) photoPaths_[entry.path().stem().string()] = entry.path().string();
  }
  if (auto path = cachedPhotoPath(name)) return path;
  return (photos / name).string();
}

std::optional<std::string> FolderSynchronizer::urlForThumbnailPhotoId(
    const std::string& photoId) const {
  return (fs::path(folder_) / "thumbnails" / (safeName(photoId) + ".jpg")).string();
}

void FolderSynchronizer::downloadFileIfNotAvailable(const std::string& url) {
  constexpr std::string_view kScheme = "file://";
  const std::string path = url.starts_with(kScheme) ? url.substr(kScheme.size()) : url;
  std::error_code error;
  if (!fs::exists(path, error)) {
    logf("sync folder {} has no file {}: a local folder has nothing to download", folder_, path);
  }
}

std::vector<FolderSynchronizer::Record> FolderSynchronizer::records() const {
  std::vector<Record> found;
  if (!active()) {
    logf("sync folder {} is not there: no records to read", folder_);
    return found;
  }
  std::vector<fs::path> recordFiles;
  std::error_code error;
  for (const auto& entry : fs::directory_iterator(fs::path(folder_) / "tracks", error)) {
    if (!isHidden(entry.path()) && entry.path().extension() == ".plist") {
      recordFiles.push_back(entry.path());
    }
  }
  std::sort(recordFiles.begin(), recordFiles.end());
  for (const auto& record : recordFiles) {
    auto metadata = TrackICloud::readMetadata(record.string());
    if (!metadata) continue;  // logged by the reader
    fs::path gz = record;
    gz.replace_extension(".gpx.gz");
    if (!fs::exists(gz, error)) {
      logf("sync folder {}: record {} has no track file; left out", folder_, record.string());
      continue;
    }
    found.push_back({gz.string(), record.string(), std::move(*metadata)});
  }
  return found;
}

}  // namespace kvtrack
