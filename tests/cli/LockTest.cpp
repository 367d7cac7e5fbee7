// Two wayfolio processes on one library: the second waits, or with
// --no-wait gives up at once.
#include "tests/cli/WayfolioFixture.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <chrono>
#include <future>
#include <thread>

namespace kvtrack::testing {
namespace {

using ::testing::HasSubstr;
using LockTest = WayfolioTest;

TEST_F(LockTest, NoWaitReportsABusyLibraryAndANormalRunWaitsUntilItIsFree) {
  importExamples();
  int lock = ::open((library() + "/.wayfolio.lock").c_str(), O_RDWR | O_CLOEXEC);
  ASSERT_GE(lock, 0);
  ASSERT_EQ(::flock(lock, LOCK_EX | LOCK_NB), 0);  // as another wayfolio would
  const WayfolioRun busy = run("--no-wait ls");
  EXPECT_EQ(busy.status, 1);
  EXPECT_EQ(busy.out, "");
  EXPECT_EQ(busy.err,
            "wayfolio: the library " + library() + " is busy (another wayfolio is working on it)\n");

  std::thread releaser([lock] {
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    ::close(lock);
  });
  const WayfolioRun result = run("mkdir Later");
  releaser.join();
  EXPECT_EQ(result.status, 0);
  // Whether it had to wait depends on timing; it says so at most once.
  const std::string waiting = "wayfolio: waiting for another wayfolio working on " + library() + "…\n";
  EXPECT_TRUE(result.err.empty() || result.err == waiting) << result.err;
  EXPECT_THAT(ok("ls"), HasSubstr("Later/"));
}

TEST_F(LockTest, ConcurrentImportsBothArrive) {
  importExamples();
  auto first = std::async(std::launch::async, [this] {
    return run("import --into A " + word(examples("rhine-ride.gpx"))).status;
  });
  auto second = std::async(std::launch::async, [this] {
    return run("import --into B " + word(examples("lake-walk.kml"))).status;
  });
  EXPECT_EQ(first.get(), 0);
  EXPECT_EQ(second.get(), 0);
  const std::string tree = ok("tree");
  EXPECT_THAT(tree, HasSubstr("A/"));
  EXPECT_THAT(tree, HasSubstr("B/"));
}

}  // namespace
}  // namespace kvtrack::testing
