// i-gotU figures: decoding a full logger (1,536 records, the most one
// download reads) with IGotU::createTrackPoints, and a whole download of the
// same records from the emulated logger behind the driver's USB transport.
// Log lines are formatted as in a real download but go nowhere.
//
// Usage: igotu_bench [ROUNDS]

#include "kvtrack/devices/igotu/IGotU.h"
#include "kvtrack/support/Log.h"
#include "tests/devices/IGotUEmulator.h"

#include <fmt/format.h>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
using kvtrack::test::IGotUEmulator;

constexpr std::size_t kRecords = 1536;

std::vector<std::vector<std::uint8_t>> records() {
  std::vector<std::vector<std::uint8_t>> all;
  for (std::size_t i = 0; i < kRecords; ++i) {
    const int second = static_cast<int>(i) * 5;
    all.push_back(IGotUEmulator::record(
        {.year = 2024, .day = 1 + second / 86400, .hour = second / 3600 % 24,
         .minute = second / 60 % 60, .milliseconds = second % 60 * 1000,
         .latitude = 470000000 + static_cast<std::int32_t>(i) * 10,
         .longitude = 80000000 + static_cast<std::int32_t>(i) * 10}));
  }
  return all;
}

double seconds(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

}  // namespace

int main(int argc, char** argv) {
  const int rounds = argc > 1 ? std::atoi(argv[1]) : 20;
  kvtrack::setLogToStandardError(false);
  const auto all = records();
  std::vector<std::uint8_t> memory;
  for (const auto& r : all) memory.insert(memory.end(), r.begin(), r.end());

  IGotUEmulator logger;
  logger.setRecords(all);
  double decoding = 0, downloading = 0;
  for (int round = 0; round < rounds; ++round) {
    kvtrack::IGotU decoder(logger.opener());
    auto start = Clock::now();
    decoder.createTrackPoints(memory, kRecords);
    decoding += seconds(start);
    if (decoder.currentTrack()->loadedPointCount() != kRecords) return 1;

    kvtrack::IGotU driver(logger.opener());
    start = Clock::now();
    const auto tracks = driver.importTracksFromDevice("", {});
    downloading += seconds(start);
    if (!tracks || tracks->front()->loadedPointCount() != kRecords) return 1;
  }
  decoding /= rounds;
  downloading /= rounds;
  fmt::print("i-gotU: decoding {} records: {:.2f} ms ({:.0f} records/s)\n", kRecords,
             decoding * 1e3, kRecords / decoding);
  fmt::print("i-gotU: download of {} records from the emulated logger (12 blocks): {:.2f} ms "
             "({:.0f} records/s)\n",
             kRecords, downloading * 1e3, kRecords / downloading);
  return 0;
}
