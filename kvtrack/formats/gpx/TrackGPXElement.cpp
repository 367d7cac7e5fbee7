#include "kvtrack/formats/gpx/ExternalTrackPoints.h"
#include "kvtrack/formats/gpx/GpxHandlers.h"
#include "kvtrack/support/Log.h"
#include "kvtrack/support/NumberText.h"

#include <cmath>
#include <filesystem>

namespace kvtrack::gpx {

bool logParseError(const char* className, const xml::ParseError& error) {
  if (error.code == 5) return true;  // content after the document end: silent
  logf("{}: Error {}, Description: {}, Line: {}, Column: {}", className, error.code,
       error.description, error.line, error.column);
  return true;
}

void TrackGPXElement::trackGPXElementForTrack(Track& track, xml::SaxParser& parser,
                                              ReadContext& context) {
  parser.pushHandler(std::make_unique<TrackGPXElement>(track, context));
}

std::optional<std::pair<double, double>> readPosition(const xml::Attributes& attributes) {
  const auto lat = attributes.value("lat"), lon = attributes.value("lon");
  if (!lat || !lon) return std::nullopt;
  const auto latitude = parseFiniteNumber(*lat), longitude = parseFiniteNumber(*lon);
  if (!latitude || !longitude || !TrackPoint::isValidPosition(*latitude, *longitude)) {
    return std::nullopt;
  }
  return std::pair(*latitude, *longitude);
}

namespace {
bool isYes(const xml::Attributes& attributes, std::string_view name) {
  return attributes.value(name) == std::optional<std::string_view>("yes");
}
}  // namespace

void TrackGPXElement::startElement(xml::SaxParser& parser, std::string_view name,
                                   const xml::Attributes& attributes) {
  if (name == "trkpt" || name == "rtept") {
    startPoint(parser, name, attributes);
    return;
  }
  if (name == "name") {
    track_.setName("");
    parserInName_ = true;
  } else if (name == "desc") {
    track_.setDescription("");
    parserInDescription_ = true;
  } else if (name == "wayfolio:tags") {
    track_.setTags("");
    parserInTags_ = true;
  } else if (name == "wayfolio:color" || name == "color") {
    const auto r = attributes.value("red"), g = attributes.value("green"),
               b = attributes.value("blue"), a = attributes.value("alpha");
    if (r && g && b && a) {
      track_.setColor({parseFloatValue(*r), parseFloatValue(*g), parseFloatValue(*b),
                       parseFloatValue(*a)});
    }
  } else if (name == "wayfolio:directionArrows") {
    track_.setShowDirectionArrows(isYes(attributes, "showDirectionArrows"));
  } else if (name == "wayfolio:area" || name == "area") {
    track_.setShowArea(isYes(attributes, "showArea"));
    if (const auto distance = attributes.value("areaDistance")) {
      track_.setAreaDistanceInMeter(parseFloatValue(*distance));
    }
  } else if (name == "wayfolio:width") {
    if (const auto width = attributes.value("width")) track_.setWidth(parseFloatValue(*width));
  } else if (name == "wayfolio:sync") {
    track_.setSyncPhotosOniPhone(isYes(attributes, "syncPhotosOniPhone"));
  } else if (name == "wayfolio:timezone") {
    if (const auto offset = attributes.value("offset")) {
      timezoneOffset_ = parseIntValue(*offset);
      hasTimezoneOffset_ = true;
    }
  } else if (name == "wayfolio:externaltrackpoints") {
    if (const auto filename = attributes.value("filename")) {
      const auto folder = std::filesystem::path(context_.importFilename).parent_path();
      context_.invalidPositions +=
          readExternalTrackPoints((folder / std::string(*filename)).string(), track_);
    }
  }
}

void TrackGPXElement::startPoint(xml::SaxParser& parser, std::string_view name,
                                 const xml::Attributes& attributes) {
  if (const auto index = attributes.value("index")) {
    // A point of the external point file that carries photos.
    const int32_t i = parseIntValue(*index);
    const auto points = track_.trackPoints();
    if (i >= 0 && static_cast<size_t>(i) < points.size()) {
      pointHandler_.take(points[static_cast<size_t>(i)], parser);
    }
    return;
  }
  auto point = TrackPoint::trackPointWithParent(&track_);
  if (name == "rtept") point->setIsWayPoint(true);
  // The handler still reads a skipped point's children, so they do not
  // land on the track.
  pointHandler_.take(point, parser);
  const auto position = readPosition(attributes);
  if (!position) {
    ++context_.invalidPositions;
    return;
  }
  point->setLatitude(position->first);
  point->setLongitude(position->second);
  track_.addTrackPoint(std::move(point));
}

void TrackGPXElement::endElement(xml::SaxParser& parser, std::string_view name) {
  if (name == "trkseg") {
    const auto points = track_.trackPoints();
    if (!points.empty()) points.back()->setIsEndOfSegment(true);
  } else if (name == "name") {
    parserInName_ = false;
  } else if (name == "desc") {
    parserInDescription_ = false;
  } else if (name == "wayfolio:tags") {
    parserInTags_ = false;
  } else if (name == "trk" || name == "rte") {
    if (hasTimezoneOffset_) track_.setTimezoneOffset(timezoneOffset_);
    track_.setTimezoneSetDuringImport(hasTimezoneOffset_);
    track_.updateTimes();
    track_.updateLength();
    parser.handBack();
  }
}

void TrackGPXElement::characters(xml::SaxParser&, std::string_view chunk) {
  if (parserInName_) {
    track_.setName(track_.name() + std::string(chunk));
  } else if (parserInDescription_) {
    track_.setDescription(track_.description().value_or("") + std::string(chunk));
  } else if (parserInTags_) {
    track_.setTags(track_.tags().value_or("") + std::string(chunk));
  }
}

bool TrackGPXElement::parseError(xml::SaxParser&, const xml::ParseError& error) {
  return logParseError("TrackGPXElement", error);
}

}  // namespace kvtrack::gpx
