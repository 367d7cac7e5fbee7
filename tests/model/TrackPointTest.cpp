#include "kvtrack/model/TrackPoint.h"
#include "kvtrack/model/Track.h"
#include "kvtrack/support/FileHandling.h"
#include "ModelTestSupport.h"

#include <cmath>
#include <filesystem>
#include <fstream>
#include <numbers>

namespace kvtrack {
namespace {

using testing::at;

TEST(PointCoordinates, NormaliseByOneStepOnly) {
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
}

TEST(PointCoordinates, ElevationIsNaNForNonFiniteInput) {
  TrackPoint p;
  EXPECT_EQ(p.elevation(), 0.0);
  EXPECT_EQ(p.speed(), -1.0);
  p.setElevation(INFINITY);
  EXPECT_TRUE(std::isnan(p.elevation()));
  p.setElevation(-INFINITY);
  EXPECT_TRUE(std::isnan(p.elevation()));
  p.setElevation(-412.5);
  EXPECT_EQ(p.elevation(), -412.5);
}

TEST(PointDistance, MatchesReferenceValues) {
  const double degree = 6371.0 * std::numbers::pi / 180.0;
  EXPECT_NEAR(TrackPoint::distanceFromLatitude(0, 0, 0, 1), degree, 1e-9);
  EXPECT_NEAR(TrackPoint::distanceFromLatitude(0, 0, 0, 180), 6371.0 * std::numbers::pi, 1e-6);
  EXPECT_NEAR(TrackPoint::distanceFromLatitude(0, 0, 1, 0), degree, 1e-9);
  // Zurich to Bern on the 6371 km sphere.
  EXPECT_NEAR(TrackPoint::distanceFromLatitude(47.3769, 8.5417, 46.9480, 7.4474), 95.5, 0.5);
  // Symmetric up to rounding, latitude first at both ends.
  EXPECT_NEAR(TrackPoint::distanceFromLatitude(47.3769, 8.5417, 46.9480, 7.4474),
              TrackPoint::distanceFromLatitude(46.9480, 7.4474, 47.3769, 8.5417), 1e-9);
}

TEST(PointDistance, IdenticalPointsAreZeroNeverNaN) {
  for (double lat : {0.0, 12.3456789, 47.000001, -89.99, 89.999999}) {
    for (double lon : {0.0, 8.123456, -179.9999, 179.9999}) {
      const double d = TrackPoint::distanceFromLatitude(lat, lon, lat, lon);
      EXPECT_FALSE(std::isnan(d));
      EXPECT_LT(d, 1e-3);
    }
  }
  TrackPoint p;
  p.setLatitude(47.123456789);
  p.setLongitude(8.987654321);
  EXPECT_EQ(p.distanceToTrackPoint(p), 0.0);
}

TEST(PointDistance, RelativeDistanceIsSquaredDegrees) {
  TrackPoint p;
  p.setLatitude(1);
  p.setLongitude(2);
  EXPECT_DOUBLE_EQ(p.relativeDistanceToLatitude(4, 6), 25.0);
  EXPECT_DOUBLE_EQ(p.distanceToLatitude(1, 3), TrackPoint::distanceFromLatitude(1, 2, 1, 3));
}

TEST(PointAttributes, PlainPointsStaySmall) {
  // Ownership block + point must stay far below gpsbabel's ~200 bytes.
  EXPECT_LE(sizeof(TrackPoint), 72u);
  TrackPoint p;
  EXPECT_FALSE(p.name());
  p.setName(std::nullopt);  // must not allocate or crash
  EXPECT_TRUE(p.trackPhotos().empty());
  EXPECT_EQ(p.isGeocacheAsString(), "NO");
  p.setGeocache(std::make_shared<Geocache>());
  EXPECT_EQ(p.isGeocacheAsString(), "YES");
}

TEST(PointAttributes, RemovingWaypointDataKeepsTagsFlagPhotosAndPosition) {
  Track track;
  TrackPoint p(&track);
  p.setLatitude(5);
  p.setIsWayPoint(true);
  p.setName("Summit");
  p.setSymbol("Flag");
  p.setTags("peak");
  p.setGeocache(std::make_shared<Geocache>());
  p.addTrackPhoto(TrackPhoto::trackPhotoWithFilepath("/p/a.jpg"));
  track.setIsDirty(false);
  p.removeAllWaypointData();
  EXPECT_FALSE(p.name());
  EXPECT_FALSE(p.symbol());
  EXPECT_FALSE(p.geocache());
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
  s->setLatitude(47.5);
  s->setLongitude(8.25);
  s->setElevation(512);
  s->setSpeed(12.5);
  s->setLength(0.3);
  s->setIsWayPoint(true);
  s->setIsEndOfSegment(true);
  s->setName("Hut");
  s->setUrl("http://example.invalid/hut");
  s->setTags("food");
  auto cache = std::make_shared<Geocache>();
  cache->name = "GC1";
  cache->logs.push_back(std::make_shared<GeocacheLog>());
  s->setGeocache(cache);
  auto photo = TrackPhoto::trackPhotoWithFilepath("/photos/1.jpg");
  photo->setCity("Zurich");
  s->addTrackPhoto(photo);

  auto c = TrackPoint::trackPointWithParent(&target, *s);
  EXPECT_EQ(c->track(), &target);
  EXPECT_EQ(c->time(), s->time());
  EXPECT_EQ(c->latitude(), 47.5);
  EXPECT_EQ(c->longitude(), 8.25);
  EXPECT_EQ(c->elevation(), 512);
  EXPECT_EQ(c->speed(), 12.5);
  EXPECT_EQ(c->length(), 0.0);
  EXPECT_TRUE(c->isWayPoint());
  EXPECT_TRUE(c->isEndOfSegment());
  EXPECT_EQ(c->name(), "Hut");
  EXPECT_EQ(c->url(), "http://example.invalid/hut");
  EXPECT_FALSE(c->tags());
  ASSERT_TRUE(c->geocache());
  EXPECT_NE(c->geocache(), cache);
  EXPECT_EQ(c->geocache()->name, "GC1");
  EXPECT_TRUE(c->geocache()->logs.empty());  // a copied geocache has no logs
  ASSERT_EQ(c->trackPhotos().size(), 1u);
  EXPECT_NE(c->trackPhotos()[0], photo);
  EXPECT_EQ(c->trackPhotos()[0]->city(), "Zurich");
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
  incoming.setLongitude(7);
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
  auto notFoundCache = std::make_shared<Geocache>();
  notFoundCache->yourLogType = 1;
  notFound.setGeocache(notFoundCache);
  notFound.copyWaypointAttributesFrom(incoming);
  EXPECT_EQ(notFound.geocache()->yourLogType, 2);  // taken from the incoming record
}

TEST(PointPhotos, DuplicatesIgnoredAndSortedInsertIgnoresCase) {
  Track track;
  TrackPoint p(&track);
  p.addTrackPhoto(TrackPhoto::trackPhotoWithFilepath("/p/b.jpg"), true);
  p.addTrackPhoto(TrackPhoto::trackPhotoWithFilepath("/p/D.jpg"), true);
  p.addTrackPhoto(TrackPhoto::trackPhotoWithFilepath("/p/a.jpg"), true);
  p.addTrackPhoto(TrackPhoto::trackPhotoWithFilepath("/p/c.jpg"), true);
  p.addTrackPhoto(TrackPhoto::trackPhotoWithFilepath("/p/B.jpg"), true);  // equal ignoring case: after
  p.addTrackPhoto(TrackPhoto::trackPhotoWithFilepath("/p/b.jpg"), true);  // exact duplicate
  p.addTrackPhoto(nullptr);
  std::vector<std::string> paths;
  for (const auto& photo : p.trackPhotos()) paths.push_back(photo->originalFilepath());
  EXPECT_EQ(paths, (std::vector<std::string>{"/p/a.jpg", "/p/b.jpg", "/p/B.jpg", "/p/c.jpg",
                                             "/p/D.jpg"}));
  p.addTrackPhoto(TrackPhoto::trackPhotoWithFilepath("/p/0.jpg"));  // unsorted appends
  EXPECT_EQ(p.trackPhotos().back()->originalFilepath(), "/p/0.jpg");
  EXPECT_EQ(p.getFirstPhoto()->originalFilepath(), "/p/a.jpg");

  std::vector<TrackPhotoPtr> collected;
  p.addTrackPhotos(collected);
  EXPECT_EQ(collected.size(), 6u);
  track.setIsDirty(false);
  for (const auto& photo : collected) p.removeTrackPhoto(photo);
  EXPECT_FALSE(p.hasPhotos());
  EXPECT_TRUE(track.isDirty());
}

TEST(PointPhotos, PhotosOutlivingTheirPointLoseTheBackReference) {
  TrackPhotoPtr photo = TrackPhoto::trackPhotoWithFilepath("/p/x.jpg");
  {
    TrackPoint p;
    p.addTrackPhoto(photo);
    EXPECT_EQ(photo->trackPoint(), &p);
  }
  EXPECT_EQ(photo->trackPoint(), nullptr);
}

TEST(PointGeocacheFile, RemovesTheExternalDescriptionFile) {
  const auto folder = std::filesystem::temp_directory_path() /
                      ("kvtrack-point-" + FileHandling::guid());
  std::filesystem::create_directories(folder / "all_geocaches.gpxx_ext");
  FileHandling::singleton().setUserApplicationSupport(folder.string());
  const auto file = folder / "all_geocaches.gpxx_ext" / "desc000000042.gpxx";
  std::ofstream(file) << "<gpxExt/>";

  TrackPoint p;
  p.removeExternalGpxFile();  // no geocache: nothing
  auto cache = std::make_shared<Geocache>();
  p.setGeocache(cache);
  p.removeExternalGpxFile();  // index -1: nothing
  EXPECT_TRUE(std::filesystem::exists(file));
  cache->indexForGPXExternalFile = 42;
  p.removeExternalGpxFile();
  EXPECT_FALSE(std::filesystem::exists(file));
  p.removeExternalGpxFile();  // missing file is fine
  std::filesystem::remove_all(folder);
}

}  // namespace
}  // namespace kvtrack
