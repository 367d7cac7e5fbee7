// IGotU against an emulated logger behind its USB transport.

#include "kvtrack/devices/igotu/IGotU.h"

#include "kvtrack/devices/serial/DownloadCancel.h"
#include "kvtrack/model/TrackPoint.h"
#include "kvtrack/support/ISODate.h"
#include "kvtrack/support/Log.h"
#include "tests/devices/IGotUEmulator.h"
#include "tests/devices/LoggerWire.h"

#include <gtest/gtest.h>

#include <chrono>
#include <ctime>
#include <future>
#include <string>
#include <tuple>
#include <vector>

namespace kvtrack {
namespace {

using test::IGotUEmulator;
using test::IGotUFix;
using Fault = IGotUEmulator::Fault;
using Frame = IGotUEmulator::Frame;
using namespace std::chrono_literals;

int thisYear() {
  const std::time_t now = std::time(nullptr);
  std::tm local{};
  localtime_r(&now, &local);
  return local.tm_year + 1900;
}

int64_t utcMicroseconds(int year, int month, int day, int hour, int minute, int second) {
  return ISODate::isoDateWithString(
             fmt::format("{}-{:02}-{:02}T{:02}:{:02}:{:02}", year, month, day, hour, minute, second))
      ->microsecondsSince1970();
}

// One plain fix a minute from 6:00 on, each a little further north-east.
std::vector<std::vector<uint8_t>> minuteRecords(size_t count) {
  std::vector<std::vector<uint8_t>> records;
  for (size_t i = 0; i < count; ++i) {
    const int minutes = static_cast<int>(i);
    records.push_back(IGotUEmulator::record({.year = thisYear(),
                                             .day = 1 + minutes / 1440,
                                             .hour = minutes / 60 % 24,
                                             .minute = minutes % 60,
                                             .milliseconds = 0,
                                             .latitude = 470000000 + minutes * 100,
                                             .longitude = 80000000 + minutes * 100}));
  }
  return records;
}

// The read-memory frame for the 4 KiB block at the address.
Frame readFrame(uint32_t address) {
  Frame f{0x93,
          0x05,
          0x07,
          0x10,
          0x00,
          0x04,
          0x03,
          static_cast<uint8_t>(address >> 16),
          static_cast<uint8_t>(address >> 8),
          static_cast<uint8_t>(address)};
  f[15] = static_cast<uint8_t>(0 - test::frameSum(f, 15));
  return f;
}

class IGotUTest : public ::testing::Test {
 protected:
  void SetUp() override { setLogToStandardError(false); }  // thousands of record lines
  void TearDown() override {
    resumeDownloads();
    setLogToStandardError(true);
  }

  std::optional<std::vector<TrackPtr>> download() { return driver_.importTracksFromDevice("", {}); }

  IGotUEmulator logger_;
  IGotU driver_{logger_.opener()};
};

TEST_F(IGotUTest, DownloadSendsTheFramesAndDecodesEveryField) {
  const int year = thisYear();
  logger_.setRecords({
      IGotUEmulator::record({.flags = 0x40, .year = year}),
      IGotUEmulator::record({.year = year,
                             .minute = 43,
                             .milliseconds = 59999,
                             .latitude = -335000001,
                             .longitude = -1200000000,
                             .elevationCm = -370}),
      IGotUEmulator::record({.flags = 0x14, .year = year, .minute = 44}),          // no fix
      IGotUEmulator::record({.year = year, .minute = 45, .satellites = 0x05}),     // none found
      IGotUEmulator::record({.year = year, .minute = 46, .satellites = 0x50}),     // none qualified
      IGotUEmulator::record({.year = year, .minute = 47, .latitude = 950000000}),  // beyond the pole
      IGotUEmulator::record({.flags = 0x20, .year = year, .minute = 48}),
  });
  logger_.setIdentity(123456789, 2);
  auto tracks = download();

  ASSERT_TRUE(tracks.has_value());
  ASSERT_EQ(tracks->size(), 1u);
  const TrackPtr track = tracks->front();
  ASSERT_EQ(track->loadedPointCount(), 3u);
  const auto p = track->trackPoints();
  EXPECT_DOUBLE_EQ(p[0]->latitude(), 48.1234567);
  EXPECT_DOUBLE_EQ(p[0]->longitude(), 11.5678901);
  EXPECT_DOUBLE_EQ(p[0]->elevation(), 520.49);
  EXPECT_EQ(p[0]->time()->microsecondsSince1970(), utcMicroseconds(year, 5, 17, 21, 42, 30));
  EXPECT_DOUBLE_EQ(p[1]->latitude(), -33.5000001);
  EXPECT_DOUBLE_EQ(p[1]->longitude(), -120.0);
  EXPECT_DOUBLE_EQ(p[1]->elevation(), -3.7);
  EXPECT_EQ(p[1]->time()->microsecondsSince1970(), utcMicroseconds(year, 5, 17, 21, 43, 59));
  EXPECT_EQ(p[2]->time()->microsecondsSince1970(), utcMicroseconds(year, 5, 17, 21, 48, 30));
  EXPECT_EQ(track->name(), p[0]->time()->descriptionForGui());
  EXPECT_EQ(driver_.invalidPositionCount(), 1u);
  EXPECT_EQ(driver_.serialNumber(), 123456789u);
  EXPECT_EQ(driver_.loggerType(), 2);
  EXPECT_TRUE(driver_.lastDownloadStatus().ok());

  // Byte for byte, checksums included: download mode, identification, count,
  // one block at 0x1000, normal mode.
  const std::vector<Frame> expected{{0x93, 0x01, 0x01, 0x03, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x68},
                                    {0x93, 0x0A, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x63},
                                    {0x93, 0x0B, 0x03, 0x00, 0x1D, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x42},
                                    readFrame(0x1000),
                                    {0x93, 0x01, 0x01, 0x00, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x6B}};
  EXPECT_EQ(logger_.frames(), expected);
  EXPECT_EQ(logger_.linksOpen(), 0);

  // An erase answers true and sends nothing.
  EXPECT_TRUE(driver_.deleteTracksFromDevice("", {}));
  EXPECT_EQ(logger_.frames().size(), expected.size());
  EXPECT_EQ(logger_.linksOpened(), 1);
}

// Records are 32 bytes, 128 to a block; more than 12 blocks are never read
// and the records beyond them are not decoded.
TEST_F(IGotUTest, BlocksReadFollowTheCount) {
  struct Case {
    size_t records, blocks, points;
  };
  for (const Case c : {Case{0, 0, 0}, Case{128, 1, 128}, Case{129, 2, 129}, Case{2000, 12, 1536}}) {
    SCOPED_TRACE(c.records);
    IGotUEmulator logger;
    logger.setRecords(minuteRecords(c.records));
    IGotU driver(logger.opener());
    std::vector<uint64_t> progress;
    driver.setProgress([&](uint64_t done, uint64_t, const char*) { progress.push_back(done); });
    auto tracks = driver.importTracksFromDevice("", {});
    ASSERT_TRUE(tracks.has_value());
    ASSERT_EQ(tracks->size(), 1u);
    EXPECT_EQ(tracks->front()->loadedPointCount(), c.points);
    EXPECT_EQ(progress.size(), c.blocks);
    std::vector<Frame> reads;
    for (const Frame& frame : logger.frames()) {
      if (frame[1] == 0x05) reads.push_back(frame);
    }
    ASSERT_EQ(reads.size(), c.blocks);
    for (size_t i = 0; i < reads.size(); ++i) EXPECT_EQ(reads[i], readFrame(0x1000 * (i + 1)));
    if (c.points > 0) {
      const auto& last = tracks->front()->trackPoints().back();
      EXPECT_DOUBLE_EQ(last->latitude(), 47.0 + static_cast<double>(c.points - 1) * 1e-5);
    }
  }
}

// A place later in the cycle than this year's belongs to the previous cycle.
TEST_F(IGotUTest, YearsComeFromTheSixteenYearCycle) {
  const int year = thisYear(), cycleStart = year - year % 16;
  std::vector<std::vector<uint8_t>> records{IGotUEmulator::record({.year = year}),
                                            IGotUEmulator::record({.year = cycleStart})};
  if (year % 16 < 15) records.push_back(IGotUEmulator::record({.year = 15}));
  logger_.setRecords(records);
  auto tracks = download();
  ASSERT_TRUE(tracks.has_value());
  const auto p = tracks->front()->trackPoints();
  ASSERT_EQ(p.size(), records.size());
  EXPECT_EQ(p[0]->time()->calendarDate().year, year);
  EXPECT_EQ(p[1]->time()->calendarDate().year, cycleStart);
  if (p.size() > 2) {
    EXPECT_EQ(p[2]->time()->calendarDate().year, cycleStart - 1);
  }
}

TEST_F(IGotUTest, StrayAnswersBeforeAcknowledgementsArePassedOver) {
  logger_.setRecords(minuteRecords(300));
  for (auto [command, occurrence, count] : {std::tuple{0x0B, 0, 7}, {0x05, 1, 1}}) {  // count, second block
    logger_.setFault(Fault::kStrayAnswers, static_cast<uint8_t>(command), occurrence, count);
    auto tracks = download();
    ASSERT_TRUE(tracks.has_value());
    EXPECT_EQ(tracks->front()->loadedPointCount(), 300u);
  }
  EXPECT_EQ(logger_.badFrames(), 0);
}

// A logger that goes silent is waited for without end; a cancel ends the
// wait, closes the device and hands back nothing of what was read.
TEST_F(IGotUTest, CancelEndsTheWaitForASilentLogger) {
  logger_.setRecords(minuteRecords(500));
  logger_.setFault(Fault::kSilence, 0x05, 2);  // third of four blocks
  auto result = std::async(std::launch::async, [this] { return driver_.importTracksFromDevice("", {}); });
  ASSERT_TRUE(logger_.waitForFault(10s));
  EXPECT_EQ(result.wait_for(300ms), std::future_status::timeout);  // still waiting
  cancelRunningDownloads();
  ASSERT_EQ(result.wait_for(10s), std::future_status::ready);
  EXPECT_FALSE(result.get().has_value());
  EXPECT_EQ(logger_.linksOpen(), 0);
  EXPECT_NE(driver_.lastDownloadStatus().reason().find("cancelled"), std::string::npos)
      << driver_.lastDownloadStatus().reason();
  EXPECT_EQ(driver_.currentTrack()->loadedPointCount(), 0u);
}

TEST_F(IGotUTest, LoggerPulledOutMidwayGivesNothing) {
  logger_.setRecords(minuteRecords(500));
  logger_.setFault(Fault::kUnplug, 0x05, 1);
  auto tracks = download();
  EXPECT_FALSE(tracks.has_value());
  EXPECT_EQ(logger_.linksOpen(), 0);
  EXPECT_NE(driver_.lastDownloadStatus().reason().find("reading block 2 of 4"), std::string::npos)
      << driver_.lastDownloadStatus().reason();
}

}  // namespace
}  // namespace kvtrack
