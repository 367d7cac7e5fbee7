// Reads a GPX file into one track and writes it back, printing the seconds
// of each step, the resident memory the track occupies after reading and the
// peak while reading. Usage: gpx_bench IN.gpx OUT.gpx

#include "kvtrack/formats/gpx/TrackGPX.h"
#include "kvtrack/support/Log.h"

#include <malloc.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <string>

namespace {

// VmRSS or VmHWM from /proc/self/status, in bytes.
long statusBytes(const std::string& key) {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.rfind(key + ":", 0) == 0) return std::stol(line.substr(key.size() + 1)) * 1024;
  }
  return 0;
}

// Restarts the peak counter, so the peak measured is that of the read.
void resetPeak() { std::ofstream("/proc/self/clear_refs") << "5"; }

double secondsSince(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) {
    std::fprintf(stderr, "usage: gpx_bench IN.gpx OUT.gpx\n");
    return 2;
  }
  kvtrack::setLogToStandardError(false);
  malloc_trim(0);
  const long before = statusBytes("VmRSS");
  resetPeak();

  auto track = kvtrack::Track::track();
  auto start = std::chrono::steady_clock::now();
  const bool read = kvtrack::TrackGPX(track).importFrom(argv[1]).ok();
  const double readSeconds = secondsSince(start);
  const long peak = statusBytes("VmHWM");
  const long after = statusBytes("VmRSS");

  kvtrack::GpxExportConfiguration configuration;
  start = std::chrono::steady_clock::now();
  const bool written = kvtrack::TrackGPX(track).exportTo(argv[2], configuration).ok();
  const double writeSeconds = secondsSince(start);

  std::printf("points: %zu (read %s, written %s)\n", track->trackPoints().size(),
              read ? "ok" : "FAILED", written ? "ok" : "FAILED");
  std::printf("read: %.3f s\nwrite: %.3f s\n", readSeconds, writeSeconds);
  std::printf("track in memory: %.1f MB\npeak while reading: %.1f MB (%.2fx the track)\n",
              (after - before) / 1e6, (peak - before) / 1e6,
              static_cast<double>(peak - before) / static_cast<double>(after - before));
  return read && written ? 0 : 1;
}
