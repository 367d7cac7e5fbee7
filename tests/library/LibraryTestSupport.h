#pragma once
// A library on a scratch folder for one test, and helpers to reopen it.

#include "kvtrack/library/TrackLibrary.h"
#include "kvtrack/support/FileHandling.h"
#include "tests/common/ScratchFolder.h"

#include <gtest/gtest.h>

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
    library.reset();
    TrackLibrary::releaseSingleton();
    library = TrackLibrary::trackLibraryWithFileHandling(FileHandling::singleton());
    library->syncFromDisk();
  }

  /// A track of n points one minute apart, walking north.
  static TrackPtr walk(const std::string& name, int n, const std::string& start = "2012-05-01T10:00:00+02:00") {
    auto track = Track::trackWithName(name);
    track->setIsLoaded(true);
    const auto begin = ISODate::isoDateWithString(start).value();
    for (int i = 0; i < n; ++i) {
      auto p = TrackPoint::trackPointWithParent(track.get());
      p->setLatitude(47.0 + i * 0.001);
      p->setLongitude(8.0);
      p->setElevation(400 + i);
      p->setTime(begin.dateByAddingYears(0, 0, 0, 0, i, 0));
      track->addTrackPoint(p);
    }
    track->updateAll();
    return track;
  }

  ScratchFolder folder;
  TrackLibraryPtr library;
};

}  // namespace kvtrack::testing
