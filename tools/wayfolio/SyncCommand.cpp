// wayfolio sync: mirror the library into a sync folder (--folder), or bring
// the tracks of a sync folder into the library (--from).
#include "tools/wayfolio/SyncCommand.h"

#include "kvtrack/library/TrackLibrary.h"
#include "kvtrack/sync/FolderSynchronizer.h"
#include "kvtrack/sync/TrackICloudMetadata.h"
#include "kvtrack/model/TrackPoint.h"
#include "kvtrack/support/FileHandling.h"
#include "kvtrack/support/KvPreferences.h"
#include "kvtrack/support/Log.h"
#include "tools/wayfolio/Commands.h"
#include "tools/wayfolio/LibraryNames.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <map>
#include <memory>

namespace wayfolio {

namespace fs = std::filesystem;
using namespace kvtrack;

namespace {

struct SyncOptions {
  std::string folder;  // push
  std::string from;    // pull
  bool photos = false;
};

// Deliberate: the sync folder is never created here. A missing one is
// often an unmounted disk or share, and a folder made in its place would
// collect a mirror nobody sees.
std::string existingFolder(const std::string& text) {
  std::string path = fs::absolute(text).lexically_normal().string();
  while (path.size() > 1 && path.ends_with('/')) path.pop_back();
  std::error_code error;
  if (!fs::is_directory(path, error)) {
    throw CommandError(fmt::format("the sync folder {} does not exist (make it first)", path));
  }
  return path;
}

// Mirroring on for the rest of the run, into this folder.
std::shared_ptr<FolderSynchronizer> installSynchronizer(const std::string& folder) {
  auto synchronizer = std::make_shared<FolderSynchronizer>(folder);
  KvPreferences& preferences = KvPreferences::singleton();
  preferences.setICloudSupported(true);
  preferences.setICloudSynchronizer(synchronizer);
  return synchronizer;
}

int photosWithoutICloudId(Track& track) {
  std::lock_guard<Track> lock(track);
  int count = 0;
  for (const auto& point : track.trackPoints()) {
    for (const auto& photo : point->trackPhotos()) {
      if (!photo->iCloudId() || photo->iCloudId()->empty()) ++count;
    }
  }
  return count;
}

Outcome push(const SyncOptions& options) {
  const std::string folder = existingFolder(options.folder);
  KvPreferences& preferences = KvPreferences::singleton();
  preferences.setSyncFolder(folder);
  const auto synchronizer = installSynchronizer(folder);
  if (!preferences.save()) {
    throw CommandError("could not save the settings " + preferences.settingsPath());
  }

  const auto library = TrackLibrary::singleton();
  size_t mirrored = 0, photos = 0;
  std::vector<std::string> failed;
  for (const auto& track : library->allTracks()) {
    const bool wasLoaded = track->isLoaded();
    if (!track->iCloudId() || track->iCloudId()->empty()) track->setICloudId(FileHandling::guid());
    if (options.photos) {
      const int before = photosWithoutICloudId(*track);
      TrackICloud::movePhotosToiCloud(*track);
      photos += static_cast<size_t>(before - photosWithoutICloudId(*track));
    }
    if (synchronizer->writeTrack(*track)) {
      ++mirrored;
    } else {
      failed.push_back(trackPath(*track));
    }
    // Memory stays flat on large libraries. A track whose photos moved is
    // dirty and stays for the save (which mirrors it once more, harmlessly).
    if (!wasLoaded && !track->isDirty()) track->unload();
  }

  std::string report = fmt::format("mirrored {} tracks to {}\n", mirrored, folder);
  if (options.photos) report += fmt::format("copied {} photos to {}\n", photos, folder);
  for (const auto& path : failed) report += fmt::format("  not mirrored: {}\n", path);
  // The new ids and the times of mirroring belong in the index.
  Outcome outcome = libraryChanged(true, std::move(report));
  if (!failed.empty()) {
    outcome.failure = fmt::format("{} tracks could not be mirrored to {}", failed.size(), folder);
  }
  return outcome;
}

// The folder at the names, made where missing.
TrackLibraryFolderPtr folderAt(const TrackLibraryPtr& library,
                               const std::vector<std::string>& names) {
  TrackLibraryFolderPtr folder = library;
  for (const auto& name : names) {
    if (name.empty()) continue;
    auto child = folder->getFolder(name);
    if (!child) {
      child = TrackLibraryFolder::trackLibraryFolder(name);
      folder->addFolder(child);
    }
    folder = child;
  }
  return folder;
}

// Reads the received file at once, so the index gets every figure of the
// file (points, elevations) and not only those of the record; the record
// then has the last word. The file is what was received: nothing to write
// back, and nothing to mirror back.
void takeRecord(Track& track, const TrackICloud::Metadata& metadata) {
  track.loadFromLibrary();
  TrackICloud::copyMetadataToTrack(metadata, track);
  track.setIsDirty(false);
  track.setMetadataDirty(false);
}

bool startsBefore(const FolderSynchronizer::Record& a, const FolderSynchronizer::Record& b) {
  const auto startA = TrackICloud::startTimeFromMetadata(a.metadata);
  const auto startB = TrackICloud::startTimeFromMetadata(b.metadata);
  if (startA && startB && startA->compare(*startB) != 0) return startA->compare(*startB) < 0;
  if (startA.has_value() != startB.has_value()) return startA.has_value();  // undated last
  return TrackICloud::nameFromMetadata(a.metadata) < TrackICloud::nameFromMetadata(b.metadata);
}

// What a pull did, record by record.
struct PullCounts {
  size_t added = 0, updated = 0, unchanged = 0;
  std::vector<std::string> failures;  // each naming its file
};

// One record whose track this library already holds: taken when newer.
void pullKnown(const TrackLibraryPtr& library, const TrackPtr& track, const FolderSynchronizer::Record& record,
               PullCounts& counts) {
  if (TrackICloud::timestampFromMetadata(record.metadata) <= track->iCloudTimestamp()) {
    ++counts.unchanged;
    return;
  }
  if (const Status replaced = TrackICloud::updateLibraryFileFromiCloudFile(*track, record.trackFile); !replaced) {
    counts.failures.push_back(replaced.reason());
    return;
  }
  takeRecord(*track, record.metadata);
  // Deliberate: a track moved on the other side moves here too.
  const auto target = folderAt(library, TrackICloud::pathFromMetadata(record.metadata));
  if (folderOf(*track) != target) {
    target->moveTrackHere(track);
    track->setMetadataDirty(false);
  }
  ++counts.updated;
}

// One record of a track new to this library.
TrackPtr pullNew(const TrackLibraryPtr& library, const FolderSynchronizer::Record& record, PullCounts& counts) {
  const auto path = TrackICloud::pathFromMetadata(record.metadata);
  Result<TrackPtr> track = folderAt(library, path)->addTrackFromiCloudFile(
      TrackICloud::nameFromMetadata(record.metadata), record.trackFile);
  if (!track) {
    counts.failures.push_back(track.reason());
    return nullptr;
  }
  takeRecord(**track, record.metadata);
  ++counts.added;
  return *track;
}

Outcome pull(const SyncOptions& options) {
  const std::string folder = existingFolder(options.from);
  const auto synchronizer = installSynchronizer(folder);
  const auto library = TrackLibrary::singleton();

  std::map<std::string, TrackPtr> known;
  for (const auto& track : library->allTracks()) {
    if (track->iCloudId() && !track->iCloudId()->empty()) known[*track->iCloudId()] = track;
  }
  auto records = synchronizer->records();
  std::stable_sort(records.begin(), records.end(), startsBefore);

  PullCounts counts;
  for (const auto& record : records) {
    const auto id = TrackICloud::iCloudIdFromMetadata(record.metadata);
    if (!id || id->empty()) {
      counts.failures.push_back(record.recordFile + ": the record names no iCloudId");
    } else if (const auto it = known.find(*id); it != known.end()) {
      pullKnown(library, it->second, record, counts);
    } else if (TrackPtr added = pullNew(library, record, counts)) {
      known[*id] = added;
    }
  }

  std::string report = fmt::format("added {}, updated {}, unchanged {} tracks from {}\n", counts.added,
                                   counts.updated, counts.unchanged, folder);
  for (const auto& failure : counts.failures) report += fmt::format("  failed: {}\n", failure);
  Outcome outcome = libraryChanged(counts.added + counts.updated > 0, std::move(report));
  if (!counts.failures.empty()) {
    outcome.failure = fmt::format("{} records of {} could not be read", counts.failures.size(), folder);
  }
  return outcome;
}

}  // namespace

void installConfiguredSynchronizer() {
  KvPreferences& preferences = KvPreferences::singleton();
  const auto folder = preferences.syncFolder();
  if (!folder || folder->empty()) return;
  // A sync folder without the switch means mirroring; an explicit "false"
  // turns it off while keeping the folder.
  if (!preferences.iCloudSupported()) preferences.setICloudSupported(true);
  preferences.setICloudSynchronizer(std::make_shared<FolderSynchronizer>(*folder));
}

void addSyncCommand(CLI::App& app, Invocation& invocation) {
  auto options = std::make_shared<SyncOptions>();
  CLI::App* command = app.add_subcommand(
      "sync", "Mirror the library into a sync folder, or bring in the tracks of one");
  CLI::Option* folder = command->add_option(
      "--folder", options->folder,
      "Mirror every track into this folder and keep it current from now on");
  CLI::Option* from = command->add_option(
      "--from", options->from, "Add the folder's new tracks and update those changed there");
  command->add_flag("--photos", options->photos, "With --folder: copy the photos there too")
      ->needs(folder);
  folder->excludes(from);
  command->callback([&invocation, options] {
    if (options->folder.empty() && options->from.empty()) {
      throw CLI::ValidationError("sync", "give --folder DIR or --from DIR");
    }
    invocation.changesLibrary = true;
    invocation.action = [options] {
      return options->folder.empty() ? pull(*options) : push(*options);
    };
  });
}

}  // namespace wayfolio
