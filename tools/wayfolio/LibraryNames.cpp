#include "tools/wayfolio/LibraryNames.h"

#include "tools/wayfolio/Commands.h"

#include <fmt/format.h>

namespace wayfolio {

using kvtrack::Track;
using kvtrack::TrackLibrary;
using kvtrack::TrackLibraryFolder;
using kvtrack::TrackLibraryFolderPtr;
using kvtrack::TrackPtr;

namespace {

// Root-relative paths never start with "/", so the root itself is "".
std::string joined(const std::string& folder, const std::string& name) {
  return folder.empty() ? name : folder + "/" + name;
}

TrackLibraryFolderPtr rootOf(const TrackLibrary& library) {
  return std::const_pointer_cast<TrackLibraryFolder>(library.shared_from_this());
}

// Every folder the names lead to; several when siblings share a name.
std::vector<TrackLibraryFolderPtr> foldersAt(const TrackLibrary& library,
                                             const std::vector<std::string>& names, size_t count) {
  std::vector<TrackLibraryFolderPtr> level{rootOf(library)};
  for (size_t i = 0; i < count; ++i) {
    std::vector<TrackLibraryFolderPtr> next;
    for (const auto& folder : level) {
      for (const auto& child : folder->folders()) {
        if (child->name() == names[i]) next.push_back(child);
      }
    }
    level = std::move(next);
  }
  return level;
}

std::vector<TrackPtr> tracksAtPath(const TrackLibrary& library, const std::string& text) {
  const auto names = pathComponents(text);
  std::vector<TrackPtr> found;
  if (names.empty()) return found;
  for (const auto& folder : foldersAt(library, names, names.size() - 1)) {
    for (const auto& track : folder->tracks()) {
      if (track->name() == names.back()) found.push_back(track);
    }
  }
  return found;
}

std::vector<TrackPtr> tracksNamed(const TrackLibrary& library, const std::string& name) {
  std::vector<TrackPtr> found;
  for (const auto& track : library.allTracks()) {
    if (track->name() == name) found.push_back(track);
  }
  return found;
}

std::vector<TrackLibraryFolderPtr> foldersNamed(const TrackLibrary& library,
                                                const std::string& name) {
  std::vector<TrackLibraryFolderPtr> found;
  for (const auto& folder : foldersBelow(library)) {
    if (folder->name() == name) found.push_back(folder);
  }
  return found;
}

[[noreturn]] void ambiguous(const std::string& text, const std::string& what,
                            const std::vector<std::string>& paths) {
  throw CommandError(fmt::format("'{}' is ambiguous: it names {} {}: {}", text, paths.size(), what,
                                 fmt::join(paths, ", ")));
}

// Track ids are the last resort: they tell apart tracks of equal names.
TrackPtr trackWithId(const TrackLibrary& library, const std::string& text) {
  return text.empty() ? nullptr : library.trackWithTrackId(text);
}

}  // namespace

std::string folderPath(const TrackLibraryFolder& folder) {
  const auto parent = folder.parent();
  if (!parent) return {};
  return joined(folderPath(*parent), folder.name());
}

std::string trackPath(const Track& track) {
  const auto folder = folderOf(track);
  return joined(folder ? folderPath(*folder) : std::string(), track.name());
}

TrackLibraryFolderPtr folderOf(const Track& track) {
  return std::dynamic_pointer_cast<TrackLibraryFolder>(track.parent());
}

std::vector<TrackLibraryFolderPtr> foldersBelow(const TrackLibraryFolder& folder) {
  std::vector<TrackLibraryFolderPtr> result;
  for (const auto& child : folder.folders()) {
    result.push_back(child);
    const auto below = foldersBelow(*child);
    result.insert(result.end(), below.begin(), below.end());
  }
  return result;
}

std::vector<std::string> pathComponents(const std::string& text) {
  size_t begin = text.starts_with('/') ? 1 : 0;
  size_t end = text.size();
  while (end > begin && text[end - 1] == '/') --end;
  std::vector<std::string> names;
  if (begin == end) return names;
  for (size_t slash = text.find('/', begin); slash != std::string::npos && slash < end;
       slash = text.find('/', begin)) {
    names.push_back(text.substr(begin, slash - begin));
    begin = slash + 1;
  }
  names.push_back(text.substr(begin, end - begin));
  return names;
}

TrackLibraryFolderPtr makeFolders(TrackLibrary& library, const std::string& text, bool& created) {
  created = false;
  TrackLibraryFolderPtr folder = rootOf(library);
  for (const auto& name : pathComponents(text)) {
    if (name.empty()) throw CommandError(fmt::format("'{}' holds an empty folder name", text));
    auto child = folder->getFolder(name);
    if (!child) {
      child = TrackLibraryFolder::trackLibraryFolder(name);
      folder->addFolder(child);
      created = true;
    }
    folder = child;
  }
  return folder;
}

TrackPtr findTrack(const TrackLibrary& library, const std::string& text) {
  auto found = tracksAtPath(library, text);
  if (found.empty()) found = tracksNamed(library, text);
  if (found.empty()) {
    if (auto track = trackWithId(library, text)) return track;
    throw CommandError(fmt::format("no track named '{}'", text));
  }
  if (found.size() > 1) {
    std::vector<std::string> paths;
    for (const auto& track : found) paths.push_back(trackPath(*track));
    ambiguous(text, "tracks", paths);
  }
  return found.front();
}

TrackLibraryFolderPtr findFolder(const TrackLibrary& library, const std::string& text) {
  const auto names = pathComponents(text);
  auto found = foldersAt(library, names, names.size());
  if (found.empty()) found = foldersNamed(library, text);
  if (found.empty()) throw CommandError(fmt::format("no folder named '{}'", text));
  if (found.size() > 1) {
    std::vector<std::string> paths;
    for (const auto& folder : found) paths.push_back(folderPath(*folder));
    ambiguous(text, "folders", paths);
  }
  return found.front();
}

LibraryItem findItem(const TrackLibrary& library, const std::string& text) {
  const auto names = pathComponents(text);
  auto tracks = tracksAtPath(library, text);
  auto folders = foldersAt(library, names, names.size());
  if (tracks.empty() && folders.empty()) {
    tracks = tracksNamed(library, text);
    folders = foldersNamed(library, text);
  }
  if (tracks.empty() && folders.empty()) {
    if (auto track = trackWithId(library, text)) return {track, nullptr};
    throw CommandError(fmt::format("no track or folder named '{}'", text));
  }
  if (tracks.size() + folders.size() > 1) {
    std::vector<std::string> paths;
    for (const auto& track : tracks) paths.push_back(trackPath(*track));
    if (tracks.empty()) {
      for (const auto& folder : folders) paths.push_back(folderPath(*folder));
      ambiguous(text, "folders", paths);
    }
    if (folders.empty()) ambiguous(text, "tracks", paths);
    for (const auto& folder : folders) paths.push_back(folderPath(*folder) + "/");
    ambiguous(text, "tracks and folders", paths);
  }
  if (!tracks.empty()) return {tracks.front(), nullptr};
  return {nullptr, folders.front()};
}

}  // namespace wayfolio
