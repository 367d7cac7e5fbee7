#pragma once
// Tracks and folders as the command line names them: by path (folder names
// joined by "/", from the root; a leading "/" is optional and "/" or "" is
// the root) or by a bare name looked up in the whole library. Names are
// case-sensitive. Lookups throw CommandError with the message to show when
// nothing or more than one thing matches.

#include "kvtrack/library/TrackLibrary.h"

#include <string>
#include <vector>

namespace wayfolio {

/// Folder names below the root joined by "/"; "" for the root.
std::string folderPath(const kvtrack::TrackLibraryFolder& folder);
/// The folder path and the track's name joined by "/".
std::string trackPath(const kvtrack::Track& track);
/// The folder that holds the track (null for a track outside the library).
kvtrack::TrackLibraryFolderPtr folderOf(const kvtrack::Track& track);
/// Every folder below the given one, depth-first, parents before children.
std::vector<kvtrack::TrackLibraryFolderPtr> foldersBelow(const kvtrack::TrackLibraryFolder& folder);

/// A path text split into folder and track names: the leading "/" and
/// trailing "/"s dropped, "" and "/" give no names.
std::vector<std::string> pathComponents(const std::string& text);

/// The folder at the path (exact path only), made with its parents when
/// missing; `created` tells whether anything was made. Throws CommandError
/// for an empty folder name ("a//b").
kvtrack::TrackLibraryFolderPtr makeFolders(kvtrack::TrackLibrary& library, const std::string& text,
                                           bool& created);

kvtrack::TrackPtr findTrack(const kvtrack::TrackLibrary& library, const std::string& text);
kvtrack::TrackLibraryFolderPtr findFolder(const kvtrack::TrackLibrary& library,
                                          const std::string& text);

/// A track or a folder: exactly one of the two is set.
struct LibraryItem {
  kvtrack::TrackPtr track;
  kvtrack::TrackLibraryFolderPtr folder;
};
LibraryItem findItem(const kvtrack::TrackLibrary& library, const std::string& text);

}  // namespace wayfolio
