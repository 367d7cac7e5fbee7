// The mirror in a sync folder: files other programs read, photos copied
// and never moved, and a folder that went away left alone.
#include "kvtrack/photos/TrackPhotoFiles.h"
#include "kvtrack/support/ExternalProgram.h"
#include "kvtrack/support/KvPreferences.h"
#include "kvtrack/support/Log.h"
#include "kvtrack/sync/FolderSynchronizer.h"
#include "kvtrack/sync/TrackICloudMetadata.h"
#include "tests/library/LibraryTestSupport.h"

#include <gmock/gmock.h>

#include <chrono>
#include <filesystem>
#include <thread>

namespace kvtrack::testing {
namespace {

namespace fs = std::filesystem;
using ::testing::HasSubstr;

class FolderSynchronizerTest : public LibraryTest {
 protected:
  void SetUp() override {
    LibraryTest::SetUp();
    fs::create_directory(mirror);
    KvPreferences::singleton().setICloudSupported(true);
    KvPreferences::singleton().setICloudSynchronizer(synchronizer);
  }
  void TearDown() override {
    KvPreferences::singleton().reset();
    LibraryTest::TearDown();
  }

  // A saved track of the library with an iCloudId.
  TrackPtr mirroredTrack() {
    auto track = walk("Walk", 4);
    track->setICloudId("ID-1");
    library->addTrack(track);
    return track;
  }

  ScratchFolder elsewhere;
  const std::string mirror = elsewhere.file("mirror");
  const std::shared_ptr<FolderSynchronizer> synchronizer = std::make_shared<FolderSynchronizer>(mirror);
};

TEST_F(FolderSynchronizerTest, SavingMirrorsTheTrackAsGzipAndRecord) {
  const auto track = mirroredTrack();
  ASSERT_TRUE(library->syncToDisk());  // a dirty track with an iCloudId is mirrored as it is saved
  const std::string gz = synchronizer->trackFile("ID-1");
  const auto gpx = runShellCommandReadingOutput("zcat " + FileHandling::filenameForShell(gz));
  EXPECT_EQ(gpx.status, 0);
  EXPECT_THAT(gpx.output, HasSubstr("<name>Walk</name>"));
  // Two files and no temporaries left behind.
  EXPECT_EQ(std::distance(fs::directory_iterator(mirror + "/tracks"), {}), 2);

  const auto records = synchronizer->records();
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].trackFile, gz);
  EXPECT_EQ(TrackICloud::iCloudIdFromMetadata(records[0].metadata), "ID-1");
  EXPECT_EQ(TrackICloud::timestampFromMetadata(records[0].metadata), track->iCloudTimestamp());

  library->deleteTrack(track);
  EXPECT_FALSE(fs::exists(gz) || fs::exists(synchronizer->recordFile("ID-1")));
  EXPECT_TRUE(synchronizer->records().empty());
}

TEST_F(FolderSynchronizerTest, PhotosAreCopiedNeverMovedAndAVanishedFolderIsLeftAlone) {
  const auto track = mirroredTrack();
  const std::string original = folder.write("IMG_1.JPG", std::string("\xFF\xD8jpeg\0bytes", 12));
  const auto taken = TrackPhoto::trackPhotoWithFilepath(original);
  const std::string keptFile = folder.write("kept.jpg", "kept");
  const auto kept = TrackPhoto::trackPhotoWithFilepath(keptFile);
  kept->setICloudId("KEEP");
  track->trackPoints()[0]->addTrackPhoto(taken);
  track->trackPoints()[1]->addTrackPhoto(kept);
  ASSERT_TRUE(library->syncToDisk());

  TrackICloud::movePhotosToiCloud(*track);
  EXPECT_EQ(std::tuple(kept->iCloudId(), kept->originalFilepath()),
            std::tuple(std::optional<std::string>("KEEP"), keptFile));
  ASSERT_TRUE(taken->iCloudId());
  EXPECT_EQ(taken->originalFilepath(), "");
  EXPECT_TRUE(track->isDirty());
  const std::string copy = TrackPhotos::filepath(*taken);  // resolves through the mirror
  EXPECT_EQ(copy, mirror + "/photos/" + *taken->iCloudId() + ".jpg");
  EXPECT_EQ(ScratchFolder::read(copy), ScratchFolder::read(original));
  EXPECT_EQ(ScratchFolder::read(original).size(), 12u);  // the original stays

  LogCapture capture;
  TrackICloud::requestPhotosFromiCloud(*track);
  for (int i = 0; i < 500 && capture.lines().size() < 3; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  const auto missing = [&](const std::string& file) {
    return "sync folder " + mirror + " has no file " + mirror + file +
           ": a local folder has nothing to download";
  };
  EXPECT_THAT(capture.lines(),
              ::testing::ElementsAre(missing("/thumbnails/" + *taken->iCloudId() + ".jpg"),
                                     missing("/thumbnails/KEEP.jpg"), missing("/photos/KEEP")));

  // A sync folder that went away is neither written nor made again, and
  // photos stay where they are.
  const auto later = TrackPhoto::trackPhotoWithFilepath(folder.write("IMG_2.JPG", "jpeg"));
  track->trackPoints()[2]->addTrackPhoto(later);
  track->setName("Walk on");
  const double stamp = track->iCloudTimestamp();
  fs::remove_all(mirror);
  ASSERT_TRUE(library->syncToDisk());  // the library saves all the same
  EXPECT_FALSE(synchronizer->writeTrack(*track));
  TrackICloud::movePhotosToiCloud(*track);
  EXPECT_FALSE(fs::exists(mirror));
  EXPECT_EQ(track->iCloudTimestamp(), stamp);
  EXPECT_EQ(std::tuple(later->iCloudId(), later->originalFilepath()),
            std::tuple(std::optional<std::string>(), folder.file("IMG_2.JPG")));
  EXPECT_FALSE(track->isDirty());
}

}  // namespace
}  // namespace kvtrack::testing
