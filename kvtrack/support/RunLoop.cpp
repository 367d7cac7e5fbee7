#include "kvtrack/support/RunLoop.h"

#include "kvtrack/support/Log.h"

#include <unistd.h>

#include <algorithm>
#include <exception>
#include <future>

namespace kvtrack {

namespace {

using Clock = std::chrono::steady_clock;

// Predicates may watch state that changes without a posted task.
constexpr auto kPredicatePollInterval = std::chrono::milliseconds(10);

bool onFirstThread() { return gettid() == getpid(); }

void runTask(const RunLoop::Task& task) {
  try {
    task();
  } catch (const std::exception& error) {
    logf("run loop: a task failed: {}", error.what());
  } catch (...) {
    logLine("run loop: a task failed");
  }
}

}  // namespace

RunLoop& RunLoop::main() {
  static RunLoop* instance = [] {
    auto* loop = new RunLoop();  // lives until exit; workers may still post
    loop->isMain_ = true;
    return loop;
  }();
  return *instance;
}

void RunLoop::run() { process(std::nullopt, nullptr); }

void RunLoop::runFor(std::chrono::milliseconds duration) {
  process(Clock::now() + duration, nullptr);
}

bool RunLoop::runUntil(const std::function<bool()>& predicate,
                       std::chrono::milliseconds timeout) {
  return process(Clock::now() + timeout, &predicate);
}

bool RunLoop::process(std::optional<Clock::time_point> deadline,
                      const std::function<bool()>* predicate) {
  const auto me = std::this_thread::get_id();
  {
    std::lock_guard lock(mutex_);
    if (depth_ > 0 && runningThread_ != me) {
      logLine("run loop: already running on another thread");
      return predicate && (*predicate)();
    }
    ++depth_;
    runningThread_ = me;
  }

  bool satisfied = false;
  while (true) {
    if (predicate && (*predicate)()) {
      satisfied = true;
      break;
    }
    Task task;
    {
      std::unique_lock lock(mutex_);
      if (stopRequested_) {
        stopRequested_ = false;
        break;
      }
      const auto now = Clock::now();
      if (deadline && now >= *deadline) {
        lock.unlock();
        satisfied = predicate && (*predicate)();
        break;
      }
      auto ready = [&] { return !tasks_.empty() || stopRequested_; };
      std::optional<Clock::time_point> wakeAt = deadline;
      if (predicate) wakeAt = std::min(*deadline, now + kPredicatePollInterval);
      if (wakeAt) {
        wake_.wait_until(lock, *wakeAt, ready);
      } else {
        wake_.wait(lock, ready);
      }
      if (tasks_.empty() || stopRequested_) continue;
      task = std::move(tasks_.front());
      tasks_.pop_front();
    }
    runTask(task);
  }

  std::lock_guard lock(mutex_);
  if (--depth_ == 0) runningThread_ = {};
  return satisfied;
}

void RunLoop::stop() {
  std::lock_guard lock(mutex_);
  stopRequested_ = true;
  wake_.notify_all();
}

void RunLoop::post(Task task) {
  std::lock_guard lock(mutex_);
  tasks_.push_back(std::move(task));
  wake_.notify_all();
}

bool RunLoop::isLoopThread() const {
  std::lock_guard lock(mutex_);
  if (depth_ > 0) return runningThread_ == std::this_thread::get_id();
  return isMain_ && onFirstThread();
}

void performOnMainThread(std::function<void()> task, bool waitUntilDone) {
  RunLoop& loop = RunLoop::main();
  if (loop.isLoopThread()) {
    runTask(task);
    return;
  }
  if (!waitUntilDone) {
    loop.post(std::move(task));
    return;
  }
  std::promise<void> done;
  std::future<void> finished = done.get_future();
  loop.post([&task, &done] {
    runTask(task);
    done.set_value();
  });
  finished.wait();
}

bool isMainThread() { return RunLoop::main().isLoopThread(); }

}  // namespace kvtrack
