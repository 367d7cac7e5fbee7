#include "kvtrack/model/TrackStore.h"

#include <mutex>

namespace kvtrack {

namespace {
std::mutex storeMutex;
std::shared_ptr<TrackStore> sharedStore;
}  // namespace

std::shared_ptr<TrackStore> TrackStore::shared() {
  std::lock_guard lock(storeMutex);
  return sharedStore;
}

void TrackStore::setShared(std::shared_ptr<TrackStore> store) {
  std::lock_guard lock(storeMutex);
  sharedStore = std::move(store);
}

}  // namespace kvtrack
