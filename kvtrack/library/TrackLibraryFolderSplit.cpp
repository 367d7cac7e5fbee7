// Splitting a track in two or three parts; each split point belongs to both
// parts that meet there, so no part has a gap.
#include "kvtrack/library/TrackLibraryFolder.h"

namespace kvtrack {

namespace {

TrackPtr newPartBehind(TrackLibraryFolder& folder, Track& source, const Track* behind) {
  auto part = Track::trackWithName(source.name());
  folder.addTrack(part, behind);
  part->setColor(source.color());
  part->setShowArea(source.showArea());
  part->setAreaDistanceInMeter(source.areaDistanceInMeter());
  return part;
}

void copyPoint(Track& into, const TrackPoint& point) {
  into.addTrackPoint(TrackPoint::trackPointWithParent(&into, point));
}

void finish(const std::string& name, std::initializer_list<Track*> parts) {
  int number = 1;
  for (Track* part : parts) {
    part->setName(name + " (" + std::to_string(number++) + ")");
    part->updateAll();
    part->makeDirty();
  }
}

// Drops the points behind the first one visited by the walk.
void keepUpTo(Track& track, size_t visited) {
  if (visited == 0) return;
  std::lock_guard<Track> lock(track);
  const auto points = track.trackPoints();
  points->resize(points.size() - (visited - 1));
}

}  // namespace

void TrackLibraryFolder::splitAtPointInTrack(const PointInTrack& position) {
  Track* track = position.track;
  if (!track || !position.trackPoint) return;
  std::lock_guard<const TrackLibraryFolder> lock(*this);
  const std::string name = track->name();
  TrackPtr second = newPartBehind(*this, *track, track);
  size_t visited = 0;
  for (PointInTrack p = position; !p.isEnd(); p = Track::nextPointInTrack(p)) {
    copyPoint(*second, *p.trackPoint);
    ++visited;
  }
  keepUpTo(*track, visited);
  finish(name, {track, second.get()});
}

void TrackLibraryFolder::splitAtPointInTrack(const PointInTrack& first, const PointInTrack& second) {
  Track* track = first.track;
  if (!track || !first.trackPoint) return;
  std::lock_guard<const TrackLibraryFolder> lock(*this);
  const std::string name = track->name();
  TrackPtr middle = newPartBehind(*this, *track, track);
  TrackPtr last = newPartBehind(*this, *track, middle.get());
  size_t visited = 0;
  bool secondMet = false;
  for (PointInTrack p = first; !p.isEnd(); p = Track::nextPointInTrack(p)) {
    if (!secondMet) {
      copyPoint(*middle, *p.trackPoint);
      // A second point before the first, or in another track, is never met.
      if (p.trackPoint == second.trackPoint) {
        secondMet = true;
        copyPoint(*last, *p.trackPoint);
      }
    } else {
      copyPoint(*last, *p.trackPoint);
    }
    ++visited;
  }
  keepUpTo(*track, visited);
  finish(name, {track, middle.get(), last.get()});
}

}  // namespace kvtrack
