// Matching real photos to tracks by capture time, and the photo record's
// file operations, with the installed exiftool.

#include "kvtrack/photos/PhotoMatching.h"

#include "kvtrack/library/ICloudSynchronizer.h"
#include "kvtrack/photos/TrackPhotoFiles.h"
#include "kvtrack/support/Base64.h"
#include "kvtrack/support/FileHandling.h"
#include "kvtrack/support/KvPreferences.h"
#include "tests/common/TrackBuilders.h"
#include "tests/photos/PhotoWriteSupport.h"

#include <filesystem>

namespace kvtrack {
namespace {

namespace fs = std::filesystem;
using testing::at;
using testing::walk;

std::vector<std::string> pathsOn(const TrackPoint& point) {
  std::vector<std::string> paths;
  for (const auto& photo : point.trackPhotos()) {
    paths.push_back(fs::path(photo->originalFilepath()).filename().string());
  }
  return paths;
}

class PhotoMatchingTest : public testing::PhotoFolderTest {};

TEST_F(PhotoMatchingTest, ReadsTheCameraClockInTheTracksZoneAndAttachesOnceInPathOrder) {
  // 08:00 to 09:00 UTC recorded at +02:00, a point a minute; the camera says
  // 10:30, and the zone written in the file is ignored.
  auto track = walk("Hike", 61, "2012-05-01T10:00:00+02:00");
  const auto path = photo("a.jpg", "2012:05:01 10:30:00", {"OffsetTimeOriginal=-05:00"});
  const std::string clock = "2012:05:01 10:45:10";
  const auto b = photo("b.jpg", clock), upperA = photo("A.jpg", clock), c = photo("c.jpg", clock);
  FoundPhotos found;
  EXPECT_EQ(importPhotos(*track, {b, path, upperA, c}, 0, &found), 4);
  const auto& point = track->trackPoints()[30];
  ASSERT_EQ(pathsOn(*point), std::vector<std::string>{"a.jpg"});
  EXPECT_EQ(point->getFirstPhoto()->trackPoint(), point.get());
  EXPECT_EQ(point->getFirstPhoto()->storedTimeOfPhoto(), at("2012-05-01T10:30:00+02:00"));
  EXPECT_EQ(found.at(path), track);
  EXPECT_EQ(track->photoCount(), 4);
  EXPECT_EQ(pathsOn(*track->trackPoints()[45]), (std::vector<std::string>{"A.jpg", "b.jpg", "c.jpg"}));

  // Again: attached only once, but counted and found every time.
  track->setIsDirty(false);
  FoundPhotos again;
  EXPECT_EQ(importPhotos(*track, {b}, 0, &again), 1);
  EXPECT_EQ(track->trackPoints()[45]->trackPhotos().size(), 3u);
  EXPECT_EQ(again.count(b), 1u);
  EXPECT_TRUE(track->isDirty());

  // The limit counts whole seconds and rejects its own value.
  const auto away29 = photo("29.jpg", "2012:05:01 10:00:29");
  const auto away30 = photo("30.jpg", "2012:05:01 10:00:30");  // the tie goes to 10:01
  const auto before = photo("before.jpg", "2012:05:01 09:59:59");
  EXPECT_EQ(importPhotos(*track, {away30, away29, before}, 30, nullptr), 1);
  EXPECT_EQ(pathsOn(*track->trackPoints()[0]), std::vector<std::string>{"29.jpg"});
  EXPECT_EQ(importPhotos(*track, {away30}, 31, nullptr), 1);
  EXPECT_EQ(pathsOn(*track->trackPoints()[1]), std::vector<std::string>{"30.jpg"});
  // No limit: anything within the span, but never a photo before the track.
  EXPECT_EQ(importPhotos(*track, {before}, 0, nullptr), 0);
}

TEST_F(PhotoMatchingTest, OutsidePhotosGetNewPointsAtTheEnds) {
  auto track = walk("Hike", 3, "2012-05-01T10:00:00+02:00");  // 08:00 to 08:02 UTC
  const auto early = photo("early.jpg", "2012:05:01 09:59:00");
  const auto late = photo("late.jpg", "2012:05:01 10:05:00");
  const auto middle = photo("middle.jpg", "2012:05:01 10:01:30");
  EXPECT_EQ(importPhotos(*track, {early, late}, 0, nullptr), 0);

  addPhotosToBeginningOrEndOfTrack(*track, {early, late, middle});
  const auto points = track->trackPoints();
  ASSERT_EQ(points.size(), 6u);
  EXPECT_EQ(pathsOn(*points.front()), std::vector<std::string>{"early.jpg"});
  EXPECT_EQ(points.front()->time(), at("2012-05-01T09:59:00+02:00"));
  EXPECT_DOUBLE_EQ(points.front()->latitude(), 47.0);
  EXPECT_EQ(pathsOn(*points.back()), std::vector<std::string>{"late.jpg"});
  EXPECT_DOUBLE_EQ(points.back()->latitude(), 47.002);
  EXPECT_DOUBLE_EQ(points.back()->elevation(), 402);
  // Within the span, yet at the first point's position: only "after the end" moves it.
  EXPECT_EQ(pathsOn(*points[3]), std::vector<std::string>{"middle.jpg"});
  EXPECT_DOUBLE_EQ(points[3]->latitude(), 47.0);
  EXPECT_EQ(track->startTime(), at("2012-05-01T09:59:00+02:00"));
  EXPECT_EQ(findFirstPhoto(*track)->originalFilepath(), early);

  std::vector<TrackPhotoPtr> all;
  addTrackPhotos(*track, all);
  EXPECT_EQ(all.size(), 3u);
  removePhotoReferences(*track);
  EXPECT_EQ(findFirstPhoto(*track), nullptr);
}

TEST_F(PhotoMatchingTest, PlaceNamesComeFromTheFileWithTheSideFileWinning) {
  auto track = walk("Hike", 2, "2012-05-01T10:00:00Z");
  const auto path =
      photo("p.jpg", "2012:05:01 10:00:00", {"IPTC:City=Bern", "IPTC:Country-PrimaryLocationName=Schweiz"});
  ASSERT_TRUE(testing::writeTags(scratch.file("p.xmp"), {"XMP:City=Thun"}));
  ASSERT_EQ(importPhotos(*track, {path}, 0, nullptr), 1);
  const TrackPhoto& attached = *findFirstPhoto(*track);
  EXPECT_EQ(attached.city(), "Thun");
  EXPECT_EQ(attached.country(), "Schweiz");
  EXPECT_EQ(TrackPhotos::isoCountryCodeWith3Chars(attached), std::nullopt);

  // Attached to a chosen point: only DateTimeOriginal, in the point's zone, no places.
  auto point = track->trackPoints()[1];
  point->setTimezoneOffsetOfTime(120);
  importPhotos(*point, {path, scratch.file("missing.jpg")});
  ASSERT_EQ(point->trackPhotos().size(), 1u);
  EXPECT_EQ(point->getFirstPhoto()->storedTimeOfPhoto(), at("2012-05-01T10:00:00+02:00"));
  EXPECT_EQ(point->getFirstPhoto()->city(), std::nullopt);
}

class LibraryMatchingTest : public PhotoMatchingTest {
 protected:
  void SetUp() override {
    FileHandling::singleton().setUserApplicationSupport(scratch.file("library"));
    library = TrackLibrary::trackLibraryWithFileHandling(FileHandling::singleton());
  }
  void TearDown() override {
    library.reset();
    TrackLibrary::releaseSingleton();
  }
  TrackLibraryPtr library;
};

TEST_F(LibraryMatchingTest, ConvertsTheCameraClockWithEachCandidateTracksZone) {
  // Both tracks run from 10:00 to 11:00 local time, a day and an ocean apart.
  auto zurich = walk("Zurich", 61, "2012-05-01T10:00:00+02:00");
  auto newYork = walk("New York", 61, "2012-05-02T10:00:00-04:00");
  library->addTrack(zurich);
  library->addTrack(newYork);
  const auto inZurich = photo("z.jpg", "2012:05:01 10:30:00");
  const auto inNewYork = photo("ny.jpg", "2012:05:02 10:15:00");
  const auto nowhere = photo("n.jpg", "2012:05:03 10:00:00");

  FoundPhotos found;
  std::vector<TrackPtr> foundTracks;
  int withoutTrack = 0;
  const int32_t attached =
      importPhotosToAllTracks(*library, {inZurich, inNewYork, nowhere, scratch.file("gone.jpg")}, &found,
                              &foundTracks, [&] { ++withoutTrack; });
  EXPECT_EQ(attached, 2);
  EXPECT_EQ(withoutTrack, 1);  // the missing file has no time and is not reported
  EXPECT_EQ(foundTracks, (std::vector<TrackPtr>{zurich, newYork}));
  EXPECT_EQ(found.at(inNewYork), newYork);
  EXPECT_EQ(pathsOn(*zurich->trackPoints()[30]), std::vector<std::string>{"z.jpg"});
  EXPECT_EQ(pathsOn(*newYork->trackPoints()[15]), std::vector<std::string>{"ny.jpg"});
  EXPECT_EQ(newYork->trackPoints()[15]->getFirstPhoto()->storedTimeOfPhoto(),
            at("2012-05-02T10:15:00-04:00"));

  // Selected tracks: the first without limit, all for photos outside.
  zurich->setIsSelected(true);
  EXPECT_EQ(importPhotosToFirstSelectedTrack(*library, {inZurich}, nullptr), 1);
  addPhotosToBeginningOrEndOfSelectedTracks(*library, {nowhere});
  EXPECT_EQ(pathsOn(*zurich->trackPoints().back()), std::vector<std::string>{"n.jpg"});
  newYork->setIsSelected(false);
  zurich->setIsSelected(false);
  EXPECT_EQ(importPhotosToFirstSelectedTrack(*library, {inZurich}, nullptr), 0);
}

TEST_F(PhotoMatchingTest, FindsItsFileAgainThroughBookmarkAndRenditions) {
  const auto moved = scratch.write("moved.jpg", "jpeg");
  TrackPhoto record(scratch.file("old place.jpg"));
  record.setBase64Bookmark(base64Encode(moved));
  EXPECT_EQ(TrackPhotos::filepath(record), moved);
  EXPECT_EQ(record.originalFilepath(), moved);
  EXPECT_TRUE(TrackPhotos::checkExistenceOfPhotos(record));

  // An iPhoto library keeps masters and previews, often of another extension.
  fs::create_directories(scratch.path() / "Masters/2012");
  fs::create_directories(scratch.path() / "Previews/2012");
  const auto master = scratch.write("Masters/2012/IMG_1.JPG", "jpeg");
  const auto preview = scratch.write("Previews/2012/IMG_1.jpg", "jpeg");
  TrackPhoto inLibrary(master);
  EXPECT_EQ(TrackPhotos::iPhotoOtherFilepath(inLibrary), preview);
  EXPECT_EQ(TrackPhotos::updateiPhotoPreviewPaths({preview, moved}),
            (std::vector<std::string>{master, moved}));

  record.setIsoCountryCode("DE");
  EXPECT_EQ(TrackPhotos::isoCountryCodeWith3Chars(record), "DE ");
  EXPECT_TRUE(TrackPhotos::hasLocationData(record));
}

// A synchronised store that keeps its copies in a folder.
class FolderSynchronizer : public ICloudSynchronizer {
 public:
  explicit FolderSynchronizer(std::string folder) : folder_(std::move(folder)) {}
  std::optional<std::string> urlForPhotoId(const std::string& id) const override {
    return "file://" + folder_ + "/" + id + ".jpg";
  }
  std::optional<std::string> urlForThumbnailPhotoId(const std::string& id) const override {
    return folder_ + "/" + id + "-small.jpg";
  }

 private:
  std::string folder_;
};

TEST_F(PhotoMatchingTest, SynchronisedCopiesAreServedAndDeletedThroughTheHost) {
  Track track;
  auto point = testing::addPoint(track, 47.0, 8.0);
  auto synced = TrackPhoto::trackPhotoWithFilepath(scratch.file("elsewhere.jpg"));
  point->addTrackPhoto(synced);
  synced->setICloudId("ID1");
  const auto copy = scratch.write("ID1.jpg", "jpeg"), thumbnail = scratch.write("ID1-small.jpg", "jpeg");
  KvPreferences& preferences = KvPreferences::singleton();
  preferences.setICloudSynchronizer(std::make_shared<FolderSynchronizer>(scratch.path().string()));
  EXPECT_EQ(TrackPhotos::filepath(*synced), scratch.file("elsewhere.jpg"));  // iCloud is off
  preferences.setICloudSupported(true);
  EXPECT_EQ(TrackPhotos::filepath(*synced), copy);
  track.setIsDirty(false);
  TrackPhotos::deleteFromiCloud(*synced);
  EXPECT_FALSE(fs::exists(copy) || fs::exists(thumbnail));
  EXPECT_EQ(synced->iCloudId(), std::nullopt);
  EXPECT_TRUE(track.isDirty());
  preferences.setICloudSupported(std::nullopt);
  preferences.setICloudSynchronizer(nullptr);
}

TEST(PhotoInterpolationTest, LinearBetweenTwoPointsAndZeroOutside) {
  Track track;
  auto p = testing::addPoint(track, 47.0, 8.0, "2012-05-01T10:00:00Z", 400);
  auto n = testing::addPoint(track, 48.0, 10.0, "2012-05-01T10:01:40Z", 500);
  // Time, the second point, found, latitude, longitude, elevation.
  const std::tuple<const char*, TrackPoint*, bool, double, double, double> cases[] = {
      {"2012-05-01T10:00:25Z", n.get(), true, 47.25, 8.5, 425},
      {"2012-05-01T10:01:40Z", n.get(), true, 48.0, 10.0, 500},
      {"2012-05-01T10:02:00Z", n.get(), false, 0, 0, 0},
      {"2012-05-01T10:00:00Z", p.get(), false, 0, 0, 0}};
  for (const auto& [time, next, found, latitude, longitude, elevation] : cases) {
    double lon = -1, lat = -1, ele = -1;
    EXPECT_EQ(TrackPhotos::interpolateForDate(at(time), p.get(), next, lon, lat, ele), found) << time;
    EXPECT_EQ(std::tuple(lat, lon, ele), std::tuple(latitude, longitude, elevation)) << time;
  }
}

}  // namespace
}  // namespace kvtrack
