#include "kvtrack/library/TrackLibrary.h"

#include "kvtrack/library/TrackLibraryGPX.h"
#include "kvtrack/library/TrackLibraryXML.h"
#include "kvtrack/library/TrackStorage.h"
#include "kvtrack/support/CaseInsensitive.h"
#include "kvtrack/support/Log.h"
#include "kvtrack/support/NumberText.h"

#include <algorithm>
#include <filesystem>
#include <set>

namespace kvtrack {

namespace {
using Lock = std::lock_guard<const TrackLibraryFolder>;

// Never destroyed: a library must not try to save itself while the process
// tears down the objects it needs. Hosts save with releaseSingleton().
std::mutex& registryMutex = *new std::mutex;
TrackLibraryPtr& registered = *new TrackLibraryPtr;

TrackPtr collection(const char* name, const char* filename) {
  auto track = Track::trackWithName(name);
  track->setFilename(filename);
  track->setType(Track::kLibraryCollection);
  track->setIsDirty(false);
  return track;
}

// ".<file>.XXXXXX": the temporary file of a save that was killed before it
// could replace its target.
bool isLeftoverOfInterruptedSave(const std::string& name) {
  if (name.size() < 9 || name.front() != '.' || name[name.size() - 7] != '.') return false;
  if (!std::all_of(name.end() - 6, name.end(), [](unsigned char c) { return std::isalnum(c); })) {
    return false;
  }
  const std::string target = name.substr(1, name.size() - 8);
  return target.ends_with(".gpx") || target.ends_with(".gpxx") || target.ends_with(".wayfolio");
}

// The library as a folder pointer that owns nothing: usable while it is
// being destroyed, when no shared pointer to it can be made any more.
TrackLibraryFolderPtr unowned(const TrackLibrary& library) {
  return TrackLibraryFolderPtr(std::shared_ptr<void>(), const_cast<TrackLibrary*>(&library));
}
}  // namespace

TrackLibraryPtr TrackLibrary::singleton() {
  if (auto library = current()) return library;
  static std::mutex creation;
  std::lock_guard lock(creation);
  if (auto library = current()) return library;
  auto library = trackLibraryWithFileHandling(FileHandling::singleton());
  library->syncFromDisk();
  return library;
}

TrackLibraryPtr TrackLibrary::current() {
  std::lock_guard lock(registryMutex);
  return registered;
}

TrackLibraryPtr TrackLibrary::trackLibraryWithFileHandling(FileHandling& fileHandling) {
  auto library = std::make_shared<TrackLibrary>(fileHandling);
  TrackLibraryPtr previous;
  {
    std::lock_guard lock(registryMutex);
    if (registered) logLine("internal error: more than one TrackLibrary allocated!");
    previous = std::move(registered);
    registered = library;
  }
  previous.reset();  // saves the old library before the new one takes over the store
  TrackStore::setShared(std::make_shared<LibraryTrackStore>(*library));
  library->geocacheTrack_->loadFromLibrary();
  library->waypointTrack_->loadFromLibrary();
  return library;
}

void TrackLibrary::releaseSingleton() {
  TrackLibraryPtr previous;
  {
    std::lock_guard lock(registryMutex);
    previous = std::move(registered);
  }
}

TrackLibrary::TrackLibrary(FileHandling& fileHandling)
    : fileHandling_(fileHandling),
      geocacheTrack_(collection("geocaches", "all_geocaches.gpxx")),
      waypointTrack_(collection("waypoints", "all_waypoints.gpxx")) {}

TrackLibrary::~TrackLibrary() {
  syncToDisk();
  // Tracks that outlive the library must not reach for its files.
  if (auto store = std::dynamic_pointer_cast<LibraryTrackStore>(TrackStore::shared());
      store && store->library() == this) {
    TrackStore::setShared(nullptr);
  }
}

int32_t TrackLibrary::trackCounter() const {
  Lock lock(*this);
  return trackCounter_;
}

void TrackLibrary::setTrackCounter(int32_t counter) {
  Lock lock(*this);
  trackCounter_ = counter;
}

void TrackLibrary::increaseTrackCounter() {
  Lock lock(*this);
  ++trackCounter_;
}

bool TrackLibrary::syncToDisk() {
  Lock lock(*this);
  bool ok = true;
  for (const auto& track : allTracks()) ok = track->saveToLibrary() && ok;
  ok = geocacheTrack_->saveToLibraryWithExternalGPX() && ok;
  ok = waypointTrack_->saveToLibraryWithExternalGPX() && ok;
  TrackLibraryXML index;
  index.setIsStandardLibrary(true);
  ok = index.exportTo(folder() + "/library.wayfolio", unowned(*this)) && ok;
  cleanup();
  return ok;
}

void TrackLibrary::syncFromDisk() {
  Lock lock(*this);
  TrackLibraryXML index;
  index.setIsStandardLibrary(true);
  index.importFrom(folder() + "/library.wayfolio", unowned(*this));
  setMetadataDirtyOfAllTracks(false);
}

bool TrackLibrary::atLeastOneTrackDirty() const {
  Lock lock(*this);
  const auto tracks = allTracks();
  return std::any_of(tracks.begin(), tracks.end(), [](const TrackPtr& t) {
    return (t->isDirty() && t->isLoaded()) || t->metadataDirty();
  });
}

std::string TrackLibrary::generateFilename(const Track& track) const { return track.name() + ".gpx"; }

void TrackLibrary::cleanup() {
  Lock lock(*this);
  const std::filesystem::path root(folder());
  std::set<std::string> orphans;
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator(root, error)) {
    const std::string name = entry.path().filename().string();
    std::string lower = name;
    std::transform(lower.begin(), lower.end(), lower.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    if (lower.ends_with(".gpx")) orphans.insert(name);
    if (isLeftoverOfInterruptedSave(name)) std::filesystem::remove(entry.path(), error);
  }
  for (const auto& track : allTracks()) {
    if (track->filename()) orphans.erase(*track->filename());
  }
  for (const auto& name : orphans) {
    std::filesystem::remove(root / name, error);
    std::filesystem::remove(root / (name + "_tp"), error);
  }
}

// Walks "i.j.k." positions from the root: every component but the text
// behind the last point. Strict walks stop at an invalid position; lenient
// ones skip it and stay where they are.
TrackLibraryFolderPtr TrackLibrary::walkPath(const std::string& path, bool lenient,
                                             std::string_view& last) const {
  TrackLibraryFolderPtr folder = std::const_pointer_cast<TrackLibraryFolder>(shared_from_this());
  std::string_view rest(path);
  for (size_t dot = rest.find('.'); dot != std::string_view::npos; dot = rest.find('.')) {
    const int index = parseIntValue(rest.substr(0, dot));
    const auto folders = folder->folders();
    if (index >= 0 && static_cast<size_t>(index) < folders.size()) {
      folder = folders[static_cast<size_t>(index)];
    } else if (!lenient) {
      return nullptr;
    }
    rest.remove_prefix(dot + 1);
  }
  last = rest;
  return folder;
}

TrackLibraryFolderPtr TrackLibrary::trackLibraryFolderWithPath(const std::string& path) const {
  Lock lock(*this);
  std::string_view last;
  return walkPath(path, false, last);
}

TrackPtr TrackLibrary::trackWithPath(const std::string& path) const {
  Lock lock(*this);
  std::string_view last;
  const TrackLibraryFolderPtr folder = walkPath(path, true, last);
  const int index = parseIntValue(last);
  const auto tracks = folder->tracks();
  if (index < 0 || static_cast<size_t>(index) >= tracks.size()) return nullptr;
  return tracks[static_cast<size_t>(index)];
}

TrackPtr TrackLibrary::findTrackForDateWithLocalTimezone(const ISODate& localTime) const {
  Lock lock(*this);
  for (const auto& track : allTracks()) {
    const auto& start = track->startTime();
    const auto& end = track->endTime();
    if (!start || !end) continue;
    const ISODate time = localTime.convertLocalTimeToUTC(start->timezoneOffset());
    if (time.compare(*start) >= 0 && time.compare(*end) <= 0) return track;
  }
  return nullptr;
}

PointInTrack TrackLibrary::findNearestPointForLatitude(double latitude, double longitude,
                                                       PointInTrack nearestPoint,
                                                       bool /*selectedTracksOnly*/) const {
  Lock lock(*this);
  // Only selected tracks are searched, whatever the flag says.
  for (const auto& track : allSelectedTracks()) {
    nearestPoint = track->findNearestPointForLatitude(latitude, longitude, nearestPoint);
  }
  return nearestPoint;
}

PointInTrack TrackLibrary::findNearestPointForLatitude(double latitude, double longitude,
                                                       bool selectedTracksOnly) const {
  return findNearestPointForLatitude(latitude, longitude, PointInTrack::end(), selectedTracksOnly);
}

bool TrackLibrary::exportGPX(const std::string& path, GpxExportConfiguration& configuration) const {
  return TrackLibraryGPX().exportTo(path, configuration);
}

bool TrackLibrary::exportSelectedGPX(const std::string& path,
                                     GpxExportConfiguration& configuration) const {
  return TrackLibraryGPX().exportSelected(path, configuration);
}

}  // namespace kvtrack
