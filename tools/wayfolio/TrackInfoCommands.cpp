// wayfolio show and points: one track in full, read from its file.
#include "kvtrack/library/TrackLibrary.h"
#include "tools/wayfolio/Commands.h"
#include "tools/wayfolio/DamagedTracks.h"
#include "tools/wayfolio/LibraryNames.h"
#include "tools/wayfolio/TextTable.h"
#include "tools/wayfolio/Units.h"

#include <fmt/format.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <memory>

namespace wayfolio {

using namespace kvtrack;

namespace {

std::string typeName(int32_t type) {
  switch (type) {
    case Track::kRecordedTrack: return "recorded track";
    case Track::kPlaceCollection: return "collection of places";
    case Track::kGeocacheCollection: return "collection of geocaches";
    case Track::kLibraryCollection: return "library collection";
    default: return fmt::format("type {}", type);
  }
}

std::string offsetText(int32_t minutes) {
  return fmt::format("{}{:02}:{:02}", minutes < 0 ? '-' : '+', std::abs(minutes) / 60,
                     std::abs(minutes) % 60);
}

std::string timeText(const std::optional<ISODate>& time) {
  return time ? time->description() : "-";
}

// The speed range is taken from the points: Track::maxSpeed() recomputes
// the properties of a dirty track and loses the range updateSpeeds found.
double highestSpeed(Track& track) {
  std::lock_guard<Track> lock(track);
  double highest = std::nan("");
  for (const auto& point : track.trackPoints()) {
    const double speed = point->speed();
    if (std::isfinite(speed) && speed >= 0 && (std::isnan(highest) || speed > highest)) {
      highest = speed;
    }
  }
  return highest;
}

TrackPtr loadedTrack(const std::string& text) {
  const auto library = TrackLibrary::singleton();
  TrackPtr track = findTrack(*library, text);
  track->loadFromLibrary();
  track->updateAll();
  return track;
}

// What could be read is shown; a damaged track then fails the command.
Outcome shown(const Track& track) {
  Outcome outcome;
  if (const auto message = damageMessage(track)) outcome.failure = *message + "; shown is what could be read";
  return outcome;
}

Outcome show(const std::string& text) {
  const TrackPtr track = loadedTrack(text);
  const Units units = Units::fromPreferences();
  const auto folder = folderOf(*track);
  const std::string folderText = folder ? folderPath(*folder) : std::string();
  const bool timed = track->startTime() && track->endTime();
  const std::vector<std::pair<std::string, std::string>> fields{
      {"Name", track->name()},
      {"Folder", "/" + folderText},
      {"File", track->filename().value_or("-")},
      {"Start", timeText(track->startTime())},
      {"End", timeText(track->endTime())},
      {"Duration", timed ? track->durationString() : "-"},
      {"Length", units.length(track->length())},
      {"Points", fmt::format("{}", track->pointCount())},
      {"Waypoints", fmt::format("{}", track->waypointCount())},
      {"Geocaches", fmt::format("{}", track->geocacheCount())},
      {"Photos", fmt::format("{}", track->photoCount())},
      {"Min elevation", units.elevation(track->minElevation())},
      {"Max elevation", units.elevation(track->maxElevation())},
      {"Ascent", units.elevation(track->ascending())},
      {"Descent", units.elevation(track->descending())},
      {"Max speed", units.speed(highestSpeed(*track))},
      {"Type", typeName(track->type())},
      {"Time zone", offsetText(track->timezoneOffset())},
      {"Track id", track->trackId().value_or("-")},
      {"Description", track->description().value_or("-")},
      {"Tags", track->tags().value_or("-")},
  };
  for (const auto& [label, value] : fields) {
    fmt::print("{:<15}{}\n", label + ":", value.empty() ? "-" : value);
  }
  return shown(*track);
}

Outcome points(const std::string& text) {
  const TrackPtr track = loadedTrack(text);
  const Units units = Units::fromPreferences();
  using Align = TextTable::Align;
  TextTable table({{"#", Align::kRight},
                   {"TIME", Align::kLeft},
                   {"LATITUDE", Align::kRight},
                   {"LONGITUDE", Align::kRight},
                   {"ELEVATION", Align::kRight},
                   {"SPEED", Align::kRight},
                   {"LEG", Align::kRight},
                   {"FLAGS", Align::kLeft},
                   {"NAME", Align::kLeft}});
  {
    std::lock_guard<Track> lock(*track);
    const auto list = track->trackPoints();
    for (size_t i = 0; i < list.size(); ++i) {
      const TrackPoint& point = *list[i];
      std::string flags;
      if (point.isWayPoint()) flags += 'W';
      if (point.isEndOfSegment()) flags += '|';
      table.addRow({fmt::format("{}", i), timeText(point.time()),
                    fmt::format("{:.6f}", point.latitude()),
                    fmt::format("{:.6f}", point.longitude()), units.elevation(point.elevation()),
                    point.speed() < 0 ? "-" : units.speed(point.speed()),
                    units.shortLength(point.length()), flags, point.name().value_or("")});
    }
  }
  std::fputs(table.render().c_str(), stdout);
  return shown(*track);
}

}  // namespace

void addTrackInfoCommands(CLI::App& app, Invocation& invocation) {
  auto shown = std::make_shared<std::string>();
  CLI::App* showCommand = app.add_subcommand("show", "Show every figure of one track");
  showCommand->add_option("track", *shown, "Track path or name")->required();
  showCommand->callback([&invocation, shown] {
    invocation.action = [shown] { return show(*shown); };
  });

  auto listed = std::make_shared<std::string>();
  CLI::App* pointsCommand = app.add_subcommand("points", "List the points of one track");
  pointsCommand->add_option("track", *listed, "Track path or name")->required();
  pointsCommand->callback([&invocation, listed] {
    invocation.action = [listed] { return points(*listed); };
  });
}

}  // namespace wayfolio
