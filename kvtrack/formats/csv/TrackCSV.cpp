#include "kvtrack/formats/csv/TrackCSV.h"

#include "kvtrack/support/StagedFiles.h"
#include "kvtrack/support/KvPreferences.h"
#include "kvtrack/support/Localization.h"
#include "kvtrack/support/Log.h"
#include "kvtrack/support/UnitConverter.h"

#include <unicode/locid.h>
#include <unicode/numberformatter.h>
#include <unicode/unistr.h>

#include <string>
#include <utility>

namespace kvtrack {
namespace {

struct Units {
  const char* elevation;
  const char* speed;
  double (*convertElevation)(double metres);
  double (*convertSpeed)(double kilometresPerHour);
};

Units unitsForMode(int mode) {
  // A speed is a length per hour, so km/h become metres per hour before the
  // length conversion. A never computed speed (-1) is converted like any other.
  switch (mode) {
    case KvPreferences::kUnitModeFeetAndMph:
      return {"ft", "mph", UnitConverter::metersToFeet,
              [](double kmh) { return UnitConverter::metersToMiles(kmh * 1000.0); }};
    case KvPreferences::kUnitModeFeetAndKnots:
      return {"ft", "knots", UnitConverter::metersToFeet,
              [](double kmh) { return UnitConverter::metersToNauticalMiles(kmh * 1000.0); }};
    default:
      return {"m", "km/h", [](double m) { return m; }, [](double kmh) { return kmh; }};
  }
}

icu::UnicodeString utf16(const std::string& text) {
  return icu::UnicodeString::fromUTF8(icu::StringPiece(text.data(), static_cast<int32_t>(text.size())));
}

}  // namespace

TrackCSV::TrackCSV(std::shared_ptr<Track> track) : track_(std::move(track)) {}

std::shared_ptr<TrackCSV> TrackCSV::trackCSVWithTrack(std::shared_ptr<Track> track) {
  return std::make_shared<TrackCSV>(std::move(track));
}

namespace {

// The title line, in the user's language and units.
icu::UnicodeString titleLine(const Units& units) {
  icu::UnicodeString text;
  const auto title = [&text](const char* english) { text += utf16(localizedString(english)); };
  title("Index");
  text += u';';
  title("Time");
  text += u';';
  title("Latitude");
  text += u';';
  title("Longitude");
  text += u';';
  title("Elevation");
  text += utf16(std::string(" (") + units.elevation + ")");
  text += u';';
  title("Speed");
  text += utf16(std::string(" (") + units.speed + ")");
  text += u';';
  title("Waypoint");
  text += u';';
  title("Name");
  text += u'\n';
  return text;
}

// One line per point, numbers in the user's locale.
void appendPointLines(Track& track, const Units& units, icu::UnicodeString& text) {
  // Up to 10 decimals (about 0.01 mm in degrees) keep every recorded digit
  // without binary noise; no grouping, so spreadsheets read the values back.
  const auto numbers = icu::number::NumberFormatter::withLocale(icu::Locale::getDefault())
                           .precision(icu::number::Precision::maxFraction(10))
                           .grouping(UNUM_GROUPING_OFF);
  const auto number = [&numbers](double value) {
    UErrorCode status = U_ZERO_ERROR;
    return numbers.formatDouble(value, status).toString(status);
  };
  int index = 0;
  for (const TrackPointPtr& point : track.trackPoints()) {
    text += utf16(std::to_string(++index));
    text += u';';
    if (const auto time = point->time()) text += utf16(time->descriptionForGui());
    text += u';';
    text += number(point->latitude());
    text += u';';
    text += number(point->longitude());
    text += u';';
    text += number(units.convertElevation(point->elevation()));
    text += u';';
    text += number(units.convertSpeed(point->speed()));
    text += u';';
    if (point->isWayPoint()) text += u'x';
    text += u';';
    if (const auto& name = point->name()) text += utf16(*name);
    text += u'\n';
  }
}

// UTF-16 little-endian after the byte-order mark FF FE.
std::string utf16LittleEndian(const icu::UnicodeString& text) {
  std::string bytes;
  bytes.reserve(2 + 2 * static_cast<size_t>(text.length()));
  bytes.push_back(static_cast<char>(0xFF));
  bytes.push_back(static_cast<char>(0xFE));
  for (int32_t i = 0; i < text.length(); ++i) {
    const char16_t unit = text.charAt(i);
    bytes.push_back(static_cast<char>(unit & 0xFF));
    bytes.push_back(static_cast<char>(unit >> 8));
  }
  return bytes;
}

}  // namespace

Status TrackCSV::exportTo(const std::string& path) {
  const Units units = unitsForMode(
      KvPreferences::singleton().unitMode().value_or(KvPreferences::kUnitModeMetric));
  icu::UnicodeString text = titleLine(units);
  if (track_) appendPointLines(*track_, units, text);
  return writeFileAtomically(path, utf16LittleEndian(text));
}

}  // namespace kvtrack
