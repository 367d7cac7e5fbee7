// Tracks leaving the library: GPX export read back by wayfolio, KML, KMZ,
// CSV and zip read back by GDAL, unzip and Python's csv module, gpsbabel
// conversion, and view's HTML page (what a browser makes of the page is
// tested in tests/view).
#include "tests/cli/WayfolioFixture.h"

#include <fmt/format.h>

namespace kvtrack::testing {
namespace {

namespace fs = std::filesystem;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

class ExportTest : public WayfolioTest {
 protected:
  void SetUp() override { importExamples(); }

  std::string shell(const std::string& command) const {
    const ShellOutput result = runShellCommandReadingOutput(command);
    EXPECT_EQ(result.status, 0) << command;
    return result.output;
  }
  // show without the line that names the library's own file.
  static std::string figures(std::string shown) {
    const size_t file = shown.find("File:");
    return shown.erase(file, shown.find('\n', file) - file + 1);
  }
  // wayfolio view with its cache folder, and a PATH whose xdg-open writes
  // the argument it got into opened.txt.
  WayfolioRun view(const std::string& arguments) const {
    fs::create_directories(scratch.file("bin"));
    const std::string opener = scratch.write(
        "bin/xdg-open", "#!/bin/sh\nprintf '%s' \"$1\" > " + word(scratch.file("opened.txt")) + "\n");
    fs::permissions(opener, fs::perms::owner_all);
    return runProgram("XDG_CACHE_HOME=" + word(scratch.file("cache")) + " PATH=" + word(scratch.file("bin")) +
                          ":\"$PATH\" " + word(WAYFOLIO_BINARY),
                      library(), "view " + arguments);
  }
};

// A track, and a folder with all its tracks in one file.
TEST_F(ExportTest, ExportedGpxImportsAsTheSameTracks) {
  const std::string file = scratch.file("hike $(touch pwned).gpx");
  ok(std::string("export ") + kHike + " --gpx " + word(file));
  const std::string other = scratch.file("other library");
  EXPECT_THAT(runOn(other, "import " + word(file)).out, HasSubstr("1 tracks added"));
  EXPECT_EQ(figures(runOn(other, std::string("show ") + kHike).out),
            figures(ok(std::string("show ") + kHike)));
  EXPECT_EQ(runOn(other, std::string("points ") + kHike).out, ok(std::string("points ") + kHike));
  EXPECT_FALSE(fs::exists(scratch.file("pwned")));

  ok("mkdir Switzerland");
  ok(std::string("mv ") + kHike + " " + word("Lake walk") + " Switzerland");
  const std::string folder = scratch.file("switzerland.gpx");
  ok("export Switzerland --gpx " + word(folder));
  const std::string third = scratch.file("third library");
  EXPECT_THAT(runOn(third, "import " + word(folder)).out, HasSubstr("2 tracks added"));
  const std::string tree = runOn(third, "tree").out;
  EXPECT_THAT(tree, HasSubstr("Bachalpsee hike"));
  EXPECT_THAT(tree, HasSubstr("Lake walk"));
  EXPECT_THAT(tree, Not(HasSubstr("Rhine ride")));

  const std::string nowhere = scratch.file("no such folder/ride.gpx");
  const WayfolioRun failed = run("export " + word("Rhine ride") + " --gpx " + word(nowhere));
  EXPECT_EQ(failed.status, 1);
  EXPECT_EQ(failed.err, "wayfolio: error: cannot write " + nowhere + ": No such file or directory\n");
}

// A big photo during the hike (recorded at +02:00) and one that then goes missing.
TEST_F(ExportTest, KmzKmlCsvAndViewOfOneTrackWithPhotos) {
  const std::string big = scratch.file("photos/big.jpg");
  fs::create_directories(scratch.file("photos"));
  ASSERT_EQ(runShellCommand("vips black " + word(big) + " 4000 3000 --bands 3"), 0);
  ASSERT_TRUE(writeTags(big, {"DateTimeOriginal=2024:06:15 08:12:00"}));
  const std::string gone = photo("gone.jpg", "2024:06:15 09:00:00");
  ok("geotag " + photos());
  fs::remove(gone);

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
      "delimiter=\";\")); print(len(r)-1, r[0][0], r[0][4])' " +
      word(csv));
  EXPECT_EQ(rows, fmt::format("{} Index Elevation (m)\n", lineCount(ok(std::string("points ") + kHike)) - 1))
      << "one row per point, as points lists them below its title line";

  // The page goes to the cache folder; the missing photo is named and still marked.
  const WayfolioRun viewed = view(kHike);
  ASSERT_EQ(viewed.status, 0) << viewed.err;
  const std::string page = scratch.file("cache/wayfolio/view/Bachalpsee hike.html");
  EXPECT_THAT(viewed.out, StartsWith(page + "\n"));
  EXPECT_THAT(viewed.out, HasSubstr("1 track, 41 points"));
  EXPECT_THAT(viewed.out, HasSubstr(" 2 photos,"));
  EXPECT_THAT(viewed.err, HasSubstr("warning: photo " + gone + " cannot be read"));
  EXPECT_THAT(ScratchFolder::read(page), StartsWith("<!DOCTYPE html>"));
}

TEST_F(ExportTest, ZipViewAndConvertOfFolders) {
  ok("mkdir Switzerland");
  ok(std::string("mv ") + kHike + " " + word("Lake walk") + " Switzerland");
  const std::string archive = scratch.file("all tracks.zip");
  EXPECT_EQ(ok("zip " + word(archive) + " --folder / --subfolders"),
            "Wrote 3 tracks as GPX to " + archive + "\n");
  EXPECT_EQ(shell("unzip -Z1 " + word(archive) + " | LC_ALL=C sort"),
            "Bachalpsee hike.gpx\nLake walk.gpx\nRhine ride.gpx\n");
  ok("zip " + word(archive) + " --folder Switzerland --track " + word("Rhine ride") + " --kml --photos");
  EXPECT_THAT(shell("unzip -t " + word(archive)), HasSubstr("No errors detected"));
  EXPECT_EQ(shell("unzip -Z1 " + word(archive) + " | LC_ALL=C sort"),
            "Bachalpsee hike.kmz\nLake walk.kmz\nRhine ride.kmz\n");
  EXPECT_THAT(run("zip " + word(archive)).err, HasSubstr("nothing to archive"));
  EXPECT_THAT(run("export Switzerland --kml " + word(scratch.file("x.kml"))).err,
              HasSubstr("only --gpx exports a whole folder"));
  const WayfolioRun unwritable = run("zip " + word(scratch.file("missing/a.zip")) + " --folder Switzerland");
  EXPECT_EQ(unwritable.status, 1);
  EXPECT_THAT(unwritable.err, HasSubstr("wayfolio: error: cannot write " + scratch.file("missing/a.zip")));

  // A file name with quotes and blanks reaches xdg-open whole.
  const std::string chosen = scratch.file("it's a \"view\" $(x).html");
  const WayfolioRun opened = view("/ --html " + word(chosen) + " --open");
  ASSERT_EQ(opened.status, 0) << opened.err;
  EXPECT_THAT(opened.out, StartsWith(chosen + "\n"));
  EXPECT_THAT(opened.out, HasSubstr("3 tracks"));
  EXPECT_EQ(ScratchFolder::read(scratch.file("opened.txt")), chosen);
  ok("mkdir Empty");
  const WayfolioRun empty = view("Empty");
  EXPECT_EQ(empty.status, 1);
  EXPECT_THAT(empty.err, HasSubstr("folder 'Empty' holds no tracks to view"));
  const std::string nowhere = scratch.file("missing/folder/view.html");
  const WayfolioRun unwritableView = view("'Rhine ride' --html " + word(nowhere));
  EXPECT_EQ(unwritableView.status, 1);
  EXPECT_THAT(unwritableView.err, HasSubstr("wayfolio: error:"));
  EXPECT_FALSE(fs::exists(nowhere));
  EXPECT_EQ(view("'No such walk'").status, 1);

  const std::string gpx = scratch.file("lake `touch pwned`.gpx");
  ok("convert " + word(examples("lake-walk.kml")) + " " + word(gpx) + " --format kml");
  EXPECT_EQ(lineCount(shell("grep -o '<trkpt' " + word(gpx))), 12u);
  const std::string bad = scratch.write("bad.tcx", "no XML at all");
  const WayfolioRun failed =
      run("convert " + word(bad) + " " + word(scratch.file("out.gpx")) + " --format gtrnctr");
  EXPECT_EQ(failed.status, 1);
  EXPECT_THAT(failed.err,
              StartsWith("wayfolio: error: gpsbabel could not read " + bad + " as gtrnctr (status 1): "));
  EXPECT_EQ(lineCount(failed.err), 1u);  // one message
}

}  // namespace
}  // namespace kvtrack::testing
