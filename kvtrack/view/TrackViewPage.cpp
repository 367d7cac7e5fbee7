#include "kvtrack/view/TrackViewPage.h"

#include "kvtrack/support/Base64.h"
#include "kvtrack/support/KvPreferences.h"
#include "kvtrack/support/Log.h"
#include "kvtrack/support/StagedFiles.h"
#include "kvtrack/support/UnitConverter.h"
#include "kvtrack/view/JsonText.h"
#include "kvtrack/view/PageResources.h"

#include <fmt/format.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <fstream>
#include <iterator>

namespace kvtrack {

namespace {

std::optional<std::string> readWholeFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return std::nullopt;
  std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  if (in.bad()) return std::nullopt;
  return bytes;
}

// Leaflet's style sheet names its pictures as url(images/NAME); the page
// carries them along as data URLs.
std::string inlinePictures(const std::string& style, const std::string& folder) {
  static constexpr std::string_view kPrefix = "url(images/";
  std::string out;
  size_t from = 0;
  for (size_t at; (at = style.find(kPrefix, from)) != std::string::npos;) {
    const size_t end = style.find(')', at);
    if (end == std::string::npos) break;
    const std::string name = style.substr(at + kPrefix.size(), end - at - kPrefix.size());
    out.append(style, from, at - from);
    if (const auto picture = readWholeFile(folder + "/images/" + name)) {
      out += "url(data:image/png;base64," + base64Encode(*picture) + ")";
    } else {
      out += "none";  // a picture the page cannot load would only log errors
    }
    from = end + 1;
  }
  out.append(style, from, std::string::npos);
  return out;
}

// Text placed inside a <script> or <style> element must not end it early:
// only "</" followed by the element's name does, in any case.
std::string safeInElement(std::string text, std::string_view element) {
  for (size_t at = 0; (at = text.find("</", at)) != std::string::npos; at += 2) {
    const std::string_view rest = std::string_view(text).substr(at + 2, element.size());
    const bool closes = std::equal(rest.begin(), rest.end(), element.begin(), element.end(),
                                   [](char a, char b) { return std::tolower(a) == b; });
    if (closes) text.replace(at, 2, "<\\/");
  }
  return text;
}

std::string htmlEscaped(std::string_view text) {
  std::string out;
  for (const char c : text) {
    switch (c) {
      case '&': out += "&amp;"; break;
      case '<': out += "&lt;"; break;
      case '>': out += "&gt;"; break;
      case '"': out += "&quot;"; break;
      case '\'': out += "&#39;"; break;
      default: out += c;
    }
  }
  return out;
}

std::string cssColour(const Color& colour) {
  const auto channel = [](double value) {
    return static_cast<int>(std::lround(std::clamp(value, 0.0, 1.0) * 255.0));
  };
  return fmt::format("#{:02x}{:02x}{:02x}", channel(colour.red), channel(colour.green),
                     channel(colour.blue));
}

const char* kindOf(int32_t type) {
  switch (type) {
    case Track::kRecordedTrack: return "track";
    case Track::kPlaceCollection: return "route";
    default: return "places";
  }
}

void writeUnits(JsonText& json, int unitMode) {
  struct Unit {
    const char* name;
    double factor;  // display units per km, m or km/h
  };
  Unit length{"km", 1.0}, elevation{"m", 1.0}, speed{"km/h", 1.0};
  if (unitMode == KvPreferences::kUnitModeFeetAndMph) {
    length = {"mi", UnitConverter::metersToMiles(1000.0)};
    elevation = {"ft", UnitConverter::metersToFeet(1.0)};
    speed = {"mph", length.factor};
  } else if (unitMode == KvPreferences::kUnitModeFeetAndKnots) {
    length = {"nmi", UnitConverter::metersToNauticalMiles(1000.0)};
    elevation = {"ft", UnitConverter::metersToFeet(1.0)};
    speed = {"kn", length.factor};
  }
  json.key("units").beginObject();
  for (const auto& [key, unit] : {std::pair{"length", length}, std::pair{"elevation", elevation},
                                  std::pair{"speed", speed}}) {
    json.key(key).beginObject().key("name").string(unit.name);
    json.key("factor").number(unit.factor, 9).endObject();
  }
  json.endObject();
}

void writeStatistics(JsonText& json, const ViewStatistics& s) {
  json.key("stats").beginObject();
  json.key("length").number(s.length, 4).key("duration").number(s.duration, 1);
  json.key("ascent").number(s.ascent, 1).key("descent").number(s.descent, 1);
  json.key("minElevation").number(s.minElevation, 1).key("maxElevation").number(s.maxElevation, 1);
  json.key("maxSpeed").number(s.maxSpeed, 2).key("averageSpeed").number(s.averageSpeed, 2);
  json.key("timezone").integer(s.timezoneOffset).key("startSeconds").number(s.startSeconds, 3);
  json.key("start").string(s.start).key("end").string(s.end);
  json.key("points").integer(static_cast<int64_t>(s.points)).key("photos").integer(s.photos);
  json.key("waypoints").integer(s.waypoints).key("geocaches").integer(s.geocaches);
  json.endObject();
}

void writeSegments(JsonText& json, const TrackViewData& track) {
  // Each segment as one flat list: latitude, longitude, latitude, ...
  json.key("segments").beginArray();
  for (const auto& segment : track.segments) {
    json.beginArray();
    for (const auto& vertex : segment) json.number(vertex.latitude, 6).number(vertex.longitude, 6);
    json.endArray();
  }
  json.endArray();
}

void writeProfile(JsonText& json, const std::vector<ProfileSample>& profile) {
  // Column by column: the page reads each as one array.
  const auto column = [&](const char* name, int decimals, double ProfileSample::*field) {
    json.key(name).beginArray();
    for (const auto& sample : profile) json.number(sample.*field, decimals);
    json.endArray();
  };
  json.key("profile").beginObject();
  column("d", 4, &ProfileSample::distance);
  column("t", 1, &ProfileSample::seconds);
  column("lat", 6, &ProfileSample::latitude);
  column("lon", 6, &ProfileSample::longitude);
  column("ele", 1, &ProfileSample::elevation);
  column("spd", 2, &ProfileSample::speed);
  json.key("index").beginArray();
  for (const auto& sample : profile) json.integer(static_cast<int64_t>(sample.index));
  json.endArray().endObject();
}

void writePins(JsonText& json, const TrackViewData& track) {
  json.key("waypoints").beginArray();
  for (const auto& w : track.waypoints) {
    json.beginObject().key("name").string(w.name).key("desc").string(w.description);
    json.key("lat").number(w.latitude, 6).key("lon").number(w.longitude, 6);
    json.key("ele").number(w.elevation, 1).key("geocache").boolean(w.geocache).endObject();
  }
  json.endArray();
  json.key("photos").beginArray();
  for (const auto& p : track.photos) {
    json.beginObject().key("file").string(p.file).key("time").string(p.time);
    json.key("place").string(p.place);
    json.key("lat").number(p.latitude, 6).key("lon").number(p.longitude, 6);
    json.key("thumb");
    if (p.thumbnail.empty()) {
      json.null();
    } else {
      json.string("data:image/jpeg;base64," + base64Encode(p.thumbnail));
    }
    json.endObject();
  }
  json.endArray();
}

void writeTrack(JsonText& json, const TrackViewData& track) {
  json.beginObject();
  json.key("name").string(track.name).key("kind").string(kindOf(track.type));
  json.key("color").string(cssColour(track.color)).key("opacity").number(track.color.alpha, 3);
  json.key("width").number(track.width, 2).key("corridor").number(track.corridorMetres, 1);
  writeSegments(json, track);
  writeProfile(json, track.profile);
  writePins(json, track);
  writeStatistics(json, track.statistics);
  json.endObject();
}

std::string pageData(const std::vector<TrackViewData>& tracks, const TrackViewOptions& options) {
  JsonText json;
  json.beginObject();
  json.key("title").string(options.title).key("tileUrl").string(options.tileUrl);
  json.key("lineTolerance").number(options.settings.lineToleranceMetres, 2);
  writeUnits(json, options.unitMode);
  json.key("tracks").beginArray();
  for (const auto& track : tracks) writeTrack(json, track);
  json.endArray().endObject();
  return json.text();
}

}  // namespace

Result<LeafletAssets> loadLeaflet(const std::string& folder) {
  LeafletAssets assets;
  auto script = readWholeFile(folder + "/leaflet.min.js");
  if (!script) script = readWholeFile(folder + "/leaflet.js");
  const auto style = readWholeFile(folder + "/leaflet.css");
  if (!script || !style) {
    return Status::failure(fmt::format(
        "Leaflet cannot be read from {} (Debian package libjs-leaflet): {}", folder,
        std::strerror(errno ? errno : ENOENT)));
  }
  assets.script = std::move(*script);
  assets.style = inlinePictures(*style, folder);
  return assets;
}

std::string trackViewPage(const std::vector<TrackViewData>& tracks, const LeafletAssets& leaflet,
                          const TrackViewOptions& options) {
  const std::string title = htmlEscaped(options.title);
  std::string page;
  page.reserve(leaflet.script.size() + leaflet.style.size() + 64 * 1024);
  page += "<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\">\n";
  page += "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">\n";
  page += "<meta name=\"generator\" content=\"wayfolio\">\n";
  // Nothing but map tiles ever comes from outside the page.
  page += fmt::format(
      "<meta http-equiv=\"Content-Security-Policy\" content=\"default-src 'none'; "
      "img-src data: {}; style-src 'unsafe-inline'; script-src 'unsafe-inline'\">\n",
      htmlEscaped(options.tileUrl.substr(0, options.tileUrl.find('/', 8))));
  page += "<title>" + title + "</title>\n";
  page += "<style>\n" + safeInElement(leaflet.style, "style") + "\n</style>\n";
  page += "<style>\n" + safeInElement(std::string(kTrackViewStyle), "style") + "\n</style>\n";
  page += "</head>\n<body>\n<header class=\"wf-header\"><h1>" + title + "</h1>";
  if (!options.subtitle.empty()) page += "<p>" + htmlEscaped(options.subtitle) + "</p>";
  page += "</header>\n<main class=\"wf-main\">\n<div id=\"map\" class=\"wf-map\"></div>\n";
  page += "<aside class=\"wf-side\"><div id=\"legend\"></div><div id=\"statistics\"></div></aside>\n";
  page += "<section id=\"profiles\" class=\"wf-profiles\"></section>\n</main>\n";
  page += "<script type=\"application/json\" id=\"wayfolio-view-data\">";
  page += pageData(tracks, options);
  page += "</script>\n<script>\n" + safeInElement(leaflet.script, "script") + "\n</script>\n";
  page += "<script>\n" + safeInElement(std::string(kTrackViewScript), "script") + "\n</script>\n";
  page += "</body>\n</html>\n";
  return page;
}

namespace {

Result<std::string> buildPage(const std::vector<TrackPtr>& tracks, const TrackViewOptions& options,
                              TrackViewSummary& summary) {
  auto leaflet = loadLeaflet(options.leafletFolder);
  if (!leaflet) {
    logf("TrackView: {}", leaflet.reason());
    return leaflet.status();
  }
  std::vector<TrackViewData> gathered;
  gathered.reserve(tracks.size());
  for (const auto& track : tracks) {
    gathered.push_back(gatherTrackView(*track, options.settings));
    const TrackViewData& view = gathered.back();
    summary.points += view.statistics.points;
    summary.drawnVertices += view.drawnVertexCount();
    summary.photos += view.photos.size();
    for (const auto& photo : view.photos) {
      if (photo.thumbnail.empty()) summary.unreadablePhotos.push_back(photo.file);
    }
  }
  summary.tracks = gathered.size();
  std::string page = trackViewPage(gathered, *leaflet, options);
  summary.pageBytes = page.size();
  return page;
}

}  // namespace

Result<std::string> trackViewPage(const std::vector<TrackPtr>& tracks,
                                  const TrackViewOptions& options) {
  TrackViewSummary summary;
  return buildPage(tracks, options, summary);
}

Result<TrackViewSummary> writeTrackView(const std::string& path,
                                        const std::vector<TrackPtr>& tracks,
                                        const TrackViewOptions& options) {
  TrackViewSummary summary;
  const auto page = buildPage(tracks, options, summary);
  if (!page) return page.status();
  const Status written = writeFileAtomically(path, *page);
  if (!written) {
    logf("TrackView: cannot write {}: {}", path, written.reason());
    return written;
  }
  return summary;
}

}  // namespace kvtrack
