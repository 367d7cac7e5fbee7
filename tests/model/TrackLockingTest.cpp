#include "kvtrack/model/Track.h"
#include "tests/common/TrackBuilders.h"

#include <atomic>
#include <chrono>
#include <thread>

namespace kvtrack {
namespace {

using testing::addTimedPoint;
using testing::at;

TEST(TrackLock, HeldLockKeepsOtherThreadsOut) {
  Track track;
  addTimedPoint(track, 0);
  std::atomic<bool> added{false};
  std::thread writer;
  {
    std::lock_guard<Track> hold(track);
    writer = std::thread([&] {
      addTimedPoint(track, 1);
      added = true;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_FALSE(added.load());
    EXPECT_EQ(track.trackPoints().size(), 1u);  // the same thread may enter again
  }
  writer.join();
  EXPECT_TRUE(added.load());
  EXPECT_EQ(track.trackPoints().size(), 2u);
}

TEST(TrackLock, ConcurrentInsertsDeletesSearchesAndStatisticsStayConsistent) {
  Track track;
  constexpr int kPerWriter = 2000;
  std::atomic<bool> done{false};
  std::atomic<int> deleted{0};
  std::thread reader([&] {
    while (!done) {
      track.updateAll();
      track.findTrackPointWithDate(at("2012-05-01T10:10:00Z"));
      track.findNearestPointForLatitude(47.5, 8.5);
      double a, b, c, d;
      track.estimateMinLatitude(a, b, c, d);
      // The view alone keeps the writers and the deleter out while it lives.
      const auto points = track.trackPoints();
      for (size_t i = 1; i < points.size(); ++i) {
        ASSERT_LE(points[i - 1]->time()->compare(*points[i]->time()), 0);
      }
    }
  });
  std::thread deleter([&] {
    while (!done) {
      if (track.loadedPointCount() > 10 && deleted < 500) {
        Track::deletePointInTrack({&track, nullptr, 5});
        ++deleted;
      }
      std::this_thread::yield();
    }
  });
  // Two writers interleave their times; sorted insertion keeps the order.
  auto writer = [&](int parity) {
    for (int i = 0; i < kPerWriter; ++i) {
      auto p = TrackPoint::trackPointWithParent(&track);
      p->setTime(at("2012-05-01T10:00:00Z").dateByAddingYears(0, 0, 0, 0, 0, 2 * i + parity));
      track.addTrackPointSorted(p);
    }
  };
  std::thread even(writer, 0), odd(writer, 1);
  even.join();
  odd.join();
  done = true;
  reader.join();
  deleter.join();

  const auto points = track.trackPoints();
  ASSERT_EQ(points.size(), 2u * kPerWriter - static_cast<size_t>(deleted));
  for (size_t i = 1; i < points.size(); ++i) {
    EXPECT_LT(points[i - 1]->time()->compare(*points[i]->time()), 0);
  }
}

}  // namespace
}  // namespace kvtrack
