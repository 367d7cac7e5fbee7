#include "kvtrack/formats/gpx/GpxHandlers.h"
#include "kvtrack/support/FileHandling.h"
#include "kvtrack/support/NumberText.h"

namespace kvtrack::gpx {

void TrackPointGPXElement::trackPointGPXElementForTrackPoint(TrackPointPtr point,
                                                             xml::SaxParser& parser) {
  parser.pushHandler(std::make_unique<TrackPointGPXElement>(std::move(point)));
}

void TrackPointGPXElement::reset(TrackPointPtr point) {
  owned_ = std::move(point);
  point_ = owned_.get();
  currentPhoto_.reset();
  buffer_.clear();
  parserInTime_ = parserInElevation_ = parserInSpeed_ = parserInLength_ = false;
  parserInName_ = parserInPhoto_ = parserInPhotoBookmark_ = false;
}

namespace {
std::optional<std::string> text(const xml::Attributes& attributes, std::string_view name) {
  const auto value = attributes.value(name);
  return value ? std::optional<std::string>(*value) : std::nullopt;
}
}  // namespace

void TrackPointGPXElement::startElement(xml::SaxParser&, std::string_view name,
                                        const xml::Attributes& attributes) {
  if (name == "ele") {
    parserInElevation_ = true;
  } else if (name == "wayfolio:speed" || name == "speed") {
    parserInSpeed_ = true;
  } else if (name == "wayfolio:length") {
    parserInLength_ = true;  // lengths are recomputed, never read
  } else if (name == "time") {
    parserInTime_ = true;
  } else if (name == "name") {
    parserInName_ = true;
  } else if (name == "wayfolio:bookmark") {
    parserInPhotoBookmark_ = true;
    buffer_.clear();
  } else if (name == "wayfolio:waypointName" || name == "wayfolio:waypointIdentifier" ||
             name == "wayfolio:waypointDescription" || name == "wayfolio:waypointType") {
    buffer_.clear();  // elements of older files, without effect
  } else if (name == "wayfolio:photo" || name == "photo") {
    startPhoto(attributes);
  }
}

void TrackPointGPXElement::startPhoto(const xml::Attributes& attributes) {
  std::string path;
  if (const auto phoneName = attributes.value("iphonefilename")) {
    const std::string folder = FileHandling::singleton().userApplicationSupport();
    path = phoneName->starts_with("Roamly")
               ? folder + "/Library/Application Support/" + std::string(*phoneName)
               : folder + "/" + std::string(*phoneName);
  } else if (const auto filename = attributes.value("filename")) {
    path = *filename;
  }
  auto photo = TrackPhoto::trackPhotoWithFilepath(path);
  point_->addTrackPhoto(photo);
  if (const auto time = attributes.value("time")) {
    photo->setTimeOfPhoto(ISODate::isoDateWithString(*time));
  }
  photo->setCity(text(attributes, "city"));
  photo->setState(text(attributes, "state"));
  photo->setCountry(text(attributes, "country"));
  photo->setIsoCountryCode(text(attributes, "isoCountryCode"));
  photo->setPlace(text(attributes, "place"));
  photo->setIPhotoIdAppleScript(text(attributes, "iPhotoIdAppleScript"));
  photo->setICloudId(text(attributes, "iCloudId"));
  if (const auto id = attributes.value("iPhotoId")) photo->setIPhotoId(parseLongLongValue(*id));
  currentPhoto_ = std::move(photo);
  parserInPhoto_ = true;
}

void TrackPointGPXElement::characters(xml::SaxParser&, std::string_view chunk) {
  if (parserInTime_) {
    point_->setTime(ISODate::isoDateWithString(chunk));
  } else if (parserInElevation_) {
    point_->setElevation(parseDecimal(chunk));
  } else if (parserInSpeed_) {
    point_->setSpeed(parseDecimal(chunk));
  } else if (parserInName_) {
    if (point_->isWayPoint()) {
      point_->setName(std::string(chunk));
    } else if (chunk.starts_with("WP")) {
      point_->setIsWayPoint(true);  // the name itself arrives with a later chunk, if any
    }
  }
  buffer_.append(chunk);
}

void TrackPointGPXElement::endElement(xml::SaxParser& parser, std::string_view name) {
  if (name == "ele") {
    parserInElevation_ = false;
  } else if (name == "wayfolio:speed" || name == "speed") {
    parserInSpeed_ = false;
  } else if (name == "wayfolio:length") {
    parserInLength_ = false;
  } else if (name == "time") {
    parserInTime_ = false;
  } else if (name == "name") {
    parserInName_ = false;
  } else if (name == "wayfolio:bookmark") {
    parserInPhotoBookmark_ = false;
    if (currentPhoto_) currentPhoto_->setBase64Bookmark(buffer_);
  } else if (name == "wayfolio:photo" || name == "photo") {
    parserInPhoto_ = false;
  } else if (name == "trkpt" || name == "rtept") {
    // Unnamed route points are plain points; named ones stay waypoints.
    if (name == "rtept" && (!point_->name() || point_->name()->empty())) point_->setIsWayPoint(false);
    parser.handBack();
    owned_.reset();  // no more events come until the next reset
    currentPhoto_.reset();
  }
}

}  // namespace kvtrack::gpx
