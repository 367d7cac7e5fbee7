// Writing positions, places, keywords and times into real photos with the
// installed exiftool, checked by reading the files back.

#include "kvtrack/photos/ExifWriter.h"

#include "kvtrack/photos/ExifTool.h"
#include "kvtrack/support/KvPreferences.h"
#include "tests/common/ScopedEnvironment.h"
#include "tests/common/TrackBuilders.h"
#include "tests/photos/PhotoWriteSupport.h"

#include <sys/stat.h>

#include <chrono>
#include <filesystem>

namespace kvtrack {
namespace {

namespace fs = std::filesystem;
using testing::readTag;
using testing::readTags;
using testing::ScratchFolder;

class ExifWriterTest : public testing::PhotoFolderTest {
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
  std::vector<PhotoAtPosition> batch;
  for (int i = 0; i < 9; ++i) {
    const bool bad = i == 4 || i == 6;
    const std::string path = bad ? scratch.write(fmt::format("bad{}.jpg", i), broken)
                                 : photo(fmt::format("p{}.jpg", i), "2012:05:01 10:30:00");
    if (!bad) fs::last_write_time(path, old);
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
  const std::string alone = photo("alone.jpg", "2012:05:01 10:30:00");
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
