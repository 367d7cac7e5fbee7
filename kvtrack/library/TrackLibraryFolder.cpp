#include "kvtrack/library/TrackLibraryFolder.h"

#include "kvtrack/library/ICloudSynchronizer.h"
#include "kvtrack/library/TrackLibrary.h"
#include "kvtrack/library/TrackStorage.h"
#include "kvtrack/support/StagedFiles.h"
#include "kvtrack/support/SystemCalls.h"
#include "kvtrack/support/CaseInsensitive.h"
#include "kvtrack/support/FileHandling.h"
#include "kvtrack/support/Gzip.h"
#include "kvtrack/support/KvPreferences.h"
#include "kvtrack/support/Log.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <fstream>
#include <iterator>

namespace kvtrack {

namespace {
using Lock = std::lock_guard<const TrackLibraryFolder>;

// The synchroniser to tell about deleted tracks, when the host has one.
std::shared_ptr<ICloudSynchronizer> activeSynchronizer() {
  auto& preferences = KvPreferences::singleton();
  if (!preferences.iCloudSupported().value_or(false)) return nullptr;
  return preferences.iCloudSynchronizer();
}
}  // namespace

TrackLibraryFolder::TrackLibraryFolder(std::string name) : TrackFolder(std::move(name)) {}

std::vector<TrackPtr> TrackLibraryFolder::tracks() const {
  Lock lock(*this);
  return tracks_;
}

std::vector<TrackLibraryFolderPtr> TrackLibraryFolder::folders() const {
  Lock lock(*this);
  return folders_;
}

void TrackLibraryFolder::setTracks(std::vector<TrackPtr> tracks) {
  Lock lock(*this);
  tracks_ = std::move(tracks);
}

void TrackLibraryFolder::insertTrack(const TrackPtr& track, std::ptrdiff_t position) {
  Lock lock(*this);
  // Counter values are never reused, even when nothing was named.
  const auto library = TrackLibrary::current();
  const int32_t counter = library ? library->takeTrackCounter() : 0;
  if (!track->filename() || track->filename()->empty()) {
    track->setFilename(fmt::format("Track{:08}.gpx", counter));
  }
  if (track->name().empty()) track->setName(fmt::format("Track{:08}", counter));
  tracks_.insert(tracks_.begin() + position, track);
  track->setParent(shared_from_this());
}

void TrackLibraryFolder::addTrack(const TrackPtr& track) {
  Lock lock(*this);
  insertTrack(track, static_cast<std::ptrdiff_t>(tracks_.size()));
}

void TrackLibraryFolder::addTrack(const TrackPtr& track, const Track* afterTrack) {
  Lock lock(*this);
  auto it = std::find_if(tracks_.begin(), tracks_.end(),
                         [&](const TrackPtr& t) { return t.get() == afterTrack; });
  insertTrack(track, it == tracks_.end() ? static_cast<std::ptrdiff_t>(tracks_.size())
                                         : (it - tracks_.begin()) + 1);
}

void TrackLibraryFolder::addTrack(const TrackPtr& track, std::string name, std::string filename) {
  Lock lock(*this);
  tracks_.push_back(track);
  track->setParent(shared_from_this());
  track->setName(std::move(name));
  track->setFilename(std::move(filename));
}

Result<TrackPtr> TrackLibraryFolder::addTrackFromiCloudFile(std::string name, const std::string& path) {
  const Result<std::string> compressed = readWholeFile(path);
  if (!compressed) {
    logf("Error reading file: {}", path);
    return compressed.status();
  }
  const Result<std::string> gpx = gzipInflate(*compressed);
  if (!gpx) return gpx.status().prefixed(path);

  Lock lock(*this);
  const auto library = TrackLibrary::current();
  auto track = Track::trackWithName(std::move(name));
  track->setFilename(fmt::format("Track{:08}.gpx", library ? library->takeTrackCounter() : 0));
  const std::string folder =
      library ? library->folder() : FileHandling::singleton().userApplicationSupport();
  // Like every library file, replaced only by a complete one.
  if (const Status written = writeFileAtomically(folder + "/" + *track->filename(), *gpx); !written) {
    return written;
  }
  // Read from that file on first use.
  track->setIsLoaded(false);
  track->setIsDirty(false);
  tracks_.push_back(track);
  track->setParent(shared_from_this());
  return track;
}

void TrackLibraryFolder::addFolder(const TrackLibraryFolderPtr& folder) {
  Lock lock(*this);
  folders_.push_back(folder);
  folder->setParent(shared_from_this());
}

void TrackLibraryFolder::addFolderAtBeginning(const TrackLibraryFolderPtr& folder) {
  Lock lock(*this);
  folders_.insert(folders_.begin(), folder);
  folder->setParent(shared_from_this());
}

void TrackLibraryFolder::deleteFolder(const TrackLibraryFolderPtr& folder) {
  Lock lock(*this);
  if (auto synchronizer = activeSynchronizer()) {
    for (const auto& track : folder->allTracks()) synchronizer->deleteTrackFromiCloud(*track);
  }
  std::erase(folders_, folder);
}

void TrackLibraryFolder::deleteTrack(const TrackPtr& track) {
  Lock lock(*this);
  if (auto synchronizer = activeSynchronizer()) synchronizer->deleteTrackFromiCloud(*track);
  std::erase(tracks_, track);
}

TrackLibraryFolderPtr TrackLibraryFolder::getFolder(const std::string& name) const {
  Lock lock(*this);
  for (const auto& folder : folders_) {
    if (folder->name() == name) return folder;
  }
  return nullptr;
}

int TrackLibraryFolder::indexOfTrack(const Track& track) const {
  Lock lock(*this);
  for (size_t i = 0; i < tracks_.size(); ++i) {
    if (tracks_[i].get() == &track) return static_cast<int>(i);
  }
  return -1;
}

int TrackLibraryFolder::indexOfTrackLibraryFolder(const TrackLibraryFolder& folder) const {
  Lock lock(*this);
  for (size_t i = 0; i < folders_.size(); ++i) {
    if (folders_[i].get() == &folder) return static_cast<int>(i);
  }
  return -1;
}

void TrackLibraryFolder::setName(std::string name) {
  Lock lock(*this);
  TrackFolder::setName(std::move(name));
  setMetadataDirtyOfAllTracks(true);
}

void TrackLibraryFolder::setMetadataDirtyOfAllTracks(bool dirty) {
  Lock lock(*this);
  for (const auto& track : tracks_) track->setMetadataDirty(dirty);
  for (const auto& folder : folders_) folder->setMetadataDirtyOfAllTracks(dirty);
}

// The old and the new folder may stand in any order in the tree: both are
// locked together, without an order that another walk could invert.
void TrackLibraryFolder::moveTrackHere(const TrackPtr& track) {
  const auto oldParent = std::dynamic_pointer_cast<TrackLibraryFolder>(track->parent());
  if (oldParent.get() == this) return;
  const TrackPtr keep = track;  // alive while it belongs to no folder
  {
    std::scoped_lock both(*this, oldParent ? *oldParent : *this);  // recursive: this twice is fine
    if (oldParent) std::erase(oldParent->tracks_, keep);
    addTrack(keep);
  }
  keep->setMetadataDirty(true);
}

void TrackLibraryFolder::moveTrackLibraryFolderHere(const TrackLibraryFolderPtr& folder) {
  for (const TrackLibraryFolder* f = this; f; f = f->parent().get()) {
    if (f == folder.get()) return;  // into itself or below itself; the tree keeps each alive
  }
  const TrackLibraryFolderPtr keep = folder;
  const auto oldParent = folder->parent();
  {
    std::scoped_lock both(*this, oldParent ? *oldParent : *this);  // recursive: this twice is fine
    if (oldParent) std::erase(oldParent->folders_, keep);
    addFolder(keep);
  }
  keep->setMetadataDirtyOfAllTracks(true);
}

void TrackLibraryFolder::unselectAll() {
  Lock lock(*this);
  for (const auto& folder : folders_) {
    folder->setIsSelected(false);
    folder->unselectAll();
  }
  for (const auto& track : tracks_) track->setIsSelected(false);
}

void TrackLibraryFolder::selectAllTracks() {
  Lock lock(*this);
  for (const auto& folder : folders_) folder->selectAllTracks();
  for (const auto& track : tracks_) track->setIsSelected(true);
}

void TrackLibraryFolder::addAllTracksToArray(std::vector<TrackPtr>& into) const {
  Lock lock(*this);
  for (const auto& folder : folders_) folder->addAllTracksToArray(into);
  into.insert(into.end(), tracks_.begin(), tracks_.end());
}

void TrackLibraryFolder::addAllSelectedTracksToArray(std::vector<TrackPtr>& into) const {
  Lock lock(*this);
  for (const auto& folder : folders_) folder->addAllSelectedTracksToArray(into);
  for (const auto& track : tracks_) {
    if (track->isSelected()) into.push_back(track);
  }
}

void TrackLibraryFolder::addAllSelectedFoldersToArray(std::vector<TrackLibraryFolderPtr>& into) const {
  Lock lock(*this);
  for (const auto& folder : folders_) {
    if (folder->isSelected()) into.push_back(folder);
    folder->addAllSelectedFoldersToArray(into);
  }
}

void TrackLibraryFolder::lockSubtree(std::vector<std::unique_lock<const TrackLibraryFolder>>& locks) const {
  locks.emplace_back(*this);
  for (const auto& folder : folders_) folder->lockSubtree(locks);
}

std::vector<TrackPtr> TrackLibraryFolder::allTracks() const {
  std::vector<TrackPtr> result;
  addAllTracksToArray(result);
  return result;
}

std::vector<TrackPtr> TrackLibraryFolder::allSelectedTracks() const {
  std::vector<TrackPtr> result;
  addAllSelectedTracksToArray(result);
  return result;
}

std::vector<TrackLibraryFolderPtr> TrackLibraryFolder::allSelectedFolders() const {
  std::vector<TrackLibraryFolderPtr> result;
  addAllSelectedFoldersToArray(result);
  return result;
}

TrackPtr TrackLibraryFolder::firstSelectedTrack() const {
  Lock lock(*this);
  for (const auto& folder : folders_) {
    if (auto track = folder->firstSelectedTrack()) return track;
  }
  for (const auto& track : tracks_) {
    if (track->isSelected()) return track;
  }
  return nullptr;
}

TrackLibraryFolderPtr TrackLibraryFolder::firstSelectedTrackFolder() const {
  Lock lock(*this);
  for (const auto& folder : folders_) {
    if (folder->isSelected()) return folder;
    if (auto below = folder->firstSelectedTrackFolder()) return below;
  }
  return nullptr;
}

namespace {
void addPhotosOfTrack(Track& track, std::vector<TrackPhotoPtr>& into) {
  std::lock_guard<Track> lock(track);
  for (const auto& point : track.trackPoints()) point->addTrackPhotos(into);
}
}  // namespace

void TrackLibraryFolder::addtrackPhotosOfTracks(std::vector<TrackPhotoPtr>& into) const {
  Lock lock(*this);
  for (const auto& folder : folders_) folder->addtrackPhotosOfTracks(into);
  for (const auto& track : tracks_) addPhotosOfTrack(*track, into);
}

void TrackLibraryFolder::addtrackPhotosOfSelectedFolders(std::vector<TrackPhotoPtr>& into) const {
  Lock lock(*this);
  for (const auto& folder : folders_) {
    if (folder->isSelected()) {
      folder->addtrackPhotosOfTracks(into);
    } else {
      folder->addtrackPhotosOfSelectedFolders(into);
    }
  }
  for (const auto& track : tracks_) {
    if (track->isSelected()) addPhotosOfTrack(*track, into);
  }
}

std::vector<TrackPhotoPtr> TrackLibraryFolder::trackPhotosOfTracks() const {
  std::vector<TrackPhotoPtr> result;
  addtrackPhotosOfTracks(result);
  return result;
}

std::vector<TrackPhotoPtr> TrackLibraryFolder::trackPhotosOfSelectedFolders() const {
  std::vector<TrackPhotoPtr> result;
  addtrackPhotosOfSelectedFolders(result);
  return result;
}

TrackPtr TrackLibraryFolder::trackWithTrackId(const std::string& trackId) const {
  Lock lock(*this);
  for (const auto& track : tracks_) {
    if (track->trackId() == trackId) return track;
  }
  for (const auto& folder : folders_) {
    if (auto track = folder->trackWithTrackId(trackId)) return track;
  }
  return nullptr;
}

std::string TrackLibraryFolder::path() const {
  std::string text;
  addPath(text);
  return text;
}

// Upwards, so this folder's lock is not held while the parent's is taken:
// walks lock parent before child.
void TrackLibraryFolder::addPath(std::string& path) const {
  if (auto parent = this->parent()) {
    path.insert(0, fmt::format("{}.", parent->indexOfTrackLibraryFolder(*this)));
    parent->addPath(path);
  }
}

int TrackLibraryFolder::compareName(const TrackLibraryFolder& other) const {
  return compareCaseInsensitive(name(), other.name());
}

int TrackLibraryFolder::compareNameDescending(const TrackLibraryFolder& other) const {
  return compareCaseInsensitive(other.name(), name());
}

// Sorting uses strict orderings that agree with the comparators wherever
// those are consistent; what they leave open (two tracks without a start
// time, a length that is not a number) goes last in any order.
template <typename Less>
void TrackLibraryFolder::sortTracks(Less less) {
  std::stable_sort(tracks_.begin(), tracks_.end(),
                   [&](const TrackPtr& a, const TrackPtr& b) { return less(*a, *b); });
}

namespace {
auto byName(bool ascending) {
  return [ascending](const auto& a, const auto& b) {
    return (ascending ? a.compareName(b) : a.compareNameDescending(b)) < 0;
  };
}

auto byStartTime(bool ascending) {
  return [ascending](const Track& a, const Track& b) {
    if (!a.startTime()) return false;
    if (!b.startTime()) return true;
    const int order = a.startTime()->compare(*b.startTime());
    return ascending ? order < 0 : order > 0;
  };
}

template <typename Value>
auto byNumber(Value value, bool ascending) {
  return [value, ascending](const Track& a, const Track& b) {
    const double x = value(a), y = value(b);
    if (std::isnan(x)) return false;
    if (std::isnan(y)) return true;
    return ascending ? x < y : x > y;
  };
}
}  // namespace

void TrackLibraryFolder::sortByNameAscending(bool ascending) {
  Lock lock(*this);
  sortTracks(byName(ascending));
  std::stable_sort(folders_.begin(), folders_.end(),
                   [&](const TrackLibraryFolderPtr& a, const TrackLibraryFolderPtr& b) {
                     return byName(ascending)(*a, *b);
                   });
  for (const auto& folder : folders_) folder->sortByNameAscending(ascending);
}

void TrackLibraryFolder::sortByDateAscending(bool ascending) {
  Lock lock(*this);
  sortTracks(byStartTime(ascending));
  for (const auto& folder : folders_) folder->sortByDateAscending(ascending);
}

void TrackLibraryFolder::sortByDateAndNameAscending(bool ascending) {
  Lock lock(*this);
  sortTracks(byStartTime(ascending));
  std::stable_sort(folders_.begin(), folders_.end(),
                   [&](const TrackLibraryFolderPtr& a, const TrackLibraryFolderPtr& b) {
                     return byName(ascending)(*a, *b);
                   });
  // Deeper levels keep their folder order: only dates are sorted there.
  for (const auto& folder : folders_) folder->sortByDateAscending(ascending);
}

void TrackLibraryFolder::sortByLengthAscending(bool ascending) {
  Lock lock(*this);
  sortTracks(byNumber([](const Track& t) { return t.length(); }, ascending));
  for (const auto& folder : folders_) folder->sortByLengthAscending(ascending);
}

void TrackLibraryFolder::sortByDurationAscending(bool ascending) {
  Lock lock(*this);
  sortTracks(byNumber([](const Track& t) { return t.duration(); }, ascending));
  for (const auto& folder : folders_) folder->sortByDurationAscending(ascending);
}

}  // namespace kvtrack
