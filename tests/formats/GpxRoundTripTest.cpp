// Property: every track the writer produces with default options reads back
// to an equal track, and writing that copy gives the same bytes. Tracks are
// generated at random (fixed seeds) within what the file format carries:
// point tags, and a found state other than "found" on geocaches merged into
// plain track points, do not travel.
#include "kvtrack/formats/gpx/TrackGPX.h"
#include "tests/common/ScratchFolder.h"
#include "tests/formats/TrackGenerator.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <tuple>

namespace kvtrack {
namespace {

using testing::Generator;
using testing::ScratchFolder;

// Field lists compared as tuples; a failure prints both.
auto fieldsOf(Track& t) {
  return std::tuple(t.name(), t.description(), t.tags(), t.color(), t.width(), t.showArea(), t.areaDistanceInMeter(),
                    t.showDirectionArrows(), t.syncPhotosOniPhone(), t.timezoneOffset(), t.startTime(), t.endTime());
}
auto fieldsOf(const TrackPoint& p) {
  const double elevation = std::isnan(p.elevation()) ? -1e9 : p.elevation();
  return std::tuple(p.time(), p.latitude(), p.longitude(), elevation, p.speed(), p.isWayPoint(), p.isEndOfSegment());
}
auto waypointFieldsOf(const TrackPoint& p) {
  return std::tuple(p.name(), p.description(), p.comment(), p.source(), p.url(), p.urlName(), p.symbol(), p.type(),
                    p.urlAsPDF());
}
auto fieldsOf(const Geocache& g) {
  return std::tie(g.name, g.owner, g.locale, g.state, g.country, g.summary, g.description, g.hints, g.license,
                  g.identifier, g.descriptionAsPDF, g.status, g.type, g.container, g.difficulty, g.terrain,
                  g.yourLogType);
}
auto fieldsOf(const GeocacheLog& l) {
  return std::tie(l.time, l.geocacher, l.geocacherIdentifier, l.identifier, l.type, l.text);
}
auto fieldsOf(const TrackPhoto& p) {
  return std::tuple(p.originalFilepath(), p.storedTimeOfPhoto(), p.city(), p.state(), p.country(), p.isoCountryCode(),
                    p.place(), p.base64Bookmark(), p.iPhotoIdAppleScript(), p.iPhotoId(), p.iCloudId());
}
// Each element of a and b compared by its fields.
template <typename T>
void expectSameFields(const std::vector<std::shared_ptr<T>>& a, const std::vector<std::shared_ptr<T>>& b) {
  ASSERT_EQ(a.size(), b.size());
  for (size_t k = 0; k < a.size(); ++k) EXPECT_EQ(fieldsOf(*a[k]), fieldsOf(*b[k])) << k;
}

void expectSameTrack(Track& a, Track& b) {
  EXPECT_EQ(fieldsOf(a), fieldsOf(b));
  const auto pa = a.trackPoints(), pb = b.trackPoints();
  expectSameFields(*pa, *pb);
  for (size_t i = 0; i < std::min(pa.size(), pb.size()); ++i) {
    SCOPED_TRACE("point " + std::to_string(i));
    expectSameFields(pa[i]->trackPhotos(), pb[i]->trackPhotos());
    if (!pa[i]->isWayPoint()) continue;
    EXPECT_EQ(waypointFieldsOf(*pa[i]), waypointFieldsOf(*pb[i]));
    ASSERT_EQ(pa[i]->geocache() != nullptr, pb[i]->geocache() != nullptr);
    if (!pa[i]->geocache()) continue;
    EXPECT_EQ(fieldsOf(*pa[i]->geocache()), fieldsOf(*pb[i]->geocache()));
    expectSameFields(pa[i]->geocache()->logs, pb[i]->geocache()->logs);
  }
}

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

TEST(GpxRoundTrip, PreformattedPointsMatchElementByElementWriting) {
  ScratchFolder folder;
  const std::string fast = folder.file("fast.gpx"), reference = folder.file("reference.gpx");
  for (uint32_t seed = 2000; seed < 2100; ++seed) {
    auto track = Generator(seed).track();
    GpxExportConfiguration configuration;
    configuration.setExportWayfolioExtensions(seed % 7 != 0);
    if (seed % 3 == 0) configuration.setFilterPredicate([](const TrackPoint& p) { return p.latitude() > 0; });
    configuration.setDoNotExportBookmarks(seed % 5 == 0);
    ASSERT_TRUE(TrackGPX(track).exportTo(fast, configuration));
    configuration.setPreformattedTrackPoints(false);
    ASSERT_TRUE(TrackGPX(track).exportTo(reference, configuration));
    ASSERT_EQ(ScratchFolder::read(fast), ScratchFolder::read(reference)) << "seed " << seed;
  }
}

}  // namespace
}  // namespace kvtrack
