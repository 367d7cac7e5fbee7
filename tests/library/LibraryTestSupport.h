#pragma once
// A library on a scratch folder for one test, and a library folder opened
// the way wayfolio opens it.

#include "kvtrack/library/LibraryRecovery.h"
#include "kvtrack/library/TrackLibrary.h"
#include "kvtrack/support/FileHandling.h"
#include "tests/common/ScratchFolder.h"
#include "tests/common/TrackBuilders.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <map>

namespace kvtrack::testing {

class LibraryTest : public ::testing::Test {
 public:
  void SetUp() override {
    FileHandling::singleton().setUserApplicationSupport(folder.path().string());
    library = TrackLibrary::trackLibraryWithFileHandling(FileHandling::singleton());
  }
  void TearDown() override {
    library.reset();
    TrackLibrary::releaseSingleton();
  }

  /// Saves, drops the library and opens the folder again from its index.
  void reopen() {
    ASSERT_TRUE(library->syncToDisk());
    TearDown();
    SetUp();
    ASSERT_TRUE(library->syncFromDisk());
  }

  static TrackPtr walk(const std::string& name, int n, const std::string& start = "2012-05-01T10:00:00+02:00") {
    return ::kvtrack::testing::walk(name, n, start);
  }

  ScratchFolder folder;
  TrackLibraryPtr library;
};

/// A fresh library object on the folder, opened as wayfolio opens it, and
/// dropped without a save.
struct OpenedLibrary {
  explicit OpenedLibrary(const std::filesystem::path& folder, bool readOnly = false) {
    files.setUserApplicationSupport(folder.string());
    library = TrackLibrary::trackLibraryWithFileHandling(files);
    library->setReadOnly(readOnly);
    opening = openLibrary(*library, "test");
  }
  ~OpenedLibrary() {
    library->setReadOnly(true);
    library.reset();
    TrackLibrary::releaseSingleton();
  }
  /// "Folder/Name" -> point count, for every track; each must read whole.
  std::map<std::string, size_t> tracks() const {
    std::map<std::string, size_t> found;
    for (const auto& track : library->allTracks()) {
      const auto folder = std::dynamic_pointer_cast<TrackLibraryFolder>(track->parent());
      found[(folder == library ? "" : folder->name() + "/") + track->name()] = track->trackPoints().size();
      EXPECT_FALSE(track->damage()) << *track->damage();
    }
    return found;
  }

  FileHandling files;
  TrackLibraryPtr library;
  LibraryOpening opening;
};

/// Two saves with "Alps/Ridge" and "Lake", then the folder "Rides" added
/// and saved: the previous index knows the first two tracks only.
inline void makeLibrary(const std::filesystem::path& folder, int ridgePoints, int lakePoints) {
  OpenedLibrary open(folder);
  auto alps = TrackLibraryFolder::trackLibraryFolder("Alps");
  open.library->addFolder(alps);
  alps->addTrack(walk("Ridge", ridgePoints));
  open.library->addTrack(walk("Lake", lakePoints, "2012-06-01T10:00:00+02:00"));
  ASSERT_TRUE(open.library->syncToDisk());
  open.library->addFolder(TrackLibraryFolder::trackLibraryFolder("Rides"));
  ASSERT_TRUE(open.library->syncToDisk());
}

}  // namespace kvtrack::testing
