// GPX export and gpsbabel conversion: files leaving the library.
#include "tests/cli/WayfolioFixture.h"

#include <gmock/gmock.h>

namespace kvtrack::testing {
namespace {

using ::testing::HasSubstr;
using ::testing::StartsWith;

class ExchangeTest : public WayfolioTest {
 protected:
  void SetUp() override { importExamples(); }

  // show without the line that names the library's own file.
  static std::string figures(std::string shown) {
    const size_t file = shown.find("File:");
    return shown.erase(file, shown.find('\n', file) - file + 1);
  }
};

// A track, and a folder with all its tracks in one file.
TEST_F(ExchangeTest, ExportedTracksImportAsTheSameTracks) {
  const std::string file = scratch.file("hike $(touch pwned).gpx");
  ok("export " + word("Bachalpsee hike") + " --gpx " + word(file));
  const std::string other = scratch.file("other library");
  EXPECT_THAT(runOn(other, "import " + word(file)).out, HasSubstr("1 tracks added"));
  EXPECT_EQ(figures(runOn(other, "show " + word("Bachalpsee hike")).out),
            figures(ok("show " + word("Bachalpsee hike"))));
  EXPECT_EQ(runOn(other, "points " + word("Bachalpsee hike")).out, ok("points " + word("Bachalpsee hike")));
  EXPECT_FALSE(std::filesystem::exists(scratch.file("pwned")));

  ok("mkdir Switzerland");
  ok("mv " + word("Bachalpsee hike") + " " + word("Lake walk") + " Switzerland");
  const std::string folder = scratch.file("switzerland.gpx");
  ok("export Switzerland --gpx " + word(folder));
  const std::string third = scratch.file("third library");
  EXPECT_THAT(runOn(third, "import " + word(folder)).out, HasSubstr("2 tracks added"));
  const std::string tree = runOn(third, "tree").out;
  EXPECT_THAT(tree, HasSubstr("Bachalpsee hike"));
  EXPECT_THAT(tree, HasSubstr("Lake walk"));
  EXPECT_THAT(tree, ::testing::Not(HasSubstr("Rhine ride")));
}

TEST_F(ExchangeTest, ExportFailsClearlyWhenTheFileCannotBeWritten) {
  const std::string file = scratch.file("no such folder/ride.gpx");
  const WayfolioRun result = run("export " + word("Rhine ride") + " --gpx " + word(file));
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.err, "wayfolio: error: cannot write " + file + ": No such file or directory\n");
}

TEST_F(ExchangeTest, ConvertRunsGpsbabel) {
  const std::string gpx = scratch.file("lake `touch pwned`.gpx");
  ok("convert " + word(examples("lake-walk.kml")) + " " + word(gpx) + " --format kml");
  const std::string text = ScratchFolder::read(gpx);
  size_t points = 0;
  for (size_t at = text.find("<trkpt"); at != std::string::npos; at = text.find("<trkpt", at + 1))
    ++points;
  EXPECT_EQ(points, 12u);

  const std::string bad = scratch.write("bad.tcx", "no XML at all");
  const WayfolioRun failed =
      run("convert " + word(bad) + " " + word(scratch.file("out.gpx")) + " --format gtrnctr");
  EXPECT_EQ(failed.status, 1);
  EXPECT_THAT(failed.err,
              StartsWith("wayfolio: error: gpsbabel could not read " + bad + " as gtrnctr (status 1): "));
  EXPECT_EQ(std::count(failed.err.begin(), failed.err.end(), '\n'), 1);  // one message
}

}  // namespace
}  // namespace kvtrack::testing
