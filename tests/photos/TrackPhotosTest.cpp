// Photos of tracks with the installed exiftool and small real JPEG and TIFF
// files: matched to tracks by capture time, found again, and written with
// positions, places, keywords and times that are read back.

#include "kvtrack/library/ICloudSynchronizer.h"
#include "kvtrack/photos/ExifTool.h"
#include "kvtrack/photos/ExifWriter.h"
#include "kvtrack/photos/PhotoHooks.h"
#include "kvtrack/photos/PhotoMatching.h"
#include "kvtrack/photos/TrackPhotoFiles.h"
#include "kvtrack/support/Base64.h"
#include "kvtrack/support/FileHandling.h"
#include "kvtrack/support/KvPreferences.h"
#include "kvtrack/support/Log.h"
#include "tests/common/ScopedEnvironment.h"
#include "tests/common/ScratchFolder.h"
#include "tests/common/TrackBuilders.h"
#include "tests/photos/PhotoTestSupport.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <chrono>
#include <filesystem>

namespace kvtrack {
namespace {

namespace fs = std::filesystem;
using testing::at;
using testing::readTag;
using testing::readTags;
using testing::ScratchFolder;
using testing::walk;

// A scratch folder of real photos, with exiftool reading capture times for
// TrackPhoto.
class PhotoFolderTest : public ::testing::Test {
 protected:
  PhotoFolderTest() {
    installPhotoHooks();
    setLogToStandardError(false);  // every exiftool command line is logged
  }
  ~PhotoFolderTest() override { setLogToStandardError(true); }

  /// A JPEG whose camera clock read the given wall-clock time
  /// ("2012:05:01 10:30:00"), plus further exiftool assignments.
  std::string photo(const std::string& name, const std::string& wallClock,
                    std::vector<std::string> tags = {}) {
    const std::string path = scratch.file(name);
    if (!wallClock.empty()) tags.push_back("DateTimeOriginal=" + wallClock);
    EXPECT_TRUE(testing::makeJpeg(path, tags)) << name;
    return path;
  }

  ScratchFolder scratch;
};

std::vector<std::string> pathsOn(const TrackPoint& point) {
  std::vector<std::string> paths;
  for (const auto& photo : point.trackPhotos()) {
    paths.push_back(fs::path(photo->originalFilepath()).filename().string());
  }
  return paths;
}

using PhotoMatchingTest = PhotoFolderTest;

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

class ExifWriterTest : public PhotoFolderTest {
 protected:
  void TearDown() override { KvPreferences::singleton().setRawFileMode(std::nullopt); }

  /// A photo attached to a point of the track at that position.
  TrackPhotoPtr attached(const std::string& path, double latitude, double longitude, double elevation = 0.0) {
    auto point = testing::addPoint(track, latitude, longitude, "2012-05-01T10:00:00+02:00", elevation);
    auto photo = TrackPhoto::trackPhotoWithFilepath(path);
    photo->setTimeOfPhoto(testing::at("2012-05-01T10:30:00+02:00"));
    point->addTrackPhoto(photo);
    return photo;
  }
  static std::string read(const std::string& path) { return ScratchFolder::read(path); }

  Track track;
};

TEST_F(ExifWriterTest, PositionArgumentsFollowTheirTemplates) {
  const auto path = photo("a.jpg", "");
  const std::string bytes = read(path);
  auto south = attached(path, -33.5, 151.25, 12.7);
  ExifWriter dry(true);
  dry.updateExifForGPSLocation(*south, true, false, true, false);
  ASSERT_EQ(dry.commandLines().size(), 1u);
  const std::string& line = dry.commandLines()[0];
  EXPECT_NE(line.find(" -m -codedcharacterset=UTF8  \"-GPSLatitudeRef=S\" \"-GPSLatitude=33.500000S\" "
                      "\"-GPSLongitudeRef=E\" \"-GPSLongitude=151.250000E\" "
                      "\"-GPSAltitudeRef=Above Sea Level\" \"-GPSAltitude=12\"  " +
                      FileHandling::filenameForShell(path) + " -o " +
                      FileHandling::filenameForShell(ExifWriter::temporaryFile())),
            std::string::npos)
      << line;
  EXPECT_EQ(line.find("keywords"), std::string::npos);  // keywords go with places only

  dry.updateExifForGPSLocation(*south, true, false, false, false, "", true, 0.0, 0.0, -3.9);
  EXPECT_TRUE(dry.commandLines().size() == 1) << "a missing file gets no command";
  dry.updateExifForGPSLocation(*south, true, false, false, false, path, true, 0.0, 0.0, -3.9);
  EXPECT_NE(dry.commandLines()[1].find("\"-GPSLatitude=0.000000S\" \"-GPSLongitudeRef=W\" "
                                       "\"-GPSLongitude=0.000000W\" \"-GPSAltitudeRef=Below Sea "
                                       "Level\" \"-GPSAltitude=3\""),
            std::string::npos);
  dry.updateExifForGPSLocation(*south, true, false, false, false, path, true, 1.0, 1.0, 0.0);
  EXPECT_EQ(dry.commandLines()[2].find("GPSAltitude"), std::string::npos);
  EXPECT_EQ(read(path), bytes);  // a dry run runs nothing
}

TEST_F(ExifWriterTest, TheTemporaryFileStaysInAPrivateFolder) {
  const std::string sandbox = FileHandling::singleton().sandbox() + "/exiftool.img";
  {
    testing::ScopedEnvironment none("TMPDIR", std::nullopt);
    EXPECT_EQ(ExifWriter::temporaryFile(), sandbox);
  }
  {
    testing::ScopedEnvironment shared("TMPDIR", "/tmp/");
    EXPECT_EQ(ExifWriter::temporaryFile(), sandbox);
  }
  ::chmod(scratch.path().c_str(), 0700);
  testing::ScopedEnvironment own("TMPDIR", scratch.path().string() + "/");
  EXPECT_EQ(ExifWriter::temporaryFile(), scratch.file("exiftool.img"));
}

TEST_F(ExifWriterTest, PlacesKeywordsAndTimesReadBack) {
  const auto path = photo("a.jpg", "2011:01:01 00:00:00");
  auto tagged = attached(path, 46.5, 7.5);
  tagged->setCity("Zürich");
  tagged->setState("ZH");
  tagged->setCountry("Schweiz");
  tagged->setIsoCountryCode("CH");
  ExifWriter writer;
  writer.updateExifForGPSLocation(*tagged, false, true, true, true);
  writer.updateExifForGPSLocation(*tagged, false, true, true, true);  // no keyword twice
  // exiftool trims the country code it prints; the position was not asked for.
  EXPECT_EQ(
      readTags(path, {"IPTC:City", "XMP-iptcExt:LocationShownCity", "IPTC:Province-State", "XMP:Country",
                      "XMP-iptcCore:CountryCode", "IPTC:Keywords", "XMP-dc:Subject", "DateTimeOriginal",
                      "CreateDate", "GPSLatitude"}),
      (std::vector<std::string>{"Zürich", "Zürich", "ZH", "Schweiz", "CH", "Zürich, ZH, Schweiz",
                                "Zürich, ZH, Schweiz", "2012:05:01 10:30:00", "2012:05:01 10:30:00", ""}));
  ExifWriter dry(true);
  dry.updateExifForGPSLocation(*tagged, false, true, true, false);
  EXPECT_NE(dry.commandLines()[0].find("\"-XMP-iptcCore:CountryCode=CH \" "), std::string::npos);
  EXPECT_EQ(dry.commandLines()[0].find("keywords-=CH"), std::string::npos);

  // An absent value clears the stale tags.
  tagged->setCity(std::nullopt);
  writer.updateExifForGPSLocation(*tagged, false, true, false, false);
  EXPECT_EQ(readTags(path, {"IPTC:City", "XMP:City", "IPTC:Province-State"}),
            (std::vector<std::string>{"", "", "ZH"}));
}

TEST_F(ExifWriterTest, OtherFormatsGetASideFileByRawFileMode) {
  const auto tiff = scratch.file("raw.tif");
  ASSERT_TRUE(testing::makeTiff(tiff, {"DateTimeOriginal=2012:05:01 10:30:00", "Artist=Ann"}));
  const std::string before = read(tiff);
  const std::string side = scratch.file("raw.xmp");
  auto raw = attached(tiff, 46.5, 7.25);

  KvPreferences::singleton().setRawFileMode(0);
  ExifWriter writer;
  writer.updateExifForGPSLocation(*raw, true, false, false, false);
  EXPECT_EQ(read(tiff), before);
  // -tagsfromfile brought the photo's own tags.
  EXPECT_EQ(readTags(side, {"GPSLatitude", "XMP:Artist"}), (std::vector<std::string>{"46.5", "Ann"}));
  EXPECT_NE(writer.commandLines()[0].find(" -tagsfromfile " + FileHandling::filenameForShell(tiff) +
                                          " -m -codedcharacterset=UTF8 -overwrite_original_in_place "),
            std::string::npos);

  KvPreferences::singleton().setRawFileMode(2);
  raw->setCity("Bern");
  writer.updateExifForGPSLocation(*raw, false, true, false, false);
  EXPECT_EQ(read(tiff), before);
  // Updated in place, not rebuilt.
  EXPECT_EQ(readTags(side, {"XMP:City", "GPSLatitude"}), (std::vector<std::string>{"Bern", "46.5"}));
  EXPECT_EQ(writer.commandLines()[1].find("-tagsfromfile"), std::string::npos);

  KvPreferences::singleton().setRawFileMode(1);  // written directly, like a JPEG
  writer.updateExifForGPSLocation(*raw, true, false, false, false);
  EXPECT_EQ(readTag(tiff, "GPSLongitude"), "7.25");
}

// Written through a copy keeping the modification time; photos exiftool
// cannot write stay as they were, alone or in a batch.
TEST_F(ExifWriterTest, ABatchWritesEveryPhotoButTheOnesExiftoolCannotWrite) {
  const std::string broken = "\xFF\xD8\xFF\xE1 not really a JPEG";
  const auto old = fs::file_time_type::clock::now() - std::chrono::hours(24 * 400);
  const std::string alone = photo("alone.jpg", "2012:05:01 10:30:00");
  std::vector<PhotoAtPosition> batch;
  for (int i = 0; i < 9; ++i) {
    const bool bad = i == 4 || i == 6;
    const std::string path = scratch.file((bad ? "bad" : "p") + std::to_string(i) + ".jpg");
    if (bad) scratch.write(fs::path(path).filename(), broken);
    if (!bad) fs::copy_file(alone, path);
    fs::last_write_time(path, old);
    batch.push_back({attached(path, 46.0 + i, -7.0 - i, 100.0 * i), 46.0 + i, -7.0 - i, 100.0 * i});
  }
  ExifWriter writer;
  const std::vector<std::string> failed = writer.updateExifForGPSLocation(batch, true, false, false, false);
  EXPECT_EQ(failed, (std::vector<std::string>{scratch.file("bad4.jpg"), scratch.file("bad6.jpg")}));
  EXPECT_EQ(std::tuple(writer.written(), writer.failed()), std::tuple(size_t{7}, size_t{2}));
  EXPECT_EQ(std::tuple(read(failed[0]), read(failed[1])), std::tuple(broken, broken));
  for (int i : {0, 3, 8}) {
    const std::string path = scratch.file(fmt::format("p{}.jpg", i));
    const auto tags = ExifTool::exifTagsForFile(path).value_or(ExifTool::Tags{});
    EXPECT_EQ(std::tuple(ExifTool::latitudeFromDictionary(tags), ExifTool::longitudeFromDictionary(tags),
                         ExifTool::elevationFromDictionary(tags)),
              std::tuple(46.0 + i, -7.0 - i, 100.0 * i))
        << path;
    EXPECT_EQ(fs::last_write_time(path), old);
  }
  // The very bytes one photo at a time gives, with its modification time kept.
  fs::last_write_time(alone, old);
  ExifWriter one;
  one.updateExifForGPSLocation(*batch[8].photo, true, false, false, false, alone, true, 54.0, -15.0, 800.0);
  EXPECT_EQ(read(alone), read(scratch.file("p8.jpg")));
  EXPECT_EQ(fs::last_write_time(alone), old);
  one.updateExifForGPSLocation(*batch[4].photo, true, true, true, true);
  EXPECT_EQ(read(failed[0]), broken);
  EXPECT_EQ(std::tuple(one.written(), one.failed()), std::tuple(size_t{1}, size_t{1}));
  TrackPhoto loose(alone);  // no point, no position: not written
  one.updateExifForGPSLocation(loose, true, false, false, false);
  EXPECT_EQ(one.commandLines().size(), 2u);
  for (const auto& entry : fs::directory_iterator(fs::path(ExifWriter::temporaryFile()).parent_path())) {
    EXPECT_FALSE(entry.path().filename().string().starts_with("exiftool")) << entry.path();
  }
  for (const auto& entry : fs::directory_iterator(scratch.path())) {
    EXPECT_FALSE(entry.path().filename().string().starts_with(".")) << entry.path();
  }
}

TEST_F(ExifWriterTest, HostileNamesAndValuesAreWrittenLiterally) {
  const std::string city = "$(touch pwned3) `touch pwned4` \"x\" \\ 'y'";
  const std::vector<std::string> names = {"it's \"quoted\".jpg", "$(touch pwned1).jpg", "`touch pwned2`.jpg",
                                          "two  spaces .jpg",    "new\nline.jpg",       "-leading dash.jpg",
                                          "Zürich ø 東京.jpg",   "a;b|c&d>e.jpg"};
  for (const auto& name : names) attached(photo(name, ""), 47.25, 8.5, 400)->setCity(city);
  ExifWriter writer;
  writer.updateExifForGPSLocation(track, true, true, false, false);  // every point in order
  EXPECT_EQ(writer.written(), names.size());
  for (const auto& name : names) {
    const auto tags = ExifTool::exifTagsForFile(scratch.file(name)).value_or(ExifTool::Tags{});
    EXPECT_EQ(std::tuple(ExifTool::latitudeFromDictionary(tags), ExifTool::cityFromDictionary(tags)),
              std::tuple(47.25, std::optional(city)))
        << name;
  }
  for (const char* planted : {"pwned1", "pwned2", "pwned3", "pwned4"}) {
    EXPECT_FALSE(fs::exists(planted) || fs::exists(scratch.file(planted))) << planted;
  }
}

TEST_F(ExifWriterTest, TheOtherIPhotoRenditionIsWrittenToo) {
  fs::create_directories(scratch.path() / "Masters");
  fs::create_directories(scratch.path() / "Previews");
  const auto master = photo("Masters/IMG_1.jpg", ""), preview = photo("Previews/IMG_1.jpg", "");
  ExifWriter().updateExifForGPSLocation(*attached(master, 46.5, 7.5), true, false, false, false);
  EXPECT_EQ(std::tuple(readTag(master, "GPSLatitude"), readTag(preview, "GPSLatitude")),
            std::tuple("46.5", "46.5"));
}

}  // namespace
}  // namespace kvtrack
