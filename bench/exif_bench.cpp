// Reading the capture times of many small JPEGs with ExifTool::isoDateForFile:
// persistent exiftool sessions (one thread per session) against one exiftool
// process per photo. Usage: exif_bench [PHOTOS]
// Prints the times and the ratios; the photos live in a private scratch folder.

#include "kvtrack/photos/ExifTool.h"
#include "kvtrack/photos/ExifToolSession.h"
#include "kvtrack/support/ExternalProgram.h"
#include "kvtrack/support/FileHandling.h"
#include "kvtrack/support/Log.h"
#include "tests/photos/PhotoTestSupport.h"

#include <fmt/format.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace kvtrack;
namespace fs = std::filesystem;

// DateTimeOriginal of photo i: one minute after photo i - 1.
ISODate expectedTime(size_t i) {
  return ISODate::fromMicrosecondsSince1970((1714557600 + int64_t(i) * 60) * 1000000);
}

// Copies of one JPEG, then a single exiftool run (one command per photo in
// an argument file) gives each its time.
bool makePhotos(const fs::path& folder, size_t count, std::vector<std::string>& paths) {
  std::ofstream arguments(folder / "times.args");
  for (size_t i = 0; i < count; ++i) {
    const std::string path = (folder / fmt::format("photo{:04}.jpg", i)).string();
    if (!testing::writeBytes(path, testing::minimalJpegBytes())) return false;
    const std::string time = expectedTime(i).descriptionForExiftool().substr(0, 19);
    arguments << "-q\n-overwrite_original\n-DateTimeOriginal=" << time << '\n' << path << "\n-execute\n";
    paths.push_back(path);
  }
  arguments.close();
  return runShellCommand("exiftool -@ " + FileHandling::filenameForShell((folder / "times.args").string())) == 0;
}

// Seconds for reading every photo's time on the given number of threads.
double readAll(const std::vector<std::string>& paths, unsigned threads, size_t& wrong) {
  std::atomic<size_t> next{0}, errors{0};
  const auto start = std::chrono::steady_clock::now();
  std::vector<std::thread> workers;
  for (unsigned t = 0; t < threads; ++t) {
    workers.emplace_back([&] {
      for (size_t i = next++; i < paths.size(); i = next++) {
        std::optional<ISODate> time = ExifTool::isoDateForFile(paths[i], 0, true);
        if (!time || *time != expectedTime(i)) ++errors;
      }
    });
  }
  for (std::thread& worker : workers) worker.join();
  wrong = errors;
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

}  // namespace

int main(int argc, char** argv) {
  const size_t count = argc > 1 ? std::strtoul(argv[1], nullptr, 10) : 500;
  const std::string folder = FileHandling::singleton().sandbox();
  if (count == 0 || folder.empty()) return 1;
  setLogToStandardError(false);
  std::vector<std::string> paths;
  auto start = std::chrono::steady_clock::now();
  if (!makePhotos(folder, count, paths)) {
    fmt::print(stderr, "exif_bench: cannot make the photos (is exiftool installed?)\n");
    return 1;
  }
  fmt::print("made {} JPEGs in {:.2f} s\n", count,
             std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());

  const unsigned sessions = static_cast<unsigned>(ExifToolSessionPool::shared().capacity());
  struct Run { const char* name; bool persistent; unsigned threads; double seconds = 0; size_t wrong = 0; };
  std::vector<Run> runs = {{"sessions on", true, sessions},
                           {"sessions on, 1 thread", true, 1},
                           {"sessions off", false, 1},
                           {"sessions off", false, sessions}};
  for (Run& run : runs) {
    ExifTool::setPersistentSessions(run.persistent);
    ExifTool::shutdownSessions();  // every run pays for starting its exiftools
    run.seconds = readAll(paths, run.threads, run.wrong);
    fmt::print("{:<24} {} thread(s): {:7.2f} s, {:6.2f} ms per photo{}\n", run.name, run.threads,
               run.seconds, run.seconds * 1000 / double(count),
               run.wrong ? fmt::format(", {} WRONG", run.wrong) : "");
  }
  ExifTool::shutdownSessions();
  fmt::print("ratio, off (1 thread) / on ({} threads): {:.1f}x\n", sessions, runs[2].seconds / runs[0].seconds);
  fmt::print("ratio, off / on, both {} thread(s):       {:.1f}x\n", sessions, runs[3].seconds / runs[0].seconds);
  fmt::print("ratio, off / on, both 1 thread:          {:.1f}x\n", runs[2].seconds / runs[1].seconds);
  for (const Run& run : runs) {
    if (run.wrong) return 1;
  }
  return 0;
}
