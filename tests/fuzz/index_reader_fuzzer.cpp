// libFuzzer target: arbitrary bytes as a library index file.

#include "kvtrack/library/TrackLibraryXML.h"
#include "kvtrack/support/Log.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const bool quiet = [] {
    kvtrack::setLogToStandardError(false);
    return true;
  }();
  (void)quiet;
  const int fd = memfd_create("index", MFD_CLOEXEC);
  if (fd < 0) return 0;
  for (size_t done = 0; done < size;) {
    const ssize_t n = write(fd, data + done, size - done);
    if (n <= 0) break;
    done += static_cast<size_t>(n);
  }
  auto folder = kvtrack::TrackLibraryFolder::trackLibraryFolder();
  kvtrack::TrackLibraryXML index;
  (void)index.importFrom("/proc/self/fd/" + std::to_string(fd), folder);
  for (const auto& track : folder->allTracks()) (void)track->durationString();
  close(fd);
  return 0;
}
