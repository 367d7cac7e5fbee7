#pragma once
// A library on a scratch folder for one test, and helpers to reopen it.

#include "kvtrack/library/TrackLibrary.h"
#include "kvtrack/support/FileHandling.h"
#include "tests/common/ScratchFolder.h"
#include "tests/common/TrackBuilders.h"

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
    ASSERT_TRUE(library->syncFromDisk());
  }

  static TrackPtr walk(const std::string& name, int n,
                       const std::string& start = "2012-05-01T10:00:00+02:00") {
    return ::kvtrack::testing::walk(name, n, start);
  }

  ScratchFolder folder;
  TrackLibraryPtr library;
};

}  // namespace kvtrack::testing
