// Reading GPX: what the writer never produces (older forms, foreign
// elements, points in other places) and hostile or broken files, each of
// which gives a reason and a defined result, keeps what was read before the
// damage, and never reads outside the file. Every attribute the writer
// produces reads back in the round-trip tests.
#include "kvtrack/formats/gpx/TrackGPX.h"
#include "kvtrack/support/FileHandling.h"
#include "kvtrack/support/Log.h"
#include "tests/common/ScratchFolder.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <optional>
#include <thread>
#include <tuple>

namespace kvtrack {
namespace {

using ::testing::HasSubstr;

const std::string kHeader = R"(<?xml version="1.0" encoding="UTF-8"?>
<gpx xmlns="http://www.topografix.com/GPX/1/1" version="1.1" creator="test"
     xmlns:wayfolio="https://wayfolio.invalid/xmlschemas/WayfolioGPX/1/0">)";

struct Read {
  std::shared_ptr<Track> track = Track::track();
  Status status;
  int32_t invalidPositions = 0;
  std::vector<std::string> log;
  bool logged(const std::string& fragment) const {
    return std::any_of(log.begin(), log.end(), [&](const auto& l) { return l.find(fragment) != std::string::npos; });
  }
  const TrackPoint& point(size_t i) const { return *track->trackPoints()->at(i); }
};

class GpxReading : public ::testing::Test {
 protected:
  Read readFile(const std::string& path) {
    LogCapture capture;
    Read r;
    TrackGPX reader(r.track);
    r.status = reader.importFrom(path);
    r.invalidPositions = reader.invalidPositionCount();
    r.log = capture.lines();
    return r;
  }
  /// Reads the text as a whole file, or as the body of a GPX 1.1 document.
  Read read(const std::string& text) { return readFile(folder.write("in.gpx", text)); }
  Read body(const std::string& text) { return read(kHeader + text + "</gpx>\n"); }

  testing::ScratchFolder folder;
};

TEST_F(GpxReading, TrackTimeZoneSegmentsAndComputedFigures) {
  const Read r = body(R"(<trk><name>Alps &amp; more</name>
      <extensions><wayfolio:timezone offset="120"/></extensions>
      <trkseg><trkpt lat="47.1" lon="8.1"><ele>400.5</ele><time>2012-05-01T10:00:00Z</time></trkpt>
        <trkpt lat="47.2" lon="8.2"><ele>410</ele><time>2012-05-01T10:10:00Z</time><name>Hut</name></trkpt></trkseg>
      <trkseg><trkpt lat="3" lon="3"><name>WP12</name></trkpt><trkpt lat="4" lon="4"/></trkseg></trk>)");
  ASSERT_TRUE(r.status) << r.status.reason();
  EXPECT_EQ(r.track->name(), "Alps & more");
  EXPECT_TRUE(r.track->timezoneSetDuringImport());
  ASSERT_EQ(r.track->trackPoints().size(), 4u);
  EXPECT_EQ(r.point(0).time()->description(), "2012-05-01T12:00:00+02:00");
  EXPECT_EQ(r.track->startTime()->description(), "2012-05-01T12:00:00+02:00");
  EXPECT_GT(r.track->length(), 13.0);  // lengths are computed after reading
  const std::vector<bool> ends{false, true, false, true};
  for (size_t i = 0; i < 4; ++i) EXPECT_EQ(r.point(i).isEndOfSegment(), ends[i]) << i;
  // A track point's name is no waypoint's; "WP…" makes it a waypoint, without that name.
  EXPECT_FALSE(r.point(1).isWayPoint() || r.point(1).name() || r.point(2).name());
  EXPECT_TRUE(r.point(2).isWayPoint());

  const Read route = body(R"(<rte><name>Tour</name><rtept lat="1" lon="1"><name>Start</name></rtept>
         <rtept lat="2" lon="2"></rtept><rtept lat="3" lon="3"><name></name></rtept></rte>)");
  ASSERT_EQ(route.track->trackPoints().size(), 3u);
  EXPECT_EQ(route.point(0).name(), "Start");
  EXPECT_TRUE(route.point(0).isWayPoint());
  EXPECT_FALSE(route.point(1).isWayPoint() || route.point(2).isWayPoint());
}

// A position that is missing, not a number or off the earth is never
// folded into another place: the point is skipped and counted.
TEST_F(GpxReading, InvalidPositionsSkipPointsAndBadNumbersBecomeNaN) {
  const Read r = body(R"(<wpt lat="999" lon="8"><name>Off</name></wpt>
    <trk><trkseg>
      <trkpt lat="north" lon="8"><time>2012-05-01T10:00:00Z</time><ele>3</ele><name>x</name>
        <extensions><wayfolio:photo filename="/dropped.jpg"/></extensions></trkpt>
      <trkpt lon="8"><ele>high</ele><time>yesterday</time><speed>fast</speed></trkpt>
      <trkpt lat="91" lon="8"/><trkpt lat="-90.5" lon="8"/><trkpt lat="1" lon="180.001"/>
      <trkpt lat="47abc" lon="8"/><trkpt lat="nan" lon="8"/><trkpt lat="" lon="8"/>
      <trkpt lat="47" lon="8"><ele>high</ele><time>yesterday</time><speed>fast</speed></trkpt>
      <trkpt lat=" -90 " lon="-180"><ele> 12.5 </ele><wayfolio:speed>3.5</wayfolio:speed>
        <wayfolio:length>99</wayfolio:length></trkpt>
    </trkseg></trk>)");
  ASSERT_TRUE(r.status);
  EXPECT_EQ(r.invalidPositions, 9);
  ASSERT_EQ(r.track->trackPoints().size(), 2u);
  EXPECT_EQ(r.point(0).latitude(), 47.0);
  EXPECT_TRUE(std::isnan(r.point(0).elevation()) && std::isnan(r.point(0).speed()));
  EXPECT_FALSE(r.point(0).hasTime());
  EXPECT_TRUE(r.point(0).trackPhotos().empty());
  EXPECT_EQ(std::tuple(r.point(1).latitude(), r.point(1).longitude(), r.point(1).elevation(), r.point(1).speed()),
            std::tuple(-90.0, -180.0, 12.5, 3.5));
  EXPECT_NE(r.point(1).length(), 99.0);  // recomputed, never read
}

TEST_F(GpxReading, WaypointsMergeByPositionThenTimeOrAreDropped) {
  const Read r = body(R"(<wpt lat="47.5" lon="8.5"><name>Summit</name><sym>Flag</sym></wpt>
    <wpt lat="0" lon="9"><time>2012-05-01T10:00:04Z</time><name>ByTime</name></wpt>
    <wpt lat="10" lon="10"><name>Nowhere</name></wpt>
    <trk><trkseg><trkpt lat="47.4" lon="8.4"><time>2012-05-01T10:00:00Z</time></trkpt>
      <trkpt lat="47.5" lon="8.5"><time>2012-05-01T10:00:10Z</time></trkpt></trkseg></trk>)");
  ASSERT_EQ(r.track->trackPoints().size(), 2u);
  EXPECT_TRUE(r.point(1).isWayPoint());
  EXPECT_EQ(std::tuple(r.point(1).name(), r.point(1).symbol()), std::tuple("Summit", "Flag"));
  // Zero latitude: matched by time, taking the waypoint's position.
  EXPECT_TRUE(r.point(0).isWayPoint());
  EXPECT_EQ(r.point(0).name(), "ByTime");
  EXPECT_EQ(r.point(0).longitude(), 9.0);
}

// Each waypoint takes the first point at its position, as the points are
// when its turn comes: a point found by time has moved to its waypoint's
// position, where a later waypoint finds it.
TEST_F(GpxReading, WaypointsTakeTheFirstPointAtTheirPositionAsPointsAreThen) {
  const Read r = body(R"(<wpt lat="47.3" lon="8.3"><name>C</name></wpt>
    <wpt lat="47.3" lon="8.3"><name>D</name></wpt>
    <wpt lat="47.1" lon="8.1"><time>2012-05-01T10:00:00Z</time><name>A</name></wpt>
    <wpt lat="47.1" lon="8.1"><name>B</name></wpt>
    <trk><trkseg><trkpt lat="47.0" lon="8.0"><time>2012-05-01T10:00:00Z</time></trkpt>
      <trkpt lat="47.2" lon="8.2"><time>2012-05-01T10:00:10Z</time></trkpt>
      <trkpt lat="47.3" lon="8.3"><time>2012-05-01T10:00:20Z</time></trkpt>
      <trkpt lat="47.3" lon="8.3"><time>2012-05-01T10:00:30Z</time></trkpt></trkseg></trk>)");
  ASSERT_EQ(r.track->trackPoints().size(), 4u);
  EXPECT_EQ(r.point(2).name(), "D");
  EXPECT_FALSE(r.point(3).isWayPoint() || r.point(1).isWayPoint());
  EXPECT_EQ(std::tuple(r.point(0).latitude(), r.point(0).longitude(), r.point(0).name()),
            std::tuple(47.1, 8.1, std::optional<std::string>("B")));
}

TEST_F(GpxReading, OlderFormsOfPhotosTrackAttributesAndForeignElements) {
  FileHandling::singleton().setUserApplicationSupport(folder.path().string());
  const Read r = body(R"(<metadata><name>Not the track</name><desc>meta</desc><time>2000-01-01T00:00:00Z</time></metadata>
    <trk showArea="yes" areaDistance="12" red="0" green="1" blue="0" alpha="0.5"><name>Run</name>
      <extensions><color red="0.25" green="0.25" blue="0.25" alpha="1"/>
        <gpxx:TrackExtension xmlns:gpxx="urn:x"><gpxx:DisplayColor>Red</gpxx:DisplayColor></gpxx:TrackExtension></extensions>
      <trkseg><trkpt lat="1" lon="1"><time>2012-05-01T10:00:00Z</time><speed>7</speed><extensions>
        <gpxtpx:TrackPointExtension xmlns:gpxtpx="urn:y"><gpxtpx:hr>142</gpxtpx:hr>
          <gpxtpx:name>inner</gpxtpx:name></gpxtpx:TrackPointExtension>
        <wayfolio:photo filename="/photos/a b.jpg" city="Zürich"/>
        <photo iphonefilename="p/2.jpg"/>
        <wayfolio:photo iphonefilename="Roamly/3.jpg"/>
      </extensions></trkpt></trkseg></trk>)");
  ASSERT_TRUE(r.status) << r.status.reason();
  EXPECT_EQ(r.track->name(), "Run");
  EXPECT_FALSE(r.track->description());
  EXPECT_FALSE(r.track->timezoneSetDuringImport());
  EXPECT_TRUE(r.track->showArea());
  EXPECT_EQ(r.track->areaDistanceInMeter(), 12.0f);
  EXPECT_EQ(r.track->color(), (Color{0.25, 0.25, 0.25, 1}));  // the extension comes later
  EXPECT_EQ(r.point(0).speed(), 7.0);
  EXPECT_EQ(r.point(0).time()->description(), "2012-05-01T10:00:00Z");
  EXPECT_FALSE(r.point(0).name());
  const auto& photos = r.point(0).trackPhotos();
  ASSERT_EQ(photos.size(), 3u);
  EXPECT_EQ(photos[0]->originalFilepath(), "/photos/a b.jpg");
  EXPECT_EQ(photos[0]->city(), "Zürich");
  EXPECT_EQ(photos[0]->trackPoint(), &r.point(0));
  EXPECT_EQ(photos[1]->originalFilepath(), folder.file("p/2.jpg"));
  EXPECT_EQ(photos[2]->originalFilepath(), folder.file("Library/Application Support/Roamly/3.jpg"));
}

TEST_F(GpxReading, ExternalTrackPointFileAndIndexedPoints) {
  // 2012-05-01T10:00:00Z is 357559200 s after 2001-01-01.
  folder.write("points.txt",
               "47.100000,8.100000,400.000000,0,0,357559200\n47.200000,8.200000,401.000000,1,1,357559210\n"
               "47.3,8.3\ngarbage\n47.4,8.4,0,0,0,0\n");
  const Read r = body(R"(<trk><extensions><wayfolio:externaltrackpoints filename="points.txt"/></extensions>
      <trkseg><trkpt index="1"><extensions><wayfolio:photo filename="/p.jpg"/></extensions></trkpt>
              <trkpt index="3"><extensions><wayfolio:photo filename="/q.jpg"/></extensions></trkpt>
              <trkpt index="-1"/></trkseg></trk>)");
  ASSERT_EQ(r.track->trackPoints().size(), 3u);  // reading stops at the first line without any number
  EXPECT_EQ(r.point(0).latitude(), static_cast<double>(47.1f));  // single precision, deliberately
  EXPECT_EQ(r.point(0).time()->description(), "2012-05-01T10:00:00Z");
  EXPECT_TRUE(r.point(1).isWayPoint() && r.point(1).isEndOfSegment() && r.point(1).hasPhotos());
  EXPECT_FALSE(r.point(2).hasPhotos());  // index 3 on three points is ignored
  EXPECT_EQ(r.point(2).elevation(), 0.0);
}

TEST_F(GpxReading, TruncatedFilesKeepWhatWasReadAndSayWhere) {
  const Read r = read(kHeader + R"(<trk><name>Cut</name><trkseg>
    <trkpt lat="1" lon="1"><time>2012-05-01T10:00:00Z</time></trkpt>
    <trkpt lat="2" lon="2"><time>2012-05-01T10:00:10Z</time></trkpt>
    <trkpt lat="3" lon="3"><ti)");
  EXPECT_THAT(r.status.reason(), HasSubstr("line 6, column "));
  EXPECT_TRUE(r.logged("TrackGPXElement: Error ")) << ::testing::PrintToString(r.log);
  EXPECT_EQ(r.track->name(), "Cut");
  EXPECT_EQ(r.track->trackPoints().size(), 3u);

  EXPECT_TRUE(read(kHeader + R"(<wpt lat="1" lon="2"><name>A</na)").logged("WayPointGPXElement: Error "));
  const Read atRoot = read(kHeader + R"(<trk><trkseg><trkpt lat="1" lon="1"/></trkseg></trk>)");
  EXPECT_FALSE(atRoot.status);
  EXPECT_TRUE(atRoot.logged("TrackGPX: Error 77, Description: "));
  ASSERT_EQ(atRoot.track->trackPoints().size(), 1u);
  EXPECT_TRUE(atRoot.point(0).isEndOfSegment());

  // Content after the end of the document fails without a log line.
  const Read after = body("<trk><trkseg><trkpt lat='1' lon='1'/></trkseg></trk></gpx><gpx/>");
  EXPECT_FALSE(after.status);
  EXPECT_FALSE(after.logged("Error 5,"));
  EXPECT_EQ(after.track->trackPoints().size(), 1u);
}

TEST_F(GpxReading, EncodingsAreHonouredAndWrongOnesReported) {
  const Read latin1 = read("<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?><gpx><trk><name>Z\xfcrich</name></trk></gpx>");
  EXPECT_TRUE(latin1.status);
  EXPECT_EQ(latin1.track->name(), "Z\xc3\xbcrich");
  const Read mislabelled = read("<?xml version=\"1.0\" encoding=\"UTF-8\"?><gpx><trk><name>Z\xfcrich</name></trk></gpx>");
  EXPECT_THAT(mislabelled.status.reason(), HasSubstr("Input is not proper UTF-8"));
  EXPECT_TRUE(mislabelled.logged("Error 9, Description: Input is not proper UTF-8"));

  std::string utf16 = "\xff\xfe";  // with a byte-order mark
  for (char c : std::string("<?xml version=\"1.0\" encoding=\"UTF-16\"?><gpx><trk><name>Bern</name></trk></gpx>")) {
    utf16 += std::string{c, '\0'};
  }
  const Read wide = read(utf16);
  EXPECT_TRUE(wide.status);
  EXPECT_EQ(wide.track->name(), "Bern");
}

TEST_F(GpxReading, ElementsInTheWrongPlaceAreIgnored) {
  const Read r = body(R"(<trkpt lat="5" lon="5"/><name>root name</name>
    <trk><wpt lat="6" lon="6"><name>inner</name></wpt><trkseg><trk><trkpt lat="1" lon="1"/></trk></trkseg></trk>)");
  EXPECT_TRUE(r.status);
  // Handlers match names, not depths: the stray waypoint's name is the
  // track's name now, and nothing else goes wrong.
  EXPECT_EQ(r.track->name(), "inner");
  ASSERT_EQ(r.track->trackPoints().size(), 1u);
  EXPECT_EQ(r.point(0).latitude(), 1.0);
}

TEST_F(GpxReading, EntitiesNeitherExplodeNorReadOtherFiles) {
  std::string bomb = "<?xml version=\"1.0\"?>\n<!DOCTYPE gpx [\n<!ENTITY lol0 \"lollollollollollollollollollol\">\n";
  for (int i = 1; i <= 9; ++i) {
    bomb += "<!ENTITY lol" + std::to_string(i) + " \"";
    for (int k = 0; k < 10; ++k) bomb += "&lol" + std::to_string(i - 1) + ";";
    bomb += "\">\n";
  }
  const Read exploded = read(bomb + "]>\n<gpx><trk><name>&lol9;</name><trkseg><trkpt lat='1' lon='1'/></trkseg></trk></gpx>\n");
  EXPECT_FALSE(exploded.status);
  EXPECT_LT(exploded.track->name().size(), 100000u);

  const std::string secret = folder.write("secret.txt", "TOP-SECRET");
  for (const std::string& source : {"file://" + secret, std::string("http://127.0.0.1:9/x")}) {
    const Read r = read("<?xml version=\"1.0\"?><!DOCTYPE gpx [<!ENTITY s SYSTEM \"" + source +
                        "\">]><gpx><trk><name>[&s;]</name></trk></gpx>");
    EXPECT_THAT(r.track->name(), ::testing::Not(::testing::AnyOf(HasSubstr("TOP-SECRET"), HasSubstr("x")))) << source;
  }
  const Read dtd = read("<?xml version=\"1.0\"?><!DOCTYPE gpx SYSTEM \"file://" + secret +
                        "\"><gpx><trk><name>ok</name></trk></gpx>");
  EXPECT_TRUE(dtd.status);
  EXPECT_EQ(dtd.track->name(), "ok");
}

TEST_F(GpxReading, HugeAttributeIsRefusedWithoutReadingItAll) {
  // A 1 GB attribute streamed through a pipe: the reader must give up at
  // libxml2's size limit instead of collecting the gigabyte.
  const std::string fifo = folder.file("huge.gpx");
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  signal(SIGPIPE, SIG_IGN);
  size_t written = 0;
  std::thread writer([&] {
    const int fd = ::open(fifo.c_str(), O_WRONLY);
    if (fd < 0) return;
    const std::string head = kHeader + "<trk><name>kept</name><trkseg><trkpt lat=\"";
    written += static_cast<size_t>(::write(fd, head.data(), head.size()));
    const std::string block(1 << 16, '7');
    while (written < (size_t{1} << 30)) {
      const ssize_t n = ::write(fd, block.data(), block.size());
      if (n <= 0) break;  // the reader gave up
      written += static_cast<size_t>(n);
    }
    ::close(fd);
  });
  const Read r = readFile(fifo);
  writer.join();
  EXPECT_FALSE(r.status);
  EXPECT_EQ(r.track->name(), "kept");
  EXPECT_LT(written, size_t{200} << 20);
}

TEST_F(GpxReading, MissingAndBinaryFilesFail) {
  const Read missing = readFile(folder.file("absent.gpx"));
  EXPECT_FALSE(missing.status.reason().empty());
  EXPECT_TRUE(missing.logged("TrackGPX: Error"));
  std::string binary;
  for (int i = 0; i < 4096; ++i) binary += static_cast<char>((i * 7919) & 0xff);
  const Read garbage = read(binary);
  EXPECT_FALSE(garbage.status);
  EXPECT_TRUE(garbage.track->trackPoints().empty());
}

TEST_F(GpxReading, ControlCharactersInNamesAreDroppedOnWrite) {
  // XML has no way to carry them: the file must still read back.
  auto track = Track::trackWithName("Ridge\x01\x1f walk\ttab");
  auto point = TrackPoint::trackPointWithParent(track.get());
  point->setLatitude(47);  // where the waypoint finds its track point again
  point->setLongitude(8);
  point->setName("Hut\x0b");
  point->setIsWayPoint(true);
  track->addTrackPoint(point);
  GpxExportConfiguration configuration;
  ASSERT_TRUE(TrackGPX(track).exportTo(folder.file("in.gpx"), configuration));
  const Read r = readFile(folder.file("in.gpx"));
  ASSERT_TRUE(r.status);
  EXPECT_EQ(r.track->name(), "Ridge walk\ttab");
  EXPECT_EQ(r.point(0).name(), "Hut");
}

}  // namespace
}  // namespace kvtrack
