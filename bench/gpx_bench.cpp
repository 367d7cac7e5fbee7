// Reads a GPX file into one track and writes it back, each timed against
// the parsing floor measured in the same run (xmllint --stream --noout over
// the same file), and prints the resident memory the track occupies per
// point. Ends with a table of the figures, their floor and their target.
// Usage: gpx_bench IN.gpx OUT.gpx

#include "kvtrack/formats/gpx/TrackGPX.h"
#include "kvtrack/support/Log.h"

#include <fcntl.h>
#include <malloc.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <string>

extern char** environ;

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

// Seconds xmllint takes to parse the file without building anything; 0
// when it cannot run.
double xmllintSeconds(const char* path) {
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
  char* argv[] = {const_cast<char*>("xmllint"), const_cast<char*>("--stream"),
                  const_cast<char*>("--noout"), const_cast<char*>(path), nullptr};
  const auto start = std::chrono::steady_clock::now();
  pid_t child = 0;
  const int spawned = posix_spawnp(&child, "xmllint", &actions, nullptr, argv, environ);
  posix_spawn_file_actions_destroy(&actions);
  int status = 0;
  if (spawned != 0 || waitpid(child, &status, 0) != child || !WIFEXITED(status) ||
      WEXITSTATUS(status) != 0) {
    return 0;
  }
  return secondsSince(start);
}

std::string ratio(double value, double floor) {
  char text[32];
  std::snprintf(text, sizeof text, "%.2fx", floor > 0 ? value / floor : 0.0);
  return text;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) {
    std::fprintf(stderr, "usage: gpx_bench IN.gpx OUT.gpx\n");
    return 2;
  }
  kvtrack::setLogToStandardError(false);
  const double floor = xmllintSeconds(argv[1]);  // also brings the file into the page cache
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

  const size_t points = track->trackPoints().size();
  const double perPoint = points ? static_cast<double>(after - before) / static_cast<double>(points) : 0;
  std::printf("points: %zu (read %s, written %s)\n", points, read ? "ok" : "FAILED",
              written ? "ok" : "FAILED");
  std::printf("xmllint --stream --noout: %.2f s\n", floor);
  std::printf("read: %.2f s, %s xmllint\n", readSeconds, ratio(readSeconds, floor).c_str());
  std::printf("write: %.2f s, %s xmllint (written atomically: synced to the disk)\n", writeSeconds,
              ratio(writeSeconds, floor).c_str());
  std::printf("track in memory: %.1f MB, %.0f B per point\n", (after - before) / 1e6, perPoint);
  std::printf("peak while reading: %.1f MB (%.2fx the track)\n", (peak - before) / 1e6,
              static_cast<double>(peak - before) / static_cast<double>(after - before));

  std::printf("\n| job | now | floor | ratio | target |\n|---|---|---|---|---|\n");
  std::printf("| read %zu-point GPX into a track | %.2f s | xmllint %.2f s | %s | <= 1.5x |\n",
              points, readSeconds, floor, ratio(readSeconds, floor).c_str());
  std::printf("| write that track as GPX | %.2f s | xmllint %.2f s | %s | <= 1.0x |\n",
              writeSeconds, floor, ratio(writeSeconds, floor).c_str());
  std::printf("| memory per loaded point | %.0f B | gpsbabel about 204 B | %s | <= 128 B |\n",
              perPoint, ratio(perPoint, 204).c_str());
  return read && written ? 0 : 1;
}
