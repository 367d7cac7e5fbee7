#pragma once
// Runs the real wayfolio program on a scratch library, with settings of its
// own so that a developer's unit choice never changes the expected output.

#include "kvtrack/support/ExternalProgram.h"
#include "kvtrack/support/FileHandling.h"
#include "kvtrack/support/Log.h"
#include "tests/common/ScratchFolder.h"
#include "tests/photos/PhotoTestSupport.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

namespace kvtrack::testing {

struct WayfolioRun {
  int status = -1;
  std::string out;
  std::string err;
};

class WayfolioTest : public ::testing::Test {
 protected:
  // The shell lines logged for every run would bury the test output.
  WayfolioTest() { setLogToStandardError(false); }
  ~WayfolioTest() override { setLogToStandardError(true); }

  static constexpr const char* kHike = "'Bachalpsee hike'";

  /// One shell word for a path or a name.
  static std::string word(const std::string& text) { return FileHandling::filenameForShell(text); }

  static std::string examples(const std::string& name = {}) {
    const auto folder = std::filesystem::path(KVTRACK_SOURCE_DIR) / "examples";
    return (name.empty() ? folder : folder / name).string();
  }

  std::string library() const { return scratch.file("library"); }

  /// The arguments are shell words: paths and names through word().
  WayfolioRun runOn(const std::string& libraryFolder, const std::string& arguments) const {
    return runProgram(word(WAYFOLIO_BINARY), libraryFolder, arguments);
  }
  /// The same program with one system call failing ("write:3:ENOSPC").
  WayfolioRun runWithFault(const std::string& fault, const std::string& arguments) const {
    return runProgram("WAYFOLIO_TEST_FAULT=" + word(fault) + " " + word(WAYFOLIO_WITH_FAULTS), library(),
                      arguments);
  }
  /// The shell text in `then` follows the command line.
  WayfolioRun runProgram(const std::string& program, const std::string& libraryFolder,
                         const std::string& arguments, const std::string& then = {}) const {
    const std::string errors = scratch.file("stderr.txt");
    const ShellOutput result = runShellCommandReadingOutput(
        "WAYFOLIO_SETTINGS=" + word(scratch.file("settings.toml")) + " " + program + " --library " +
        word(libraryFolder) + " " + arguments + " 2>" + word(errors) + then);
    return {result.status, result.output, ScratchFolder::read(errors)};
  }
  WayfolioRun run(const std::string& arguments) const { return runOn(library(), arguments); }
  /// Starts the program, then presses Ctrl-C until it ends.
  WayfolioRun runInterrupted(const std::string& program, const std::string& arguments) const {
    return runProgram(program, library(), arguments,
                      " & pid=$!; sleep 1; while kill -INT $pid 2>/dev/null; do sleep 0.2; done; wait $pid");
  }

  /// Runs a command that must succeed; its standard output.
  std::string ok(const std::string& arguments) const {
    const WayfolioRun result = run(arguments);
    EXPECT_EQ(result.status, 0) << arguments << "\n" << result.err;
    return result.out;
  }

  void importExamples() {
    ASSERT_NE(ok("import " + word(examples())).find("3 tracks added"), std::string::npos);
  }

  /// A photo in the scratch photos folder whose camera clock read that local time.
  std::string photo(const std::string& name, const std::string& wallClock,
                    std::vector<std::string> tags = {}) const {
    const std::string path = scratch.file("photos/" + name);
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    tags.push_back("DateTimeOriginal=" + wallClock);
    EXPECT_TRUE(makeJpeg(path, tags)) << name;
    return path;
  }
  std::string photos() const { return word(scratch.file("photos")); }

  static std::vector<std::string> lines(const std::string& text) {
    std::vector<std::string> found;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) found.push_back(line);
    return found;
  }

  /// The output line that contains the text; "" when none does.
  static std::string lineWith(const std::string& output, const std::string& text) {
    for (const std::string& line : lines(output)) {
      if (line.find(text) != std::string::npos) return line;
    }
    return {};
  }

  static size_t lineCount(const std::string& output) {
    return static_cast<size_t>(std::count(output.begin(), output.end(), '\n'));
  }

  ScratchFolder scratch;
};

}  // namespace kvtrack::testing
