// wayfolio import: files and folders into a folder of the library.
#include "kvtrack/library/GpxImportConfiguration.h"
#include "kvtrack/library/TrackLibrary.h"
#include "kvtrack/library/TrackLibraryGPX.h"
#include "kvtrack/photos/ExifTool.h"
#include "kvtrack/support/FileHandling.h"
#include "kvtrack/support/Log.h"
#include "tools/wayfolio/Commands.h"
#include "tools/wayfolio/ImportFormats.h"
#include "tools/wayfolio/LibraryNames.h"
#include "tools/wayfolio/LibrarySession.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>

namespace wayfolio {

namespace fs = std::filesystem;
using namespace kvtrack;

namespace {

struct ImportOptions {
  std::vector<std::string> inputs;
  std::string into;
  std::string format;
  bool verbose = false;
};

bool isHidden(const fs::path& path) { return path.filename().string().starts_with('.'); }

// Named files as given (missing ones are reported later); folders walked
// recursively, without hidden entries and photos (a trip folder often holds
// both; photos go to geotag), in path order.
std::vector<std::string> collectFiles(const std::vector<std::string>& inputs) {
  std::vector<std::string> files;
  for (const auto& input : inputs) {
    std::error_code error;
    if (!fs::is_directory(input, error)) {
      files.push_back(input);
      continue;
    }
    std::vector<std::string> found;
    for (auto it = fs::recursive_directory_iterator(
             input, fs::directory_options::skip_permission_denied, error);
         !error && it != fs::recursive_directory_iterator(); it.increment(error)) {
      if (isHidden(it->path())) {
        if (it->is_directory(error)) it.disable_recursion_pending();
        continue;
      }
      if (it->is_regular_file(error) && !ExifTool::isPhotoExtension(it->path().string())) {
        found.push_back(it->path().string());
      }
    }
    std::sort(found.begin(), found.end());
    files.insert(files.end(), found.begin(), found.end());
  }
  return files;
}

// "\r[3/10] name.gpx" on a terminal only; pipes and logs get the summary alone.
class Progress {
 public:
  Progress() : shown_(::isatty(STDERR_FILENO) == 1) {}
  ~Progress() { clear(); }
  void show(size_t number, size_t count, const std::string& path) {
    if (!shown_) return;
    std::fprintf(stderr, "\r\033[K[%zu/%zu] %s", number, count,
                 fs::path(path).filename().string().c_str());
    std::fflush(stderr);
  }
  void clear() {
    if (!shown_) return;
    std::fputs("\r\033[K", stderr);
    std::fflush(stderr);
  }

 private:
  bool shown_;
};

// Imports one file; the reason when it failed.
std::optional<std::string> importFile(TrackLibraryFolder& folder, const std::string& path,
                                      const ImportOptions& options,
                                      GpxImportConfiguration& configuration) {
  if (::access(path.c_str(), R_OK) != 0) return std::string(std::strerror(errno));
  std::error_code error;
  if (!fs::is_regular_file(path, error)) return std::string("not a regular file");
  const std::string format = options.format.empty() ? gpsbabelFormatForFile(path) : options.format;
  if (!format.empty()) {
    const Status read = folder.importFrom(path, format, &configuration);
    if (!read) return read.reason();
    return std::nullopt;
  }
  const Status read = folder.importGPX(path, configuration);
  if (!read) return "not a readable GPX file: " + read.reason();
  return std::nullopt;
}

Outcome runImport(const ImportOptions& options) {
  auto library = TrackLibrary::singleton();
  bool created = false;
  const TrackLibraryFolderPtr target = makeFolders(*library, options.into, created);

  GpxImportConfiguration configuration;
  configuration.setTrackIdPrefix(kTrackIdPrefix);  // content-derived ids: re-imports are refused
  configuration.setSetTimeZone(true);

  const auto files = collectFiles(options.inputs);
  size_t imported = 0, added = 0, duplicates = 0, filed = 0;
  std::vector<std::pair<std::string, std::string>> failures;
  std::vector<std::pair<std::string, int64_t>> skippedPoints;
  {
    Progress progress;
    for (size_t i = 0; i < files.size(); ++i) {
      progress.show(i + 1, files.size(), files[i]);
      const size_t tracksBefore = configuration.importedTracks().size();
      const int64_t duplicatesBefore = configuration.identicalTrackCounter();
      const size_t pointsBefore = configuration.importedPOIs().size();
      const int64_t geocachesBefore = configuration.filedGeocacheCounter();
      const int64_t invalidBefore = configuration.invalidPositionCounter();

      if (auto reason = importFile(*target, files[i], options, configuration)) {
        // What a broken file yielded before its error goes again: a failed
        // file adds nothing, and importing it once repaired works as usual.
        const auto& tracks = configuration.importedTracks();
        for (size_t k = tracksBefore; k < tracks.size(); ++k) {
          if (auto folder = folderOf(*tracks[k])) folder->deleteTrack(tracks[k]);
        }
        failures.emplace_back(files[i], *reason);
        continue;
      }
      ++imported;
      if (const int64_t invalid = configuration.invalidPositionCounter() - invalidBefore) {
        skippedPoints.emplace_back(files[i], invalid);
      }
      added += configuration.importedTracks().size() - tracksBefore;
      duplicates += static_cast<size_t>(configuration.identicalTrackCounter() - duplicatesBefore);
      filed += configuration.importedPOIs().size() - pointsBefore +
               static_cast<size_t>(configuration.filedGeocacheCounter() - geocachesBefore);
    }
  }

  std::string report = fmt::format(
      "Imported {} files: {} tracks added, {} duplicates refused, {} waypoints filed, "
      "{} files failed\n",
      imported, added, duplicates, filed, failures.size());
  for (const auto& [path, count] : skippedPoints) {
    report += fmt::format("  {}: {} points with invalid coordinates skipped\n", path, count);
  }
  for (const auto& [path, reason] : failures) report += fmt::format("  failed: {}: {}\n", path, reason);

  Outcome outcome = libraryChanged(true, std::move(report));
  if (!failures.empty()) {
    outcome.failure =
        fmt::format("{} of {} files could not be imported", failures.size(), files.size());
  }
  return outcome;
}

}  // namespace

void addImportCommand(CLI::App& app, Invocation& invocation) {
  auto options = std::make_shared<ImportOptions>();
  CLI::App* command = app.add_subcommand("import", "Import GPS files and folders of them");
  command->add_option("files", options->inputs, "Files and folders (folders recursively)")
      ->required();
  command->add_option("--into", options->into, "Library folder to import into (made when missing)");
  command->add_option("--format", options->format,
                      "gpsbabel input format for all files (e.g. gtrnctr, garmin_fit)");
  command->callback([&invocation, options] {
    invocation.changesLibrary = true;
    invocation.action = [&invocation, options] {
      options->verbose = invocation.verbose;  // global options are complete only now
      return runImport(*options);
    };
  });
}

}  // namespace wayfolio
