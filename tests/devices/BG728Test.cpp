// The BG728 driver against an emulated logger on a real pty pair.
#include "kvtrack/devices/bg728/BG728.h"
#include "kvtrack/devices/serial/DownloadCancel.h"
#include "kvtrack/support/ISODate.h"
#include "kvtrack/support/Log.h"
#include "tests/devices/BG728Emulator.h"
#include "tests/devices/PtyPair.h"

#include <gtest/gtest.h>

#include <chrono>
#include <optional>
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
    points.push_back({fmt::format("14:{:02d}:00", i), "031524", fmt::format("48.{:06d}", i), "11.5",
                      fmt::format("{}", 500 + i)});
  }
  points.resize(static_cast<std::size_t>(count));
  return points;
}

std::vector<std::string> requestsFor(int pointCount) {
  std::vector<std::string> requests{BG728Emulator::kTimezoneRequest, BG728Emulator::kCountRequest};
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
  std::optional<std::vector<TrackPtr>> downloadStored() {
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

TEST_F(BG728Test, DownloadsEveryPointInTheLoggersTimezoneThenReleasesThePort) {
  logger.setTimezone(2);
  auto result = download(3);
  ASSERT_TRUE(result);
  ASSERT_EQ(result->size(), 1u);
  const TrackPtr track = result->front();
  expectSamplePoints(track, 3);
  // The logger's times carry no zone; its time zone only changes how they are shown.
  const TrackPoints::List points = *track->trackPoints();  // a copy: no lock held across downloads
  EXPECT_TRUE(points[0]->time()->isEqualToDate(utc("2024-03-15T13:05:09")));
  EXPECT_TRUE(points[2]->time()->isEqualToDate(utc("2099-12-31T23:59:59")));
  for (const auto& p : points) EXPECT_EQ(p->time()->timezoneOffset(), 120);
  EXPECT_EQ(track->name(), utc("2024-03-15T13:05:09").descriptionForGui());
  EXPECT_EQ(logger.requests(), requestsFor(3));
  EXPECT_EQ(driver.protocolCommand(), BG728::kStateFinished);

  // The port is free again; an empty logger gives one empty track.
  result = download(0);
  ASSERT_TRUE(result);
  ASSERT_EQ(result->size(), 1u);
  EXPECT_EQ(result->front()->loadedPointCount(), 0u);
  auto expected = requestsFor(3), empty = requestsFor(0);
  expected.insert(expected.end(), empty.begin(), empty.end());
  EXPECT_EQ(logger.requests(), expected);

  logger.setPoints(samplePoints(3));
  logger.start();
  EXPECT_TRUE(driver.deleteTracksFromDevice(pty.slavePath(), {}));
  logger.stop();
  EXPECT_EQ(logger.storedPointCount(), 0u);
  EXPECT_EQ(logger.requests().back(), BG728Emulator::kDeleteRequest);
  EXPECT_EQ(logger.requestCount(), expected.size() + 1);

  EXPECT_FALSE(driver.importTracksFromDevice("/nonexistent/ttyBG728", {}));
  EXPECT_FALSE(driver.deleteTracksFromDevice("/nonexistent/ttyBG728", {}));
}

// Lines the emulated logger never sends.
TEST(BG728Lines, BrokenAnswersAreRefused) {
  for (const char* bad : {"$BG728,0,16", "$BG728,0,16,0*13*1", "$BG728,0,16,0"}) {
    EXPECT_FALSE(BG728::splitResponse(bad)) << bad;
  }
}

// Answers the driver can still read: each costs at most one more request of
// the line concerned, and every point arrives once with every value.
TEST_F(BG728Test, AnswersThatAreStillReadable) {
  struct Case {
    const char* name;
    std::optional<std::pair<std::string, Fault>> fault;
    std::vector<std::pair<std::string, int>> requestCounts;
  };
  const auto point = BG728Emulator::pointRequest;
  const std::vector<Case> cases{
      {"upper-case checksums", std::nullopt, {}},
      {"wrong checksum", {{point(1), Fault::WrongChecksum}}, {{point(1), 2}, {point(2), 1}}},
      {"foreign NMEA line",
       {{BG728Emulator::kCountRequest, Fault::ForeignLineFirst}},
       {{BG728Emulator::kCountRequest, 2}}},
      {"wrong index", {{point(6), Fault::WrongIndex}}, {{point(6), 2}, {point(7), 1}}},
      // The first copy is taken; the second now answers the wrong index.
      {"two answers in one read", {{point(0), Fault::TwoAnswersInOneWrite}}, {{point(0), 1}, {point(1), 2}}},
      // The second half comes after a read gave up with the first half.
      {"line split across reads", {{point(1), Fault::SplitAcrossWrites}}, {}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    test::PtyPair link;
    BG728Emulator logger{link};
    BG728 driver;
    logger.setUpperCaseChecksums(!c.fault);
    if (c.fault) logger.addFault(c.fault->first, c.fault->second);
    if (c.fault && c.fault->second == Fault::SplitAcrossWrites) {
      driver.setReadTimeout(0.2);
      logger.setSplitPause(std::chrono::milliseconds(300));
    }
    logger.setPoints(samplePoints(8));
    logger.start();
    auto result = driver.importTracksFromDevice(link.slavePath(), {});
    logger.stop();
    ASSERT_TRUE(result);
    expectSamplePoints(result->front(), 8);
    if (c.requestCounts.empty()) {
      EXPECT_EQ(logger.requests(), requestsFor(8));  // no resends
    }
    for (const auto& [request, count] : c.requestCounts) {
      EXPECT_EQ(logger.countOf(request), count) << request;
    }
  }
}

// Each failure leaves no partial track; the reason is logged with the
// serial code (100 time-out, 99 link closed or cancelled).
TEST_F(BG728Test, LoggerThatStopsAnsweringFailsWithoutAPartialTrack) {
  struct Case {
    const char* name;
    Fault fault;
    double readTimeout;
    bool cancel;
    const char* code;
  };
  for (const Case& c : {Case{"silence", Fault::Silence, 0.1, false, "code 100"},
                        Case{"stall mid-line", Fault::StallMidLine, 0.3, false, "code 100"},
                        Case{"hang-up", Fault::HangUp, 30, false, "code 99"},
                        Case{"cancel", Fault::Silence, 30, true, "code 99"}}) {
    SCOPED_TRACE(c.name);
    test::PtyPair link;
    BG728Emulator logger{link};
    BG728 driver;
    LogCapture log;
    driver.setReadTimeout(c.readTimeout);
    logger.addFault(BG728Emulator::pointRequest(2), c.fault);
    logger.setPoints(samplePoints(5));
    logger.start();
    // With the real 30 s time-out, only the cancel can end the wait.
    std::thread canceller([&] {
      if (!c.cancel) return;
      std::this_thread::sleep_for(std::chrono::milliseconds(300));
      cancelRunningDownloads();
    });
    auto result = driver.importTracksFromDevice(link.slavePath(), {});
    canceller.join();
    resumeDownloads();
    logger.stop();
    EXPECT_FALSE(result);
    EXPECT_EQ(driver.protocolCommand(), BG728::kStateFailed);
    EXPECT_TRUE(log.contains("BG728: error reading data: "));
    EXPECT_TRUE(log.contains(c.code));
    EXPECT_EQ(logger.countOf(BG728Emulator::pointRequest(2)), 1);
    EXPECT_EQ(logger.countOf(BG728Emulator::pointRequest(3)), 0);
  }
}

TEST_F(BG728Test, EndlessWrongAnswersHitTheBound) {
  logger.setAlwaysWrongChecksum(true);
  EXPECT_FALSE(download(3));
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
  for (std::size_t i = 0; i < points.size(); ++i) {
    EXPECT_NEAR(points[i]->latitude(), -33.1 - static_cast<double>(i) * 1e-6, 1e-9) << i;
  }
  EXPECT_DOUBLE_EQ(points[199]->longitude(), -151.200199);
  EXPECT_DOUBLE_EQ(points[199]->elevation(), 1199.25);
  EXPECT_TRUE(points[199]->time()->isEqualToDate(utc("2023-11-02T06:03:19")));
  EXPECT_EQ(points[199]->time()->timezoneOffset(), -300);
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
}

}  // namespace
}  // namespace kvtrack
