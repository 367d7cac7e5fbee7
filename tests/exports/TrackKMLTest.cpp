// KML and KMZ as Google Earth's neighbours read them: GDAL, gpsbabel, unzip,
// libvips' own header reader and exiftool, on files made by the tests.
#include "kvtrack/exports/LibraryKML.h"
#include "kvtrack/exports/TrackKML.h"
#include "kvtrack/model/TrackPoint.h"
#include "kvtrack/photos/PhotoHooks.h"
#include "kvtrack/support/ExternalProgram.h"
#include "kvtrack/support/FileHandling.h"
#include "tests/common/ScratchFolder.h"
#include "tests/common/TrackBuilders.h"
#include "tests/photos/PhotoTestSupport.h"

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <regex>

namespace kvtrack::testing {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;

std::string output(const std::string& command) {
  const ShellOutput result = runShellCommandReadingOutput(command);
  EXPECT_EQ(result.status, 0) << command;
  return result.output;
}

size_t occurrences(const std::string& text, const std::string& fragment) {
  size_t count = 0;
  for (size_t at = text.find(fragment); at != std::string::npos; at = text.find(fragment, at + 1)) {
    ++count;
  }
  return count;
}

class TrackKMLTest : public ::testing::Test {
 protected:
  void SetUp() override {
    installPhotoHooks();
    FileHandling::singleton().setUserApplicationSupport(scratch.file("library"));
  }

  /// A black JPEG (or other format, by extension) of the size, made by libvips.
  std::string image(const std::string& name, int width, int height,
                    const std::vector<std::string>& tags = {}) const {
    const std::string path = scratch.file(name);
    EXPECT_EQ(runShellCommand(fmt::format("vips black {} {} {} --bands 3",
                                          FileHandling::filenameForShell(path), width, height)),
              0);
    EXPECT_TRUE(writeTags(path, tags));
    return path;
  }

  static void attach(const TrackPointPtr& point, const std::string& path) {
    auto photo = TrackPhoto::trackPhotoWithFilepath(path);
    photo->setTimeOfPhoto(at("2012-05-01T10:00:30Z"));
    point->addTrackPhoto(photo);
  }

  /// Five track points and two waypoints; one point has no elevation.
  static TrackPtr sampleTrack() {
    auto track = Track::trackWithName("Ridge & <Valley>");
    track->setIsLoaded(true);
    for (int i = 0; i < 5; ++i) addTimedPoint(*track, i * 60, 47.0 + i * 0.01, 8.0 + i * 0.01);
    track->trackPoints()[2]->setElevation(NAN);
    track->trackPoints()[3]->setElevation(-12.9);
    addWaypoint(*track, 47.005, 8.005, "Hut \"Alpha\"");
    addWaypoint(*track, 47.015, 8.015, "Spring");
    return track;
  }

  ScratchFolder scratch;
};

TEST_F(TrackKMLTest, DocumentReadsInGdalAndGpsbabel) {
  const auto track = sampleTrack();
  TrackKMLConfiguration configuration;
  configuration.includePhotos = false;
  attach(track->trackPoints()[1], image("ignored.jpg", 64, 48));
  const std::string path = scratch.file("ridge.kml");
  ASSERT_TRUE(TrackKML(track, configuration).exportTo(path, false));

  const std::string text = ScratchFolder::read(path);
  // Styles first, camera style even without photos, then pins, then the line.
  size_t last = 0;
  for (const char* fragment : {"<Style id=\"trackstyle\">", "<Style id=\"camerastyle\">",
                               "<Style id=\"waypointstyle\">", "#waypointstyle</styleUrl>", "<LineString>"}) {
    last = text.find(fragment, last);
    ASSERT_NE(last, std::string::npos) << fragment << " missing or out of order";
  }
  EXPECT_THAT(text, Not(HasSubstr("#camerastyle")));
  EXPECT_THAT(text, HasSubstr("\t\t\t8.020000,47.020000,-2147483648\n"));
  EXPECT_THAT(text, HasSubstr("\t\t\t8.030000,47.030000,-12\n"));
  EXPECT_THAT(text, HasSubstr("<coordinates>8.005000,47.005000,0</coordinates>"));

  const std::string gdal = output("ogrinfo -ro -al -q " + FileHandling::filenameForShell(path));
  for (const char* name : {"Hut \"Alpha\"", "Spring", "Ridge & <Valley>", "LINESTRING"}) {
    EXPECT_THAT(gdal, HasSubstr(name));
  }

  const std::string gpx = scratch.file("ridge.gpx");
  output(fmt::format("gpsbabel -i kml -f {} -o gpx -F {}", FileHandling::filenameForShell(path),
                     FileHandling::filenameForShell(gpx)));
  const std::string converted = ScratchFolder::read(gpx);
  EXPECT_EQ(occurrences(converted, "<wpt "), 2u) << converted;
  EXPECT_EQ(occurrences(converted, "<trkpt ") + occurrences(converted, "<rtept "), 7u) << converted;
}

TEST_F(TrackKMLTest, KmzHoldsScaledPhotosNumberedAcrossTheTrack) {
  auto track = sampleTrack();
  const auto points = track->trackPoints();
  attach(points[0], image("big.jpg", 4000, 3000, {"DateTimeOriginal=2012:05:01 12:00:30", "Make=Testcam"}));
  attach(points[0], scratch.file("missing.jpg"));
  attach(points[1], image("small.jpg", 640, 480));
  attach(points[3], image("scan.tif", 800, 600));
  attach(points[4], scratch.write("broken.jpg", "not an image at all"));
  attach(points[4], image("upright.jpg", 4000, 3000, {"Orientation#=6"}));
  points[1]->trackPhotos()[0]->setCity("Zermatt");
  points[1]->trackPhotos()[0]->setCountry("Switzerland");

  // A hostile name must reach zip as one harmless word.
  const std::string target = scratch.file("it's $(touch pwned) `id`.kmz");
  const ExportOutcome exported = TrackKML(track, TrackKMLConfiguration()).exportTo(target, true);
  ASSERT_TRUE(exported) << exported.reason();
  EXPECT_FALSE(std::filesystem::exists(scratch.file("pwned")));
  ASSERT_EQ(exported.warnings.size(), 2u);
  EXPECT_THAT(exported.warnings[0], HasSubstr("cannot open image " + scratch.file("missing.jpg")));
  EXPECT_THAT(exported.warnings[1], HasSubstr("cannot open image " + scratch.file("broken.jpg")));

  const std::string quoted = FileHandling::filenameForShell(target);
  EXPECT_THAT(output("unzip -t " + quoted), HasSubstr("No errors detected"));
  const std::string listing = output("unzip -Z1 " + quoted + " | LC_ALL=C sort");
  EXPECT_EQ(listing,
            "image00000.jpg\nimage00002.jpg\nimage00003.jpg.jpg\nimage00005.jpg\n"
            "it's $(touch pwned) `id`.kml\n")
      << "numbers count every photo, also those left out";

  const std::string unpacked = scratch.file("unpacked");
  output(fmt::format("unzip -q {} -d {}", quoted, FileHandling::filenameForShell(unpacked)));
  auto size = [&](const std::string& name) {
    const std::string file = FileHandling::filenameForShell(unpacked + "/" + name);
    std::string text = output("vipsheader -f width " + file) + "x" + output("vipsheader -f height " + file);
    text.erase(std::remove(text.begin(), text.end(), '\n'), text.end());
    return text;
  };
  EXPECT_EQ(size("image00000.jpg"), "1024x768");
  EXPECT_EQ(size("image00002.jpg"), "640x480");
  EXPECT_EQ(size("image00003.jpg.jpg"), "800x600");
  EXPECT_EQ(size("image00005.jpg"), "1024x768") << "stored pixels stay as they are";
  EXPECT_EQ(readTag(unpacked + "/image00000.jpg", "Make"), "Testcam");
  EXPECT_EQ(readTag(unpacked + "/image00000.jpg", "DateTimeOriginal", false), "2012:05:01 12:00:30");
  EXPECT_EQ(readTag(unpacked + "/image00005.jpg", "Orientation"), "6");

  const std::string kml = ScratchFolder::read(unpacked + "/it's $(touch pwned) `id`.kml");
  EXPECT_EQ(occurrences(kml, "#camerastyle</styleUrl>"), 4u);
  EXPECT_THAT(kml, HasSubstr("&lt;img src=\"image00000.jpg\" width=1024 height=768 /&gt;"));
  EXPECT_THAT(kml, HasSubstr("&lt;img src=\"image00002.jpg\" width=640 height=480 /&gt;"
                             "&lt;p&gt;Zermatt, Switzerland&lt;/p&gt;"));
  EXPECT_THAT(kml, HasSubstr("&lt;img src=\"image00003.jpg.jpg\" width=800 height=600 /&gt;"));
  EXPECT_THAT(kml, HasSubstr("&lt;img src=\"image00005.jpg\" width=768 height=1024 /&gt;"))
      << "a photo shown turned by a quarter swaps its size";
  EXPECT_THAT(output("ogrinfo -ro -al -q " + quoted), HasSubstr("image00002.jpg"));
}

TEST_F(TrackKMLTest, PlainKmlShowsPhotosFromTheirFiles) {
  auto track = sampleTrack();
  const std::string photo = image("Walk.JPG", 2000, 3000);
  attach(track->trackPoints()[1], photo);
  const std::string path = scratch.file("walk.kml");
  ASSERT_TRUE(exportKml(track, path, true, false));
  const std::string text = ScratchFolder::read(path);
  // Limited to 1024 x 1024 whatever the preferences say.
  EXPECT_THAT(text, HasSubstr(fmt::format("&lt;img src=\"{}\" width=682 height=1024 /&gt;", photo)));
  EXPECT_THAT(text, HasSubstr("<coordinates>8.010000,47.010000,0</coordinates>"));
  EXPECT_FALSE(std::filesystem::exists(scratch.file("library/kml"))) << "no scratch folder for KML";

  ASSERT_TRUE(exportKml(track, path, false, false));
  EXPECT_THAT(ScratchFolder::read(path), Not(HasSubstr("#camerastyle</styleUrl>")));
}

TEST_F(TrackKMLTest, UnwritableTargetFailsAndKeepsNothingHalfDone) {
  const auto track = sampleTrack();
  EXPECT_THAT(
      TrackKML(track, TrackKMLConfiguration()).exportTo(scratch.file("no/such/x.kml"), false).reason(),
      HasSubstr(scratch.file("no/such/x.kml")));
  EXPECT_THAT(TrackKML(track, TrackKMLConfiguration()).exportTo(scratch.file("no/such/x.kmz"), true).reason(),
              HasSubstr("zip"));
  EXPECT_FALSE(std::filesystem::exists(scratch.file("no")));
}

TEST_F(TrackKMLTest, TheFirstSelectedTrackOfAFolderTreeIsExported) {
  auto folder = TrackLibraryFolder::trackLibraryFolder("Trips");
  auto other = Track::trackWithName("Other");
  other->setIsLoaded(true);
  folder->addTrack(other);
  EXPECT_EQ(exportSelectedKML(*folder, scratch.file("none.kml")).reason(), "no track is selected");
  EXPECT_FALSE(std::filesystem::exists(scratch.file("none.kml")));

  auto inner = TrackLibraryFolder::trackLibraryFolder("Alps");
  folder->addFolder(inner);
  auto chosen = sampleTrack();
  inner->addTrack(chosen);
  chosen->setIsSelected(true);
  ASSERT_TRUE(exportSelectedKML(*folder, scratch.file("chosen.kml")));
  EXPECT_THAT(ScratchFolder::read(scratch.file("chosen.kml")), HasSubstr("Ridge &amp; &lt;Valley&gt;"));
  ASSERT_TRUE(exportSelectedKMZ(*folder, scratch.file("chosen.kmz")));
  EXPECT_THAT(output("unzip -l " + FileHandling::filenameForShell(scratch.file("chosen.kmz"))),
              HasSubstr("chosen.kml"));
}

}  // namespace
}  // namespace kvtrack::testing
