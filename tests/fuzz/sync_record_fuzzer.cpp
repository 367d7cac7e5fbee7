// libFuzzer target: arbitrary bytes as what a sync folder hands over from
// other machines, a track's property-list record and its gzip file.

#include "kvtrack/sync/TrackICloudMetadata.h"
#include "kvtrack/support/Gzip.h"
#include "kvtrack/support/Log.h"

#include <cstdint>
#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const bool quiet = [] {
    kvtrack::setLogToStandardError(false);
    return true;
  }();
  (void)quiet;
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  if (const auto record = kvtrack::propertyListFromData(bytes, kvtrack::TrackICloud::kMetadataKeys)) {
    auto track = kvtrack::Track::trackWithName("fuzz");
    kvtrack::TrackICloud::copyMetadataToTrack(*record, *track);
    (void)kvtrack::TrackICloud::pathFromMetadata(*record);
    (void)track->durationString();
  }
  // A small limit keeps hostile inflation within the fuzzer's memory.
  (void)kvtrack::gzipInflate(bytes, size_t{1} << 24);
  return 0;
}
