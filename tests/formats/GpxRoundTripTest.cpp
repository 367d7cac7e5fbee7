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

// Comparing two tracks field by field: what the file format carries must come back equal.
bool sameNumber(double a, double b) { return (std::isnan(a) && std::isnan(b)) || a == b; }

// Field lists compared as tuples; a failure prints both.
auto fieldsOf(const Geocache& g) {
  return std::tie(g.name, g.owner, g.locale, g.state, g.country, g.summary, g.description, g.hints, g.license,
                  g.identifier, g.descriptionAsPDF, g.status, g.type, g.container, g.difficulty, g.terrain,
                  g.yourLogType);
}
auto fieldsOf(const GeocacheLog& l) {
  return std::tie(l.time, l.geocacher, l.geocacherIdentifier, l.identifier, l.type, l.text);
}
auto fieldsOf(const TrackPhoto& p) {
  return std::tuple(p.originalFilepath(), p.storedTimeOfPhoto(), p.city(), p.state(), p.country(),
                    p.isoCountryCode(), p.place(), p.base64Bookmark(), p.iPhotoIdAppleScript(), p.iPhotoId(),
                    p.iCloudId());
}
auto waypointFieldsOf(const TrackPoint& p) {
  return std::tuple(p.name(), p.description(), p.comment(), p.source(), p.url(), p.urlName(), p.symbol(),
                    p.type(), p.urlAsPDF());
}

void expectSameTrack(Track& a, Track& b) {
  EXPECT_EQ(std::tuple(a.name(), a.description(), a.tags(), a.color(), a.width(), a.showArea(),
                       a.areaDistanceInMeter(), a.showDirectionArrows(), a.syncPhotosOniPhone(),
                       a.timezoneOffset()),
            std::tuple(b.name(), b.description(), b.tags(), b.color(), b.width(), b.showArea(),
                       b.areaDistanceInMeter(), b.showDirectionArrows(), b.syncPhotosOniPhone(),
                       b.timezoneOffset()));
  const auto pa = a.trackPoints();
  const auto pb = b.trackPoints();
  ASSERT_EQ(pa.size(), pb.size());
  for (size_t i = 0; i < pa.size(); ++i) {
    const TrackPoint &x = *pa[i], &y = *pb[i];
    SCOPED_TRACE("point " + std::to_string(i));
    EXPECT_EQ(
        std::tuple(x.time(), x.latitude(), x.longitude(), x.speed(), x.isWayPoint(), x.isEndOfSegment()),
        std::tuple(y.time(), y.latitude(), y.longitude(), y.speed(), y.isWayPoint(), y.isEndOfSegment()));
    EXPECT_TRUE(sameNumber(x.elevation(), y.elevation()));
    if (x.isWayPoint()) {
      EXPECT_EQ(waypointFieldsOf(x), waypointFieldsOf(y));
      ASSERT_EQ(x.geocache() != nullptr, y.geocache() != nullptr);
      if (x.geocache()) {
        EXPECT_EQ(fieldsOf(*x.geocache()), fieldsOf(*y.geocache()));
        ASSERT_EQ(x.geocache()->logs.size(), y.geocache()->logs.size());
        for (size_t k = 0; k < x.geocache()->logs.size(); ++k) {
          EXPECT_EQ(fieldsOf(*x.geocache()->logs[k]), fieldsOf(*y.geocache()->logs[k])) << "log " << k;
        }
      }
    }
    ASSERT_EQ(x.trackPhotos().size(), y.trackPhotos().size());
    for (size_t k = 0; k < x.trackPhotos().size(); ++k) {
      EXPECT_EQ(fieldsOf(*x.trackPhotos()[k]), fieldsOf(*y.trackPhotos()[k])) << "photo " << k;
    }
  }
  EXPECT_EQ(a.startTime(), b.startTime());
  EXPECT_EQ(a.endTime(), b.endTime());
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

}  // namespace
}  // namespace kvtrack
