// What the GPX writer does that the kept files (GpxGoldenFilesTest) do not
// show: empty tracks and routes, bookmarks made from photo files, the photo
// options on photos that have what they filter, and the files it leaves.
#include "kvtrack/formats/gpx/TrackGPX.h"
#include "kvtrack/support/Base64.h"
#include "tests/common/ScratchFolder.h"
#include "tests/common/TrackBuilders.h"

#include <fmt/format.h>
#include <gmock/gmock.h>

#include <filesystem>
#include <regex>

namespace kvtrack {
namespace {

using testing::addPoint;
using testing::addWaypoint;
using testing::at;
using ::testing::HasSubstr;
using ::testing::Not;

class GpxWriter : public ::testing::Test {
 protected:
  std::string write(const TrackPtr& written, GpxExportConfiguration configuration = {}) {
    const std::string path = folder.file("out.gpx");
    EXPECT_TRUE(TrackGPX(written).exportTo(path, configuration));
    EXPECT_EQ(configuration.filename(), path);
    return testing::ScratchFolder::read(path);
  }
  testing::ScratchFolder folder;
  TrackPtr track = Track::track();
};

TEST_F(GpxWriter, EmptyTracksAndRoutes) {
  const auto document = [](const std::string& version) {
    return fmt::format(
        R"(<?xml version="1.0" encoding="utf-8"?>
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
  EXPECT_EQ(write(track), document("1.1"));
  GpxExportConfiguration gpx10;
  gpx10.setUseGPX10(true);
  EXPECT_EQ(write(track, gpx10), document("1.0"));
  // An empty route has no points at all.
  track->setType(Track::kPlaceCollection);
  const std::string route = write(track);
  EXPECT_THAT(route, HasSubstr("<rte>\n    <name/>\n    <extensions>"));
  EXPECT_THAT(route, Not(HasSubstr("<rtept")));
  EXPECT_THAT(route, Not(HasSubstr("<trk")));
  // Without a time on the first point the track's offset is 0.
  track->setType(Track::kRecordedTrack);
  addPoint(*track, 48, 8);
  addPoint(*track, 49, 8, "2012-05-01T12:00:00+02:00");
  EXPECT_THAT(write(track), HasSubstr("<wayfolio:timezone offset=\"0\"/>"));
}

TEST_F(GpxWriter, PhotoBookmarksFromFilesAndThePhotoOptions) {
  const std::string imagePath = folder.write("IMG 1.jpg", "jpeg");
  int fileReads = 0;
  TrackPhoto::setCaptureTimeReader([&](const std::string&) {
    ++fileReads;
    return std::optional<ISODate>();
  });
  auto point = addPoint(*track, 1, 2);
  auto photo = TrackPhoto::trackPhotoWithFilepath(imagePath);
  photo->setICloudId("cloud");
  point->addTrackPhoto(photo);
  const std::string missing = folder.file("missing.jpg");
  auto onPhone = TrackPhoto::trackPhotoWithFilepath(missing);
  onPhone->setIPhoneFilename("IMG_0002.JPG");
  point->addTrackPhoto(onPhone);

  EXPECT_THAT(write(track), HasSubstr(fmt::format(R"(<wayfolio:photo filename="{}" iCloudId="cloud">
            <wayfolio:bookmark>{}</wayfolio:bookmark>
          </wayfolio:photo>
          <wayfolio:photo filename="{}"/>)",
                                                  imagePath, base64Encode(imagePath), missing)));
  EXPECT_EQ(fileReads, 0) << "no stored time is looked up in the file";
  TrackPhoto::setCaptureTimeReader(nullptr);

  GpxExportConfiguration quiet;
  quiet.setDoNotExportBookmarks(true);
  quiet.setDoNotExportiCloudInfo(true);
  EXPECT_THAT(write(track, quiet), HasSubstr(fmt::format("<wayfolio:photo filename=\"{}\"/>", imagePath)));
  GpxExportConfiguration phoneOnly;
  phoneOnly.setExportiPhonePhotosOnly(true);
  const std::string phone = write(track, phoneOnly);
  EXPECT_THAT(phone, HasSubstr(fmt::format("<wayfolio:photo filename=\"{}\"/>", missing)));
  EXPECT_THAT(phone, Not(HasSubstr(imagePath)));
  GpxExportConfiguration noPhotos;
  noPhotos.setDoNotExportPhotos(true);
  EXPECT_THAT(write(track, noPhotos), Not(HasSubstr("<wayfolio:photo")));

  // With the points in an external file a photo names its phone file.
  photo->setIPhoneFilename("IMG_0003.JPG");
  photo->setTimeOfPhoto(at("2012-05-01T12:00:00+02:00"));
  GpxExportConfiguration external;
  external.setExportTrackPointsInExternalFile(folder.file("points.txt"));
  const std::string points = write(track, external);
  EXPECT_THAT(points, HasSubstr(R"(<trkpt index="0">
        <extensions>
          <wayfolio:photo iphonefilename="IMG_0003.JPG" time="2012-05-01T12:00:00+02:00">)"));
  EXPECT_THAT(points, HasSubstr(R"(<wayfolio:photo iphonefilename="IMG_0002.JPG"/>)"));
}

// Several tracks, each with one waypoint named after it (the second a
// route): all waypoints first, the file replaced whole; an unwritable path
// is reported.
TEST_F(GpxWriter, SeveralTracksWriteAllWaypointsFirstAndReplaceTheFile) {
  std::vector<TrackPtr> tracks;
  for (const char* name : {"a", "b", "c"})
    addWaypoint(*tracks.emplace_back(Track::trackWithName(name)), 1, 2, name);
  tracks[1]->setType(Track::kPlaceCollection);
  const auto names = [](const std::string& path) {
    std::string found;  // "element:name " for each child of the root
    const std::string text = testing::ScratchFolder::read(path);
    const std::regex child("\n  <(wpt|trk|rte)[\\s\\S]*?<name>([^<]*)</name>");
    for (std::sregex_iterator m(text.begin(), text.end(), child), end; m != end; ++m) {
      found += (*m)[1].str() + ":" + (*m)[2].str() + " ";
    }
    return found;
  };
  const std::string path = folder.write("all.gpx", "old");
  GpxExportConfiguration configuration;
  ASSERT_TRUE(TrackGPX(nullptr).exportTo(path, tracks, configuration));
  EXPECT_TRUE(testing::ScratchFolder::read(path).starts_with("<?xml version=\"1.0\" encoding=\"utf-8\"?>"));
  EXPECT_EQ(names(path), "wpt:a wpt:c trk:a rte:b trk:c ");
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(folder.path()), {}), 1);
  configuration.setExportWaypointsOnly(true);
  ASSERT_TRUE(TrackGPX(nullptr).exportTo(path, tracks, configuration));
  EXPECT_EQ(names(path), "wpt:a wpt:c ");

  const std::string unwritable = folder.file("no/such/folder/out.gpx");
  EXPECT_THAT(TrackGPX(track).exportTo(unwritable, configuration).reason(), HasSubstr(unwritable));
  EXPECT_THAT(TrackGPX(nullptr).exportTo(unwritable, tracks, configuration).reason(), HasSubstr(unwritable));
}

TEST(Base64, EncodesAndDecodesStandardBase64) {
  for (const auto& [plain, encoded] :
       std::vector<std::pair<std::string, std::string>>{{"", ""},
                                                        {"f", "Zg=="},
                                                        {"fo", "Zm8="},
                                                        {"foobar", "Zm9vYmFy"},
                                                        {"/a b/ü.jpg", "L2EgYi/DvC5qcGc="}}) {
    EXPECT_EQ(base64Encode(plain), encoded);
    EXPECT_EQ(base64Decode(encoded), plain);
  }
  EXPECT_EQ(base64Decode("Zm9v\nYmFy"), "foobar");
  EXPECT_EQ(base64Decode("Zm8"), "fo");
  for (const char* bad : {"Zm9v!", "Zg==Zg==", "Z"}) EXPECT_FALSE(base64Decode(bad)) << bad;
}

}  // namespace
}  // namespace kvtrack
