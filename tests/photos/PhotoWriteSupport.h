#pragma once
// A scratch folder of real photos for the matching and writing tests, with
// exiftool reading capture times for TrackPhoto.

#include "kvtrack/photos/PhotoHooks.h"
#include "kvtrack/support/Log.h"
#include "tests/common/ScratchFolder.h"
#include "tests/photos/PhotoTestSupport.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace kvtrack::testing {

class PhotoFolderTest : public ::testing::Test {
 protected:
  PhotoFolderTest() {
    installPhotoHooks();
    setLogToStandardError(false);  // every exiftool command line is logged
  }
  ~PhotoFolderTest() override { setLogToStandardError(true); }

  /// A JPEG whose camera clock read the given wall-clock time
  /// ("2012:05:01 10:30:00"), plus further exiftool assignments.
  std::string photo(const std::string& name, const std::string& wallClock,
                    std::vector<std::string> tags = {}) {
    const std::string path = scratch.file(name);
    if (!wallClock.empty()) tags.push_back("DateTimeOriginal=" + wallClock);
    EXPECT_TRUE(makeJpeg(path, tags)) << name;
    return path;
  }

  ScratchFolder scratch;
};

}  // namespace kvtrack::testing
