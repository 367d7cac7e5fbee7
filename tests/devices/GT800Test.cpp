// IGotUGT800 against an emulated logger on a real pseudo-terminal pair.

#include "kvtrack/devices/gt800/IGotUGT800.h"

#include "kvtrack/devices/gpsbabel/GPSBabel.h"
#include "kvtrack/formats/gpx/TrackGPX.h"
#include "kvtrack/model/TrackPoint.h"
#include "kvtrack/support/FileHandling.h"
#include "kvtrack/support/ISODate.h"
#include "kvtrack/support/KvPreferences.h"
#include "kvtrack/support/Log.h"
#include "tests/common/ScopedEnvironment.h"
#include "tests/common/ScratchFolder.h"
#include "tests/devices/GT800Emulator.h"

#include <gtest/gtest.h>

#include <ctime>
#include <filesystem>
#include <string>
#include <vector>

namespace kvtrack {
namespace {

using test::GT800Emulator;
using Fault = GT800Emulator::Fault;
using Fix = test::GT800Fix;

int thisYear() {
  const std::time_t now = std::time(nullptr);
  std::tm local{};
  localtime_r(&now, &local);
  return local.tm_year + 1900;
}

std::vector<uint8_t> record(const Fix& fix) { return GT800Emulator::record(fix); }

int64_t utc(int year, int month, int day, int hour, int minute, int second) {
  return ISODate::isoDateWithString(
             fmt::format("{}-{:02}-{:02}T{:02}:{:02}:{:02}", year, month, day, hour, minute, second))
      ->microsecondsSince1970();
}

// Descriptors of this process open on the path (the pair itself keeps one).
int openDescriptorsOn(const std::string& path) {
  int count = 0;
  std::error_code ec;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd", ec)) {
    std::error_code linkError;
    if (std::filesystem::read_symlink(entry.path(), linkError) == path) ++count;
  }
  return count;
}

class GT800Test : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(pty_.valid());
    setLogToStandardError(false);  // an erase logs thousands of lines
    emulator_.start();
    descriptorsBefore_ = openDescriptorsOn(pty_.slavePath());
  }
  void TearDown() override {
    emulator_.stop();
    setLogToStandardError(true);
    KvPreferences::singleton().setTimeZoneInMinutes(std::nullopt);
    IGotUGT800::setAlertCallback(nullptr);
  }

  std::optional<std::vector<TrackPtr>> download() {
    return driver_.importTracksFromDevice(pty_.slavePath(), {});
  }
  bool erase() { return driver_.deleteTracksFromDevice(pty_.slavePath(), {}); }
  bool portClosed() {
    // After a hang-up the node is gone and even the pair's own descriptor no longer names it.
    return driver_.port() == nullptr && openDescriptorsOn(pty_.slavePath()) <= descriptorsBefore_;
  }
  void load(const std::vector<std::vector<uint8_t>>& records) {
    for (size_t i = 0; i < records.size(); ++i) emulator_.putRecord(i, records[i]);
    emulator_.setRecordCount(static_cast<uint32_t>(records.size()));
  }
  void loadMinutes(int count) {
    std::vector<std::vector<uint8_t>> records;
    for (int i = 0; i < count; ++i)
      records.push_back(record({.year = thisYear(), .hour = i / 60, .minute = i % 60}));
    load(records);
  }

  test::PtyPair pty_;
  GT800Emulator emulator_{pty_};
  LogCapture log_;
  IGotUGT800 driver_;
  int descriptorsBefore_ = 0;
};

// Two tracks, with every kind of record the decoder skips.
TEST_F(GT800Test, DownloadSplitsTracksAndDecodesEveryField) {
  const int year = thisYear() - 1;
  std::vector<uint8_t> debug(32, 0);
  debug[0] = 0xF1;
  const std::string text = "FW 2.13 restart";
  std::copy(text.begin(), text.end(), debug.begin() + 6);
  load({record({.flags = 0x40, .year = year}),
        record({.year = year,
                .minute = 43,
                .milliseconds = 59999,
                .latitude = -335000001,
                .longitude = -1200000000,
                .elevationCm = 123456}),
        debug, record({.flags = 0x04, .year = year, .minute = 44, .elevationCm = -370}),  // a named point
        record({.flags = 0x10, .year = year, .minute = 45}),                              // no fix
        record({.year = year, .minute = 46, .satellites = 0x54}),                         // 4 qualified
        record({.year = year, .minute = 47, .satellites = 0x05}),                         // none found
        record({.flags = 0x50, .year = year, .minute = 48}),                              // start, no fix
        record({.flags = 0x40, .year = year, .day = 18, .hour = 6, .minute = 0, .milliseconds = 1000}),
        record({.year = year, .day = 18, .hour = 6, .minute = 1, .milliseconds = 2999, .elevationCm = 99})});
  auto tracks = download();
  ASSERT_TRUE(tracks.has_value());
  ASSERT_EQ(tracks->size(), 2u);
  const auto p = (*tracks)[0]->trackPoints();
  ASSERT_EQ(p.size(), 3u);
  EXPECT_DOUBLE_EQ(p[0]->latitude(), 48.1234567);
  EXPECT_DOUBLE_EQ(p[0]->longitude(), 11.5678901);
  EXPECT_EQ(p[0]->elevation(), 520.0);  // 520.49 m truncated
  EXPECT_EQ(p[0]->time()->microsecondsSince1970(), utc(year, 5, 17, 21, 42, 30));
  EXPECT_DOUBLE_EQ(p[1]->latitude(), -33.5000001);
  EXPECT_DOUBLE_EQ(p[1]->longitude(), -120.0);
  EXPECT_EQ(p[1]->elevation(), 1234.0);                                            // 1,234.56 m
  EXPECT_EQ(p[1]->time()->microsecondsSince1970(), utc(year, 5, 17, 21, 43, 59));  // 59,999 ms
  EXPECT_EQ(p[2]->elevation(), -3.0);                                              // -3.7 m toward zero
  EXPECT_FALSE(p[2]->isWayPoint());
  EXPECT_EQ(p[2]->name(), std::optional<std::string>("WPT"));
  EXPECT_EQ((*tracks)[0]->name(), p[0]->time()->descriptionForGui());

  // The unaccepted track start and the accepted one open a single new track.
  const auto q = (*tracks)[1]->trackPoints();
  ASSERT_EQ(q.size(), 2u);
  EXPECT_EQ(q[0]->time()->microsecondsSince1970(), utc(year, 5, 18, 6, 0, 1));
  EXPECT_EQ(q[1]->time()->microsecondsSince1970(), utc(year, 5, 18, 6, 1, 2));
  EXPECT_EQ(q[1]->elevation(), 0.0);  // 0.99 m

  EXPECT_EQ(driver_.modelType(), 1);
  EXPECT_EQ(emulator_.nmeaModes(), (std::vector<uint8_t>{3, 0}));
  EXPECT_EQ(emulator_.badFrames(), 0);
  EXPECT_TRUE(log_.contains("Debug: FW 2.13 restart"));
  EXPECT_TRUE(portClosed());
}

// A place in the cycle later than this year's belongs to the previous cycle;
// times carry the time zone set.
TEST_F(GT800Test, YearsAndTimeZone) {
  const int year = thisYear();
  load({record({.year = year + 1}), record({.year = year, .minute = 50})});
  KvPreferences::singleton().setTimeZoneInMinutes(120);
  auto tracks = download();
  ASSERT_TRUE(tracks.has_value());
  ASSERT_EQ(tracks->size(), 1u);
  const auto p = tracks->front()->trackPoints();
  ASSERT_EQ(p.size(), 2u);
  EXPECT_EQ(p[0]->time()->calendarDate().year, year - 15);
  EXPECT_EQ(p[1]->time()->microsecondsSince1970(), utc(year, 5, 17, 21, 50, 30));
  EXPECT_EQ(p[1]->time()->timezoneOffset(), 120);
}

// The bridge writes the named point as a track point named "WPT" with no
// waypoint element of its own; the GPX reader takes that name for a waypoint.
TEST_F(GT800Test, NamedPointReadsBackAsAWaypointThroughTheBridge) {
  const int year = thisYear() - 1;
  load({record({.flags = 0x40, .year = year}),
        record({.flags = 0x04, .year = year, .minute = 44, .latitude = 481000000}),
        record({.year = year, .minute = 45, .latitude = 482000000})});
  testing::ScratchFolder scratch;
  testing::ScopedEnvironment temporary("TMPDIR", scratch.path().string());
  std::filesystem::create_directories(scratch.path() / "dev");
  std::filesystem::create_symlink(pty_.slavePath(), scratch.path() / "dev" / "ttyUSB0");
  const std::string previousFolder = FileHandling::singleton().deviceFolder();
  FileHandling::singleton().setDeviceFolder((scratch.path() / "dev").string() + "/");
  GPSBabel bridge;
  bridge.registerDriver(std::make_shared<IGotUGT800>());
  bridge.setDevice("ttyUSB0");
  bridge.setDeviceType("*i-gotUGT800");
  bridge.setAdditionalCommandlineOptions("");
  const std::string out = scratch.file("download.gpx");
  const TransferStatus status = bridge.importTracksAndWaypointToFile(out);
  FileHandling::singleton().setDeviceFolder(previousFolder);
  ASSERT_TRUE(status) << status.reason;

  const std::string gpx = testing::ScratchFolder::read(out);
  EXPECT_EQ(gpx.find("<wpt"), std::string::npos);
  EXPECT_NE(gpx.find("<name>WPT</name>"), std::string::npos);
  TrackPtr back = Track::track();
  ASSERT_TRUE(TrackGPX(back).importFrom(out));
  const auto& points = back->trackPoints();
  ASSERT_EQ(points.size(), 3u);
  EXPECT_TRUE(points[1]->isWayPoint());
  EXPECT_FALSE(points[1]->name());  // the reader keeps the mark, not the name
  EXPECT_DOUBLE_EQ(points[1]->latitude(), 48.1);
  back->updateProperties();
  EXPECT_EQ(back->waypointCount(), 1);
  EXPECT_EQ(back->type(), 0);  // still a recorded track
}

// 300 records need three blocks; a count of 0 reads none. Garbage the
// length of an acknowledgement is skipped; an acknowledgement and its data
// in one write are taken apart by count.
TEST_F(GT800Test, ReadsEveryBlockAnEmptyLoggerAndAnswersThatAreStillReadable) {
  loadMinutes(300);
  std::vector<uint64_t> progress;
  driver_.setProgress([&](uint64_t done, uint64_t total, const char* unit) {
    EXPECT_EQ(total, 3u);
    EXPECT_STREQ(unit, "blocks");
    progress.push_back(done);
  });
  auto tracks = download();
  driver_.setProgress(nullptr);
  EXPECT_EQ(progress, (std::vector<uint64_t>{1, 2, 3}));
  ASSERT_TRUE(tracks.has_value());
  ASSERT_EQ(tracks->size(), 1u);
  EXPECT_EQ(tracks->front()->loadedPointCount(), 300u);
  for (Fault fault : {Fault::kGarbageBeforeAnswer, Fault::kTwoAnswersInOneWrite}) {
    emulator_.setFault(fault, 0x03, 1);
    tracks = download();
    ASSERT_TRUE(tracks.has_value());
    EXPECT_EQ(tracks->front()->loadedPointCount(), 300u);
  }

  emulator_.setRecordCount(0);
  tracks = download();
  ASSERT_TRUE(tracks.has_value());
  ASSERT_EQ(tracks->size(), 1u);
  EXPECT_EQ(tracks->front()->loadedPointCount(), 0u);
  EXPECT_TRUE(portClosed());
}

TEST_F(GT800Test, EraseWalksDownFromTheFirstSectorWithData) {
  emulator_.putBytes(0, std::vector<uint8_t>(64, 0x11));  // the logger's own settings
  loadMinutes(10);                                        // sector 1
  emulator_.putBytes(5 * 4096, {0x00});                   // first data from the top
  emulator_.putBytes(6 * 4096 + 100, {0x00});             // past the 16 bytes looked at: taken as empty
  emulator_.setEraseBusyPolls(3);
  std::string alert;
  IGotUGT800::setAlertCallback([&alert](const std::string& message) { alert = message; });

  EXPECT_TRUE(erase());
  EXPECT_EQ(emulator_.erasedSectors(), (std::vector<size_t>{5, 4, 3, 2, 1}));
  const auto image = emulator_.image();
  EXPECT_EQ(image[0], 0x11);
  EXPECT_EQ(image[6 * 4096 + 100], 0x00);
  EXPECT_EQ(emulator_.refusedErases(), 0);
  EXPECT_EQ(emulator_.nmeaModes(), (std::vector<uint8_t>{3, 0}));
  EXPECT_EQ(alert,
            "The memory has been clear succesfully. Please disconnect the logger from your Mac to "
            "perform a restart.");
  EXPECT_TRUE(portClosed());
}

struct BrokenExchange {
  const char* name;
  Fault fault;
  uint8_t command;
  int occurrence;
  const char* expectedLog;
};

class GT800BrokenTest : public GT800Test, public ::testing::WithParamInterface<BrokenExchange> {};

TEST_P(GT800BrokenTest, FailsCleanlyWithNothingImported) {
  loadMinutes(300);             // three blocks, so that a failure in the second leaves data already read
  driver_.setReadTimeout(0.3);  // the logger's 5 s would only make the test slow
  emulator_.setFault(GetParam().fault, GetParam().command, GetParam().occurrence);
  EXPECT_FALSE(download().has_value());
  EXPECT_TRUE(log_.contains(GetParam().expectedLog)) << ::testing::PrintToString(log_.lines());
  EXPECT_TRUE(log_.contains("download from " + pty_.slavePath() + " failed"));
  EXPECT_TRUE(portClosed());
}

INSTANTIATE_TEST_SUITE_P(
    GT800Misbehaviour, GT800BrokenTest,
    ::testing::Values(
        BrokenExchange{"TruncatedRecords", Fault::kTruncatedData, 0x03, 1, "Error reading data: time-out"},
        BrokenExchange{"Silence", Fault::kSilence, 0x03, 1, "Error reading data: time-out (code 100, 0 of"},
        BrokenExchange{"WrongChecksum", Fault::kDropCommand, 0x9F, 0, "Error reading data: time-out"},
        BrokenExchange{"Garbage", Fault::kGarbageInsteadOfAnswer, 0x0B, 0, "Error reading data: time-out"},
        BrokenExchange{"HangUp", Fault::kHangUp, 0x03, 1, "Error reading data:"}),
    [](const ::testing::TestParamInfo<BrokenExchange>& info) { return std::string(info.param.name); });

TEST_F(GT800Test, EraseThatBreaksOffShowsNoAlertAndAMissingDeviceFails) {
  emulator_.putBytes(3 * 4096, {0x00});
  emulator_.setFault(Fault::kHangUp, 0x20, 1);  // during the second sector
  bool alerted = false;
  IGotUGT800::setAlertCallback([&alerted](const std::string&) { alerted = true; });
  EXPECT_FALSE(erase());
  EXPECT_FALSE(alerted);
  EXPECT_EQ(emulator_.erasedSectors(), (std::vector<size_t>{3}));
  EXPECT_TRUE(log_.contains("erasing the logger at " + pty_.slavePath() + " failed"));
  EXPECT_TRUE(portClosed());

  EXPECT_FALSE(driver_.importTracksFromDevice("/nonexistent/ttyGT800", {}).has_value());
  EXPECT_FALSE(driver_.deleteTracksFromDevice("/nonexistent/ttyGT800", {}));
}

}  // namespace
}  // namespace kvtrack
