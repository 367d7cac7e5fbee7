// wayfolio view: a track, or every track of a folder, as one self-contained
// HTML page (map, profiles, photos), written to the cache folder or a file
// of the user's choice and, when asked, handed to the desktop's browser.
#include "kvtrack/library/TrackLibrary.h"
#include "kvtrack/support/ExternalProgram.h"
#include "kvtrack/support/FileHandling.h"
#include "kvtrack/support/KvPreferences.h"
#include "kvtrack/view/TrackViewPage.h"
#include "tools/wayfolio/Commands.h"
#include "tools/wayfolio/DamagedTracks.h"
#include "tools/wayfolio/ExportProblems.h"
#include "tools/wayfolio/LibraryNames.h"

#include <fmt/format.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>

namespace wayfolio {

using namespace kvtrack;

namespace {

namespace fs = std::filesystem;

struct ViewOptions {
  std::string item, html;
  bool open = false;
};

// $XDG_CACHE_HOME/wayfolio/view, else ~/.cache/wayfolio/view.
std::string defaultViewFolder() {
  const char* cache = std::getenv("XDG_CACHE_HOME");
  const fs::path base = cache && *cache ? fs::path(cache)
                                        : fs::path(FileHandling::homeFolder()) / ".cache";
  return (base / "wayfolio" / "view").string();
}

std::string defaultViewPath(const std::string& name) {
  const std::string folder = defaultViewFolder();
  std::error_code error;
  fs::create_directories(folder, error);
  if (error) {
    throw CommandError(fmt::format("cannot make the folder {}: {}", folder, error.message()));
  }
  return folder + "/" + FileHandling::filenameWithoutSpecialCharacters(name) + ".html";
}

TrackViewOptions pageOptions(const LibraryItem& item) {
  TrackViewOptions options;
  options.unitMode = KvPreferences::singleton().unitMode().value_or(KvPreferences::kUnitModeMetric);
  if (item.track) {
    options.title = item.track->name();
    if (const auto folder = folderOf(*item.track); folder && !folderPath(*folder).empty()) {
      options.subtitle = "/" + folderPath(*folder);
    }
  } else {
    const std::string path = folderPath(*item.folder);
    options.title = path.empty() ? "Library" : item.folder->name();
    options.subtitle = "/" + path;
  }
  return options;
}

std::string summaryLine(const std::string& path, const TrackViewSummary& summary) {
  return fmt::format("{}\n  {} {}, {} points ({} drawn), {} {}, {:.0f} kB\n", path, summary.tracks,
                     summary.tracks == 1 ? "track" : "tracks", summary.points,
                     summary.drawnVertices, summary.photos,
                     summary.photos == 1 ? "photo" : "photos", summary.pageBytes / 1024.0);
}

Outcome view(const ViewOptions& options) {
  const auto library = TrackLibrary::singleton();
  const LibraryItem item = findItem(*library, options.item);
  const std::vector<TrackPtr> tracks = item.track ? std::vector<TrackPtr>{item.track}
                                                  : item.folder->allTracks();
  if (tracks.empty()) {
    throw CommandError(fmt::format("folder '{}' holds no tracks to view", options.item));
  }
  requireWholeTracks(tracks, "no view was written");
  const TrackViewOptions pageSettings = pageOptions(item);
  const std::string path =
      options.html.empty() ? defaultViewPath(pageSettings.title) : options.html;
  const auto written = writeTrackView(path, tracks, pageSettings);
  if (!written) throw CommandError(written.reason());
  for (const auto& photo : written->unreadablePhotos) {
    std::fprintf(stderr, "  warning: photo %s cannot be read; its marker shows no picture\n",
                 photo.c_str());
  }
  Outcome outcome;
  outcome.report = summaryLine(path, *written);
  if (options.open) {
    const int status = runShellCommand("xdg-open " + FileHandling::filenameForShell(path));
    if (status != 0) {
      outcome.failure = fmt::format("xdg-open could not open {} (exit status {})", path, status);
    }
  }
  return outcome;
}

}  // namespace

void addViewCommand(CLI::App& app, Invocation& invocation) {
  auto viewing = std::make_shared<ViewOptions>();
  CLI::App* command = app.add_subcommand(
      "view", "Write a track, or all tracks of a folder, as an HTML page with map and profiles");
  command->add_option("item", viewing->item, "Track or folder path or name")->required();
  command->add_option("--html", viewing->html,
                      "Page to write (default: $XDG_CACHE_HOME/wayfolio/view/NAME.html)");
  command->add_flag("--open", viewing->open, "Open the page with xdg-open");
  command->callback([&invocation, viewing] {
    invocation.action = [viewing] { return view(*viewing); };
  });
}

}  // namespace wayfolio
