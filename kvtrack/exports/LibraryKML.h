#pragma once
// The library's KML and KMZ exports of its selection. They live here, above
// the library, because KML export needs the photo files.

#include "kvtrack/library/TrackLibraryFolder.h"

#include <string>

namespace kvtrack {

/// The first selected track of the folder tree as KML (photos shown from
/// their files) or as KMZ (KML plus scaled photo copies), with the
/// preferences' configuration. Fails when nothing is selected or the file
/// could not be written.
Status exportSelectedKML(const TrackLibraryFolder& library, const std::string& path);
Status exportSelectedKMZ(const TrackLibraryFolder& library, const std::string& path);

}  // namespace kvtrack
