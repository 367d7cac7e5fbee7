#include "kvtrack/model/Track.h"
#include "tests/common/TrackBuilders.h"

#include <cmath>
#include <random>

namespace kvtrack {
namespace {

using testing::addPoint;
using testing::addTimedPoint;
using testing::at;

TEST(TimeSearch, NearestBeforeAndAfter) {
  Track track;
  auto a = addPoint(track, 1, 1, "2012-05-01T10:00:00Z");
  auto b = addPoint(track, 2, 2, "2012-05-01T10:00:10Z");
  auto c = addPoint(track, 3, 3, "2012-05-01T10:00:20Z");
  // The nearest point by whole seconds; on a tie the later one; nothing outside the track.
  const std::vector<std::pair<const char*, TrackPointPtr>> nearest = {
      {"2012-05-01T10:00:05Z", b},      {"2012-05-01T10:00:04.6Z", a},
      {"2012-05-01T10:00:05.4Z", b},    {"2012-05-01T12:00:01+02:00", a},
      {"2012-05-01T10:00:00Z", a},      {"2012-05-01T10:00:20Z", c},
      {"2012-05-01T09:59:59.999Z", nullptr}, {"2012-05-01T10:00:20.001Z", nullptr},
  };
  for (const auto& [time, expected] : nearest) {
    EXPECT_EQ(track.findTrackPointWithDate(at(time)), expected) << time;
  }
  EXPECT_EQ(track.findTrackPointWithDate(std::nullopt), nullptr);
  EXPECT_EQ(Track().findTrackPointWithDate(at("2012-05-01T10:00:00Z")), nullptr);

  EXPECT_EQ(track.findTrackPointBeforeDate(at("2012-05-01T09:00:00Z")), nullptr);
  EXPECT_EQ(track.findTrackPointBeforeDate(at("2012-05-01T10:00:10Z")), b);
  EXPECT_EQ(track.findTrackPointBeforeDate(at("2012-05-01T10:00:15Z")), b);
  EXPECT_EQ(track.findTrackPointBeforeDate(at("2012-05-01T11:00:00Z")), c);
  EXPECT_EQ(track.findTrackPointAfterDate(at("2012-05-01T10:00:10Z")), c);
  EXPECT_EQ(track.findTrackPointAfterDate(at("2012-05-01T09:00:00Z")), a);
  EXPECT_EQ(track.findTrackPointAfterDate(at("2012-05-01T10:00:20Z")), nullptr);
  EXPECT_TRUE(track.isBeforeTrack(at("2012-05-01T09:59:59Z")));
  EXPECT_FALSE(track.isBeforeTrack(at("2012-05-01T10:00:00Z")));
  EXPECT_TRUE(track.isAfterTrack(at("2012-05-01T10:00:20.5Z")));
  EXPECT_FALSE(track.isAfterTrack(at("2012-05-01T10:00:20Z")));
  EXPECT_FALSE(Track().isAfterTrack(at("2012-05-01T10:00:20Z")));
  EXPECT_FALSE(Track().isBeforeTrack(at("2012-05-01T10:00:20Z")));
}

TEST(TimeSearch, BisectionAgreesWithAScanOverIrregularTracks) {
  std::mt19937 random(7);
  std::uniform_real_distribution<double> gap(0.2, 30.0);
  for (int round = 0; round < 20; ++round) {
    Track track;
    double t = 0;
    const int n = 1 + static_cast<int>(random() % 300);
    for (int i = 0; i < n; ++i) {
      addTimedPoint(track, std::round(t * 1000) / 1000);
      t += gap(random);
    }
    std::uniform_real_distribution<double> query(0.0, t);
    for (int q = 0; q < 200; ++q) {
      const ISODate date = at("2012-05-01T10:00:00Z").dateByAddingYears(0, 0, 0, 0, 0, query(random));
      const auto found = track.findTrackPointWithDate(date);
      if (date.compare(*track.trackPoints().back()->time()) > 0) {
        EXPECT_EQ(found, nullptr);
        continue;
      }
      ASSERT_NE(found, nullptr);
      // No point may be nearer by whole seconds than the one found.
      const auto whole = [&](const TrackPointPtr& p) {
        return std::fabs(std::trunc(date.timeIntervalSinceDate(*p->time())));
      };
      for (const auto& p : track.trackPoints()) EXPECT_GE(whole(p), whole(found));
      // And it is one of the two points around the date.
      const auto before = track.findTrackPointBeforeDate(date);
      const auto after = track.findTrackPointAfterDate(date);
      EXPECT_TRUE(found == before || found == after);
    }
  }
}

TEST(PlaceSearch, NearestPointPrefersTheEarliestAndSpansTracks) {
  Track first, second;
  addPoint(first, 0, 0);
  auto p1 = addPoint(first, 1, 1);
  addPoint(first, 1, 1);  // equally near: the earlier one wins
  auto q = addPoint(second, 1.1, 1.0);

  const auto inFirst = first.findNearestPointForLatitude(1.05, 1.0);
  EXPECT_EQ(inFirst.track, &first);
  EXPECT_EQ(inFirst.trackPoint, p1.get());
  EXPECT_EQ(inFirst.index, 1);
  EXPECT_NEAR(inFirst.relativeDistance, 0.0025, 1e-12);

  const auto overBoth = second.findNearestPointForLatitude(1.09, 1.0, inFirst);
  EXPECT_EQ(overBoth.track, &second);
  EXPECT_EQ(overBoth.trackPoint, q.get());
  const auto keeps = second.findNearestPointForLatitude(1.0, 1.0, inFirst);
  EXPECT_EQ(keeps.trackPoint, p1.get());

  EXPECT_TRUE(Track().findNearestPointForLatitude(1, 1).isEnd());

  TrackPoint probe;
  probe.setLatitude(1);
  probe.setLongitude(1);
  EXPECT_EQ(first.findTrackPointForCoords(probe), p1);
  probe.setLongitude(1.0000000001);
  EXPECT_EQ(first.findTrackPointForCoords(probe), nullptr);
}

TEST(Navigation, StepsEndAndCarryTheDistance) {
  Track track;
  for (int i = 0; i < 5; ++i) addPoint(track, i, i)->setIsWayPoint(i == 1 || i == 3);
  PointInTrack p = track.firstPointInTrack();
  EXPECT_EQ(p.index, 0);
  EXPECT_EQ(p.trackPoint, track.trackPoints()[0].get());
  p.relativeDistance = 0.5;

  p = Track::nextPointInTrack(p, 4);
  EXPECT_EQ(p.index, 4);
  EXPECT_EQ(p.relativeDistance, 0.5);
  const PointInTrack end = Track::nextPointInTrack(p);
  EXPECT_TRUE(end.isEnd());
  EXPECT_EQ(end.relativeDistance, 0.5);
  EXPECT_TRUE(Track::nextPointInTrack(end).isEnd());
  EXPECT_TRUE(Track::previousPointInTrack(end).isEnd());
  EXPECT_EQ(Track::previousPointInTrack(p, 2).index, 2);
  EXPECT_TRUE(Track::previousPointInTrack(p, 5).isEnd());

  EXPECT_EQ(Track::nextWayPointInTrack(track.firstPointInTrack()).index, 1);
  EXPECT_EQ(Track::nextWayPointInTrack(Track::nextPointInTrack(track.firstPointInTrack())).index, 3);
  EXPECT_TRUE(Track::nextWayPointInTrack(Track::nextPointInTrack(p, 0)).isEnd());
  EXPECT_EQ(Track::previousWayPointInTrack(p).index, 3);
  EXPECT_TRUE(Track::previousWayPointInTrack(track.firstPointInTrack()).isEnd());

  const auto points = track.trackPoints();
  EXPECT_EQ(track.nextPoint(points[1].get()), points[2]);
  EXPECT_EQ(track.previousPoint(points[1].get()), points[0]);
  EXPECT_EQ(track.nextPoint(points[4].get()), nullptr);
  EXPECT_EQ(track.previousPoint(points[0].get()), nullptr);
  TrackPoint stranger;
  EXPECT_EQ(track.nextPoint(&stranger), nullptr);
  EXPECT_TRUE(Track().firstPointInTrack().isEnd());
}

}  // namespace
}  // namespace kvtrack
