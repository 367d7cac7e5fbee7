// Files written by gpsbabel in GPX 1.0 and 1.1. Routes and waypoint-only
// files are read in GpxReaderTest and GeocacheGpxTest (the pocket query).
#include "kvtrack/formats/gpx/TrackGPX.h"
#include "kvtrack/support/ExternalProgram.h"
#include "kvtrack/support/FileHandling.h"
#include "tests/common/ScratchFolder.h"

#include <gtest/gtest.h>

namespace kvtrack {
namespace {

using testing::ScratchFolder;

// Lets gpsbabel rewrite a GPX file in the given output variant.
std::string throughGpsbabel(const ScratchFolder& folder, const std::string& input, const std::string& output,
                            const std::string& options) {
  const std::string target = folder.file(output);
  const int status = runShellCommand("gpsbabel -t -r -w -i gpx -f " + FileHandling::filenameForShell(input) +
                                     " -o gpx" + options + " -F " + FileHandling::filenameForShell(target));
  EXPECT_EQ(status, 0);
  return target;
}

const char* kSource = R"(<?xml version="1.0" encoding="UTF-8"?>
<gpx version="1.1" creator="hand" xmlns="http://www.topografix.com/GPX/1/1">
  <metadata><name>Sample</name><time>2012-05-01T09:00:00Z</time></metadata>
  <wpt lat="47.3769" lon="8.5417"><ele>408</ele><time>2012-05-01T10:00:05Z</time><name>Bridge</name><desc>Old bridge</desc><sym>Flag</sym></wpt>
  <trk><name>Morning run</name><trkseg>
    <trkpt lat="47.3769" lon="8.5417"><ele>408</ele><time>2012-05-01T10:00:05Z</time></trkpt>
    <trkpt lat="47.3775" lon="8.5425"><ele>410.5</ele><time>2012-05-01T10:00:35Z</time></trkpt>
  </trkseg><trkseg>
    <trkpt lat="47.3781" lon="8.5433"><ele>412</ele><time>2012-05-01T10:01:05.5Z</time></trkpt>
  </trkseg></trk>
</gpx>
)";

class GpsbabelFiles : public ::testing::TestWithParam<const char*> {};

TEST_P(GpsbabelFiles, TrackWaypointsAndSegmentsReadBack) {
  ScratchFolder folder;
  const std::string converted =
      throughGpsbabel(folder, folder.write("source.gpx", kSource), "out.gpx", GetParam());
  const std::string text = ScratchFolder::read(converted);
  ASSERT_NE(text.find("<trkpt"), std::string::npos) << text;

  auto track = Track::track();
  ASSERT_TRUE(TrackGPX(track).importFrom(converted));
  EXPECT_EQ(track->name(), "Morning run");
  const auto p = track->trackPoints();
  ASSERT_EQ(p.size(), 3u);
  EXPECT_EQ(p[0]->latitude(), 47.3769);
  EXPECT_EQ(p[1]->longitude(), 8.5425);
  EXPECT_EQ(p[1]->elevation(), 410.5);
  EXPECT_TRUE(p[1]->isEndOfSegment());
  EXPECT_TRUE(p[2]->isEndOfSegment());
  EXPECT_TRUE(p[2]->time()->isEqualToDate(*ISODate::isoDateWithString("2012-05-01T10:01:05.5Z")));
  // The waypoint lands on the track point at its position.
  EXPECT_TRUE(p[0]->isWayPoint());
  EXPECT_EQ(p[0]->name(), "Bridge");
  EXPECT_EQ(p[0]->description(), "Old bridge");
  EXPECT_EQ(p[0]->symbol(), "Flag");
  track->updateAll();
  EXPECT_NEAR(track->length(), 0.18, 0.02);
}

INSTANTIATE_TEST_SUITE_P(Versions, GpsbabelFiles, ::testing::Values(",gpxver=1.0", ",gpxver=1.1"));

}  // namespace
}  // namespace kvtrack
