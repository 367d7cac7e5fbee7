#pragma once
// RunLoop: the host's main loop, a queue of tasks worked off by one thread.
// Worker threads hand work to the main thread with performOnMainThread().
//
// "The main thread" is the thread running the main loop; while no thread
// runs it, the process's first thread counts as the main thread.

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <thread>

namespace kvtrack {

class RunLoop {
 public:
  using Task = std::function<void()>;

  static RunLoop& main();

  RunLoop() = default;
  RunLoop(const RunLoop&) = delete;
  RunLoop& operator=(const RunLoop&) = delete;

  /// Works off tasks until stop(). May be nested inside a task on the same
  /// thread; returns at once (logged) when another thread runs the loop.
  void run();
  /// Works off tasks for about that long (tests, short waits).
  void runFor(std::chrono::milliseconds duration);
  /// Works off tasks until the predicate holds (checked between tasks and
  /// at least every 10 ms) or the timeout passes; the predicate's last value.
  bool runUntil(const std::function<bool()>& predicate, std::chrono::milliseconds timeout);

  /// Makes the innermost run() return after its current task. Without a
  /// running loop, the next run() returns at once.
  void stop();

  /// Queues a task from any thread; tasks run in the order posted. A task
  /// that throws is logged.
  void post(Task task);

  /// True on the thread running this loop (for the main loop also on the
  /// process's first thread while nobody runs it).
  bool isLoopThread() const;

 private:
  bool process(std::optional<std::chrono::steady_clock::time_point> deadline,
               const std::function<bool()>* predicate);

  mutable std::mutex mutex_;
  std::condition_variable wake_;
  std::deque<Task> tasks_;
  bool stopRequested_ = false;
  int depth_ = 0;
  std::thread::id runningThread_;
  bool isMain_ = false;
};

/// Runs the task on the main thread: at once when already there, otherwise
/// queued on RunLoop::main(). With waitUntilDone the caller blocks until the
/// task ran, which only happens while the host runs the main loop.
void performOnMainThread(std::function<void()> task, bool waitUntilDone);

/// True on the main thread (see above).
bool isMainThread();

}  // namespace kvtrack
