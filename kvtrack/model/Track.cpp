#include "kvtrack/model/Track.h"

#include "kvtrack/model/TrackFolder.h"
#include "kvtrack/model/TrackStore.h"
#include "kvtrack/support/NotificationCenter.h"

#include <algorithm>
#include <deque>

namespace kvtrack {

namespace {
using Lock = std::lock_guard<const Track>;

// An absent time compares as equal to anything, like a missing reading.
int compareTime(const TrackPoint& point, const std::optional<ISODate>& date) {
  const auto time = point.time();
  if (!time || !date) return 0;
  return time->compare(*date);
}
}  // namespace

Track::Track(std::string name) : NamedAndTimedObject(std::move(name)) {}

Track::~Track() {
  // Points still held elsewhere must not point back at a dead track.
  for (const auto& point : trackPoints_) {
    if (point && point->track() == this) point->setTrack(nullptr);
  }
}

std::shared_ptr<Track> Track::copy() {
  Lock lock(*this);
  loadFromLibrary();
  auto duplicate = Track::track();
  for (const auto& point : trackPoints_) {
    duplicate->addTrackPoint(TrackPoint::trackPointWithParent(duplicate.get(), *point));
  }
  duplicate->setColor(color_);
  duplicate->setShowArea(showArea_);
  duplicate->setAreaDistanceInMeter(areaDistanceInMeter_);
  duplicate->updateTimes();
  duplicate->setLength(length_);
  return duplicate;
}

bool Track::loadFromLibrary() {
  Lock lock(*this);
  if (isLoaded_) return true;
  isLoaded_ = true;  // first, so that nested calls while reading return at once
  if (!filename_ && !iCloudId_) return true;  // a new track has nothing to read
  if (auto store = TrackStore::shared()) store->loadTrack(*this);
  return true;
}

void Track::unload() {
  Lock lock(*this);
  if (!isLoaded_) return;
  NotificationCenter::defaultCenter().postNotification("UnloadingTrack", weak_from_this().lock());
  // Points that could not be saved stay in memory rather than being lost.
  if (!saveToLibrary()) return;
  isLoaded_ = false;
  trackPoints_.clear();
}

Status Track::saveToLibrary() {
  Lock lock(*this);
  auto store = TrackStore::shared();
  return store ? store->saveTrack(*this) : Status();
}

Status Track::saveToLibraryWithExternalGPX() {
  Lock lock(*this);
  auto store = TrackStore::shared();
  return store ? store->saveTrackWithExternalGPX(*this) : Status();
}

TrackPoints Track::trackPoints() {
  TrackPoints points(*this, trackPoints_);
  loadFromLibrary();
  return points;
}

void Track::setTrackPoints(std::vector<TrackPointPtr> points) {
  Lock lock(*this);
  trackPoints_ = std::move(points);
}

size_t Track::loadedPointCount() const {
  Lock lock(*this);
  return trackPoints_.size();
}

int32_t Track::pointCount() const {
  Lock lock(*this);
  return isLoaded_ ? static_cast<int32_t>(trackPoints_.size()) : storedPointCount_;
}

void Track::addTrackPoint(TrackPointPtr point) {
  Lock lock(*this);
  loadFromLibrary();
  trackPoints_.push_back(std::move(point));
  makeDirty();
}

void Track::addTrackPoint(TrackPointPtr point, const TrackPoint* afterPoint) {
  Lock lock(*this);
  loadFromLibrary();
  auto it = std::find_if(trackPoints_.begin(), trackPoints_.end(),
                         [&](const TrackPointPtr& p) { return p.get() == afterPoint; });
  if (it != trackPoints_.end()) trackPoints_.insert(it + 1, std::move(point));
  makeDirty();
}

TrackPointPtr Track::addTrackPointSorted(TrackPointPtr point) {
  loadFromLibrary();
  Lock lock(*this);
  const auto time = point->time();
  for (size_t i = 0; i < trackPoints_.size(); ++i) {
    const TrackPointPtr& existing = trackPoints_[i];
    const int order = compareTime(*existing, time);
    if (order > 0) {
      trackPoints_.insert(trackPoints_.begin() + static_cast<std::ptrdiff_t>(i), point);
      makeDirty();
      return point;
    }
    if (order == 0) {
      if (point->isWayPoint()) {
        trackPoints_.insert(trackPoints_.begin() + static_cast<std::ptrdiff_t>(i), point);
        makeDirty();
        return point;
      }
      // A re-imported point at an existing time merges instead of doubling.
      for (const auto& photo : point->trackPhotos()) existing->addTrackPhoto(photo->copy());
      makeDirty();
      return existing;
    }
  }
  trackPoints_.push_back(point);
  makeDirty();
  return point;
}

TrackPointPtr Track::addTrackPointNamed(TrackPointPtr point) {
  Lock lock(*this);
  loadFromLibrary();
  if (const auto& name = point->name()) {
    for (const auto& existing : trackPoints_) {
      if (existing->name() == *name) {
        existing->copyWaypointAttributesFrom(*point);
        makeDirty();
        return existing;
      }
    }
  }
  trackPoints_.push_back(point);
  makeDirty();
  return point;
}

void Track::deleteTrackPoint(TrackPoint* point) {
  Lock lock(*this);
  if (!point) return;
  point->removeExternalGpxFile();
  std::erase_if(trackPoints_, [&](const TrackPointPtr& p) { return p.get() == point; });
  makeDirty();
}

void Track::deletePointInTrack(const PointInTrack& position) {
  // The first point (index 0) is deliberately never deleted this way.
  if (!position.track || position.index < 1) return;
  const TrackPoints points = position.track->trackPoints();
  if (static_cast<size_t>(position.index) >= points.size()) return;
  points->erase(points.begin() + position.index);
  position.track->makeDirty();
}

void Track::removeAllWaypoints() {
  Lock lock(*this);
  loadFromLibrary();
  for (const auto& point : trackPoints_) point->setIsWayPoint(false);
  makeDirty();
}

void Track::stripToAtMostTrackPoints(int32_t count) {
  Lock lock(*this);
  const size_t limit = static_cast<size_t>(std::max(count, 100));
  if (trackPoints_.size() > limit) trackPoints_.resize(limit);
}

TrackPointPtr Track::firstPoint() {
  Lock lock(*this);
  loadFromLibrary();
  return trackPoints_.empty() ? nullptr : trackPoints_.front();
}

TrackPointPtr Track::lastPoint() {
  Lock lock(*this);
  loadFromLibrary();
  return trackPoints_.empty() ? nullptr : trackPoints_.back();
}

void Track::generateNewFilename() {
  if (auto store = TrackStore::shared()) filename_ = store->generateFilename(*this);
}

void Track::setName(std::string name) {
  NamedAndTimedObject::setName(std::move(name));
  makeDirty();
}

void Track::setColor(const Color& color) {
  if (color == color_) return;
  color_ = color;
  makeDirty();
}

void Track::setShowArea(bool value) {
  loadFromLibrary();
  showArea_ = value;
  makeDirty();
}

void Track::setAreaDistanceInMeter(float metres) {
  loadFromLibrary();
  areaDistanceInMeter_ = metres;
  makeDirty();
}

void Track::setWidth(float value) {
  loadFromLibrary();
  width_ = value;
  makeDirty();
}

void Track::setDescription(std::optional<std::string> value) {
  Lock lock(*this);
  if (value == description_) return;
  description_ = std::move(value);
  makeDirty();
}

void Track::setTags(std::optional<std::string> value) {
  Lock lock(*this);
  if (value == tags_) return;
  tags_ = std::move(value);
  makeDirty();
}

std::string Track::folderPath() const {
  std::deque<std::string> names;
  for (auto folder = parent(); folder; folder = folder->parentFolder()) {
    names.push_front(folder->name());
  }
  std::string text;
  for (const auto& name : names) {
    if (!text.empty()) text += "####";
    text += name;
  }
  return text;
}

std::string Track::path() {
  std::string text;
  addPath(text);
  return text;
}

// Without the track's lock: folders are locked before the tracks in them.
void Track::addPath(std::string& path) {
  if (auto folder = parent()) {
    path.insert(0, std::to_string(folder->indexOfTrack(*this)));
    folder->addPath(path);
  }
}

std::vector<std::string> Track::pathArray() {
  std::deque<std::string> names;
  for (auto folder = parent(); folder; folder = folder->parentFolder()) {
    if (!folder->name().empty()) names.push_front(folder->name());
  }
  return {names.begin(), names.end()};
}

namespace {
int compareNumbers(double a, double b) {
  if (a < b) return -1;
  if (a > b) return 1;
  return 0;  // equal, or NaN involved
}
}  // namespace

int Track::compareLength(const Track& other) const { return compareNumbers(length_, other.length_); }
int Track::compareLengthDescending(const Track& other) const {
  return compareNumbers(other.length_, length_);
}
int Track::compareDuration(const Track& other) const {
  return compareNumbers(duration(), other.duration());
}
int Track::compareDurationDescending(const Track& other) const {
  return compareNumbers(other.duration(), duration());
}

}  // namespace kvtrack
