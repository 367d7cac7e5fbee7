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

struct EntryKind {
  std::string extension;
  bool withPhotos, useKML;
};

// Exports the track to the file and adds it (and its photos, for GPX) to
// the archive; a track that cannot be exported is left out.
void addTrack(ZipArchive& archive, const TrackPtr& track, const std::string& file, const EntryKind& kind,
              ExportWarnings& warnings) {
  std::vector<std::string> additionalFiles;
  if (kind.useKML) {
    ExportOutcome exported = exportKml(track, file, kind.withPhotos, kind.withPhotos);
    warnings.insert(warnings.end(), exported.warnings.begin(), exported.warnings.end());
    track->unload();  // the points are read again when needed
  } else {
    exportExternalGpx(*track, file, kind.withPhotos, additionalFiles);
  }
  std::error_code error;
  if (!fs::is_regular_file(file, error)) {
    warnings.push_back(fmt::format("track '{}' could not be exported; it is left out", track->name()));
    logf("TrackLibraryArchive: {}", warnings.back());
    return;
  }
  Status added = archive.addFileToZip(file, uniqueEntryName(archive, track->name(), kind.extension));
  for (const auto& additional : additionalFiles) {
    if (added && fs::exists(additional, error)) {
      added = archive.addFileToZip(additional, fs::path(additional).filename().string());
    }
  }
  if (!added) warnings.push_back(added.reason());
}

}  // namespace

ExportOutcome createZipFile(const std::string& zipPath, const std::vector<TrackLibraryFolderPtr>& forFolders,
                            const std::vector<TrackPtr>& andTracks, bool withSubfolders, bool withPhotos,
                            bool useKML) {
  ExportOutcome outcome;
  const std::string sandbox = FileHandling::singleton().sandbox();
  if (sandbox.empty()) outcome.status = Status::failure("cannot write " + zipPath + ": no private folder");
  ZipArchive archive;
  if (outcome.ok()) outcome.status = archive.CreateZipFile2(zipPath);
  if (!outcome.ok()) return outcome;

  const std::string extension = !useKML ? "gpx" : withPhotos ? "kmz" : "kml";
  std::vector<std::string> temporaryFiles;
  for (const auto& track : collectTracks(forFolders, andTracks, withSubfolders)) {
    temporaryFiles.push_back(fmt::format("{}/{}.{}", sandbox, FileHandling::guid(), extension));
    addTrack(archive, track, temporaryFiles.back(), {extension, withPhotos, useKML}, outcome.warnings);
  }
  outcome.status = archive.CloseZipFile2();
  for (const auto& file : temporaryFiles) {
    std::error_code ignored;
    fs::remove(file, ignored);
  }
  return outcome;
}

}  // namespace kvtrack::TrackLibraryArchive
