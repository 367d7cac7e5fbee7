// Reading one GPX file into one track.
#include "kvtrack/formats/geocache/GeocacheExternalImport.h"
#include "kvtrack/formats/gpx/GpxHandlers.h"
#include "kvtrack/formats/gpx/TrackGPX.h"
#include "kvtrack/support/Log.h"
#include "kvtrack/support/NumberText.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <filesystem>
#include <unordered_map>
#include <utility>

namespace kvtrack {

namespace {

// The document level: tracks and routes go to the track, waypoints to a list
// merged afterwards.
class TrackGPXRoot : public xml::SaxHandler {
 public:
  TrackGPXRoot(Track& track, gpx::ReadContext& context) : track_(track), context_(context) {}

  std::vector<TrackPointPtr> wayPoints;

  void startElement(xml::SaxParser& parser, std::string_view name,
                    const xml::Attributes& attributes) override {
    if (name == "trk" || name == "rte") {
      gpx::TrackGPXElement::trackGPXElementForTrack(track_, parser, context_);
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
      auto point = gpx::WayPointGPXElement::startWayPoint(&track_, parser, attributes, context_);
      if (point) wayPoints.push_back(std::move(point));
    }
  }

  bool parseError(xml::SaxParser&, const xml::ParseError& error) override {
    return gpx::logParseError("TrackGPX", error);
  }

 private:
  Track& track_;
  gpx::ReadContext& context_;
};

// For each waypoint, the first point at exactly its position (both
// coordinates non-zero), found in one walk over the points instead of one
// per waypoint; null where there is none.
std::vector<TrackPointPtr> pointsAtWayPoints(const std::vector<TrackPointPtr>& points,
                                             const std::vector<TrackPointPtr>& wayPoints) {
  const auto key = [](double latitude, double longitude) {
    return std::pair(std::bit_cast<uint64_t>(latitude), std::bit_cast<uint64_t>(longitude));
  };
  struct PairHash {
    size_t operator()(const std::pair<uint64_t, uint64_t>& k) const {
      return std::hash<uint64_t>()(k.first * 0x9e3779b97f4a7c15ULL ^ k.second);
    }
  };
  std::unordered_map<std::pair<uint64_t, uint64_t>, std::vector<size_t>, PairHash> wanted;
  for (size_t k = 0; k < wayPoints.size(); ++k) {
    const TrackPoint& w = *wayPoints[k];
    // Zero stands for no position; NaN equals nothing.
    if (w.latitude() == 0.0 || w.longitude() == 0.0 || std::isnan(w.latitude()) ||
        std::isnan(w.longitude())) {
      continue;
    }
    wanted[key(w.latitude(), w.longitude())].push_back(k);
  }
  std::vector<TrackPointPtr> found(wayPoints.size());
  for (const TrackPointPtr& point : points) {
    if (wanted.empty()) break;
    const auto it = wanted.find(key(point->latitude(), point->longitude()));
    if (it == wanted.end()) continue;
    for (const size_t k : it->second) found[k] = point;
    wanted.erase(it);
  }
  return found;
}

// Waypoints find their track point by position, else by time; unmatched
// ones are dropped. A track without points takes them as they are.
void mergeWayPoints(Track& track, const std::vector<TrackPointPtr>& wayPoints) {
  const auto points = track.trackPoints();
  if (points.empty()) {
    for (const auto& wayPoint : wayPoints) {
      wayPoint->setIsWayPoint(true);
      track.addTrackPoint(wayPoint);
    }
    return;
  }
  const std::vector<TrackPointPtr> atPosition = pointsAtWayPoints(*points, wayPoints);
  // A point found by time takes the waypoint's position; positions found
  // before may then be out of date, and the track is searched afresh.
  bool moved = false;
  for (size_t k = 0; k < wayPoints.size(); ++k) {
    const TrackPoint& wayPoint = *wayPoints[k];
    TrackPointPtr match = moved ? track.findTrackPointForWayPoint(wayPoint) : atPosition[k];
    if (!match && !moved) match = track.findTrackPointWithDate(wayPoint.time());
    if (!match) continue;
    moved = moved || match->latitude() != wayPoint.latitude() ||
            match->longitude() != wayPoint.longitude();
    match->setIsWayPoint(true);
    match->copyWaypointAttributesFrom(wayPoint);
  }
}

// Room for the points a file of this size likely holds (a plain "trkpt"
// with elevation and time takes about 100 bytes), so that the list does not
// grow by copying itself over and over while a long track is read.
void reserveForFile(Track& track, const std::string& path) {
  track.loadFromLibrary();  // what adding the first point would do anyway
  if (track.loadedPointCount() != 0) return;
  std::error_code error;
  const auto bytes = std::filesystem::file_size(path, error);
  if (error) return;
  std::vector<TrackPointPtr> points;
  points.reserve(static_cast<size_t>(std::min<std::uintmax_t>(bytes / 100, 50'000'000)));
  track.setTrackPoints(std::move(points));
}

}  // namespace

Status TrackGPX::importFrom(const std::string& path) {
  invalidPositions_ = 0;
  if (path.empty()) {
    logLine("Error creating URL!");
    return Status::failure("no file named");
  }
  GeocacheExternalImport::install();
  importFilename_ = path;
  gpx::ReadContext context{path, 0};
  TrackGPXRoot root(*track_, context);
  reserveForFile(*track_, path);
  xml::SaxParser parser;
  const bool ok = parser.parseFile(path, root);
  if (!ok && parser.error() && parser.error()->code == -1) {
    // Not an XML error (file missing, handler failure): say so once.
    logf("TrackGPX: Error {}, Description: {}, Line: {}, Column: {}", parser.error()->code,
         parser.error()->description, parser.error()->line, parser.error()->column);
  }
  mergeWayPoints(*track_, root.wayPoints);
  importFilename_.clear();
  invalidPositions_ = context.invalidPositions;
  if (!ok) return Status::failure(parser.error() ? parser.error()->reason() : "not readable");
  return {};
}

}  // namespace kvtrack
