#include "kvtrack/photos/PhotoMatching.h"

#include "kvtrack/photos/ExifTool.h"
#include "kvtrack/photos/PhotoHooks.h"
#include "kvtrack/photos/TrackPhotoFiles.h"

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <mutex>

namespace kvtrack {

namespace fs = std::filesystem;

namespace {

constexpr int32_t kLibraryMaxTimeDiff = 43200;  // twelve hours

bool fileExists(const std::string& path) {
  std::error_code error;
  return fs::exists(path, error);
}

// The reads of one matching run. A file's tags serve its capture time in
// every zone and its place names, so each file is read once (the files do
// not change during the run), and a batch is read ahead all at once:
// exiftool's round trips, not our work, are what a photo costs.
class PhotoReader {
 public:
  void prefetch(const std::vector<std::string>& files) {
    std::vector<std::string> wanted;
    {
      std::lock_guard lock(mutex_);
      for (const auto& path : files) {
        // A missing file is skipped later.
        if (!cache_.contains(path) && fileExists(path)) wanted.push_back(path);
      }
    }
    if (wanted.size() < 2) return;
    std::vector<std::optional<ExifTool::Tags>> read = ExifTool::exifTagsForFiles(wanted);
    std::lock_guard lock(mutex_);
    for (size_t i = 0; i < wanted.size(); ++i) cache_.try_emplace(wanted[i], std::move(read[i]));
  }

  /// As ExifTool::isoDateForFile with force on.
  std::optional<ISODate> captureTime(const std::string& path, int32_t offsetInMinutes) {
    if (!fileExists(path)) return std::nullopt;
    if (const auto found = tags(path)) {
      if (auto time = ExifTool::digitizedFromDictionary(*found, offsetInMinutes, true)) return time;
    }
    // No date tag: exiftool's reader falls back to the modification time and says so.
    return ExifTool::isoDateForFile(path, offsetInMinutes, true);
  }

  /// As TrackPhotos::setLocationInformationFromExif: the side file wins.
  void fillPlaces(TrackPhoto& photo) {
    const std::string& path = photo.originalFilepath();
    auto merged = tags(path).value_or(ExifTool::Tags{});
    const std::string sideFile = fs::path(path).replace_extension(".xmp").string();
    if (fileExists(sideFile)) {
      if (auto side = ExifTool::exifTagsForFile(sideFile)) {
        for (auto& [tag, value] : *side) merged[tag] = std::move(value);
      }
    }
    TrackPhotos::setLocationInformationFromTags(photo, merged);
  }

 private:
  std::optional<ExifTool::Tags> tags(const std::string& path) {
    {
      std::lock_guard lock(mutex_);
      if (auto it = cache_.find(path); it != cache_.end()) return it->second;
    }
    auto read = ExifTool::exifTagsForFile(path);
    std::lock_guard lock(mutex_);
    return cache_.try_emplace(path, std::move(read)).first->second;
  }

  std::mutex mutex_;
  std::map<std::string, std::optional<ExifTool::Tags>> cache_;
};

int32_t offsetOf(const TrackPointPtr& point) {
  const auto time = point ? point->time() : std::nullopt;
  return time ? time->timezoneOffset() : 0;
}

// update false: the caller updates the track once it has matched them all
// (statistics over a long track cost more than matching one photo).
int32_t importPhotosWith(Track& track, const std::vector<std::string>& files,
                         int32_t maxTimeDiff, FoundPhotos* found, PhotoReader& reader,
                         bool update = true) {
  std::lock_guard<Track> lock(track);
  const TrackPointPtr first = track.firstPoint();
  if (!first) return 0;
  const int32_t offset = offsetOf(first);
  int32_t count = 0;
  for (const std::string& path : files) {
    const auto time = reader.captureTime(path, offset);
    if (!time) continue;
    const TrackPointPtr point = track.findTrackPointWithDate(time);
    const auto pointTime = point ? point->time() : std::nullopt;
    if (!pointTime) continue;  // before the first point or after the last
    // Whole seconds: 59.9 s passes a limit of 60, 60 s does not.
    const double difference = std::trunc(std::fabs(time->timeIntervalSinceDate(*pointTime)));
    if (maxTimeDiff > 0 && difference >= maxTimeDiff) continue;

    auto photo = TrackPhoto::trackPhotoWithFilepath(path);
    photo->setTimeOfPhoto(time);
    reader.fillPlaces(*photo);
    point->addTrackPhoto(photo, true);  // a file attached already stays once
    photo->setTrackPoint(point.get());
    if (found) (*found)[path] = track.weak_from_this().lock();
    iPhotoConnection::singleton().updateTrackPhoto(*photo);
    iPhotoConnection::singleton().writeLocationToIPhoto(*photo);
    ++count;
  }
  if (count > 0) {
    track.makeDirty();
    if (update) track.update();
  }
  return count;
}

}  // namespace

void importPhotos(TrackPoint& point, const std::vector<std::string>& files) {
  const auto pointTime = point.time();
  const int32_t offset = pointTime ? pointTime->timezoneOffset() : 0;
  for (const std::string& path : files) {
    if (!fileExists(path)) continue;
    std::optional<ISODate> time;
    if (const auto tags = ExifTool::exifTagsForFile(path)) {
      if (auto it = tags->find("Date/Time Original"); it != tags->end()) {
        // The EXIF tag itself carries no zone: its first 19 characters.
        if (auto local = ISODate::isoDateWithEXIFString(it->second.substr(0, 19))) {
          time = local->convertLocalTimeToUTC(offset);
        }
      }
    }
    auto photo = TrackPhoto::trackPhotoWithFilepath(path);
    photo->setTimeOfPhoto(time);
    point.addTrackPhoto(photo);
  }
  if (Track* track = point.track()) {
    track->makeDirty();
    track->update();
  }
}

int32_t importPhotos(Track& track, const std::vector<std::string>& files, int32_t maxTimeDiff,
                     FoundPhotos* found) {
  PhotoReader reader;
  reader.prefetch(files);
  return importPhotosWith(track, files, maxTimeDiff, found, reader);
}

void addPhotosToBeginningOrEndOfTrack(Track& track, const std::vector<std::string>& files) {
  std::lock_guard<Track> lock(track);
  const TrackPointPtr first = track.firstPoint();
  const TrackPointPtr last = track.lastPoint();
  if (!first || !last) return;
  const int32_t offset = offsetOf(first);
  PhotoReader reader;
  reader.prefetch(files);
  for (const std::string& path : files) {
    const auto time = reader.captureTime(path, offset);
    if (!time) continue;
    // Deliberately simple: only a photo strictly after the last point goes
    // to the end; everything else, even one within the track, to the start.
    const auto lastTime = last->time();
    const TrackPointPtr& anchor = lastTime && lastTime->compare(*time) < 0 ? last : first;

    auto point = TrackPoint::trackPointWithParent(&track);
    point->setLongitude(anchor->longitude());
    point->setLatitude(anchor->latitude());
    point->setElevation(anchor->elevation());
    auto photo = TrackPhoto::trackPhotoWithFilepath(path);
    photo->setTimeOfPhoto(time);
    reader.fillPlaces(*photo);
    point->addTrackPhoto(photo);
    ISODate pointTime = *time;
    pointTime.setTimezoneOffsetInMinutes(offsetOf(anchor));
    point->setTime(pointTime);
    track.addTrackPointSorted(point);
  }
  track.updateAll();
}

TrackPhotoPtr findFirstPhoto(Track& track) {
  std::lock_guard<Track> lock(track);
  for (const auto& point : track.trackPoints()) {
    if (auto photo = point->getFirstPhoto()) return photo;
  }
  return nullptr;
}

void removePhotoReferences(Track& track) {
  std::lock_guard<Track> lock(track);
  for (const auto& point : track.trackPoints()) point->removePhotoReferences();
  track.makeDirty();
}

void addTrackPhotos(Track& track, std::vector<TrackPhotoPtr>& into) {
  std::lock_guard<Track> lock(track);
  for (const auto& point : track.trackPoints()) point->addTrackPhotos(into);
}

void checkExistenceOfPhotos(Track& track) {
  std::lock_guard<Track> lock(track);
  for (const auto& point : track.trackPoints()) {
    for (const auto& photo : point->trackPhotos()) TrackPhotos::checkExistenceOfPhotos(*photo);
  }
}

int32_t importPhotosToAllTracks(TrackLibrary& library, const std::vector<std::string>& files,
                                FoundPhotos* foundFiles, std::vector<TrackPtr>* foundTracks,
                                const std::function<void()>& callback) {
  std::lock_guard<TrackLibrary> lock(library);
  return importPhotosToTracks(library.allTracks(), files, foundFiles, foundTracks, callback);
}

int32_t importPhotosToTracks(const std::vector<TrackPtr>& tracks,
                             const std::vector<std::string>& files, FoundPhotos* foundFiles,
                             std::vector<TrackPtr>* foundTracks,
                             const std::function<void()>& callback) {
  PhotoReader reader;
  reader.prefetch(files);
  int32_t total = 0;
  std::vector<TrackPtr> changed;
  for (const std::string& path : files) {
    const auto localTime = reader.captureTime(path, 0);  // the wall clock as UTC
    if (!localTime) continue;  // no time at all: not reported
    bool attached = false;
    for (const TrackPtr& track : tracks) {
      const auto& start = track->startTime();
      const auto& end = track->endTime();
      if (!start || !end) continue;
      const ISODate time = localTime->convertLocalTimeToUTC(start->timezoneOffset());
      if (time.compare(*start) < 0 || time.compare(*end) > 0) continue;
      const int32_t count =
          importPhotosWith(*track, {path}, kLibraryMaxTimeDiff, foundFiles, reader, false);
      total += count;
      if (count > 0) {  // a track that rejects the file lets later ones try
        if (foundTracks) foundTracks->push_back(track);
        if (std::find(changed.begin(), changed.end(), track) == changed.end()) changed.push_back(track);
        attached = true;
        break;
      }
    }
    if (!attached && callback) callback();
  }
  for (const TrackPtr& track : changed) track->update();
  return total;
}

int32_t importPhotosToFirstSelectedTrack(TrackLibrary& library,
                                         const std::vector<std::string>& files, FoundPhotos* found) {
  const TrackPtr track = library.firstSelectedTrack();
  return track ? importPhotos(*track, files, 0, found) : 0;
}

void addPhotosToBeginningOrEndOfSelectedTracks(TrackLibrary& library,
                                               const std::vector<std::string>& files) {
  for (const TrackPtr& track : library.allSelectedTracks()) {
    addPhotosToBeginningOrEndOfTrack(*track, files);
  }
}

}  // namespace kvtrack
