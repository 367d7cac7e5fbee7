#include "kvtrack/formats/geocache/GeocacheNames.h"
#include "kvtrack/formats/gpx/TrackGPX.h"
#include "kvtrack/support/Base64.h"
#include "kvtrack/support/Log.h"
#include "tests/common/ScratchFolder.h"
#include "tests/common/TrackBuilders.h"
#include "tests/formats/GpxTestSupport.h"

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <limits>

namespace kvtrack {
namespace {

using testing::addPoint;
using testing::addWaypoint;
using testing::at;
using testing::ScratchFolder;
using testing::XmlNode;
using Names = std::vector<std::string>;

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

struct Written {
  std::string text;
  std::unique_ptr<XmlNode> root;
  /// The index-th "trkseg" of the track.
  const XmlNode* segment(size_t index = 0) const {
    return root->child("trk")->child("trkseg", index);
  }
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

const std::string kDeclaration = "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n";
const char* const kGpx10 = "http://www.topografix.com/GPX/1/0";
const char* const kGpx11 = "http://www.topografix.com/GPX/1/1";

TEST(GpxWriterRoot, EmptyTrackIsExactlyThisDocumentInBothVersions) {
  ScratchFolder folder;
  const std::string body = R"(
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
)";
  EXPECT_EQ(exportTrack(folder, Track::track()).text, kDeclaration + rootTag(kGpx11) + body);
  GpxExportConfiguration gpx10;
  gpx10.setUseGPX10(true);
  EXPECT_EQ(exportTrack(folder, Track::track(), gpx10).text, kDeclaration + rootTag(kGpx10) + body);
}

TEST(GpxWriterTrack, DisplayAttributesTagsAndTheFirstPointsTimeZone) {
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
  addPoint(*track, 47, 8, "2012-05-01T12:00:00+02:00");
  addPoint(*track, 47, 8, "2012-05-01T12:00:00-05:00");
  const Written out = exportTrack(folder, track);
  EXPECT_EQ(out.root->child("trk")->childNames(), (Names{"name", "desc", "extensions", "trkseg"}));
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
}

TEST(GpxWriterTrack, SegmentEndsSplitTheTrackButNeverLeaveAnEmptySegment) {
  ScratchFolder folder;
  auto track = Track::track();
  for (int i = 0; i < 3; ++i) addPoint(*track, 47 + i, 8)->setIsEndOfSegment(i != 1);
  const Written out = exportTrack(folder, track);
  ASSERT_EQ(out.root->child("trk")->all("trkseg").size(), 2u);
  EXPECT_EQ(out.segment(0)->all("trkpt").size(), 1u);
  EXPECT_EQ(out.segment(1)->all("trkpt").size(), 2u);
  EXPECT_EQ(out.segment(1)->child("trkpt")->attribute("lat"), "48");
  // Without a time on the first point the offset is 0.
  EXPECT_NE(out.text.find("<wayfolio:timezone offset=\"0\"/>"), std::string::npos);
}

TEST(GpxWriterTrack, RoutesDropTimesAndWaypointsAndCollectionsWriteOnlyWaypoints) {
  ScratchFolder folder;
  auto route = Track::trackWithName("r");
  route->setType(Track::kPlaceCollection);
  Written out = exportTrack(folder, route);
  EXPECT_EQ(out.root->childNames(), (Names{"rte"}));  // an empty route has no points at all
  EXPECT_EQ(out.root->child("rte")->childNames(), (Names{"name", "extensions"}));
  addWaypoint(*route, 1, 2, "a")->setTime(at("2012-05-01T10:00:00Z"));
  addPoint(*route, 3, 4, "2012-05-01T11:00:00Z")->setIsEndOfSegment(true);
  addPoint(*route, 5, 6);
  out = exportTrack(folder, route);
  EXPECT_EQ(out.root->childNames(), (Names{"rte"}));
  const XmlNode* rte = out.root->child("rte");
  EXPECT_EQ(rte->childNames(), (Names{"name", "extensions", "rtept", "rtept", "rtept"}));
  EXPECT_EQ(rte->child("rtept")->childNames(), (Names{"ele", "name", "desc", "extensions"}));
  EXPECT_EQ(out.text.find("<time>"), std::string::npos);

  auto collection = Track::trackWithName("caches");
  collection->setType(Track::kLibraryCollection);
  addWaypoint(*collection, 1, 2, "one");
  addPoint(*collection, 3, 4);
  addWaypoint(*collection, 5, 6, "two");
  out = exportTrack(folder, collection);
  EXPECT_EQ(out.root->childNames(), (Names{"wpt", "wpt", "trk"}));
  EXPECT_EQ(out.root->child("wpt", 1)->childText("name"), "two");
  EXPECT_EQ(out.root->child("trk")->childNames(), (Names{"name", "extensions"}));
}

TEST(GpxWriterPoint, WaypointChildrenInOrderAndTrackPointWithoutWaypointFields) {
  ScratchFolder folder;
  auto track = Track::track();
  auto point = addWaypoint(*track, 48.5, 11.25, "Summit");
  point->setTime(at("2012-05-01T10:00:00.25Z"));
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
  EXPECT_EQ(out.segment()->child("trkpt")->childNames(),
            (Names{"ele", "time", "name", "cmt", "desc", "extensions"}));
}

TEST(GpxWriterPoint, NumbersDescriptionFallbackAndOnlyMeaningfulExtensions) {
  ScratchFolder folder;
  auto track = Track::track();
  addPoint(*track, 48.137154, 11.576124, {}, 512.25);  // speed never computed: -1
  addPoint(*track, 1.0 / 3.0, -122.25, {}, kNaN)->setSpeed(kNaN);
  auto zero = addPoint(*track, -0.0000001, 0.00001, {}, 179.999 / 7);
  zero->setSpeed(0);
  zero->setTags("");
  auto moving = addPoint(*track, 1, 1);
  moving->setSpeed(12.5);
  moving->setLength(-1);
  moving->setTags("fast");
  const Written out = exportTrack(folder, track);
  auto point = [&](size_t i) { return out.segment()->child("trkpt", i); };
  EXPECT_EQ(point(0)->childText("desc"),
            "Lat.=48.137154, Long.=11.576124, Alt.=512.250000m, Speed=-1.000000Km/h");
  EXPECT_EQ(point(1)->childText("desc"),
            "Lat.=0.333333, Long.=-122.250000, Alt.=nanm, Speed=nanKm/h");
  EXPECT_EQ(point(1)->childText("ele"), "NaN");
  // Coordinates and elevations: the shortest decimals that read back exactly, never exponents.
  EXPECT_EQ(point(0)->attribute("lat"), "48.137154");
  EXPECT_EQ(point(2)->attribute("lon"), "0.00001");
  for (size_t i : {0, 2}) {
    const TrackPoint& written = *track->trackPoints()[i];
    const std::pair<std::string, double> numbers[] = {
        {*point(i)->attribute("lat"), written.latitude()},
        {*point(i)->attribute("lon"), written.longitude()},
        {*point(i)->childText("ele"), written.elevation()}};
    for (const auto& [text, value] : numbers) {
      EXPECT_EQ(text.find_first_of("eE"), std::string::npos) << text;
      EXPECT_EQ(std::strtod(text.c_str(), nullptr), value) << text;
    }
  }
  EXPECT_EQ(std::strtod(point(1)->attribute("lat")->c_str(), nullptr), 1.0 / 3.0);
  // Speeds only when computed and finite, lengths only when not negative, tags only when not empty.
  auto extensions = [&](size_t i) { return point(i)->child("extensions"); };
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
  for (int i = 0; i < 4; ++i) addWaypoint(*track, i, 0, fmt::format("w{}", i));
  GpxExportConfiguration configuration;
  configuration.setFilterPredicate([](const TrackPoint& p) { return p.latitude() >= 2; });
  configuration.setExportWayfolioExtensions(false);
  const Written out = exportTrack(folder, track, configuration);
  EXPECT_EQ(out.root->childNames(), (Names{"wpt", "wpt", "trk"}));
  EXPECT_EQ(out.root->child("wpt")->childText("name"), "w2");
  EXPECT_EQ(out.root->child("wpt")->child("extensions"), nullptr);
  EXPECT_EQ(out.segment()->all("trkpt").size(), 2u);
}

TEST(GpxWriterPoint, GeocacheExtensionsAndBlocks) {
  ScratchFolder folder;
  auto track = Track::track();
  auto point = addWaypoint(*track, 1, 2, "GC1");
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
  EXPECT_EQ(out.root->child("wpt")->child("geocache"), nullptr);
  EXPECT_EQ(out.root->child("wpt")->child("groundspeak:cache"), nullptr);
}

// The photo elements of the first track point.
std::vector<const XmlNode*> photosOf(const Written& out) {
  return out.segment()->child("trkpt")->child("extensions")->all("wayfolio:photo");
}

TEST(GpxWriterPhoto, AttributesBookmarksAndFilters) {
  ScratchFolder folder;
  const std::string imagePath = folder.write("IMG 1.jpg", "jpeg");
  int fileReads = 0;
  TrackPhoto::setCaptureTimeReader([&](const std::string&) {
    ++fileReads;
    return std::optional<ISODate>();
  });
  auto track = Track::track();
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

  Written out = exportTrack(folder, track);
  ASSERT_EQ(photosOf(out).size(), 2u);
  const XmlNode* first = photosOf(out)[0];
  EXPECT_EQ(first->attributeNames(),
            (Names{"filename", "time", "city", "state", "country", "isoCountryCode", "place",
                   "iPhotoIdAppleScript", "iPhotoId", "iCloudId"}));
  EXPECT_EQ(first->attribute("time"), "2012-05-01T12:00:00+02:00");  // in the photo's own zone
  EXPECT_EQ(first->childText("wayfolio:bookmark"), base64Encode(imagePath));
  // No stored time is looked up in the file, and a missing file has no bookmark.
  const XmlNode* second = photosOf(out)[1];
  EXPECT_EQ(second->attributeNames(), (Names{"filename"}));
  EXPECT_TRUE(second->children.empty());
  EXPECT_EQ(fileReads, 0);
  TrackPhoto::setCaptureTimeReader(nullptr);

  GpxExportConfiguration quiet;
  quiet.setDoNotExportBookmarks(true);
  quiet.setDoNotExportiCloudInfo(true);
  out = exportTrack(folder, track, quiet);
  first = photosOf(out)[0];
  EXPECT_FALSE(first->attribute("iCloudId").has_value());
  EXPECT_TRUE(first->attribute("iPhotoId").has_value());
  EXPECT_TRUE(first->children.empty());

  GpxExportConfiguration phoneOnly;
  phoneOnly.setExportiPhonePhotosOnly(true);
  out = exportTrack(folder, track, phoneOnly);
  ASSERT_EQ(photosOf(out).size(), 1u);
  EXPECT_EQ(photosOf(out)[0]->attribute("filename"), folder.file("missing.jpg"));
  GpxExportConfiguration noPhotos;
  noPhotos.setDoNotExportPhotos(true);
  EXPECT_TRUE(photosOf(exportTrack(folder, track, noPhotos)).empty());
}

TEST(GpxWriterExternal, PointsGoToTheTextFileAndPhotoPointsStayByIndex) {
  ScratchFolder folder;
  auto track = Track::track();
  addPoint(*track, 48.137154, 11.5, "2000-12-31T23:59:59.5Z", 500.25)->setIsEndOfSegment(true);
  auto photoPoint = addPoint(*track, -1.5, 2, "2012-05-01T12:00:00+02:00", kNaN);
  auto photo = TrackPhoto::trackPhotoWithFilepath("/nowhere/c.jpg");
  photo->setIPhoneFilename("IMG_0003.JPG");
  photo->setTimeOfPhoto(at("2012-05-01T12:00:00+02:00"));
  photoPoint->addTrackPhoto(photo);
  addWaypoint(*track, 3, 4, "w")->setSymbol("Flag");
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
  EXPECT_EQ(out.segment()->children.size(), 1u);
  const XmlNode* trkpt = out.segment()->child("trkpt");
  EXPECT_EQ(trkpt->attributeNames(), (Names{"index"}));
  EXPECT_EQ(trkpt->attribute("index"), "1");
  EXPECT_EQ(trkpt->childNames(), (Names{"extensions"}));
  const XmlNode* written = photosOf(out)[0];
  EXPECT_EQ(written->attributeNames(), (Names{"iphonefilename", "time"}));
  EXPECT_EQ(written->attribute("iphonefilename"), "IMG_0003.JPG");
}

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
}

// Three tracks, each with one waypoint named after it; the second is a route.
std::vector<TrackPtr> threeTracks() {
  std::vector<TrackPtr> tracks;
  for (const char* name : {"a", "b", "c"}) {
    tracks.push_back(Track::trackWithName(name));
    addWaypoint(*tracks.back(), 1, 2, name);
  }
  tracks[1]->setType(Track::kPlaceCollection);
  return tracks;
}

// "element:name" for each child of the written file's root.
Names pointAndTrackNames(const std::string& path) {
  Names names;
  const auto root = testing::readXmlTree(path);
  for (const auto& c : root->children)
    names.push_back(c->name + ":" + c->childText("name").value_or(""));
  return names;
}

TEST(GpxWriterFiles, SeveralTracksWriteAllWaypointsFirstAndReplaceTheFile) {
  ScratchFolder folder;
  const std::string path = folder.write("all.gpx", "old");
  GpxExportConfiguration configuration;
  ASSERT_TRUE(TrackGPX(nullptr).exportTo(path, threeTracks(), configuration));
  EXPECT_TRUE(ScratchFolder::read(path).starts_with("<?xml version=\"1.0\" encoding=\"utf-8\"?>"));
  EXPECT_EQ(pointAndTrackNames(path), (Names{"wpt:a", "wpt:c", "trk:a", "rte:b", "trk:c"}));
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(folder.path()), {}), 1);

  configuration.setExportWaypointsOnly(true);
  ASSERT_TRUE(TrackGPX(nullptr).exportTo(path, threeTracks(), configuration));
  EXPECT_EQ(pointAndTrackNames(path), (Names{"wpt:a", "wpt:c"}));
}

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
  for (const char* bad : {"Zm9v!", "Zg==Zg==", "Z"}) EXPECT_FALSE(base64Decode(bad)) << bad;
}

}  // namespace
}  // namespace kvtrack
