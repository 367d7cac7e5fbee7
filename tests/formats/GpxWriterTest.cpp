// What the GPX writer puts where: element order, number formats, the
// options of the export configuration, and the files it leaves. Whether the
// values read back is the round-trip property's business.
#include "kvtrack/formats/geocache/GeocacheNames.h"
#include "kvtrack/formats/gpx/TrackGPX.h"
#include "kvtrack/support/Base64.h"
#include "kvtrack/support/Log.h"
#include "tests/common/ScratchFolder.h"
#include "tests/common/TrackBuilders.h"
#include "tests/formats/GpxTestSupport.h"

#include <fmt/format.h>
#include <gmock/gmock.h>

#include <cstdlib>
#include <filesystem>
#include <limits>

namespace kvtrack {
namespace {

using testing::addPoint;
using testing::addWaypoint;
using testing::at;
using testing::Attributes;
using testing::Names;
using testing::XmlNode;

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

struct Written {
  std::string text;
  std::unique_ptr<XmlNode> root;
  /// The index-th "trkseg" of the track.
  const XmlNode* segment(size_t index = 0) const { return root->child("trk")->child("trkseg", index); }
  const XmlNode* trackPoint(size_t index) const { return segment()->child("trkpt", index); }
  std::vector<const XmlNode*> photos() const {
    return trackPoint(0)->child("extensions")->all("wayfolio:photo");
  }
};

class GpxWriter : public ::testing::Test {
 protected:
  Written write(const TrackPtr& written, GpxExportConfiguration configuration = {}) {
    const std::string path = folder.file("out.gpx");
    EXPECT_TRUE(TrackGPX(written).exportTo(path, configuration));
    EXPECT_EQ(configuration.filename(), path);
    return {testing::ScratchFolder::read(path), testing::readXmlTree(path)};
  }
  testing::ScratchFolder folder;
  TrackPtr track = Track::track();
};

TEST_F(GpxWriter, EmptyTrackIsExactlyThisDocumentInBothVersions) {
  const auto document = [](const std::string& version) {
    return fmt::format(R"(<?xml version="1.0" encoding="utf-8"?>
<gpx xmlns="http://www.topografix.com/GPX/{0}" xmlns:xsd="http://www.w3.org/2001/XMLSchema" )"
                       R"(xmlns:xsi="http://www.w3.org/2001/XMLSchema-instance" )"
                       R"(xmlns:wayfolio="https://wayfolio.invalid/xmlschemas/WayfolioGPX/1/0" )"
                       R"(creator="Wayfolio" version="{1}" xsi:schemaLocation="http://www.topografix.com/GPX/{0} )"
                       R"(http://www.topografix.com/GPX/{0}/gpx.xsd">
  <trk>
    <name/>
    <extensions>
      <wayfolio:color red="0.000000" green="0.000000" blue="1.000000" alpha="1.000000"/>
      <wayfolio:area showArea="no" areaDistance="0.000000"/>
      <wayfolio:directionArrows showDirectionArrows="yes"/>
      <wayfolio:sync syncPhotosOniPhone="no"/>
    </extensions>
    <trkseg/>
  </trk>
</gpx>
)",
                       version == "1.0" ? "1/0" : "1/1", version);
  };
  EXPECT_EQ(write(track).text, document("1.1"));
  GpxExportConfiguration gpx10;
  gpx10.setUseGPX10(true);
  EXPECT_EQ(write(track, gpx10).text, document("1.0"));
}

TEST_F(GpxWriter, TrackAttributesSegmentsAndTheFirstPointsTimeZone) {
  track->setName("Alps & more");
  track->setDescription("two\nlines");
  track->setColor({1, 0.5, 0.25, 0.75});
  track->setWidth(2.5f);
  track->setShowArea(true);
  track->setAreaDistanceInMeter(25);
  track->setShowDirectionArrows(false);
  track->setSyncPhotosOniPhone(true);
  track->setTags("hike, summer");
  addPoint(*track, 47, 8, "2012-05-01T12:00:00+02:00")->setIsEndOfSegment(true);
  addPoint(*track, 48, 8, "2012-05-01T12:00:00-05:00");
  addPoint(*track, 49, 8)->setIsEndOfSegment(true);
  Written out = write(track);
  EXPECT_EQ(out.root->child("trk")->childNames(), (Names{"name", "desc", "extensions", "trkseg", "trkseg"}));
  EXPECT_NE(out.text.find(R"(
    <extensions>
      <wayfolio:color red="1.000000" green="0.500000" blue="0.250000" alpha="0.750000"/>
      <wayfolio:width width="2.500000"/>
      <wayfolio:area showArea="yes" areaDistance="25.000000"/>
      <wayfolio:directionArrows showDirectionArrows="no"/>
      <wayfolio:sync syncPhotosOniPhone="yes"/>
      <wayfolio:timezone offset="120"/>
      <wayfolio:tags>hike, summer</wayfolio:tags>
    </extensions>
)"), std::string::npos) << out.text;
  // A segment end on the last point leaves no empty segment behind.
  EXPECT_EQ(out.segment(1)->all("trkpt").size(), 2u);
  EXPECT_EQ(out.segment(1)->child("trkpt")->attribute("lat"), "48");
  // Without a time on the first point the offset is 0.
  track->trackPoints()[0]->setTime(std::nullopt);
  EXPECT_NE(write(track).text.find("<wayfolio:timezone offset=\"0\"/>"), std::string::npos);
}

TEST_F(GpxWriter, RoutesDropTimesAndWaypointsAndCollectionsWriteOnlyWaypoints) {
  track->setType(Track::kPlaceCollection);
  Written out = write(track);
  EXPECT_EQ(out.root->childNames(), (Names{"rte"}));  // an empty route has no points at all
  EXPECT_EQ(out.root->child("rte")->childNames(), (Names{"name", "extensions"}));
  addWaypoint(*track, 1, 2, "a")->setTime(at("2012-05-01T10:00:00Z"));
  addPoint(*track, 3, 4, "2012-05-01T11:00:00Z")->setIsEndOfSegment(true);
  addPoint(*track, 5, 6);
  out = write(track);
  EXPECT_EQ(out.root->childNames(), (Names{"rte"}));
  const XmlNode* rte = out.root->child("rte");
  EXPECT_EQ(rte->childNames(), (Names{"name", "extensions", "rtept", "rtept", "rtept"}));
  EXPECT_EQ(rte->child("rtept")->childNames(), (Names{"ele", "name", "desc", "extensions"}));
  EXPECT_EQ(out.text.find("<time>"), std::string::npos);

  track->setType(Track::kLibraryCollection);
  track->trackPoints()[1]->setIsWayPoint(true);
  track->trackPoints()[1]->setName("two");
  out = write(track);
  EXPECT_EQ(out.root->childNames(), (Names{"wpt", "wpt", "trk"}));
  EXPECT_EQ(out.root->child("wpt", 1)->childText("name"), "two");
  EXPECT_EQ(out.root->child("trk")->childNames(), (Names{"name", "extensions"}));
}

TEST_F(GpxWriter, WaypointChildrenInOrderAndTheFilterAndExtensionSwitches) {
  auto point = addWaypoint(*track, 48.5, 11.25, "Summit");
  point->setTime(at("2012-05-01T10:00:00.25Z"));
  point->setComment("cmt");
  point->setDescription("desc");
  point->setSource("src");
  point->setUrl("https://example.org/x?a=1&b=2");
  point->setUrlName("link");
  point->setSymbol("Flag");
  point->setType("peak");
  Written out = write(track);
  const XmlNode* wpt = out.root->child("wpt");
  EXPECT_EQ(wpt->attributeNames(), (Names{"lat", "lon"}));
  EXPECT_EQ(wpt->childNames(), (Names{"ele", "time", "name", "cmt", "desc", "src", "url", "urlname", "sym",
                                      "type", "extensions"}));
  EXPECT_EQ(wpt->childText("time"), "2012-05-01T10:00:00.25Z");
  EXPECT_EQ(wpt->childText("url"), "https://example.org/x?a=1&b=2");
  EXPECT_EQ(out.trackPoint(0)->childNames(), (Names{"ele", "time", "name", "cmt", "desc", "extensions"}));

  for (int i = 1; i < 4; ++i) addWaypoint(*track, 48.5 + i, 0, fmt::format("w{}", i));
  GpxExportConfiguration configuration;
  configuration.setFilterPredicate([](const TrackPoint& p) { return p.latitude() >= 50; });
  configuration.setExportWayfolioExtensions(false);
  out = write(track, configuration);
  EXPECT_EQ(out.root->childNames(), (Names{"wpt", "wpt", "trk"}));
  EXPECT_EQ(out.root->child("wpt")->childText("name"), "w2");
  EXPECT_EQ(out.root->child("wpt")->child("extensions"), nullptr);
  EXPECT_EQ(out.segment()->all("trkpt").size(), 2u);
}

TEST_F(GpxWriter, NumbersDescriptionFallbackAndOnlyMeaningfulExtensions) {
  addPoint(*track, 48.137154, 11.576124, {}, 512.25);  // speed never computed: -1
  addPoint(*track, 1.0 / 3.0, -122.25, {}, kNaN)->setSpeed(kNaN);
  auto zero = addPoint(*track, -0.0000001, 0.00001, {}, 179.999 / 7);
  zero->setSpeed(0);
  zero->setTags("");
  auto moving = addPoint(*track, 1, 1);
  moving->setSpeed(12.5);
  moving->setLength(-1);
  moving->setTags("fast");
  const Written out = write(track);
  const auto point = [&](size_t i) { return out.trackPoint(i); };
  EXPECT_EQ(point(0)->childText("desc"), "Lat.=48.137154, Long.=11.576124, Alt.=512.250000m, Speed=-1.000000Km/h");
  EXPECT_EQ(point(1)->childText("desc"), "Lat.=0.333333, Long.=-122.250000, Alt.=nanm, Speed=nanKm/h");
  EXPECT_EQ(point(1)->childText("ele"), "NaN");
  // Coordinates and elevations: the shortest decimals that read back exactly, never exponents.
  EXPECT_EQ(point(0)->attribute("lat"), "48.137154");
  EXPECT_EQ(point(2)->attribute("lon"), "0.00001");
  for (size_t i : {0, 1, 2}) {
    const TrackPoint& p = *track->trackPoints()[i];
    for (const auto& [text, value] : {std::pair(*point(i)->attribute("lat"), p.latitude()),
                                      std::pair(*point(i)->attribute("lon"), p.longitude()),
                                      std::pair(*point(i)->childText("ele"), p.elevation())}) {
      if (text == "NaN") continue;  // checked above
      EXPECT_EQ(text.find_first_of("eE"), std::string::npos) << text;
      EXPECT_EQ(std::strtod(text.c_str(), nullptr), value) << text;
    }
  }
  // Speeds only when computed and finite, lengths only when not negative, tags only when not empty.
  const auto extensions = [&](size_t i) { return point(i)->child("extensions"); };
  EXPECT_EQ(extensions(0)->childNames(), (Names{"wayfolio:length"}));
  EXPECT_EQ(extensions(1)->childNames(), (Names{"wayfolio:length"}));
  EXPECT_EQ(extensions(2)->childNames(), (Names{"wayfolio:speed", "wayfolio:length"}));
  EXPECT_EQ(extensions(2)->childText("wayfolio:speed"), "0");
  EXPECT_EQ(extensions(3)->childNames(), (Names{"wayfolio:speed", "wayfolio:tags"}));
  EXPECT_EQ(extensions(3)->childText("wayfolio:speed"), "12.5");
}

TEST_F(GpxWriter, GeocacheExtensionsAndBlocks) {
  auto point = addWaypoint(*track, 1, 2, "GC1");
  point->setGeocache(std::make_shared<Geocache>());
  point->geocache()->yourLogType = 2;
  point->geocache()->descriptionAsPDF = "desc.pdf";
  point->setUrlAsPDF("page.pdf");
  GpxExportConfiguration both;
  both.setExportGroundspeakExtensions(true);
  Written out = write(track, both);
  const XmlNode* wpt = out.root->child("wpt");
  EXPECT_NE(wpt->child("geocache"), nullptr);
  EXPECT_NE(wpt->child("groundspeak:cache"), nullptr);
  const XmlNode* extensions = wpt->child("extensions");
  EXPECT_EQ(extensions->childNames(), (Names{"wayfolio:yourLog", "wayfolio:urlAsPDF",
                                             "wayfolio:geocacheDescriptionAsPDF", "wayfolio:length"}));
  EXPECT_EQ(extensions->child("wayfolio:yourLog")->attribute("status"), gpxNameForLogType(2));
  EXPECT_EQ(extensions->childText("wayfolio:geocacheDescriptionAsPDF"), "desc.pdf");

  GpxExportConfiguration none;
  none.setExportGeocachingAuExtensions(false);
  wpt = (out = write(track, none)).root->child("wpt");
  EXPECT_EQ(wpt->child("geocache"), nullptr);
  EXPECT_EQ(wpt->child("groundspeak:cache"), nullptr);
}

TEST_F(GpxWriter, PhotoAttributesBookmarksAndFilters) {
  const std::string imagePath = folder.write("IMG 1.jpg", "jpeg");
  int fileReads = 0;
  TrackPhoto::setCaptureTimeReader([&](const std::string&) {
    ++fileReads;
    return std::optional<ISODate>();
  });
  auto point = addPoint(*track, 1, 2);
  auto photo = TrackPhoto::trackPhotoWithFilepath(imagePath);
  photo->setTimeOfPhoto(at("2012-05-01T12:00:00+02:00"));
  photo->setCity("Zürich");
  photo->setState("ZH");
  photo->setCountry("Schweiz");
  photo->setIsoCountryCode("CH");
  photo->setPlace("Bahnhof");
  photo->setIPhotoIdAppleScript("script");
  photo->setIPhotoId(42);
  photo->setICloudId("cloud");
  point->addTrackPhoto(photo);
  auto onPhone = TrackPhoto::trackPhotoWithFilepath(folder.file("missing.jpg"));
  onPhone->setIPhoneFilename("IMG_0002.JPG");
  point->addTrackPhoto(onPhone);

  Written out = write(track);
  ASSERT_EQ(out.photos().size(), 2u);
  EXPECT_EQ(out.photos()[0]->attributeNames(), (Names{"filename", "time", "city", "state", "country", "isoCountryCode",
                                                      "place", "iPhotoIdAppleScript", "iPhotoId", "iCloudId"}));
  EXPECT_EQ(out.photos()[0]->attribute("time"), "2012-05-01T12:00:00+02:00");  // in the photo's own zone
  EXPECT_EQ(out.photos()[0]->childText("wayfolio:bookmark"), base64Encode(imagePath));
  // No stored time is looked up in the file, and a missing file has no bookmark.
  EXPECT_EQ(out.photos()[1]->attributeNames(), (Names{"filename"}));
  EXPECT_TRUE(out.photos()[1]->children.empty());
  EXPECT_EQ(fileReads, 0);
  TrackPhoto::setCaptureTimeReader(nullptr);

  GpxExportConfiguration quiet;
  quiet.setDoNotExportBookmarks(true);
  quiet.setDoNotExportiCloudInfo(true);
  out = write(track, quiet);
  EXPECT_FALSE(out.photos()[0]->attribute("iCloudId").has_value());
  EXPECT_TRUE(out.photos()[0]->attribute("iPhotoId").has_value());
  EXPECT_TRUE(out.photos()[0]->children.empty());

  GpxExportConfiguration phoneOnly;
  phoneOnly.setExportiPhonePhotosOnly(true);
  out = write(track, phoneOnly);
  ASSERT_EQ(out.photos().size(), 1u);
  EXPECT_EQ(out.photos()[0]->attribute("filename"), folder.file("missing.jpg"));
  GpxExportConfiguration noPhotos;
  noPhotos.setDoNotExportPhotos(true);
  EXPECT_TRUE(write(track, noPhotos).photos().empty());
}

TEST_F(GpxWriter, ExternalPointFileTakesThePointsAndPhotoPointsStayByIndex) {
  addPoint(*track, 48.137154, 11.5, "2000-12-31T23:59:59.5Z", 500.25)->setIsEndOfSegment(true);
  auto photo = TrackPhoto::trackPhotoWithFilepath("/nowhere/c.jpg");
  photo->setIPhoneFilename("IMG_0003.JPG");
  photo->setTimeOfPhoto(at("2012-05-01T12:00:00+02:00"));
  addPoint(*track, -1.5, 2, "2012-05-01T12:00:00+02:00", kNaN)->addTrackPhoto(photo);
  addWaypoint(*track, 3, 4, "w")->setSymbol("Flag");
  track->trackPoints()[2]->setSpeed(5);
  GpxExportConfiguration configuration;
  configuration.setExportTrackPointsInExternalFile(folder.file("points.txt"));
  const Written out = write(track, configuration);

  EXPECT_EQ(testing::ScratchFolder::read(folder.file("points.txt")),
            "48.137154,11.500000,500.250000,0,1,0\n"
            "-1.500000,2.000000,nan,0,0,357559200\n"
            "3.000000,4.000000,0.000000,1,0,0\n");
  EXPECT_EQ(out.root->childNames(), (Names{"wpt", "trk"}));
  const XmlNode* wpt = out.root->child("wpt");
  EXPECT_TRUE(wpt->attributes.empty());
  EXPECT_EQ(wpt->childNames(), (Names{"sym", "extensions"}));
  EXPECT_TRUE(wpt->child("extensions")->children.empty());
  const XmlNode* trk = out.root->child("trk");
  EXPECT_EQ(trk->child("extensions")->child("wayfolio:externaltrackpoints")->attribute("filename"), "points.txt");
  ASSERT_EQ(trk->all("trkseg").size(), 1u);
  EXPECT_EQ(out.segment()->children.size(), 1u);
  EXPECT_EQ(out.trackPoint(0)->attributes, (Attributes{{"index", "1"}}));
  EXPECT_EQ(out.trackPoint(0)->childNames(), (Names{"extensions"}));
  EXPECT_EQ(out.photos()[0]->attributes,
            (Attributes{{"iphonefilename", "IMG_0003.JPG"}, {"time", "2012-05-01T12:00:00+02:00"}}));
}

// Several tracks, each with one waypoint named after it (the second a
// route): all waypoints first, the file replaced whole; an unwritable
// path is reported and logged.
TEST_F(GpxWriter, SeveralTracksWriteAllWaypointsFirstAndReplaceTheFile) {
  std::vector<TrackPtr> tracks;
  for (const char* name : {"a", "b", "c"}) addWaypoint(*tracks.emplace_back(Track::trackWithName(name)), 1, 2, name);
  tracks[1]->setType(Track::kPlaceCollection);
  const auto names = [](const std::string& path) {
    Names found;  // "element:name" for each child of the root
    const auto root = testing::readXmlTree(path);
    for (const auto& c : root->children) found.push_back(c->name + ":" + *c->childText("name"));
    return found;
  };
  const std::string path = folder.write("all.gpx", "old");
  GpxExportConfiguration configuration;
  ASSERT_TRUE(TrackGPX(nullptr).exportTo(path, tracks, configuration));
  EXPECT_TRUE(testing::ScratchFolder::read(path).starts_with("<?xml version=\"1.0\" encoding=\"utf-8\"?>"));
  EXPECT_EQ(names(path), (Names{"wpt:a", "wpt:c", "trk:a", "rte:b", "trk:c"}));
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(folder.path()), {}), 1);
  configuration.setExportWaypointsOnly(true);
  ASSERT_TRUE(TrackGPX(nullptr).exportTo(path, tracks, configuration));
  EXPECT_EQ(names(path), (Names{"wpt:a", "wpt:c"}));

  const std::string unwritable = folder.file("no/such/folder/out.gpx");
  LogCapture log;
  EXPECT_THAT(TrackGPX(track).exportTo(unwritable, configuration).reason(), ::testing::HasSubstr(unwritable));
  EXPECT_TRUE(log.contains("Error writing file: " + unwritable));
  log.clear();
  EXPECT_FALSE(TrackGPX(nullptr).exportTo(unwritable, tracks, configuration));
  EXPECT_TRUE(log.contains("Error writing file: " + unwritable));
}

TEST(Base64, EncodesAndDecodesStandardBase64) {
  for (const auto& [plain, encoded] : std::vector<std::pair<std::string, std::string>>{
           {"", ""}, {"f", "Zg=="}, {"fo", "Zm8="}, {"foobar", "Zm9vYmFy"}, {"/a b/ü.jpg", "L2EgYi/DvC5qcGc="}}) {
    EXPECT_EQ(base64Encode(plain), encoded);
    EXPECT_EQ(base64Decode(encoded), plain);
  }
  EXPECT_EQ(base64Decode("Zm9v\nYmFy"), "foobar");
  EXPECT_EQ(base64Decode("Zm8"), "fo");
  for (const char* bad : {"Zm9v!", "Zg==Zg==", "Z"}) EXPECT_FALSE(base64Decode(bad)) << bad;
}

}  // namespace
}  // namespace kvtrack
