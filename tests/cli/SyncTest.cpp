// wayfolio sync: a library mirrored into a sync folder and rebuilt from it
// in a second library, which then follows the changes made in the first.
#include "tests/cli/WayfolioFixture.h"

#include <chrono>
#include <thread>

namespace kvtrack::testing {
namespace {

namespace fs = std::filesystem;
using ::testing::HasSubstr;

class SyncTest : public WayfolioTest {
 protected:
  std::string mirror() const { return scratch.file("mirror"); }
  std::string onB(const std::string& arguments) const {
    const WayfolioRun result = runOn(scratch.file("libraryB"), arguments);
    EXPECT_EQ(result.status, 0) << arguments << "\n" << result.err;
    return result.out;
  }
  // The three tracks of the examples.
  void importTracks(const std::string& options = {}) {
    ok("import " + word(examples("bachalpsee-hike.gpx")) + " " + word(examples("rhine-ride.gpx")) + " " +
       word(examples("lake-walk.kml")) + options);
  }
  std::string pullIntoB() const { return onB("sync --from " + word(mirror())); }
  // Record times are whole seconds: a later push must fall in a later one.
  static void nextSecond() { std::this_thread::sleep_for(std::chrono::milliseconds(1100)); }

  static std::vector<std::string> sortedLines(const std::string& text) {
    std::vector<std::string> found = lines(text);
    std::sort(found.begin(), found.end());
    return found;
  }
};

TEST_F(SyncTest, PulledLibraryMatchesThePushedOneAndFollowsItsChanges) {
  importTracks(" --into Trips/2014");
  ok("mv " + word("Trips/2014/Lake walk") + " /");
  fs::create_directory(mirror());
  EXPECT_THAT(ok("sync --folder " + word(mirror())), HasSubstr("mirrored 3 tracks to " + mirror()));
  for (const auto& entry : fs::directory_iterator(mirror() + "/tracks")) {
    if (entry.path().extension() != ".gz") continue;
    EXPECT_EQ(runShellCommand("zcat " + word(entry.path().string()) + " | grep -q '<trkpt'"), 0);
  }

  EXPECT_THAT(pullIntoB(), HasSubstr("added 3, updated 0, unchanged 0 tracks from " + mirror()));
  EXPECT_EQ(sortedLines(onB("tree")), sortedLines(ok("tree")));
  for (const std::string track : {"Trips/2014/Rhine ride", "Lake walk"}) {
    EXPECT_EQ(onB("points " + word(track)), ok("points " + word(track)));
  }
  EXPECT_THAT(pullIntoB(), HasSubstr("added 0, updated 0, unchanged 3 tracks"));

  // The sync folder is remembered: a rename is mirrored as it is saved.
  nextSecond();
  ok("rename " + word("Rhine ride") + " " + word("Rhine evening"));
  EXPECT_THAT(pullIntoB(), HasSubstr("added 0, updated 1, unchanged 2 tracks"));
  EXPECT_THAT(onB("ls Trips/2014"), HasSubstr("Rhine evening"));

  nextSecond();
  ok("sync --folder " + word(mirror()));
  EXPECT_THAT(pullIntoB(), HasSubstr("added 0, updated 3, unchanged 0 tracks"));
  EXPECT_EQ(sortedLines(onB("tree")), sortedLines(ok("tree")));
}

TEST_F(SyncTest, MissingFolderIsNeverMadeAndDamagedFilesAreReported) {
  const WayfolioRun refused = run("sync --folder " + word(mirror()));
  EXPECT_EQ(refused.status, 1);
  EXPECT_THAT(refused.err, HasSubstr("the sync folder " + mirror() + " does not exist"));

  importTracks();
  fs::create_directory(mirror());
  ok("sync --folder " + word(mirror()));
  fs::path damaged;
  for (const auto& entry : fs::directory_iterator(mirror() + "/tracks")) {
    if (entry.path().extension() == ".gz") damaged = entry.path();
  }
  scratch.write(fs::relative(damaged, scratch.path()).string(), "garbage");
  const WayfolioRun pulled = runOn(scratch.file("libraryB"), "sync --from " + word(mirror()));
  EXPECT_EQ(pulled.status, 1);
  EXPECT_THAT(pulled.out, HasSubstr("added 2, updated 0, unchanged 0 tracks"));
  EXPECT_THAT(pulled.out, HasSubstr("failed: " + damaged.string()));

  // Later commands still save when the folder has gone, and leave it gone.
  fs::remove_all(mirror());
  ok("rename " + word("Rhine ride") + " " + word("Rhine evening"));
  EXPECT_FALSE(fs::exists(mirror()));
}

}  // namespace
}  // namespace kvtrack::testing
