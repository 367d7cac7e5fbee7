#include "kvtrack/view/TrackViewData.h"

#include "kvtrack/exports/GxImage.h"
#include "kvtrack/photos/TrackPhotoFiles.h"
#include "kvtrack/support/Log.h"

#include <cmath>
#include <limits>
#include <mutex>

namespace kvtrack {

namespace {

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

// What the pass under the lock collects; thinned afterwards.
struct RecordedTrack {
  std::vector<std::vector<GeoVertex>> segments;
  std::vector<ProfileSample> samples;  // one per point
  std::vector<ViewWaypoint> waypoints;
  std::vector<TrackPhotoPtr> photos;
};

bool isPinned(const TrackPoint& point) {
  return point.isWayPoint() || (point.name() && !point.name()->empty());
}

ViewWaypoint waypointOf(const TrackPoint& point) {
  ViewWaypoint waypoint;
  waypoint.name = point.name().value_or("");
  waypoint.description = point.description().value_or(point.comment().value_or(""));
  waypoint.latitude = point.latitude();
  waypoint.longitude = point.longitude();
  waypoint.elevation = point.elevation();
  waypoint.geocache = point.geocache() != nullptr || point.geocachingService() != nullptr;
  return waypoint;
}

// Distance runs over every consecutive pair, as the track's length does.
std::vector<ProfileSample> samplesOf(const std::vector<TrackPointPtr>& points) {
  std::vector<ProfileSample> samples;
  samples.reserve(points.size());
  double distance = 0.0;
  double firstTime = kNaN;
  for (size_t i = 0; i < points.size(); ++i) {
    const TrackPoint& point = *points[i];
    if (i > 0) {
      const TrackPoint& previous = *points[i - 1];
      distance += TrackPoint::distanceFromLatitude(point.latitude(), point.longitude(),
                                                   previous.latitude(), previous.longitude());
    }
    ProfileSample sample;
    sample.index = i;
    sample.distance = distance;
    sample.seconds = kNaN;
    if (const auto time = point.time()) {
      if (std::isnan(firstTime)) firstTime = time->timeIntervalSince1970();
      sample.seconds = time->timeIntervalSince1970() - firstTime;
    }
    sample.latitude = point.latitude();
    sample.longitude = point.longitude();
    sample.elevation = point.elevation();
    const double speed = point.speed();
    sample.speed = std::isfinite(speed) && speed >= 0.0 ? speed : kNaN;
    samples.push_back(sample);
  }
  return samples;
}

ViewStatistics statisticsOf(Track& track, const std::vector<ProfileSample>& samples) {
  ViewStatistics statistics;
  statistics.length = track.length();
  statistics.ascent = track.ascending();
  statistics.descent = track.descending();
  statistics.minElevation = track.minElevation();
  statistics.maxElevation = track.maxElevation();
  statistics.timezoneOffset = track.timezoneOffset();
  statistics.points = samples.size();
  statistics.photos = track.photoCount();
  statistics.waypoints = track.waypointCount();
  statistics.geocaches = track.geocacheCount();
  const auto& start = track.startTime();
  const auto& end = track.endTime();
  statistics.start = start ? start->descriptionForGui() : std::string();
  statistics.end = end ? end->descriptionForGui() : std::string();
  statistics.duration = start && end ? track.duration() : kNaN;
  statistics.startSeconds = kNaN;
  for (const auto& point : track.trackPoints()) {
    if (const auto time = point->time()) {
      statistics.startSeconds = time->timeIntervalSince1970();
      break;
    }
  }
  // The speed range comes from the points: the track's own figure is reset
  // whenever a dirty track's properties are recomputed.
  statistics.maxSpeed = kNaN;
  for (const auto& sample : samples) {
    if (std::isfinite(sample.speed) && !(sample.speed <= statistics.maxSpeed)) {
      statistics.maxSpeed = sample.speed;
    }
  }
  statistics.averageSpeed = statistics.duration > 0.0
                                ? statistics.length / (statistics.duration / 3600.0)
                                : kNaN;
  return statistics;
}

// Reads everything under the track's lock, in one walk per list.
RecordedTrack readTrack(Track& track, TrackViewData& view) {
  std::lock_guard<Track> lock(track);
  track.loadFromLibrary();
  track.updateAll();
  RecordedTrack recorded;
  const auto points = track.trackPoints();
  recorded.segments = recordedSegments(track);
  recorded.samples = samplesOf(*points);
  for (const auto& point : points) {
    if (isPinned(*point)) recorded.waypoints.push_back(waypointOf(*point));
    for (const auto& photo : point->trackPhotos()) recorded.photos.push_back(photo);
  }
  view.name = track.name();
  view.color = track.color();
  view.width = track.width();
  view.corridorMetres = track.showArea() ? track.areaDistanceInMeter() : 0.0f;
  view.type = track.type();
  view.statistics = statisticsOf(track, recorded.samples);
  return recorded;
}

std::string placeOf(const TrackPhoto& photo) {
  std::string place;
  for (const auto* part : {&photo.city(), &photo.state(), &photo.country()}) {
    if (!*part || (*part)->empty()) continue;
    if (!place.empty()) place += ", ";
    place += **part;
  }
  return place;
}

ViewPhoto photoOf(TrackPhoto& photo, const TrackViewSettings& settings) {
  ViewPhoto view;
  view.file = TrackPhotos::filepath(photo);
  if (const auto& time = photo.storedTimeOfPhoto()) view.time = time->descriptionForGui();
  view.place = placeOf(photo);
  if (const TrackPoint* point = photo.trackPoint()) {
    view.latitude = point->latitude();
    view.longitude = point->longitude();
  }
  TrackPhotos::startAccessingSecurityScopedResource(photo);
  if (const auto image = GxImage::imageWithPath(view.file)) {
    view.thumbnail = image->uprightJpegData(settings.thumbnailSize, settings.thumbnailSize,
                                            settings.thumbnailQuality)
                         .value_or(std::string());
  }
  TrackPhotos::stopAccessingSecurityScopedResource(photo);
  if (view.thumbnail.empty()) logf("TrackView: photo {} is shown without a picture", view.file);
  return view;
}

std::vector<ProfileSample> thinnedProfile(const std::vector<ProfileSample>& samples,
                                          size_t runs) {
  if (runs == 0 || samples.size() <= 2) return samples;
  std::vector<double> elevations, speeds;
  elevations.reserve(samples.size());
  speeds.reserve(samples.size());
  for (const auto& sample : samples) {
    elevations.push_back(sample.elevation);
    speeds.push_back(sample.speed);
  }
  // The ends stay so that both axes span the whole track.
  const auto chosen = mergeSamples({extremeSamples(elevations, runs),
                                    extremeSamples(speeds, runs), {0, samples.size() - 1}});
  std::vector<ProfileSample> thinned;
  thinned.reserve(chosen.size());
  for (const size_t i : chosen) thinned.push_back(samples[i]);
  return thinned;
}

}  // namespace

size_t TrackViewData::drawnVertexCount() const {
  size_t count = 0;
  for (const auto& segment : segments) count += segment.size();
  return count;
}

std::vector<std::vector<GeoVertex>> recordedSegments(Track& track) {
  std::vector<std::vector<GeoVertex>> segments;
  if (track.type() >= Track::kGeocacheCollection) return segments;
  const auto points = track.trackPoints();
  segments.emplace_back();
  for (size_t i = 0; i < points.size(); ++i) {
    segments.back().push_back({points[i]->latitude(), points[i]->longitude()});
    if (points[i]->isEndOfSegment() && i + 1 < points.size()) segments.emplace_back();
  }
  if (segments.back().empty()) segments.pop_back();
  return segments;
}

TrackViewData gatherTrackView(Track& track, const TrackViewSettings& settings) {
  TrackViewData view;
  RecordedTrack recorded = readTrack(track, view);
  for (const auto& segment : recorded.segments) {
    std::vector<GeoVertex> simplified;
    for (const size_t i : simplifyLine(segment, settings.lineToleranceMetres)) {
      simplified.push_back(segment[i]);
    }
    view.segments.push_back(std::move(simplified));
  }
  view.profile = thinnedProfile(recorded.samples, settings.profileRuns);
  view.waypoints = std::move(recorded.waypoints);
  for (const auto& photo : recorded.photos) view.photos.push_back(photoOf(*photo, settings));
  return view;
}

}  // namespace kvtrack
