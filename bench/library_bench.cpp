// Library benchmarks.
//   library_bench make DIR N      builds a saved library of N small tracks
//   library_bench open DIR        opens it from its index and lists every track
//   library_bench import DIR F... imports GPX files into a fresh library
// Each prints seconds and resident memory figures.

#include "kvtrack/library/GpxImportConfiguration.h"
#include "kvtrack/library/TrackLibrary.h"
#include "kvtrack/support/Log.h"

#include <malloc.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <string>

using namespace kvtrack;

namespace {

long residentBytes() {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.rfind("VmRSS:", 0) == 0) return std::stol(line.substr(6)) * 1024;
  }
  return 0;
}

double secondsSince(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

TrackLibraryPtr openOn(FileHandling& fileHandling, const std::string& folder) {
  fileHandling.setUserApplicationSupport(folder);
  FileHandling::singleton().setUserApplicationSupport(folder);
  return TrackLibrary::trackLibraryWithFileHandling(fileHandling);
}

int make(const std::string& folder, int count) {
  FileHandling fileHandling;
  auto library = openOn(fileHandling, folder);
  const int64_t start = 1335866400LL * 1000000;
  for (int t = 0; t < count; ++t) {
    auto parent = library->folders().empty() || t % 100 == 0 ? nullptr : library->folders().back();
    if (!parent) {
      parent = TrackLibraryFolder::trackLibraryFolder("Folder " + std::to_string(t / 100));
      library->addFolder(parent);
    }
    auto track = Track::trackWithName("Walk " + std::to_string(t));
    track->setIsLoaded(true);
    track->setDescription("A walk with a description & \"quotes\"");
    for (int i = 0; i < 10; ++i) {
      auto p = TrackPoint::trackPointWithParent(track.get());
      p->setLatitude(47.0 + t * 1e-4 + i * 1e-5);
      p->setLongitude(8.0 + i * 1e-5);
      p->setElevation(400 + i);
      p->setTime(ISODate::fromMicrosecondsSince1970(start + (t * 3600LL + i * 10) * 1000000, 120));
      track->addTrackPoint(p);
    }
    track->updateAll();
    parent->addTrack(track);
  }
  const bool saved = library->syncToDisk().ok();
  library.reset();
  TrackLibrary::releaseSingleton();
  std::printf("made %d tracks in %s (%s)\n", count, folder.c_str(), saved ? "saved" : "SAVE FAILED");
  return saved ? 0 : 1;
}

int open(const std::string& folder) {
  malloc_trim(0);
  const long before = residentBytes();
  const auto started = std::chrono::steady_clock::now();
  FileHandling fileHandling;
  auto library = openOn(fileHandling, folder);
  if (const Status opened = library->syncFromDisk(); !opened) {
    std::fprintf(stderr, "cannot open %s: %s\n", folder.c_str(), opened.reason().c_str());
    return 1;
  }
  // Listing as `wayfolio ls` does: one line per track from the index figures.
  size_t lines = 0, characters = 0;
  for (const auto& track : library->allTracks()) {
    const std::string line = track->name() + "  " +
                             (track->startTime() ? track->startTime()->description() : "-") + "  " +
                             track->durationString() + "  " + std::to_string(track->length()) +
                             "  " + std::to_string(track->pointCount());
    characters += line.size();
    ++lines;
  }
  const double seconds = secondsSince(started);
  const long after = residentBytes();
  std::printf("opened and listed %zu tracks (%zu characters) in %.3f s\n", lines, characters,
              seconds);
  std::printf("resident memory per unloaded track: %.0f bytes (target <= 1024)\n",
              static_cast<double>(after - before) / static_cast<double>(lines ? lines : 1));
  library.reset();
  TrackLibrary::releaseSingleton();
  return 0;
}

int import(const std::string& folder, int argc, char** argv) {
  FileHandling fileHandling;
  auto library = openOn(fileHandling, folder);
  GpxImportConfiguration configuration;
  configuration.setTrackIdPrefix("bench");
  const auto started = std::chrono::steady_clock::now();
  for (int i = 0; i < argc; ++i) {
    if (const Status imported = library->importGPX(argv[i], configuration); !imported) {
      std::fprintf(stderr, "%s: %s\n", argv[i], imported.reason().c_str());
    }
  }
  if (const Status saved = library->syncToDisk(); !saved) {
    std::fprintf(stderr, "cannot save: %s\n", saved.reason().c_str());
    return 1;
  }
  const double seconds = secondsSince(started);
  std::printf("imported %zu tracks from %d files in %.3f s: %.0f tracks/s\n",
              configuration.importedTracks().size(), argc, seconds,
              static_cast<double>(configuration.importedTracks().size()) / seconds);
  library.reset();
  TrackLibrary::releaseSingleton();
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  setLogToStandardError(false);
  const std::string mode = argc > 1 ? argv[1] : "";
  if (mode == "make" && argc == 4) return make(argv[2], std::stoi(argv[3]));
  if (mode == "open" && argc == 3) return open(argv[2]);
  if (mode == "import" && argc >= 3) return import(argv[2], argc - 3, argv + 3);
  std::fprintf(stderr, "usage: library_bench make DIR N | open DIR | import DIR FILE...\n");
  return 2;
}
