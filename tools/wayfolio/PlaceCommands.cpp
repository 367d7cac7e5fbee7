// wayfolio places and geocode.
#include "tools/wayfolio/PlaceCommands.h"

#include "kvtrack/library/TrackLibrary.h"
#include "kvtrack/places/GeoNames.h"
#include "kvtrack/places/LocationPool.h"
#include "kvtrack/places/MyGeoNames.h"
#include "kvtrack/places/TerraService.h"
#include "kvtrack/places/UrlsToCoordinates.h"
#include "kvtrack/photos/TrackPhotoFiles.h"
#include "kvtrack/support/FileHandling.h"
#include "tools/wayfolio/LibraryNames.h"
#include "tools/wayfolio/PhotoWriting.h"
#include "tools/wayfolio/TextTable.h"

#include <fmt/format.h>

#include <charconv>
#include <cstdio>
#include <set>

namespace wayfolio {

using namespace kvtrack;

namespace {

PlacesSettings userSettings() { return PlacesSettings::fromSettings(SettingsFile::shared()); }

struct PhotoCount {
  size_t photos = 0, named = 0;
  std::set<std::string> cellsWanted;  // of the photos without names
};

PhotoCount countPhotos(Track& track) {
  PhotoCount count;
  std::lock_guard<Track> lock(track);
  for (const auto& point : track.trackPoints()) {
    for (const auto& photo : point->trackPhotos()) {
      ++count.photos;
      if (TrackPhotos::hasLocationData(*photo)) {
        ++count.named;
      } else {
        count.cellsWanted.insert(
            LocationPoolElement::keyForLongitude(point->longitude(), point->latitude()));
      }
    }
  }
  return count;
}

// Works off the host loop (the pool's announcements) until every lookup
// ended, showing how far the loaders got.
void waitForLookups(LocationPool& pool, size_t queued) {
  Progress progress;
  const auto show = [&] {
    const auto loading = pool.loading();
    const size_t done = loading.filled + loading.empty + loading.failed;
    progress.show("Looking up places", std::min(done + 1, queued), queued, "");
  };
  pool.setNotificationTarget(show);
  while (!RunLoop::main().runUntil([&pool] { return pool.loading().idle(); },
                                   std::chrono::milliseconds(250))) {
    show();
  }
  pool.setNotificationTarget(nullptr);
}

Outcome runPlaces(const std::string& name) {
  const auto library = TrackLibrary::singleton();
  const TrackPtr track = findTrack(*library, name);
  const PhotoCount count = countPhotos(*track);
  if (count.photos == count.named) {
    return {false, std::nullopt,
            count.photos == 0 ? fmt::format("{} has no photos\n", trackPath(*track))
                              : fmt::format("All {} photos of {} have place names\n",
                                            count.photos, trackPath(*track))};
  }
  const auto pool = LocationPool::create(std::make_shared<GeoNames>(userSettings()),
                                         FileHandling::singleton().writableLocationCache());
  size_t filled = pool->updateForTrack(*track);
  const auto queued = pool->loading();
  const size_t lookups = queued.queued + queued.running;
  if (lookups > 0) {
    waitForLookups(*pool, lookups);
    filled += pool->updateForTrack(*track);
  }
  const auto loading = pool->loading();
  std::string report = fmt::format(
      "Place names for {} of {} photos of {} ({} cells: {} from the cache, {} looked up",
      filled, count.photos - count.named, trackPath(*track), count.cellsWanted.size(),
      count.cellsWanted.size() - lookups, loading.filled);
  if (loading.empty > 0) report += fmt::format(", {} without names", loading.empty);
  if (loading.failed > 0) report += fmt::format(", {} failed", loading.failed);
  report += ")\n";
  Outcome outcome = libraryChanged(filled > 0, std::move(report));
  if (loading.failed > 0) {
    outcome.failure = fmt::format("{} lookups failed: {}", loading.failed, loading.lastFailure);
  }
  return outcome;
}

std::optional<double> number(const std::string& text) {
  double value = 0.0;
  const char* begin = text.data() + (text.starts_with('+') ? 1 : 0);
  const auto [end, error] = std::from_chars(begin, text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return value;
}

std::shared_ptr<GISServiceConvertLocation> reverseService(const std::string& name) {
  if (name == "geonames") return std::make_shared<GeoNames>(userSettings());
  if (name == "geolocation-server") return std::make_shared<MyGeoNames>(userSettings());
  if (name == "terraservice") return std::make_shared<TerraService>(userSettings());
  throw CommandError("--service takes geonames, geolocation-server or terraservice; not '" +
                     name + "'");
}

std::string placeNamesAt(double lat, double lon, const std::string& serviceName) {
  if (!TrackPoint::isValidPosition(lat, lon)) {
    throw CommandError(fmt::format("{} {} is no position: latitude -90..90, longitude "
                                   "-180..180",
                                   lat, lon));
  }
  std::string city, state, country, code, place;
  if (Status found = reverseService(serviceName)->ConvertLon(lon, lat, city, state, country,
                                                             code, place);
      !found) {
    throw CommandError(found.reason());
  }
  std::string text;
  for (const auto& [label, value] : {std::pair{"City", city}, {"State", state},
                                     {"Country", country}, {"Country code", code},
                                     {"Place", place}}) {
    if (!value.empty()) text += fmt::format("{}: {}\n", label, value);
  }
  return text.empty() ? fmt::format("No place names known at {:.6f} {:.6f}\n", lat, lon) : text;
}

std::string search(const std::string& address) {
  const auto hits = GeoNames(userSettings()).ConvertAddress(address);
  if (!hits) throw CommandError(hits.reason());
  if (hits->empty()) return fmt::format("No places named '{}'\n", address);
  using Align = TextTable::Align;
  TextTable table({{"NAME", Align::kLeft},
                   {"COUNTRY", Align::kLeft},
                   {"LATITUDE", Align::kRight},
                   {"LONGITUDE", Align::kRight},
                   {"FEATURE", Align::kLeft}});
  for (const auto& hit : *hits) {
    table.addRow({hit.name.value_or("-"), hit.country.value_or("-"),
                  fmt::format("{:.6f}", hit.latitude), fmt::format("{:.6f}", hit.longitude),
                  hit.feature()});
  }
  return table.render();
}

struct GeocodeOptions {
  std::vector<std::string> words;
  std::string service = "geonames";
};

Outcome runGeocode(const GeocodeOptions& options) {
  const auto& words = options.words;
  if (words.size() == 2) {
    const auto lat = number(words[0]), lon = number(words[1]);
    if (lat && lon) return Outcome{false, std::nullopt, placeNamesAt(*lat, *lon, options.service)};
  }
  if (words.size() == 1 && words[0].find("://") != std::string::npos) {
    double lon = 0.0, lat = 0.0;
    if (Status read = UrlsToCoordinates().ConvertAddress(words[0], lon, lat); !read) {
      throw CommandError(read.reason());
    }
    return Outcome{false, std::nullopt, fmt::format("{:.6f} {:.6f}\n", lat, lon)};
  }
  std::string address;
  for (const auto& word : words) address += (address.empty() ? "" : " ") + word;
  return Outcome{false, std::nullopt, search(address)};
}

}  // namespace

void addPlaceCommands(CLI::App& app, Invocation& invocation) {
  auto track = std::make_shared<std::string>();
  CLI::App* places = app.add_subcommand(
      "places", "Give a track's photos place names, through the place cache and GeoNames");
  places->add_option("track", *track, "Track path or name")->required();
  places->callback([&invocation, track] {
    invocation.changesLibrary = true;
    invocation.action = [track] { return runPlaces(*track); };
  });

  auto options = std::make_shared<GeocodeOptions>();
  CLI::App* geocode = app.add_subcommand(
      "geocode", "Places by name (\"ADDRESS\"), names at a position (LAT LON), or the position "
                 "in a Google Maps link (read offline)");
  geocode->add_option("what", options->words, "ADDRESS, LAT LON or LINK")->required();
  geocode->add_option("--service", options->service,
                      "For LAT LON: geonames, geolocation-server or terraservice")
      ->default_val("geonames");
  geocode->callback([&invocation, options] {
    invocation.usesLibrary = false;
    invocation.action = [options] { return runGeocode(*options); };
  });
}

}  // namespace wayfolio
