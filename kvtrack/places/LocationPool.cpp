#include "kvtrack/places/LocationPool.h"

#include "kvtrack/photos/TrackPhotoFiles.h"

namespace kvtrack {

namespace {

std::mutex singletonMutex;
std::weak_ptr<LocationPool> registeredPool;

std::optional<std::string> nameOrNothing(const std::string& text) {
  if (text.empty()) return std::nullopt;
  return text;
}

}  // namespace

void setPlaceNames(TrackPhoto& photo, const LocationPoolElement::Names& names) {
  photo.setCity(nameOrNothing(names.name));
  photo.setState(nameOrNothing(names.stateName));
  photo.setCountry(nameOrNothing(names.countryName));
  photo.setIsoCountryCode(nameOrNothing(names.countryCode));
  photo.setPlace(nameOrNothing(names.placeName));
}

std::shared_ptr<LocationPool> LocationPool::create(
    std::shared_ptr<GISServiceConvertLocation> gisService, std::string cacheFolder, RunLoop& host) {
  std::shared_ptr<LocationPool> pool(
      new LocationPool(std::move(gisService), std::move(cacheFolder), host));
  std::lock_guard lock(singletonMutex);
  registeredPool = pool;
  return pool;
}

std::shared_ptr<LocationPool> LocationPool::singleton() {
  std::lock_guard lock(singletonMutex);
  return registeredPool.lock();
}

LocationPool::LocationPool(std::shared_ptr<GISServiceConvertLocation> gisService,
                           std::string cacheFolder, RunLoop& host)
    : gisService_(std::move(gisService)), cacheFolder_(std::move(cacheFolder)), host_(host) {
  for (int i = 0; i < kLoaderThreads; ++i) loaders_.emplace_back([this] { loadThread(); });
}

LocationPool::~LocationPool() {
  {
    std::lock_guard lock(queueMutex_);
    stopping_ = true;
    for (const auto& element : pendingElements_) unfinished_.erase(element.get());
    pendingElements_.clear();
  }
  newElementsToLoad_.notify_all();
  for (auto& loader : loaders_) loader.join();
}

std::shared_ptr<LocationPoolElement> LocationPool::elementForLongitude(double longitude,
                                                                       double latitude) {
  const std::string key = LocationPoolElement::keyForLongitude(longitude, latitude);
  if (key.empty()) return nullptr;
  std::shared_ptr<LocationPoolElement> element;
  {
    std::lock_guard lock(elementsMutex_);
    if (auto it = availableElements_.find(key); it != availableElements_.end()) return it->second;
    element = std::make_shared<LocationPoolElement>(longitude, latitude, cacheFolder_);
    availableElements_.emplace(key, element);
  }
  if (element->dataAvailable()) return element;
  {
    std::lock_guard lock(queueMutex_);
    pendingElements_.push_back(element);
    unfinished_.insert(element.get());
    ++loading_.queued;
  }
  newElementsToLoad_.notify_one();
  return element;
}

void LocationPool::loadThread() {
  for (;;) {
    std::shared_ptr<LocationPoolElement> element;
    {
      std::unique_lock lock(queueMutex_);
      newElementsToLoad_.wait(lock, [this] { return stopping_ || !pendingElements_.empty(); });
      if (stopping_) return;
      element = std::move(pendingElements_.front());
      pendingElements_.pop_front();
      --loading_.queued;
      ++loading_.running;
    }
    lookUp(*element);
  }
}

void LocationPool::lookUp(LocationPoolElement& element) {
  std::string city, state, country, isoCountryCode, place;
  const Status found = gisService_->ConvertLon(element.longitude(), element.latitude(), city,
                                               state, country, isoCountryCode, place);
  if (found) {
    element.fill(std::move(city), std::move(country), std::move(isoCountryCode), std::move(place),
                 std::move(state));
    (void)element.store();  // a failed write is logged; the names stay in memory
  }
  {
    std::lock_guard lock(queueMutex_);
    --loading_.running;
    if (!found) {
      ++loading_.failed;
      loading_.lastFailure = found.reason();
    } else {
      ++(element.dataAvailable() ? loading_.filled : loading_.empty);
    }
    unfinished_.erase(&element);
  }
  lookupEnded_.notify_all();
  if (found && element.dataAvailable()) notify();
}

void LocationPool::setNotificationTarget(std::function<void()> target) {
  std::lock_guard lock(targetMutex_);
  notificationTarget_ = std::move(target);
}

std::function<void()> LocationPool::notificationTarget() const {
  std::lock_guard lock(targetMutex_);
  return notificationTarget_;
}

void LocationPool::notify() {
  if (auto target = notificationTarget()) host_.post(std::move(target));
}

LocationPool::Loading LocationPool::loading() const {
  std::lock_guard lock(queueMutex_);
  return loading_;
}

bool LocationPool::waitUntilIdle(std::chrono::milliseconds timeout) const {
  std::unique_lock lock(queueMutex_);
  return lookupEnded_.wait_for(lock, timeout, [this] { return loading_.idle(); });
}

bool LocationPool::waitForElement(const LocationPoolElement& element,
                                  std::chrono::milliseconds timeout) const {
  std::unique_lock lock(queueMutex_);
  lookupEnded_.wait_for(lock, timeout, [&] { return !unfinished_.contains(&element); });
  return element.dataAvailable();
}

size_t LocationPool::updateForTrack(Track& track) {
  size_t filled = 0;
  std::lock_guard<Track> lock(track);
  for (const auto& point : track.trackPoints()) {
    for (const auto& photo : point->trackPhotos()) {
      if (TrackPhotos::hasLocationData(*photo)) continue;
      const auto element = elementForLongitude(point->longitude(), point->latitude());
      if (!element || !element->dataAvailable()) continue;
      setPlaceNames(*photo, element->names());
      point->makeDirty();
      ++filled;
    }
  }
  return filled;
}

}  // namespace kvtrack
