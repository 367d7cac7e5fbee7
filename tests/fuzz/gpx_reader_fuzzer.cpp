// libFuzzer target: arbitrary bytes as a GPX file for the track reader.
// The input lives in an anonymous in-memory file, so the reader sees a
// real path and runs exactly as on disk.

#include "kvtrack/formats/gpx/TrackGPX.h"
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
  const int fd = memfd_create("gpx", MFD_CLOEXEC);
  if (fd < 0) return 0;
  size_t done = 0;
  while (done < size) {
    const ssize_t n = write(fd, data + done, size - done);
    if (n <= 0) break;
    done += static_cast<size_t>(n);
  }
  lseek(fd, 0, SEEK_SET);
  auto track = kvtrack::Track::track();
  (void)kvtrack::TrackGPX(track).importFrom("/proc/self/fd/" + std::to_string(fd));
  track->updateAll();
  close(fd);
  return 0;
}
