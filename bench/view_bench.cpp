// Track views of long recordings: page size and build time for tracks of
// 10,000 and 100,000 points (a bike ride logged every second, with GPS
// jitter), against writing the same track as GPX in the same run; then how
// headless Chromium copes with each page (network cut off): load time,
// script heap, a zoom step and a profile hover, against the page of a
// 41-point track. Usage: view_bench [POINTS...]

#include "kvtrack/formats/gpx/TrackGPX.h"
#include "kvtrack/support/FileHandling.h"
#include "kvtrack/support/Log.h"
#include "kvtrack/view/TrackViewPage.h"
#include "tests/view/HeadlessChromium.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>

namespace {

using namespace kvtrack;
using Clock = std::chrono::steady_clock;

double secondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

// A ride at about 5 m/s through the hills, one fix a second: a wandering
// heading, rolling elevation and 2.5 m of receiver jitter on every fix.
TrackPtr ride(int points) {
  auto track = Track::trackWithName("Ride of " + std::to_string(points) + " points");
  track->setIsLoaded(true);
  std::mt19937 random(2024);
  std::normal_distribution<double> turn(0.0, 0.03), jitter(0.0, 2.5 / 111000.0), noise(0.0, 1.0);
  double latitude = 46.6, longitude = 7.9, heading = 0.4, elevation = 900.0, climb = 0.0;
  const int64_t start = 1718431200LL * 1000000;  // 2024-06-15 06:00 UTC
  for (int i = 0; i < points; ++i) {
    heading += turn(random);
    latitude += 5.0 / 111000.0 * std::cos(heading);
    longitude += 5.0 / (111000.0 * std::cos(latitude * M_PI / 180.0)) * std::sin(heading);
    climb = std::clamp(climb + noise(random) * 0.02, -0.4, 0.4);
    elevation = std::max(200.0, elevation + climb);
    auto point = TrackPoint::trackPointWithParent(track.get());
    point->setLatitude(latitude + jitter(random));
    point->setLongitude(longitude + jitter(random));
    point->setElevation(elevation + noise(random));
    point->setTime(ISODate::fromMicrosecondsSince1970(start + int64_t{i} * 1000000, 120));
    track->addTrackPoint(point);
  }
  track->updateAll();
  return track;
}

template <typename F>
double bestOfThree(F&& run) {
  double best = 1e9;
  for (int k = 0; k < 3; ++k) {
    const auto start = Clock::now();
    run();
    best = std::min(best, secondsSince(start));
  }
  return best;
}

struct Built {
  std::string path;
  size_t bytes = 0;
};

Built buildAndCompare(const TrackPtr& track, const std::string& folder) {
  TrackViewOptions options;
  options.title = track->name();
  Result<TrackViewSummary> summary = Status::failure("not built");
  const std::string path = folder + "/" + std::to_string(track->trackPoints().size()) + ".html";
  const double view = bestOfThree([&] { summary = writeTrackView(path, {track}, options); });
  GpxExportConfiguration configuration;
  const std::string gpxPath = folder + "/track.gpx";
  const double gpx = bestOfThree([&] { (void)TrackGPX(track).exportTo(gpxPath, configuration); });
  if (!summary) {
    std::printf("  view FAILED: %s\n", summary.reason().c_str());
    return {};
  }
  std::printf("  page %.0f kB (%zu of %zu vertices drawn); build %.3f s, GPX write %.3f s "
              "(view/GPX %.2f)\n",
              summary->pageBytes / 1024.0, summary->drawnVertices, summary->points, view, gpx,
              view / gpx);
  return {path, summary->pageBytes};
}

// Milliseconds per zoom step (redrawing every vertex) and per hover.
constexpr const char* kInteract = R"js(
(async () => {
  const frames = () => new Promise(r => requestAnimationFrame(() => requestAnimationFrame(r)));
  const map = wayfolioView.map;
  let t = performance.now();
  let busy = 0;
  for (let k = 0; k < 4; k++) {
    await new Promise(r => {
      map.once('zoomend', r);
      const s = performance.now();
      map.setZoom(map.getZoom() + (k % 2 ? -2 : 2), { animate: false });
      busy += performance.now() - s;
    });
    await frames();
  }
  const zoom = (performance.now() - t) / 4;
  const zoomScript = busy / 4;
  const svg = document.querySelector('#elevation-profile');
  const box = svg.getBoundingClientRect();
  t = performance.now();
  for (let k = 0; k < 100; k++) {
    svg.dispatchEvent(new MouseEvent('mousemove', { clientX: box.left + box.width * k / 100, clientY: box.top + 50 }));
  }
  await frames();
  const hover = (performance.now() - t) / 100;
  return { zoom, zoomScript, hover,
           data: wayfolioView.lines[0].getLatLngs().flat().length,
           vertices: [...document.querySelectorAll('path.wf-line')].map(p => (p.getAttribute('d').match(/[ML]/g) || []).length)[0] };
})()
)js";

void browse(const std::string& page, const std::string& profile, const char* label) {
  std::string why;
  auto browser = testing::HeadlessChromium::start(profile, 1280, 1000, why);
  if (!browser) {
    std::printf("  %s: Chromium not measured: %s\n", label, why.c_str());
    return;
  }
  const auto start = Clock::now();
  const bool loaded = browser->navigate("file://" + page);
  const double load = secondsSince(start);
  const auto measured = browser->evaluate(kInteract);
  if (!loaded || !measured.contains("zoom")) {
    std::printf("  %s: the page did not load: %s\n", label, measured.dump().c_str());
    return;
  }
  const auto heap = browser->call("Runtime.getHeapUsage");
  std::printf("  %s in Chromium: load %.2f s, script heap %.1f MB, zoom step %.0f ms (%.0f ms in "
              "script), hover %.1f ms, %d of the line's %d vertices in the SVG path, %zu console errors\n",
              label, load, heap.value("usedSize", 0.0) / 1e6, measured["zoom"].get<double>(),
              measured["zoomScript"].get<double>(), measured["hover"].get<double>(),
              measured["vertices"].get<int>(), measured["data"].get<int>(), browser->errors().size());
}

}  // namespace

int main(int argc, char** argv) {
  setLogToStandardError(false);
  std::vector<int> sizes{10000, 100000};
  if (argc > 1) sizes.assign({});
  for (int i = 1; i < argc; ++i) sizes.push_back(std::stoi(argv[i]));
  const std::string folder = FileHandling::singleton().sandbox();
  std::printf("peer: a 41-point track\n");
  const Built small = buildAndCompare(ride(41), folder);
  browse(small.path, folder + "/profile-small", "41 points");
  for (const int n : sizes) {
    std::printf("%d points\n", n);
    const Built built = buildAndCompare(ride(n), folder);
    if (!built.path.empty()) browse(built.path, folder + "/profile-" + std::to_string(n), "page");
  }
  return 0;
}
