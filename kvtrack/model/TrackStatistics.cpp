// Cached statistics of a track: elevation range, ascent and descent, speeds,
// length, times, counts and the kind of collection; bounding boxes and the
// track-wide time-zone offset.
#include "kvtrack/model/Track.h"
#include "kvtrack/model/detail/GreatCircle.h"
#include "kvtrack/support/KvPreferences.h"

#include <cmath>
#include <limits>

namespace kvtrack {

namespace {
using Lock = std::lock_guard<const Track>;
constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

// Changes of this size or less are GPS noise for ascent and descent.
constexpr double kElevationHysteresisMetres = 10.0;

// Seconds from a to b; NaN when either has no time.
double secondsBetween(const TrackPoint& a, const TrackPoint& b) {
  if (!a.hasTime() || !b.hasTime()) return kNaN;
  return b.time()->timeIntervalSinceDate(*a.time());
}

detail::SphericalCoordinate sphericalOf(const TrackPoint& p) {
  return detail::SphericalCoordinate::of(p.latitude(), p.longitude());
}
}  // namespace

void Track::updateProperties() {
  Lock lock(*this);
  if (!isDirty() && propertiesUpdated_) return;

  photoCount_ = geocacheCount_ = waypointCount_ = 0;
  minElevation_ = maxElevation_ = minSpeed_ = maxSpeed_ = ascending_ = descending_ = kNaN;
  if (trackPoints_.empty()) return;

  double reference = kNaN;
  for (const auto& point : trackPoints_) {
    photoCount_ += static_cast<int32_t>(point->trackPhotos().size());

    const double e = point->elevation();
    if (!std::isnan(e)) {
      if (std::isnan(minElevation_) || e < minElevation_) minElevation_ = e;
      if (std::isnan(maxElevation_) || e > maxElevation_) maxElevation_ = e;
      if (std::isnan(reference)) {
        ascending_ = descending_ = 0.0;
        reference = e;
      } else {
        const double delta = e - reference;
        if (std::fabs(delta) > kElevationHysteresisMetres) {
          if (delta > 0) {
            ascending_ += delta;
          } else {
            descending_ -= delta;
          }
          reference = e;
        }
      }
    }
    // The speed range belongs to updateSpeeds: maxSpeed is NaN here, so this
    // never takes a point's speed (kept so the walk matches the saved figures).
    if (!std::isnan(point->speed()) && point->speed() > maxSpeed_) maxSpeed_ = point->speed();

    const bool countsAsWaypoint =
        point->isWayPoint() || (point->name() && !point->name()->empty());
    if (countsAsWaypoint) {
      ++waypointCount_;
      if (point->geocachingService()) ++geocacheCount_;
    }
  }
  propertiesUpdated_ = true;

  if (type_ != kRecordedTrack) return;  // once classified, a track keeps its kind
  updateTimes();
  const auto n = static_cast<int32_t>(trackPoints_.size());
  if (geocacheCount_ == n) {
    type_ = kGeocacheCollection;
  } else if (waypointCount_ == n) {
    type_ = kPlaceCollection;
  } else if (!startTime()) {
    type_ = kPlaceCollection;  // no point has a time
  }
}

void Track::updateSpeeds() {
  Lock lock(*this);
  const auto points = trackPoints();
  const size_t n = points.size();
  if (n == 0) return;
  if (type_ == kPlaceCollection) {
    for (const auto& point : points) point->setSpeed(kNaN);
    return;
  }
  points[0]->setSpeed(0.0);

  const double minInterval = static_cast<double>(
      KvPreferences::singleton().minIntervalSpeedCalculation().value_or(
          KvPreferences::kDefaultMinIntervalSpeedCalculation));
  minSpeed_ = 0.0;  // the minimum speed of a track is always 0
  maxSpeed_ = 0.0;

  // Points closer in time than the minimum interval are measured against an
  // earlier reference point, which smooths densely sampled tracks.
  double speed = 0.0;
  size_t i = 0;
  detail::SphericalCoordinate reference = sphericalOf(*points[0]);
  size_t referenceIndex = 0;
  for (size_t j = 1; j < n; ++j) {
    if (referenceIndex != i) {
      reference = sphericalOf(*points[i]);
      referenceIndex = i;
    }
    TrackPoint& a = *points[i];
    TrackPoint& b = *points[j];
    const detail::SphericalCoordinate current = sphericalOf(b);
    const double dt = secondsBetween(a, b);
    bool advance = true;
    if (dt >= minInterval && dt > 0) {
      const double d = detail::greatCircleDistance(reference, current);
      speed = (d / dt) * 60 * 60;
      if (speed > maxSpeed_) maxSpeed_ = speed;
      b.setSpeed(speed);
    } else if (j == n - 1 || i == 0) {
      b.setSpeed(speed);
    } else {
      advance = false;  // keep the reference; this point's speed stays as it was
    }
    if (advance) {
      ++i;
      // Steady state: the next reference is usually this step's current point.
      if (i == j) {
        reference = current;
        referenceIndex = j;
      }
    }
  }
}

double Track::calcLength() {
  Lock lock(*this);
  const auto points = trackPoints();
  if (points.empty()) return 0.0;
  points[0]->setLength(0.0);
  double total = 0.0;
  detail::SphericalCoordinate previous = sphericalOf(*points[0]);
  for (size_t k = 1; k < points.size(); ++k) {
    const detail::SphericalCoordinate current = sphericalOf(*points[k]);
    // Current point first, then its predecessor: the argument order of the formula.
    const double leg = detail::greatCircleDistance(current, previous);
    points[k]->setLength(leg);
    total += leg;
    previous = current;
  }
  return total;
}

void Track::updateLength() {
  Lock lock(*this);
  length_ = calcLength();
}

void Track::updateTimes() {
  Lock lock(*this);
  if (trackPoints_.empty()) return;
  setStartTime(trackPoints_.front()->time());
  setEndTime(trackPoints_.back()->time());
}

void Track::updateAll() {
  Lock lock(*this);
  updateProperties();
  updateSpeeds();
  updateLength();
  updateTimes();
}

double Track::minElevation() {
  updateProperties();
  return minElevation_;
}
double Track::maxElevation() {
  updateProperties();
  return maxElevation_;
}
double Track::minSpeed() {
  updateProperties();
  return minSpeed_;
}
double Track::maxSpeed() {
  updateProperties();
  return maxSpeed_;
}
double Track::ascending() {
  updateProperties();
  return ascending_;
}
double Track::descending() {
  updateProperties();
  return descending_;
}

void Track::calcMinLatitude(double& minLatitude, double& maxLatitude, double& minLongitude,
                            double& maxLongitude) {
  Lock lock(*this);
  loadFromLibrary();
  updateProperties();
  if (trackPoints_.empty()) return;
  minLatitude = maxLatitude = trackPoints_.front()->latitude();
  minLongitude = maxLongitude = trackPoints_.front()->longitude();
  // Longitudes are plain numbers: a box across 180 degrees spans the other side.
  for (const auto& point : trackPoints_) {
    if (point->latitude() < minLatitude) minLatitude = point->latitude();
    if (point->latitude() > maxLatitude) maxLatitude = point->latitude();
    if (point->longitude() < minLongitude) minLongitude = point->longitude();
    if (point->longitude() > maxLongitude) maxLongitude = point->longitude();
  }
}

void Track::estimateMinLatitude(double& minLatitude, double& maxLatitude, double& minLongitude,
                                double& maxLongitude) {
  Lock lock(*this);
  const size_t n = trackPoints_.size();
  if (n == 0) return;
  minLatitude = maxLatitude = trackPoints_.front()->latitude();
  minLongitude = maxLongitude = trackPoints_.front()->longitude();
  size_t step = n / 16;
  if (step <= 1) step = 1;
  for (size_t k = 1; k < n; k += step) {
    const TrackPoint& point = *trackPoints_[k];
    if (point.latitude() < minLatitude) minLatitude = point.latitude();
    if (point.latitude() > maxLatitude) maxLatitude = point.latitude();
    if (point.longitude() < minLongitude) minLongitude = point.longitude();
    if (point.longitude() > maxLongitude) maxLongitude = point.longitude();
  }
}

void Track::setTimezoneOffset(int32_t minutes) {
  Lock lock(*this);
  if (trackPoints_.empty()) return;
  for (const auto& point : trackPoints_) {
    point->setTimezoneOffsetOfTime(minutes);
    for (const auto& photo : point->trackPhotos()) {
      if (auto time = photo->timeOfPhoto()) {
        time->setTimezoneOffsetInMinutes(minutes);
        photo->setTimeOfPhoto(time);
      }
    }
  }
  // Start and end are the first and last point's times, so they follow.
  if (auto& start = mutableStartTime()) start->setTimezoneOffsetInMinutes(minutes);
  if (auto& end = mutableEndTime()) end->setTimezoneOffsetInMinutes(minutes);
  makeDirty();
}

int32_t Track::timezoneOffset() {
  Lock lock(*this);
  if (trackPoints_.empty() || !trackPoints_.front()->hasTime()) return 0;
  return trackPoints_.front()->time()->timezoneOffset();
}

}  // namespace kvtrack
