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
using Calls = std::vector<std::string>;

TEST(NotificationCenter, CallsMatchingObserversInOrderWithTheObjectAndSurvivesFailures) {
  NotificationCenter center;
  LogCapture log;
  Calls calls;
  auto record = [&](std::string text) {
    return [&calls, text](const Notification& n) {
      const auto* number = n.objectAs<std::shared_ptr<int>>();
      calls.push_back(text + n.name + (number ? std::to_string(**number) : ""));
      EXPECT_EQ(n.objectAs<int>(), nullptr);  // exactly the type posted, nothing else
    };
  };
  ObserverToken first = center.addObserver("A", record("1"));
  ObserverToken other = center.addObserver("B", record("2"));
  ObserverToken all = center.addObserver("", record("*"));
  ObserverToken failing = center.addObserver(
      "A", [](const Notification&) { throw std::runtime_error("observer broke"); });
  ObserverToken second = center.addObserver("A", record("3"));
  center.postNotification("A", std::make_shared<int>(7));
  EXPECT_EQ(calls, (Calls{"1A7", "*A7", "3A7"}));
  EXPECT_TRUE(log.contains("observer broke"));
  calls.clear();
  center.postNotification("C");
  EXPECT_EQ(calls, Calls{"*C"});
}

TEST(NotificationCenter, TokensRemoveTheirObserverOnceWhenResetMovedOrDestroyed) {
  NotificationCenter center;
  int calls = 0;
  auto count = [&](const Notification&) { ++calls; };
  ObserverToken explicitly = center.addObserver("N", count);
  ObserverToken viaReset = center.addObserver("N", count);
  ObserverToken moved = center.addObserver("N", count);
  {
    ObserverToken scoped = center.addObserver("N", count);
    center.postNotification("N");
    EXPECT_EQ(calls, 4);
  }
  center.removeObserver(explicitly);
  center.removeObserver(explicitly);  // twice is harmless
  viaReset.reset();
  EXPECT_FALSE(explicitly.registered());
  ObserverToken target = center.addObserver("N", [&](const Notification&) { calls += 100; });
  target = std::move(moved);  // drops the observer target held, keeps the moved one
  EXPECT_TRUE(target.registered());
  calls = 0;
  center.postNotification("N");
  EXPECT_EQ(calls, 1);

  ObserverToken outliving;
  {
    NotificationCenter shortLived;
    outliving = shortLived.addObserver("N", count);
  }
  outliving.reset();
  EXPECT_FALSE(outliving.registered());
}

TEST(NotificationCenter, ObserversMayChangeTheListAndPostWhileCalled) {
  NotificationCenter center;
  Calls calls;
  ObserverToken later;
  std::optional<ObserverToken> added;
  ObserverToken self;
  self = center.addObserver("N", [&](const Notification&) {
    calls.push_back("self");
    self.reset();   // removes itself
    later.reset();  // and one that has not run yet
    if (!added) added = center.addObserver("N", [&](const Notification&) { calls.push_back("added"); });
    center.postNotification("Inner");
  });
  later = center.addObserver("N", [&](const Notification&) { calls.push_back("later"); });
  ObserverToken inner =
      center.addObserver("Inner", [&](const Notification&) { calls.push_back("inner"); });
  center.postNotification("N");
  EXPECT_EQ(calls, (Calls{"self", "inner"}));
  calls.clear();
  center.postNotification("N");
  EXPECT_EQ(calls, Calls{"added"});
}

TEST(NotificationCenter, ObserversRunOnThePostingThreadAndManyThreadsAreSafe) {
  NotificationCenter& center = NotificationCenter::defaultCenter();
  std::thread::id observedOn, workerId;
  ObserverToken token = center.addObserver(
      "kvtrack.test.Thread", [&](const Notification&) { observedOn = std::this_thread::get_id(); });
  std::thread([&] {
    workerId = std::this_thread::get_id();
    center.postNotification("kvtrack.test.Thread");
  }).join();
  EXPECT_EQ(observedOn, workerId);

  NotificationCenter shared;
  std::atomic<int> calls{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 8; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 200; ++i) {
        ObserverToken own = shared.addObserver("N", [&](const Notification&) { ++calls; });
        shared.postNotification("N");
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_GE(calls.load(), 8 * 200);  // each post reaches at least its own observer
}

TEST(RunLoop, RunsTasksInOrderUntilStoppedAndLogsFailingOnes) {
  RunLoop loop;
  LogCapture log;
  std::vector<int> order;
  for (int i = 0; i < 3; ++i) loop.post([&order, i] { order.push_back(i); });
  loop.post([] { throw std::runtime_error("task broke"); });
  loop.post([&] { loop.stop(); });
  loop.post([&] { order.push_back(99); });  // stays queued
  loop.run();
  EXPECT_EQ(order, (std::vector<int>{0, 1, 2}));
  EXPECT_TRUE(log.contains("task broke"));
  EXPECT_TRUE(loop.runUntil([&] { return order.size() == 4; }, 1s));
  EXPECT_EQ(order.back(), 99);

  std::atomic<bool> ran{false};
  std::thread worker([&] {
    loop.post([&] { ran = true; });
    std::this_thread::sleep_for(20ms);
    loop.stop();  // from another thread
  });
  loop.run();
  worker.join();
  EXPECT_TRUE(ran);
}

TEST(RunLoop, RunUntilGivesUpAtTheTimeoutAndLooksWithoutTasks) {
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

TEST(MainThread, WorkersWaitForOrQueueTasksOnTheMainLoop) {
  const std::thread::id mainId = std::this_thread::get_id();
  std::thread::id ranOn, queuedOn;
  bool wasMainThread = false;
  std::atomic<bool> workerThinksMain{true}, workerDone{false};
  std::thread worker([&] {
    workerThinksMain = isMainThread();
    performOnMainThread([&] { queuedOn = std::this_thread::get_id(); }, false);
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
  EXPECT_TRUE(RunLoop::main().runUntil([&] { return workerDone.load(); }, 10s));
  worker.join();
  EXPECT_EQ(queuedOn, mainId);
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
  Calls order;
  RunLoop::main().post([&] {
    performOnMainThread([&] { order.push_back("inner"); }, true);
    order.push_back("after");
  });
  EXPECT_TRUE(RunLoop::main().runUntil([&] { return order.size() == 2; }, 1s));
  EXPECT_EQ(order, (Calls{"inner", "after"}));
}

TEST(MainThread, ALoopRunningOnAnotherThreadMakesThatThreadMain) {
  std::promise<std::thread::id> loopThread;
  std::atomic<bool> done{false};
  std::thread runner([&] {
    loopThread.set_value(std::this_thread::get_id());
    RunLoop::main().runUntil([&] { return done.load(); }, 10s);
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
