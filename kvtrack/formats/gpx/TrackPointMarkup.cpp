#include "kvtrack/formats/gpx/TrackPointMarkup.h"

#include "kvtrack/formats/geocache/GeocacheNames.h"
#include "kvtrack/formats/xml/XmlText.h"

#include <charconv>
#include <cmath>
#include <string_view>

namespace kvtrack::gpx {

namespace {

constexpr double kPowersOfTen[] = {1e0, 1e1, 1e2, 1e3, 1e4, 1e5, 1e6, 1e7, 1e8};

void appendInteger(std::string& out, int64_t value) {
  char buffer[24];
  const auto result = std::to_chars(buffer, buffer + sizeof buffer, value);
  out.append(buffer, result.ptr);
}

// |value| with `decimals` digits after the point, the integer given as
// value * 10^decimals; the sign is the caller's.
void appendScaled(std::string& out, uint64_t scaled, int decimals) {
  char digits[24];
  const auto end = std::to_chars(digits, digits + sizeof digits, scaled).ptr;
  const auto length = static_cast<int>(end - digits);
  if (decimals == 0) {
    out.append(digits, end);
  } else if (length <= decimals) {
    out += "0.";
    out.append(static_cast<size_t>(decimals - length), '0');
    out.append(digits, end);
  } else {
    out.append(digits, end - decimals);
    out += '.';
    out.append(end - decimals, end);
  }
}

void appendTwoDigits(std::string& out, int64_t value) {
  out += static_cast<char>('0' + value / 10);
  out += static_cast<char>('0' + value % 10);
}

void indent(std::string& out, int depth) { out.append(static_cast<size_t>(2 * depth), ' '); }

// A line break, the indentation and "<name", left open for attributes.
void openTag(std::string& out, int depth, std::string_view name) {
  out += '\n';
  indent(out, depth);
  out += '<';
  out += name;
}

void closeTag(std::string& out, int depth, std::string_view name) {
  out += '\n';
  indent(out, depth);
  out += "</";
  out += name;
  out += '>';
}

void attribute(std::string& out, std::string_view name, std::string_view value) {
  out += ' ';
  out += name;
  out += "=\"";
  xml::appendEscapedAttribute(out, value);
  out += '"';
}

void optionalAttribute(std::string& out, std::string_view name,
                       const std::optional<std::string>& value) {
  if (value) attribute(out, name, *value);
}

// An element holding text; empty text makes an empty element.
void textElement(std::string& out, int depth, std::string_view name, std::string_view text) {
  openTag(out, depth, name);
  if (text.empty()) {
    out += "/>";
    return;
  }
  out += '>';
  xml::appendEscapedText(out, text);
  out += "</";
  out += name;
  out += '>';
}

void optionalTextElement(std::string& out, int depth, std::string_view name,
                         const std::optional<std::string>& text) {
  if (text) textElement(out, depth, name, *text);
}

void decimalElement(std::string& out, int depth, std::string_view name, double value) {
  openTag(out, depth, name);
  out += '>';
  appendDecimal(out, value);
  out += "</";
  out += name;
  out += '>';
}

bool inRoute(const TrackPoint& point) {
  return point.track() && point.track()->type() == Track::kPlaceCollection;
}

}  // namespace

void appendDecimal(std::string& out, double value) {
  const double magnitude = std::fabs(value);
  // Below 2^23 a double is finer than 1e-8, so at most one text of up to
  // eight decimals reads back to it: the first that does is the shortest.
  // value * 10^k misses the nearest integer only when no such text exists.
  if (magnitude < 8e6 && value != 0) {
    for (int decimals = 0; decimals <= 8; ++decimals) {
      const double scaled = std::nearbyint(magnitude * kPowersOfTen[decimals]);
      if (scaled / kPowersOfTen[decimals] != magnitude) continue;
      if (value < 0) out += '-';
      appendScaled(out, static_cast<uint64_t>(scaled), decimals);
      return;
    }
  }
  if (std::isnan(value)) {
    out += "NaN";
  } else if (std::isinf(value)) {
    out += value > 0 ? "inf" : "-inf";
  } else {
    char buffer[400];  // fixed notation of the extreme doubles needs up to ~330
    const auto result = std::to_chars(buffer, buffer + sizeof buffer, value, std::chars_format::fixed);
    out.append(buffer, result.ptr);
  }
}

void appendFixed(std::string& out, double value) {
  const double magnitude = std::fabs(value);
  if (magnitude < 1e6) {
    // Below 1e12 the product is off by less than 1e-4, so unless it lies
    // close to a half its rounding is that of the exact value.
    const double scaled = magnitude * 1e6;
    const double whole = std::floor(scaled);
    const double fraction = scaled - whole;
    if (std::fabs(fraction - 0.5) > 1e-3) {
      if (std::signbit(value)) out += '-';  // printf keeps the sign of -0.0
      const auto micros = static_cast<uint64_t>(whole) + (fraction > 0.5 ? 1 : 0);
      appendScaled(out, micros, 6);
      return;
    }
  }
  char buffer[400];
  const auto result = std::to_chars(buffer, buffer + sizeof buffer, value, std::chars_format::fixed, 6);
  out.append(buffer, result.ptr);
}

void TimeText::append(std::string& out, const ISODate& time) {
  constexpr int64_t kMicrosPerDay = 86'400'000'000;
  constexpr int64_t kLimit = int64_t{1} << 60;  // far from saturation inside ISODate
  const int64_t micros = time.microsecondsSince1970();
  const int32_t offset = time.timezoneOffset();
  if (micros > kLimit || micros < -kLimit) {
    out += time.description();
    return;
  }
  const int64_t wall = micros + int64_t{offset} * 60'000'000;
  int64_t day = wall / kMicrosPerDay, timeOfDay = wall % kMicrosPerDay;
  if (timeOfDay < 0) {
    timeOfDay += kMicrosPerDay;
    --day;
  }
  if (!cached_ || day != day_ || offset != offset_) {
    // The calendar part and the zone as ISODate writes them for midnight.
    const std::string midnight = ISODate::fromMicrosecondsSince1970(micros - timeOfDay, offset).description();
    const size_t t = midnight.find('T');
    prefix_.assign(midnight, 0, t + 1);
    suffix_.assign(midnight, t + 9);  // after "00:00:00"
    day_ = day;
    offset_ = offset;
    cached_ = true;
  }
  out += prefix_;
  const int64_t seconds = timeOfDay / 1'000'000;
  appendTwoDigits(out, seconds / 3600);
  out += ':';
  appendTwoDigits(out, seconds / 60 % 60);
  out += ':';
  appendTwoDigits(out, seconds % 60);
  if (int64_t fraction = timeOfDay % 1'000'000; fraction != 0) {
    int digits = 6;
    while (fraction % 10 == 0) {
      fraction /= 10;
      --digits;
    }
    out += '.';
    const size_t before = out.size();
    appendInteger(out, fraction);
    out.insert(before, static_cast<size_t>(digits) - (out.size() - before), '0');
  }
  out += suffix_;
}

void TrackPointMarkup::append(std::string& out, TrackPoint& point) {
  openTag(out, depth_, "trkpt");
  out += " lat=\"";
  appendDecimal(out, point.latitude());
  out += "\" lon=\"";
  appendDecimal(out, point.longitude());
  out += "\">";
  decimalElement(out, depth_ + 1, "ele", point.elevation());
  if (point.hasTime() && !inRoute(point)) {
    openTag(out, depth_ + 1, "time");
    out += '>';
    times_.append(out, *point.time());
    out += "</time>";
  }
  optionalTextElement(out, depth_ + 1, "name", point.name());
  optionalTextElement(out, depth_ + 1, "cmt", point.comment());
  appendDescription(out, point);
  if (configuration_.exportWayfolioExtensions()) appendExtensions(out, point);
  closeTag(out, depth_, "trkpt");
}

void TrackPointMarkup::appendDescription(std::string& out, const TrackPoint& point) {
  if (const auto& description = point.description()) {
    textElement(out, depth_ + 1, "desc", *description);
    return;
  }
  openTag(out, depth_ + 1, "desc");
  out += ">Lat.=";
  appendFixed(out, point.latitude());
  out += ", Long.=";
  appendFixed(out, point.longitude());
  out += ", Alt.=";
  appendFixed(out, point.elevation());
  out += "m, Speed=";
  appendFixed(out, point.speed());
  out += "Km/h</desc>";
}

void TrackPointMarkup::appendExtensions(std::string& out, TrackPoint& point) {
  const int depth = depth_ + 1;
  openTag(out, depth, "extensions");
  out += '>';
  const size_t empty = out.size();
  const GeocachePtr& geocache = point.geocache();
  if (geocache) {
    openTag(out, depth + 1, "wayfolio:yourLog");
    attribute(out, "status", gpxNameForLogType(geocache->yourLogType));
    out += "/>";
  }
  optionalTextElement(out, depth + 1, "wayfolio:urlAsPDF", point.urlAsPDF());
  if (geocache) {
    optionalTextElement(out, depth + 1, "wayfolio:geocacheDescriptionAsPDF", geocache->descriptionAsPDF);
  }
  // NaN compares false: points of place collections carry no speed.
  if (point.speed() >= 0) decimalElement(out, depth + 1, "wayfolio:speed", point.speed());
  if (point.length() >= 0) decimalElement(out, depth + 1, "wayfolio:length", point.length());
  if (const auto& tags = point.tags(); tags && !tags->empty()) {
    textElement(out, depth + 1, "wayfolio:tags", *tags);
  }
  if (!configuration_.doNotExportPhotos()) {
    for (const TrackPhotoPtr& photo : point.trackPhotos()) appendPhoto(out, *photo, depth + 1);
  }
  if (out.size() == empty) {
    out.back() = '/';
    out += '>';
  } else {
    closeTag(out, depth, "extensions");
  }
}

void TrackPointMarkup::appendPhoto(std::string& out, TrackPhoto& photo, int depth) {
  if (configuration_.exportiPhonePhotosOnly() && !photo.iPhoneFilename()) return;
  openTag(out, depth, "wayfolio:photo");
  if (const std::string& path = photo.originalFilepath(); !path.empty()) {
    attribute(out, "filename", path);
    // The stored time only: reading the image file here would slow exports down.
    if (const auto& time = photo.storedTimeOfPhoto()) {
      attribute(out, "time", time->descriptionWithTimezone(true));
    }
  }
  photo.updateBookmarkFromPath();
  optionalAttribute(out, "city", photo.city());
  optionalAttribute(out, "state", photo.state());
  optionalAttribute(out, "country", photo.country());
  optionalAttribute(out, "isoCountryCode", photo.isoCountryCode());
  optionalAttribute(out, "place", photo.place());
  if (photo.iPhotoIdAppleScript()) {
    attribute(out, "iPhotoIdAppleScript", *photo.iPhotoIdAppleScript());
    out += " iPhotoId=\"";
    appendInteger(out, photo.iPhotoId());
    out += '"';
  }
  if (photo.iCloudId() && !configuration_.doNotExportiCloudInfo()) {
    attribute(out, "iCloudId", *photo.iCloudId());
  }
  const auto& bookmark = photo.base64Bookmark();
  if (!bookmark || bookmark->empty() || configuration_.doNotExportBookmarks()) {
    out += "/>";
    return;
  }
  out += '>';
  textElement(out, depth + 1, "wayfolio:bookmark", *bookmark);
  closeTag(out, depth, "wayfolio:photo");
}

}  // namespace kvtrack::gpx
