// Property: every track the writer produces with default options reads back
// to an equal track, and writing that copy gives the same bytes. Tracks are
// generated at random (fixed seeds) within what the file format carries:
// point tags, and a found state other than "found" on geocaches merged into
// plain track points, do not travel.
#include "kvtrack/formats/gpx/TrackGPX.h"
#include "tests/common/ScratchFolder.h"
#include "tests/formats/TrackComparison.h"
#include "tests/formats/TrackGenerator.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <tuple>

namespace kvtrack {
namespace {

using testing::Generator;
using testing::ScratchFolder;
using testing::expectSameTrack;

TEST(GpxRoundTrip, GeneratedTracksReadBackEqualAndWriteTheSameBytes) {
  ScratchFolder folder;
  const std::string first = folder.file("a.gpx"), second = folder.file("b.gpx");
  for (uint32_t seed = 1; seed <= 300 && !::testing::Test::HasFailure(); ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));  // one broken seed is enough to read
    auto original = Generator(seed).track();
    original->updateTimes();
    original->updateLength();  // reading recomputes leg lengths
    GpxExportConfiguration configuration;
    ASSERT_TRUE(TrackGPX(original).exportTo(first, configuration));
    auto copy = Track::track();
    ASSERT_TRUE(TrackGPX(copy).importFrom(first));
    expectSameTrack(*original, *copy);
    ASSERT_TRUE(TrackGPX(copy).exportTo(second, configuration));
    EXPECT_EQ(ScratchFolder::read(first), ScratchFolder::read(second));
  }
}

}  // namespace
}  // namespace kvtrack
