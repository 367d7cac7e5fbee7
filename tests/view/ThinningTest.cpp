// The map line's simplification and the profiles' down-sampling: what they
// keep, what they promise about what they drop, and that they cope with
// long and awkward input.
#include "kvtrack/model/TrackPoint.h"
#include "kvtrack/view/LineSimplification.h"
#include "kvtrack/view/ProfileSampling.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <random>

namespace kvtrack::testing {
namespace {

using ::testing::ElementsAre;

// A line due east along 47 degrees north, one vertex every 0.0001 degree
// (7.6 m), the middle one pushed north by the given degrees.
std::vector<GeoVertex> eastwardWithBump(size_t count, double bump) {
  std::vector<GeoVertex> line;
  for (size_t i = 0; i < count; ++i) line.push_back({47.0, 8.0 + 0.0001 * static_cast<double>(i)});
  line[count / 2].latitude += bump;
  return line;
}

TEST(LineSimplificationTest, OffsetsAreMetresOnTheGround) {
  // 0.0001 degree of latitude is 11.12 m on the system's sphere; the
  // flat projection must agree with the great-circle formula.
  const double northward = TrackPoint::distanceFromLatitude(47.0, 8.005, 47.0001, 8.005) * 1000.0;
  EXPECT_NEAR(distanceToSegmentInMetres({47.0001, 8.005}, {47.0, 8.0}, {47.0, 8.01}), northward, 0.01);
  // Beyond an end the distance is to that end.
  const double beyond = TrackPoint::distanceFromLatitude(47.0, 8.0, 47.0, 7.999) * 1000.0;
  EXPECT_NEAR(distanceToSegmentInMetres({47.0, 7.999}, {47.0, 8.0}, {47.0, 8.01}), beyond, 0.05);
  // Across the 180th meridian the short way is measured, not the long one.
  EXPECT_NEAR(distanceToSegmentInMetres({0.0001, 180.0}, {0.0, 179.999}, {0.0, -179.999}), 11.12, 0.01);
}

TEST(LineSimplificationTest, KeepsOnlyWhatLeavesTheTolerance) {
  EXPECT_THAT(simplifyLine(eastwardWithBump(101, 0.0), 5.0), ElementsAre(0, 100));
  // An 11 m spike stays at 5 m, with its two flanks (their neighbours lie
  // 10.8 m off the chords to the spike), and goes at 20 m.
  EXPECT_THAT(simplifyLine(eastwardWithBump(101, 0.0001), 5.0), ElementsAre(0, 49, 50, 51, 100));
  EXPECT_THAT(simplifyLine(eastwardWithBump(101, 0.0001), 20.0), ElementsAre(0, 100));
  // Short lines are kept whole, even a single point.
  EXPECT_THAT(simplifyLine(std::vector<GeoVertex>{{1, 2}}, 5.0), ElementsAre(0));
  EXPECT_THAT(simplifyLine(std::vector<GeoVertex>{{1, 2}, {1, 2}}, 5.0), ElementsAre(0, 1));
  // A closed loop (start = end) keeps its far side.
  const std::vector<GeoVertex> loop{{47.0, 8.0}, {47.001, 8.0}, {47.001, 8.001}, {47.0, 8.0}};
  EXPECT_GE(simplifyLine(loop, 5.0).size(), 3u);
}

TEST(LineSimplificationTest, EveryDroppedPointStaysWithinToleranceOfTheLine) {
  // A 100,000-point noisy walk: GPS-like jitter on a wandering course.
  std::mt19937 random(17);
  std::normal_distribution<double> jitter(0.0, 0.00003);
  std::vector<GeoVertex> line;
  double latitude = 46.5, longitude = 7.5, heading = 0.0;
  for (int i = 0; i < 100000; ++i) {
    heading += jitter(random) * 2000.0;
    latitude += 0.00002 * std::cos(heading);
    longitude += 0.00003 * std::sin(heading);
    line.push_back({latitude + jitter(random), longitude + jitter(random)});
  }
  const double tolerance = kLineToleranceMetres;
  const auto kept = simplifyLine(line, tolerance);
  ASSERT_GE(kept.size(), 2u);
  EXPECT_EQ(kept.front(), 0u);
  EXPECT_EQ(kept.back(), line.size() - 1);
  EXPECT_LT(kept.size(), line.size() / 2) << "jitter below the tolerance should go";
  for (size_t k = 1; k < kept.size(); ++k) {
    ASSERT_LT(kept[k - 1], kept[k]);
    for (size_t i = kept[k - 1] + 1; i < kept[k]; ++i) {
      ASSERT_LE(distanceToSegmentInMetres(line[i], line[kept[k - 1]], line[kept[k]]), tolerance)
          << "point " << i;
    }
  }
}

TEST(ProfileSamplingTest, KeepsEveryValueWhenThereAreFewAndMergesInOrderWithoutRepeats) {
  const double nan = std::numeric_limits<double>::quiet_NaN();
  const std::vector<double> values{3, nan, 5, 4, nan};
  EXPECT_THAT(extremeSamples(values, 10), ElementsAre(0, 2, 3));
  EXPECT_THAT(extremeSamples(values, 0), ElementsAre(0, 2, 3));
  EXPECT_THAT(mergeSamples({{1, 4, 9}, {0, 4, 10}, {}}), ElementsAre(0, 1, 4, 9, 10));
}

TEST(ProfileSamplingTest, LongProfilesKeepTheirPeaksAndRange) {
  // A gentle sine over 50,000 points with one spike and one dip between
  // samples a naive every-nth pick would take.
  std::vector<double> values;
  for (int i = 0; i < 50000; ++i) values.push_back(1000.0 + 50.0 * std::sin(i / 3000.0));
  values[12345] = 1500.0;
  values[33333] = 400.0;
  values[40000] = std::numeric_limits<double>::quiet_NaN();
  const auto chosen = extremeSamples(values, 600);
  EXPECT_LE(chosen.size(), 1200u);
  EXPECT_GE(chosen.size(), 600u);
  EXPECT_TRUE(std::is_sorted(chosen.begin(), chosen.end()));
  EXPECT_NE(std::find(chosen.begin(), chosen.end(), 12345u), chosen.end());
  EXPECT_NE(std::find(chosen.begin(), chosen.end(), 33333u), chosen.end());
  EXPECT_EQ(std::find(chosen.begin(), chosen.end(), 40000u), chosen.end());
  // Each run is about 83 points long: no gap between samples is much wider.
  for (size_t k = 1; k < chosen.size(); ++k) ASSERT_LT(chosen[k] - chosen[k - 1], 2 * 50000u / 600);
}

}  // namespace
}  // namespace kvtrack::testing
