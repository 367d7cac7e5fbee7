// export --kml/--kmz/--csv and zip on the bundled tracks, read back with
// GDAL, unzip and Python's csv module.
#include "tests/cli/WayfolioFixture.h"
#include "tests/photos/PhotoTestSupport.h"

#include <gmock/gmock.h>

#include <fmt/format.h>

namespace kvtrack::testing {
namespace {

using ::testing::HasSubstr;
using ::testing::StartsWith;

class ExportFormatsTest : public WayfolioTest {
 protected:
  void SetUp() override { importExamples(); }

  std::string shell(const std::string& command) const {
    const ShellOutput result = runShellCommandReadingOutput(command);
    EXPECT_EQ(result.status, 0) << command;
    return result.output;
  }
  static constexpr const char* kHike = "'Bachalpsee hike'";
};

TEST_F(ExportFormatsTest, KmzKmlAndCsvOfOneTrack) {
  // A big photo during the hike (recorded at +02:00) and one that then goes missing.
  const std::string big = scratch.file("photos/big.jpg");
  std::filesystem::create_directories(scratch.file("photos"));
  ASSERT_EQ(runShellCommand("vips black " + word(big) + " 4000 3000 --bands 3"), 0);
  ASSERT_TRUE(writeTags(big, {"DateTimeOriginal=2024:06:15 08:12:00"}));
  ASSERT_TRUE(makeJpeg(scratch.file("photos/gone.jpg"), {"DateTimeOriginal=2024:06:15 09:00:00"}));
  ok("geotag " + word(scratch.file("photos")));
  std::filesystem::remove(scratch.file("photos/gone.jpg"));

  const std::string kmz = scratch.file("hike.kmz");
  const WayfolioRun exported = run(std::string("export ") + kHike + " --kmz " + word(kmz));
  EXPECT_EQ(exported.status, 0);
  EXPECT_THAT(exported.err, HasSubstr("warning: cannot open image"));
  EXPECT_THAT(exported.err, HasSubstr("gone.jpg"));
  EXPECT_EQ(shell("unzip -Z1 " + word(kmz) + " | LC_ALL=C sort"), "hike.kml\nimage00000.jpg\n");
  EXPECT_THAT(shell("unzip -p " + word(kmz) + " hike.kml"),
              HasSubstr("&lt;img src=\"image00000.jpg\" width=1024 height=768 /&gt;"));

  const std::string kml = scratch.file("hike.kml");
  ok(std::string("export ") + kHike + " --kml " + word(kml) + " --no-photos");
  // Two waypoints and the track line.
  EXPECT_THAT(shell("ogrinfo -ro -al -so " + word(kml)), HasSubstr("Feature Count: 3"));

  const std::string csv = scratch.file("hike.csv");
  ok(std::string("export ") + kHike + " --csv " + word(csv));
  const std::string rows = shell(
      "python3 -c 'import csv,sys; r=list(csv.reader(open(sys.argv[1],encoding=\"utf-16\"),"
      "delimiter=\";\")); print(len(r)-1, r[0][0], r[0][4])' " + word(csv));
  const std::string points = ok(std::string("points ") + kHike);
  EXPECT_EQ(rows, fmt::format("{} Index Elevation (m)\n", lineCount(points) - 1))
      << "one row per point, as points lists them below its title line";
}

TEST_F(ExportFormatsTest, ZipOfFoldersAndTracks) {
  ok("mkdir Switzerland");
  ok("mv " + word("Bachalpsee hike") + " " + word("Lake walk") + " Switzerland");
  const std::string archive = scratch.file("all tracks.zip");
  EXPECT_EQ(ok("zip " + word(archive) + " --folder / --subfolders"),
            "Wrote 3 tracks as GPX to " + archive + "\n");
  EXPECT_EQ(shell("unzip -Z1 " + word(archive) + " | LC_ALL=C sort"),
            "Bachalpsee hike.gpx\nLake walk.gpx\nRhine ride.gpx\n");

  ok("zip " + word(archive) + " --folder Switzerland --track " + word("Rhine ride") +
     " --kml --photos");
  EXPECT_THAT(shell("unzip -t " + word(archive)), HasSubstr("No errors detected"));
  EXPECT_EQ(shell("unzip -Z1 " + word(archive) + " | LC_ALL=C sort"),
            "Bachalpsee hike.kmz\nLake walk.kmz\nRhine ride.kmz\n");

  EXPECT_THAT(run("zip " + word(archive)).err, HasSubstr("nothing to archive"));
  EXPECT_THAT(run("export Switzerland --kml " + word(scratch.file("x.kml"))).err,
              HasSubstr("only --gpx exports a whole folder"));
  const WayfolioRun unwritable =
      run("zip " + word(scratch.file("missing/a.zip")) + " --folder Switzerland");
  EXPECT_EQ(unwritable.status, 1);
  EXPECT_THAT(unwritable.err, HasSubstr("wayfolio: error: cannot write " + scratch.file("missing/a.zip")));
}

}  // namespace
}  // namespace kvtrack::testing
