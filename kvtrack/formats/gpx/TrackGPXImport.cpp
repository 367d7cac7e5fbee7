// Reading one GPX file into one track.
#include "kvtrack/formats/geocache/GeocacheExternalImport.h"
#include "kvtrack/formats/gpx/GpxHandlers.h"
#include "kvtrack/formats/gpx/TrackGPX.h"
#include "kvtrack/support/Log.h"
#include "kvtrack/support/NumberText.h"

namespace kvtrack {

namespace {

// The document level: tracks and routes go to the track, waypoints to a list
// merged afterwards.
class TrackGPXRoot : public xml::SaxHandler {
 public:
  TrackGPXRoot(Track& track, const std::string& importFilename)
      : track_(track), importFilename_(importFilename) {}

  std::vector<TrackPointPtr> wayPoints;

  void startElement(xml::SaxParser& parser, std::string_view name,
                    const xml::Attributes& attributes) override {
    if (name == "trk" || name == "rte") {
      gpx::TrackGPXElement::trackGPXElementForTrack(track_, parser, importFilename_);
      // Files of an early format kept display attributes on the element itself.
      track_.setShowArea(attributes.value("showArea") == std::optional<std::string_view>("yes"));
      if (const auto distance = attributes.value("areaDistance")) {
        track_.setAreaDistanceInMeter(parseFloatValue(*distance));
      }
      const auto r = attributes.value("red"), g = attributes.value("green"),
                 b = attributes.value("blue"), a = attributes.value("alpha");
      if (r && g && b && a) {
        track_.setColor({parseFloatValue(*r), parseFloatValue(*g), parseFloatValue(*b),
                         parseFloatValue(*a)});
      }
    } else if (name == "wpt") {
      auto point = TrackPoint::trackPointWithParent(&track_);
      wayPoints.push_back(point);
      gpx::WayPointGPXElement::wayPointGPXElementForTrackPoint(point, parser, attributes);
    }
  }

  bool parseError(xml::SaxParser&, const xml::ParseError& error) override {
    return gpx::logParseError("TrackGPX", error);
  }

 private:
  Track& track_;
  const std::string& importFilename_;
};

// Waypoints find their track point by position, else by time; unmatched
// ones are dropped. A track without points takes them as they are.
void mergeWayPoints(Track& track, const std::vector<TrackPointPtr>& wayPoints) {
  if (track.trackPoints().empty()) {
    for (const auto& wayPoint : wayPoints) {
      wayPoint->setIsWayPoint(true);
      track.addTrackPoint(wayPoint);
    }
    return;
  }
  for (const auto& wayPoint : wayPoints) {
    TrackPointPtr match;
    if (wayPoint->latitude() != 0.0 && wayPoint->longitude() != 0.0) {
      match = track.findTrackPointForCoords(*wayPoint);
    }
    if (!match) match = track.findTrackPointWithDate(wayPoint->time());
    if (!match) continue;
    match->setIsWayPoint(true);
    match->copyWaypointAttributesFrom(*wayPoint);
  }
}

}  // namespace

bool TrackGPX::importFrom(const std::string& path) {
  if (path.empty()) {
    logLine("Error creating URL!");
    return false;
  }
  GeocacheExternalImport::install();
  importFilename_ = path;
  TrackGPXRoot root(*track_, importFilename_);
  xml::SaxParser parser;
  const bool ok = parser.parseFile(path, root);
  if (!ok && parser.error() && parser.error()->code == -1) {
    // Not an XML error (file missing, handler failure): say so once.
    logf("TrackGPX: Error {}, Description: {}, Line: {}, Column: {}", parser.error()->code,
         parser.error()->description, parser.error()->line, parser.error()->column);
  }
  mergeWayPoints(*track_, root.wayPoints);
  importFilename_.clear();
  return ok;
}

}  // namespace kvtrack
