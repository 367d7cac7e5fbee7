// wayfolio zip: tracks and folders of the library as one zip archive of GPX,
// KML or KMZ files.
#include "kvtrack/library/TrackLibrary.h"
#include "kvtrack/exports/TrackLibraryArchive.h"
#include "tools/wayfolio/Commands.h"
#include "tools/wayfolio/DamagedTracks.h"
#include "tools/wayfolio/ExportProblems.h"
#include "tools/wayfolio/LibraryNames.h"

#include <fmt/format.h>

#include <memory>

namespace wayfolio {

using namespace kvtrack;

namespace {

struct ZipOptions {
  std::string archive;
  std::vector<std::string> folders, tracks;
  bool subfolders = false, kml = false, photos = false;
};

Outcome writeArchive(const ZipOptions& options) {
  if (options.folders.empty() && options.tracks.empty()) {
    throw CommandError("nothing to archive: name tracks with --track or folders with --folder");
  }
  const auto library = TrackLibrary::singleton();
  std::vector<TrackPtr> tracks;
  for (const auto& name : options.tracks) tracks.push_back(findTrack(*library, name));
  std::vector<TrackLibraryFolderPtr> folders;
  std::vector<TrackPtr> all = tracks;
  for (const auto& name : options.folders) {
    folders.push_back(findFolder(*library, name));
    const auto inFolder = options.subfolders ? folders.back()->allTracks() : folders.back()->tracks();
    all.insert(all.end(), inFolder.begin(), inFolder.end());
  }
  requireWholeTracks(all, "no archive was written");
  const size_t count = all.size();

  const ExportOutcome written = TrackLibraryArchive::createZipFile(options.archive, folders, tracks,
                                                                   options.subfolders, options.photos,
                                                                   options.kml);
  const size_t warnings = reportWarnings(written.warnings);
  if (!written) throw CommandError(written.reason());
  const char* kind = !options.kml ? "GPX" : options.photos ? "KMZ" : "KML";
  fmt::print("Wrote {} {} as {} to {}{}\n", count, count == 1 ? "track" : "tracks", kind,
             options.archive, warnings ? fmt::format(" ({} warnings)", warnings) : "");
  return {};
}

}  // namespace

void addZipCommand(CLI::App& app, Invocation& invocation) {
  auto options = std::make_shared<ZipOptions>();
  CLI::App* command = app.add_subcommand(
      "zip", "Write tracks and folders as one zip archive with a GPX (or KML, KMZ) file per track");
  command->add_option("archive", options->archive, "The zip file to write")->required();
  // One value per option, so that "--" after them still marks file names.
  command->add_option("--folder", options->folders, "A folder whose tracks go in (repeatable)")
      ->allow_extra_args(false);
  command->add_option("--track", options->tracks, "A track that goes in (repeatable)")
      ->allow_extra_args(false);
  command->add_flag("--subfolders", options->subfolders, "Take the folders' whole subtrees");
  command->add_flag("--kml", options->kml, "KML entries instead of GPX (KMZ with --photos)");
  command->add_flag("--photos", options->photos, "Include photos (GPX: their links; KML: as KMZ)");
  command->callback([&invocation, options] {
    invocation.action = [options] { return writeArchive(*options); };
  });
}

}  // namespace wayfolio
