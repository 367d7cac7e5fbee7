// The sample hike's view, made by wayfolio from a library it imported and
// geotagged, opened in headless Chromium with the network cut off: the page
// must draw the simplified line, every pin and photo, and the profiles,
// without a single console error or outside request. A screenshot of each
// page is kept under the build folder (test-artefacts/view).
#include "kvtrack/formats/gpx/TrackGPX.h"
#include "kvtrack/support/ExternalProgram.h"
#include "kvtrack/support/FileHandling.h"
#include "kvtrack/support/Log.h"
#include "kvtrack/view/TrackViewData.h"
#include "kvtrack/view/TrackViewPage.h"
#include "tests/common/ScratchFolder.h"
#include "tests/common/TrackBuilders.h"
#include "tests/places/PlaceServiceEmulator.h"
#include "tests/view/HeadlessChromium.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <mutex>
#include <regex>

namespace kvtrack::testing {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;

std::string examples(const std::string& name) {
  return (fs::path(KVTRACK_SOURCE_DIR) / "examples" / name).string();
}

std::string word(const std::string& text) { return FileHandling::filenameForShell(text); }

// What the page shows, read from its DOM once it has drawn; then what
// hovering the middle of the elevation chart marks on the map, and the
// profile's extent against time instead of distance.
constexpr const char* kMeasure = R"js(
(async () => {
  await new Promise(r => requestAnimationFrame(() => requestAnimationFrame(r)));
  const profile = document.querySelector('#elevation-profile path.wf-profile-line');
  const box = profile ? profile.getBBox() : null;
  const chart = document.querySelector('#elevation-profile').getBoundingClientRect();
  const drawn = profile ? profile.getBoundingClientRect() : null;
  const shown = {
    ready: document.body.dataset.ready === 'true',
    lineData: wayfolioView.lines.filter(l => l).map(l => l.getLatLngs().flat().length),
    lines: [...document.querySelectorAll('path.wf-line')].map(p => (p.getAttribute('d').match(/[ML]/g) || []).length),
    pins: document.querySelectorAll('.wf-pin').length,
    labels: [...document.querySelectorAll('.wf-pin-label')].map(e => e.textContent).sort(),
    photoMarkers: document.querySelectorAll('.wf-photo-marker').length,
    picturesShown: [...document.querySelectorAll('.wf-photo-marker img')].filter(i => i.complete && i.naturalWidth > 0).length,
    legend: [...document.querySelectorAll('.wf-legend li')].map(e => e.textContent),
    sums: !!document.getElementById('sums'),
    tiles: document.querySelectorAll('.leaflet-tile').length,
    offlineNote: !!document.querySelector('.wf-offline'),
    scale: !!document.querySelector('.leaflet-control-scale'),
    profile: box && { low: box.y, high: box.y + box.height, from: box.x, to: box.x + box.width,
                      inside: drawn.top >= chart.top && drawn.bottom <= chart.bottom &&
                              drawn.left >= chart.left && drawn.right <= chart.right }
  };
  document.querySelector('#elevation-profile').dispatchEvent(new MouseEvent('mousemove',
      { clientX: chart.left + chart.width / 2, clientY: chart.top + chart.height / 2, bubbles: true }));
  shown.hover = { marker: document.querySelectorAll('path.wf-hover').length,
                  readout: document.querySelector('.wf-readout')?.textContent };
  [...document.querySelectorAll('.wf-axis-choice button')].find(b => b.textContent.includes('time'))?.click();
  shown.againstTime = document.querySelector('#elevation-profile path.wf-profile-line')?.getBBox().width;
  return shown;
})()
)js";

class ViewInChromiumTest : public ::testing::Test {
 protected:
  ViewInChromiumTest() { setLogToStandardError(false); }
  ~ViewInChromiumTest() override { setLogToStandardError(true); }

  void wayfolio(const std::string& arguments) const {
    const std::string command = "WAYFOLIO_SETTINGS=" + word(scratch.file("settings.toml")) +
                                " XDG_CACHE_HOME=" + word(scratch.file("cache")) + " " +
                                word(WAYFOLIO_BINARY) + " --library " + word(scratch.file("library")) + " " +
                                arguments;
    const ShellOutput result = runShellCommandReadingOutput(command + " 2>&1");
    ASSERT_EQ(result.status, 0) << arguments << "\n" << result.output;
  }

  // Opens the page, measures it and keeps its screenshot.
  json show(const std::string& page, const std::string& artefact) {
    std::string why;
    auto browser = HeadlessChromium::start(scratch.file("profile"), 1280, 1000, why);
    if (!browser) {
      ADD_FAILURE() << why;
      return {};
    }
    EXPECT_TRUE(browser->navigate("file://" + page));
    json measured = browser->evaluate(kMeasure);
    keepScreenshot(browser->screenshot(), artefact);
    measured["errors"] = browser->errors();
    measured["outsideRequests"] = browser->outsideRequests();
    return measured;
  }

  static void keepScreenshot(const std::string& png, const std::string& name) {
    ASSERT_EQ(png.substr(0, 8), "\x89PNG\r\n\x1a\n") << "no screenshot";
    fs::create_directories(VIEW_ARTEFACTS);
    std::ofstream(std::string(VIEW_ARTEFACTS) + "/" + name, std::ios::binary) << png;
  }

  ScratchFolder scratch;
};

// The sample library: every example, the photos attached to the hike.
TEST_F(ViewInChromiumTest, SampleHikeAndLibraryDrawTheirLinesPinsPhotosAndProfilesOffline) {
  wayfolio("import " + word(examples("")));
  wayfolio("geotag " + word(examples("photos")));
  const std::string page = scratch.file("hike.html");
  wayfolio("view 'Bachalpsee hike' --html " + word(page));

  // What the page should show, from the sample file through the library.
  auto hike = Track::trackWithName("expected");
  ASSERT_TRUE(TrackGPX(hike).importFrom(examples("bachalpsee-hike.gpx")).ok());
  hike->updateProperties();
  size_t vertices = 0;
  {
    std::lock_guard<Track> lock(*hike);
    for (const auto& segment : recordedSegments(*hike)) {
      vertices += simplifyLine(segment, kLineToleranceMetres).size();
    }
  }
  ASSERT_LT(vertices, hike->trackPoints().size()) << "the sample should be simplified";

  const json shown = show(page, "bachalpsee-hike.png");
  ASSERT_TRUE(shown.contains("ready")) << shown.dump(2);
  EXPECT_TRUE(shown["ready"]);
  EXPECT_EQ(shown["errors"], json::array()) << "console errors";
  EXPECT_EQ(shown["outsideRequests"], json::array());
  // Every vertex the library kept is handed to Leaflet and drawn.
  EXPECT_EQ(shown["lineData"], json::array({vertices}));
  EXPECT_EQ(shown["lines"], json::array({vertices}));
  EXPECT_EQ(shown["pins"], hike->waypointCount());
  EXPECT_EQ(shown["labels"], json::array({"Bachalpsee", "First"}));
  EXPECT_EQ(shown["photoMarkers"], 2);
  EXPECT_EQ(shown["picturesShown"], 2);
  EXPECT_EQ(shown["tiles"], 0);
  EXPECT_TRUE(shown["offlineNote"]);
  EXPECT_TRUE(shown["scale"]);
  // The profile is drawn in metres: its box is the hike's elevation range,
  // over its whole length, inside the chart.
  const json& profile = shown["profile"];
  EXPECT_NEAR(profile["low"].get<double>(), hike->minElevation(), 0.05);
  EXPECT_NEAR(profile["high"].get<double>(), hike->maxElevation(), 0.05);
  EXPECT_NEAR(profile["from"].get<double>(), 0.0, 1e-9);
  EXPECT_NEAR(profile["to"].get<double>(), hike->calcLength(), 0.001);
  EXPECT_TRUE(profile["inside"]);
  EXPECT_EQ(shown["hover"]["marker"], 1);
  EXPECT_THAT(shown["hover"]["readout"].get<std::string>(), ::testing::HasSubstr("km"));
  EXPECT_NEAR(shown["againstTime"].get<double>(), 7200.0, 0.5);

  // The folder: the hike, the ride and the lake walk, three lines and three legend rows.
  const std::string folderPage = scratch.file("library.html");
  wayfolio("view / --html " + word(folderPage));
  const json folder = show(folderPage, "sample-library.png");
  ASSERT_TRUE(folder.contains("ready")) << folder.dump(2);
  EXPECT_EQ(folder["errors"], json::array()) << "console errors";
  EXPECT_EQ(folder["outsideRequests"], json::array());
  EXPECT_EQ(folder["lines"].size(), 3u);
  EXPECT_EQ(folder["legend"].size(), 3u);
  EXPECT_TRUE(folder["sums"]);
  EXPECT_EQ(folder["photoMarkers"], 2);
}

TEST_F(ViewInChromiumTest, OnlineTheMapLoadsItsTiles) {
  // A tile server of our own on the loopback address stands in for
  // OpenStreetMap; any small PNG serves as a tile.
  const std::string tile = ScratchFolder::read(std::string(kLeafletFolder) + "/images/layers.png");
  ASSERT_FALSE(tile.empty());
  LoopbackHttpServer tiles([&](const HttpExchange&) {
    return CannedAnswer{200, tile, std::chrono::milliseconds(0), "image/png"};
  });
  TrackViewOptions options;
  options.title = "Walk";
  options.tileUrl = tiles.url() + "/{z}/{x}/{y}.png";
  const std::string page = scratch.file("walk.html");
  ASSERT_TRUE(writeTrackView(page, {walk("Walk", 50)}, options).ok());

  std::string why;
  auto browser = HeadlessChromium::start(scratch.file("profile"), 1280, 1000, why,
                                         HeadlessChromium::Network::kLoopbackOnly);
  ASSERT_TRUE(browser) << why;
  ASSERT_TRUE(browser->navigate("file://" + page));
  const json shown = browser->evaluate(R"js(
    (async () => {
      for (let i = 0; i < 100 && !document.querySelector('.leaflet-tile-loaded'); i++) {
        await new Promise(r => setTimeout(r, 50));
      }
      return { loaded: document.querySelectorAll('.leaflet-tile-loaded').length,
               offlineNote: !!document.querySelector('.wf-offline') };
    })()
  )js");
  EXPECT_GT(shown["loaded"].get<int>(), 0) << shown.dump();
  EXPECT_FALSE(shown["offlineNote"]);
  EXPECT_EQ(browser->errors(), std::vector<std::string>{});
  ASSERT_GT(tiles.requestCount(), 0u);
  for (const auto& request : tiles.requests()) {
    EXPECT_TRUE(std::regex_match(request.path, std::regex("/[0-9]+/[0-9]+/[0-9]+\\.png"))) << request.path;
  }
  keepScreenshot(browser->screenshot(), "online-walk.png");
}

}  // namespace
}  // namespace kvtrack::testing
