// Editing the library; every check runs in a new process, so it also
// proves that the change was saved.
#include "tests/cli/WayfolioFixture.h"

#include <gmock/gmock.h>

namespace kvtrack::testing {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

class EditTest : public WayfolioTest {
 protected:
  void SetUp() override { importExamples(); }
};

TEST_F(EditTest, MkdirMvRenameAndRmReshapeTheTree) {
  ok("mkdir 2024/Alps " + word("/2024/Rivers/"));
  ok("mv " + word("Bachalpsee hike") + " 2024/Alps");
  ok("mv " + word("Rhine ride") + " " + word("Lake walk") + " Rivers");  // a bare folder name
  const std::string top = ok("ls");
  EXPECT_EQ(lineCount(top), 2u);
  EXPECT_EQ(lineWith(top, "2024"), "2024/");
  EXPECT_THAT(lineWith(ok("tree"), "Bachalpsee hike"), StartsWith("    Bachalpsee hike"));

  ok("rename Alps " + word("Bernese Oberland"));
  ok("rename 2024/Rivers/Lake\\ walk " + word("Zurich lake walk"));
  const std::string tree = ok("tree");
  EXPECT_EQ(lineWith(tree, "Oberland"), "  Bernese Oberland/");
  EXPECT_THAT(tree, HasSubstr("    Zurich lake walk"));
  // The new name also reached the track's file: it survives loading.
  EXPECT_EQ(lineWith(ok("show " + word("Zurich lake walk")), "Folder:"),
            "Folder:        /2024/Rivers");

  ok("rm " + word("2024/Rivers/Zurich lake walk"));
  const WayfolioRun notEmpty = run("rm 2024");
  EXPECT_EQ(notEmpty.status, 1);
  EXPECT_EQ(notEmpty.err,
            "wayfolio: error: folder '2024' is not empty (-r removes it with everything in it)\n");
  ok("rm -r 2024");
  EXPECT_EQ(lineCount(ok("tree")), 1u);
}

TEST_F(EditTest, AFolderCannotMoveIntoItself) {
  ok("mkdir 2024/Alps");
  const WayfolioRun below = run("mv 2024 2024/Alps");
  EXPECT_EQ(below.status, 1);
  EXPECT_EQ(below.err,
            "wayfolio: error: cannot move folder '2024' into its own subfolder '2024/Alps'\n");
  EXPECT_EQ(run("mv 2024 2024").err, "wayfolio: error: cannot move folder '2024' into itself\n");
  EXPECT_EQ(lineWith(ok("tree"), "Alps"), "  Alps/");
}

TEST_F(EditTest, SortOrdersByTheChosenFigure) {
  ok("sort --by length --descending");
  const std::string byLength = ok("ls");
  EXPECT_LT(byLength.find("Rhine ride"), byLength.find("Bachalpsee hike"));
  EXPECT_LT(byLength.find("Bachalpsee hike"), byLength.find("Lake walk"));
  ok("sort / --by date");
  const std::string byDate = ok("ls");
  EXPECT_LT(byDate.find("Lake walk"), byDate.find("Bachalpsee hike"));
  EXPECT_LT(byDate.find("Bachalpsee hike"), byDate.find("Rhine ride"));
  EXPECT_NE(run("sort --by colour").status, 0);
}

TEST_F(EditTest, SplitAtAnIndexAndAtATime) {
  EXPECT_EQ(ok("split " + word("Rhine ride") + " 10 20"),
            "Split 'Rhine ride' into 'Rhine ride (1)', 'Rhine ride (2)', 'Rhine ride (3)'\n");
  EXPECT_EQ(lineWith(ok("show " + word("Rhine ride (2)")), "Start:"),
            "Start:         2024-07-02T16:40:00Z");
  // The nearest point to 09:25:40 is the one at 09:25.
  ok("split " + word("Lake walk") + " 2024-05-04T09:25:40Z");
  const std::string second = ok("show " + word("Lake walk (2)"));
  EXPECT_EQ(lineWith(second, "Start:"), "Start:         2024-05-04T09:25:00Z");
  EXPECT_EQ(lineWith(second, "Points:"), "Points:        7");
  // Parts of one track get file names of their own.
  EXPECT_EQ(lineWith(ok("show " + word("Bachalpsee hike")), "Points:"), "Points:        41");

  EXPECT_EQ(run("split " + word("Lake walk (1)") + " 0").err,
            "wayfolio: error: cannot split at point 0: it is the first or the last point\n");
  EXPECT_EQ(run("split " + word("Lake walk (1)") + " 2030-01-01T00:00:00Z").status, 1);
}

TEST_F(EditTest, TzReexpressesTheTimes) {
  ok("tz " + word("Rhine ride") + " +02:00");
  std::string shown = ok("show " + word("Rhine ride"));
  EXPECT_EQ(lineWith(shown, "Start:"), "Start:         2024-07-02T18:30:00+02:00");
  EXPECT_EQ(lineWith(shown, "Time zone:"), "Time zone:     +02:00");
  ok("tz " + word("Rhine ride") + " -330");
  shown = ok("show " + word("Rhine ride"));
  EXPECT_EQ(lineWith(shown, "Start:"), "Start:         2024-07-02T11:00:00-05:30");
  EXPECT_THAT(lineWith(ok("points " + word("Rhine ride")), "11:00:00-05:30"), StartsWith(" 0  "));
  EXPECT_EQ(run("tz " + word("Rhine ride") + " east").status, 1);
}

TEST_F(EditTest, MissingAndAmbiguousNamesAreRefused) {
  ok("mkdir 2012 2013");
  ok("mv " + word("Rhine ride") + " 2012");
  // A copy of the ride a year earlier: not a duplicate, so a second track of that name.
  std::string copy = ScratchFolder::read(examples("rhine-ride.gpx"));
  for (size_t at = copy.find("2024-07-02"); at != std::string::npos; at = copy.find("2024-07-02"))
    copy.replace(at, 10, "2023-07-02");
  ok("import --into 2013 " + word(scratch.write("ride.gpx", copy)));

  const WayfolioRun ambiguous = run("show " + word("Rhine ride"));
  EXPECT_EQ(ambiguous.status, 1);
  EXPECT_EQ(ambiguous.out, "");
  EXPECT_EQ(ambiguous.err, "wayfolio: error: 'Rhine ride' is ambiguous: it names 2 tracks: "
                           "2012/Rhine ride, 2013/Rhine ride\n");
  EXPECT_THAT(ok("show " + word("2013/Rhine ride")), HasSubstr("2023-07-02T16:30:00Z"));
  EXPECT_THAT(ok("show " + word("/2012/Rhine ride")), HasSubstr("2024-07-02T16:30:00Z"));
  // A path from the root wins over names deeper down.
  ok("mv " + word("2013/Rhine ride") + " /");
  EXPECT_THAT(ok("points " + word("Rhine ride")), HasSubstr("2023-07-02T16:30:00Z"));

  const WayfolioRun missing = run("show " + word("rhine ride"));  // names are case-sensitive
  EXPECT_EQ(missing.status, 1);
  EXPECT_EQ(missing.err, "wayfolio: error: no track named 'rhine ride'\n");
  EXPECT_EQ(run("ls Nowhere").err, "wayfolio: error: no folder named 'Nowhere'\n");
  EXPECT_EQ(run("rm Nowhere " + word("Lake walk")).err,
            "wayfolio: error: no track or folder named 'Nowhere'\n");
  EXPECT_THAT(ok("ls"), HasSubstr("Lake walk"));  // nothing was removed
}

}  // namespace
}  // namespace kvtrack::testing
