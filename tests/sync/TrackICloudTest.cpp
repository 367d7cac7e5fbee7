// Metadata records, gzip and received track files, checked with the real
// readers other programs use: python's plistlib, plistutil and gzip.
#include "kvtrack/formats/gpx/TrackGPX.h"
#include "kvtrack/sync/TrackICloudMetadata.h"
#include "kvtrack/support/ExternalProgram.h"
#include "kvtrack/support/Gzip.h"
#include "kvtrack/support/Log.h"
#include "tests/library/LibraryTestSupport.h"

#include <gmock/gmock.h>

#include <chrono>

namespace kvtrack::testing {
namespace {

using ::testing::HasSubstr;
using ::testing::StartsWith;
namespace Cloud = TrackICloud;

// "key = value" lines, sorted, as python's plistlib reads the file.
std::string plistlibDump(const std::string& path) {
  const auto result = runShellCommandReadingOutput(
      "python3 -c 'import plistlib, sys\n"
      "for k, v in sorted(plistlib.load(open(sys.argv[1], \"rb\")).items()): print(k, \"=\", v)' " +
      FileHandling::filenameForShell(path));
  EXPECT_EQ(result.status, 0) << path;
  return result.output;
}

class TrackICloudTest : public LibraryTest {
 protected:
  // A track in Trips/2014, as most records describe one.
  TrackPtr filedTrack() {
    auto trips = TrackLibraryFolder::trackLibraryFolder("Trips");
    auto year = TrackLibraryFolder::trackLibraryFolder("2014");
    library->addFolder(trips);
    trips->addFolder(year);
    auto track = walk("Walk \"&<", 3);
    track->setTrackId("T-1");
    track->setICloudId("C-1");
    track->setLength(1234.56789);
    year->addTrack(track);
    return track;
  }

  // A gzip file as the other side sends it: the GPX of an n-point track.
  std::string receivedFile(int points, std::string& gpx) {
    const std::string plain = folder.file("sent.gpx");
    GpxExportConfiguration configuration;
    EXPECT_TRUE(TrackGPX(walk("Sent", points)).exportTo(plain, configuration));
    gpx = ScratchFolder::read(plain);
    return folder.write("received.gpx.gz", gzipDeflate(gpx).value());
  }
};

TEST_F(TrackICloudTest, RecordIsReadByOtherProgramsAndReadsBackIntoATrack) {
  const auto track = filedTrack();
  const std::string xml = folder.file("walk.plist"), binary = folder.file("walk.bplist");
  ASSERT_TRUE(Cloud::writeiCloudMetadataToURL(*track, xml));
  const std::string dump = plistlibDump(xml);
  for (const char* line : {"name = Walk \"&<\n", "path = ['Trips', '2014']\n", "trackId = T-1\n",
                           "iCloudId = C-1\n", "starttime = 2012-05-01T10:00:00+02:00\n",
                           "endtime = 2012-05-01T10:02:00+02:00\n", "photocount = 0\n",
                           "length = 1234.567871\n"}) {  // single precision, six decimals
    EXPECT_THAT(dump, HasSubstr(line));
  }
  // Whole seconds since 2001-01-01 UTC, kept by the track as well.
  const double now = std::chrono::duration<double>(
      std::chrono::system_clock::now().time_since_epoch()).count() - 978307200.0;
  EXPECT_NEAR(track->iCloudTimestamp(), now, 5.0);
  EXPECT_THAT(dump, HasSubstr(fmt::format("timestamp = {}\n", track->iCloudTimestamp())));

  ASSERT_EQ(runShellCommand("plistutil -i " + FileHandling::filenameForShell(xml) + " -o " +
                            FileHandling::filenameForShell(binary)), 0);
  for (const auto& file : {xml, binary}) {
    const auto record = Cloud::readMetadata(file);
    ASSERT_TRUE(record) << file;
    EXPECT_EQ(Cloud::pathFromMetadata(*record), (std::vector<std::string>{"Trips", "2014"}));
    auto copy = Track::track();
    Cloud::copyMetadataToTrack(*record, *copy);
    EXPECT_EQ(copy->name(), "Walk \"&<");
    EXPECT_EQ(copy->trackId(), "T-1");
    EXPECT_EQ(copy->iCloudId(), "C-1");
    EXPECT_EQ(copy->startTime(), track->startTime());  // instant and zone
    EXPECT_EQ(copy->endTime(), track->endTime());
    EXPECT_EQ(copy->length(), 1234.567871f);
    EXPECT_EQ(copy->iCloudTimestamp(), track->iCloudTimestamp());
  }

  const auto root = walk("Root", 2);
  library->addTrack(root);
  ASSERT_TRUE(Cloud::writeiCloudMetadataToURL(*root, xml));
  EXPECT_THAT(plistlibDump(xml), HasSubstr("path = []\n"));
}

TEST(PropertyListTest, MissingKeysReadAsNothingAndBadInputIsRefused) {
  const PropertyRecord record{{"name", std::string("x")}};
  EXPECT_EQ(Cloud::timestampFromMetadata(record), 0.0);
  EXPECT_EQ(Cloud::photoCountFromMetadata(record), 0);
  EXPECT_FALSE(Cloud::startTimeFromMetadata(record));
  EXPECT_FALSE(Cloud::iCloudIdFromMetadata(record));
  EXPECT_TRUE(Cloud::pathFromMetadata(record).empty());

  LogCapture capture;
  EXPECT_FALSE(propertyListFromData("", Cloud::kMetadataKeys));
  EXPECT_FALSE(propertyListFromData("<?xml version=\"1.0\"?><plist><dict><key>name</key>", Cloud::kMetadataKeys));
  EXPECT_FALSE(propertyListFromData("<plist version=\"1.0\"><array/></plist>", Cloud::kMetadataKeys));
  EXPECT_TRUE(capture.contains("PropertyList: not a readable property list"));
  EXPECT_TRUE(capture.contains("PropertyList: the property list holds no dictionary"));

  // NUL characters in keys and texts (which libplist aborts on when asked
  // for them carelessly) must not bring the process down.
  using namespace std::string_literals;
  const auto hostile = propertyListFromData(
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\"><dict>"
      "<key>x\0y</key><string>a</string>"
      "<key>name</key><string>Ri\0dge</string></dict></plist>"s,
      Cloud::kMetadataKeys);
  ASSERT_TRUE(hostile);
  EXPECT_EQ(Cloud::nameFromMetadata(*hostile).substr(0, 2), "Ri");
}

TEST(GzipTest, InflatesWhatOtherProgramsWriteAndRefusesTheRest) {
  ScratchFolder scratch;
  const std::string text(100000, 'x');
  const auto gz = gzipDeflate(text);
  ASSERT_TRUE(gz);
  const std::string ours = scratch.write("ours.gz", *gz);
  const std::string zcat = "zcat " + FileHandling::filenameForShell(ours);
  EXPECT_EQ(runShellCommandReadingOutput(zcat).output, text);
  EXPECT_EQ(gzipInflate(*gz).value(), text);
  EXPECT_EQ(gzipInflate(*gz + *gzipDeflate("y")).value(), text + "y");  // members in a row, as zcat
  const auto made = [&](const std::string& command) {
    return runShellCommandReadingOutput(command).output;
  };
  EXPECT_EQ(gzipInflate(made("printf hello | gzip -c")).value(), "hello");
  EXPECT_EQ(gzipInflate(made("python3 -c 'import sys, zlib; "
                             "sys.stdout.buffer.write(zlib.compress(b\"zlib\"))'")).value(),
            "zlib");

  EXPECT_THAT(gzipInflate("not compressed at all").reason(), HasSubstr("not gzip or zlib compressed"));
  EXPECT_EQ(gzipInflate(gz->substr(0, gz->size() - 8)).reason(), "compressed data are truncated");
  EXPECT_EQ(gzipInflate(*gz + "junk").reason(), "4 bytes of trailing garbage after the compressed data");
  EXPECT_EQ(gzipInflate(*gzipDeflate("")).reason(), "compressed data hold nothing");
  EXPECT_EQ(gzipInflate(*gz, 4096).reason(), "data inflate to more than 4096 bytes; refused");
}

TEST_F(TrackICloudTest, ReceivedFileReplacesATrackAndDropsItsUnsavedPoints) {
  auto track = walk("Walk", 3);
  library->addTrack(track);
  ASSERT_TRUE(library->syncToDisk());
  const std::string libraryFile = folder.file(*track->filename());
  const std::string saved = ScratchFolder::read(libraryFile);
  track->addTrackPoint(TrackPoint::trackPointWithParent(track.get()));  // unsaved
  std::string gpx;
  const std::string received = receivedFile(5, gpx);

  const std::string bad = folder.write("bad.gz", "garbage");
  EXPECT_THAT(Cloud::updateLibraryFileFromiCloudFile(*track, bad).reason(), StartsWith(bad + ": data are not gzip"));
  EXPECT_TRUE(track->isDirty() && track->isLoaded());
  EXPECT_EQ(track->loadedPointCount(), 4u);
  EXPECT_EQ(ScratchFolder::read(libraryFile), saved);

  ASSERT_TRUE(Cloud::updateLibraryFileFromiCloudFile(*track, received));
  EXPECT_FALSE(track->isLoaded() || track->isDirty());
  EXPECT_EQ(ScratchFolder::read(libraryFile), gpx);  // the unsaved point was never written
  EXPECT_EQ(track->trackPoints().size(), 5u);
}

TEST_F(TrackICloudTest, TrackAddedFromAReceivedFileIsReadOnFirstUse) {
  std::string gpx;
  const std::string received = receivedFile(4, gpx);
  const int32_t counter = library->trackCounter();
  EXPECT_THAT(library->addTrackFromiCloudFile("Bad", folder.write("bad.gz", "garbage")).reason(),
              HasSubstr("data are not gzip"));
  EXPECT_EQ(library->trackCounter(), counter);
  EXPECT_TRUE(library->tracks().empty());

  const auto track = library->addTrackFromiCloudFile("Received", received).value();
  ASSERT_TRUE(track);
  EXPECT_EQ(track->filename(), fmt::format("Track{:08}.gpx", counter));
  EXPECT_EQ(library->trackCounter(), counter + 1);
  EXPECT_EQ(track->parent(), library);
  EXPECT_FALSE(track->isLoaded() || track->isDirty());
  EXPECT_EQ(ScratchFolder::read(folder.file(*track->filename())), gpx);
  EXPECT_EQ(track->trackPoints().size(), 4u);
}

}  // namespace
}  // namespace kvtrack::testing
