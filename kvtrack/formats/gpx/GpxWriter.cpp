#include "kvtrack/formats/gpx/GpxWriter.h"

#include "kvtrack/formats/geocache/GeocacheGPX.h"
#include "kvtrack/formats/geocache/GeocacheNames.h"
#include "kvtrack/formats/gpx/ExternalTrackPoints.h"
#include "kvtrack/formats/gpx/GpxNamespaces.h"
#include "kvtrack/formats/gpx/TrackPointMarkup.h"
#include "kvtrack/support/NumberText.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <mutex>
#include <string_view>

namespace kvtrack::gpx {

using xml::XmlElement;
using xml::XmlNamespace;

namespace {

// The writer's number forms, shared with the directly formatted points.
std::string decimal(double value) {
  std::string text;
  appendDecimal(text, value);
  return text;
}

class Integer {
 public:
  explicit Integer(int64_t value) {
    const auto result = std::to_chars(buffer_, buffer_ + sizeof buffer_, value);
    text_ = std::string_view(buffer_, static_cast<size_t>(result.ptr - buffer_));
  }
  Integer(const Integer&) = delete;  // the view points into this object
  operator std::string_view() const { return text_; }

 private:
  char buffer_[24];
  std::string_view text_;
};

std::string_view yesNo(bool value) { return value ? "yes" : "no"; }

void addOptionalChild(XmlElement parent, std::string_view name,
                      const std::optional<std::string>& text, XmlNamespace ns = {}) {
  if (text) parent.addChild(name, *text, ns);
}

void addOptionalAttribute(XmlElement element, std::string_view name,
                          const std::optional<std::string>& value) {
  if (value) element.setAttribute(name, *value);
}

// Text after the last separator; trailing separators do not count.
std::string_view lastPathComponent(std::string_view path) {
  while (path.size() > 1 && path.back() == '/') path.remove_suffix(1);
  const size_t slash = path.rfind('/');
  return (slash == std::string_view::npos || path.size() == 1) ? path : path.substr(slash + 1);
}

void appendPointDescription(XmlElement element, const TrackPoint& point) {
  if (const auto& description = point.description()) {
    element.addChild("desc", *description);
    return;
  }
  // "Lat.=%f, Long.=%f, Alt.=%fm, Speed=%fKm/h"
  std::string text = "Lat.=";
  appendFixed(text, point.latitude());
  text += ", Long.=";
  appendFixed(text, point.longitude());
  text += ", Alt.=";
  appendFixed(text, point.elevation());
  text += "m, Speed=";
  appendFixed(text, point.speed());
  text += "Km/h";
  element.addChild("desc", text);
}

void writePhoto(XmlElement parent, TrackPhoto& photo, GpxExportConfiguration& configuration,
                XmlNamespace wayfolio);

void appendPointExtensions(XmlElement element, TrackPoint& point, bool external,
                           GpxExportConfiguration& configuration, XmlNamespace wayfolio) {
  XmlElement extensions = element.addChild("extensions");
  if (!external) {
    const GeocachePtr& geocache = point.geocache();
    if (geocache) {
      extensions.addChild("yourLog", wayfolio)
          .setAttribute("status", gpxNameForLogType(geocache->yourLogType));
    }
    addOptionalChild(extensions, "urlAsPDF", point.urlAsPDF(), wayfolio);
    if (geocache) {
      addOptionalChild(extensions, "geocacheDescriptionAsPDF", geocache->descriptionAsPDF,
                       wayfolio);
    }
    // NaN compares false: points of place collections carry no speed.
    if (point.speed() >= 0) extensions.addChild("speed", decimal(point.speed()), wayfolio);
    if (point.length() >= 0) extensions.addChild("length", decimal(point.length()), wayfolio);
    if (const auto& tags = point.tags(); tags && !tags->empty()) {
      extensions.addChild("tags", *tags, wayfolio);
    }
  }
  if (configuration.doNotExportPhotos()) return;
  for (const TrackPhotoPtr& photo : point.trackPhotos()) {
    writePhoto(extensions, *photo, configuration, wayfolio);
  }
}

void appendTrackExtensions(XmlElement element, Track& track,
                           const std::vector<TrackPointPtr>& points,
                           const GpxExportConfiguration& configuration, XmlNamespace wayfolio) {
  XmlElement extensions = element.addChild("extensions");
  XmlElement color = extensions.addChild("color", wayfolio);
  color.setAttribute("red", fixedText(track.color().red));
  color.setAttribute("green", fixedText(track.color().green));
  color.setAttribute("blue", fixedText(track.color().blue));
  color.setAttribute("alpha", fixedText(track.color().alpha));
  if (track.width() > 1.0f) {
    extensions.addChild("width", wayfolio).setAttribute("width", fixedText(track.width()));
  }
  XmlElement area = extensions.addChild("area", wayfolio);
  area.setAttribute("showArea", yesNo(track.showArea()));
  area.setAttribute("areaDistance", fixedText(track.areaDistanceInMeter()));
  extensions.addChild("directionArrows", wayfolio)
      .setAttribute("showDirectionArrows", yesNo(track.showDirectionArrows()));
  extensions.addChild("sync", wayfolio)
      .setAttribute("syncPhotosOniPhone", yesNo(track.syncPhotosOniPhone()));
  if (!points.empty()) {
    const auto time = points.front()->time();
    extensions.addChild("timezone", wayfolio)
        .setAttribute("offset", Integer(time ? time->timezoneOffset() : 0));
  }
  addOptionalChild(extensions, "tags", track.tags(), wayfolio);
  const auto& externalFile = configuration.exportTrackPointsInExternalFile();
  if (externalFile &&
      (track.type() == Track::kRecordedTrack || track.type() == Track::kPlaceCollection)) {
    extensions.addChild("externaltrackpoints", wayfolio)
        .setAttribute("filename", lastPathComponent(*externalFile));
  }
}

bool isWritten(const TrackPoint& point, bool waypointsOnly,
               const GpxExportConfiguration& configuration) {
  if (waypointsOnly && !point.isWayPoint()) return false;
  const auto& filter = configuration.filterPredicate();
  return !filter || filter(point);
}

bool inRoute(const TrackPoint& point) {
  return point.track() && point.track()->type() == Track::kPlaceCollection;
}

// The content of a "wpt", "trkpt" or "rtept" element made by the caller.
void writePoint(XmlElement element, TrackPoint& point, bool waypointsOnly,
                GpxExportConfiguration& configuration, XmlNamespace wayfolio) {
  const bool route = inRoute(point);
  const bool external = configuration.exportTrackPointsInExternalFile().has_value();
  if (external && !waypointsOnly) {
    element.setAttribute("index", Integer(configuration.indexOfTrackPointInExternalFile()));
  }
  if (!external) {
    element.setAttribute("lat", decimal(point.latitude()));
    element.setAttribute("lon", decimal(point.longitude()));
    element.addChild("ele", decimal(point.elevation()));
    if (!route && point.hasTime()) element.addChild("time", point.time()->description());
    addOptionalChild(element, "name", point.name());
    addOptionalChild(element, "cmt", point.comment());
    appendPointDescription(element, point);
  }
  if (waypointsOnly) {
    addOptionalChild(element, "src", point.source());
    addOptionalChild(element, "url", point.url());
    addOptionalChild(element, "urlname", point.urlName());
    addOptionalChild(element, "sym", point.symbol());
    addOptionalChild(element, "type", point.type());
    if (point.geocache()) {
      if (configuration.exportGeocachingAuExtensions()) {
        GeocacheGPX::appendPlainBlock(
            element, point, configuration.exportGeocachingDescriptionAndLogsInExternalFolder());
      }
      if (configuration.exportGroundspeakExtensions()) {
        GeocacheGPX::appendGroundspeakBlock(
            element, point, configuration.exportGeocachingDescriptionAsPlainText());
      }
    }
  }
  if (configuration.exportWayfolioExtensions()) {
    appendPointExtensions(element, point, external, configuration, wayfolio);
  }
}

void writePhoto(XmlElement parent, TrackPhoto& photo, GpxExportConfiguration& configuration,
                XmlNamespace wayfolio) {
  if (configuration.exportiPhonePhotosOnly() && !photo.iPhoneFilename()) return;
  const bool external = configuration.exportTrackPointsInExternalFile().has_value();
  XmlElement element = parent.addChild("photo", wayfolio);
  if (const std::string& path = photo.originalFilepath(); !path.empty()) {
    if (!external) {
      element.setAttribute("filename", path);
    } else {
      addOptionalAttribute(element, "iphonefilename", photo.iPhoneFilename());
    }
    // The stored time only: reading the image file here would slow exports down.
    if (const auto& time = photo.storedTimeOfPhoto()) {
      element.setAttribute("time", time->descriptionWithTimezone(true));
    }
  }
  photo.updateBookmarkFromPath();
  if (const auto& bookmark = photo.base64Bookmark();
      bookmark && !bookmark->empty() && !configuration.doNotExportBookmarks()) {
    element.addChild("bookmark", *bookmark, wayfolio);
  }
  addOptionalAttribute(element, "city", photo.city());
  addOptionalAttribute(element, "state", photo.state());
  addOptionalAttribute(element, "country", photo.country());
  addOptionalAttribute(element, "isoCountryCode", photo.isoCountryCode());
  addOptionalAttribute(element, "place", photo.place());
  if (external) return;
  if (photo.iPhotoIdAppleScript()) {
    element.setAttribute("iPhotoIdAppleScript", *photo.iPhotoIdAppleScript());
    element.setAttribute("iPhotoId", Integer(photo.iPhotoId()));
  }
  if (photo.iCloudId() && !configuration.doNotExportiCloudInfo()) {
    element.setAttribute("iCloudId", *photo.iCloudId());
  }
}


using PointList = std::vector<TrackPointPtr>;

// One "trkseg" whose points are formatted while the document is saved, in
// pieces of about a megabyte, under the track's lock (taken again then, so
// that no two tracks are ever locked together). `accepted` (when filtering)
// says which points pass the filter.
void addSegment(XmlElement element, Track& track, const std::shared_ptr<const PointList>& points,
                size_t begin, size_t end, const std::shared_ptr<std::vector<bool>>& accepted,
                GpxExportConfiguration& configuration) {
  XmlElement segment = element.addChild("trkseg");
  bool any = !accepted && begin < end;
  for (size_t i = begin; !any && i < end; ++i) any = (*accepted)[i];
  if (!any) return;  // an empty segment: "<trkseg/>"
  const int depth = segment.depth() + 1;
  Track* const owner = &track;  // outlives the document: exports save before they return
  segment.addDeferredMarkup([=, &configuration](const xml::MarkupSink& sink) {
    constexpr size_t kPiece = 1 << 20;
    std::lock_guard<Track> lock(*owner);
    TrackPointMarkup markup(configuration, depth);
    std::string text;
    text.reserve(kPiece + 4096);
    for (size_t i = begin; i < end; ++i) {
      if (accepted && !(*accepted)[i]) continue;
      markup.append(text, *(*points)[i]);
      if (text.size() >= kPiece) {
        sink(text);
        text.clear();
      }
    }
    text += '\n';
    text.append(static_cast<size_t>(2 * (depth - 1)), ' ');
    sink(text);
  });
}

// The points of a track's segments; a point's end flag closes its segment.
// The list is copied, so that the track need not stay locked until saved.
void writeSegments(XmlElement element, Track& track, const PointList& list,
                   GpxExportConfiguration& configuration) {
  const auto points = std::make_shared<const PointList>(list);
  std::shared_ptr<std::vector<bool>> accepted;
  if (configuration.filterPredicate()) {
    accepted = std::make_shared<std::vector<bool>>(list.size());
    for (size_t i = 0; i < list.size(); ++i) (*accepted)[i] = isWritten(*list[i], false, configuration);
  }
  size_t begin = 0;
  for (size_t i = 0; i < list.size(); ++i) {
    // The end flag of the last point must not leave an empty segment behind.
    if (list[i]->isEndOfSegment() && i + 1 < list.size()) {
      addSegment(element, track, points, begin, i + 1, accepted, configuration);
      begin = i + 1;
    }
  }
  addSegment(element, track, points, begin, list.size(), accepted, configuration);
}

}  // namespace


XmlNamespace setUpRoot(XmlElement root, bool useGPX10) {
  const std::string_view gpxNamespace = useGPX10 ? kGpx10Namespace : kGpx11Namespace;
  // libxml2 writes the declarations before the attributes, in this order.
  root.setNamespace(root.declareNamespace("", gpxNamespace));
  root.declareNamespace("xsd", kXmlSchemaNamespace);
  root.declareNamespace("xsi", kXmlSchemaInstanceNamespace);
  const XmlNamespace wayfolio = root.declareNamespace("wayfolio", kWayfolioNamespace);
  root.setAttribute("creator", kCreator);
  root.setAttribute("version", useGPX10 ? "1.0" : "1.1");
  root.setAttribute("xsi:schemaLocation", fmt::format("{} {}/gpx.xsd", gpxNamespace, gpxNamespace));
  return wayfolio;
}

void createGPXForParent(XmlElement parent, Track& track, bool waypointsOnly,
                        GpxExportConfiguration& configuration, XmlNamespace wayfolio) {
  std::lock_guard<Track> lock(track);
  const auto points = track.trackPoints();
  const bool route = track.type() == Track::kPlaceCollection;
  if (waypointsOnly) {
    if (route) return;  // a route's points are its own, never separate waypoints
    for (const TrackPointPtr& point : points) {
      createGPXForParent(parent, *point, true, configuration, wayfolio);
    }
    return;
  }

  XmlElement element = parent.addChild(route ? "rte" : "trk");
  element.addChild("name", track.name());
  addOptionalChild(element, "desc", track.description());
  appendTrackExtensions(element, track, *points, configuration, wayfolio);
  // Geocache and library collections consist of waypoints only.
  if (track.type() >= Track::kGeocacheCollection) return;

  if (const auto& externalFile = configuration.exportTrackPointsInExternalFile()) {
    // The text file carries the positions; the GPX keeps the photo points.
    writeExternalTrackPoints(*externalFile, *points);
    XmlElement container = route ? element : element.addChild("trkseg");
    for (size_t i = 0; i < points.size(); ++i) {
      if (!points[i]->hasPhotos()) continue;
      configuration.setIndexOfTrackPointInExternalFile(static_cast<int32_t>(i));
      createGPXForParent(container, *points[i], false, configuration, wayfolio);
    }
    return;
  }

  if (!route) {
    writeSegments(element, track, *points, configuration);
    return;
  }
  for (const TrackPointPtr& point : points) {
    createGPXForParent(element, *point, false, configuration, wayfolio);
  }
}


void createGPXForParent(XmlElement parent, TrackPoint& point, bool waypointsOnly,
                        GpxExportConfiguration& configuration, XmlNamespace wayfolio) {
  if (!isWritten(point, waypointsOnly, configuration)) return;
  const char* name = waypointsOnly ? "wpt" : (inRoute(point) ? "rtept" : "trkpt");
  writePoint(parent.addChild(name), point, waypointsOnly, configuration, wayfolio);
}

void createGPXForParent(XmlElement parent, TrackPhoto& photo, GpxExportConfiguration& configuration,
                        XmlNamespace wayfolio) {
  writePhoto(parent, photo, configuration, wayfolio);
}

}  // namespace kvtrack::gpx
