// Hostile and broken GPX files: each gives a log line and a defined result,
// keeps what was read before the damage, and never reads outside the file.
#include "kvtrack/formats/gpx/TrackGPX.h"
#include "kvtrack/support/Log.h"
#include "tests/common/ScratchFolder.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <thread>

namespace kvtrack {
namespace {

using testing::ScratchFolder;

const std::string kHeader = R"(<?xml version="1.0" encoding="UTF-8"?>
<gpx xmlns="http://www.topografix.com/GPX/1/1" version="1.1" creator="test">)";

struct Result {
  std::shared_ptr<Track> track = Track::track();
  bool ok = false;
  std::vector<std::string> log;
};

Result readFile(const std::string& path) {
  LogCapture capture;
  Result r;
  r.ok = TrackGPX(r.track).importFrom(path).ok();
  r.log = capture.lines();
  return r;
}

Result readText(const ScratchFolder& folder, const std::string& text) {
  return readFile(folder.write("bad.gpx", text));
}

bool logged(const Result& r, const std::string& fragment) {
  for (const auto& l : r.log) {
    if (l.find(fragment) != std::string::npos) return true;
  }
  return false;
}

TEST(GpxBadInput, TruncatedFilesKeepWhatWasRead) {
  ScratchFolder folder;
  auto r = readText(folder, kHeader + R"(<trk><name>Cut</name><trkseg>
    <trkpt lat="1" lon="1"><time>2012-05-01T10:00:00Z</time></trkpt>
    <trkpt lat="2" lon="2"><time>2012-05-01T10:00:10Z</time></trkpt>
    <trkpt lat="3" lon="3"><ti)");
  EXPECT_FALSE(r.ok);
  EXPECT_TRUE(logged(r, "TrackGPXElement: Error ")) << ::testing::PrintToString(r.log);
  EXPECT_TRUE(logged(r, "Line: 5"));
  EXPECT_EQ(r.track->name(), "Cut");
  EXPECT_EQ(r.track->trackPoints().size(), 3u);

  auto inWaypoint = readText(folder, kHeader + R"(<wpt lat="1" lon="2"><name>A</na)");
  EXPECT_TRUE(logged(inWaypoint, "WayPointGPXElement: Error "));
  auto atRoot = readText(folder, kHeader + R"(<trk><trkseg><trkpt lat="1" lon="1"/></trkseg></trk>)");
  EXPECT_TRUE(logged(atRoot, "TrackGPX: Error 77, Description: "));
  EXPECT_EQ(atRoot.track->trackPoints().size(), 1u);
  EXPECT_TRUE(atRoot.track->trackPoints()[0]->isEndOfSegment());
}

TEST(GpxBadInput, ContentAfterTheDocumentIsSilent) {
  ScratchFolder folder;
  auto r = readText(folder, kHeader + "<trk><trkseg><trkpt lat='1' lon='1'/></trkseg></trk></gpx><gpx/>");
  EXPECT_FALSE(r.ok);
  EXPECT_FALSE(logged(r, "Error 5,"));
  EXPECT_EQ(r.track->trackPoints().size(), 1u);
}

TEST(GpxBadInput, EncodingsAreHonouredAndWrongOnesReported) {
  ScratchFolder folder;
  auto latin1 = readText(folder, "<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?><gpx><trk><name>Z\xfcrich</name></trk></gpx>");
  EXPECT_TRUE(latin1.ok);
  EXPECT_EQ(latin1.track->name(), "Z\xc3\xbcrich");

  auto mislabelled = readText(folder, "<?xml version=\"1.0\" encoding=\"UTF-8\"?><gpx><trk><name>Z\xfcrich</name></trk></gpx>");
  EXPECT_FALSE(mislabelled.ok);
  EXPECT_TRUE(logged(mislabelled, "Error 9, Description: Input is not proper UTF-8"))
      << ::testing::PrintToString(mislabelled.log);

  // UTF-16 with a byte-order mark.
  const std::string ascii = "<?xml version=\"1.0\" encoding=\"UTF-16\"?><gpx><trk><name>Bern</name></trk></gpx>";
  std::string utf16 = "\xff\xfe";
  for (char c : ascii) {
    utf16 += c;
    utf16 += '\0';
  }
  auto wide = readText(folder, utf16);
  EXPECT_TRUE(wide.ok);
  EXPECT_EQ(wide.track->name(), "Bern");
}

TEST(GpxBadInput, ElementsInTheWrongPlaceAreIgnored) {
  ScratchFolder folder;
  auto r = readText(folder, kHeader + R"(<trkpt lat="5" lon="5"/><name>root name</name>
    <trk><wpt lat="6" lon="6"><name>inner</name></wpt><trkseg><trk><trkpt lat="1" lon="1"/></trk></trkseg></trk></gpx>)");
  EXPECT_TRUE(r.ok);
  // Handlers match names, not depths: the stray waypoint's name is the
  // track's name now, and nothing else goes wrong.
  EXPECT_EQ(r.track->name(), "inner");
  ASSERT_EQ(r.track->trackPoints().size(), 1u);
  EXPECT_EQ(r.track->trackPoints()[0]->latitude(), 1.0);
}

TEST(GpxBadInput, EntityExpansionBombStopsQuickly) {
  ScratchFolder folder;
  std::string dtd = "<?xml version=\"1.0\"?>\n<!DOCTYPE gpx [\n<!ENTITY lol0 \"lollollollollollollollollollol\">\n";
  for (int i = 1; i <= 9; ++i) {
    dtd += "<!ENTITY lol" + std::to_string(i) + " \"";
    for (int k = 0; k < 10; ++k) dtd += "&lol" + std::to_string(i - 1) + ";";
    dtd += "\">\n";
  }
  dtd += "]>\n<gpx><trk><name>&lol9;</name><trkseg><trkpt lat='1' lon='1'/></trkseg></trk></gpx>\n";
  auto r = readText(folder, dtd);
  EXPECT_FALSE(r.ok);
  EXPECT_TRUE(logged(r, "Error ")) << ::testing::PrintToString(r.log);
  EXPECT_LT(r.track->name().size(), 100000u);
}

TEST(GpxBadInput, ExternalEntitiesAreNeverLoaded) {
  ScratchFolder folder;
  const std::string secret = folder.write("secret.txt", "TOP-SECRET");
  auto local = readText(folder, "<?xml version=\"1.0\"?><!DOCTYPE gpx [<!ENTITY s SYSTEM \"file://" +
                                    secret + "\">]><gpx><trk><name>[&s;]</name></trk></gpx>");
  EXPECT_EQ(local.track->name().find("TOP-SECRET"), std::string::npos);
  EXPECT_TRUE(logged(local, "not loading external entity"));

  auto remote = readText(folder, "<?xml version=\"1.0\"?><!DOCTYPE gpx [<!ENTITY s SYSTEM "
                                 "\"http://127.0.0.1:9/x\">]><gpx><trk><name>[&s;]</name></trk></gpx>");
  EXPECT_EQ(remote.track->name().find("x"), std::string::npos);

  auto dtd = readText(folder, "<?xml version=\"1.0\"?><!DOCTYPE gpx SYSTEM \"file://" + secret +
                                  "\"><gpx><trk><name>ok</name></trk></gpx>");
  EXPECT_TRUE(dtd.ok);
  EXPECT_EQ(dtd.track->name(), "ok");
}

TEST(GpxBadInput, HugeAttributeIsRefusedWithoutReadingItAll) {
  // A 1 GB attribute streamed through a pipe: the reader must give up at
  // libxml2's size limit instead of collecting the gigabyte.
  ScratchFolder folder;
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
  auto r = readFile(fifo);
  writer.join();
  EXPECT_FALSE(r.ok);
  EXPECT_TRUE(logged(r, "Error ")) << ::testing::PrintToString(r.log);
  EXPECT_EQ(r.track->name(), "kept");
  EXPECT_LT(written, size_t{200} << 20);
}

TEST(GpxBadInput, MissingAndBinaryFiles) {
  ScratchFolder folder;
  auto missing = readFile(folder.file("absent.gpx"));
  EXPECT_FALSE(missing.ok);
  EXPECT_TRUE(logged(missing, "TrackGPX: Error"));
  std::string binary;
  for (int i = 0; i < 4096; ++i) binary += static_cast<char>((i * 7919) & 0xff);
  auto garbage = readText(folder, binary);
  EXPECT_FALSE(garbage.ok);
  EXPECT_TRUE(garbage.track->trackPoints().empty());
}

TEST(GpxBadInput, ControlCharactersInNamesAreDroppedOnWrite) {
  // XML has no way to carry them: the file must still read back.
  ScratchFolder folder;
  auto track = Track::trackWithName("Ridge\x01\x1f walk\ttab");
  auto point = TrackPoint::trackPointWithParent(track.get());
  point->setName("Hut\x0b");
  point->setIsWayPoint(true);
  track->addTrackPoint(point);
  const std::string path = folder.file("control.gpx");
  GpxExportConfiguration configuration;
  ASSERT_TRUE(TrackGPX(track).exportTo(path, configuration));
  auto read = readFile(path);
  ASSERT_TRUE(read.ok);
  EXPECT_EQ(read.track->name(), "Ridge walk\ttab");
  EXPECT_NE(ScratchFolder::read(path).find("<name>Hut</name>"), std::string::npos);
}

}  // namespace
}  // namespace kvtrack
