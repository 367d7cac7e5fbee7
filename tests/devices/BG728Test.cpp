// The BG728 driver against an emulated logger on a real pty pair.
#include "kvtrack/devices/bg728/BG728.h"
#include "kvtrack/devices/serial/DownloadCancel.h"
#include "kvtrack/support/ISODate.h"
#include "kvtrack/support/Log.h"
#include "tests/devices/BG728Emulator.h"
#include "tests/devices/PtyPair.h"

#include <gtest/gtest.h>

#include <chrono>
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

class BG728Test : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(pty.valid());
    // Answers are shorter than the 64 bytes a read asks for, so every read
    // waits out its time-out; the real 30 s would make the tests crawl.
    driver.setReadTimeout(0.1);
  }

  std::optional<std::vector<TrackPtr>> download(int pointCount) {
    logger.setPoints(samplePoints(pointCount));
    logger.start();
    auto result = driver.importTracksFromDevice(pty.slavePath(), {});
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
  // The second half comes after the first read has given up and well within
  // the second one.
  driver.setReadTimeout(0.2);
  logger.setSplitPause(std::chrono::milliseconds(300));
  logger.addFault(BG728Emulator::pointRequest(1), Fault::SplitAcrossWrites);
  auto result = download(3);
  ASSERT_TRUE(result);
  expectSamplePoints(result->front(), 3);
  EXPECT_EQ(logger.requests(), requestsFor(3));  // the half line caused no resend
}

TEST_F(BG728Test, SilentLoggerFailsAfterTheTimeoutWithoutAPartialTrack) {
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
  // With the real logger's time-out the first short answer already keeps a
  // read waiting for the full 30 s; the cancel must end it.
  driver.setReadTimeout(30.0);
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
  driver.setReadTimeout(0.05);
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

TEST_F(BG728Test, MissingPortFailsWithALogLine) {
  const std::string missing = "/nonexistent/ttyBG728";
  EXPECT_FALSE(driver.importTracksFromDevice(missing, {}));
  EXPECT_TRUE(log.contains("BG728: Port has closed!"));
  EXPECT_FALSE(driver.deleteTracksFromDevice(missing, {}));
  EXPECT_EQ(driver.name(), "BG728");
}

}  // namespace
}  // namespace kvtrack
