// Two wayfolio processes on one library: the second waits, or with
// --no-wait gives up at once.
#include "tests/cli/WayfolioFixture.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <gmock/gmock.h>

#include <chrono>
#include <future>
#include <thread>

namespace kvtrack::testing {
namespace {

using ::testing::HasSubstr;

class LockTest : public WayfolioTest {
 protected:
  void SetUp() override {
    importExamples();
    fd_ = ::open((library() + "/.wayfolio.lock").c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_GE(fd_, 0);
    ASSERT_EQ(::flock(fd_, LOCK_EX | LOCK_NB), 0);  // as another wayfolio would
  }
  void TearDown() override { release(); }
  void release() {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
  }

  int fd_ = -1;
};

TEST_F(LockTest, NoWaitReportsABusyLibrary) {
  const WayfolioRun result = run("--no-wait ls");
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err, "wayfolio: the library " + library() +
                            " is busy (another wayfolio is working on it)\n");
}

TEST_F(LockTest, ANormalRunWaitsUntilTheLibraryIsFree) {
  std::thread releaser([this] {
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    release();
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
  release();
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
