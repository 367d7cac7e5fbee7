// updateAll on a 1,000,000-point track against a bare loop that sums the
// same great-circle distances over the same coordinates held in a plain
// array. Prints the ratio of the two at the end.

#include "TrackFixtures.h"

#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdio>
#include <map>
#include <vector>

namespace {

constexpr size_t kPoints = 1000000;

std::shared_ptr<kvtrack::Track>& sharedTrack() {
  static auto track = kvtrack::bench::makeWalk(kPoints);
  return track;
}

void UpdateAll(benchmark::State& state) {
  auto& track = sharedTrack();
  for (auto _ : state) {
    track->makeDirty();  // force every figure to be recomputed
    track->updateAll();
    benchmark::DoNotOptimize(track->length());
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * kPoints));
}
BENCHMARK(UpdateAll)->Unit(benchmark::kMillisecond)->MinTime(2.0);

// The formula written out directly: eight trigonometric calls and one acos per pair.
double bareDistance(double lat1, double lon1, double lat2, double lon2) {
  const double pi = 3.141592653589793;
  lat1 = lat1 / 180.0 * pi;
  lon1 = lon1 / 180.0 * pi;
  lat2 = lat2 / 180.0 * pi;
  lon2 = lon2 / 180.0 * pi;
  const double q = std::cos(lat1) * std::cos(lon1) * std::cos(lat2) * std::cos(lon2) +
                   std::sin(lon1) * std::cos(lat1) * std::cos(lat2) * std::sin(lon2) +
                   std::sin(lat1) * std::sin(lat2);
  const double d = std::acos(q) * 6371.0;
  return std::isnan(d) ? 0.0 : d;
}

void BareGreatCircleLoop(benchmark::State& state) {
  std::vector<double> lat, lon;
  for (const auto& p : sharedTrack()->trackPoints()) {
    lat.push_back(p->latitude());
    lon.push_back(p->longitude());
  }
  double expected = sharedTrack()->calcLength();
  for (auto _ : state) {
    double sum = 0;
    for (size_t k = 1; k < lat.size(); ++k) sum += bareDistance(lat[k], lon[k], lat[k - 1], lon[k - 1]);
    benchmark::DoNotOptimize(sum);
    if (std::fabs(sum - expected) > 1e-6 * expected) state.SkipWithError("sums differ");
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * kPoints));
}
BENCHMARK(BareGreatCircleLoop)->Unit(benchmark::kMillisecond)->MinTime(2.0);

// Remembers the time per iteration of each benchmark to print the ratio.
class RatioReporter : public benchmark::ConsoleReporter {
 public:
  std::map<std::string, double> seconds;
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const auto& run : runs) {
      seconds[run.benchmark_name()] = run.GetAdjustedRealTime();
    }
    ConsoleReporter::ReportRuns(runs);
  }
};

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  const auto& s = reporter.seconds;
  auto update = s.find("UpdateAll/min_time:2.000");
  auto bare = s.find("BareGreatCircleLoop/min_time:2.000");
  if (update != s.end() && bare != s.end()) {
    std::printf("\nupdateAll / bare great-circle loop: %.2fx (target <= 3x)\n",
                update->second / bare->second);
  }
  benchmark::Shutdown();
  return 0;
}
