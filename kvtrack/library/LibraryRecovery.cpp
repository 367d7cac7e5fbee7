#include "kvtrack/library/LibraryRecovery.h"

#include "kvtrack/formats/gpx/TrackGPX.h"
#include "kvtrack/library/TrackLibraryXML.h"
#include "kvtrack/support/FileHandling.h"
#include "kvtrack/support/Log.h"
#include "kvtrack/support/SystemCalls.h"

#include <fmt/format.h>

#include <algorithm>
#include <filesystem>
#include <set>

namespace kvtrack {

namespace fs = std::filesystem;

namespace {

constexpr const char* kRecoveredFolder = "Recovered";

bool isTrackFileName(const std::string& name) {
  std::string lower = name;
  std::transform(lower.begin(), lower.end(), lower.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  // Hidden files are temporaries of saves; the others are gpsbabel's
  // intermediate files of an import that was cut short.
  return lower.ends_with(".gpx") && !name.starts_with('.') && lower != "kml.gpx" &&
         lower != "loc.gpx" && lower != "convert.gpx";
}

// The track files of the folder, by name.
std::vector<std::string> trackFilesIn(const std::string& folder) {
  std::vector<std::string> names;
  std::error_code error;
  for (const auto& entry : fs::directory_iterator(folder, error)) {
    const std::string name = entry.path().filename().string();
    if (isTrackFileName(name) && entry.is_regular_file(error)) names.push_back(name);
  }
  std::sort(names.begin(), names.end());
  return names;
}

std::set<std::string> namedFiles(const TrackLibraryFolder& folder) {
  std::set<std::string> names;
  for (const auto& track : folder.allTracks()) {
    if (track->filename()) names.insert(*track->filename());
  }
  return names;
}

bool exists(const std::string& path) {
  std::error_code error;
  return fs::exists(path, error);
}

// The subfolder of that name, made when missing.
TrackLibraryFolderPtr subfolder(const TrackLibraryFolderPtr& parent, const std::string& name) {
  if (auto folder = parent->getFolder(name)) return folder;
  auto folder = TrackLibraryFolder::trackLibraryFolder(name);
  parent->addFolder(folder);
  return folder;
}

// The folder in the library at the same place as `source` in its tree.
TrackLibraryFolderPtr samePlace(TrackLibrary& library, const TrackLibraryFolder& source) {
  std::vector<std::string> names;
  for (const TrackLibraryFolder* folder = &source; folder->parent(); folder = folder->parent().get()) {
    names.insert(names.begin(), folder->name());
  }
  TrackLibraryFolderPtr folder = std::static_pointer_cast<TrackLibraryFolder>(library.shared_from_this());
  for (const auto& name : names) folder = subfolder(folder, name);
  return folder;
}

// The folders of the previous index, empty ones included.
void addFolders(TrackLibrary& library, const TrackLibraryFolder& source) {
  for (const auto& folder : source.folders()) {
    samePlace(library, *folder);
    addFolders(library, *folder);
  }
}

// Tracks of the previous index whose files are still there and that the
// library does not hold yet, in the folders they had.
size_t addFromPreviousIndex(TrackLibrary& library) {
  const Result<std::string> bytes = readWholeFile(library.previousIndexPath());
  if (!bytes) return 0;
  auto previous = TrackLibraryFolder::trackLibraryFolder();
  TrackLibraryXML reader;
  reader.setIsStandardLibrary(false);
  (void)reader.importText(*bytes, previous);  // what it yields is used, even before an error
  addFolders(library, *previous);
  std::set<std::string> named = namedFiles(library);
  size_t added = 0;
  for (const auto& track : previous->allTracks()) {
    const std::string filename = track->filename().value_or("");
    if (named.count(filename) || !exists(library.folder() + "/" + filename)) continue;
    const auto from = std::dynamic_pointer_cast<TrackLibraryFolder>(track->parent());
    samePlace(library, *from)->addTrack(track, track->name(), filename);
    track->setMetadataDirty(true);
    named.insert(filename);
    ++added;
  }
  return added;
}

// A track file read into a new track with its metadata; the points are
// dropped again and read on first use like any library track.
Result<TrackPtr> readTrackFile(const std::string& path, const std::string& filename,
                               const std::string& trackIdPrefix) {
  auto track = Track::track();
  track->setIsLoaded(true);
  const Status read = TrackGPX(*track).importFrom(path);
  const auto count = static_cast<int32_t>(track->loadedPointCount());
  if (!read && count == 0) return read;
  track->updateAll();
  if (track->name().empty()) track->setName(fs::path(filename).stem().string());
  if (auto id = contentTrackId(*track, trackIdPrefix)) track->setTrackId(std::move(id));
  track->setTrackPoints({});
  track->setStoredPointCount(count);
  track->setIsLoaded(false);
  track->setIsDirty(false);
  return track;
}

}  // namespace

std::optional<std::string> contentTrackId(const Track& track, const std::string& prefix) {
  const auto& start = track.startTime();
  const auto& end = track.endTime();
  if (!start || !end || start->isEqualToDate(*end)) return std::nullopt;
  return prefix + ":" + start->descriptionForExiftool() + "-" + end->descriptionForExiftool();
}

std::vector<std::string> adoptOrphanFiles(TrackLibrary& library, const std::string& trackIdPrefix,
                                          std::vector<UnreadableFile>& unreadable) {
  const std::set<std::string> named = namedFiles(library);
  std::vector<std::string> adopted;
  TrackLibraryFolderPtr recovered;
  for (const auto& filename : trackFilesIn(library.folder())) {
    if (named.count(filename)) continue;
    Result<TrackPtr> track = readTrackFile(library.folder() + "/" + filename, filename, trackIdPrefix);
    if (!track) {
      logf("Track file {} cannot be read and stays where it is: {}", filename, track.reason());
      unreadable.push_back({filename, track.reason()});
      continue;
    }
    if (!recovered) {
      recovered = subfolder(std::static_pointer_cast<TrackLibraryFolder>(library.shared_from_this()),
                            kRecoveredFolder);
    }
    recovered->addTrack(*track, (*track)->name(), filename);
    (*track)->setMetadataDirty(true);
    adopted.push_back(filename);
  }
  return adopted;
}

LibraryOpening openLibrary(TrackLibrary& library, const std::string& trackIdPrefix) {
  LibraryOpening opening;
  if (exists(library.indexPath())) {
    const Status read = library.syncFromDisk();
    if (read) {
      library.repairTrackCounter();
      return opening;
    }
    opening.index = IndexState::kDamaged;
    opening.indexProblem = read.reason();
    opening.damagedIndexAside =
        std::string(TrackLibrary::kIndexName) + ".damaged-" + FileHandling::timestampForFilename();
    library.keepDamagedIndexAs(opening.damagedIndexAside);
  } else if (trackFilesIn(library.folder()).empty()) {
    library.repairTrackCounter();
    return opening;  // a new library
  } else {
    opening.index = IndexState::kMissing;
  }
  logf("The library index {} is {}; rebuilding the library from its files", library.indexPath(),
       opening.index == IndexState::kMissing ? "missing" : "damaged (" + opening.indexProblem + ")");
  opening.tracksFromPreviousIndex = addFromPreviousIndex(library);
  opening.adoptedFiles = adoptOrphanFiles(library, trackIdPrefix, opening.unreadableFiles);
  library.repairTrackCounter();
  return opening;
}

LibraryCheck checkLibrary(TrackLibrary& library, const LibraryOpening& opening) {
  LibraryCheck check;
  check.index = opening.index;
  check.indexProblem = opening.indexProblem;
  const auto tracks = library.allTracks();
  check.trackCount = tracks.size();
  for (const auto& track : tracks) {
    const std::string filename = track->filename().value_or("");
    const std::string path = library.folder() + "/" + filename;
    if (!exists(path)) {
      check.missingFiles.push_back(filename);
      continue;
    }
    auto scratch = Track::track();  // the library's own track stays as it is
    scratch->setIsLoaded(true);
    TrackGPX reader(*scratch);
    const Status read = reader.importFrom(path);
    if (!read) {
      check.damagedFiles.push_back({filename, read.reason()});
    } else if (reader.invalidPositionCount() > 0) {
      check.damagedFiles.push_back(
          {filename, fmt::format("{} points with invalid coordinates", reader.invalidPositionCount())});
    }
  }
  const std::set<std::string> named = namedFiles(library);
  for (const auto& filename : trackFilesIn(library.folder())) {
    if (!named.count(filename)) check.orphanFiles.push_back(filename);
  }
  return check;
}

}  // namespace kvtrack
