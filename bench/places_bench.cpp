// Place lookups against the loopback emulator of the services: reverse
// lookups one at a time and through the four loaders of the place cache,
// and the cost of a cache hit in memory and from a cell file on disk.
#include "kvtrack/places/GeoNames.h"
#include "kvtrack/places/LocationPool.h"
#include "kvtrack/support/FileHandling.h"
#include "kvtrack/support/Log.h"
#include "tests/places/PlaceServiceEmulator.h"

#include <benchmark/benchmark.h>

#include <filesystem>

namespace {

using namespace kvtrack;
using kvtrack::testing::PlaceServiceEmulator;

std::string scratchFolder() {
  const auto path = std::filesystem::temp_directory_path() / ("places-bench-" + FileHandling::guid());
  std::filesystem::create_directories(path);
  return path.string();
}

void BM_GeoNamesReverseLookup(benchmark::State& state) {
  PlaceServiceEmulator emulator;
  GeoNames service(emulator.settings());
  int i = 0;
  for (auto _ : state) {
    std::string city, st, country, code, place;
    const Status found = service.ConvertLon(8.0 + 0.001 * (i % 1000), 47.0, city, st, country,
                                            code, place);
    if (!found) state.SkipWithError(found.reason().c_str());
    ++i;
  }
  state.counters["requests/s"] =
      benchmark::Counter(2.0 * static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
}
BENCHMARK(BM_GeoNamesReverseLookup)->Unit(benchmark::kMicrosecond)->UseRealTime();

// 200 new cells through the four loaders, from queueing to the last answer.
void BM_PoolFillsCells(benchmark::State& state) {
  PlaceServiceEmulator emulator;
  RunLoop host;
  size_t cells = 0;
  for (auto _ : state) {
    const std::string cache = scratchFolder();
    {
      auto pool = LocationPool::create(std::make_shared<GeoNames>(emulator.settings()), cache, host);
      for (int i = 0; i < 200; ++i) (void)pool->elementForLongitude(8.0, 40.0 + 0.01 * i);
      pool->waitUntilIdle(std::chrono::minutes(5));
      cells += pool->loading().filled;
    }
    std::filesystem::remove_all(cache);
  }
  state.counters["requests/s"] =
      benchmark::Counter(2.0 * static_cast<double>(cells), benchmark::Counter::kIsRate);
}
BENCHMARK(BM_PoolFillsCells)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_CacheHitInMemory(benchmark::State& state) {
  const std::string cache = scratchFolder();
  PlaceServiceEmulator emulator;
  RunLoop host;
  auto pool = LocationPool::create(std::make_shared<GeoNames>(emulator.settings()), cache, host);
  const auto element = pool->elementForLongitude(8.5432, 47.3769);
  pool->waitForElement(*element, std::chrono::seconds(10));
  for (auto _ : state) benchmark::DoNotOptimize(pool->elementForLongitude(8.5431, 47.3768));
  pool.reset();
  std::filesystem::remove_all(cache);
}
BENCHMARK(BM_CacheHitInMemory);

// A process's first request for a cell whose file is on disk.
void BM_CacheHitFromCellFile(benchmark::State& state) {
  const std::string cache = scratchFolder();
  {
    LocationPoolElement element(8.5432, 47.3769, cache);
    element.fill("Zürich", "Switzerland", "CH", "Zürich", "Kanton Zürich");
  }
  for (auto _ : state) {
    LocationPoolElement element(8.5432, 47.3769, cache);
    if (!element.dataAvailable()) state.SkipWithError("cell file not read");
  }
  std::filesystem::remove_all(cache);
}
BENCHMARK(BM_CacheHitFromCellFile);

}  // namespace

int main(int argc, char** argv) {
  kvtrack::setLogToStandardError(false);
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}
