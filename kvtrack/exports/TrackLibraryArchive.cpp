#include "kvtrack/exports/TrackLibraryArchive.h"

#include "kvtrack/exports/TrackKML.h"
#include "kvtrack/library/TrackStorage.h"
#include "kvtrack/exports/ZipArchive.h"
#include "kvtrack/support/FileHandling.h"
#include "kvtrack/support/Log.h"

#include <fmt/format.h>

#include <filesystem>

namespace kvtrack::TrackLibraryArchive {

namespace fs = std::filesystem;

namespace {

std::string uniqueEntryName(const ZipArchive& archive, const std::string& name,
                            const std::string& extension) {
  // The name is cleaned on its own so that cutting a long one keeps the extension.
  const std::string stem = FileHandling::filenameWithoutSpecialCharacters(name);
  const std::string base = fmt::format("{}.{}", stem, extension);
  if (!archive.containsEntry(base)) return base;
  for (int number = 2;; ++number) {
    const std::string candidate = fmt::format("{} ({}).{}", stem, number, extension);
    if (!archive.containsEntry(candidate)) return candidate;
  }
}

std::vector<TrackPtr> collectTracks(const std::vector<TrackLibraryFolderPtr>& folders,
                                    const std::vector<TrackPtr>& tracks, bool withSubfolders) {
  std::vector<TrackPtr> collected = tracks;
  for (const auto& folder : folders) {
    const auto own = withSubfolders ? folder->allTracks() : folder->tracks();
    collected.insert(collected.end(), own.begin(), own.end());
  }
  return collected;
}

}  // namespace

bool createZipFile(const std::string& zipPath, const std::vector<TrackLibraryFolderPtr>& forFolders,
                   const std::vector<TrackPtr>& andTracks, bool withSubfolders, bool withPhotos,
                   bool useKML) {
  const std::string extension = !useKML ? "gpx" : withPhotos ? "kmz" : "kml";
  const std::string sandbox = FileHandling::singleton().sandbox();
  ZipArchive archive;
  if (sandbox.empty() || !archive.CreateZipFile2(zipPath)) return false;

  std::vector<std::string> temporaryFiles;
  for (const auto& track : collectTracks(forFolders, andTracks, withSubfolders)) {
    const std::string file = fmt::format("{}/{}.{}", sandbox, FileHandling::guid(), extension);
    temporaryFiles.push_back(file);
    std::vector<std::string> additionalFiles;
    if (useKML) {
      exportKml(track, file, withPhotos, withPhotos);
      track->unload();  // the points are read again when needed
    } else {
      exportExternalGpx(*track, file, withPhotos, additionalFiles);
    }
    std::error_code error;
    if (!fs::is_regular_file(file, error)) {
      logf("TrackLibraryArchive: track '{}' could not be exported; it is left out", track->name());
      continue;
    }
    archive.addFileToZip(file, uniqueEntryName(archive, track->name(), extension));
    for (const auto& additional : additionalFiles) {
      if (fs::exists(additional, error)) {
        archive.addFileToZip(additional, fs::path(additional).filename().string());
      }
    }
  }
  const bool written = archive.CloseZipFile2();
  for (const auto& file : temporaryFiles) {
    std::error_code ignored;
    fs::remove(file, ignored);
  }
  return written;
}

}  // namespace kvtrack::TrackLibraryArchive
