#include "kvtrack/support/FileHandling.h"

#include "kvtrack/support/ExternalProgram.h"
#include "tests/common/ScopedEnvironment.h"
#include "tests/common/ScratchFolder.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <regex>
#include <set>
#include <string>
#include <vector>

namespace kvtrack {
namespace {

namespace fs = std::filesystem;
using testing::ScopedEnvironment;
using testing::ScratchFolder;
using Words = std::vector<std::string>;

// Names that break careless quoting; "pwned" is the file an escape would create.
const Words kNastyNames = {
    "it's",        "'",         "''",          "\\'",       "$(touch pwned)",
    "`touch pwned`", "a;touch pwned", "a && touch pwned #", "a\nb",    "\n",
    "-rf",         "--help",    "with space",  "  padded  ", "Zürich 東京",
    "\xff\xfe invalid", "\xc3",  "\\",          "\"",        "\"'\"'",
    "!",           "!!",        "*",           "?",         "~",
    "$HOME",       "${HOME}",   "a|b",         "a>b",       "\t\r\x1b[31m",
    "%s%n",        "#comment",  "{a,b}",       "[ab]",      "\x7f\x80\x9f",
};

// The nasty names, every single byte, every byte in one word, and the empty word.
Words wordsToQuote() {
  Words words = kNastyNames;
  std::string everyByte;
  for (int byte = 1; byte < 256; ++byte) {
    words.emplace_back(1, static_cast<char>(byte));
    words.push_back(std::string("a") + static_cast<char>(byte) + "b");
    everyByte += static_cast<char>(byte);
  }
  words.push_back(everyByte);
  words.emplace_back();
  return words;
}

// Runs printf in the folder with the words and splits what it printed at the NUL bytes.
Words printedBy(const ScratchFolder& folder, const std::string& words) {
  const ShellOutput result = runShellCommandReadingOutput(
      "cd " + FileHandling::filenameForShell(folder.path().string()) + " && printf '%s\\0'" + words);
  EXPECT_EQ(result.status, 0);
  Words printed;
  for (size_t start = 0, end; (end = result.output.find('\0', start)) != std::string::npos;
       start = end + 1) {
    printed.push_back(result.output.substr(start, end - start));
  }
  return printed;
}

TEST(FileHandlingShellQuoting, TheShellHandsOnExactlyTheBytesAndRunsNothing) {
  ScratchFolder folder;
  const Words words = wordsToQuote();
  std::string quoted, doubleQuoted;
  Words expected;
  for (const std::string& word : words) {
    quoted += " " + FileHandling::filenameForShell(word);
    doubleQuoted += " \"" + FileHandling::stringForShell(word) + "\"";
    // A leading '-' gets "./" in front, so no program takes the word for an option.
    expected.push_back(!word.empty() && word.front() == '-' ? "./" + word : word);
  }
  EXPECT_EQ(printedBy(folder, quoted), expected);
  EXPECT_EQ(printedBy(folder, doubleQuoted), words);
  EXPECT_TRUE(fs::is_empty(folder.path()));
}

TEST(FileHandlingFileNames, OneHarmlessNameForAnyText) {
  std::string accents;
  for (int i = 0; i < 150; ++i) accents += "é";
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"a/b\\c:d*e?f\"g<h>i|j", "a_b_c_d_e_f_g_h_i_j"},
      {"tab\there\x01\x1f\x7f", "tab_here___"},
      {"a\xc2\x85" "b", "a_b"},
      {"Track 2024-05-01, Zürich 東京", "Track 2024-05-01, Zürich 東京"},
      // no hidden files, no blanks around, never empty
      {".hidden", "_hidden"}, {"..", "_."}, {".", "_"}, {"  .x  ", "_x"}, {"a.b.c", "a.b.c"},
      {"  name \n", "name"}, {"\xe3\x80\x80wide blank", "wide blank"}, {"", "_"}, {" \t\n ", "_"},
      // invalid UTF-8
      {"ab\xff" "cd", "ab_cd"}, {"end\xc3", "end_"},
      // at most 200 bytes, without cutting a character or leaving a blank at the end
      {accents, accents.substr(0, 200)},
      {"a" + accents, "a" + accents.substr(0, 198)},
      {std::string(199, 'a') + " b", std::string(199, 'a')},
  };
  for (const auto& [name, expected] : cases) {
    EXPECT_EQ(FileHandling::filenameWithoutSpecialCharacters(name), expected) << name;
  }
  // Overlong and surrogate encodings are invalid too.
  for (std::string bad : {"x\xc0\xafy", "x\xed\xa0\x80y", "x\xf8\x88\x80\x80\x80y"}) {
    const std::string clean = FileHandling::filenameWithoutSpecialCharacters(bad);
    EXPECT_EQ(clean.front(), 'x');
    EXPECT_EQ(clean.back(), 'y');
    EXPECT_EQ(clean.find_first_not_of("xy_"), std::string::npos) << clean;
  }
}

TEST(FileHandlingFileNames, ResultIsStableAndUsableForEveryByte) {
  ScratchFolder folder;
  std::set<std::string> names;
  for (int byte = 0; byte < 256; ++byte) {
    const std::string clean = FileHandling::filenameWithoutSpecialCharacters(
        std::string("x") + static_cast<char>(byte) + "y");
    EXPECT_EQ(FileHandling::filenameWithoutSpecialCharacters(clean), clean) << byte;
    folder.write(clean, "x");
    EXPECT_TRUE(fs::is_regular_file(folder.file(clean))) << byte;
    names.insert(clean);
  }
  EXPECT_EQ(std::distance(fs::directory_iterator(folder.path()), {}),
            static_cast<long>(names.size()));
}

TEST(FileHandlingGuid, IsAnUpperCaseRandomUuidAndUnique) {
  const std::regex version4("[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}");
  std::set<std::string> seen;
  for (int i = 0; i < 1000; ++i) {
    const std::string guid = FileHandling::guid();
    EXPECT_TRUE(std::regex_match(guid, version4)) << guid;
    seen.insert(guid);
  }
  EXPECT_EQ(seen.size(), 1000u);
}

TEST(FileHandlingAlias, FollowsChainsOfLinksAndLeavesEverythingElseAlone) {
  ScratchFolder folder;
  fs::create_directories(folder.file("data"));
  fs::create_directories(folder.file("links"));
  const std::string target = folder.write("data/track.gpx", "gpx");
  fs::create_symlink("track.gpx", folder.file("data/last"));
  fs::create_symlink("../data/last", folder.file("links/middle"));
  fs::create_symlink("middle", folder.file("links/first"));
  const std::string resolved = FileHandling::resolveAlias(folder.file("links/first"));
  EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(resolved))) << resolved;
  EXPECT_TRUE(fs::equivalent(resolved, target)) << resolved;
  fs::create_symlink(target, folder.file("absolute"));
  EXPECT_EQ(FileHandling::resolveAlias(folder.file("absolute")), target);

  fs::create_symlink("nowhere", folder.file("dangling"));
  fs::create_symlink("loopB", folder.file("loopA"));
  fs::create_symlink("loopA", folder.file("loopB"));
  for (const std::string& path :
       {target, folder.file("missing"), folder.file("dangling"), folder.file("loopA"), std::string()}) {
    EXPECT_EQ(FileHandling::resolveAlias(path), path);
  }
}

TEST(FileHandlingFolders, LibraryAndLocationCachePrecedence) {
  ScratchFolder folder;
  ScopedEnvironment home("HOME", folder.file("home"));
  // Each folder is made on first use.
  const auto expectFolder = [](const std::string& actual, const std::string& expected) {
    EXPECT_EQ(actual, expected);
    EXPECT_TRUE(fs::is_directory(expected)) << expected;
  };
  {
    ScopedEnvironment library("WAYFOLIO_LIBRARY", folder.file("library"));
    ScopedEnvironment data("XDG_DATA_HOME", folder.file("data"));
    ScopedEnvironment cache("XDG_CACHE_HOME", folder.file("cache"));
    FileHandling files;
    expectFolder(files.userApplicationSupport(), folder.file("library"));
    expectFolder(files.writableLocationCache(), folder.file("cache/wayfolio/locations"));
  }
  {
    ScopedEnvironment library("WAYFOLIO_LIBRARY", "");
    ScopedEnvironment data("XDG_DATA_HOME", folder.file("data"));
    FileHandling files;
    expectFolder(files.userApplicationSupport(), folder.file("data/wayfolio"));
  }
  ScopedEnvironment library("WAYFOLIO_LIBRARY", std::nullopt);
  ScopedEnvironment data("XDG_DATA_HOME", "relative/ignored");
  ScopedEnvironment cache("XDG_CACHE_HOME", std::nullopt);
  FileHandling files;
  expectFolder(files.userApplicationSupport(), folder.file("home/.local/share/wayfolio"));
  expectFolder(files.writableLocationCache(), folder.file("home/.cache/wayfolio/locations"));
  files.setUserApplicationSupport(folder.file("chosen/deep"));
  expectFolder(files.userApplicationSupport(), folder.file("chosen/deep"));
  ScopedEnvironment noHome("HOME", std::nullopt);  // then the user database knows it
  EXPECT_TRUE(fs::path(FileHandling::homeFolder()).is_absolute());
}

TEST(FileHandlingFolders, SandboxIsPrivateStableAndRemovedAfterwards) {
  ScratchFolder folder;
  ScopedEnvironment temporary("TMPDIR", folder.path().string());
  std::string sandbox;
  {
    FileHandling files;
    sandbox = files.sandbox();
    ASSERT_FALSE(sandbox.empty());
    EXPECT_EQ(fs::path(sandbox).parent_path(), folder.path());
    EXPECT_EQ(files.sandbox(), sandbox);
    struct stat info {};
    ASSERT_EQ(stat(sandbox.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0700u);
    fs::create_directories(sandbox + "/inner");
    std::ofstream(sandbox + "/inner/file") << "x";
  }
  EXPECT_FALSE(fs::exists(sandbox));
  // A folder handed in belongs to the caller and stays.
  fs::create_directories(folder.file("given"));
  {
    FileHandling files;
    files.setSandbox(folder.file("given"));
    EXPECT_EQ(files.sandbox(), folder.file("given"));
  }
  EXPECT_TRUE(fs::is_directory(folder.file("given")));
}

}  // namespace
}  // namespace kvtrack
