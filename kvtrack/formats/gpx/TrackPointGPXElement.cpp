#include "kvtrack/formats/gpx/GpxHandlers.h"
#include "kvtrack/support/FileHandling.h"
#include "kvtrack/support/NumberText.h"

namespace kvtrack::gpx {

void TrackPointGPXElement::trackPointGPXElementForTrackPoint(TrackPointPtr point,
                                                             xml::SaxParser& parser) {
  parser.pushHandler(std::make_unique<TrackPointGPXElement>(std::move(point)));
}

namespace {

// The second of the day of "YYYY-MM-DDThh:mm:ss" followed by "Z" or
// "+hh:mm" / "-hh:mm" and nothing else; -1 for any other text or a time out
// of range (a leap second included).
int64_t plainTimeOfDay(std::string_view text) {
  if (text.size() != 20 && text.size() != 25) return -1;
  const auto digit = [&](size_t i) { return text[i] >= '0' && text[i] <= '9'; };
  for (size_t i : {0, 1, 2, 3, 5, 6, 8, 9, 11, 12, 14, 15, 17, 18}) {
    if (!digit(i)) return -1;
  }
  if (text[4] != '-' || text[7] != '-' || text[10] != 'T' || text[13] != ':' || text[16] != ':') {
    return -1;
  }
  const bool zone = text.size() == 20
                        ? text[19] == 'Z'
                        : (text[19] == '+' || text[19] == '-') && digit(20) && digit(21) &&
                              text[22] == ':' && digit(23) && digit(24);
  if (!zone) return -1;
  const auto number = [&](size_t i) { return (text[i] - '0') * 10 + (text[i + 1] - '0'); };
  const int hour = number(11), minute = number(14), second = number(17);
  if (hour > 23 || minute > 59 || second > 59) return -1;
  return hour * 3600 + minute * 60 + second;
}

}  // namespace

std::optional<ISODate> TimeTextReader::read(std::string_view text) {
  const int64_t seconds = plainTimeOfDay(text);
  const std::string_view cached = dateAndZone_;
  if (seconds >= 0 && cached_ && text.substr(0, 11) == cached.substr(0, 11) &&
      text.substr(19) == cached.substr(11)) {
    return ISODate::fromMicrosecondsSince1970(midnight_ + seconds * 1'000'000, offset_);
  }
  const auto date = ISODate::isoDateWithString(text);
  if (date && seconds >= 0) {
    dateAndZone_.assign(text.substr(0, 11));
    dateAndZone_.append(text.substr(19));
    midnight_ = date->microsecondsSince1970() - seconds * 1'000'000;
    offset_ = date->timezoneOffset();
    cached_ = true;
  }
  return date;
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
    point_->setTime(times_.read(chunk));
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
