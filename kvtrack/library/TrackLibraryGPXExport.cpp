#include "kvtrack/library/TrackLibraryGPX.h"

#include "kvtrack/library/TrackLibrary.h"

#include "kvtrack/formats/gpx/GpxWriter.h"
#include "kvtrack/formats/xml/XmlTree.h"

namespace kvtrack {

TrackLibraryGPX::TrackLibraryGPX()
    : allTracks_([] {
        const auto library = TrackLibrary::current();
        return library ? library->allTracks() : std::vector<TrackPtr>{};
      }) {}

Status TrackLibraryGPX::exportTo(const std::string& path, bool selectedOnly,
                               const TrackPtr& trackOnly, GpxExportConfiguration& configuration) {
  xml::XmlDocument document("gpx");
  const xml::XmlElement root = document.root();
  const xml::XmlNamespace wayfolio = gpx::setUpRoot(root, false);
  if (trackOnly) {
    if (trackOnly->type() != Track::kPlaceCollection) {
      gpx::createGPXForParent(root, *trackOnly, true, configuration, wayfolio);
    }
    gpx::createGPXForParent(root, *trackOnly, false, configuration, wayfolio);
  } else {
    const std::vector<TrackPtr> tracks = allTracks_ ? allTracks_() : std::vector<TrackPtr>{};
    for (const TrackPtr& track : tracks) {
      if ((selectedOnly && !track->isSelected()) || track->type() == Track::kPlaceCollection) {
        continue;
      }
      gpx::createGPXForParent(root, *track, true, configuration, wayfolio);
    }
    if (!configuration.exportWaypointsOnly()) {
      for (const TrackPtr& track : tracks) {
        if (selectedOnly && !track->isSelected()) continue;
        gpx::createGPXForParent(root, *track, false, configuration, wayfolio);
      }
    }
  }
  return document.save(path, "UTF-8");
}

}  // namespace kvtrack
