// The writing half of TrackGPX; reading lives in TrackGPXImport.cpp.
#include "kvtrack/formats/gpx/GpxWriter.h"
#include "kvtrack/formats/gpx/TrackGPX.h"
#include "kvtrack/formats/xml/XmlTree.h"
#include "kvtrack/support/Log.h"

namespace kvtrack {

TrackGPX::TrackGPX(std::shared_ptr<Track> track) : track_(std::move(track)) {}

// The track's own shared pointer when it has one; otherwise one that owns
// nothing (the caller keeps the track alive).
TrackGPX::TrackGPX(Track& track) : track_(track.weak_from_this().lock()) {
  if (!track_) track_ = std::shared_ptr<Track>(std::shared_ptr<void>(), &track);
}

bool TrackGPX::exportTo(const std::string& path, GpxExportConfiguration& configuration) {
  configuration.setFilename(path);
  xml::XmlDocument document("gpx");
  const xml::XmlNamespace wayfolio = gpx::setUpRoot(document.root(), configuration.useGPX10());
  if (track_->type() != Track::kPlaceCollection) {
    gpx::createGPXForParent(document.root(), *track_, true, configuration, wayfolio);
  }
  if (!configuration.exportWaypointsOnly()) {
    gpx::createGPXForParent(document.root(), *track_, false, configuration, wayfolio);
  }
  if (!document.save(path, "utf-8", false)) {
    logf("Error writing file: {}", path);
    return false;
  }
  return true;
}

bool TrackGPX::exportTo(const std::string& path, const std::vector<TrackPtr>& tracks,
                        GpxExportConfiguration& configuration) {
  xml::XmlDocument document("gpx");
  const xml::XmlNamespace wayfolio = gpx::setUpRoot(document.root(), configuration.useGPX10());
  // GPX wants every wpt before the first trk or rte.
  for (const TrackPtr& track : tracks) {
    if (track->type() == Track::kPlaceCollection) continue;
    gpx::createGPXForParent(document.root(), *track, true, configuration, wayfolio);
  }
  if (!configuration.exportWaypointsOnly()) {
    for (const TrackPtr& track : tracks) {
      gpx::createGPXForParent(document.root(), *track, false, configuration, wayfolio);
    }
  }
  if (!document.save(path, "utf-8", true)) {
    logf("Error writing file: {}", path);
    return false;
  }
  return true;
}

}  // namespace kvtrack
