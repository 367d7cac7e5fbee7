#include "kvtrack/exports/LibraryKML.h"

#include "kvtrack/exports/TrackKML.h"

namespace kvtrack {

namespace {

Status exportSelected(const TrackLibraryFolder& library, const std::string& path, bool createKMZ) {
  const TrackPtr track = library.firstSelectedTrack();
  if (!track) return Status::failure("no track is selected");
  track->loadFromLibrary();
  return TrackKML(track, TrackKMLConfiguration()).exportTo(path, createKMZ).status;
}

}  // namespace

Status exportSelectedKML(const TrackLibraryFolder& library, const std::string& path) {
  return exportSelected(library, path, false);
}

Status exportSelectedKMZ(const TrackLibraryFolder& library, const std::string& path) {
  return exportSelected(library, path, true);
}

}  // namespace kvtrack
