// Tracks on disk: saved, reopened unloaded, loaded on first use, unloaded,
// deleted; finding tracks by path, time and position; external copies.
#include "LibraryTestSupport.h"

#include "kvtrack/library/TrackStorage.h"
#include "kvtrack/support/NotificationCenter.h"

namespace kvtrack {
namespace {

namespace fs = std::filesystem;
using LibraryStorage = testing::LibraryTest;
using testing::ScratchFolder;

TEST_F(LibraryStorage, SavedTracksReopenUnloadedAndLoadOnFirstUse) {
  auto folder = TrackLibraryFolder::trackLibraryFolder("2012");
  library->addFolder(folder);
  auto track = walk("Alps", 20);
  folder->addTrack(track);
  const double length = track->length();
  const int32_t counter = library->trackCounter();
  reopen();

  ASSERT_EQ(library->folders().size(), 1u);
  const auto reopened = library->folders()[0]->tracks().at(0);
  // From the index, without loading.
  EXPECT_EQ(std::tuple(reopened->isLoaded(), reopened->pointCount(), reopened->name()),
            std::tuple(false, 20, "Alps"));
  EXPECT_NEAR(reopened->length(), length, 1e-3);
  EXPECT_EQ(library->trackCounter(), counter);
  EXPECT_FALSE(library->atLeastOneTrackDirty());

  EXPECT_EQ(reopened->trackPoints().size(), 20u);  // read from its file now
  EXPECT_EQ(std::tuple(reopened->isLoaded(), reopened->isDirty()), std::tuple(true, false));
  EXPECT_EQ(reopened->trackPoints()[5]->time()->timezoneOffset(), 120);

  int unloading = 0;
  auto token = NotificationCenter::defaultCenter().addObserver("UnloadingTrack",
                                                               [&](const Notification&) { ++unloading; });
  auto fresh = walk("T", 5);
  library->addTrack(fresh);
  fresh->unload();  // saves first
  EXPECT_EQ(std::tuple(unloading, fresh->isLoaded(), fresh->loadedPointCount()),
            std::tuple(1, false, size_t{0}));
  EXPECT_EQ(fresh->trackPoints().size(), 5u);  // back from the file
  fresh->unload();
  fresh->unload();  // not loaded: nothing
  EXPECT_EQ(unloading, 2);
}

// Only files the library itself stopped naming go; a file it never knew
// may be a track whose index entry was lost, and stays.
TEST_F(LibraryStorage, SavesDeleteOnlyTheFilesOfRemovedTracks) {
  auto kept = walk("kept", 2), removed = walk("removed", 2);
  library->addTrack(kept);
  library->addTrack(removed);
  ASSERT_TRUE(library->syncToDisk());
  const std::string removedFile = folder.file(*removed->filename());
  folder.write(*removed->filename() + "_tp", "x");
  for (const char* name : {"Track00000003.GPX", ".library.wayfolio.Ab12Cd", ".notes.txt.Ab12Cd"})
    folder.write(name, "x");
  library->deleteTrack(removed);
  ASSERT_TRUE(library->syncToDisk());
  for (const std::string& gone :
       {removedFile, removedFile + "_tp", folder.file(".library.wayfolio.Ab12Cd")}) {
    EXPECT_FALSE(fs::exists(gone)) << gone;  // the last a stale temporary file of a crashed save
  }
  for (const std::string& stays :
       {folder.file(".notes.txt.Ab12Cd"), folder.file("Track00000003.GPX"), folder.file(*kept->filename())}) {
    EXPECT_TRUE(fs::exists(stays)) << stays;
  }
}

TEST_F(LibraryStorage, PathsAndSearches) {
  for (const char* name : {"a", "b", "c"}) library->addFolder(TrackLibraryFolder::trackLibraryFolder(name));
  auto first = library->folders()[0];
  first->addFolder(TrackLibraryFolder::trackLibraryFolder("a1"));
  for (int i = 0; i < 3; ++i) library->addTrack(walk("root" + std::to_string(i), 3));
  EXPECT_EQ(library->trackLibraryFolderWithPath("0"), library);
  EXPECT_EQ(library->trackLibraryFolderWithPath(""), library);
  EXPECT_EQ(library->trackLibraryFolderWithPath("0."), first);
  EXPECT_EQ(library->trackLibraryFolderWithPath("0.0."), first->folders()[0]);
  EXPECT_EQ(library->trackLibraryFolderWithPath("7."), nullptr);
  EXPECT_EQ(library->trackWithPath("7.2"), library->tracks()[2]);  // invalid steps are skipped
  EXPECT_EQ(library->trackWithPath("3"), nullptr);
  EXPECT_EQ(library->trackLibraryFolderWithPath(first->folders()[0]->path()), first->folders()[0]);

  // The tracks run 10:00 to 10:02 wall-clock time in their +02:00 zone; both ends count.
  const auto find = [this](const char* local) {
    return library->findTrackForDateWithLocalTimezone(ISODate::isoDateWithString(local).value());
  };
  EXPECT_EQ(find("2012-05-01T10:01:00"), library->tracks()[0]);
  EXPECT_NE(find("2012-05-01T10:02:00"), nullptr);
  EXPECT_EQ(find("2012-05-01T10:02:01"), nullptr);
  EXPECT_EQ(find("2012-05-01T08:01:00"), nullptr);

  library->tracks()[1]->setIsSelected(true);
  const auto nearest = library->findNearestPointForLatitude(47.0011, 8.0, false);
  EXPECT_EQ(nearest.track, library->tracks()[1].get());  // only selected tracks, always
  EXPECT_EQ(nearest.index, 1);
}

TEST_F(LibraryStorage, ExternalCopyDropsTheSynchronisationIds) {
  auto track = walk("T", 2);
  library->addTrack(track);
  auto photo = TrackPhoto::trackPhotoWithFilepath("/p.jpg");
  photo->setICloudId("ABC-123_X");
  track->trackPoints()[0]->addTrackPhoto(photo);
  track->makeDirty();
  const std::string copy = folder.file("copy.gpx");
  ASSERT_TRUE(exportExternalGpx(*track, copy, true, {}));
  const std::string stripped = ScratchFolder::read(copy);
  EXPECT_NE(ScratchFolder::read(folder.file(*track->filename())).find("iCloudId=\"ABC-123_X\""),
            std::string::npos);
  EXPECT_EQ(stripped.find("iCloudId"), std::string::npos);
  EXPECT_NE(stripped.find("filename=\"/p.jpg\""), std::string::npos);
}

}  // namespace
}  // namespace kvtrack
