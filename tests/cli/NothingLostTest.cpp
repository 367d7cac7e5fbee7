// What users see when the disk fills up, the index goes missing, a track
// file is damaged or a file holds impossible coordinates: a clear line, a
// defined exit status, and every track they had still there.
#include "tests/cli/WayfolioFixture.h"

#include <filesystem>

namespace kvtrack::testing {
namespace {

namespace fs = std::filesystem;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

class NothingLostTest : public WayfolioTest {
 protected:
  std::string index() const { return library() + "/library.wayfolio"; }
  std::vector<std::string> files() const {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(library())) {
      names.push_back(entry.path().filename().string());
    }
    std::sort(names.begin(), names.end());
    return names;
  }
};

TEST_F(NothingLostTest, AFullDiskFailsTheImportAndTheSameFileImportsLater) {
  importExamples();
  const std::string ride = examples("rhine-ride.gpx");
  ok("rm " + word("Rhine ride"));
  const std::string listing = ok("tree");
  for (const std::string fault : {"write:1:ENOSPC", "write:2:ENOSPC", "fsync:1:EIO", "rename:1:EIO"}) {
    const WayfolioRun failed = runWithFault(fault, "import " + word(ride));
    EXPECT_EQ(failed.status, 1) << fault;
    EXPECT_THAT(failed.out, Not(HasSubstr("added"))) << fault;  // no success line
    EXPECT_THAT(failed.err, StartsWith("wayfolio: error: could not save the library: cannot ")) << fault;
    EXPECT_THAT(failed.err, HasSubstr("its files were left as they were before this command"));
    EXPECT_EQ(ok("tree"), listing) << fault;
  }
  EXPECT_THAT(ok("import " + word(ride)), HasSubstr("1 tracks added"));

  const WayfolioRun renamed = runWithFault("write:1:ENOSPC", "rename " + word("Lake walk") + " Pond");
  EXPECT_EQ(renamed.status, 1);
  EXPECT_THAT(ok("tree"), HasSubstr("Lake walk"));
}

TEST_F(NothingLostTest, ALostIndexIsRebuiltAndOnlyRepairWritesIt) {
  importExamples();
  ok("mkdir Alps");
  ok("mv " + word("Bachalpsee hike") + " Alps");
  ok("mkdir Empty");
  const std::string extra = scratch.write("extra.gpx", R"(<?xml version="1.0"?>
<gpx xmlns="http://www.topografix.com/GPX/1/1" version="1.1" creator="test"><trk><name>Extra</name><trkseg>
  <trkpt lat="47.1" lon="8.1"><time>2024-05-01T10:00:00Z</time></trkpt>
  <trkpt lat="47.2" lon="8.2"><time>2024-05-01T10:05:00Z</time></trkpt>
</trkseg></trk></gpx>)");
  ok("import " + word(extra));  // the previous index still lacks this one
  fs::remove(index());
  const auto before = files();

  const WayfolioRun listed = run("tree");
  EXPECT_EQ(listed.status, 0) << listed.err;
  EXPECT_THAT(listed.out, HasSubstr("Alps/"));  // folders come back from the previous index
  EXPECT_THAT(listed.out, HasSubstr("Empty/"));
  EXPECT_THAT(listed.out, HasSubstr("Recovered/"));
  for (const char* name : {"Bachalpsee hike", "Lake walk", "Rhine ride", "Extra"}) {
    EXPECT_THAT(listed.out, HasSubstr(name));
  }
  EXPECT_THAT(listed.err, HasSubstr("library.wayfolio is missing; the library was rebuilt"));
  EXPECT_THAT(listed.err, HasSubstr("'wayfolio check --repair' saves it"));
  EXPECT_EQ(files(), before);  // a read-only command writes nothing

  const WayfolioRun checked = run("check");
  EXPECT_EQ(checked.status, 1);
  EXPECT_THAT(checked.out, HasSubstr("Index: missing"));
  EXPECT_THAT(ok("check --repair"), HasSubstr("Index: missing"));
  EXPECT_TRUE(fs::exists(index()));
  EXPECT_THAT(ok("check"), HasSubstr("Index: sound"));

  scratch.write("library/library.wayfolio", "<wayfoliolib><folder name=\"cut");
  const WayfolioRun damaged = run("mkdir Later");
  EXPECT_EQ(damaged.status, 0) << damaged.err;
  EXPECT_THAT(damaged.err, HasSubstr("cannot be read (line 1"));
  EXPECT_THAT(damaged.err, HasSubstr("the damaged index is kept as library.wayfolio.damaged-"));
  EXPECT_THAT(ok("tree"), HasSubstr("Rhine ride"));
}

TEST_F(NothingLostTest, DamagedTrackFilesAreNeverPassedOffAsWholeNorOverwritten) {
  importExamples();
  const std::string file = library() + "/Track00000002.gpx";  // the Rhine ride
  const std::string whole = ScratchFolder::read(file);
  const std::string cut = whole.substr(0, whole.size() / 2);
  scratch.write("library/Track00000002.gpx", cut);

  for (const std::string command : {"show", "points", "photos"}) {
    const WayfolioRun shown = run(command + " " + word("Rhine ride"));
    EXPECT_EQ(shown.status, 1) << command;
    EXPECT_THAT(shown.err, HasSubstr("track 'Rhine ride' is damaged: its file Track00000002.gpx "
                                     "cannot be read whole (line "));
  }
  const WayfolioRun exported = run("export " + word("Rhine ride") + " --gpx " + word(scratch.file("r.gpx")));
  EXPECT_EQ(exported.status, 1);
  EXPECT_THAT(exported.err, HasSubstr("nothing was exported"));
  EXPECT_FALSE(fs::exists(scratch.file("r.gpx")));
  EXPECT_EQ(run("zip " + word(scratch.file("all.zip")) + " --folder /").status, 1);
  EXPECT_EQ(ScratchFolder::read(file), cut);

  const WayfolioRun renamed = run("rename " + word("Rhine ride") + " Ride");
  EXPECT_EQ(renamed.status, 0);
  EXPECT_THAT(renamed.err, HasSubstr("warning: track 'Rhine ride' is damaged"));
  const auto names = files();
  const auto aside = std::find_if(names.begin(), names.end(), [](const std::string& name) {
    return name.starts_with("Track00000002.gpx.damaged-");
  });
  ASSERT_NE(aside, names.end());
  EXPECT_EQ(ScratchFolder::read(library() + "/" + *aside), cut);
}

TEST_F(NothingLostTest, ImpossibleCoordinatesAreSkippedAndCounted) {
  const std::string gpx = scratch.write("bad.gpx", R"(<?xml version="1.0"?>
<gpx xmlns="http://www.topografix.com/GPX/1/1" version="1.1" creator="test"><trk><name>bad</name><trkseg>
  <trkpt lat="47.1" lon="8.1"><time>2024-05-01T10:00:00Z</time></trkpt>
  <trkpt lat="999" lon="8.1"><time>2024-05-01T10:01:00Z</time></trkpt>
  <trkpt lat="abc" lon="8.1"><time>2024-05-01T10:02:00Z</time></trkpt>
  <trkpt lat="47.2" lon="-181"><time>2024-05-01T10:03:00Z</time></trkpt>
  <trkpt lat="47.3" lon="8.3"><time>2024-05-01T10:04:00Z</time></trkpt>
</trkseg></trk></gpx>)");
  const std::string imported = ok("import " + word(gpx));
  EXPECT_THAT(imported, HasSubstr("1 tracks added"));
  EXPECT_THAT(imported, HasSubstr(gpx + ": 3 points with invalid coordinates skipped"));
  const std::string points = ok("points bad");
  EXPECT_THAT(points, HasSubstr("47.100000"));
  EXPECT_THAT(points, HasSubstr("47.300000"));
  EXPECT_EQ(lineCount(points), 3u);  // heading and the two points kept
  EXPECT_THAT(ok("import " + word(gpx)), HasSubstr("1 duplicates refused"));

  // The same through gpsbabel. (Formats whose gpsbabel reader folds latitudes
  // beyond the poles, such as LOC and CSV, reach us already folded.)
  const std::string kml = scratch.write("bad.kml", R"(<?xml version="1.0"?>
<kml xmlns="http://www.opengis.net/kml/2.2"><Document><Placemark><name>Path</name>
<LineString><coordinates>8.1,47.1,400 8.2,999,400 8.3,47.3,400</coordinates></LineString>
</Placemark></Document></kml>)");
  EXPECT_THAT(ok("import " + word(kml)), HasSubstr("1 points with invalid coordinates skipped"));
}

TEST_F(NothingLostTest, FileNamesThatLookLikeOptionsNeedTheMarker) {
  importExamples();
  const WayfolioRun refused = run("zip -rf.zip --folder /");
  EXPECT_EQ(refused.status, 1);
  EXPECT_THAT(refused.err, StartsWith("wayfolio: error: -rf.zip is not an option of wayfolio"));
  EXPECT_EQ(lineCount(refused.err), 1u);
  const WayfolioRun written =
      runProgram("cd " + word(scratch.path().string()) + " && " + word(WAYFOLIO_BINARY), library(),
                 "zip --folder / -- -rf.zip");
  EXPECT_EQ(written.status, 0) << written.err;
  EXPECT_TRUE(fs::exists(scratch.file("-rf.zip")));
}

}  // namespace
}  // namespace kvtrack::testing
