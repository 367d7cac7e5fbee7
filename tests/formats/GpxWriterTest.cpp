#include "kvtrack/formats/geocache/GeocacheNames.h"
#include "kvtrack/formats/gpx/ExternalTrackPoints.h"
#include "kvtrack/formats/gpx/TrackGPX.h"
#include "kvtrack/formats/gpx/TrackLibraryGPX.h"
#include "kvtrack/support/Base64.h"
#include "kvtrack/support/Log.h"
#include "tests/common/ScratchFolder.h"
#include "tests/formats/GpxTestSupport.h"

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <limits>

namespace kvtrack {
namespace {

using testing::appendPoint;
using testing::appendWaypoint;
using testing::dateFrom;
using testing::ScratchFolder;
using testing::XmlNode;
using Names = std::vector<std::string>;

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

struct Written {
  std::string text;
  std::unique_ptr<XmlNode> root;
};

Written exportTrack(const ScratchFolder& folder, const TrackPtr& track,
                    GpxExportConfiguration configuration = {}) {
  const std::string path = folder.file("out.gpx");
  EXPECT_TRUE(TrackGPX(track).exportTo(path, configuration));
  EXPECT_EQ(configuration.filename(), path);
  return {ScratchFolder::read(path), testing::readXmlTree(path)};
}

std::string rootTag(const char* gpx) {
  return fmt::format(
      "<gpx xmlns=\"{0}\" xmlns:xsd=\"http://www.w3.org/2001/XMLSchema\" "
      "xmlns:xsi=\"http://www.w3.org/2001/XMLSchema-instance\" "
      "xmlns:wayfolio=\"https://wayfolio.invalid/xmlschemas/WayfolioGPX/1/0\" "
      "creator=\"Wayfolio\" version=\"{1}\" xsi:schemaLocation=\"{0} {0}/gpx.xsd\">",
      gpx, gpx[std::string_view(gpx).size() - 1] == '0' ? "1.0" : "1.1");
}

// --- document root -------------------------------------------------------------

TEST(GpxWriterRoot, DeclaresNamespacesBeforeCreatorVersionAndSchema) {
  ScratchFolder folder;
  const Written out = exportTrack(folder, Track::trackWithName("t"));
  EXPECT_TRUE(out.text.starts_with("<?xml version=\"1.0\" encoding=\"utf-8\"?>\n" +
                                   rootTag("http://www.topografix.com/GPX/1/1") + "\n"))
      << out.text;
  EXPECT_EQ(out.root->childNames(), (Names{"trk"}));  // no metadata
}

TEST(GpxWriterRoot, Gpx10ChangesOnlyTheRootTag) {
  ScratchFolder folder;
  auto track = Track::trackWithName("t");
  appendWaypoint(*track, 1, 2, "w")->setSpeed(3);
  GpxExportConfiguration gpx10;
  gpx10.setUseGPX10(true);
  const std::string text11 = exportTrack(folder, track).text;
  const std::string text10 = exportTrack(folder, track, gpx10).text;
  const std::string tag10 = rootTag("http://www.topografix.com/GPX/1/0");
  const std::string tag11 = rootTag("http://www.topografix.com/GPX/1/1");
  ASSERT_NE(text10.find(tag10), std::string::npos) << text10;
  EXPECT_EQ(text10.substr(text10.find(tag10) + tag10.size()),
            text11.substr(text11.find(tag11) + tag11.size()));
  EXPECT_NE(text10.find("<wayfolio:speed>3</wayfolio:speed>"), std::string::npos);
}

// --- tracks and routes -----------------------------------------------------------

TEST(GpxWriterTrack, EmptyTrackHasNameExtensionsAndOneEmptySegment) {
  ScratchFolder folder;
  const Written out = exportTrack(folder, Track::track());
  const XmlNode* trk = out.root->child("trk");
  ASSERT_NE(trk, nullptr);
  EXPECT_EQ(trk->childNames(), (Names{"name", "extensions", "trkseg"}));
  EXPECT_EQ(trk->childText("name"), "");
  EXPECT_TRUE(trk->child("trkseg")->children.empty());
  const XmlNode* extensions = trk->child("extensions");
  EXPECT_EQ(extensions->childNames(), (Names{"wayfolio:color", "wayfolio:area",
                                             "wayfolio:directionArrows", "wayfolio:sync"}));
  const XmlNode* color = extensions->child("wayfolio:color");
  EXPECT_EQ(color->attributeNames(), (Names{"red", "green", "blue", "alpha"}));
  EXPECT_EQ(color->attribute("blue"), "1.000000");
  EXPECT_EQ(color->attribute("red"), "0.000000");
  const XmlNode* area = extensions->child("wayfolio:area");
  EXPECT_EQ(area->attributeNames(), (Names{"showArea", "areaDistance"}));
  EXPECT_EQ(area->attribute("showArea"), "no");
  EXPECT_EQ(extensions->child("wayfolio:directionArrows")->attribute("showDirectionArrows"), "yes");
  EXPECT_EQ(extensions->child("wayfolio:sync")->attribute("syncPhotosOniPhone"), "no");
}

TEST(GpxWriterTrack, EmptyRouteHasNameAndExtensionsOnly) {
  ScratchFolder folder;
  auto route = Track::trackWithName("r");
  route->setType(Track::kPlaceCollection);
  const Written out = exportTrack(folder, route);
  EXPECT_EQ(out.root->childNames(), (Names{"rte"}));
  EXPECT_EQ(out.root->child("rte")->childNames(), (Names{"name", "extensions"}));
}

TEST(GpxWriterTrack, DisplayAttributesTagsAndTimeZone) {
  ScratchFolder folder;
  auto track = Track::trackWithName("Alps & more");
  track->setDescription("two\nlines");
  track->setColor({1, 0.5, 0.25, 0.75});
  track->setWidth(2.5f);
  track->setShowArea(true);
  track->setAreaDistanceInMeter(25);
  track->setShowDirectionArrows(false);
  track->setSyncPhotosOniPhone(true);
  track->setTags("hike, summer");
  appendPoint(*track, 47, 8, "2012-05-01T12:00:00+02:00");
  appendPoint(*track, 47, 8, "2012-05-01T12:00:00-05:00");
  const Written out = exportTrack(folder, track);
  const XmlNode* trk = out.root->child("trk");
  EXPECT_EQ(trk->childNames(), (Names{"name", "desc", "extensions", "trkseg"}));
  EXPECT_EQ(trk->childText("name"), "Alps & more");
  EXPECT_EQ(trk->childText("desc"), "two\nlines");
  const XmlNode* extensions = trk->child("extensions");
  EXPECT_EQ(extensions->childNames(),
            (Names{"wayfolio:color", "wayfolio:width", "wayfolio:area", "wayfolio:directionArrows",
                   "wayfolio:sync", "wayfolio:timezone", "wayfolio:tags"}));
  EXPECT_EQ(extensions->child("wayfolio:color")->attribute("green"), "0.500000");
  EXPECT_EQ(extensions->child("wayfolio:color")->attribute("alpha"), "0.750000");
  EXPECT_EQ(extensions->child("wayfolio:width")->attribute("width"), "2.500000");
  EXPECT_EQ(extensions->child("wayfolio:area")->attribute("showArea"), "yes");
  EXPECT_EQ(extensions->child("wayfolio:area")->attribute("areaDistance"), "25.000000");
  EXPECT_EQ(extensions->child("wayfolio:directionArrows")->attribute("showDirectionArrows"), "no");
  EXPECT_EQ(extensions->child("wayfolio:sync")->attribute("syncPhotosOniPhone"), "yes");
  // The offset of the first point, not of the second.
  EXPECT_EQ(extensions->child("wayfolio:timezone")->attribute("offset"), "120");
  EXPECT_EQ(extensions->childText("wayfolio:tags"), "hike, summer");
}

TEST(GpxWriterTrack, FirstPointWithoutTimeGivesOffsetZero) {
  ScratchFolder folder;
  auto track = Track::track();
  appendPoint(*track, 47, 8);
  const Written out = exportTrack(folder, track);
  const XmlNode* extensions = out.root->child("trk")->child("extensions");
  EXPECT_EQ(extensions->child("wayfolio:timezone")->attribute("offset"), "0");
}

TEST(GpxWriterTrack, SegmentEndsSplitTheTrackButNeverLeaveAnEmptySegment) {
  ScratchFolder folder;
  auto track = Track::track();
  for (int i = 0; i < 3; ++i) appendPoint(*track, 47 + i, 8);
  track->trackPoints()[2]->setIsEndOfSegment(true);
  Written out = exportTrack(folder, track);
  auto segments = out.root->child("trk")->all("trkseg");
  ASSERT_EQ(segments.size(), 1u);
  EXPECT_EQ(segments[0]->all("trkpt").size(), 3u);

  track->trackPoints()[2]->setIsEndOfSegment(false);
  track->trackPoints()[0]->setIsEndOfSegment(true);
  out = exportTrack(folder, track);
  segments = out.root->child("trk")->all("trkseg");
  ASSERT_EQ(segments.size(), 2u);
  EXPECT_EQ(segments[0]->all("trkpt").size(), 1u);
  EXPECT_EQ(segments[1]->all("trkpt").size(), 2u);
  EXPECT_EQ(segments[1]->child("trkpt")->attribute("lat"), "48");
}

TEST(GpxWriterTrack, RouteWritesRoutePointsWithoutTimesAndNoWaypoints) {
  ScratchFolder folder;
  auto route = Track::trackWithName("r");
  route->setType(Track::kPlaceCollection);
  appendWaypoint(*route, 1, 2, "a")->setTime(dateFrom("2012-05-01T10:00:00Z"));
  appendPoint(*route, 3, 4, "2012-05-01T11:00:00Z")->setIsEndOfSegment(true);
  appendPoint(*route, 5, 6);
  const Written out = exportTrack(folder, route);
  EXPECT_EQ(out.root->childNames(), (Names{"rte"}));
  const XmlNode* rte = out.root->child("rte");
  EXPECT_EQ(rte->childNames(), (Names{"name", "extensions", "rtept", "rtept", "rtept"}));
  EXPECT_EQ(rte->child("rtept")->childNames(), (Names{"ele", "name", "desc", "extensions"}));
  EXPECT_EQ(out.text.find("<time>"), std::string::npos);
}

TEST(GpxWriterTrack, CollectionsWriteTheirWaypointsAndNoPoints) {
  ScratchFolder folder;
  auto collection = Track::trackWithName("caches");
  collection->setType(Track::kLibraryCollection);
  appendWaypoint(*collection, 1, 2, "one");
  appendPoint(*collection, 3, 4);
  appendWaypoint(*collection, 5, 6, "two");
  const Written out = exportTrack(folder, collection);
  EXPECT_EQ(out.root->childNames(), (Names{"wpt", "wpt", "trk"}));
  EXPECT_EQ(out.root->child("wpt", 1)->childText("name"), "two");
  EXPECT_EQ(out.root->child("trk")->childNames(), (Names{"name", "extensions"}));
}

// --- points ------------------------------------------------------------------------

TEST(GpxWriterPoint, WaypointChildrenInOrderAndTrackPointWithoutWaypointFields) {
  ScratchFolder folder;
  auto track = Track::track();
  auto point = appendWaypoint(*track, 48.5, 11.25, "Summit");
  point->setTime(dateFrom("2012-05-01T10:00:00.25Z"));
  point->setComment("cmt");
  point->setDescription("desc");
  point->setSource("src");
  point->setUrl("https://example.org/x?a=1&b=2");
  point->setUrlName("link");
  point->setSymbol("Flag");
  point->setType("peak");
  const Written out = exportTrack(folder, track);
  const XmlNode* wpt = out.root->child("wpt");
  EXPECT_EQ(wpt->attributeNames(), (Names{"lat", "lon"}));
  EXPECT_EQ(wpt->childNames(), (Names{"ele", "time", "name", "cmt", "desc", "src", "url", "urlname",
                                      "sym", "type", "extensions"}));
  EXPECT_EQ(wpt->childText("time"), "2012-05-01T10:00:00.25Z");
  EXPECT_EQ(wpt->childText("url"), "https://example.org/x?a=1&b=2");
  EXPECT_EQ(wpt->childText("ele"), "0");
  const XmlNode* trkpt = out.root->child("trk")->child("trkseg")->child("trkpt");
  EXPECT_EQ(trkpt->childNames(), (Names{"ele", "time", "name", "cmt", "desc", "extensions"}));
}

TEST(GpxWriterPoint, DescriptionFallsBackToPositionAndSpeed) {
  ScratchFolder folder;
  auto track = Track::track();
  appendPoint(*track, 48.137154, 11.576124, {}, 512.25);  // speed never computed: -1
  appendPoint(*track, 1, 2, {}, kNaN)->setSpeed(kNaN);
  const Written out = exportTrack(folder, track);
  const XmlNode* segment = out.root->child("trk")->child("trkseg");
  EXPECT_EQ(segment->child("trkpt")->childText("desc"),
            "Lat.=48.137154, Long.=11.576124, Alt.=512.250000m, Speed=-1.000000Km/h");
  EXPECT_EQ(segment->child("trkpt", 1)->childText("ele"), "NaN");
  EXPECT_EQ(segment->child("trkpt", 1)->childText("desc"),
            "Lat.=1.000000, Long.=2.000000, Alt.=nanm, Speed=nanKm/h");
}

TEST(GpxWriterPoint, CoordinatesAreShortestDecimalsThatReadBackExactly) {
  ScratchFolder folder;
  auto track = Track::track();
  const double values[][2] = {
      {48.137154, 0.00001}, {1.0 / 3.0, -122.4194155}, {-0.0000001, 179.999}};
  for (const auto& v : values) appendPoint(*track, v[0], v[1], {}, v[1] / 7);
  const Written out = exportTrack(folder, track);
  const XmlNode* segment = out.root->child("trk")->child("trkseg");
  EXPECT_EQ(segment->child("trkpt")->attribute("lat"), "48.137154");
  EXPECT_EQ(segment->child("trkpt")->attribute("lon"), "0.00001");
  for (size_t i = 0; i < std::size(values); ++i) {
    const XmlNode* point = segment->child("trkpt", i);
    const std::string texts[] = {*point->attribute("lat"), *point->attribute("lon"),
                                 *point->childText("ele")};
    const double expected[] = {values[i][0], values[i][1], values[i][1] / 7};
    for (int k = 0; k < 3; ++k) {
      EXPECT_EQ(texts[k].find_first_of("eE"), std::string::npos) << texts[k];
      EXPECT_EQ(std::strtod(texts[k].c_str(), nullptr), expected[k]) << texts[k];
    }
  }
}

TEST(GpxWriterPoint, SpeedLengthAndTagsOnlyWhenMeaningful) {
  ScratchFolder folder;
  auto track = Track::track();
  appendPoint(*track, 1, 1)->setSpeed(-1);
  appendPoint(*track, 1, 1)->setSpeed(kNaN);
  auto zero = appendPoint(*track, 1, 1);
  zero->setSpeed(0);
  zero->setTags("");
  auto moving = appendPoint(*track, 1, 1);
  moving->setSpeed(12.5);
  moving->setLength(-1);
  moving->setTags("fast");
  const Written out = exportTrack(folder, track);
  const XmlNode* segment = out.root->child("trk")->child("trkseg");
  auto extensions = [&](size_t i) { return segment->child("trkpt", i)->child("extensions"); };
  EXPECT_EQ(extensions(0)->childNames(), (Names{"wayfolio:length"}));
  EXPECT_EQ(extensions(1)->childNames(), (Names{"wayfolio:length"}));
  EXPECT_EQ(extensions(2)->childNames(), (Names{"wayfolio:speed", "wayfolio:length"}));
  EXPECT_EQ(extensions(2)->childText("wayfolio:speed"), "0");
  EXPECT_EQ(extensions(3)->childNames(), (Names{"wayfolio:speed", "wayfolio:tags"}));
  EXPECT_EQ(extensions(3)->childText("wayfolio:speed"), "12.5");
}

TEST(GpxWriterPoint, FilterAndExtensionSwitch) {
  ScratchFolder folder;
  auto track = Track::track();
  for (int i = 0; i < 4; ++i) appendWaypoint(*track, i, 0, fmt::format("w{}", i));
  GpxExportConfiguration configuration;
  configuration.setFilterPredicate([](const TrackPoint& p) { return p.latitude() >= 2; });
  configuration.setExportWayfolioExtensions(false);
  const Written out = exportTrack(folder, track, configuration);
  EXPECT_EQ(out.root->childNames(), (Names{"wpt", "wpt", "trk"}));
  EXPECT_EQ(out.root->child("wpt")->childText("name"), "w2");
  EXPECT_EQ(out.root->child("wpt")->child("extensions"), nullptr);
  EXPECT_EQ(out.root->child("trk")->child("trkseg")->all("trkpt").size(), 2u);
}

TEST(GpxWriterPoint, GeocacheExtensionsAndBlocks) {
  ScratchFolder folder;
  auto track = Track::track();
  auto point = appendWaypoint(*track, 1, 2, "GC1");
  auto geocache = std::make_shared<Geocache>();
  geocache->yourLogType = 2;
  geocache->descriptionAsPDF = "desc.pdf";
  point->setGeocache(geocache);
  point->setUrlAsPDF("page.pdf");
  GpxExportConfiguration both;
  both.setExportGroundspeakExtensions(true);
  Written out = exportTrack(folder, track, both);
  const XmlNode* wpt = out.root->child("wpt");
  EXPECT_NE(wpt->child("geocache"), nullptr);
  EXPECT_NE(wpt->child("groundspeak:cache"), nullptr);
  const XmlNode* extensions = wpt->child("extensions");
  EXPECT_EQ(extensions->childNames(),
            (Names{"wayfolio:yourLog", "wayfolio:urlAsPDF", "wayfolio:geocacheDescriptionAsPDF",
                   "wayfolio:length"}));
  EXPECT_EQ(extensions->child("wayfolio:yourLog")->attribute("status"), gpxNameForLogType(2));
  EXPECT_EQ(extensions->childText("wayfolio:geocacheDescriptionAsPDF"), "desc.pdf");

  GpxExportConfiguration none;
  none.setExportGeocachingAuExtensions(false);
  out = exportTrack(folder, track, none);
  wpt = out.root->child("wpt");
  EXPECT_EQ(wpt->child("geocache"), nullptr);
  EXPECT_EQ(wpt->child("groundspeak:cache"), nullptr);
}

// --- photos ----------------------------------------------------------------------

TEST(GpxWriterPhoto, AttributesTimeBookmarkAndIdentifiers) {
  ScratchFolder folder;
  const std::string imagePath = folder.write("IMG 1.jpg", "jpeg");
  int fileReads = 0;
  TrackPhoto::setCaptureTimeReader([&](const std::string&) {
    ++fileReads;
    return std::optional<ISODate>();
  });
  auto track = Track::track();
  auto point = appendPoint(*track, 1, 2);
  auto photo = TrackPhoto::trackPhotoWithFilepath(imagePath);
  photo->setTimeOfPhoto(dateFrom("2012-05-01T12:00:00+02:00"));
  photo->setCity("Zürich");
  photo->setState("ZH");
  photo->setCountry("Schweiz");
  photo->setIsoCountryCode("CH");
  photo->setPlace("Bahnhof");
  photo->setIPhotoIdAppleScript("script");
  photo->setIPhotoId(42);
  photo->setICloudId("cloud");
  point->addTrackPhoto(photo);
  auto untimed = TrackPhoto::trackPhotoWithFilepath(folder.file("missing.jpg"));
  point->addTrackPhoto(untimed);

  Written out = exportTrack(folder, track);
  const XmlNode* extensions =
      out.root->child("trk")->child("trkseg")->child("trkpt")->child("extensions");
  const XmlNode* first = extensions->child("wayfolio:photo");
  EXPECT_EQ(first->attributeNames(),
            (Names{"filename", "time", "city", "state", "country", "isoCountryCode", "place",
                   "iPhotoIdAppleScript", "iPhotoId", "iCloudId"}));
  EXPECT_EQ(first->attribute("filename"), imagePath);
  EXPECT_EQ(first->attribute("time"), "2012-05-01T12:00:00+02:00");
  EXPECT_EQ(first->attribute("city"), "Zürich");
  EXPECT_EQ(first->attribute("iPhotoId"), "42");
  EXPECT_EQ(first->childText("wayfolio:bookmark"), base64Encode(imagePath));
  EXPECT_EQ(photo->base64Bookmark(), base64Encode(imagePath));
  const XmlNode* second = extensions->child("wayfolio:photo", 1);
  EXPECT_EQ(second->attributeNames(), (Names{"filename"}));  // no stored time, no file
  EXPECT_TRUE(second->children.empty());
  EXPECT_FALSE(untimed->base64Bookmark().has_value());
  EXPECT_EQ(fileReads, 0);
  TrackPhoto::setCaptureTimeReader(nullptr);

  GpxExportConfiguration quiet;
  quiet.setDoNotExportBookmarks(true);
  quiet.setDoNotExportiCloudInfo(true);
  out = exportTrack(folder, track, quiet);
  first = out.root->child("trk")
              ->child("trkseg")
              ->child("trkpt")
              ->child("extensions")
              ->child("wayfolio:photo");
  EXPECT_FALSE(first->attribute("iCloudId").has_value());
  EXPECT_TRUE(first->attribute("iPhotoId").has_value());
  EXPECT_TRUE(first->children.empty());
}

TEST(GpxWriterPhoto, PhoneOnlyAndNoPhotos) {
  ScratchFolder folder;
  auto track = Track::track();
  auto point = appendPoint(*track, 1, 2);
  point->addTrackPhoto(TrackPhoto::trackPhotoWithFilepath("/nowhere/a.jpg"));
  auto onPhone = TrackPhoto::trackPhotoWithFilepath("/nowhere/b.jpg");
  onPhone->setIPhoneFilename("IMG_0002.JPG");
  point->addTrackPhoto(onPhone);
  // The file names of the photos written.
  auto photosOf = [&](GpxExportConfiguration configuration) {
    const Written out = exportTrack(folder, track, configuration);
    Names names;
    for (const XmlNode* photo : out.root->child("trk")
                                    ->child("trkseg")
                                    ->child("trkpt")
                                    ->child("extensions")
                                    ->all("wayfolio:photo")) {
      names.push_back(photo->attribute("filename").value_or("?"));
    }
    return names;
  };
  EXPECT_EQ(photosOf({}), (Names{"/nowhere/a.jpg", "/nowhere/b.jpg"}));
  GpxExportConfiguration phoneOnly;
  phoneOnly.setExportiPhonePhotosOnly(true);
  EXPECT_EQ(photosOf(phoneOnly), (Names{"/nowhere/b.jpg"}));
  GpxExportConfiguration noPhotos;
  noPhotos.setDoNotExportPhotos(true);
  EXPECT_TRUE(photosOf(noPhotos).empty());
}

// --- external track-point file --------------------------------------------------------

TEST(GpxWriterExternal, PointsGoToTheTextFileAndPhotoPointsStayByIndex) {
  ScratchFolder folder;
  auto track = Track::track();
  appendPoint(*track, 48.137154, 11.5, "2000-12-31T23:59:59.5Z", 500.25)->setIsEndOfSegment(true);
  auto photoPoint = appendPoint(*track, -1.5, 2, "2012-05-01T12:00:00+02:00", kNaN);
  auto photo = TrackPhoto::trackPhotoWithFilepath("/nowhere/c.jpg");
  photo->setIPhoneFilename("IMG_0003.JPG");
  photo->setTimeOfPhoto(dateFrom("2012-05-01T12:00:00+02:00"));
  photoPoint->addTrackPhoto(photo);
  appendWaypoint(*track, 3, 4, "w")->setSymbol("Flag");
  track->trackPoints()[2]->setSpeed(5);
  GpxExportConfiguration configuration;
  const std::string textPath = folder.file("points.txt");
  configuration.setExportTrackPointsInExternalFile(textPath);
  const Written out = exportTrack(folder, track, configuration);

  EXPECT_EQ(ScratchFolder::read(textPath),
            "48.137154,11.500000,500.250000,0,1,0\n"
            "-1.500000,2.000000,nan,0,0,357559200\n"
            "3.000000,4.000000,0.000000,1,0,0\n");
  EXPECT_EQ(out.root->childNames(), (Names{"wpt", "trk"}));
  const XmlNode* wpt = out.root->child("wpt");
  EXPECT_TRUE(wpt->attributes.empty());
  EXPECT_EQ(wpt->childNames(), (Names{"sym", "extensions"}));
  EXPECT_TRUE(wpt->child("extensions")->children.empty());
  const XmlNode* trk = out.root->child("trk");
  EXPECT_EQ(trk->child("extensions")->child("wayfolio:externaltrackpoints")->attribute("filename"),
            "points.txt");
  ASSERT_EQ(trk->all("trkseg").size(), 1u);
  const XmlNode* trkpt = trk->child("trkseg")->child("trkpt");
  EXPECT_EQ(trk->child("trkseg")->children.size(), 1u);
  EXPECT_EQ(trkpt->attributeNames(), (Names{"index"}));
  EXPECT_EQ(trkpt->attribute("index"), "1");
  EXPECT_EQ(trkpt->childNames(), (Names{"extensions"}));
  const XmlNode* written = trkpt->child("extensions")->child("wayfolio:photo");
  EXPECT_EQ(written->attributeNames(), (Names{"iphonefilename", "time"}));
  EXPECT_EQ(written->attribute("iphonefilename"), "IMG_0003.JPG");
}

TEST(GpxWriterExternal, ReadingAppendsSinglePrecisionPointsUntilALineHasNoNumber) {
  ScratchFolder folder;
  const std::string path = folder.write("points.txt",
                                        "48.137154,11.5,500.25,1,0,357559200\n"
                                        "1.5,2.5\n"
                                        " -3,4,5,0,7,-1\n"
                                        "x,1,2,3,4,5\n"
                                        "9,9,9,0,0,0\n");
  auto track = Track::track();
  gpx::readExternalTrackPoints(path, *track);
  const auto& points = track->trackPoints();
  ASSERT_EQ(points.size(), 3u);
  EXPECT_EQ(points[0]->latitude(), static_cast<double>(48.137154f));
  EXPECT_EQ(points[0]->elevation(), 500.25);
  EXPECT_TRUE(points[0]->isWayPoint());
  EXPECT_EQ(points[0]->time()->description(), "2012-05-01T10:00:00Z");
  EXPECT_EQ(points[0]->track(), track.get());
  EXPECT_EQ(points[1]->longitude(), 2.5);
  EXPECT_EQ(points[1]->elevation(), 0);
  EXPECT_EQ(points[1]->time()->description(), "2001-01-01T00:00:00Z");
  EXPECT_EQ(points[2]->latitude(), -3);
  EXPECT_TRUE(points[2]->isEndOfSegment());
  EXPECT_EQ(points[2]->time()->description(), "2000-12-31T23:59:59Z");

  gpx::readExternalTrackPoints(folder.file("absent.txt"), *track);
  EXPECT_EQ(track->trackPoints().size(), 3u);
}

// --- files, several tracks, the library ----------------------------------------------

TEST(GpxWriterFiles, UnwritablePathIsLoggedAndReported) {
  ScratchFolder folder;
  const std::string path = folder.file("no/such/folder/out.gpx");
  LogCapture log;
  GpxExportConfiguration configuration;
  EXPECT_FALSE(TrackGPX(Track::track()).exportTo(path, configuration));
  EXPECT_TRUE(log.contains("Error writing file: " + path));
  log.clear();
  EXPECT_FALSE(TrackGPX(Track::track()).exportTo(path, {Track::track()}, configuration));
  EXPECT_TRUE(log.contains("Error writing file: " + path));
  log.clear();
  TrackLibraryGPX library([] { return std::vector<TrackPtr>{Track::track()}; });
  EXPECT_FALSE(library.exportTo(path, configuration));
  EXPECT_TRUE(log.lines().empty());
}

// Three tracks, each with one waypoint named after it; the second is a route.
std::vector<TrackPtr> threeTracks() {
  std::vector<TrackPtr> tracks;
  for (const char* name : {"a", "b", "c"}) {
    auto track = Track::trackWithName(name);
    appendWaypoint(*track, 1, 2, name);
    tracks.push_back(track);
  }
  tracks[1]->setType(Track::kPlaceCollection);
  return tracks;
}

Names pointAndTrackNames(const XmlNode& root) {
  Names names;
  for (const auto& c : root.children)
    names.push_back(c->name + ":" + c->childText("name").value_or(""));
  return names;
}

TEST(GpxWriterFiles, SeveralTracksWriteAllWaypointsFirstAndReplaceTheFile) {
  ScratchFolder folder;
  const std::string path = folder.write("all.gpx", "old");
  GpxExportConfiguration configuration;
  ASSERT_TRUE(TrackGPX(nullptr).exportTo(path, threeTracks(), configuration));
  EXPECT_TRUE(ScratchFolder::read(path).starts_with("<?xml version=\"1.0\" encoding=\"utf-8\"?>"));
  EXPECT_EQ(pointAndTrackNames(*testing::readXmlTree(path)),
            (Names{"wpt:a", "wpt:c", "trk:a", "rte:b", "trk:c"}));
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(folder.path()), {}), 1);

  configuration.setExportWaypointsOnly(true);
  ASSERT_TRUE(TrackGPX(nullptr).exportTo(path, threeTracks(), configuration));
  EXPECT_EQ(pointAndTrackNames(*testing::readXmlTree(path)), (Names{"wpt:a", "wpt:c"}));
}

TEST(GpxWriterFiles, LibraryExportsAllSelectedOrOneTrack) {
  ScratchFolder folder;
  const auto tracks = threeTracks();
  tracks[1]->setIsSelected(true);
  tracks[2]->setIsSelected(true);
  TrackLibraryGPX library([&] { return tracks; });
  const std::string path = folder.file("library.gpx");
  GpxExportConfiguration configuration;
  configuration.setUseGPX10(true);  // the library always writes 1.1

  ASSERT_TRUE(library.exportTo(path, configuration));
  const std::string text = ScratchFolder::read(path);
  EXPECT_TRUE(text.starts_with("<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n" +
                               rootTag("http://www.topografix.com/GPX/1/1")))
      << text;
  EXPECT_EQ(pointAndTrackNames(*testing::readXmlTree(path)),
            (Names{"wpt:a", "wpt:c", "trk:a", "rte:b", "trk:c"}));
  EXPECT_FALSE(configuration.filename().has_value());

  ASSERT_TRUE(library.exportSelected(path, configuration));
  EXPECT_EQ(pointAndTrackNames(*testing::readXmlTree(path)), (Names{"wpt:c", "rte:b", "trk:c"}));

  configuration.setExportWaypointsOnly(true);
  ASSERT_TRUE(library.exportTo(path, true, configuration));
  EXPECT_EQ(pointAndTrackNames(*testing::readXmlTree(path)), (Names{"wpt:c"}));
  ASSERT_TRUE(library.exportTo(path, tracks[0], configuration));  // one track: always the track too
  EXPECT_EQ(pointAndTrackNames(*testing::readXmlTree(path)), (Names{"wpt:a", "trk:a"}));
}

// --- bookmarks ---------------------------------------------------------------------------

TEST(GpxWriterBase64, EncodesAndDecodesStandardBase64) {
  const std::pair<const char*, const char*> cases[] = {
      {"", ""},        {"f", "Zg=="},          {"fo", "Zm8="},
      {"foo", "Zm9v"}, {"foobar", "Zm9vYmFy"}, {"/a b/ü.jpg", "L2EgYi/DvC5qcGc="}};
  for (const auto& [plain, encoded] : cases) {
    EXPECT_EQ(base64Encode(plain), encoded);
    EXPECT_EQ(base64Decode(encoded), plain);
  }
  EXPECT_EQ(base64Decode("Zm9v\nYmFy"), "foobar");
  EXPECT_EQ(base64Decode("Zm8"), "fo");
  EXPECT_FALSE(base64Decode("Zm9v!").has_value());
  EXPECT_FALSE(base64Decode("Zg==Zg==").has_value());
  EXPECT_FALSE(base64Decode("Z").has_value());
}

}  // namespace
}  // namespace kvtrack
