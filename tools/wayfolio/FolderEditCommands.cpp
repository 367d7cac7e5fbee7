// wayfolio mkdir, mv, rename, rm and sort: the shape of the library tree.
// Every name is looked up before anything changes, so a typo in the last
// argument leaves the library as it was.
#include "kvtrack/library/TrackLibrary.h"
#include "tools/wayfolio/Commands.h"
#include "tools/wayfolio/DamagedTracks.h"
#include "tools/wayfolio/LibraryNames.h"

#include <fmt/format.h>

#include <memory>

namespace wayfolio {

using namespace kvtrack;

namespace {

std::vector<LibraryItem> findItems(const TrackLibrary& library,
                                   const std::vector<std::string>& texts) {
  std::vector<LibraryItem> items;
  for (const auto& text : texts) items.push_back(findItem(library, text));
  return items;
}

// The root has the empty path; messages call it "/".
std::string shownPath(const TrackLibraryFolder& folder) {
  const std::string path = folderPath(folder);
  return path.empty() ? "/" : path;
}

// Sibling folders of one name would make paths ambiguous.
void requireNoFolderNamed(const TrackLibraryFolder& parent, const std::string& name,
                          const TrackLibraryFolder* except) {
  const auto existing = parent.getFolder(name);
  if (existing && existing.get() != except) {
    throw CommandError(
        fmt::format("folder '{}' has a folder named '{}' already", shownPath(parent), name));
  }
}

Outcome makeDirectories(const std::vector<std::string>& paths) {
  const auto library = TrackLibrary::singleton();
  bool changed = false;
  for (const auto& path : paths) {
    bool created = false;
    makeFolders(*library, path, created);
    changed = changed || created;
  }
  return libraryChanged(changed);
}

Outcome moveItems(const std::vector<std::string>& arguments) {
  const auto library = TrackLibrary::singleton();
  const auto destination = findFolder(*library, arguments.back());
  const auto items =
      findItems(*library, std::vector<std::string>(arguments.begin(), arguments.end() - 1));
  for (const auto& item : items) {
    if (!item.folder) continue;
    if (!item.folder->parent()) throw CommandError("cannot move the root folder");
    for (auto f = destination; f; f = f->parent()) {
      if (f != item.folder) continue;
      throw CommandError(destination == item.folder
                             ? fmt::format("cannot move folder '{}' into itself",
                                           shownPath(*item.folder))
                             : fmt::format("cannot move folder '{}' into its own subfolder '{}'",
                                           shownPath(*item.folder), shownPath(*destination)));
    }
    requireNoFolderNamed(*destination, item.folder->name(), item.folder.get());
  }
  for (const auto& item : items) {
    if (item.track) {
      destination->moveTrackHere(item.track);
    } else if (item.folder->parent() != destination) {
      destination->moveTrackLibraryFolderHere(item.folder);
    }
  }
  return libraryChanged();
}

Outcome renameItem(const std::string& text, const std::string& newName) {
  if (newName.empty()) throw CommandError("the new name is empty");
  if (newName.find('/') != std::string::npos) {
    throw CommandError(fmt::format("'{}' holds a '/', which separates folders in paths", newName));
  }
  const auto library = TrackLibrary::singleton();
  const LibraryItem item = findItem(*library, text);
  if (item.track) {
    // Loaded first: the name is also written in the track's file, which
    // would bring the old name back when the track is read later.
    warnBeforeChanging(*item.track);
    item.track->setName(newName);
    return libraryChanged();
  }
  const auto parent = item.folder->parent();
  if (!parent) throw CommandError("the root folder has no name to change");
  requireNoFolderNamed(*parent, newName, item.folder.get());
  item.folder->setName(newName);
  return libraryChanged();
}

Outcome removeItems(const std::vector<std::string>& texts, bool recursive) {
  const auto library = TrackLibrary::singleton();
  const auto items = findItems(*library, texts);
  for (const auto& item : items) {
    if (!item.folder) continue;
    if (!item.folder->parent()) throw CommandError("cannot remove the root folder");
    if (!recursive && (!item.folder->tracks().empty() || !item.folder->folders().empty())) {
      throw CommandError(fmt::format(
          "folder '{}' is not empty (-r removes it with everything in it)",
          shownPath(*item.folder)));
    }
  }
  // Track files go when the library is saved: its clean-up deletes files no
  // track names.
  for (const auto& item : items) {
    if (item.track) {
      if (auto folder = folderOf(*item.track)) folder->deleteTrack(item.track);
    } else if (auto parent = item.folder->parent()) {
      parent->deleteFolder(item.folder);
    }
  }
  return libraryChanged();
}

Outcome sortFolder(const std::string& folderText, const std::string& key, bool descending) {
  const auto library = TrackLibrary::singleton();
  const auto folder = findFolder(*library, folderText);
  const bool ascending = !descending;
  if (key == "name") {
    folder->sortByNameAscending(ascending);
  } else if (key == "date") {
    folder->sortByDateAscending(ascending);
  } else if (key == "length") {
    folder->sortByLengthAscending(ascending);
  } else {
    folder->sortByDurationAscending(ascending);
  }
  return libraryChanged();
}

}  // namespace

void addFolderEditCommands(CLI::App& app, Invocation& invocation) {
  auto paths = std::make_shared<std::vector<std::string>>();
  CLI::App* mkdir = app.add_subcommand("mkdir", "Make folders, with their parents");
  mkdir->add_option("paths", *paths, "Folder paths such as 2024/Alps")->required();
  mkdir->callback([&invocation, paths] {
    invocation.changesLibrary = true;
    invocation.action = [paths] { return makeDirectories(*paths); };
  });

  auto moved = std::make_shared<std::vector<std::string>>();
  CLI::App* mv = app.add_subcommand("mv", "Move tracks and folders into a folder");
  mv->add_option("items", *moved, "SOURCE... DEST: tracks or folders, then the folder to move into")
      ->required()
      ->expected(2, -1);
  mv->callback([&invocation, moved] {
    invocation.changesLibrary = true;
    invocation.action = [moved] { return moveItems(*moved); };
  });

  auto renamed = std::make_shared<std::pair<std::string, std::string>>();
  CLI::App* renameCommand = app.add_subcommand("rename", "Rename a track or a folder");
  renameCommand->add_option("item", renamed->first, "Track or folder")->required();
  renameCommand->add_option("name", renamed->second, "The new name")->required();
  renameCommand->callback([&invocation, renamed] {
    invocation.changesLibrary = true;
    invocation.action = [renamed] { return renameItem(renamed->first, renamed->second); };
  });

  auto removed = std::make_shared<std::vector<std::string>>();
  auto recursive = std::make_shared<bool>(false);
  CLI::App* rm = app.add_subcommand("rm", "Remove tracks and folders");
  rm->add_option("items", *removed, "Tracks or folders")->required();
  rm->add_flag("-r,--recursive", *recursive, "Remove folders with everything in them");
  rm->callback([&invocation, removed, recursive] {
    invocation.changesLibrary = true;
    invocation.action = [removed, recursive] { return removeItems(*removed, *recursive); };
  });

  struct SortOptions {
    std::string folder, key;
    bool descending = false;
  };
  auto sorting = std::make_shared<SortOptions>();
  CLI::App* sortCommand =
      app.add_subcommand("sort", "Sort the tracks of a folder and its subfolders");
  sortCommand->add_option("folder", sorting->folder, "Folder (default: the root)");
  sortCommand->add_option("--by", sorting->key, "name, date, length or duration")
      ->required()
      ->check(CLI::IsMember({"name", "date", "length", "duration"}));
  sortCommand->add_flag("--descending", sorting->descending, "Largest, latest or last first");
  sortCommand->callback([&invocation, sorting] {
    invocation.changesLibrary = true;
    invocation.action = [sorting] {
      return sortFolder(sorting->folder, sorting->key, sorting->descending);
    };
  });
}

}  // namespace wayfolio
