#pragma once
// The place cache of the process: place names per cell of 0.005 degrees
// (see LocationPoolElement), in memory and on disk, filled in the
// background by four loader threads that share one queue and ask a reverse
// lookup service. Photos taken on one walk mostly share a few cells, so a
// track needs few lookups, and none at all once its cells are on disk.
//
// elementForLongitude() and updateForTrack() may be called from any thread
// (the host calls them from its main thread). A filled cell is announced
// on the host's run loop through the notification target.
//
// A lookup that fails leaves its cell empty for the life of the pool (it is
// not queued again); nothing is written for it, so a later process tries
// again.

#include "kvtrack/model/Track.h"
#include "kvtrack/places/GISService.h"
#include "kvtrack/places/LocationPoolElement.h"
#include "kvtrack/support/RunLoop.h"

#include <condition_variable>
#include <deque>
#include <functional>
#include <map>
#include <set>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace kvtrack {

class TrackPhoto;

/// Gives the photo the five names of a cell; an empty name clears the photo's.
void setPlaceNames(TrackPhoto& photo, const LocationPoolElement::Names& names);

class LocationPool {
 public:
  static constexpr int kLoaderThreads = 4;

  /// A pool on the given service and cache folder (which must exist),
  /// registered as the singleton; its loaders start at once and announce
  /// on the host loop. The GeoNames service on the user's settings and
  /// FileHandling's writableLocationCache() are what hosts normally pass.
  static std::shared_ptr<LocationPool> create(std::shared_ptr<GISServiceConvertLocation> gisService,
                                              std::string cacheFolder,
                                              RunLoop& host = RunLoop::main());
  /// The pool most recently created and still alive; nullptr before.
  static std::shared_ptr<LocationPool> singleton();

  /// Stops the loaders: lookups still queued are dropped, running ones
  /// finish first. Filled cells are written.
  ~LocationPool();
  LocationPool(const LocationPool&) = delete;
  LocationPool& operator=(const LocationPool&) = delete;

  /// The element of the position's cell: the same object for every
  /// position in the cell. A new cell without a file is queued for a
  /// lookup; its names fill in later. nullptr for a position that has no
  /// cell (not finite, beyond the poles or the date line).
  std::shared_ptr<LocationPoolElement> elementForLongitude(double longitude, double latitude);

  /// Gives every photo of the track that has no place names yet the names
  /// of its point's cell, when the cell holds them (others are queued;
  /// call again after the announcement). The number of photos filled.
  size_t updateForTrack(Track& track);

  /// Called on the host loop, without arguments, after a cell was filled.
  void setNotificationTarget(std::function<void()> target);
  std::function<void()> notificationTarget() const;
  /// Tells the notification target, on the host loop, without waiting.
  void notify();

  struct Loading {
    size_t queued = 0;   // waiting for a loader
    size_t running = 0;  // being looked up now
    size_t filled = 0;   // looked up with names
    size_t empty = 0;    // looked up, but the service knows no names there
    size_t failed = 0;   // the lookup failed
    std::string lastFailure;
    bool idle() const { return queued == 0 && running == 0; }
  };
  Loading loading() const;
  /// Blocks until no lookup is queued or running, or the time is up;
  /// whether the pool is idle.
  bool waitUntilIdle(std::chrono::milliseconds timeout) const;
  /// Blocks until the element's lookup ended (at once when it has data or
  /// was never queued), or the time is up; whether it holds data.
  bool waitForElement(const LocationPoolElement& element, std::chrono::milliseconds timeout) const;

 private:
  LocationPool(std::shared_ptr<GISServiceConvertLocation> gisService, std::string cacheFolder,
               RunLoop& host);
  void loadThread();
  void lookUp(LocationPoolElement& element);

  const std::shared_ptr<GISServiceConvertLocation> gisService_;
  const std::string cacheFolder_;
  RunLoop& host_;

  std::mutex elementsMutex_;
  std::map<std::string, std::shared_ptr<LocationPoolElement>> availableElements_;

  // Guards the queue and the counts; wakes the loaders and the waiters.
  mutable std::mutex queueMutex_;
  std::condition_variable newElementsToLoad_;
  mutable std::condition_variable lookupEnded_;
  std::deque<std::shared_ptr<LocationPoolElement>> pendingElements_;
  std::set<const LocationPoolElement*> unfinished_;  // queued or running
  Loading loading_;
  bool stopping_ = false;

  mutable std::mutex targetMutex_;
  std::function<void()> notificationTarget_;

  std::vector<std::thread> loaders_;
};

}  // namespace kvtrack
