// Point times read from a file are exactly what ISODate reads from the same
// texts, however the dates, zones and forms change from point to point.
#include "kvtrack/formats/gpx/TrackGPX.h"
#include "tests/common/ScratchFolder.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace kvtrack {
namespace {

using testing::ScratchFolder;

TEST(GpxReadTimes, EveryPointTimeIsWhatISODateReadsFromItsText) {
  const std::vector<std::string> times = {
      "2012-05-01T10:00:00Z", "2012-05-01T10:00:01Z", "2012-05-01T23:59:59Z",
      "2012-05-01T23:59:60Z",  // leap second: rolls over
      "2012-05-02T00:00:00Z", "2012-05-01T10:00:02Z", "2012-05-01T10:00:02+02:00",
      "2012-05-01T10:00:03+02:00", "2012-05-01T10:00:03-09:30", "2012-05-01T10:00:04.25Z",
      "2012-05-01T10:00:05.000001Z", "2012-05-01T24:00:00Z", "2012-05-01T10:60:00Z",
      "2012-02-30T10:00:00Z", "2012-05-01t10:00:06Z", "2012-05-01T10:00:07", " 2012-05-01T10:00:08Z ",
      "2012-05-01T10:00:09+00:00", "2012-05-01T10:00:10+99:99", "2012-05-01T10:00:11Z",
      "1969-12-31T23:59:59Z", "1969-12-31T00:00:01-12:00", "0001-01-01T00:00:00Z",
      "2012-05-01T10:0x:12Z", "2012-05-01T10:00:13ZZ", "2016-02-29T12:00:00+05:45",
      "2016-02-29T12:00:01+05:45"};
  std::string gpx = "<?xml version=\"1.0\"?>\n<gpx><trk><trkseg>\n";
  for (const std::string& time : times) {
    gpx += "<trkpt lat=\"47\" lon=\"8\"><time>" + time + "</time></trkpt>\n";
  }
  gpx += "</trkseg></trk></gpx>\n";
  ScratchFolder folder;
  auto track = Track::track();
  ASSERT_TRUE(TrackGPX(track).importFrom(folder.write("times.gpx", gpx)));
  const auto points = track->trackPoints();
  ASSERT_EQ(points.size(), times.size());
  for (size_t i = 0; i < times.size(); ++i) {
    SCOPED_TRACE(times[i]);
    const auto expected = ISODate::isoDateWithString(times[i]);
    ASSERT_EQ(points[i]->hasTime(), expected.has_value());
    if (!expected) continue;
    EXPECT_EQ(points[i]->time()->microsecondsSince1970(), expected->microsecondsSince1970());
  }
}

}  // namespace
}  // namespace kvtrack
