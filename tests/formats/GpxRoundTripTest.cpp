// Property: every track the writer produces with default options reads back
// to an equal track. Tracks are generated at random (fixed seeds) within
// what the file format carries: point tags, and a found state other than
// "found" on geocaches merged into plain track points, do not travel.
#include "kvtrack/formats/gpx/GpxWriter.h"
#include "kvtrack/formats/gpx/TrackGPX.h"
#include "tests/common/ScratchFolder.h"
#include "tests/formats/TrackComparison.h"
#include "tests/formats/TrackGenerator.h"

#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <tuple>

namespace kvtrack {
namespace {

using testing::Generator;
using testing::ScratchFolder;
using testing::expectSameTrack;

TEST(GpxRoundTrip, GeneratedTracksReadBackEqual) {
  ScratchFolder folder;
  for (uint32_t seed = 1; seed <= 300; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    auto original = Generator(seed).track();
    original->updateTimes();
    const std::string path = folder.file("track" + std::to_string(seed) + ".gpx");
    GpxExportConfiguration configuration;
    ASSERT_TRUE(TrackGPX(original).exportTo(path, configuration));
    auto copy = Track::track();
    ASSERT_TRUE(TrackGPX(copy).importFrom(path));
    expectSameTrack(*original, *copy);
    if (::testing::Test::HasFailure()) break;  // one broken seed is enough to read
  }
}

TEST(GpxRoundTrip, ReadingIsIdempotentOverASecondWrite) {
  ScratchFolder folder;
  for (uint32_t seed = 1000; seed < 1020; ++seed) {
    auto original = Generator(seed).track();
    original->updateLength();  // reading recomputes leg lengths
    GpxExportConfiguration configuration;
    const std::string first = folder.file("a.gpx"), second = folder.file("b.gpx");
    ASSERT_TRUE(TrackGPX(original).exportTo(first, configuration));
    auto copy = Track::track();
    ASSERT_TRUE(TrackGPX(copy).importFrom(first));
    ASSERT_TRUE(TrackGPX(copy).exportTo(second, configuration));
    const bool same = ScratchFolder::read(first) == ScratchFolder::read(second);
    EXPECT_TRUE(same) << "seed " << seed;
    if (!same) break;
  }
}

}  // namespace
}  // namespace kvtrack
