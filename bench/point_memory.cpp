// Resident memory per plain track point: the growth of the process's RSS
// while a 1,000,000-point track is built (time, position, elevation, speed,
// leg length, flags and parent link; no waypoint data, no photos).

#include "TrackFixtures.h"

#include <malloc.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>

namespace {
long residentBytes() {
  std::ifstream statm("/proc/self/statm");
  long size = 0, resident = 0;
  statm >> size >> resident;
  return resident * sysconf(_SC_PAGESIZE);
}
}  // namespace

int main(int argc, char** argv) {
  const size_t count = argc > 1 ? std::stoul(argv[1]) : 1000000;
  malloc_trim(0);
  const long before = residentBytes();
  auto track = kvtrack::bench::makeWalk(count);
  track->updateAll();  // speeds and legs filled in, as in a loaded track
  const long after = residentBytes();
  const double perPoint = static_cast<double>(after - before) / static_cast<double>(count);
  std::printf("points: %zu\n", count);
  std::printf("resident growth: %.1f MB\n", (after - before) / 1e6);
  std::printf("bytes per point: %.1f (target <= 128)\n", perPoint);
  std::printf("sizeof(TrackPoint): %zu, list slot: %zu\n", sizeof(kvtrack::TrackPoint),
              sizeof(kvtrack::TrackPointPtr));
  return perPoint <= 128.0 ? 0 : 1;
}
