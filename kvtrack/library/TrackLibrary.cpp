#include "kvtrack/library/TrackLibrary.h"

#include "kvtrack/library/TrackLibraryGPX.h"
#include "kvtrack/library/TrackLibraryXML.h"
#include "kvtrack/library/TrackStorage.h"
#include "kvtrack/support/CaseInsensitive.h"
#include "kvtrack/support/Log.h"
#include "kvtrack/support/NumberText.h"
#include "kvtrack/support/StagedFiles.h"
#include "kvtrack/support/SystemCalls.h"

#include <algorithm>
#include <filesystem>
#include <set>

namespace kvtrack {

namespace {
using Lock = std::lock_guard<const TrackLibraryFolder>;

// The registered library. Hosts save it with releaseSingleton(); one still
// registered when the process ends goes without saving, because saving then
// could reach objects the process has already torn down.
struct Registry {
  std::mutex mutex;
  TrackLibraryPtr library;

  ~Registry() {
    if (library) library->setReadOnly(true);
  }
};

Registry& registry() {
  static Registry instance;
  return instance;
}

TrackPtr collection(const char* name, const char* filename) {
  auto track = Track::trackWithName(name);
  track->setFilename(filename);
  track->setType(Track::kLibraryCollection);
  track->setIsDirty(false);
  return track;
}

// ".<file>.XXXXXX": the temporary file of a save that was killed before it
// could replace one of the library's files.
bool isLeftoverOfLibrarySave(const std::string& name) {
  if (!isLeftoverOfInterruptedSave(name)) return false;
  const std::string target = name.substr(1, name.size() - 8);
  return target.ends_with(".gpx") || target.ends_with(".gpxx") ||
         target.starts_with(TrackLibrary::kIndexName);
}

// "Track00000042.gpx" -> 42: the numbers in the names the library gives files.
std::optional<int32_t> numberedName(const std::string& filename, std::string_view prefix,
                                    std::string_view suffix) {
  if (filename.size() <= prefix.size() + suffix.size() || !filename.starts_with(prefix) ||
      !filename.ends_with(suffix)) {
    return std::nullopt;
  }
  const std::string digits =
      filename.substr(prefix.size(), filename.size() - prefix.size() - suffix.size());
  if (digits.size() > 9 || digits.find_first_not_of("0123456789") != std::string::npos) {
    return std::nullopt;
  }
  return static_cast<int32_t>(std::stol(digits));
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
  (void)library->syncFromDisk();  // a missing or damaged index is logged
  return library;
}

TrackLibraryPtr TrackLibrary::current() {
  Registry& registered = registry();
  std::lock_guard lock(registered.mutex);
  return registered.library;
}

TrackLibraryPtr TrackLibrary::trackLibraryWithFileHandling(FileHandling& fileHandling) {
  auto library = std::make_shared<TrackLibrary>(fileHandling);
  TrackLibraryPtr previous;
  {
    Registry& registered = registry();
    std::lock_guard lock(registered.mutex);
    if (registered.library) logLine("internal error: more than one TrackLibrary allocated!");
    previous = std::move(registered.library);
    registered.library = library;
  }
  previous.reset();  // saves the old library before the new one takes over the store
  TrackStore::setShared(library->store_);
  library->geocacheTrack_->loadFromLibrary();
  library->waypointTrack_->loadFromLibrary();
  return library;
}

void TrackLibrary::releaseSingleton() {
  TrackLibraryPtr previous;
  {
    Registry& registered = registry();
    std::lock_guard lock(registered.mutex);
    previous = std::move(registered.library);
  }
}

TrackLibrary::TrackLibrary(FileHandling& fileHandling)
    : fileHandling_(fileHandling),
      geocacheTrack_(collection("geocaches", "all_geocaches.gpxx")),
      waypointTrack_(collection("waypoints", "all_waypoints.gpxx")),
      store_(std::make_shared<LibraryTrackStore>(*this)) {}

TrackLibrary::~TrackLibrary() {
  (void)syncToDisk();  // a failure is logged; the files stay as they were
  // Tracks that outlive the library must not reach for its files.
  if (auto store = std::dynamic_pointer_cast<LibraryTrackStore>(TrackStore::shared());
      store && store->library() == this) {
    TrackStore::setShared(nullptr);
  }
}

Status TrackLibrary::syncToDisk() {
  Lock lock(*this);
  if (readOnly_) return {};
  // Every folder stays locked until the index is written: the save holds
  // the tracks, and folders are locked before the tracks in them.
  std::vector<std::unique_lock<const TrackLibraryFolder>> folders;
  lockSubtree(folders);
  LibrarySave save(*store_);
  Status status;
  for (const auto& track : allTracks()) {
    if (status) status = save.addTrack(*track);
  }
  if (status) status = save.addCollection(*geocacheTrack_);
  if (status) status = save.addCollection(*waypointTrack_);
  std::optional<std::string> index;
  if (status) status = stageIndex(save, index);
  if (status) status = save.commit();
  if (!status) {
    logf("Error writing file: {}", status.reason());
    return status;
  }
  if (index) {
    indexOnDisk_ = std::move(index);
    damagedIndexAside_.reset();
  }
  cleanup();
  return {};
}

// The index goes last in the save; the one it replaces becomes the
// previous index, and a damaged one is kept aside.
Status TrackLibrary::stageIndex(LibrarySave& save, std::optional<std::string>& staged) {
  TrackLibraryXML writer;
  writer.setIsStandardLibrary(true);
  std::string index = writer.exportText(unowned(*this));
  std::error_code error;
  if (index == indexOnDisk_ && std::filesystem::exists(indexPath(), error)) return {};
  if (damagedIndexAside_ && std::filesystem::exists(indexPath(), error)) {
    const std::string aside = folder() + "/" + *damagedIndexAside_;
    if (SystemCalls::current().link(indexPath().c_str(), aside.c_str()) != 0 && errno != EEXIST) {
      return systemFailure("keep a copy of", indexPath());
    }
  }
  if (indexOnDisk_) {
    if (Status kept = save.addFile(previousIndexPath(), *indexOnDisk_); !kept) return kept;
  }
  if (Status written = save.addFile(indexPath(), index); !written) return written;
  staged = std::move(index);
  return {};
}

Status TrackLibrary::syncFromDisk() {
  Lock lock(*this);
  TrackLibraryXML index;
  index.setIsStandardLibrary(true);
  Result<std::string> bytes = readWholeFile(indexPath());
  // A missing file still goes to the reader, which says so in the log.
  Status status = bytes ? index.importText(*bytes, unowned(*this))
                        : index.importFrom(indexPath(), unowned(*this));
  if (status) indexOnDisk_ = std::move(*bytes);
  namedFiles_ = currentFilenames();
  setMetadataDirtyOfAllTracks(false);
  return status;
}

bool TrackLibrary::atLeastOneTrackDirty() const {
  Lock lock(*this);
  const auto tracks = allTracks();
  return std::any_of(tracks.begin(), tracks.end(), [](const TrackPtr& t) {
    return (t->isDirty() && t->isLoaded()) || t->metadataDirty();
  });
}

std::string TrackLibrary::generateFilename(const Track& track) const { return track.name() + ".gpx"; }

std::set<std::string> TrackLibrary::currentFilenames() const {
  std::set<std::string> names;
  for (const auto& track : allTracks()) {
    if (track->filename()) names.insert(*track->filename());
  }
  return names;
}

void TrackLibrary::cleanup() {
  Lock lock(*this);
  const std::filesystem::path root(folder());
  std::error_code error;
  std::set<std::string> named = currentFilenames();
  for (const auto& name : namedFiles_) {
    if (named.count(name) || name.find('/') != std::string::npos) continue;
    std::filesystem::remove(root / name, error);
    std::filesystem::remove(root / (name + "_tp"), error);
  }
  namedFiles_ = std::move(named);
  for (const auto& entry : std::filesystem::directory_iterator(root, error)) {
    if (isLeftoverOfLibrarySave(entry.path().filename().string())) {
      std::filesystem::remove(entry.path(), error);
    }
  }
}

void TrackLibrary::repairTrackCounter() {
  Lock lock(*this);
  int32_t next = trackCounter_;
  const auto consider = [&](const std::string& filename) {
    if (const auto number = numberedName(filename, "Track", ".gpx")) next = std::max(next, *number + 1);
  };
  for (const auto& name : currentFilenames()) consider(name);
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator(folder(), error)) {
    consider(entry.path().filename().string());
  }
  trackCounter_ = next;
  // The collections' descriptions live in "desc%09d.gpxx" files of their
  // "_ext" folders; a counter behind them would overwrite them.
  for (const TrackPtr& collection : {geocacheTrack_, waypointTrack_}) {
    int32_t nextDescription = collection->counterGPXExternal();
    const std::string descriptions = folder() + "/" + collection->filename().value_or("") + "_ext";
    for (const auto& entry : std::filesystem::directory_iterator(descriptions, error)) {
      if (const auto number = numberedName(entry.path().filename().string(), "desc", ".gpxx")) {
        nextDescription = std::max(nextDescription, *number + 1);
      }
    }
    collection->setCounterGPXExternal(nextDescription);
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

Status TrackLibrary::exportGPX(const std::string& path, GpxExportConfiguration& configuration) const {
  return TrackLibraryGPX().exportTo(path, configuration);
}

Status TrackLibrary::exportSelectedGPX(const std::string& path,
                                       GpxExportConfiguration& configuration) const {
  return TrackLibraryGPX().exportSelected(path, configuration);
}

}  // namespace kvtrack
