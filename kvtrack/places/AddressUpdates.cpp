#include "kvtrack/places/AddressUpdates.h"

#include <fmt/format.h>

#include <mutex>

namespace kvtrack::TrackPlaces {

namespace {

std::optional<std::string> nameOrNothing(std::string text) {
  if (text.empty()) return std::nullopt;
  return text;
}

}  // namespace

Status updateAddressInformationWithService(TrackPoint& point, GISServiceConvertLocation& service) {
  if (!point.hasPhotos()) return {};
  std::string city, state, country, isoCountryCode, place;
  if (Status found = service.ConvertLon(point.longitude(), point.latitude(), city, state, country,
                                        isoCountryCode, place);
      !found) {
    return found;
  }
  for (const auto& photo : point.trackPhotos()) {
    photo->setCity(nameOrNothing(city));
    photo->setState(nameOrNothing(state));
    photo->setCountry(nameOrNothing(country));
    photo->setIsoCountryCode(nameOrNothing(isoCountryCode));
    photo->setPlace(nameOrNothing(place));
  }
  point.makeDirty();
  return {};
}

Status updateAddressInformationWithService(Track& track, GISServiceConvertLocation& service) {
  std::lock_guard<Track> lock(track);
  const auto points = track.trackPoints();
  for (size_t i = 0; i < points.size(); ++i) {
    if (Status updated = updateAddressInformationWithService(*points[i], service); !updated) {
      return updated.prefixed(fmt::format("point {} of {}", i + 1, points.size()));
    }
  }
  return {};
}

}  // namespace kvtrack::TrackPlaces
