#include "kvtrack/model/GeocachingService.h"
#include "kvtrack/model/Track.h"
#include "kvtrack/support/KvPreferences.h"
#include "tests/common/TrackBuilders.h"

#include <cmath>
#include <numbers>
#include <random>

namespace kvtrack {
namespace {

using testing::addPoint;
using testing::addTimedPoint;
using testing::addWaypoint;
using testing::at;

const double kNoElevation = std::nan("");

struct AnyService : GeocachingService {
  std::string name() const override { return "test"; }
  std::string urlForLatitude(double, double, double) const override { return {}; }
  bool belongsToThisService(const TrackPoint&) const override { return true; }
} service;

TEST(ElevationFigures, TenMetreHysteresisNaNGapsAndCaching) {
  const auto climbOf = [](const std::vector<double>& elevations) {
    Track track;
    for (double e : elevations) addPoint(track, 1, 1, "", e);
    return std::vector<double>{track.ascending(), track.descending(), track.minElevation(),
                               track.maxElevation()};
  };
  EXPECT_EQ(climbOf({100, 105, 111, 104, 120}), (std::vector<double>{11, 0, 100, 120}));
  EXPECT_EQ(climbOf({100, 110, 105}), (std::vector<double>{0, 0, 100, 110}));  // 10 m is noise
  EXPECT_EQ(climbOf({500, 489.5, 489, 478, kNoElevation, 478, 520}), (std::vector<double>{42, 22, 478, 520}));
  std::vector<double> slow;  // a slow climb counts in steps of just over 10 m
  for (int i = 0; i <= 50; ++i) slow.push_back(1000 + i * 0.7);
  EXPECT_NEAR(climbOf(slow)[0], 31.5, 1e-9);  // three steps of 10.5 m; the last 3.5 m never count
  // Without any elevation everything is NaN; one elevation makes the climb 0.
  for (double figure : climbOf({kNoElevation, kNoElevation})) EXPECT_TRUE(std::isnan(figure));
  EXPECT_EQ(climbOf({kNoElevation, kNoElevation, 7}), (std::vector<double>{0, 0, 7, 7}));

  Track track;  // clean tracks are not recomputed
  addPoint(track, 1, 1, "", 100);
  addPoint(track, 1, 1, "", 200);
  EXPECT_EQ(track.maxElevation(), 200);
  track.setIsDirty(false);
  track.trackPoints()[1]->setElevation(300);  // plain setter: no dirty mark
  EXPECT_EQ(track.maxElevation(), 200);
  track.makeDirty();
  EXPECT_EQ(track.maxElevation(), 300);
}

TEST(Classification, CountsAndATypeSetOnceFromThePoints) {
  Track track;
  addTimedPoint(track, 0)->setIsWayPoint(true);
  addTimedPoint(track, 1)->setName("named track point");
  addTimedPoint(track, 2)->setName("");
  auto cache = addTimedPoint(track, 3);
  cache->setIsWayPoint(true);
  cache->setGeocachingService(&service);
  addTimedPoint(track, 4)->setGeocachingService(&service);  // not a waypoint: not counted
  auto photos = addTimedPoint(track, 5);
  photos->addTrackPhoto(TrackPhoto::trackPhotoWithFilepath("/a.jpg"));
  photos->addTrackPhoto(TrackPhoto::trackPhotoWithFilepath("/b.jpg"));
  track.updateProperties();
  EXPECT_EQ(track.waypointCount(), 3);
  EXPECT_EQ(track.geocacheCount(), 1);
  EXPECT_EQ(track.photoCount(), 2);
  EXPECT_EQ(track.type(), Track::kRecordedTrack);
  EXPECT_EQ(track.startTime(), at("2012-05-01T10:00:00Z"));

  Track places;
  for (int i = 0; i < 3; ++i) addPoint(places, i, i)->setIsWayPoint(true);
  places.updateAll();
  EXPECT_EQ(places.type(), Track::kPlaceCollection);
  for (const auto& p : places.trackPoints()) EXPECT_TRUE(std::isnan(p->speed()));
  addTimedPoint(places, 10);  // sticky: once places, timed points change nothing
  places.updateProperties();
  EXPECT_EQ(places.type(), Track::kPlaceCollection);

  Track untimed;
  addPoint(untimed, 1, 1);
  addPoint(untimed, 2, 2);
  untimed.updateProperties();
  EXPECT_EQ(untimed.type(), Track::kPlaceCollection);

  Track caches;
  for (int i = 0; i < 2; ++i) {
    auto p = addWaypoint(caches, i, i, "GC");
    p->setGeocachingService(&service);
  }
  caches.updateProperties();
  EXPECT_EQ(caches.type(), Track::kGeocacheCollection);

  Track empty;
  empty.updateProperties();
  EXPECT_FALSE(empty.propertiesUpdated());
  EXPECT_EQ(empty.type(), Track::kRecordedTrack);
}

TEST(Speeds, OneKilometreInOneMinuteIsSixtyKmhAndDirtyTracksDropTheRange) {
  Track track;
  auto a = addPoint(track, 0, 0, "2012-05-01T10:00:00Z");
  const double oneKm = 180.0 / (6371.0 * std::numbers::pi);  // north on the 6371 km sphere
  auto b = addPoint(track, oneKm, 0, "2012-05-01T10:01:00Z");
  track.updateAll();                          // the track is dirty from the edits...
  EXPECT_TRUE(std::isnan(track.maxSpeed()));  // ...so the getter recomputes and drops the range
  EXPECT_TRUE(std::isnan(track.minSpeed()));
  track.setIsDirty(false);
  track.updateAll();
  EXPECT_EQ(a->speed(), 0.0);
  EXPECT_NEAR(b->speed(), 60.0, 1e-6);
  EXPECT_NEAR(track.maxSpeed(), 60.0, 1e-6);
  EXPECT_EQ(track.minSpeed(), 0.0);
  EXPECT_NEAR(track.length(), 1.0, 1e-6);  // acos loses digits on short legs
}

TEST(Speeds, DenseSamplingIsSmoothedOverTheMinimumInterval) {
  Track track;
  for (int i = 0; i < 7; ++i) addTimedPoint(track, i * 0.5, 47.0 + i * 0.001, 8.0);
  track.updateSpeeds();
  const auto p = track.trackPoints();
  const auto speedOver = [&](int from, int to) {
    return p[from]->distanceToTrackPoint(*p[to]) / (p[to]->time()->timeIntervalSinceDate(*p[from]->time())) *
           3600;
  };
  EXPECT_EQ(p[0]->speed(), 0.0);
  EXPECT_EQ(p[1]->speed(), 0.0);   // the last speed, written while the reference is the first point
  EXPECT_EQ(p[2]->speed(), -1.0);  // never written
  for (int i = 3; i < 7; ++i) EXPECT_DOUBLE_EQ(p[i]->speed(), speedOver(i - 2, i)) << i;
}

TEST(Speeds, ShortLastIntervalRepeatsTheLastSpeedAndPreferenceWidensTheSpan) {
  Track track;
  for (double t : {0.0, 10.0, 20.0, 20.5}) addTimedPoint(track, t, 47.0 + t * 0.0001, 8.0);
  track.updateSpeeds();
  const auto p = track.trackPoints();
  EXPECT_DOUBLE_EQ(p[3]->speed(), p[2]->speed());

  KvPreferences::singleton().setMinIntervalSpeedCalculation(15);
  Track wide;
  for (int i = 0; i < 5; ++i) addTimedPoint(wide, i * 10.0, 47.0 + i * 0.001, 8.0);
  wide.updateSpeeds();
  const auto w = wide.trackPoints();
  EXPECT_EQ(w[1]->speed(), 0.0);   // 10 s < 15 s with the first point as reference
  EXPECT_EQ(w[2]->speed(), -1.0);  // 10 s from point 1: kept
  EXPECT_DOUBLE_EQ(w[3]->speed(), w[1]->distanceToTrackPoint(*w[3]) / 20 * 3600);
  KvPreferences::singleton().setMinIntervalSpeedCalculation(std::nullopt);
}

TEST(Lengths, LegsAndTotalUseTheOneFormula) {
  Track one;
  auto only = addPoint(one, 47, 8);
  only->setLength(5);
  EXPECT_EQ(one.calcLength(), 0.0);
  EXPECT_EQ(only->length(), 0.0);
  EXPECT_EQ(Track().calcLength(), 0.0);

  std::mt19937 random(3);
  std::uniform_real_distribution<double> lat(-80, 80), lon(-179, 179);
  Track track;
  for (int i = 0; i < 500; ++i) addPoint(track, lat(random), lon(random));
  track.updateLength();
  double total = 0;
  const auto p = track.trackPoints();
  for (size_t k = 1; k < p.size(); ++k) {
    const double leg = TrackPoint::distanceFromLatitude(p[k]->latitude(), p[k]->longitude(),
                                                        p[k - 1]->latitude(), p[k - 1]->longitude());
    EXPECT_EQ(p[k]->length(), leg) << k;  // bit for bit, cached trigonometry or not
    total += leg;
  }
  EXPECT_EQ(track.length(), total);
}

TEST(Bounds, ExactAndSampledBoxes) {
  Track track;
  for (int i = 0; i < 40; ++i) addPoint(track, i * 0.1, -i * 0.2);
  double minLat = 99, maxLat = 99, minLon = 99, maxLon = 99;
  Track().calcMinLatitude(minLat, maxLat, minLon, maxLon);
  EXPECT_EQ(minLat, 99);  // untouched for an empty track
  track.calcMinLatitude(minLat, maxLat, minLon, maxLon);
  EXPECT_EQ(minLat, 0);
  EXPECT_DOUBLE_EQ(maxLat, 3.9);
  EXPECT_DOUBLE_EQ(minLon, -7.8);
  EXPECT_EQ(maxLon, 0);

  // 40 points: step 2, so indices 1, 3, ..., 39 are sampled.
  track.estimateMinLatitude(minLat, maxLat, minLon, maxLon);
  EXPECT_DOUBLE_EQ(maxLat, 3.9);
  // 51 points: step 3 visits 1, 4, ..., 49, so neither 39 nor the last point.
  addPoint(track, 0, 0);
  for (int i = 41; i < 50; ++i) addPoint(track, 1, 1);
  addPoint(track, 60, 60);
  ASSERT_EQ(track.trackPoints().size(), 51u);
  track.estimateMinLatitude(minLat, maxLat, minLon, maxLon);
  EXPECT_DOUBLE_EQ(maxLat, 3.7);
  track.calcMinLatitude(minLat, maxLat, minLon, maxLon);
  EXPECT_EQ(maxLat, 60);

  Track dateLine;
  addPoint(dateLine, 0, 179);
  addPoint(dateLine, 0, -179);
  dateLine.calcMinLatitude(minLat, maxLat, minLon, maxLon);
  EXPECT_EQ(minLon, -179);  // spans the other side of the globe
  EXPECT_EQ(maxLon, 179);
}

TEST(TimeZone, OffsetChangesTheZoneNotTheInstant) {
  Track empty;
  empty.setTimezoneOffset(120);
  EXPECT_FALSE(empty.isDirty());
  EXPECT_EQ(empty.timezoneOffset(), 0);

  Track track;
  auto a = addPoint(track, 1, 1, "2012-05-01T10:00:00Z");
  addPoint(track, 2, 2);  // a point without time is left alone
  auto c = addPoint(track, 3, 3, "2012-05-01T11:00:00.5Z");
  auto photo = TrackPhoto::trackPhotoWithFilepath("/p.jpg");
  photo->setTimeOfPhoto(at("2012-05-01T10:30:00Z"));
  a->addTrackPhoto(photo);
  track.updateTimes();
  track.setIsDirty(false);

  track.setTimezoneOffset(-330);
  EXPECT_TRUE(track.isDirty());
  EXPECT_EQ(track.timezoneOffset(), -330);
  EXPECT_EQ(a->time()->description(), "2012-05-01T04:30:00-05:30");
  EXPECT_TRUE(a->time()->isEqualToDate(at("2012-05-01T10:00:00Z")));
  EXPECT_EQ(c->time()->description(), "2012-05-01T05:30:00.5-05:30");
  EXPECT_EQ(photo->storedTimeOfPhoto()->timezoneOffset(), -330);
  EXPECT_TRUE(photo->storedTimeOfPhoto()->isEqualToDate(at("2012-05-01T10:30:00Z")));
  // Start and end follow the first and last point.
  EXPECT_EQ(track.startTime(), a->time());
  EXPECT_EQ(track.endTime(), c->time());
  EXPECT_DOUBLE_EQ(track.duration(), 3600.5);
}

}  // namespace
}  // namespace kvtrack
