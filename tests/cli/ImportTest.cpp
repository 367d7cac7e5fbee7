// Importing files: the summary, duplicates, broken files and hostile names.
#include "tests/cli/WayfolioFixture.h"

#include <gmock/gmock.h>

namespace kvtrack::testing {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;

class ImportTest : public WayfolioTest {};

TEST_F(ImportTest, ImportsTheExamplesAndListsThemInTheTree) {
  const WayfolioRun imported = run("import " + word(examples()));
  EXPECT_EQ(imported.status, 0) << imported.err;
  EXPECT_EQ(imported.out,
            "Imported 4 files: 3 tracks added, 0 duplicates refused, 4 waypoints filed, "
            "0 files failed\n");
  EXPECT_EQ(imported.err, "");  // no progress display without a terminal

  const std::string tree = ok("tree");
  EXPECT_THAT(lineWith(tree, "NAME"), HasSubstr("LENGTH"));
  EXPECT_THAT(lineWith(tree, "Bachalpsee hike"), HasSubstr("5.93 km"));
  EXPECT_THAT(lineWith(tree, "Rhine ride"), HasSubstr("8.77 km"));
  EXPECT_THAT(lineWith(tree, "Lake walk"), HasSubstr("1.32 km"));  // read through gpsbabel
  EXPECT_EQ(lineCount(tree), 4u);

  // The same files again add no track.
  const WayfolioRun again = run("import " + word(examples()));
  EXPECT_EQ(again.status, 0);
  EXPECT_THAT(again.out, HasSubstr("Imported 4 files: 0 tracks added, 3 duplicates refused,"));
  EXPECT_THAT(again.out, HasSubstr("0 files failed"));
  EXPECT_EQ(ok("tree"), tree);
}

TEST_F(ImportTest, ImportsIntoAFolderThatIsMadeOnTheWay) {
  ok("import --into 2024/Switzerland " + word(examples("rhine-ride.gpx")));
  const std::string tree = ok("tree");
  EXPECT_EQ(lineWith(tree, "2024/"), "2024/");
  EXPECT_EQ(lineWith(tree, "Switzerland/"), "  Switzerland/");
  EXPECT_THAT(lineWith(tree, "Rhine ride"), ::testing::StartsWith("    Rhine ride"));
}

TEST_F(ImportTest, ABrokenFileIsReportedWhileTheOthersImport) {
  const std::string broken = scratch.write(
      "broken.gpx",
      "<?xml version=\"1.0\"?>\n<gpx version=\"1.1\"><trk><name>Cut off</name><trkseg>\n"
      "<trkpt lat=\"47.1\" lon=\"8.1\"><time>2024-01-01T10:00:00Z</time></trkpt>\n</trk>\n");
  const std::string tcx = scratch.write("ride.tcx", "not a training centre file");
  const WayfolioRun result =
      run("import " + word(examples("rhine-ride.gpx")) + " " + word(broken) + " " +
          word(scratch.file("missing.gpx")) + " " + word(examples("lake-walk.kml")) + " " + word(tcx));
  EXPECT_EQ(result.status, 1);
  EXPECT_THAT(result.out, HasSubstr("Imported 2 files: 2 tracks added, 0 duplicates refused, "
                                    "0 waypoints filed, 3 files failed\n"));
  EXPECT_THAT(lineWith(result.out, "failed: " + broken),
              HasSubstr("not a readable GPX file: line 4, column 7: Opening and ending tag mismatch"));
  EXPECT_THAT(lineWith(result.out, "failed: " + scratch.file("missing.gpx")),
              HasSubstr("No such file or directory"));
  // A file gpsbabel cannot read fails with its complaint.
  EXPECT_THAT(lineWith(result.out, "failed: " + tcx),
              HasSubstr("gpsbabel could not read " + tcx + " as gtrnctr (status 1): XML Reader"));
  EXPECT_EQ(result.err, "wayfolio: error: 3 of 5 files could not be imported\n");

  const std::string tree = ok("tree");
  EXPECT_THAT(tree, HasSubstr("Rhine ride"));
  EXPECT_THAT(tree, HasSubstr("Lake walk"));
  EXPECT_THAT(tree, Not(HasSubstr("Cut off")));  // a failed file adds nothing
}

TEST_F(ImportTest, HostileFileNamesImportAndNothingIsExecuted) {
  const std::string folder = scratch.file("in $(touch pwned) `touch pwned`");
  std::filesystem::create_directories(folder);
  const std::string hostile = "-it's \"$(touch pwned)\" `touch pwned` ;touch pwned";
  std::filesystem::copy_file(examples("rhine-ride.gpx"), folder + "/" + hostile + ".gpx");
  std::filesystem::copy_file(examples("lake-walk.kml"), folder + "/" + hostile + ".kml");
  const std::string hostileLibrary = scratch.file("lib '$(touch pwned)'");

  const WayfolioRun imported = runOn(hostileLibrary, "import " + word(folder));
  EXPECT_EQ(imported.status, 0) << imported.err;
  EXPECT_THAT(imported.out, HasSubstr("Imported 2 files: 2 tracks added"));
  // Named directly too: the leading dash must not read as an option.
  const WayfolioRun direct = runOn(hostileLibrary, "import -- " + word(folder + "/" + hostile + ".gpx"));
  EXPECT_THAT(direct.out, HasSubstr("1 duplicates refused"));
  EXPECT_THAT(runOn(hostileLibrary, "tree").out, HasSubstr("Lake walk"));

  for (const auto& entry : std::filesystem::recursive_directory_iterator(scratch.path())) {
    EXPECT_NE(entry.path().filename(), "pwned") << entry.path();
  }
  EXPECT_FALSE(std::filesystem::exists("pwned"));
}

}  // namespace
}  // namespace kvtrack::testing
