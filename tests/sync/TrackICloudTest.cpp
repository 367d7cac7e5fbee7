// Metadata records, gzip and received track files, checked with the real
// readers other programs use: python's plistlib, plistutil and gzip; the
// mirror in a sync folder: photos copied and never moved, and a folder that
// went away left alone.
#include "kvtrack/formats/gpx/TrackGPX.h"
#include "kvtrack/photos/TrackPhotoFiles.h"
#include "kvtrack/support/ExternalProgram.h"
#include "kvtrack/support/Gzip.h"
#include "kvtrack/support/KvPreferences.h"
#include "kvtrack/support/Log.h"
#include "kvtrack/sync/FolderSynchronizer.h"
#include "kvtrack/sync/TrackICloudMetadata.h"
#include "tests/library/LibraryTestSupport.h"

#include <gmock/gmock.h>

#include <chrono>
#include <filesystem>
#include <thread>

namespace kvtrack::testing {
namespace {

namespace fs = std::filesystem;
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
  for (const char* line :
       {"name = Walk \"&<\n", "path = ['Trips', '2014']\n", "trackId = T-1\n", "iCloudId = C-1\n",
        "starttime = 2012-05-01T10:00:00+02:00\n", "endtime = 2012-05-01T10:02:00+02:00\n",
        "photocount = 0\n", "length = 1234.567871\n"}) {  // single precision, six decimals
    EXPECT_THAT(dump, HasSubstr(line));
  }
  // Whole seconds since 2001-01-01 UTC, kept by the track as well.
  const double now =
      std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count() -
      978307200.0;
  EXPECT_NEAR(track->iCloudTimestamp(), now, 5.0);
  EXPECT_THAT(dump, HasSubstr(fmt::format("timestamp = {}\n", track->iCloudTimestamp())));

  ASSERT_EQ(runShellCommand("plistutil -i " + FileHandling::filenameForShell(xml) + " -o " +
                            FileHandling::filenameForShell(binary)),
            0);
  for (const auto& file : {xml, binary}) {
    const auto record = Cloud::readMetadata(file);
    ASSERT_TRUE(record) << file;
    EXPECT_EQ(Cloud::pathFromMetadata(*record), (std::vector<std::string>{"Trips", "2014"}));
    auto copy = Track::track();
    Cloud::copyMetadataToTrack(*record, *copy);
    EXPECT_EQ(std::tuple(copy->name(), copy->trackId(), copy->iCloudId(), copy->length()),
              std::tuple("Walk \"&<", "T-1", "C-1", 1234.567871f));
    // Times with instant and zone.
    EXPECT_EQ(std::tuple(copy->startTime(), copy->endTime(), copy->iCloudTimestamp()),
              std::tuple(track->startTime(), track->endTime(), track->iCloudTimestamp()));
  }

  const auto root = walk("Root", 2);
  library->addTrack(root);
  ASSERT_TRUE(Cloud::writeiCloudMetadataToURL(*root, xml));
  EXPECT_THAT(plistlibDump(xml), HasSubstr("path = []\n"));
}

TEST(PropertyListTest, MissingKeysReadAsNothingAndBadInputIsRefused) {
  const PropertyRecord record{{"name", std::string("x")}};
  EXPECT_EQ(std::tuple(Cloud::timestampFromMetadata(record), Cloud::photoCountFromMetadata(record),
                       Cloud::startTimeFromMetadata(record), Cloud::iCloudIdFromMetadata(record),
                       Cloud::pathFromMetadata(record).size()),
            std::tuple(0.0, 0, std::nullopt, std::nullopt, size_t{0}));

  for (const char* bad : {"", "<?xml version=\"1.0\"?><plist><dict><key>name</key>",
                          "<plist version=\"1.0\"><array/></plist>"}) {
    EXPECT_FALSE(propertyListFromData(bad, Cloud::kMetadataKeys)) << bad;
  }

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
  const std::string text(100000, 'x');
  const auto gz = gzipDeflate(text);  // read by zcat where the sync folder is checked
  ASSERT_TRUE(gz);
  EXPECT_EQ(gzipInflate(*gz).value(), text);
  EXPECT_EQ(gzipInflate(*gz + *gzipDeflate("y")).value(), text + "y");  // members in a row, as zcat
  const auto made = [&](const std::string& command) { return runShellCommandReadingOutput(command).output; };
  EXPECT_EQ(gzipInflate(made("printf hello | gzip -c")).value(), "hello");
  EXPECT_EQ(
      gzipInflate(made("python3 -c 'import sys, zlib; sys.stdout.buffer.write(zlib.compress(b\"zlib\"))'"))
          .value(),
      "zlib");

  EXPECT_THAT(gzipInflate("not compressed at all").reason(), HasSubstr("not gzip or zlib compressed"));
  EXPECT_EQ(gzipInflate(gz->substr(0, gz->size() - 8)).reason(), "compressed data are truncated");
  EXPECT_EQ(gzipInflate(*gz + "junk").reason(), "4 bytes of trailing garbage after the compressed data");
  EXPECT_EQ(gzipInflate(*gzipDeflate("")).reason(), "compressed data hold nothing");
  EXPECT_EQ(gzipInflate(*gz, 4096).reason(), "data inflate to more than 4096 bytes; refused");
}

// A received file replaces a track, dropping its unsaved points, or is added
// as a new track; either is read on first use, and a damaged one changes nothing.
TEST_F(TrackICloudTest, ReceivedFilesReplaceOrAddTracksReadOnFirstUse) {
  auto track = walk("Walk", 3);
  library->addTrack(track);
  ASSERT_TRUE(library->syncToDisk());
  const std::string libraryFile = folder.file(*track->filename());
  const std::string saved = ScratchFolder::read(libraryFile);
  track->addTrackPoint(TrackPoint::trackPointWithParent(track.get()));  // unsaved
  std::string gpx;
  const std::string received = receivedFile(5, gpx), bad = folder.write("bad.gz", "garbage");
  const int32_t counter = library->trackCounter();

  EXPECT_THAT(Cloud::updateLibraryFileFromiCloudFile(*track, bad).reason(),
              StartsWith(bad + ": data are not gzip"));
  EXPECT_THAT(library->addTrackFromiCloudFile("Bad", bad).reason(), HasSubstr("data are not gzip"));
  EXPECT_TRUE(track->isDirty() && track->isLoaded());
  EXPECT_EQ(track->loadedPointCount(), 4u);
  EXPECT_EQ(ScratchFolder::read(libraryFile), saved);
  EXPECT_EQ(library->trackCounter(), counter);
  EXPECT_EQ(library->tracks().size(), 1u);

  ASSERT_TRUE(Cloud::updateLibraryFileFromiCloudFile(*track, received));
  EXPECT_FALSE(track->isLoaded() || track->isDirty());
  EXPECT_EQ(ScratchFolder::read(libraryFile), gpx);  // the unsaved point was never written
  EXPECT_EQ(track->trackPoints().size(), 5u);

  const auto added = library->addTrackFromiCloudFile("Received", received).value();
  ASSERT_TRUE(added);
  EXPECT_EQ(added->filename(), fmt::format("Track{:08}.gpx", counter));
  EXPECT_EQ(library->trackCounter(), counter + 1);
  EXPECT_EQ(added->parent(), library);
  EXPECT_FALSE(added->isLoaded() || added->isDirty());
  EXPECT_EQ(ScratchFolder::read(folder.file(*added->filename())), gpx);
  EXPECT_EQ(added->trackPoints().size(), 5u);
}

class FolderSynchronizerTest : public LibraryTest {
 protected:
  void SetUp() override {
    LibraryTest::SetUp();
    fs::create_directory(mirror);
    KvPreferences::singleton().setICloudSupported(true);
    KvPreferences::singleton().setICloudSynchronizer(synchronizer);
  }
  void TearDown() override {
    KvPreferences::singleton().reset();
    LibraryTest::TearDown();
  }

  // A saved track of the library with an iCloudId.
  TrackPtr mirroredTrack() {
    auto track = walk("Walk", 4);
    track->setICloudId("ID-1");
    library->addTrack(track);
    return track;
  }

  ScratchFolder elsewhere;
  const std::string mirror = elsewhere.file("mirror");
  const std::shared_ptr<FolderSynchronizer> synchronizer = std::make_shared<FolderSynchronizer>(mirror);
};

TEST_F(FolderSynchronizerTest, SavingMirrorsTheTrackAsGzipAndRecord) {
  const auto track = mirroredTrack();
  ASSERT_TRUE(library->syncToDisk());  // a dirty track with an iCloudId is mirrored as it is saved
  const std::string gz = synchronizer->trackFile("ID-1");
  const auto gpx = runShellCommandReadingOutput("zcat " + FileHandling::filenameForShell(gz));
  EXPECT_EQ(gpx.status, 0);
  EXPECT_THAT(gpx.output, HasSubstr("<name>Walk</name>"));
  // Two files and no temporaries left behind.
  EXPECT_EQ(std::distance(fs::directory_iterator(mirror + "/tracks"), {}), 2);

  const auto records = synchronizer->records();
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].trackFile, gz);
  EXPECT_EQ(TrackICloud::iCloudIdFromMetadata(records[0].metadata), "ID-1");
  EXPECT_EQ(TrackICloud::timestampFromMetadata(records[0].metadata), track->iCloudTimestamp());

  library->deleteTrack(track);
  EXPECT_FALSE(fs::exists(gz) || fs::exists(synchronizer->recordFile("ID-1")));
  EXPECT_TRUE(synchronizer->records().empty());
}

TEST_F(FolderSynchronizerTest, PhotosAreCopiedNeverMovedAndAVanishedFolderIsLeftAlone) {
  const auto track = mirroredTrack();
  const std::string original = folder.write("IMG_1.JPG", std::string("\xFF\xD8jpeg\0bytes", 12));
  const auto taken = TrackPhoto::trackPhotoWithFilepath(original);
  const std::string keptFile = folder.write("kept.jpg", "kept");
  const auto kept = TrackPhoto::trackPhotoWithFilepath(keptFile);
  kept->setICloudId("KEEP");
  track->trackPoints()[0]->addTrackPhoto(taken);
  track->trackPoints()[1]->addTrackPhoto(kept);
  ASSERT_TRUE(library->syncToDisk());

  TrackICloud::movePhotosToiCloud(*track);
  EXPECT_EQ(std::tuple(kept->iCloudId(), kept->originalFilepath()),
            std::tuple(std::optional<std::string>("KEEP"), keptFile));
  ASSERT_TRUE(taken->iCloudId());
  EXPECT_EQ(taken->originalFilepath(), "");
  EXPECT_TRUE(track->isDirty());
  const std::string copy = TrackPhotos::filepath(*taken);  // resolves through the mirror
  EXPECT_EQ(copy, mirror + "/photos/" + *taken->iCloudId() + ".jpg");
  EXPECT_EQ(ScratchFolder::read(copy), ScratchFolder::read(original));
  EXPECT_EQ(ScratchFolder::read(original).size(), 12u);  // the original stays

  LogCapture capture;
  TrackICloud::requestPhotosFromiCloud(*track);
  for (int i = 0; i < 500 && capture.lines().size() < 3; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  const auto missing = [&](const std::string& file) {
    return "sync folder " + mirror + " has no file " + mirror + file +
           ": a local folder has nothing to download";
  };
  EXPECT_THAT(capture.lines(),
              ::testing::ElementsAre(missing("/thumbnails/" + *taken->iCloudId() + ".jpg"),
                                     missing("/thumbnails/KEEP.jpg"), missing("/photos/KEEP")));

  // A sync folder that went away is neither written nor made again, and
  // photos stay where they are.
  const auto later = TrackPhoto::trackPhotoWithFilepath(folder.write("IMG_2.JPG", "jpeg"));
  track->trackPoints()[2]->addTrackPhoto(later);
  track->setName("Walk on");
  const double stamp = track->iCloudTimestamp();
  fs::remove_all(mirror);
  ASSERT_TRUE(library->syncToDisk());  // the library saves all the same
  EXPECT_FALSE(synchronizer->writeTrack(*track));
  TrackICloud::movePhotosToiCloud(*track);
  EXPECT_FALSE(fs::exists(mirror));
  EXPECT_EQ(track->iCloudTimestamp(), stamp);
  EXPECT_EQ(std::tuple(later->iCloudId(), later->originalFilepath()),
            std::tuple(std::optional<std::string>(), folder.file("IMG_2.JPG")));
  EXPECT_FALSE(track->isDirty());
}

}  // namespace
}  // namespace kvtrack::testing
