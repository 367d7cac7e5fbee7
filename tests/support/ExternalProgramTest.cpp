#include "kvtrack/support/ExternalProgram.h"

#include "kvtrack/support/FileHandling.h"
#include "kvtrack/support/Log.h"
#include "tests/common/ScopedEnvironment.h"
#include "tests/common/ScratchFolder.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <future>
#include <set>
#include <sstream>
#include <thread>

namespace kvtrack {
namespace {

TEST(ExternalProgram, ReportsExitStatusesSignalsAndMissingPrograms) {
  const std::pair<const char*, int> cases[] = {
      {"true", 0},
      {"exit 3", 3},
      {"exit 255", 255},
      {"printf partial; exit 5", 5},
      {"kill -TERM $$", 128 + SIGTERM},
      {"kill -KILL $$", 128 + SIGKILL},
      {"kvtrack-no-such-program-anywhere 2>/dev/null", 127},
      {"/nonexistent/folder/program 2>/dev/null", 127},
  };
  for (const auto& [command, status] : cases) {
    EXPECT_EQ(runShellCommand(command), status) << command;
    EXPECT_EQ(runShellCommandReadingOutput(command).status, status) << command;
  }
  LogCapture log;
  EXPECT_EQ(runShellCommand(std::string("true\0; exit 4", 13)), -1);
  EXPECT_TRUE(log.contains("NUL"));
}

TEST(ExternalProgram, ReadsStandardOutputExactlyAndGivesNoInput) {
  const std::pair<const char*, std::string> cases[] = {
      {"printf 'no newline'", "no newline"},
      {"printf 'one\\ntwo\\n\\n'", "one\ntwo\n\n"},
      {"printf 'a\\000b\\377'", std::string("a\0b\xff", 4)},
      {"true", ""},
      {"printf out; printf err >&2", "out"},  // standard error is not part of it
      {"cat", ""},                            // with our input it would wait for the terminal
      {"wc -c | tr -d ' '", "0\n"},
      {"yes | head -n 3", "y\ny\ny\n"},       // yes stops only through the default SIGPIPE
  };
  for (const auto& [command, output] : cases) {
    const ShellOutput result = runShellCommandReadingOutput(command);
    EXPECT_EQ(result.status, 0) << command;
    EXPECT_EQ(result.output, output) << command;
  }
}

TEST(ExternalProgram, ConcurrentCommandsKeepTheirOwnLargeOutputsAndStatuses) {
  std::vector<std::future<ShellOutput>> runs;
  const auto range = [](int i) { return std::pair(i * 1000, i * 1000 + 300000); };
  for (int i = 0; i < 6; ++i) {
    runs.push_back(std::async(std::launch::async, [i, range] {
      return runShellCommandReadingOutput("sleep 0.1; seq " + std::to_string(range(i).first) +
                                          " " + std::to_string(range(i).second) + "; exit " +
                                          std::to_string(i));
    }));
  }
  for (int i = 0; i < 6; ++i) {
    const ShellOutput result = runs[i].get();
    EXPECT_EQ(result.status, i);
    std::string expected;  // megabytes; counted lines catch lost or repeated chunks
    for (int n = range(i).first; n <= range(i).second; ++n) expected += std::to_string(n) + "\n";
    EXPECT_EQ(result.output.size(), expected.size()) << i;
    EXPECT_TRUE(result.output == expected) << i;
  }
}

TEST(ExternalProgram, CommandLineIsLoggedBeforeItRuns) {
  testing::ScratchFolder folder;
  // The command waits up to ten seconds for a file that the test creates only
  // after it saw the log line; its line break stays in the one log entry.
  const std::string command = "i=0\nwhile [ ! -e " + FileHandling::filenameForShell(folder.file("flag")) +
                              " ]; do i=$((i+1)); [ $i -gt 1000 ] && exit 1; sleep 0.01; done";
  LogCapture log;
  auto running = std::async(std::launch::async, [&] { return runShellCommand(command); });
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (!log.contains(command) && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  folder.write("flag", "go");
  EXPECT_EQ(running.get(), 0);
  ASSERT_FALSE(log.lines().empty());
  EXPECT_EQ(log.lines().front(), command);
}

TEST(ExternalProgram, ChildGetsAPrivateTmpdirWhenNoneIsSet) {
  const std::string sandbox = FileHandling::singleton().sandbox();
  ASSERT_FALSE(sandbox.empty());
  for (const auto& [value, expected] : std::vector<std::pair<std::optional<std::string>, std::string>>{
           {std::nullopt, sandbox}, {"", sandbox}, {"/var/tmp", "/var/tmp"}}) {
    testing::ScopedEnvironment tmpdir("TMPDIR", value);
    EXPECT_EQ(runShellCommandReadingOutput("printf '%s' \"$TMPDIR\"").output, expected);
    EXPECT_EQ(runShellCommandReadingOutput("env | grep -c '^TMPDIR='").output, "1\n");
  }
}

TEST(ExternalProgram, OnlyInheritableDescriptorsReachTheChild) {
  std::set<std::string> allowed = {"0", "1", "2"};
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    const int flags = fcntl(std::stoi(entry.path().filename().string()), F_GETFD);
    if (flags >= 0 && !(flags & FD_CLOEXEC)) allowed.insert(entry.path().filename().string());
  }
  const ShellOutput listing = runShellCommandReadingOutput("ls /proc/$$/fd");
  ASSERT_EQ(listing.status, 0);
  std::istringstream stream(listing.output);
  std::string descriptor;
  while (stream >> descriptor) {
    EXPECT_TRUE(allowed.count(descriptor)) << "descriptor " << descriptor << " leaked";
  }
}

}  // namespace
}  // namespace kvtrack
