// wayfolio split and tz: changes to the points of one track.
#include "kvtrack/library/TrackLibrary.h"
#include "tools/wayfolio/Commands.h"
#include "tools/wayfolio/DamagedTracks.h"
#include "tools/wayfolio/LibraryNames.h"

#include <fmt/format.h>

#include <algorithm>
#include <cctype>
#include <charconv>
#include <memory>

namespace wayfolio {

using namespace kvtrack;

namespace {

bool allDigits(std::string_view text) {
  return !text.empty() &&
         std::all_of(text.begin(), text.end(), [](unsigned char c) { return std::isdigit(c); });
}

std::optional<int> number(std::string_view text) {
  int value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return value;
}

// A 0-based point index, or a time that picks the nearest point.
size_t pointIndex(Track& track, const std::string& at) {
  std::lock_guard<Track> lock(track);
  const auto points = track.trackPoints();
  if (points.empty()) throw CommandError(fmt::format("track '{}' has no points", track.name()));
  if (allDigits(at)) {
    const auto index = number(at);
    if (!index || static_cast<size_t>(*index) >= points.size()) {
      throw CommandError(fmt::format("point {} is outside the track (its points are 0 to {})", at,
                                     points.size() - 1));
    }
    return static_cast<size_t>(*index);
  }
  const auto time = ISODate::isoDateWithString(at);
  if (!time) {
    throw CommandError(fmt::format(
        "'{}' is neither a point index nor a time such as 2024-06-15T09:30:00+02:00", at));
  }
  const TrackPointPtr point = track.findTrackPointWithDate(time);
  const auto found = std::find(points.begin(), points.end(), point);
  if (!point || found == points.end()) {
    throw CommandError(fmt::format("{} lies outside the track's time span", at));
  }
  return static_cast<size_t>(found - points.begin());
}

Outcome split(const std::string& text, const std::string& at, const std::string& secondAt) {
  const auto library = TrackLibrary::singleton();
  const TrackPtr track = findTrack(*library, text);
  const auto folder = folderOf(*track);
  warnBeforeChanging(*track);
  std::vector<size_t> indexes{pointIndex(*track, at)};
  if (!secondAt.empty()) indexes.push_back(pointIndex(*track, secondAt));

  std::vector<PointInTrack> positions;
  {
    std::lock_guard<Track> lock(*track);
    const auto points = track->trackPoints();
    for (const size_t index : indexes) {
      // A part needs two points; the split point belongs to both parts.
      if (index == 0 || index + 1 >= points.size()) {
        throw CommandError(fmt::format(
            "cannot split at point {}: it is the first or the last point", index));
      }
      positions.push_back({track.get(), points[index].get(), static_cast<int32_t>(index), -1.0});
    }
  }
  if (indexes.size() == 2 && indexes[1] <= indexes[0]) {
    throw CommandError(fmt::format("the second split point ({}) must come after the first ({})",
                                   indexes[1], indexes[0]));
  }
  const std::string name = track->name();
  if (positions.size() == 1) {
    folder->splitAtPointInTrack(positions[0]);
  } else {
    folder->splitAtPointInTrack(positions[0], positions[1]);
  }
  std::vector<std::string> names;
  for (size_t part = 1; part <= positions.size() + 1; ++part) {
    names.push_back(fmt::format("'{} ({})'", name, part));
  }
  return libraryChanged(true, fmt::format("Split '{}' into {}\n", name, fmt::join(names, ", ")));
}

// Minutes ("120", "-330") or hours and minutes ("+02:00", "-05:30").
int offsetMinutes(const std::string& text) {
  std::optional<int> minutes;
  const bool signedClock = text.size() == 6 && (text[0] == '+' || text[0] == '-') && text[3] == ':';
  if (signedClock && allDigits(text.substr(1, 2)) && allDigits(text.substr(4, 2))) {
    const int value = *number(text.substr(1, 2)) * 60 + *number(text.substr(4, 2));
    minutes = text[0] == '-' ? -value : value;
  } else {
    const std::string_view digits =
        std::string_view(text).substr(text.starts_with('-') || text.starts_with('+') ? 1 : 0);
    if (allDigits(digits)) {
      if (const auto value = number(digits)) minutes = text.starts_with('-') ? -*value : *value;
    }
  }
  // Real zones lie between -12:00 and +14:00; ISO 8601 allows up to 18 hours.
  if (!minutes || *minutes < -18 * 60 || *minutes > 18 * 60) {
    throw CommandError(fmt::format(
        "'{}' is not a time zone offset: give minutes (120, -330) or hours (+02:00, -05:30)",
        text));
  }
  return *minutes;
}

Outcome setTimeZone(const std::string& text, const std::string& offset) {
  const int minutes = offsetMinutes(offset);
  const auto library = TrackLibrary::singleton();
  const TrackPtr track = findTrack(*library, text);
  // The offset is applied to the points in memory, so they are read first.
  warnBeforeChanging(*track);
  track->setTimezoneOffset(minutes);
  return libraryChanged();
}

}  // namespace

void addTrackEditCommands(CLI::App& app, Invocation& invocation) {
  struct SplitOptions {
    std::string track, at, secondAt;
  };
  auto splitting = std::make_shared<SplitOptions>();
  CLI::App* splitCommand = app.add_subcommand("split", "Split a track in two or three parts");
  splitCommand->add_option("track", splitting->track, "Track path or name")->required();
  splitCommand->add_option("at", splitting->at, "0-based point index or ISO time")->required();
  splitCommand->add_option("second", splitting->secondAt, "A second split point");
  splitCommand->callback([&invocation, splitting] {
    invocation.changesLibrary = true;
    invocation.action = [splitting] {
      return split(splitting->track, splitting->at, splitting->secondAt);
    };
  });

  auto zone = std::make_shared<std::pair<std::string, std::string>>();
  CLI::App* tz = app.add_subcommand("tz", "Show a track's times in another time zone");
  tz->add_option("track", zone->first, "Track path or name")->required();
  tz->add_option("offset", zone->second, "Minutes (120, -330) or hours (+02:00, -05:30)")
      ->required();
  tz->callback([&invocation, zone] {
    invocation.changesLibrary = true;
    invocation.action = [zone] { return setTimeZone(zone->first, zone->second); };
  });
}

}  // namespace wayfolio
