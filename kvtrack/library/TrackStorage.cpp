#include "kvtrack/library/TrackStorage.h"

#include "kvtrack/formats/gpx/TrackGPX.h"
#include "kvtrack/library/ICloudSynchronizer.h"
#include "kvtrack/library/TrackLibrary.h"
#include "kvtrack/model/TrackPhoto.h"
#include "kvtrack/support/FileHandling.h"
#include "kvtrack/support/KvPreferences.h"
#include "kvtrack/support/Log.h"
#include "kvtrack/support/SystemCalls.h"

#define PCRE2_CODE_UNIT_WIDTH 8
#include <fmt/format.h>
#include <pcre2.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <sstream>

namespace kvtrack {

namespace {

std::shared_ptr<ICloudSynchronizer> activeSynchronizer() {
  auto& preferences = KvPreferences::singleton();
  if (!preferences.iCloudSupported().value_or(false)) return nullptr;
  return preferences.iCloudSynchronizer();
}

bool fileExists(const std::string& path) {
  std::error_code error;
  return std::filesystem::exists(path, error);
}

// The file's bytes stay under a second name, so nothing that could not be
// read is ever lost to a save.
Status keepAside(const std::string& path) {
  const std::string aside = fmt::format("{}.damaged-{}", path, FileHandling::timestampForFilename());
  if (SystemCalls::current().link(path.c_str(), aside.c_str()) != 0 && errno != EEXIST) {
    return systemFailure("keep a copy of", path);
  }
  logf("Kept the unreadable track file {} as {}", path, aside);
  return {};
}

std::string damageOf(const std::string& filename, const Status& read, int32_t invalidPositions) {
  if (!read) return fmt::format("its file {} cannot be read whole ({})", filename, read.reason());
  return fmt::format("its file {} holds {} points with invalid coordinates", filename,
                     invalidPositions);
}

// Photos follow their files through the bookmarks; a renewed bookmark
// makes the track dirty, so that it is saved.
void refreshPhotoBookmarks(Track& track) {
  bool renewed = false;
  for (const TrackPointPtr& point : track.trackPoints()) {
    for (const auto& photo : point->trackPhotos()) renewed = photo->updatePathFromBookmark() || renewed;
  }
  if (renewed) track.makeDirty();
}

void finishLoading(Track& track) {
  track.setIsDirty(false);
  track.setIsLoaded(true);
  track.setMetadataDirty(false);
  refreshPhotoBookmarks(track);
  track.updateAll();
}

}  // namespace

std::string LibraryTrackStore::pathOf(const Track& track) const {
  return library_.folder() + "/" + track.filename().value_or("");
}

void LibraryTrackStore::loadTrack(Track& track) {
  const std::string path = pathOf(track);
  if (!track.filename()) {
    // nothing to read: a track only the synchronised store knows
  } else if (!fileExists(path)) {
    // The library's collections have no file until they hold something.
    if (track.type() == Track::kLibraryCollection) return finishLoading(track);
    track.setDamage(fmt::format("its file {} is missing", *track.filename()));
    logf("Track {}: {}", track.name(), *track.damage());
  } else {
    // A damaged file may stop the reader inside the track's name; the index
    // keeps the name the user gave, so a failed read must not change it.
    const std::string name = track.name();
    TrackGPX reader(track);
    const Status read = reader.importFrom(path);
    if (!read || reader.invalidPositionCount() > 0) {
      track.setName(name);
      track.setDamage(damageOf(*track.filename(), read, reader.invalidPositionCount()));
      logf("Track {}: {}", name, *track.damage());
    }
  }
  finishLoading(track);
}

std::string LibraryTrackStore::generateFilename(Track& track) {
  return library_.generateFilename(track);
}

Status LibraryTrackStore::saveTrack(Track& track) {
  LibrarySave save(*this);
  Status status = save.addTrack(track);
  if (status) status = save.commit();
  if (!status) logf("Error writing file: {}", status.reason());
  return status;
}

Status LibraryTrackStore::saveTrackWithExternalGPX(Track& track) {
  LibrarySave save(*this);
  Status status = save.addCollection(track);
  if (status) status = save.commit();
  if (!status) logf("Error writing file: {}", status.reason());
  return status;
}

Status LibrarySave::addTrack(Track& track) {
  locks_.emplace_back(track);
  const std::string path = store_.pathOf(track);
  const bool unwritten = !track.damage() && track.filename() && !fileExists(path);
  if (!track.isLoaded() || !(track.isDirty() || unwritten)) {
    if (track.metadataDirty()) metadataOnly_.push_back(&track);
    return {};
  }
  if (track.damage() && fileExists(path)) {
    if (Status kept = keepAside(path); !kept) return kept;
  }
  track.updateProperties();  // the counts the index shows follow every edit
  track.updateLength();
  track.updateSpeeds();
  GpxExportConfiguration configuration;
  Status staged = files_.stage(path, [&](OutputFile& file) {
    return TrackGPX(track).writeTo(file, configuration);
  });
  if (staged) written_.push_back(&track);
  return staged;
}

Status LibrarySave::addCollection(Track& collection) {
  locks_.emplace_back(collection);
  if (!collection.isDirty() || !collection.isLoaded()) return {};
  const std::string file = store_.pathOf(collection);
  const std::string folder = file + "_ext";
  std::error_code error;
  std::filesystem::create_directories(folder, error);
  ::chmod(folder.c_str(), 0775);
  GpxExportConfiguration configuration;
  configuration.setExportGeocachingDescriptionAndLogsInExternalFolder(folder);
  configuration.setExportWaypointsOnly(true);
  Status staged = files_.stage(file, [&](OutputFile& output) {
    return TrackGPX(collection).writeTo(output, configuration);
  });
  if (staged) collections_.push_back(&collection);
  return staged;
}

Status LibrarySave::addFile(const std::string& path, std::string_view bytes) {
  return files_.stage(path, bytes);
}

Status LibrarySave::commit() {
  if (Status committed = files_.commit(); !committed) return committed;
  const auto synchronizer = activeSynchronizer();
  for (Track* track : written_) {
    if (synchronizer && track->iCloudId()) synchronizer->writeTrackToiCloud(*track);
    track->setIsDirty(false);
    track->setMetadataDirty(false);
    track->setDamage(std::nullopt);
  }
  for (Track* track : metadataOnly_) {
    if (synchronizer && track->iCloudId()) synchronizer->writeTrackToiCloud(*track);
    track->setMetadataDirty(false);
  }
  for (Track* collection : collections_) collection->setIsDirty(false);
  return {};
}

bool exportExternalGpx(Track& track, const std::string& path, bool /*withPhotos*/,
                       const std::vector<std::string>& /*additionalFiles*/) {
  (void)track.saveToLibrary();  // logged; the copy is of what is on disk
  std::error_code error;
  std::filesystem::remove(path, error);
  const auto library = TrackLibrary::current();
  std::string text;
  if (library && track.filename()) {
    std::ifstream in(library->folder() + "/" + *track.filename(), std::ios::binary);
    text.assign(std::istreambuf_iterator<char>(in), {});
  }
  // The attribute that ties the file to the owner's synchronised copy.
  int errorCode = 0;
  PCRE2_SIZE errorOffset = 0;
  pcre2_code* pattern = pcre2_compile(reinterpret_cast<PCRE2_SPTR>(R"(iCloudId="[-_A-Z0-9]*")"),
                                      PCRE2_ZERO_TERMINATED, 0, &errorCode, &errorOffset, nullptr);
  std::ostringstream out;
  std::istringstream lines(text);
  std::string line;
  while (std::getline(lines, line)) {
    if (pattern) {
      PCRE2_SIZE length = line.size() + 64;
      std::string replaced(length, '\0');
      const int rc = pcre2_substitute(
          pattern, reinterpret_cast<PCRE2_SPTR>(line.data()), line.size(), 0,
          PCRE2_SUBSTITUTE_GLOBAL, nullptr, nullptr, reinterpret_cast<PCRE2_SPTR>(""), 0,
          reinterpret_cast<PCRE2_UCHAR*>(replaced.data()), &length);
      if (rc >= 0) line = replaced.substr(0, length);
    }
    out << line << "\n";
  }
  if (pattern) pcre2_code_free(pattern);
  std::ofstream(path, std::ios::binary) << out.str();
  return true;
}

}  // namespace kvtrack
