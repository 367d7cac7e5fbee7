#include "kvtrack/model/Track.h"
#include "kvtrack/model/TrackPoint.h"
#include "tests/common/ScratchFolder.h"
#include "tests/common/TrackBuilders.h"

#include <cmath>
#include <filesystem>
#include <numbers>

namespace kvtrack {
namespace {

using testing::at;

TEST(PointCoordinates, NormaliseByOneStepOnlyAndElevationIsNaNUnlessFinite) {
  TrackPoint p;
  const std::vector<std::pair<double, double>> latitudes = {
      {95, -85}, {91, -89}, {-91, 89}, {90, 90}, {-90, -90}, {45.5, 45.5}};
  for (auto [in, out] : latitudes) {
    p.setLatitude(in);
    EXPECT_EQ(p.latitude(), out) << in;
  }
  const std::vector<std::pair<double, double>> longitudes = {
      {190, -170}, {-200, 160}, {180, 180}, {-180, -180}, {600, 240}, {-600, -240}};
  for (auto [in, out] : longitudes) {
    p.setLongitude(in);
    EXPECT_EQ(p.longitude(), out) << in;
  }
  p.setLatitude(10);
  p.setLongitude(179.5);
  p.moveLatitude(85, 1);
  EXPECT_EQ(p.latitude(), -85);
  EXPECT_EQ(p.longitude(), -179.5);

  for (double e : {INFINITY, -INFINITY}) {
    p.setElevation(e);
    EXPECT_TRUE(std::isnan(p.elevation())) << e;
  }
  p.setElevation(-412.5);
  EXPECT_EQ(p.elevation(), -412.5);
}

TEST(PointDistance, GreatCircleOnTheMeanSphereNeverNaN) {
  const double degree = 6371.0 * std::numbers::pi / 180.0;
  EXPECT_NEAR(TrackPoint::distanceFromLatitude(0, 0, 0, 1), degree, 1e-9);
  EXPECT_NEAR(TrackPoint::distanceFromLatitude(0, 0, 1, 0), degree, 1e-9);
  // Zurich to Bern, latitude first at both ends, symmetric up to rounding.
  EXPECT_NEAR(TrackPoint::distanceFromLatitude(47.3769, 8.5417, 46.9480, 7.4474), 95.5, 0.5);
  EXPECT_NEAR(TrackPoint::distanceFromLatitude(47.3769, 8.5417, 46.9480, 7.4474),
              TrackPoint::distanceFromLatitude(46.9480, 7.4474, 47.3769, 8.5417), 1e-9);
  // Rounding must not push acos out of its domain for identical points.
  for (double lat : {0.0, 12.3456789, 47.000001, -89.99, 89.999999}) {
    for (double lon : {0.0, 8.123456, -179.9999, 179.9999}) {
      const double d = TrackPoint::distanceFromLatitude(lat, lon, lat, lon);
      EXPECT_FALSE(std::isnan(d)) << lat << "," << lon;
      EXPECT_LT(d, 1e-3);
    }
  }
  TrackPoint p;
  p.setLatitude(1);
  p.setLongitude(2);
  EXPECT_EQ(p.distanceToTrackPoint(p), 0.0);
  EXPECT_DOUBLE_EQ(p.relativeDistanceToLatitude(4, 6), 25.0);  // squared degrees
}

TEST(PointAttributes, WaypointDataGoesAsAWhole) {
  TrackPoint plain;
  plain.setName(std::nullopt);  // must not allocate or crash
  EXPECT_EQ(plain.isGeocacheAsString(), "NO");

  Track track;
  TrackPoint p(&track);
  p.setLatitude(5);
  p.setIsWayPoint(true);
  p.setName("Summit");
  p.setSymbol("Flag");
  p.setTags("peak");
  p.setGeocache(std::make_shared<Geocache>());
  EXPECT_EQ(p.isGeocacheAsString(), "YES");
  p.addTrackPhoto(TrackPhoto::trackPhotoWithFilepath("/p/a.jpg"));
  track.setIsDirty(false);
  p.removeAllWaypointData();
  EXPECT_FALSE(p.name());
  EXPECT_FALSE(p.symbol());
  EXPECT_FALSE(p.geocache());
  // Tags, the flag, photos and the position stay.
  EXPECT_EQ(p.tags(), "peak");
  EXPECT_TRUE(p.isWayPoint());
  EXPECT_TRUE(p.hasPhotos());
  EXPECT_EQ(p.latitude(), 5);
  EXPECT_TRUE(track.isDirty());
}

TEST(PointCopy, DuplicatesEverythingButTagsAndLeg) {
  Track source, target;
  auto s = TrackPoint::trackPointWithParent(&source);
  s->setTime(at("2012-05-01T10:00:00.250+02:00"));
  s->setLength(0.3);
  s->setName("Hut");
  s->setTags("food");
  auto cache = std::make_shared<Geocache>();
  cache->name = "GC1";
  cache->logs.push_back(std::make_shared<GeocacheLog>());
  s->setGeocache(cache);
  auto photo = TrackPhoto::trackPhotoWithFilepath("/photos/1.jpg");
  s->addTrackPhoto(photo);

  auto c = TrackPoint::trackPointWithParent(&target, *s);
  EXPECT_EQ(c->track(), &target);
  EXPECT_EQ(c->time(), s->time());
  EXPECT_EQ(c->name(), "Hut");
  EXPECT_EQ(c->length(), 0.0);
  EXPECT_FALSE(c->tags());
  ASSERT_TRUE(c->geocache());
  EXPECT_NE(c->geocache(), cache);
  EXPECT_EQ(c->geocache()->name, "GC1");
  EXPECT_TRUE(c->geocache()->logs.empty());  // a copied geocache has no logs
  ASSERT_EQ(c->trackPhotos().size(), 1u);
  EXPECT_NE(c->trackPhotos()[0], photo);
  EXPECT_EQ(c->trackPhotos()[0]->trackPoint(), c.get());
  EXPECT_EQ(photo->trackPoint(), s.get());
}

TEST(PointMerge, CopyWaypointAttributesKeepsLogsSlotAndFoundState) {
  Track track;
  TrackPoint own(&track);
  own.setTime(at("2012-05-01T10:00:00Z"));
  own.setSpeed(3);
  auto ownCache = std::make_shared<Geocache>();
  ownCache->indexForGPXExternalFile = 17;
  ownCache->yourLogType = 0;  // found
  auto ownLog = std::make_shared<GeocacheLog>();
  ownLog->geocacher = "me";
  ownCache->logs.push_back(ownLog);
  own.setGeocache(ownCache);

  TrackPoint incoming;
  incoming.setLatitude(46);
  incoming.setElevation(NAN);
  incoming.setName("GC42");
  auto incomingCache = std::make_shared<Geocache>();
  incomingCache->yourLogType = 2;
  incomingCache->hints = "under the rock";
  incoming.setGeocache(incomingCache);

  track.setIsDirty(false);
  own.copyWaypointAttributesFrom(incoming);
  EXPECT_EQ(own.latitude(), 46);
  EXPECT_TRUE(std::isnan(own.elevation()));
  EXPECT_EQ(own.time(), at("2012-05-01T10:00:00Z"));  // neither time nor speed
  EXPECT_EQ(own.speed(), 3);
  EXPECT_EQ(own.name(), "GC42");
  ASSERT_TRUE(own.geocache());
  EXPECT_EQ(own.geocache()->hints, "under the rock");
  EXPECT_EQ(own.geocache()->indexForGPXExternalFile, 17);
  EXPECT_TRUE(own.geocache()->externalGPXFileDirty);
  EXPECT_TRUE(own.geocache()->externalGPXFileLoaded);
  EXPECT_EQ(own.geocache()->yourLogType, 0);
  ASSERT_EQ(incomingCache->logs.size(), 1u);  // our log went to the incoming record...
  EXPECT_EQ(incomingCache->logs[0]->geocacher, "me");
  ASSERT_EQ(own.geocache()->logs.size(), 1u);  // ...and survives in the replacement
  EXPECT_EQ(own.geocache()->logs[0]->geocacher, "me");
  EXPECT_TRUE(track.isDirty());

  TrackPoint fresh;
  fresh.copyWaypointAttributesFrom(incoming);
  EXPECT_EQ(fresh.geocache()->indexForGPXExternalFile, 0);
  EXPECT_EQ(fresh.geocache()->yourLogType, 0);  // remembered 0 when there was no own record

  TrackPoint notFound;
  notFound.setGeocache(std::make_shared<Geocache>());
  notFound.geocache()->yourLogType = 1;
  notFound.copyWaypointAttributesFrom(incoming);
  EXPECT_EQ(notFound.geocache()->yourLogType, 2);  // taken from the incoming record
}

TEST(PointPhotos, DuplicatesIgnoredSortedInsertIgnoresCaseAndBackReferencesClear) {
  Track track;
  TrackPoint p(&track);
  for (const char* name : {"b", "D", "a", "c", "B", "b"}) {  // B after b; b twice
    p.addTrackPhoto(TrackPhoto::trackPhotoWithFilepath(std::string("/p/") + name + ".jpg"), true);
  }
  p.addTrackPhoto(nullptr);
  p.addTrackPhoto(TrackPhoto::trackPhotoWithFilepath("/p/0.jpg"));  // unsorted appends
  std::vector<std::string> paths;
  for (const auto& photo : p.trackPhotos()) paths.push_back(photo->originalFilepath());
  EXPECT_EQ(paths, (std::vector<std::string>{"/p/a.jpg", "/p/b.jpg", "/p/B.jpg", "/p/c.jpg",
                                             "/p/D.jpg", "/p/0.jpg"}));
  EXPECT_EQ(p.getFirstPhoto()->originalFilepath(), "/p/a.jpg");

  std::vector<TrackPhotoPtr> collected;
  p.addTrackPhotos(collected);
  EXPECT_EQ(collected.size(), 6u);
  track.setIsDirty(false);
  for (const auto& photo : collected) p.removeTrackPhoto(photo);
  EXPECT_FALSE(p.hasPhotos());
  EXPECT_TRUE(track.isDirty());

  TrackPhotoPtr photo = TrackPhoto::trackPhotoWithFilepath("/p/x.jpg");
  {
    TrackPoint owner;
    owner.addTrackPhoto(photo);
    EXPECT_EQ(photo->trackPoint(), &owner);
  }
  EXPECT_EQ(photo->trackPoint(), nullptr);
}

TEST(PointGeocacheFile, RemovesTheExternalDescriptionFile) {
  testing::ScratchFolder folder;
  std::filesystem::create_directories(folder.path() / "all_geocaches.gpxx_ext");
  FileHandling::singleton().setUserApplicationSupport(folder.path().string());
  const std::string file = folder.write("all_geocaches.gpxx_ext/desc000000042.gpxx", "<gpxExt/>");

  TrackPoint p;
  p.removeExternalGpxFile();  // no geocache: nothing
  p.setGeocache(std::make_shared<Geocache>());
  p.removeExternalGpxFile();  // index -1: nothing
  EXPECT_TRUE(std::filesystem::exists(file));
  p.geocache()->indexForGPXExternalFile = 42;
  p.removeExternalGpxFile();
  EXPECT_FALSE(std::filesystem::exists(file));
  p.removeExternalGpxFile();  // a missing file is fine
}

}  // namespace
}  // namespace kvtrack
