// Zip archives of library tracks, checked with Info-ZIP's unzip.
#include "kvtrack/exports/TrackLibraryArchive.h"
#include "kvtrack/model/TrackPoint.h"
#include "kvtrack/support/ExternalProgram.h"
#include "tests/library/LibraryTestSupport.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

namespace kvtrack::testing {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;

class TrackLibraryArchiveTest : public LibraryTest {
 protected:
  void SetUp() override {
    LibraryTest::SetUp();
    trips = TrackLibraryFolder::trackLibraryFolder("Trips");
    library->addFolder(trips);
    year = TrackLibraryFolder::trackLibraryFolder("2014");
    trips->addFolder(year);
    walk = add(trips, walk_("Walk", 3));
    add(trips, walk_("Walk", 4));
    ride = add(year, walk_("Ride", 5));
    auto photo = TrackPhoto::trackPhotoWithFilepath("/photos/summit.jpg");
    photo->setICloudId("7F3A-99B2");
    ride->trackPoints()[1]->addTrackPhoto(photo);
  }

  static TrackPtr walk_(const std::string& name, int points) { return LibraryTest::walk(name, points); }
  static TrackPtr add(const TrackLibraryFolderPtr& folder, TrackPtr track) {
    folder->addTrack(track);
    track->makeDirty();
    return track;
  }

  std::string zip() const { return folder.file("out.zip"); }
  /// The entry names, sorted, one per line.
  std::string entries() const {
    return runShellCommandReadingOutput("unzip -Z1 " + FileHandling::filenameForShell(zip()) +
                                        " | LC_ALL=C sort")
        .output;
  }
  std::string entry(const std::string& name) const {
    return runShellCommandReadingOutput("unzip -p " + FileHandling::filenameForShell(zip()) + " " +
                                        FileHandling::filenameForShell(name))
        .output;
  }
  bool archiveIsSound() const {
    return runShellCommandReadingOutput("unzip -tq " + FileHandling::filenameForShell(zip()))
               .output.find("No errors detected") != std::string::npos;
  }

  TrackLibraryFolderPtr trips, year;
  TrackPtr walk, ride;
};

TEST_F(TrackLibraryArchiveTest, GpxEntriesForFoldersAndTracks) {
  ASSERT_TRUE(TrackLibraryArchive::createZipFile(zip(), {trips}, {walk}, true, true, false));
  EXPECT_TRUE(archiveIsSound());
  // The selected track also lies in the folder: it goes in twice, and equal
  // names are told apart so that unzip can extract all of them.
  EXPECT_EQ(entries(), "Ride.gpx\nWalk (2).gpx\nWalk (3).gpx\nWalk.gpx\n");
  const std::string gpx = entry("Ride.gpx");
  EXPECT_THAT(gpx, HasSubstr("summit.jpg"));
  EXPECT_THAT(gpx, Not(HasSubstr("iCloudId")));
  EXPECT_EQ(std::count(gpx.begin(), gpx.end(), '\n') > 5, true);
  EXPECT_THAT(entry("Walk (3).gpx"), HasSubstr("<trkpt"));

  ASSERT_TRUE(TrackLibraryArchive::createZipFile(zip(), {trips}, {}, false, false, false));
  EXPECT_EQ(entries(), "Walk (2).gpx\nWalk.gpx\n") << "without subfolders, and replaced whole";
}

TEST_F(TrackLibraryArchiveTest, KmlOrKmzEntriesAndHostileNames) {
  ride->setName("a/b \"quoted\" $(id)\x01 ..");
  ASSERT_TRUE(TrackLibraryArchive::createZipFile(zip(), {year}, {}, false, false, true));
  EXPECT_EQ(entries(), "a_b _quoted_ $(id)_ ...kml\n");
  EXPECT_THAT(entry("a_b _quoted_ $(id)_ ...kml"), HasSubstr("<LineString>"));

  ASSERT_TRUE(TrackLibraryArchive::createZipFile(zip(), {}, {walk, ride}, false, true, true));
  EXPECT_TRUE(archiveIsSound());
  // Saved and read back, the name has lost the character XML cannot hold.
  EXPECT_EQ(entries(), "Walk.kmz\na_b _quoted_ $(id) ...kmz\n");
  EXPECT_FALSE(walk->isLoaded()) << "exported tracks let go of their points";
}

TEST_F(TrackLibraryArchiveTest, FailuresLeaveNoTemporaryFiles) {
  const ExportOutcome failed =
      TrackLibraryArchive::createZipFile(folder.file("no/such/out.zip"), {trips}, {}, true, false, false);
  EXPECT_THAT(failed.reason(), HasSubstr("cannot write " + folder.file("no/such/out.zip")));
  const std::string sandbox = FileHandling::singleton().sandbox();
  ASSERT_TRUE(TrackLibraryArchive::createZipFile(zip(), {trips}, {}, true, false, false));
  EXPECT_TRUE(std::filesystem::is_empty(sandbox));
}

}  // namespace
}  // namespace kvtrack::testing
