// wayfolio ls and tree: folders and tracks with the figures of the index.
// Tracks are never loaded here, so listing a large library stays quick.
#include "kvtrack/library/TrackLibrary.h"
#include "tools/wayfolio/Commands.h"
#include "tools/wayfolio/LibraryNames.h"
#include "tools/wayfolio/TextTable.h"
#include "tools/wayfolio/Units.h"

#include <fmt/format.h>

#include <cstdio>
#include <memory>

namespace wayfolio {

using namespace kvtrack;

namespace {

TextTable listing() {
  using Align = TextTable::Align;
  return TextTable({{"NAME", Align::kLeft},
                    {"START", Align::kLeft},
                    {"DURATION", Align::kRight},
                    {"LENGTH", Align::kRight},
                    {"POINTS", Align::kRight},
                    {"PHOTOS", Align::kRight}});
}

void addTrackRow(TextTable& table, const Track& track, const std::string& indent,
                 const Units& units) {
  const auto& start = track.startTime();
  const bool timed = start && track.endTime();
  // The index keeps no point count: unloaded tracks may not know theirs.
  const int32_t points = track.pointCount();
  table.addRow({indent + track.name(), start ? start->descriptionForGui() : "-",
                timed ? track.durationString() : "-", units.length(track.length()),
                points > 0 || track.isLoaded() ? fmt::format("{}", points) : "-",
                fmt::format("{}", track.photoCount())});
}

void addFolderRows(TextTable& table, const TrackLibraryFolder& folder, const std::string& indent,
                   bool recursive, const Units& units) {
  for (const auto& child : folder.folders()) {
    table.addRow({indent + child->name() + "/"});
    if (recursive) addFolderRows(table, *child, indent + "  ", true, units);
  }
  for (const auto& track : folder.tracks()) addTrackRow(table, *track, indent, units);
}

Outcome list(const std::string& folderText, bool recursive) {
  const auto library = TrackLibrary::singleton();
  const auto folder = findFolder(*library, folderText);
  TextTable table = listing();
  addFolderRows(table, *folder, "", recursive, Units::fromPreferences());
  std::fputs(table.render().c_str(), stdout);
  return {};
}

}  // namespace

void addListCommands(CLI::App& app, Invocation& invocation) {
  auto folder = std::make_shared<std::string>();
  CLI::App* ls = app.add_subcommand("ls", "List the subfolders and tracks of a folder");
  ls->add_option("folder", *folder, "Folder path or name (default: the root)");
  ls->callback([&invocation, folder] {
    invocation.action = [folder] { return list(*folder, false); };
  });

  auto top = std::make_shared<std::string>();
  CLI::App* tree = app.add_subcommand("tree", "List the whole library, or a folder, as a tree");
  tree->add_option("folder", *top, "Folder path or name (default: the root)");
  tree->callback([&invocation, top] {
    invocation.action = [top] { return list(*top, true); };
  });
}

}  // namespace wayfolio
