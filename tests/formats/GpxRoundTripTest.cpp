// Property: every track the writer produces with default options reads back
// to an equal track. Tracks are generated at random (fixed seeds) within
// what the file format carries: point tags, and a found state other than
// "found" on geocaches merged into plain track points, do not travel.
#include "kvtrack/formats/gpx/GpxWriter.h"
#include "kvtrack/formats/gpx/TrackGPX.h"
#include "tests/common/ScratchFolder.h"
#include "tests/formats/TrackGenerator.h"

#include <gtest/gtest.h>

#include <cmath>
#include <random>

namespace kvtrack {
namespace {

using testing::Generator;
using testing::ScratchFolder;

bool sameNumber(double a, double b) { return (std::isnan(a) && std::isnan(b)) || a == b; }

void expectSameGeocache(const Geocache& a, const Geocache& b, const std::string& where) {
  EXPECT_EQ(a.name, b.name) << where;
  EXPECT_EQ(a.owner, b.owner) << where;
  EXPECT_EQ(a.locale, b.locale) << where;
  EXPECT_EQ(a.state, b.state) << where;
  EXPECT_EQ(a.country, b.country) << where;
  EXPECT_EQ(a.summary, b.summary) << where;
  EXPECT_EQ(a.description, b.description) << where;
  EXPECT_EQ(a.hints, b.hints) << where;
  EXPECT_EQ(a.license, b.license) << where;
  EXPECT_EQ(a.identifier, b.identifier) << where;
  EXPECT_EQ(a.descriptionAsPDF, b.descriptionAsPDF) << where;
  EXPECT_EQ(a.status, b.status) << where;
  EXPECT_EQ(a.type, b.type) << where;
  EXPECT_EQ(a.container, b.container) << where;
  EXPECT_EQ(a.difficulty, b.difficulty) << where;
  EXPECT_EQ(a.terrain, b.terrain) << where;
  EXPECT_EQ(a.yourLogType, b.yourLogType) << where;
  ASSERT_EQ(a.logs.size(), b.logs.size()) << where;
  for (size_t k = 0; k < a.logs.size(); ++k) {
    const GeocacheLog &x = *a.logs[k], &y = *b.logs[k];
    EXPECT_EQ(x.time, y.time) << where << " log " << k;
    EXPECT_EQ(x.geocacher, y.geocacher) << where << " log " << k;
    EXPECT_EQ(x.geocacherIdentifier, y.geocacherIdentifier) << where << " log " << k;
    EXPECT_EQ(x.identifier, y.identifier) << where << " log " << k;
    EXPECT_EQ(x.type, y.type) << where << " log " << k;
    EXPECT_EQ(x.text, y.text) << where << " log " << k;
  }
}

void expectSamePhoto(const TrackPhoto& a, const TrackPhoto& b, const std::string& where) {
  EXPECT_EQ(a.originalFilepath(), b.originalFilepath()) << where;
  EXPECT_EQ(a.storedTimeOfPhoto(), b.storedTimeOfPhoto()) << where;
  EXPECT_EQ(a.city(), b.city()) << where;
  EXPECT_EQ(a.state(), b.state()) << where;
  EXPECT_EQ(a.country(), b.country()) << where;
  EXPECT_EQ(a.isoCountryCode(), b.isoCountryCode()) << where;
  EXPECT_EQ(a.place(), b.place()) << where;
  EXPECT_EQ(a.base64Bookmark(), b.base64Bookmark()) << where;
  EXPECT_EQ(a.iPhotoIdAppleScript(), b.iPhotoIdAppleScript()) << where;
  EXPECT_EQ(a.iPhotoId(), b.iPhotoId()) << where;
  EXPECT_EQ(a.iCloudId(), b.iCloudId()) << where;
}

void expectSameTrack(Track& a, Track& b) {
  EXPECT_EQ(a.name(), b.name());
  EXPECT_EQ(a.description(), b.description());
  EXPECT_EQ(a.tags(), b.tags());
  EXPECT_EQ(a.color(), b.color());
  EXPECT_EQ(a.width(), b.width());
  EXPECT_EQ(a.showArea(), b.showArea());
  EXPECT_EQ(a.areaDistanceInMeter(), b.areaDistanceInMeter());
  EXPECT_EQ(a.showDirectionArrows(), b.showDirectionArrows());
  EXPECT_EQ(a.syncPhotosOniPhone(), b.syncPhotosOniPhone());
  EXPECT_EQ(a.timezoneOffset(), b.timezoneOffset());
  const auto &pa = a.trackPoints(), &pb = b.trackPoints();
  ASSERT_EQ(pa.size(), pb.size());
  for (size_t i = 0; i < pa.size(); ++i) {
    const TrackPoint &x = *pa[i], &y = *pb[i];
    const std::string where = "point " + std::to_string(i);
    EXPECT_EQ(x.time(), y.time()) << where;
    EXPECT_EQ(x.latitude(), y.latitude()) << where;
    EXPECT_EQ(x.longitude(), y.longitude()) << where;
    EXPECT_TRUE(sameNumber(x.elevation(), y.elevation())) << where;
    EXPECT_EQ(x.speed(), y.speed()) << where;
    EXPECT_EQ(x.isWayPoint(), y.isWayPoint()) << where;
    EXPECT_EQ(x.isEndOfSegment(), y.isEndOfSegment()) << where;
    if (x.isWayPoint()) {
      EXPECT_EQ(x.name(), y.name()) << where;
      EXPECT_EQ(x.description(), y.description()) << where;
      EXPECT_EQ(x.comment(), y.comment()) << where;
      EXPECT_EQ(x.source(), y.source()) << where;
      EXPECT_EQ(x.url(), y.url()) << where;
      EXPECT_EQ(x.urlName(), y.urlName()) << where;
      EXPECT_EQ(x.symbol(), y.symbol()) << where;
      EXPECT_EQ(x.type(), y.type()) << where;
      EXPECT_EQ(x.urlAsPDF(), y.urlAsPDF()) << where;
      ASSERT_EQ(x.geocache() != nullptr, y.geocache() != nullptr) << where;
      if (x.geocache()) expectSameGeocache(*x.geocache(), *y.geocache(), where);
    }
    ASSERT_EQ(x.trackPhotos().size(), y.trackPhotos().size()) << where;
    for (size_t k = 0; k < x.trackPhotos().size(); ++k) {
      expectSamePhoto(*x.trackPhotos()[k], *y.trackPhotos()[k], where + " photo " + std::to_string(k));
    }
  }
  EXPECT_EQ(a.startTime(), b.startTime());
  EXPECT_EQ(a.endTime(), b.endTime());
}

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

TEST(GpxRoundTrip, PreformattedPointsMatchElementByElementWriting) {
  ScratchFolder folder;
  for (uint32_t seed = 2000; seed < 2100; ++seed) {
    auto track = Generator(seed).track();
    GpxExportConfiguration configuration;
    configuration.setExportWayfolioExtensions(seed % 7 != 0);
    if (seed % 3 == 0) {
      configuration.setFilterPredicate([](const TrackPoint& p) { return p.latitude() > 0; });
    }
    if (seed % 5 == 0) configuration.setDoNotExportBookmarks(true);
    const std::string fast = folder.file("fast.gpx"), reference = folder.file("reference.gpx");
    ASSERT_TRUE(TrackGPX(track).exportTo(fast, configuration));
    gpx::setPreformattedTrackPoints(false);
    const bool written = TrackGPX(track).exportTo(reference, configuration);
    gpx::setPreformattedTrackPoints(true);
    ASSERT_TRUE(written);
    const std::string a = ScratchFolder::read(fast), b = ScratchFolder::read(reference);
    ASSERT_EQ(a, b) << "seed " << seed;
  }
}

}  // namespace
}  // namespace kvtrack
