#pragma once
// Place names for the photos geotag writes: each photo without names gets
// those of its cell in the place cache, looked up in the background when
// the cell is new. Lookups start as photos are attached; writing a photo
// waits for its cell.

#include "kvtrack/model/TrackPhoto.h"
#include "kvtrack/places/LocationPool.h"

#include <memory>
#include <mutex>
#include <string>

namespace wayfolio {

class PhotoPlaces {
 public:
  /// A cache on the user's settings and cache folder.
  PhotoPlaces();

  /// Queues the lookup of the photo's cell when the photo has no names.
  void request(const kvtrack::TrackPhoto& photo, double latitude, double longitude);
  /// Waits for the photo's cell and gives the photo its names.
  void fill(kvtrack::TrackPhoto& photo, double latitude, double longitude);
  /// "  no place names for 2 photos: <why>\n", or nothing.
  std::string report() const;

 private:
  std::shared_ptr<kvtrack::LocationPool> pool_;
  mutable std::mutex mutex_;
  size_t unnamed_ = 0;
};

}  // namespace wayfolio
