// ChildProcess and the shell commands built on it, with the process table
// and the pipes made to fail through the system-call seam.

#include "kvtrack/support/ChildProcess.h"

#include "kvtrack/support/ExternalProgram.h"
#include "tests/common/FaultySystemCalls.h"

#include <gtest/gtest.h>
#include <signal.h>

#include <cerrno>

namespace kvtrack {
namespace {

using testing::FaultySystemCalls;
using Call = FaultySystemCalls::Call;

bool processExists(pid_t pid) { return ::kill(pid, 0) == 0 || errno != ESRCH; }

TEST(ChildProcess, TalksThroughItsPipesAndEndsWithItsOwner) {
  Result<ChildProcess> sort = ChildProcess::start(
      {"sort", "-r"}, {ChildStream::pipe, ChildStream::pipe, ChildStream::null});
  ASSERT_TRUE(sort) << sort.reason();
  ASSERT_TRUE(writeAll(sort->input().get(), "b\nc\na\n", "sort"));
  sort->input().reset();
  EXPECT_EQ(readToEnd(sort->output().get()).value(), "c\nb\na\n");
  EXPECT_EQ(sort->wait(), 0);
  EXPECT_FALSE(sort->isRunning());

  Result<ChildProcess> sleeper = ChildProcess::start({"sleep", "30"});
  ASSERT_TRUE(sleeper);
  const pid_t pid = sleeper->processId();
  ChildProcess moved = std::move(*sleeper);
  EXPECT_FALSE(sleeper->isRunning());
  EXPECT_TRUE(processExists(pid));
  { ChildProcess owner = std::move(moved); }  // its destructor kills and reaps
  EXPECT_FALSE(processExists(pid));

  Result<ChildProcess> killed = ChildProcess::start({"sleep", "30"});
  ASSERT_TRUE(killed);
  EXPECT_EQ(killed->kill(), 128 + SIGKILL);

  const Result<ChildProcess> missing = ChildProcess::start({"kvtrack-no-such-program"});
  EXPECT_EQ(missing.reason(), "cannot start kvtrack-no-such-program: No such file or directory");
  EXPECT_FALSE(ChildProcess::start({"printf", std::string("a\0b", 3)}));
}

TEST(ChildProcess, SpawnAndPipeFailuresComeBackWithTheirReason) {
  FaultySystemCalls calls;
  const ScopedSystemCalls inForce(calls);
  calls.failNth(Call::kSpawn, 1, EAGAIN);
  EXPECT_EQ(ChildProcess::start({"true"}).reason(), "cannot start true: Resource temporarily unavailable");
  calls.failNth(Call::kSpawn, 1, EAGAIN);
  EXPECT_EQ(runShellCommand("true"), -1);
  calls.failNth(Call::kPipe, 1, EMFILE);
  EXPECT_EQ(runShellCommandReadingOutput("echo lost").status, -1);
  calls.failNth(Call::kPipe, 2, EMFILE);
  EXPECT_EQ(ChildProcess::start({"cat"}, {ChildStream::pipe, ChildStream::pipe}).reason(),
            "cannot start cat: cannot create a pipe: Too many open files");
  calls.failNth(Call::kSpawn, 0, 0);
  EXPECT_EQ(runShellCommandReadingOutput("echo back").output, "back\n");
}

TEST(ChildProcess, ShortAndInterruptedReadsLoseNoByte) {
  FaultySystemCalls calls;
  calls.limitReads(7);
  const ScopedSystemCalls inForce(calls);
  const ShellOutput result = runShellCommandReadingOutput("seq 1 5000; echo gone >&2; exit 4");
  std::string expected;
  for (int n = 1; n <= 5000; ++n) expected += std::to_string(n) + "\n";
  EXPECT_EQ(result.status, 4);
  EXPECT_TRUE(result.output == expected);
  EXPECT_GT(calls.count(Call::kRead), 2 * 5000 * 4 / 7);
  EXPECT_EQ(runShellCommandReadingErrors("echo complaint >&2; exit 2").errors, "complaint\n");
}

}  // namespace
}  // namespace kvtrack
