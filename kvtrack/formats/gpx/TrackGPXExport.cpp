// The writing half of TrackGPX; reading lives in TrackGPXImport.cpp.
#include "kvtrack/formats/gpx/GpxWriter.h"
#include "kvtrack/formats/gpx/TrackGPX.h"
#include "kvtrack/formats/xml/XmlTree.h"
#include "kvtrack/support/Log.h"
#include "kvtrack/support/StagedFiles.h"

namespace kvtrack {

TrackGPX::TrackGPX(std::shared_ptr<Track> track) : track_(std::move(track)) {}

// The track's own shared pointer when it has one; otherwise one that owns
// nothing (the caller keeps the track alive).
TrackGPX::TrackGPX(Track& track) : track_(track.weak_from_this().lock()) {
  if (!track_) track_ = std::shared_ptr<Track>(std::shared_ptr<void>(), &track);
}

namespace {

// The waypoint pass (unless the track is a route), then the track pass.
void fillDocument(xml::XmlDocument& document, Track& track, GpxExportConfiguration& configuration) {
  const xml::XmlNamespace wayfolio = gpx::setUpRoot(document.root(), configuration.useGPX10());
  if (track.type() != Track::kPlaceCollection) {
    gpx::createGPXForParent(document.root(), track, true, configuration, wayfolio);
  }
  if (!configuration.exportWaypointsOnly()) {
    gpx::createGPXForParent(document.root(), track, false, configuration, wayfolio);
  }
}

}  // namespace

Status TrackGPX::writeTo(OutputFile& file, GpxExportConfiguration& configuration) {
  configuration.setFilename(file.path());
  xml::XmlDocument document("gpx");
  fillDocument(document, *track_, configuration);
  return document.writeTo(file, "utf-8");
}

std::string TrackGPX::exportText(GpxExportConfiguration& configuration) {
  xml::XmlDocument document("gpx");
  fillDocument(document, *track_, configuration);
  return document.text("utf-8");
}

Status TrackGPX::exportTo(const std::string& path, GpxExportConfiguration& configuration) {
  return writeFileAtomically(path, [&](OutputFile& file) { return writeTo(file, configuration); });
}

Status TrackGPX::exportTo(const std::string& path, const std::vector<TrackPtr>& tracks,
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
  const Status saved = document.save(path, "utf-8");
  if (!saved) logf("Error writing file: {} ({})", path, saved.reason());
  return saved;
}

}  // namespace kvtrack
