// Writes a short track as GPX, reads it back and prints what it holds:
// "<points> points, <length> km".
#include "kvtrack/formats/gpx/TrackGPX.h"
#include "kvtrack/model/Track.h"
#include "kvtrack/support/ISODate.h"

#include <cstdio>
#include <string>

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: consumer FILE.gpx\n");
    return 2;
  }
  auto track = kvtrack::Track::trackWithName("Consumer walk");
  track->setIsLoaded(true);
  const auto start = kvtrack::ISODate::isoDateWithString("2024-05-01T10:00:00Z");
  for (int i = 0; i < 11; ++i) {
    auto point = kvtrack::TrackPoint::trackPointWithParent(track.get());
    point->setLatitude(47.0 + i * 0.001);
    point->setLongitude(8.0);
    point->setTime(start->dateByAddingYears(0, 0, 0, 0, i, 0));
    track->addTrackPoint(point);
  }
  auto configuration = kvtrack::GpxExportConfiguration::gpxExportConfiguration();
  if (const kvtrack::Status written = kvtrack::TrackGPX(track).exportTo(argv[1], *configuration); !written) {
    std::fprintf(stderr, "cannot write %s: %s\n", argv[1], written.reason().c_str());
    return 1;
  }
  auto copy = kvtrack::Track::track();
  if (const kvtrack::Status read = kvtrack::TrackGPX(copy).importFrom(argv[1]); !read) {
    std::fprintf(stderr, "cannot read %s: %s\n", argv[1], read.reason().c_str());
    return 1;
  }
  copy->updateAll();
  std::printf("%zu points, %.3f km\n", copy->trackPoints().size(), copy->length());
  return 0;
}
