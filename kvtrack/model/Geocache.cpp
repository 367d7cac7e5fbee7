#include "kvtrack/model/Geocache.h"

#include <mutex>

namespace kvtrack {

namespace {
std::mutex loaderMutex;
Geocache::ExternalLoader externalLoader;
}  // namespace

int GeocacheLog::compareTime(const GeocacheLog& other) const {
  if (!time) return other.time ? -1 : 0;
  if (!other.time) return 1;
  return time->compare(*other.time);
}

std::shared_ptr<Geocache> Geocache::copy() const {
  auto c = std::make_shared<Geocache>(*this);
  c->logs.clear();
  c->externalGPXFileDirty = false;
  return c;
}

bool Geocache::containsLog(const GeocacheLog& log) const {
  for (const auto& existing : logs) {
    const bool sameTime = existing->time.has_value() == log.time.has_value() &&
                          (!log.time || existing->time->isEqualToDate(*log.time));
    if (sameTime && existing->geocacher == log.geocacher) return true;
  }
  return false;
}

void Geocache::addLogs(const std::vector<GeocacheLogPtr>& newLogs) {
  for (const auto& log : newLogs) {
    if (log && !containsLog(*log)) logs.push_back(log);
  }
}

void Geocache::setExternalLoader(ExternalLoader loader) {
  std::lock_guard lock(loaderMutex);
  externalLoader = std::move(loader);
}

void Geocache::loadExternalGpx() {
  if (indexForGPXExternalFile < 0 || externalGPXFileLoaded) return;
  ExternalLoader loader;
  {
    std::lock_guard lock(loaderMutex);
    loader = externalLoader;
  }
  if (loader) loader(*this);
  externalGPXFileLoaded = true;
}

void Geocache::unloadExternals() {
  if (!externalGPXFileLoaded) return;
  logs.clear();
  description.reset();
  externalGPXFileLoaded = false;
}

}  // namespace kvtrack
