// Importing, reading and editing the library: every check runs in a new
// process, so it also proves that each change was saved.
#include "kvtrack/support/ISODate.h"
#include "tests/cli/WayfolioFixture.h"

namespace kvtrack::testing {
namespace {

using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::IsSupersetOf;
using ::testing::MatchesRegex;
using ::testing::Not;
using ::testing::StartsWith;

using LibraryCommandsTest = WayfolioTest;

TEST_F(LibraryCommandsTest, ImportSummarisesAndListingsShowTheFiguresInTheChosenUnits) {
  const WayfolioRun imported = run("import " + word(examples()));
  EXPECT_EQ(imported.status, 0) << imported.err;
  EXPECT_EQ(imported.out,
            "Imported 4 files: 3 tracks added, 0 duplicates refused, 4 waypoints filed, 0 files failed\n");
  EXPECT_EQ(imported.err, "");  // no progress display without a terminal

  const std::string listing = ok("ls");
  EXPECT_THAT(lineWith(listing, "NAME"), MatchesRegex("NAME +START +DURATION +LENGTH +POINTS +PHOTOS"));
  // Shown in the track's own zone, in the user's locale.
  const std::string hike = lineWith(listing, "Bachalpsee hike");
  EXPECT_THAT(hike, HasSubstr(ISODate::isoDateWithString("2024-06-15T08:00:00+02:00")->descriptionForGui()));
  EXPECT_THAT(hike, HasSubstr("2:00 h"));
  EXPECT_THAT(hike, HasSubstr("5.93 km"));
  EXPECT_EQ(lineCount(listing), 4u);
  const std::string tree = ok("tree");
  EXPECT_THAT(lineWith(tree, "NAME"), HasSubstr("LENGTH"));
  EXPECT_THAT(lineWith(tree, "Rhine ride"), HasSubstr("8.77 km"));
  EXPECT_THAT(lineWith(tree, "Lake walk"), HasSubstr("1.32 km"));  // read through gpsbabel
  EXPECT_EQ(lineCount(tree), 4u);

  // The same files again add no track.
  const WayfolioRun again = run("import " + word(examples()));
  EXPECT_EQ(again.status, 0);
  EXPECT_THAT(again.out, HasSubstr("Imported 4 files: 0 tracks added, 3 duplicates refused,"));
  EXPECT_THAT(again.out, HasSubstr("0 files failed"));
  EXPECT_EQ(ok("tree"), tree);

  const std::string shown = ok(std::string("show ") + kHike);
  EXPECT_THAT(lines(shown), IsSupersetOf({"Name:          Bachalpsee hike", "Folder:        /",
                                          "Start:         2024-06-15T08:00:00+02:00",
                                          "End:           2024-06-15T10:00:00+02:00", "Points:        41",
                                          "Waypoints:     2", "Max elevation: 2268 m",
                                          "Time zone:     +02:00", "Type:          recorded track",
                                          "Description:   Out and back from First to the Bachalpsee"}));
  EXPECT_THAT(lineWith(shown, "Max speed:"), MatchesRegex("Max speed: +[1-9][0-9.]* km/h"));
  EXPECT_THAT(lineWith(shown, "Track id:"), HasSubstr("wayfolio:2024:06:15 08:00:00+02:00"));

  const std::string ride = ok("points " + word("Rhine ride"));
  EXPECT_EQ(lineCount(ride), 31u);  // title and 30 points
  EXPECT_THAT(lineWith(ride, "16:30:00Z"), StartsWith(" 0  2024-07-02T16:30:00Z  47.559600   7.588600"));
  EXPECT_THAT(lineWith(ride, "2024-07-02T16:44:00Z"), EndsWith("|"));  // the first segment's end
  const std::string lake = lineWith(ok(std::string("points ") + kHike), "Bachalpsee");
  EXPECT_THAT(lake, StartsWith("20  2024-06-15T09:00:00+02:00"));
  EXPECT_THAT(lake, EndsWith("W      Bachalpsee"));

  scratch.write("settings.toml", "[preferences]\nunitMode = 1\n");
  EXPECT_THAT(lineWith(ok("ls"), "Rhine ride"), HasSubstr("5.45 mi"));
  const std::string inFeet = ok(std::string("show ") + kHike);
  EXPECT_THAT(lineWith(inFeet, "Length:"), HasSubstr("3.69 mi"));
  EXPECT_EQ(lineWith(inFeet, "Max elevation:"), "Max elevation: 7442 ft");
  scratch.write("settings.toml", "[preferences]\nunitMode = 2\n");
  EXPECT_THAT(lineWith(ok("ls"), "Rhine ride"), HasSubstr("4.74 nmi"));
}

TEST_F(LibraryCommandsTest, ABrokenFileIsReportedWhileTheOthersImport) {
  const std::string broken =
      scratch.write("broken.gpx",
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

TEST_F(LibraryCommandsTest, HostileFileNamesImportAndNothingIsExecuted) {
  const std::string folder = scratch.file("in $(touch pwned) `touch pwned`");
  std::filesystem::create_directories(folder);
  const std::string hostile = folder + "/-it's \"$(touch pwned)\" `touch pwned` ;touch pwned";
  std::filesystem::copy_file(examples("rhine-ride.gpx"), hostile + ".gpx");
  std::filesystem::copy_file(examples("lake-walk.kml"), hostile + ".kml");
  const std::string hostileLibrary = scratch.file("lib '$(touch pwned)'");
  const WayfolioRun imported = runOn(hostileLibrary, "import " + word(folder));
  EXPECT_EQ(imported.status, 0) << imported.err;
  EXPECT_THAT(imported.out, HasSubstr("Imported 2 files: 2 tracks added"));
  // Named directly too: the leading dash must not read as an option.
  EXPECT_THAT(runOn(hostileLibrary, "import -- " + word(hostile + ".gpx")).out,
              HasSubstr("1 duplicates refused"));
  EXPECT_THAT(runOn(hostileLibrary, "tree").out, HasSubstr("Lake walk"));
  for (const auto& entry : std::filesystem::recursive_directory_iterator(scratch.path())) {
    EXPECT_NE(entry.path().filename(), "pwned") << entry.path();
  }
  EXPECT_FALSE(std::filesystem::exists("pwned"));
}

TEST_F(LibraryCommandsTest, MkdirMvRenameAndRmReshapeTheTree) {
  ok("import --into 2024/Switzerland " + word(examples("rhine-ride.gpx")));  // folders made on the way
  ok("import " + word(examples()));
  EXPECT_THAT(lineWith(ok("tree"), "Rhine ride"), StartsWith("    Rhine ride"));
  ok("mkdir 2024/Alps " + word("/2024/Rivers/"));
  ok("mv " + word("Bachalpsee hike") + " 2024/Alps");
  ok("mv " + word("Rhine ride") + " " + word("Lake walk") + " Rivers");  // a bare folder name
  const std::string top = ok("ls");
  EXPECT_EQ(lineCount(top), 2u);
  EXPECT_EQ(lineWith(top, "2024"), "2024/");
  EXPECT_EQ(lineWith(ok("tree"), "Switzerland"), "  Switzerland/");
  EXPECT_THAT(lineWith(ok("tree"), "Bachalpsee hike"), StartsWith("    Bachalpsee hike"));
  const WayfolioRun below = run("mv 2024 2024/Alps");
  EXPECT_EQ(below.status, 1);
  EXPECT_EQ(below.err, "wayfolio: error: cannot move folder '2024' into its own subfolder '2024/Alps'\n");
  EXPECT_EQ(run("mv 2024 2024").err, "wayfolio: error: cannot move folder '2024' into itself\n");

  ok("rename Alps " + word("Bernese Oberland"));
  ok("rename 2024/Rivers/Lake\\ walk " + word("Zurich lake walk"));
  const std::string tree = ok("tree");
  EXPECT_EQ(lineWith(tree, "Oberland"), "  Bernese Oberland/");
  EXPECT_THAT(tree, HasSubstr("    Zurich lake walk"));
  // The new name also reached the track's file: it survives loading.
  EXPECT_EQ(lineWith(ok("show " + word("Zurich lake walk")), "Folder:"), "Folder:        /2024/Rivers");

  ok("rm " + word("2024/Rivers/Zurich lake walk"));
  const WayfolioRun notEmpty = run("rm 2024");
  EXPECT_EQ(notEmpty.status, 1);
  EXPECT_EQ(notEmpty.err,
            "wayfolio: error: folder '2024' is not empty (-r removes it with everything in it)\n");
  ok("rm -r 2024");
  EXPECT_EQ(lineCount(ok("tree")), 1u);
}

TEST_F(LibraryCommandsTest, SortSplitAndTz) {
  importExamples();
  ok("sort --by length --descending");
  const std::string byLength = ok("ls");
  EXPECT_LT(byLength.find("Rhine ride"), byLength.find("Bachalpsee hike"));
  EXPECT_LT(byLength.find("Bachalpsee hike"), byLength.find("Lake walk"));
  ok("sort / --by date");
  const std::string byDate = ok("ls");
  EXPECT_LT(byDate.find("Lake walk"), byDate.find("Bachalpsee hike"));
  EXPECT_LT(byDate.find("Bachalpsee hike"), byDate.find("Rhine ride"));
  EXPECT_NE(run("sort --by colour").status, 0);

  ok("tz " + word("Rhine ride") + " +02:00");
  const std::string shown = ok("show " + word("Rhine ride"));
  EXPECT_EQ(lineWith(shown, "Start:"), "Start:         2024-07-02T18:30:00+02:00");
  EXPECT_EQ(lineWith(shown, "Time zone:"), "Time zone:     +02:00");
  ok("tz " + word("Rhine ride") + " -330");
  EXPECT_EQ(lineWith(ok("show " + word("Rhine ride")), "Start:"), "Start:         2024-07-02T11:00:00-05:30");
  EXPECT_THAT(lineWith(ok("points " + word("Rhine ride")), "11:00:00-05:30"), StartsWith(" 0  "));
  EXPECT_EQ(run("tz " + word("Rhine ride") + " east").status, 1);

  EXPECT_EQ(ok("split " + word("Rhine ride") + " 10 20"),
            "Split 'Rhine ride' into 'Rhine ride (1)', 'Rhine ride (2)', 'Rhine ride (3)'\n");
  EXPECT_EQ(lineWith(ok("show " + word("Rhine ride (2)")), "Start:"),
            "Start:         2024-07-02T11:10:00-05:30");
  // The nearest point to 09:25:40 is the one at 09:25.
  ok("split " + word("Lake walk") + " 2024-05-04T09:25:40Z");
  const std::string second = ok("show " + word("Lake walk (2)"));
  EXPECT_EQ(lineWith(second, "Start:"), "Start:         2024-05-04T09:25:00Z");
  EXPECT_EQ(lineWith(second, "Points:"), "Points:        7");
  EXPECT_EQ(lineWith(ok(std::string("show ") + kHike), "Points:"), "Points:        41");
  EXPECT_EQ(run("split " + word("Lake walk (1)") + " 0").err,
            "wayfolio: error: cannot split at point 0: it is the first or the last point\n");
  EXPECT_EQ(run("split " + word("Lake walk (1)") + " 2030-01-01T00:00:00Z").status, 1);
}

TEST_F(LibraryCommandsTest, MissingAndAmbiguousNamesAreRefused) {
  importExamples();
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
  EXPECT_EQ(
      ambiguous.err,
      "wayfolio: error: 'Rhine ride' is ambiguous: it names 2 tracks: 2012/Rhine ride, 2013/Rhine ride\n");
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
