#include "kvtrack/support/Log.h"
#include "kvtrack/support/NotificationCenter.h"
#include "kvtrack/support/RunLoop.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace kvtrack {
namespace {

using namespace std::chrono_literals;

struct FakeTrack {
  std::string name;
};

TEST(NotificationCenter, CallsMatchingObserversInRegistrationOrder) {
  NotificationCenter center;
  std::vector<std::string> calls;
  auto record = [&](std::string text) {
    return [&calls, text](const Notification& n) { calls.push_back(text + n.name); };
  };
  ObserverToken first = center.addObserver("A", record("1"));
  ObserverToken other = center.addObserver("B", record("2"));
  ObserverToken all = center.addObserver("", record("*"));
  ObserverToken second = center.addObserver("A", record("3"));
  center.postNotification("A");
  EXPECT_EQ(calls, (std::vector<std::string>{"1A", "*A", "3A"}));
  calls.clear();
  center.postNotification("C");
  EXPECT_EQ(calls, std::vector<std::string>{"*C"});
}

TEST(NotificationCenter, CarriesAnyObject) {
  NotificationCenter center;
  auto track = std::make_shared<FakeTrack>(FakeTrack{"Morning ride"});
  std::shared_ptr<FakeTrack> received;
  bool sawInt = true;
  ObserverToken token = center.addObserver("UnloadingTrack", [&](const Notification& n) {
    if (auto object = n.objectAs<std::shared_ptr<FakeTrack>>()) received = *object;
    sawInt = n.objectAs<int>() != nullptr;
  });
  center.postNotification("UnloadingTrack", track);
  EXPECT_EQ(received, track);
  EXPECT_FALSE(sawInt);
  track.reset();
  received.reset();
  center.postNotification("UnloadingTrack");
  EXPECT_FALSE(received);
}

TEST(NotificationCenter, RemovedObserversAreNotCalled) {
  NotificationCenter center;
  int calls = 0;
  auto count = [&](const Notification&) { ++calls; };
  ObserverToken explicitly = center.addObserver("N", count);
  ObserverToken viaReset = center.addObserver("N", count);
  {
    ObserverToken scoped = center.addObserver("N", count);
    center.postNotification("N");
    EXPECT_EQ(calls, 3);
  }
  center.removeObserver(explicitly);
  viaReset.reset();
  EXPECT_FALSE(explicitly.registered());
  calls = 0;
  center.postNotification("N");
  EXPECT_EQ(calls, 0);
  center.removeObserver(explicitly);  // twice is harmless
}

TEST(NotificationCenter, MovedTokensKeepOneRegistration) {
  NotificationCenter center;
  int calls = 0;
  ObserverToken original = center.addObserver("N", [&](const Notification&) { ++calls; });
  ObserverToken moved = std::move(original);
  EXPECT_TRUE(moved.registered());
  center.postNotification("N");
  EXPECT_EQ(calls, 1);
  ObserverToken target = center.addObserver("N", [&](const Notification&) { calls += 100; });
  target = std::move(moved);  // drops the observer target held
  center.postNotification("N");
  EXPECT_EQ(calls, 2);
}

TEST(NotificationCenter, ObserversMayChangeTheListWhileCalled) {
  NotificationCenter center;
  std::vector<std::string> calls;
  ObserverToken later;
  std::optional<ObserverToken> added;
  ObserverToken self;
  self = center.addObserver("N", [&](const Notification&) {
    calls.push_back("self");
    self.reset();  // removes itself
    later.reset();  // and one that has not run yet
    if (!added) {
      added = center.addObserver("N", [&](const Notification&) { calls.push_back("added"); });
    }
  });
  later = center.addObserver("N", [&](const Notification&) { calls.push_back("later"); });
  center.postNotification("N");
  EXPECT_EQ(calls, std::vector<std::string>{"self"});
  calls.clear();
  center.postNotification("N");
  EXPECT_EQ(calls, std::vector<std::string>{"added"});
}

TEST(NotificationCenter, ObserversMayPostAgain) {
  NotificationCenter center;
  std::vector<std::string> calls;
  ObserverToken outer = center.addObserver("Outer", [&](const Notification&) {
    calls.push_back("outer");
    center.postNotification("Inner");
  });
  ObserverToken inner =
      center.addObserver("Inner", [&](const Notification&) { calls.push_back("inner"); });
  center.postNotification("Outer");
  EXPECT_EQ(calls, (std::vector<std::string>{"outer", "inner"}));
}

TEST(NotificationCenter, AFailingObserverIsLoggedAndOthersRun) {
  NotificationCenter center;
  LogCapture log;
  bool secondRan = false;
  ObserverToken failing = center.addObserver(
      "N", [](const Notification&) { throw std::runtime_error("observer broke"); });
  ObserverToken second = center.addObserver("N", [&](const Notification&) { secondRan = true; });
  center.postNotification("N");
  EXPECT_TRUE(secondRan);
  EXPECT_TRUE(log.contains("observer broke"));
}

TEST(NotificationCenter, TokensMayOutliveTheirCenter) {
  ObserverToken token;
  {
    NotificationCenter center;
    token = center.addObserver("N", [](const Notification&) {});
  }
  token.reset();
  EXPECT_FALSE(token.registered());
}

TEST(NotificationCenter, ObserversRunOnThePostingThread) {
  NotificationCenter& center = NotificationCenter::defaultCenter();
  EXPECT_EQ(&center, &NotificationCenter::defaultCenter());
  std::thread::id observedOn;
  ObserverToken token = center.addObserver("kvtrack.test.Thread", [&](const Notification&) {
    observedOn = std::this_thread::get_id();
  });
  std::thread::id workerId;
  std::thread worker([&] {
    workerId = std::this_thread::get_id();
    center.postNotification("kvtrack.test.Thread");
  });
  worker.join();
  EXPECT_EQ(observedOn, workerId);
}

TEST(NotificationCenter, ManyThreadsPostAndObserveSafely) {
  NotificationCenter center;
  std::atomic<int> calls{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 8; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 200; ++i) {
        ObserverToken token = center.addObserver("N", [&](const Notification&) { ++calls; });
        center.postNotification("N");
      }
    });
  }
  for (auto& thread : threads) thread.join();
  // Each post reaches at least its own observer.
  EXPECT_GE(calls.load(), 8 * 200);
}

TEST(RunLoop, RunsPostedTasksInOrderUntilStopped) {
  RunLoop loop;
  std::vector<int> order;
  for (int i = 0; i < 5; ++i) loop.post([&order, i] { order.push_back(i); });
  loop.post([&] { loop.stop(); });
  loop.post([&] { order.push_back(99); });  // stays queued
  loop.run();
  EXPECT_EQ(order, (std::vector<int>{0, 1, 2, 3, 4}));
  EXPECT_TRUE(loop.runUntil([&] { return order.size() == 6; }, 1s));
  EXPECT_EQ(order.back(), 99);
}

TEST(RunLoop, StopFromAnotherThreadEndsRun) {
  RunLoop loop;
  std::atomic<bool> ran{false};
  std::thread worker([&] {
    loop.post([&] { ran = true; });
    std::this_thread::sleep_for(20ms);
    loop.stop();
  });
  loop.run();
  worker.join();
  EXPECT_TRUE(ran);
}

TEST(RunLoop, RunUntilGivesUpAtTheTimeout) {
  RunLoop loop;
  const auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(loop.runUntil([] { return false; }, 50ms));
  EXPECT_GE(std::chrono::steady_clock::now() - start, 50ms);
  std::atomic<bool> flag{false};
  std::thread setter([&] {
    std::this_thread::sleep_for(20ms);
    flag = true;  // no task posted: the loop has to look by itself
  });
  EXPECT_TRUE(loop.runUntil([&] { return flag.load(); }, 5s));
  setter.join();
}

TEST(RunLoop, AFailingTaskIsLoggedAndTheLoopGoesOn) {
  RunLoop loop;
  LogCapture log;
  bool after = false;
  loop.post([] { throw std::runtime_error("task broke"); });
  loop.post([&] { after = true; });
  EXPECT_TRUE(loop.runUntil([&] { return after; }, 1s));
  EXPECT_TRUE(log.contains("task broke"));
}

TEST(RunLoop, ASecondThreadCannotRunTheSameLoop) {
  RunLoop loop;
  std::promise<void> entered;
  std::atomic<bool> release{false};
  loop.post([&] {
    entered.set_value();
    while (!release) std::this_thread::sleep_for(1ms);
  });
  std::thread runner([&] { loop.runUntil([&] { return release.load(); }, 5s); });
  entered.get_future().wait();
  LogCapture log;
  loop.runFor(10ms);
  EXPECT_TRUE(log.contains("run loop: already running on another thread"));
  release = true;
  runner.join();
}

TEST(MainThread, WorkerWaitsUntilTheMainLoopRanItsTask) {
  RunLoop& loop = RunLoop::main();
  const std::thread::id mainId = std::this_thread::get_id();
  std::thread::id ranOn;
  bool wasMainThread = false;
  std::atomic<bool> workerThinksMain{true};
  std::atomic<bool> workerDone{false};
  std::thread worker([&] {
    workerThinksMain = isMainThread();
    performOnMainThread(
        [&] {
          std::this_thread::sleep_for(20ms);  // a slow task must still be awaited
          ranOn = std::this_thread::get_id();
          wasMainThread = isMainThread();
        },
        true);
    EXPECT_EQ(ranOn, mainId);
    workerDone = true;
  });
  EXPECT_TRUE(loop.runUntil([&] { return workerDone.load(); }, 10s));
  worker.join();
  EXPECT_EQ(ranOn, mainId);
  EXPECT_TRUE(wasMainThread);
  EXPECT_FALSE(workerThinksMain);
}

TEST(MainThread, OnTheMainThreadTheTaskRunsAtOnce) {
  // The process's first thread counts as main while nobody runs the loop.
  EXPECT_TRUE(isMainThread());
  bool ran = false;
  performOnMainThread([&] { ran = true; }, false);
  EXPECT_TRUE(ran);

  // Inside a task of the running main loop too.
  std::vector<std::string> order;
  RunLoop::main().post([&] {
    performOnMainThread([&] { order.push_back("inner"); }, true);
    order.push_back("after");
  });
  EXPECT_TRUE(RunLoop::main().runUntil([&] { return order.size() == 2; }, 1s));
  EXPECT_EQ(order, (std::vector<std::string>{"inner", "after"}));
}

TEST(MainThread, WorkersQueueTasksWithoutWaiting) {
  std::atomic<bool> ran{false};
  bool isMainOnWorker = true;
  std::thread worker([&] {
    isMainOnWorker = isMainThread();
    performOnMainThread([&] { ran = true; }, false);
  });
  worker.join();
  EXPECT_FALSE(isMainOnWorker);
  EXPECT_FALSE(ran);  // queued until the loop runs
  EXPECT_TRUE(RunLoop::main().runUntil([&] { return ran.load(); }, 1s));
}

TEST(MainThread, ALoopRunningOnAnotherThreadMakesThatThreadMain) {
  RunLoop& loop = RunLoop::main();
  std::promise<std::thread::id> loopThread;
  std::atomic<bool> done{false};
  std::thread runner([&] {
    loopThread.set_value(std::this_thread::get_id());
    loop.runUntil([&] { return done.load(); }, 10s);
  });
  const std::thread::id runnerId = loopThread.get_future().get();
  // Wait until the runner is inside the loop, then hand it work.
  std::thread::id ranOn;
  while (ranOn != runnerId) {
    performOnMainThread([&] { ranOn = std::this_thread::get_id(); }, true);
  }
  EXPECT_FALSE(isMainThread());
  done = true;
  runner.join();
  EXPECT_TRUE(isMainThread());
}

}  // namespace
}  // namespace kvtrack
