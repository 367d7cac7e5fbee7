// wayfolio download and erase against the built-in logger drivers. The
// emulated loggers run on a thread of this test program, on the master side
// of a pty pair; wayfolio opens the slave path given as --device.

#include <ctime>
#include <string>
#include <vector>

#include <fmt/format.h>

#include "tests/cli/WayfolioFixture.h"
#include "tests/cli/EmulatedLoggerSettings.h"
#include "tests/devices/BG728Emulator.h"
#include "tests/devices/GT800Emulator.h"
#include "tests/devices/PtyPair.h"

namespace kvtrack::testing {
namespace {

using kvtrack::test::BG728Emulator;
using kvtrack::test::BG728Point;
using kvtrack::test::GT800Emulator;
using kvtrack::test::PtyPair;

// A GT-800 record on 17 or 18 May last year at 30 s past the minute.
std::vector<std::uint8_t> gt800Record(std::uint8_t flags, int day, int hour, int minute,
                                      std::int32_t latitude, std::int32_t longitude) {
  return GT800Emulator::record({.flags = flags, .year = lastYear(), .day = day, .hour = hour,
                                .minute = minute, .milliseconds = 30000, .latitude = latitude,
                                .longitude = longitude, .elevationCm = 52000});
}

// Two tracks: three points on 17 May, two on 18 May, each opened by a track-start record.
void loadTwoTracks(GT800Emulator& logger) {
  std::vector<std::vector<std::uint8_t>> records;
  for (int i = 0; i < 3; ++i) {
    records.push_back(gt800Record(i == 0 ? 0x40 : 0x00, 17, 21, 40 + i, 481234567 + i * 1000,
                                  115678901 + i * 1000));
  }
  for (int i = 0; i < 2; ++i) {
    records.push_back(gt800Record(i == 0 ? 0x40 : 0x00, 18, 6, i, 471000000 + i * 1000,
                                  85000000 + i * 1000));
  }
  // A record whose latitude lies beyond the pole is skipped and counted.
  records.push_back(gt800Record(0x00, 18, 6, 2, 950000000, 85002000));
  for (std::size_t i = 0; i < records.size(); ++i) logger.putRecord(i, records[i]);
  logger.setRecordCount(static_cast<std::uint32_t>(records.size()));
}

// The BG728 driver reads up to a line end or 64 bytes; these point answers
// are exactly 64 bytes long, so both ends of a read come at once.
std::vector<BG728Point> bg728Points() {
  std::vector<BG728Point> points{
      {"13:05:09", "031524", "48.13715400", "11.5754900", "519.30"},
      {"13:05:14", "031524", "48.13730000", "11.5757000", "520.00"},
      {"13:05:19", "031524", "95.00000000", "11.5759000", "520.50"},  // beyond the pole
  };
  return points;
}

std::string bg728Answer(int index, const BG728Point& p) {
  return BG728Emulator::sentence(fmt::format("BG728,0,17,{},{},{},{},{},{}", index, p.time, p.date,
                                             p.latitude, p.longitude, p.elevation));
}

class LoggerDownloadTest : public WayfolioTest {
 protected:
  void SetUp() override { ASSERT_TRUE(pty.valid()); }
  std::string device() const { return word(pty.slavePath()); }

  PtyPair pty;
};

TEST_F(LoggerDownloadTest, GT800DownloadAddsBothTracksAndEraseKeepsSectorZero) {
  GT800Emulator logger(pty);
  logger.putBytes(0, std::vector<std::uint8_t>(64, 0x11));  // the logger's own settings
  loadTwoTracks(logger);                                     // sector 1
  logger.start();
  WayfolioRun result = run("download --type '*i-gotUGT800' --device " + device());
  ASSERT_EQ(result.status, 0) << result.err;
  EXPECT_NE(result.out.find(": 2 tracks added"), std::string::npos) << result.out;
  EXPECT_NE(lineWith(result.out, "(3 points)"), "") << result.out;
  EXPECT_NE(lineWith(result.out, "(2 points)"), "") << result.out;
  EXPECT_NE(lineWith(result.out, "1 points with invalid coordinates skipped"), "") << result.out;
  const std::string listing = ok("ls");
  EXPECT_EQ(lineCount(listing), 3u) << listing;  // a heading and the two tracks
  EXPECT_NE(lineWith(listing, "May 17, "), "") << listing;
  EXPECT_NE(lineWith(listing, "May 18, "), "") << listing;

  logger.putBytes(3 * GT800Emulator::kSectorSize, {0x00});  // data up to sector 3
  logger.setEraseBusyPolls(1);
  result = run("erase --type '*i-gotUGT800' --yes --device " + device());
  logger.stop();
  ASSERT_EQ(result.status, 0) << result.err;
  EXPECT_NE(result.out.find("Erased the tracks on"), std::string::npos) << result.out;
  EXPECT_EQ(logger.erasedSectors(), (std::vector<std::size_t>{3, 2, 1}));
  EXPECT_EQ(logger.image()[0], 0x11);
  EXPECT_EQ(logger.badFrames(), 0);
}

TEST_F(LoggerDownloadTest, BG728DownloadAddsTheTrackAndEraseClearsIt) {
  const auto points = bg728Points();
  for (std::size_t i = 0; i < points.size(); ++i) {
    ASSERT_EQ(bg728Answer(static_cast<int>(i), points[i]).size(), 64u) << i;
  }
  BG728Emulator logger(pty);
  logger.setPoints(points);
  logger.setTimezone(1);
  logger.start();
  WayfolioRun result = run("download --type '*BG728' --device " + device());
  ASSERT_EQ(result.status, 0) << result.err;
  EXPECT_NE(result.out.find(": 1 tracks added"), std::string::npos) << result.out;
  EXPECT_NE(lineWith(result.out, "(2 points)"), "") << result.out;
  EXPECT_NE(lineWith(result.out, "1 points with invalid coordinates skipped"), "") << result.out;
  const std::string listing = ok("ls");
  EXPECT_EQ(lineCount(listing), 2u) << listing;  // a heading and the track
  EXPECT_NE(lineWith(listing, "Mar 15, 2024"), "") << listing;
  EXPECT_EQ(logger.requests(),
            (std::vector<std::string>{BG728Emulator::kTimezoneRequest, BG728Emulator::kCountRequest,
                                      BG728Emulator::pointRequest(0), BG728Emulator::pointRequest(1),
                                      BG728Emulator::pointRequest(2)}));

  result = run("erase --type '*BG728' --yes --device " + device());
  logger.stop();
  ASSERT_EQ(result.status, 0) << result.err;
  EXPECT_NE(result.out.find("Erased the tracks on"), std::string::npos) << result.out;
  EXPECT_EQ(logger.storedPointCount(), 0u);
  EXPECT_EQ(logger.countOf(BG728Emulator::kDeleteRequest), 1);
}

}  // namespace
}  // namespace kvtrack::testing
