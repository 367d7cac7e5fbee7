#include "kvtrack/formats/gpx/TrackGPX.h"
#include "kvtrack/support/FileHandling.h"
#include "kvtrack/support/Log.h"
#include "tests/common/ScratchFolder.h"

#include <gtest/gtest.h>

#include <cmath>
#include <optional>
#include <tuple>

namespace kvtrack {
namespace {

using testing::ScratchFolder;

std::string gpx(const std::string& body) {
  return R"(<?xml version="1.0" encoding="UTF-8"?>
<gpx xmlns="http://www.topografix.com/GPX/1/1" version="1.1" creator="test"
     xmlns:wayfolio="https://wayfolio.invalid/xmlschemas/WayfolioGPX/1/0">)" +
         body + "</gpx>\n";
}

std::shared_ptr<Track> read(const ScratchFolder& folder, const std::string& text) {
  auto track = Track::track();
  TrackGPX(track).importFrom(folder.write("in.gpx", text));
  return track;
}

// Every attribute the writer produces reads back in the round-trip tests; here
// the zone applied to UTC times and the figures computed after reading.
TEST(GpxReading, TrackTimeZoneAndComputedFigures) {
  ScratchFolder folder;
  auto track = read(folder, gpx(R"(
    <trk><name>Alps &amp; more</name>
      <extensions><wayfolio:timezone offset="120"/></extensions>
      <trkseg>
        <trkpt lat="47.1" lon="8.1"><ele>400.5</ele><time>2012-05-01T10:00:00Z</time></trkpt>
        <trkpt lat="47.2" lon="8.2"><ele>410</ele><time>2012-05-01T10:10:00Z</time></trkpt>
      </trkseg>
    </trk>)"));
  EXPECT_EQ(track->name(), "Alps & more");
  EXPECT_TRUE(track->timezoneSetDuringImport());
  ASSERT_EQ(track->trackPoints().size(), 2u);
  EXPECT_EQ(track->trackPoints()[0]->time()->description(), "2012-05-01T12:00:00+02:00");
  EXPECT_EQ(track->startTime()->description(), "2012-05-01T12:00:00+02:00");
  EXPECT_DOUBLE_EQ(track->duration(), 600);
  EXPECT_GT(track->length(), 13.0);  // lengths are computed after reading
  EXPECT_TRUE(track->trackPoints()[1]->isEndOfSegment());
}

TEST(GpxReading, SegmentsRoutesAndWaypointNames) {
  ScratchFolder folder;
  auto track = read(folder, gpx(R"(
    <trk><trkseg><trkpt lat="1" lon="1"/><trkpt lat="2" lon="2"/></trkseg>
         <trkseg><trkpt lat="3" lon="3"><name>WP12</name></trkpt>
                 <trkpt lat="4" lon="4"><name>Hut</name></trkpt></trkseg></trk>)"));
  const auto p = track->trackPoints();
  ASSERT_EQ(p.size(), 4u);
  EXPECT_FALSE(p[0]->isEndOfSegment());
  EXPECT_TRUE(p[1]->isEndOfSegment());
  EXPECT_TRUE(p[3]->isEndOfSegment());
  // "WP…" turns a track point into a waypoint, but that chunk is not its name.
  EXPECT_TRUE(p[2]->isWayPoint());
  EXPECT_FALSE(p[2]->name());
  EXPECT_FALSE(p[3]->isWayPoint());
  EXPECT_FALSE(p[3]->name());

  auto route = read(folder, gpx(R"(
    <rte><name>Tour</name><rtept lat="1" lon="1"><name>Start</name></rtept>
         <rtept lat="2" lon="2"></rtept><rtept lat="3" lon="3"><name></name></rtept></rte>)"));
  const auto r = route->trackPoints();
  ASSERT_EQ(r.size(), 3u);
  EXPECT_TRUE(r[0]->isWayPoint());
  EXPECT_EQ(r[0]->name(), "Start");
  EXPECT_FALSE(r[1]->isWayPoint());
  EXPECT_FALSE(r[2]->isWayPoint());
}

// A position that is missing, not a number or off the earth is never
// folded into another place: the point is skipped and counted.
TEST(GpxReading, InvalidPositionsSkipPointsAndBadNumbersBecomeNaN) {
  ScratchFolder folder;
  const std::string path = folder.write("bad.gpx", gpx(R"(
    <wpt lat="999" lon="8"><name>Off</name></wpt>
    <trk><trkseg>
      <trkpt lat="north" lon="8"><time>2012-05-01T10:00:00Z</time><ele>3</ele><name>x</name>
        <extensions><wayfolio:photo filename="/dropped.jpg"/></extensions></trkpt>
      <trkpt lon="8"><ele>high</ele><time>yesterday</time><speed>fast</speed></trkpt>
      <trkpt lat="91" lon="8"/><trkpt lat="-90.5" lon="8"/><trkpt lat="1" lon="180.001"/>
      <trkpt lat="47abc" lon="8"/><trkpt lat="nan" lon="8"/><trkpt lat="" lon="8"/>
      <trkpt lat="47" lon="8"><ele>high</ele><time>yesterday</time><speed>fast</speed></trkpt>
      <trkpt lat=" -90 " lon="-180"><ele> 12.5 </ele><wayfolio:speed>3.5</wayfolio:speed>
        <wayfolio:length>99</wayfolio:length></trkpt>
    </trkseg></trk>)"));
  auto track = Track::track();
  track->setIsLoaded(true);
  TrackGPX reader(*track);
  ASSERT_TRUE(reader.importFrom(path));
  EXPECT_EQ(reader.invalidPositionCount(), 9);
  const auto p = track->trackPoints();
  ASSERT_EQ(p.size(), 2u);
  EXPECT_EQ(p[0]->latitude(), 47.0);
  EXPECT_TRUE(std::isnan(p[0]->elevation()));
  EXPECT_FALSE(p[0]->hasTime());
  EXPECT_TRUE(std::isnan(p[0]->speed()));
  EXPECT_TRUE(p[0]->trackPhotos().empty());
  EXPECT_EQ(p[1]->latitude(), -90.0);
  EXPECT_EQ(p[1]->longitude(), -180.0);
  EXPECT_EQ(p[1]->elevation(), 12.5);
  EXPECT_EQ(p[1]->speed(), 3.5);
  EXPECT_NE(p[1]->length(), 99.0);  // recomputed, never read
}

TEST(GpxReading, WaypointsMergeByPositionThenTimeOrAreDropped) {
  ScratchFolder folder;
  auto track = read(folder, gpx(R"(
    <wpt lat="47.5" lon="8.5"><name>Summit</name><sym>Flag</sym></wpt>
    <wpt lat="0" lon="9"><time>2012-05-01T10:00:04Z</time><name>ByTime</name></wpt>
    <wpt lat="10" lon="10"><name>Nowhere</name></wpt>
    <trk><trkseg>
      <trkpt lat="47.4" lon="8.4"><time>2012-05-01T10:00:00Z</time></trkpt>
      <trkpt lat="47.5" lon="8.5"><time>2012-05-01T10:00:10Z</time></trkpt>
    </trkseg></trk>)"));
  const auto p = track->trackPoints();
  ASSERT_EQ(p.size(), 2u);
  EXPECT_TRUE(p[1]->isWayPoint());
  EXPECT_EQ(p[1]->name(), "Summit");  // every waypoint field: see the round-trip tests
  EXPECT_EQ(p[1]->symbol(), "Flag");
  // Zero latitude: matched by time, taking the waypoint's position.
  EXPECT_TRUE(p[0]->isWayPoint());
  EXPECT_EQ(p[0]->name(), "ByTime");
  EXPECT_EQ(p[0]->longitude(), 9.0);
}

// Each waypoint takes the first point at its position, as the points are
// when its turn comes: a point found by time has moved to its waypoint's
// position, where a later waypoint finds it.
TEST(GpxReading, WaypointsTakeTheFirstPointAtTheirPositionAsPointsAreThen) {
  ScratchFolder folder;
  auto track = read(folder, gpx(R"(
    <wpt lat="47.3" lon="8.3"><name>C</name></wpt>
    <wpt lat="47.3" lon="8.3"><name>D</name></wpt>
    <wpt lat="47.1" lon="8.1"><time>2012-05-01T10:00:00Z</time><name>A</name></wpt>
    <wpt lat="47.1" lon="8.1"><name>B</name></wpt>
    <trk><trkseg>
      <trkpt lat="47.0" lon="8.0"><time>2012-05-01T10:00:00Z</time></trkpt>
      <trkpt lat="47.2" lon="8.2"><time>2012-05-01T10:00:10Z</time></trkpt>
      <trkpt lat="47.3" lon="8.3"><time>2012-05-01T10:00:20Z</time></trkpt>
      <trkpt lat="47.3" lon="8.3"><time>2012-05-01T10:00:30Z</time></trkpt>
    </trkseg></trk>)"));
  const auto p = track->trackPoints();
  ASSERT_EQ(p.size(), 4u);
  EXPECT_EQ(p[2]->name(), "D");
  EXPECT_FALSE(p[3]->isWayPoint());
  EXPECT_EQ(std::tuple(p[0]->latitude(), p[0]->longitude(), p[0]->name()),
            std::tuple(47.1, 8.1, std::optional<std::string>("B")));
  EXPECT_FALSE(p[1]->isWayPoint());
}

TEST(GpxReading, PhotosInEveryFormAndFolder) {
  ScratchFolder folder;
  FileHandling::singleton().setUserApplicationSupport(folder.path().string());
  auto track = read(folder, gpx(R"(
    <trk><trkseg><trkpt lat="1" lon="1"><extensions>
      <wayfolio:photo filename="/photos/a b.jpg" city="Zürich"/>
      <photo iphonefilename="p/2.jpg"/>
      <wayfolio:photo iphonefilename="Roamly/3.jpg"/>
    </extensions></trkpt></trkseg></trk>)"));
  const auto& photos = track->trackPoints()[0]->trackPhotos();
  ASSERT_EQ(photos.size(), 3u);
  // Every photo attribute reads back in the round-trip tests; here the older forms.
  EXPECT_EQ(photos[0]->originalFilepath(), "/photos/a b.jpg");
  EXPECT_EQ(photos[0]->city(), "Zürich");
  EXPECT_EQ(photos[0]->trackPoint(), track->trackPoints()[0].get());
  EXPECT_EQ(photos[1]->originalFilepath(), folder.file("p/2.jpg"));
  EXPECT_EQ(photos[2]->originalFilepath(),
            folder.path().string() + "/Library/Application Support/Roamly/3.jpg");
}

TEST(GpxReading, LegacyNamesAndEarlyTrackAttributes) {
  ScratchFolder folder;
  auto track = read(folder, gpx(R"(
    <trk showArea="yes" areaDistance="12" red="0" green="1" blue="0" alpha="0.5">
      <extensions><color red="0.25" green="0.25" blue="0.25" alpha="1"/></extensions>
      <trkseg><trkpt lat="1" lon="1"><speed>7</speed></trkpt></trkseg></trk>)"));
  EXPECT_TRUE(track->showArea());
  EXPECT_EQ(track->areaDistanceInMeter(), 12.0f);
  EXPECT_EQ(track->color(), (Color{0.25, 0.25, 0.25, 1}));  // the extension comes later
  EXPECT_EQ(track->trackPoints()[0]->speed(), 7.0);
  EXPECT_FALSE(track->timezoneSetDuringImport());
}

TEST(GpxReading, ExternalTrackPointFileAndIndexedPoints) {
  ScratchFolder folder;
  // 2012-05-01T10:00:00Z is 357559200 s after 2001-01-01.
  folder.write("points.txt",
               "47.100000,8.100000,400.000000,0,0,357559200\n"
               "47.200000,8.200000,401.000000,1,1,357559210\n"
               "47.3,8.3\n"
               "garbage\n47.4,8.4,0,0,0,0\n");
  auto track = read(folder, gpx(R"(
    <trk><extensions><wayfolio:externaltrackpoints filename="points.txt"/></extensions>
      <trkseg><trkpt index="1"><extensions><wayfolio:photo filename="/p.jpg"/></extensions></trkpt>
              <trkpt index="3"><extensions><wayfolio:photo filename="/q.jpg"/></extensions></trkpt>
              <trkpt index="-1"/></trkseg></trk>)"));
  const auto p = track->trackPoints();
  ASSERT_EQ(p.size(), 3u);  // reading stops at the first line without any number
  EXPECT_NEAR(p[0]->latitude(), 47.1, 1e-5);
  EXPECT_EQ(p[0]->latitude(), static_cast<double>(47.1f));  // single precision, deliberately
  EXPECT_EQ(p[0]->time()->description(), "2012-05-01T10:00:00Z");
  EXPECT_TRUE(p[1]->isWayPoint());
  EXPECT_TRUE(p[1]->isEndOfSegment());
  EXPECT_TRUE(p[1]->hasPhotos());
  EXPECT_FALSE(p[2]->hasPhotos());  // index 3 on three points is ignored
  EXPECT_EQ(p[2]->elevation(), 0.0);
}

TEST(GpxReading, ForeignElementsAndMetadataAreSkipped) {
  ScratchFolder folder;
  auto track = read(folder, gpx(R"(
    <metadata><name>Not the track</name><desc>meta</desc><time>2000-01-01T00:00:00Z</time></metadata>
    <trk><name>Run</name><extensions><gpxx:TrackExtension xmlns:gpxx="urn:x"><gpxx:DisplayColor>Red</gpxx:DisplayColor></gpxx:TrackExtension></extensions>
      <trkseg><trkpt lat="1" lon="1"><time>2012-05-01T10:00:00Z</time><extensions>
        <gpxtpx:TrackPointExtension xmlns:gpxtpx="urn:y"><gpxtpx:hr>142</gpxtpx:hr><gpxtpx:cad>88</gpxtpx:cad>
        <gpxtpx:name>inner</gpxtpx:name></gpxtpx:TrackPointExtension></extensions></trkpt></trkseg></trk>)"));
  EXPECT_EQ(track->name(), "Run");
  EXPECT_FALSE(track->description());
  ASSERT_EQ(track->trackPoints().size(), 1u);
  EXPECT_EQ(track->trackPoints()[0]->time()->description(), "2012-05-01T10:00:00Z");
}

}  // namespace
}  // namespace kvtrack
