// The BG728 driver against an emulated logger on a real pty pair.
#include "kvtrack/devices/bg728/BG728.h"
#include "kvtrack/devices/serial/DownloadCancel.h"
#include "kvtrack/support/ISODate.h"
#include "kvtrack/support/Log.h"
#include "tests/devices/BG728Emulator.h"
#include "tests/devices/PtyPair.h"

#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <string>
#include <thread>
#include <vector>

namespace kvtrack {
namespace {

using test::BG728Emulator;
using test::BG728Point;
using Fault = BG728Emulator::Fault;

std::vector<BG728Point> samplePoints(int count) {
  std::vector<BG728Point> points{
      {"13:05:09", "031524", "48.137154", "11.575490", "519.3"},
      {"13:05:14", "031524", "48.137300", "11.575700", "520.0"},
      {"23:59:59", "123199", "-33.868820", "-151.209300", "-3.5"},
  };
  for (int i = static_cast<int>(points.size()); i < count; ++i) {
    points.push_back({fmt::format("14:{:02d}:00", i), "031524", fmt::format("48.{:06d}", i),
                      "11.5", fmt::format("{}", 500 + i)});
  }
  points.resize(static_cast<std::size_t>(count));
  return points;
}

std::vector<std::string> requestsFor(int pointCount) {
  std::vector<std::string> requests{BG728Emulator::kTimezoneRequest,
                                    BG728Emulator::kCountRequest};
  for (int i = 0; i < pointCount; ++i) requests.push_back(BG728Emulator::pointRequest(i));
  return requests;
}

ISODate utc(const char* text) { return *ISODate::isoDateWithString(text); }

// Lines longer than the 64 bytes of one read: far-south-west points with a
// four-digit elevation.
std::vector<BG728Point> longPoints(int count) {
  std::vector<BG728Point> points;
  for (int i = 0; i < count; ++i) {
    points.push_back({fmt::format("{:02d}:{:02d}:{:02d}", 6 + i / 3600, i / 60 % 60, i % 60), "110223",
                      fmt::format("-33.{:06d}", 100000 + i), fmt::format("-151.{:06d}", 200000 + i),
                      fmt::format("{}.25", 1000 + i)});
  }
  return points;
}

class BG728Test : public ::testing::Test {
 protected:
  // The driver keeps the logger's real 30 s read time-out unless a test says
  // otherwise: a logger that answers line by line never makes it wait.
  void SetUp() override { ASSERT_TRUE(pty.valid()); }

  std::optional<std::vector<TrackPtr>> download(int pointCount) {
    logger.setPoints(samplePoints(pointCount));
    return downloadStored();
  }

  // Off the test thread, so that a driver that hangs fails the test instead of the suite.
  std::optional<std::vector<TrackPtr>> downloadStored() {
    logger.start();
    auto running = std::async(std::launch::async,
                              [this] { return driver.importTracksFromDevice(pty.slavePath(), {}); });
    if (running.wait_for(std::chrono::seconds(90)) != std::future_status::ready) {
      ADD_FAILURE() << "the download hung";
      std::abort();
    }
    auto result = running.get();
    logger.stop();
    return result;
  }

  // Points with every value the logger sent.
  static void expectSamplePoints(const TrackPtr& track, int count) {
    ASSERT_EQ(track->loadedPointCount(), static_cast<std::size_t>(count));
    const auto expected = samplePoints(count);
    const auto points = track->trackPoints();
    for (int i = 0; i < count; ++i) {
      const auto& p = points[static_cast<std::size_t>(i)];
      const auto& e = expected[static_cast<std::size_t>(i)];
      EXPECT_DOUBLE_EQ(p->latitude(), std::stod(e.latitude)) << i;
      EXPECT_DOUBLE_EQ(p->longitude(), std::stod(e.longitude)) << i;
      EXPECT_DOUBLE_EQ(p->elevation(), std::stod(e.elevation)) << i;
      ASSERT_TRUE(p->time()) << i;
    }
  }

  test::PtyPair pty;
  BG728Emulator logger{pty};
  BG728 driver;
  LogCapture log;
};

TEST_F(BG728Test, DownloadsEveryPointInTheLoggersTimezone) {
  logger.setTimezone(2);
  auto result = download(3);
  ASSERT_TRUE(result);
  ASSERT_EQ(result->size(), 1u);
  const TrackPtr track = result->front();
  expectSamplePoints(track, 3);

  // The logger's times carry no zone; its time zone only changes how they are shown.
  const auto points = track->trackPoints();
  EXPECT_TRUE(points[0]->time()->isEqualToDate(utc("2024-03-15T13:05:09")));
  EXPECT_TRUE(points[2]->time()->isEqualToDate(utc("2099-12-31T23:59:59")));
  for (const auto& p : points) EXPECT_EQ(p->time()->timezoneOffset(), 120);
  EXPECT_EQ(track->name(), utc("2024-03-15T13:05:09").descriptionForGui());

  EXPECT_EQ(logger.requests(), requestsFor(3));
  EXPECT_TRUE(log.contains("BG728: Track point 0 of 3: 2024-03-15T13:05:09"));
  EXPECT_TRUE(log.contains("BG728: Finished with timezone: 2"));
  EXPECT_EQ(driver.protocolCommand(), BG728::kStateFinished);
}

TEST_F(BG728Test, PortIsReleasedSoASecondDownloadWorks) {
  ASSERT_TRUE(download(2));
  logger.start();
  auto again = driver.importTracksFromDevice(pty.slavePath(), {});
  logger.stop();
  ASSERT_TRUE(again);
  expectSamplePoints(again->front(), 2);
}

TEST_F(BG728Test, EmptyLoggerGivesOneEmptyTrack) {
  auto result = download(0);
  ASSERT_TRUE(result);
  ASSERT_EQ(result->size(), 1u);
  EXPECT_EQ(result->front()->loadedPointCount(), 0u);
  EXPECT_EQ(logger.requests(), requestsFor(0));
}

TEST_F(BG728Test, DeleteClearsTheLogger) {
  logger.setPoints(samplePoints(3));
  logger.start();
  EXPECT_TRUE(driver.deleteTracksFromDevice(pty.slavePath(), {}));
  logger.stop();
  EXPECT_EQ(logger.storedPointCount(), 0u);
  EXPECT_EQ(logger.requests(), std::vector<std::string>{BG728Emulator::kDeleteRequest});
}

TEST_F(BG728Test, ChecksumsAndAnswerLinesAreReadAsTheLoggerWritesThem) {
  EXPECT_EQ(BG728::calculateChecksum("BG728,0,16,0"), "13");
  EXPECT_EQ(BG728::calculateChecksum("BG728,0,3"), "3b");
  EXPECT_EQ(BG728::calculateChecksum("BG728,0,16"), "0f");

  auto count = BG728::splitResponse("$BG728,0,16,0*13");
  ASSERT_TRUE(count);
  EXPECT_EQ(count->identifier, "$BG728");
  EXPECT_EQ(count->commandId, "16");
  EXPECT_EQ(count->arguments, std::vector<std::string>{"0"});
  EXPECT_FALSE(BG728::splitResponse("$BG728,0,16,0*14"));
  EXPECT_FALSE(BG728::splitResponse("$BG728,0,16"));        // too few fields
  EXPECT_FALSE(BG728::splitResponse("$BG728,0,16,0*13*1"));  // two stars
  EXPECT_FALSE(BG728::splitResponse("$BG728,0,16,0"));       // no checksum
}

TEST_F(BG728Test, UpperCaseChecksumsAreAccepted) {
  logger.setUpperCaseChecksums(true);
  auto result = download(3);
  ASSERT_TRUE(result);
  expectSamplePoints(result->front(), 3);
  EXPECT_EQ(logger.requests(), requestsFor(3));  // no resends
}

TEST_F(BG728Test, WrongChecksumIsAnsweredWithAResend) {
  logger.addFault(BG728Emulator::pointRequest(1), Fault::WrongChecksum);
  auto result = download(3);
  ASSERT_TRUE(result);
  expectSamplePoints(result->front(), 3);
  EXPECT_EQ(logger.countOf(BG728Emulator::pointRequest(1)), 2);
  EXPECT_EQ(logger.countOf(BG728Emulator::pointRequest(2)), 1);
}

TEST_F(BG728Test, ForeignNmeaLineIsAnsweredWithAResend) {
  logger.addFault(BG728Emulator::kCountRequest, Fault::ForeignLineFirst);
  auto result = download(3);
  ASSERT_TRUE(result);
  expectSamplePoints(result->front(), 3);
  EXPECT_EQ(logger.countOf(BG728Emulator::kCountRequest), 2);
}

TEST_F(BG728Test, AnswerToTheWrongIndexRequestsTheSameIndexAgain) {
  logger.addFault(BG728Emulator::pointRequest(6), Fault::WrongIndex);
  auto result = download(8);
  ASSERT_TRUE(result);
  expectSamplePoints(result->front(), 8);
  EXPECT_EQ(logger.countOf(BG728Emulator::pointRequest(6)), 2);
  EXPECT_EQ(logger.countOf(BG728Emulator::pointRequest(7)), 1);
}

TEST_F(BG728Test, TwoAnswersInOneReadAreBothProcessedInOrder) {
  logger.addFault(BG728Emulator::pointRequest(0), Fault::TwoAnswersInOneWrite);
  auto result = download(3);
  ASSERT_TRUE(result);
  // The first copy is taken; the second now answers the wrong index and
  // makes the driver ask for point 1 again. No point is stored twice.
  expectSamplePoints(result->front(), 3);
  EXPECT_EQ(logger.countOf(BG728Emulator::pointRequest(0)), 1);
  EXPECT_EQ(logger.countOf(BG728Emulator::pointRequest(1)), 2);
}

TEST_F(BG728Test, LineSplitAcrossReadsIsProcessedOnceComplete) {
  // The second half comes after the first read has given up with the first
  // half, and well within the second read.
  driver.setReadTimeout(0.2);
  logger.setSplitPause(std::chrono::milliseconds(300));
  logger.addFault(BG728Emulator::pointRequest(1), Fault::SplitAcrossWrites);
  auto result = download(3);
  ASSERT_TRUE(result);
  expectSamplePoints(result->front(), 3);
  EXPECT_EQ(logger.requests(), requestsFor(3));  // the half line caused no resend
}

TEST_F(BG728Test, SilentLoggerFailsAfterTheTimeoutWithoutAPartialTrack) {
  driver.setReadTimeout(0.1);
  logger.addFault(BG728Emulator::pointRequest(1), Fault::Silence);
  auto result = download(3);
  EXPECT_FALSE(result);
  EXPECT_EQ(driver.protocolCommand(), BG728::kStateFailed);
  EXPECT_TRUE(log.contains("BG728: error reading data: "));
  EXPECT_TRUE(log.contains("code 100"));
}

TEST_F(BG728Test, HangUpInTheMiddleFails) {
  logger.addFault(BG728Emulator::pointRequest(1), Fault::HangUp);
  auto result = download(3);
  EXPECT_FALSE(result);
  EXPECT_EQ(driver.protocolCommand(), BG728::kStateFailed);
  EXPECT_TRUE(log.contains("BG728: error reading data: "));
  EXPECT_TRUE(log.contains("code 99"));
}

TEST_F(BG728Test, CancelEndsAWaitOnTheFullTimeout) {
  // A logger that falls silent keeps a read waiting for the full 30 s; the
  // cancel must end it.
  logger.addFault(BG728Emulator::pointRequest(1), Fault::Silence);
  std::thread canceller([] {
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    cancelRunningDownloads();
  });
  auto result = download(3);
  canceller.join();
  resumeDownloads();
  EXPECT_FALSE(result);
  EXPECT_EQ(driver.protocolCommand(), BG728::kStateFailed);
  EXPECT_TRUE(log.contains("code 99"));
}

TEST_F(BG728Test, EndlessWrongAnswersHitTheBound) {
  logger.setAlwaysWrongChecksum(true);
  auto result = download(3);
  EXPECT_FALSE(result);
  EXPECT_TRUE(log.contains("BG728: too many wrong responses!"));
  // 130 read passes, each answering one bad line with a resend.
  const int sent = logger.countOf(BG728Emulator::kTimezoneRequest);
  EXPECT_GE(sent, 130);
  EXPECT_LE(sent, 131);
  EXPECT_EQ(logger.countOf(BG728Emulator::kCountRequest), 0);
}

TEST_F(BG728Test, LineByLineLoggerIsReadAtTheSpeedOfTheLink) {
  // 200 points with the real 30 s time-out, lines of 65 to 67 bytes, and a
  // bad checksum, a wrong index and a foreign NMEA sentence along the way.
  logger.setTimezone(-5);
  logger.setPoints(longPoints(200));
  logger.addFault(BG728Emulator::pointRequest(37), Fault::WrongChecksum);
  logger.addFault(BG728Emulator::pointRequest(88), Fault::WrongIndex);
  logger.addFault(BG728Emulator::pointRequest(150), Fault::ForeignLineFirst);
  auto result = downloadStored();
  ASSERT_TRUE(result);
  ASSERT_EQ(result->size(), 1u);
  const auto& points = result->front()->trackPoints();
  ASSERT_EQ(points.size(), 200u);
  const auto expected = longPoints(200);
  for (std::size_t i = 0; i < points.size(); ++i) {
    EXPECT_DOUBLE_EQ(points[i]->latitude(), std::stod(expected[i].latitude)) << i;
    EXPECT_DOUBLE_EQ(points[i]->longitude(), std::stod(expected[i].longitude)) << i;
    EXPECT_DOUBLE_EQ(points[i]->elevation(), std::stod(expected[i].elevation)) << i;
    EXPECT_EQ(points[i]->time()->timezoneOffset(), -300) << i;
  }
  EXPECT_TRUE(points[199]->time()->isEqualToDate(utc("2023-11-02T06:03:19")));
  // The bad checksum and the wrong index each cost one more request of that point.
  for (int index : {37, 88}) EXPECT_EQ(logger.countOf(BG728Emulator::pointRequest(index)), 2) << index;
  EXPECT_EQ(logger.countOf(BG728Emulator::pointRequest(36)), 1);
  EXPECT_EQ(logger.countOf(BG728Emulator::pointRequest(89)), 1);
  // The foreign sentence came just before the answer, so its resend left one
  // answer in flight ever after: each later point is asked for twice, its
  // late copy refused as the wrong index. Nothing is stored twice.
  EXPECT_EQ(logger.countOf(BG728Emulator::pointRequest(150)), 2);
  EXPECT_EQ(logger.countOf(BG728Emulator::pointRequest(199)), 2);
  // No read waited for its time-out: each ended on a line end or after 64 bytes.
  EXPECT_FALSE(log.contains("BG728: error reading data"));
  EXPECT_TRUE(log.contains("BG728: Finished with timezone: -5"));
}

TEST_F(BG728Test, LoggerStallingMidLineIsEndedByTheTimeout) {
  driver.setReadTimeout(0.3);
  logger.addFault(BG728Emulator::pointRequest(2), Fault::StallMidLine);
  auto result = download(5);
  EXPECT_FALSE(result);
  EXPECT_EQ(driver.protocolCommand(), BG728::kStateFailed);
  // The half line came with the first time-out; the second brought nothing.
  EXPECT_TRUE(log.contains("BG728: error reading data: "));
  EXPECT_TRUE(log.contains("code 100"));
  EXPECT_EQ(logger.countOf(BG728Emulator::pointRequest(2)), 1);
  EXPECT_EQ(logger.countOf(BG728Emulator::pointRequest(3)), 0);
}

TEST_F(BG728Test, MissingPortFailsWithALogLine) {
  const std::string missing = "/nonexistent/ttyBG728";
  EXPECT_FALSE(driver.importTracksFromDevice(missing, {}));
  EXPECT_TRUE(log.contains("BG728: Port has closed!"));
  EXPECT_FALSE(driver.deleteTracksFromDevice(missing, {}));
  EXPECT_EQ(driver.name(), "BG728");
}

}  // namespace
}  // namespace kvtrack
