#include "kvtrack/sync/TrackICloudMetadata.h"

#include "kvtrack/library/ICloudSynchronizer.h"
#include "kvtrack/library/TrackLibrary.h"
#include "kvtrack/library/TrackStorage.h"
#include "kvtrack/model/TrackPhoto.h"
#include "kvtrack/model/TrackPoint.h"
#include "kvtrack/photos/TrackPhotoFiles.h"
#include "kvtrack/support/StagedFiles.h"
#include "kvtrack/support/SystemCalls.h"
#include "kvtrack/support/FileHandling.h"
#include "kvtrack/support/Gzip.h"
#include "kvtrack/support/KvPreferences.h"
#include "kvtrack/support/Log.h"
#include "kvtrack/support/NumberText.h"

#include <fmt/format.h>

#include <chrono>
#include <fstream>
#include <iterator>
#include <thread>

namespace kvtrack::TrackICloud {

namespace {

using Lock = std::lock_guard<Track>;

// Whole seconds since 2001-01-01T00:00:00Z, truncated as "%d" of the
// interval does.
int32_t secondsSinceReferenceDateNow() {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  const double since1970 = std::chrono::duration<double>(now).count();
  return static_cast<int32_t>(
      ISODate::isoDateWithTimeIntervalSince1970(since1970).timeIntervalSinceReferenceDate());
}

std::optional<ISODate> timeAt(const Metadata& metadata, std::string_view key) {
  const auto text = propertyText(metadata, key);
  return text ? ISODate::isoDateWithString(*text) : std::nullopt;
}

int32_t integerAt(const Metadata& metadata, std::string_view key) {
  return parseIntValue(propertyText(metadata, key).value_or(""));
}

bool hasText(const std::optional<std::string>& text) { return text && !text->empty(); }

}  // namespace

std::optional<Metadata> readMetadata(const std::string& path) {
  return readPropertyList(path, kMetadataKeys);
}

Metadata iCloudMetadata(Track& track) {
  Lock lock(track);
  Metadata metadata;
  metadata["name"] = track.name();
  // The folder names, not the track's position path ("0.3."): positions
  // change with every sort, names are what the other side can rebuild.
  metadata["path"] = track.pathArray();
  if (track.trackId()) metadata["trackId"] = *track.trackId();
  if (track.iCloudId()) metadata["iCloudId"] = *track.iCloudId();
  if (track.startTime()) metadata["starttime"] = track.startTime()->descriptionWithTimezone(true);
  if (track.endTime()) metadata["endtime"] = track.endTime()->descriptionWithTimezone(true);
  metadata["photocount"] = fmt::format("{}", track.photoCount());
  metadata["waypointcount"] = fmt::format("{}", track.waypointCount());
  metadata["geocachecount"] = fmt::format("{}", track.geocacheCount());
  // Single precision on purpose, as in the library index.
  metadata["length"] = fmt::format("{:.6f}", static_cast<float>(track.length()));
  metadata["timestamp"] = fmt::format("{}", secondsSinceReferenceDateNow());
  return metadata;
}

bool writeiCloudMetadataToURL(Track& track, const std::string& path) {
  Lock lock(track);
  const Metadata metadata = iCloudMetadata(track);
  if (!writePropertyList(metadata, path)) return false;
  track.setICloudTimestamp(timestampFromMetadata(metadata));
  return true;
}

std::optional<std::string> trackIdFromMetadata(const Metadata& metadata) {
  return propertyText(metadata, "trackId");
}

std::string nameFromMetadata(const Metadata& metadata) {
  return propertyText(metadata, "name").value_or("");
}

std::optional<std::string> iCloudIdFromMetadata(const Metadata& metadata) {
  return propertyText(metadata, "iCloudId");
}

std::optional<ISODate> startTimeFromMetadata(const Metadata& metadata) {
  return timeAt(metadata, "starttime");
}

std::optional<ISODate> endTimeFromMetadata(const Metadata& metadata) {
  return timeAt(metadata, "endtime");
}

int32_t photoCountFromMetadata(const Metadata& metadata) {
  return integerAt(metadata, "photocount");
}

int32_t waypointCountFromMetadata(const Metadata& metadata) {
  return integerAt(metadata, "waypointcount");
}

int32_t geocacheCountFromMetadata(const Metadata& metadata) {
  return integerAt(metadata, "geocachecount");
}

float lengthFromMetadata(const Metadata& metadata) {
  return parseFloatValue(propertyText(metadata, "length").value_or(""));
}

std::vector<std::string> pathFromMetadata(const Metadata& metadata) {
  const auto it = metadata.find("path");
  if (it == metadata.end()) return {};
  if (const auto* names = std::get_if<std::vector<std::string>>(&it->second)) return *names;
  return {};
}

double timestampFromMetadata(const Metadata& metadata) {
  return static_cast<double>(integerAt(metadata, "timestamp"));
}

void copyMetadataToTrack(const Metadata& metadata, Track& track) {
  Lock lock(track);
  track.setName(nameFromMetadata(metadata));
  track.setTrackId(trackIdFromMetadata(metadata));
  track.setICloudId(iCloudIdFromMetadata(metadata));
  track.setStartTime(startTimeFromMetadata(metadata));
  track.setEndTime(endTimeFromMetadata(metadata));
  track.setPhotoCount(photoCountFromMetadata(metadata));
  track.setWaypointCount(waypointCountFromMetadata(metadata));
  track.setGeocacheCount(geocacheCountFromMetadata(metadata));
  track.setLength(lengthFromMetadata(metadata));
  track.setICloudTimestamp(timestampFromMetadata(metadata));
}

void movePhotosToiCloud(Track& track) {
  KvPreferences& preferences = KvPreferences::singleton();
  // Deliberate: without iCloudSupported a photo's path never resolves
  // through the synchronizer, so a moved photo could not be found again.
  if (!preferences.iCloudSupported().value_or(false)) return;
  const auto synchronizer = preferences.iCloudSynchronizer();
  if (!synchronizer) return;
  Lock lock(track);
  for (const auto& point : track.trackPoints()) {
    for (const auto& photo : point->trackPhotos()) {
      if (hasText(photo->iCloudId())) continue;
      const auto id = synchronizer->movePhotoToiCloud(TrackPhotos::filepath(*photo), *photo);
      if (!id) continue;  // not taken: the photo keeps its file
      photo->setICloudId(*id);
      photo->setFilepath("");
      track.makeDirty();
    }
  }
}

void requestPhotosFromiCloud(Track& track) {
  const auto synchronizer = KvPreferences::singleton().iCloudSynchronizer();
  if (!hasText(track.iCloudId()) || !synchronizer || !synchronizer->active()) return;
  std::vector<std::string> urls, photoURLs;
  {
    Lock lock(track);
    for (const auto& point : track.trackPoints()) {
      for (const auto& photo : point->trackPhotos()) {
        const auto& id = photo->iCloudId();
        if (!hasText(id)) continue;
        if (auto url = synchronizer->urlForThumbnailPhotoId(*id)) urls.push_back(*url);
        if (auto url = synchronizer->urlForPhotoId(*id)) photoURLs.push_back(*url);
      }
    }
  }
  // Every thumbnail before any full photo: the small files show first.
  urls.insert(urls.end(), photoURLs.begin(), photoURLs.end());
  if (urls.empty()) return;
  // The task owns the synchronizer, so it outlives a host that replaces it.
  std::thread([synchronizer, urls = std::move(urls)] {
    for (const auto& url : urls) synchronizer->downloadFileIfNotAvailable(url);
  }).detach();
}

Status updateLibraryFileFromiCloudFile(Track& track, const std::string& gzPath) {
  const Result<std::string> compressed = readWholeFile(gzPath);
  if (!compressed) {
    logf("Error reading file: {}", gzPath);
    return compressed.status();
  }
  const Result<std::string> gpx = gzipInflate(*compressed);
  if (!gpx) {
    logf("track {} keeps its file: {} does not inflate", track.name(), gzPath);
    return gpx.status().prefixed(gzPath);
  }
  Lock lock(track);
  if (!hasText(track.filename())) {
    logf("track {} has no library file to replace", track.name());
    return Status::failure(fmt::format("track {} has no library file to replace", track.name()));
  }
  const auto library = TrackLibrary::current();
  const std::string folder =
      library ? library->folder() : FileHandling::singleton().userApplicationSupport();
  // Dropping local changes is the point: the received copy wins. The
  // pending metadata go too, so that unloading does not mirror the stale
  // track back over the newer copy.
  track.setIsDirty(false);
  track.setMetadataDirty(false);
  track.unload();
  const Status written = writeFileAtomically(folder + "/" + *track.filename(), *gpx);
  track.setIsLoaded(false);
  track.setIsDirty(false);
  // The figures are computed again from the new file on next use.
  track.setPropertiesUpdated(false);
  return written;
}

}  // namespace kvtrack::TrackICloud
