#include "tools/wayfolio/PhotoPlaces.h"

#include "kvtrack/model/TrackPoint.h"
#include "kvtrack/places/GeoNames.h"
#include "kvtrack/photos/TrackPhotoFiles.h"
#include "kvtrack/support/FileHandling.h"

#include <fmt/format.h>

namespace wayfolio {

using namespace kvtrack;

PhotoPlaces::PhotoPlaces()
    : pool_(LocationPool::create(
          std::make_shared<GeoNames>(PlacesSettings::fromSettings(SettingsFile::shared())),
          FileHandling::singleton().writableLocationCache())) {}

void PhotoPlaces::request(const TrackPhoto& photo, double latitude, double longitude) {
  if (!TrackPhotos::hasLocationData(photo)) (void)pool_->elementForLongitude(longitude, latitude);
}

void PhotoPlaces::fill(TrackPhoto& photo, double latitude, double longitude) {
  if (TrackPhotos::hasLocationData(photo)) return;
  const auto element = pool_->elementForLongitude(longitude, latitude);
  // Every lookup ends within its time-outs; the day is only a backstop.
  if (!element || !pool_->waitForElement(*element, std::chrono::hours(24))) {
    std::lock_guard lock(mutex_);
    ++unnamed_;
    return;
  }
  setPlaceNames(photo, element->names());
  if (TrackPoint* point = photo.trackPoint()) point->makeDirty();
}

std::string PhotoPlaces::report() const {
  std::lock_guard lock(mutex_);
  if (unnamed_ == 0) return {};
  const auto loading = pool_->loading();
  return fmt::format("  no place names for {} photos{}\n", unnamed_,
                     loading.lastFailure.empty() ? "" : ": " + loading.lastFailure);
}

}  // namespace wayfolio
