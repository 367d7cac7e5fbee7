#include "kvtrack/support/ExternalProgram.h"

#include "kvtrack/support/FileHandling.h"
#include "kvtrack/support/Log.h"

#include "tests/common/ScopedEnvironment.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <future>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace kvtrack {
namespace {

namespace fs = std::filesystem;

using testing::ScopedEnvironment;

TEST(ExternalProgramStatus, ReportsExitStatusesAndSignals) {
  EXPECT_EQ(runShellCommand("true"), 0);
  EXPECT_EQ(runShellCommand("exit 3"), 3);
  EXPECT_EQ(runShellCommand("exit 255"), 255);
  EXPECT_EQ(runShellCommand("kill -TERM $$"), 128 + SIGTERM);
  EXPECT_EQ(runShellCommand("kill -KILL $$"), 128 + SIGKILL);
  EXPECT_EQ(runShellCommandReadingOutput("printf partial; exit 5").status, 5);
  EXPECT_EQ(runShellCommandReadingOutput("kill -KILL $$").status, 128 + SIGKILL);
}

TEST(ExternalProgramStatus, MissingProgramGives127) {
  EXPECT_EQ(runShellCommand("kvtrack-no-such-program-anywhere 2>/dev/null"), 127);
  EXPECT_EQ(runShellCommandReadingOutput("/nonexistent/folder/program 2>/dev/null").status, 127);
}

TEST(ExternalProgramStatus, NulByteInCommandLineIsRefused) {
  LogCapture log;
  EXPECT_EQ(runShellCommand(std::string("true\0; exit 4", 13)), -1);
  EXPECT_TRUE(log.contains("NUL"));
}

TEST(ExternalProgramOutput, ReadsOutputExactly) {
  ShellOutput plain = runShellCommandReadingOutput("printf 'no newline'");
  EXPECT_EQ(plain.status, 0);
  EXPECT_EQ(plain.output, "no newline");

  ShellOutput lines = runShellCommandReadingOutput("printf 'one\\ntwo\\n\\n'");
  EXPECT_EQ(lines.output, "one\ntwo\n\n");

  ShellOutput binary = runShellCommandReadingOutput("printf 'a\\000b\\377'");
  EXPECT_EQ(binary.output, std::string("a\0b\xff", 4));

  ShellOutput nothing = runShellCommandReadingOutput("true");
  EXPECT_EQ(nothing.status, 0);
  EXPECT_TRUE(nothing.output.empty());

  // Standard error is not part of the output.
  EXPECT_EQ(runShellCommandReadingOutput("printf out; printf err >&2").output, "out");
}

TEST(ExternalProgramOutput, ReadsSeveralMegabytes) {
  ShellOutput zeros = runShellCommandReadingOutput("head -c 8000001 /dev/zero");
  EXPECT_EQ(zeros.status, 0);
  ASSERT_EQ(zeros.output.size(), 8000001u);
  EXPECT_EQ(zeros.output.find_first_not_of('\0'), std::string::npos);

  // Counted lines catch lost or repeated chunks.
  ShellOutput numbers = runShellCommandReadingOutput("seq 1 600000");
  EXPECT_EQ(numbers.status, 0);
  std::istringstream stream(numbers.output);
  std::string line;
  long expected = 1;
  while (std::getline(stream, line)) {
    ASSERT_EQ(line, std::to_string(expected)) << "line " << expected;
    ++expected;
  }
  EXPECT_EQ(expected, 600001);
}

TEST(ExternalProgramOutput, ChildReadsNothingAndGetsDefaultSigpipe) {
  // With our standard input the child would wait for the terminal.
  EXPECT_EQ(runShellCommandReadingOutput("cat").output, "");
  EXPECT_EQ(std::stoi(runShellCommandReadingOutput("wc -c").output), 0);
  // yes stops only through SIGPIPE once head has had enough.
  ShellOutput piped = runShellCommandReadingOutput("yes | head -n 3");
  EXPECT_EQ(piped.status, 0);
  EXPECT_EQ(piped.output, "y\ny\ny\n");
}

TEST(ExternalProgramOutput, CommandLineIsLoggedBeforeItRuns) {
  const std::string flag =
      (fs::temp_directory_path() / ("kvtrack-flag-" + FileHandling::guid())).string();
  // The command waits up to ten seconds for a file that the test creates
  // only after it saw the log line.
  const std::string command = "i=0; while [ ! -e " + FileHandling::filenameForShell(flag) +
                              " ]; do i=$((i+1)); [ $i -gt 1000 ] && exit 1; sleep 0.01; "
                              "done; exit 0";
  LogCapture log;
  auto running = std::async(std::launch::async, [&] { return runShellCommand(command); });
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (!log.contains(command) && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  { std::ofstream(flag) << "go"; }
  EXPECT_EQ(running.get(), 0);
  fs::remove(flag);
  const std::vector<std::string> lines = log.lines();
  ASSERT_FALSE(lines.empty());
  EXPECT_EQ(lines.front(), command);

  log.clear();
  runShellCommandReadingOutput("printf 'logged\nwith a newline'");
  ASSERT_FALSE(log.lines().empty());
  EXPECT_EQ(log.lines().front(), "printf 'logged\nwith a newline'");
}

TEST(ExternalProgramEnvironment, ChildGetsAPrivateTmpdirWhenNoneIsSet) {
  const std::string sandbox = FileHandling::singleton().sandbox();
  ASSERT_FALSE(sandbox.empty());
  {
    ScopedEnvironment unset("TMPDIR", std::nullopt);
    EXPECT_EQ(runShellCommandReadingOutput("printf '%s' \"$TMPDIR\"").output, sandbox);
  }
  {
    ScopedEnvironment empty("TMPDIR", "");
    EXPECT_EQ(runShellCommandReadingOutput("printf '%s' \"$TMPDIR\"").output, sandbox);
    EXPECT_EQ(runShellCommandReadingOutput("env | grep -c '^TMPDIR='").output, "1\n");
  }
  {
    ScopedEnvironment chosen("TMPDIR", "/var/tmp");
    EXPECT_EQ(runShellCommandReadingOutput("printf '%s' \"$TMPDIR\"").output, "/var/tmp");
  }
  struct stat info {};
  ASSERT_EQ(stat(sandbox.c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0700u);
}

TEST(ExternalProgramEnvironment, OnlyInheritableDescriptorsReachTheChild) {
  std::set<std::string> allowed = {"0", "1", "2"};
  for (const auto& entry : fs::directory_iterator("/proc/self/fd")) {
    int descriptor = std::stoi(entry.path().filename().string());
    int flags = fcntl(descriptor, F_GETFD);
    if (flags >= 0 && !(flags & FD_CLOEXEC)) allowed.insert(entry.path().filename().string());
  }
  ShellOutput listing = runShellCommandReadingOutput("ls /proc/$$/fd");
  ASSERT_EQ(listing.status, 0);
  std::istringstream stream(listing.output);
  std::string descriptor;
  while (stream >> descriptor) {
    EXPECT_TRUE(allowed.count(descriptor)) << "descriptor " << descriptor << " leaked";
  }
}

TEST(ExternalProgramThreads, ConcurrentCommandsKeepTheirOwnOutput) {
  std::vector<std::future<ShellOutput>> runs;
  for (int i = 0; i < 12; ++i) {
    runs.push_back(std::async(std::launch::async, [i] {
      return runShellCommandReadingOutput("sleep 0.1; seq " + std::to_string(i * 1000) + " " +
                                          std::to_string(i * 1000 + 20000) + "; exit " +
                                          std::to_string(i));
    }));
  }
  for (int i = 0; i < 12; ++i) {
    ShellOutput result = runs[i].get();
    EXPECT_EQ(result.status, i);
    std::string expected;
    for (int n = i * 1000; n <= i * 1000 + 20000; ++n) expected += std::to_string(n) + "\n";
    EXPECT_EQ(result.output, expected);
  }
}

}  // namespace
}  // namespace kvtrack
