// Navigation by position and the searches by time and by place.
#include "kvtrack/model/Track.h"

#include <cmath>
#include <cstdlib>

namespace kvtrack {

namespace {
using Lock = std::lock_guard<const Track>;

// Sign of (point time - date); an absent time compares as equal.
int compareTime(const TrackPoint& point, const ISODate& date) {
  const auto time = point.time();
  return time ? time->compare(date) : 0;
}

PointInTrack endCarrying(const PointInTrack& from) {
  PointInTrack end = PointInTrack::end();
  end.relativeDistance = from.relativeDistance;
  return end;
}

// The record for index i of the position's track, or the end value.
PointInTrack positionAt(const PointInTrack& from, int64_t i) {
  if (!from.track || i < 0) return endCarrying(from);
  Lock lock(*from.track);
  const auto points = from.track->trackPoints();
  if (i >= static_cast<int64_t>(points.size())) return endCarrying(from);
  return {from.track, points[static_cast<size_t>(i)].get(), static_cast<int32_t>(i),
          from.relativeDistance};
}
}  // namespace

PointInTrack Track::firstPointInTrack() {
  Lock lock(*this);
  loadFromLibrary();
  if (trackPoints_.empty()) return PointInTrack::end();
  return {this, trackPoints_.front().get(), 0, -1.0};
}

PointInTrack Track::nextPointInTrack(const PointInTrack& position, int32_t stepSize) {
  return positionAt(position, static_cast<int64_t>(position.index) + stepSize);
}

PointInTrack Track::previousPointInTrack(const PointInTrack& position, int32_t stepSize) {
  return positionAt(position, static_cast<int64_t>(position.index) - stepSize);
}

PointInTrack Track::nextWayPointInTrack(const PointInTrack& position) {
  if (!position.track) return endCarrying(position);
  Lock lock(*position.track);
  const auto points = position.track->trackPoints();
  for (int64_t i = static_cast<int64_t>(position.index) + 1;
       i < static_cast<int64_t>(points.size()); ++i) {
    if (i >= 0 && points[static_cast<size_t>(i)]->isWayPoint()) return positionAt(position, i);
  }
  return endCarrying(position);
}

PointInTrack Track::previousWayPointInTrack(const PointInTrack& position) {
  if (!position.track) return endCarrying(position);
  Lock lock(*position.track);
  const auto points = position.track->trackPoints();
  const int64_t start = std::min<int64_t>(position.index, static_cast<int64_t>(points.size())) - 1;
  for (int64_t i = start; i >= 0; --i) {
    if (points[static_cast<size_t>(i)]->isWayPoint()) return positionAt(position, i);
  }
  return endCarrying(position);
}

TrackPointPtr Track::nextPoint(const TrackPoint* point) {
  Lock lock(*this);
  loadFromLibrary();
  for (size_t i = 0; i + 1 < trackPoints_.size(); ++i) {
    if (trackPoints_[i].get() == point) return trackPoints_[i + 1];
  }
  return nullptr;
}

TrackPointPtr Track::previousPoint(const TrackPoint* point) {
  Lock lock(*this);
  loadFromLibrary();
  for (size_t i = 1; i < trackPoints_.size(); ++i) {
    if (trackPoints_[i].get() == point) return trackPoints_[i - 1];
  }
  return nullptr;
}

TrackPointPtr Track::findTrackPointWithDate(const std::optional<ISODate>& date) {
  Lock lock(*this);
  loadFromLibrary();
  if (!date || trackPoints_.empty()) return nullptr;
  const ISODate& t = *date;
  if (compareTime(*trackPoints_.front(), t) > 0 || compareTime(*trackPoints_.back(), t) < 0) {
    return nullptr;  // no extrapolation
  }
  int32_t lo = 0;
  int32_t hi = static_cast<int32_t>(trackPoints_.size()) - 1;
  while (hi - lo > 1) {
    const int32_t mid = (lo + hi) / 2;
    if (compareTime(*trackPoints_[static_cast<size_t>(mid)], t) > 0) {
      hi = mid;
    } else {
      lo = mid;
    }
  }
  // Whole seconds only: differences below a second are ignored on purpose.
  const auto wholeSecondsAway = [&](int32_t i) {
    const auto time = trackPoints_[static_cast<size_t>(i)]->time();
    const double seconds = time ? t.timeIntervalSinceDate(*time) : 0.0;
    return std::fabs(std::trunc(seconds));
  };
  const double dlo = wholeSecondsAway(lo);
  const double dhi = wholeSecondsAway(hi);
  return dhi > dlo ? trackPoints_[static_cast<size_t>(lo)] : trackPoints_[static_cast<size_t>(hi)];
}

TrackPointPtr Track::findTrackPointBeforeDate(const ISODate& date) {
  Lock lock(*this);
  loadFromLibrary();
  for (size_t i = 0; i < trackPoints_.size(); ++i) {
    if (compareTime(*trackPoints_[i], date) > 0) return i == 0 ? nullptr : trackPoints_[i - 1];
  }
  return trackPoints_.empty() ? nullptr : trackPoints_.back();
}

TrackPointPtr Track::findTrackPointAfterDate(const ISODate& date) {
  Lock lock(*this);
  loadFromLibrary();
  for (const auto& point : trackPoints_) {
    if (compareTime(*point, date) > 0) return point;
  }
  return nullptr;
}

TrackPointPtr Track::findTrackPointForCoords(const TrackPoint& target) {
  Lock lock(*this);
  loadFromLibrary();
  for (const auto& point : trackPoints_) {
    if (point->latitude() == target.latitude() && point->longitude() == target.longitude()) {
      return point;
    }
  }
  return nullptr;
}

TrackPointPtr Track::findTrackPointForWayPoint(const TrackPoint& wayPoint) {
  TrackPointPtr match;
  if (wayPoint.latitude() != 0.0 && wayPoint.longitude() != 0.0) {
    match = findTrackPointForCoords(wayPoint);
  }
  return match ? match : findTrackPointWithDate(wayPoint.time());
}

PointInTrack Track::findNearestPointForLatitude(double latitude, double longitude) {
  Lock lock(*this);
  loadFromLibrary();
  return findNearestPointForLatitude(latitude, longitude, PointInTrack::end());
}

PointInTrack Track::findNearestPointForLatitude(double latitude, double longitude,
                                                PointInTrack nearestPoint) {
  Lock lock(*this);
  loadFromLibrary();
  for (size_t i = 0; i < trackPoints_.size(); ++i) {
    const double distance = trackPoints_[i]->relativeDistanceToLatitude(latitude, longitude);
    // Strictly nearer only, so the earliest of equally near points wins.
    if (nearestPoint.relativeDistance < 0.0 || nearestPoint.relativeDistance > distance) {
      nearestPoint = {this, trackPoints_[i].get(), static_cast<int32_t>(i), distance};
    }
  }
  return nearestPoint;
}

bool Track::isBeforeTrack(const ISODate& date) {
  Lock lock(*this);
  // Reads what is in memory, without loading.
  if (trackPoints_.empty()) return false;
  return compareTime(*trackPoints_.front(), date) > 0;
}

bool Track::isAfterTrack(const ISODate& date) {
  Lock lock(*this);
  loadFromLibrary();
  if (trackPoints_.empty()) return false;
  return compareTime(*trackPoints_.back(), date) < 0;
}

}  // namespace kvtrack
