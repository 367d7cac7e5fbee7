#include "kvtrack/library/TrackStorage.h"

#include "kvtrack/formats/gpx/TrackGPX.h"
#include "kvtrack/library/ICloudSynchronizer.h"
#include "kvtrack/library/TrackLibrary.h"
#include "kvtrack/support/AtomicFile.h"
#include "kvtrack/support/KvPreferences.h"
#include "kvtrack/support/Log.h"

#define PCRE2_CODE_UNIT_WIDTH 8
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

}  // namespace

void LibraryTrackStore::loadTrack(Track& track) {
  const std::string path = library_.folder() + "/" + track.filename().value_or("");
  if (track.filename() && std::filesystem::exists(path)) {
    // A damaged file may stop the reader inside the track's name; the index
    // keeps the name the user gave, so a failed read must not change it.
    const std::string name = track.name();
    if (!TrackGPX(track).importFrom(path)) track.setName(name);
  }
  track.setIsDirty(false);
  track.setIsLoaded(true);
  track.setMetadataDirty(false);
  track.updateAll();
}

std::string LibraryTrackStore::generateFilename(Track& track) {
  return library_.generateFilename(track);
}

bool LibraryTrackStore::saveTrack(Track& track) {
  std::lock_guard<Track> lock(track);
  auto synchronizer = activeSynchronizer();
  if (track.isDirty() && track.isLoaded()) {
    track.updateProperties();  // the counts the index shows follow every edit
    track.updateLength();
    track.updateSpeeds();
    const std::string path = library_.folder() + "/" + track.filename().value_or("");
    GpxExportConfiguration configuration;
    const bool written = writeFileAtomically(path, [&](const std::string& temporary) {
      return TrackGPX(track).exportTo(temporary, configuration);
    });
    if (!written) return false;  // stays dirty: the next save tries again
    if (synchronizer && track.iCloudId()) synchronizer->writeTrackToiCloud(track);
    track.setIsDirty(false);
    track.setMetadataDirty(false);
    return true;
  }
  if (synchronizer && track.metadataDirty() && track.iCloudId()) {
    synchronizer->writeTrackToiCloud(track);
  }
  track.setMetadataDirty(false);
  return true;
}

bool LibraryTrackStore::saveTrackWithExternalGPX(Track& track) {
  std::lock_guard<Track> lock(track);
  if (!track.isDirty() || !track.isLoaded()) return true;
  const std::string file = library_.folder() + "/" + track.filename().value_or("");
  const std::string folder = file + "_ext";
  std::error_code error;
  std::filesystem::create_directories(folder, error);
  ::chmod(folder.c_str(), 0775);
  GpxExportConfiguration configuration;
  configuration.setExportGeocachingDescriptionAndLogsInExternalFolder(folder);
  configuration.setExportWaypointsOnly(true);
  const bool written = writeFileAtomically(file, [&](const std::string& temporary) {
    return TrackGPX(track).exportTo(temporary, configuration);
  });
  if (written) track.setIsDirty(false);
  return written;
}

bool exportExternalGpx(Track& track, const std::string& path, bool /*withPhotos*/,
                       const std::vector<std::string>& /*additionalFiles*/) {
  track.saveToLibrary();
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
