#include "kvtrack/formats/geocache/GeocacheGPX.h"
#include "kvtrack/formats/geocache/GeocacheNames.h"
#include "kvtrack/formats/geocache/GeocachingServices.h"
#include "kvtrack/formats/gpx/GpxHandlers.h"
#include "kvtrack/support/Log.h"
#include "kvtrack/support/NumberText.h"

namespace kvtrack::gpx {

void WayPointGPXElement::wayPointGPXElementForTrackPoint(TrackPointPtr point, xml::SaxParser& parser) {
  parser.pushHandler(std::make_unique<WayPointGPXElement>(std::move(point)));
}

TrackPointPtr WayPointGPXElement::startWayPoint(Track* parent, xml::SaxParser& parser,
                                                const xml::Attributes& attributes,
                                                ReadContext& context) {
  auto point = TrackPoint::trackPointWithParent(parent);
  wayPointGPXElementForTrackPoint(point, parser);
  if (!attributes.has("lat") && !attributes.has("lon")) return point;
  const auto position = readPosition(attributes);
  if (!position) {
    ++context.invalidPositions;
    return nullptr;
  }
  point->setLatitude(position->first);
  point->setLongitude(position->second);
  return point;
}

void WayPointGPXElement::startElement(xml::SaxParser& parser, std::string_view name,
                                      const xml::Attributes& attributes) {
  if (name == "ele") {
    parserInElevation_ = true;
  } else if (name == "time") {
    parserInTime_ = true;
  } else if (name == "geocache") {
    auto geocache = std::make_shared<Geocache>();
    point_.setGeocache(geocache);
    GeocacheGPX::geocacheGPXElementForGeocache(*geocache, parser, attributes, point_.url());
  } else if (name == "cache" || name == "groundspeak:cache") {
    auto geocache = std::make_shared<Geocache>();
    point_.setGeocache(geocache);
    GeocacheGPX::groundspeakCacheGPXElementForGeocache(*geocache, parser, attributes);
  } else if (name == "wayfolio:yourLog") {
    if (const auto& geocache = point_.geocache()) {
      geocache->yourLogType = logTypeForGPXName(attributes.value("status").value_or(""));
    }
  } else {
    buffer_.clear();
  }
}

void WayPointGPXElement::characters(xml::SaxParser&, std::string_view chunk) {
  if (parserInTime_) {
    point_.setTime(ISODate::isoDateWithString(chunk));
  } else if (parserInElevation_) {
    point_.setElevation(parseDecimal(chunk));
  } else {
    buffer_.append(chunk);
  }
}

void WayPointGPXElement::endElement(xml::SaxParser& parser, std::string_view name) {
  if (name == "ele") {
    parserInElevation_ = false;
  } else if (name == "time") {
    parserInTime_ = false;
  } else if (name == "name") {
    point_.setName(buffer_);
  } else if (name == "desc") {
    point_.setDescription(buffer_);
  } else if (name == "cmt") {
    point_.setComment(buffer_);
  } else if (name == "url") {
    point_.setUrl(buffer_);
  } else if (name == "urlname") {
    point_.setUrlName(buffer_);
  } else if (name == "sym") {
    point_.setSymbol(buffer_);
  } else if (name == "type") {
    point_.setType(buffer_);
  } else if (name == "src") {
    point_.setSource(buffer_);
  } else if (name == "wayfolio:urlAsPDF") {
    point_.setUrlAsPDF(buffer_);
  } else if (name == "wayfolio:tags") {
    point_.setTags(buffer_);
  } else if (name == "wayfolio:geocacheDescriptionAsPDF") {
    if (const auto& geocache = point_.geocache()) {
      geocache->descriptionAsPDF = buffer_;
    } else {
      logLine("WayPointGPXElement: wayfolio:geocacheDescriptionAsPDF but no geocache!");
    }
  } else if (name == "wpt") {
    point_.setGeocachingService(GeocachingServices::geocachingService(point_));
    parser.handBack();
  }
}

bool WayPointGPXElement::parseError(xml::SaxParser&, const xml::ParseError& error) {
  return logParseError("WayPointGPXElement", error);
}

}  // namespace kvtrack::gpx
