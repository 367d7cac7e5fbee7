// The track view page as written: its data read back with a JSON parser,
// its thumbnails decoded by libvips, its failures reported. What a browser
// makes of it is checked by ViewInChromiumTest.
#include "kvtrack/support/Base64.h"
#include "kvtrack/support/ExternalProgram.h"
#include "kvtrack/support/FileHandling.h"
#include "kvtrack/support/Log.h"
#include "kvtrack/view/TrackViewPage.h"
#include "tests/common/ScratchFolder.h"
#include "tests/common/TrackBuilders.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <filesystem>
#include <limits>

namespace kvtrack::testing {
namespace {

using nlohmann::json;
using ::testing::HasSubstr;

size_t occurrences(const std::string& text, const std::string& fragment) {
  size_t count = 0;
  for (size_t at = text.find(fragment); at != std::string::npos; at = text.find(fragment, at + 1)) {
    ++count;
  }
  return count;
}

// The page's data block, parsed.
json pageData(const std::string& page) {
  const std::string open = "<script type=\"application/json\" id=\"wayfolio-view-data\">";
  const size_t begin = page.find(open);
  EXPECT_NE(begin, std::string::npos);
  const size_t end = page.find("</script>", begin);
  return json::parse(page.substr(begin + open.size(), end - begin - open.size()));
}

class TrackViewPageTest : public ::testing::Test {
 protected:
  std::string image(const std::string& name, int width, int height) const {
    const std::string path = scratch.file(name);
    EXPECT_EQ(runShellCommand(fmt::format("vips black {} {} {} --bands 3",
                                          FileHandling::filenameForShell(path), width, height)),
              0);
    return path;
  }

  // Two segments: a straight 21-point run east, then 21 points north with an
  // 11 m kink; a waypoint, a geocache and two photos, one of them missing.
  TrackPtr ridge() const {
    auto track = Track::trackWithName("Ridge </script><script>alert(1)</script> & \"more\"");
    track->setIsLoaded(true);
    for (int i = 0; i <= 20; ++i) addTimedPoint(*track, i * 10, 47.0, 8.0 + 0.0001 * i);
    track->trackPoints().back()->setIsEndOfSegment(true);
    for (int i = 0; i <= 20; ++i) {
      addTimedPoint(*track, 300 + i * 10, 47.0 + 0.0001 * i, i == 10 ? 8.00215 : 8.002);
    }
    for (size_t i = 0; i < track->trackPoints().size(); ++i) {
      track->trackPoints()[i]->setElevation(500.0 + static_cast<double>(i));
    }
    track->trackPoints()[30]->setElevation(std::numeric_limits<double>::quiet_NaN());
    // Waypoints stand on the line, as imports merge them into the points.
    track->trackPoints()[3]->setIsWayPoint(true);
    track->trackPoints()[3]->setName("Hut <b>");
    track->trackPoints()[35]->setIsWayPoint(true);
    track->trackPoints()[35]->setName("Cache");
    track->trackPoints()[35]->setGeocache(std::make_shared<Geocache>());
    track->setColor({1.0, 0.5, 0.0, 1.0});
    track->setAreaDistanceInMeter(25.0f);
    track->setShowArea(true);
    for (const auto& [index, path] :
         {std::pair{5, image("wide.jpg", 1600, 800)}, std::pair{25, scratch.file("gone.jpg")}}) {
      auto photo = TrackPhoto::trackPhotoWithFilepath(path);
      photo->setTimeOfPhoto(at("2012-05-01T10:00:50Z"));
      photo->setCity("Grindelwald");
      photo->setCountry("Switzerland");
      track->trackPoints()[index]->addTrackPhoto(photo);
    }
    return track;
  }

  ScratchFolder scratch;
};

TEST_F(TrackViewPageTest, PageCarriesTheLinePinsPhotosAndFiguresOfATrackAndNoNameBreaksOut) {
  TrackViewOptions options;
  options.title = "A </script> title & <more>";
  const std::string path = scratch.file("ridge.html");
  const auto written = writeTrackView(path, {ridge()}, options);
  ASSERT_TRUE(written.ok()) << written.reason();
  const std::string page = ScratchFolder::read(path);
  EXPECT_EQ(written->pageBytes, page.size());
  const json data = pageData(page);
  ASSERT_EQ(data["tracks"].size(), 1u);
  const json& track = data["tracks"][0];

  // A straight segment keeps its ends; the kinked one its kink and the
  // kink's flanks too. Each list is latitude, longitude pairs.
  ASSERT_EQ(track["segments"].size(), 2u);
  EXPECT_EQ(track["segments"][0].size(), 2u * 2);
  EXPECT_EQ(track["segments"][1].size(), 5u * 2);
  EXPECT_EQ(written->drawnVertices, 7u);
  EXPECT_EQ(written->points, 42u);
  EXPECT_EQ(track["color"], "#ff8000");
  EXPECT_EQ(track["corridor"], 25);

  // Few points: the profile has them all, the missing elevation as null.
  EXPECT_EQ(track["profile"]["d"].size(), 42u);
  EXPECT_TRUE(track["profile"]["ele"][30].is_null());
  EXPECT_EQ(track["profile"]["ele"][0], 500);
  EXPECT_EQ(track["stats"]["duration"], 500);
  EXPECT_NEAR(track["profile"]["d"][41].get<double>(), track["stats"]["length"].get<double>(), 1e-4);
  EXPECT_EQ(track["stats"]["minElevation"], 500);

  ASSERT_EQ(track["waypoints"].size(), 2u);
  EXPECT_EQ(track["waypoints"][0]["name"], "Hut <b>");
  EXPECT_EQ(track["waypoints"][0]["geocache"], false);
  EXPECT_EQ(track["waypoints"][1]["geocache"], true);

  // The readable photo comes as an upright JPEG thumbnail within 320 px.
  ASSERT_EQ(track["photos"].size(), 2u);
  EXPECT_EQ(track["photos"][0]["place"], "Grindelwald, Switzerland");
  const std::string thumb = track["photos"][0]["thumb"];
  ASSERT_EQ(thumb.rfind("data:image/jpeg;base64,", 0), 0u);
  const auto jpeg = base64Decode(thumb.substr(thumb.find(',') + 1));
  ASSERT_TRUE(jpeg);
  const std::string thumbFile = scratch.write("thumb.jpg", *jpeg);
  EXPECT_EQ(runShellCommandReadingOutput("vipsheader -f width " + thumbFile).output, "320\n");
  EXPECT_EQ(runShellCommandReadingOutput("vipsheader -f height " + thumbFile).output, "160\n");
  EXPECT_TRUE(track["photos"][1]["thumb"].is_null());
  EXPECT_EQ(written->unreadablePhotos, std::vector<std::string>{scratch.file("gone.jpg")});

  // Three script elements (data, Leaflet, the view) and no other way out.
  EXPECT_EQ(occurrences(page, "</script>"), 3u);
  EXPECT_EQ(occurrences(page, "<script"), 3u);
  EXPECT_THAT(page, HasSubstr("<title>A &lt;/script&gt; title &amp; &lt;more&gt;</title>"));
  EXPECT_EQ(track["name"], "Ridge </script><script>alert(1)</script> & \"more\"");
  EXPECT_EQ(occurrences(page, "<script src"), 0u);
  EXPECT_EQ(occurrences(page, "<link"), 0u);
  // Leaflet's pictures travel inside its style sheet.
  EXPECT_EQ(occurrences(page, "url(images/"), 0u);
  EXPECT_THAT(page, HasSubstr("url(data:image/png;base64,"));
}

TEST_F(TrackViewPageTest, LongTracksAreThinnedWithinTheirPromises) {
  auto track = walk("Long", 30000);
  track->trackPoints()[12345]->setElevation(-50.0);  // the walk climbs from 400 m
  TrackViewOptions options;
  const auto page = trackViewPage({track}, options);
  ASSERT_TRUE(page.ok());
  const json data = pageData(*page);
  const json& profile = data["tracks"][0]["profile"];
  // Elevation and speed each keep at most two points per run, plus the ends.
  EXPECT_LE(profile["d"].size(), 4 * kProfileRuns + 2);
  EXPECT_GE(profile["d"].size(), kProfileRuns);
  double lowest = 0;
  for (const auto& e : profile["ele"]) lowest = std::min(lowest, e.get<double>());
  EXPECT_EQ(lowest, -50.0);
  EXPECT_EQ(profile["index"].front(), 0);
  EXPECT_EQ(profile["index"].back(), 29999);
  // A straight walk north needs two vertices.
  EXPECT_EQ(data["tracks"][0]["segments"][0].size(), 4u);
}

TEST_F(TrackViewPageTest, WithoutLeafletNothingIsWritten) {
  TrackViewOptions options;
  options.leafletFolder = scratch.file("no-leaflet");
  LogCapture log;
  const std::string path = scratch.file("view.html");
  const auto written = writeTrackView(path, {ridge()}, options);
  ASSERT_FALSE(written.ok());
  EXPECT_THAT(written.reason(), HasSubstr("libjs-leaflet"));
  EXPECT_THAT(written.reason(), HasSubstr(options.leafletFolder));
  EXPECT_FALSE(std::filesystem::exists(path));
}

}  // namespace
}  // namespace kvtrack::testing
