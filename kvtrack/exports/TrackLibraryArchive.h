#pragma once
// A selection of library tracks handed to the outside world as one zip
// archive: every track becomes one GPX, KML or KMZ entry named after it.

#include "kvtrack/exports/ExportOutcome.h"
#include "kvtrack/library/TrackLibraryFolder.h"

#include <string>
#include <vector>

namespace kvtrack::TrackLibraryArchive {

/// Entries: first the given tracks, then each folder's tracks (its whole
/// subtree withSubfolders). A track reached twice is exported twice. With
/// useKML the entries are KMZ when withPhotos, else KML; without it GPX, with
/// photos as asked and without the attributes that tie a track to the
/// owner's synchronised store. Entry names are the track names made safe
/// for file systems; a name already taken gets " (2)", " (3)", ... before
/// its extension, because a zip entry name must be unique to be extracted.
/// Whether the archive was written; tracks that cannot be exported are
/// left out, each logged and named in the outcome's warnings.
ExportOutcome createZipFile(const std::string& zipPath, const std::vector<TrackLibraryFolderPtr>& forFolders,
                   const std::vector<TrackPtr>& andTracks, bool withSubfolders, bool withPhotos,
                   bool useKML);

}  // namespace kvtrack::TrackLibraryArchive
