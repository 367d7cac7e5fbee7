#include "kvtrack/support/FileHandling.h"

#include "kvtrack/support/ExternalProgram.h"

#include "tests/common/ScopedEnvironment.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace kvtrack {
namespace {

namespace fs = std::filesystem;

// Sets or unsets an environment variable for one test.
using testing::ScopedEnvironment;

class TemporaryFolder {
 public:
  TemporaryFolder() {
    std::string pattern = (fs::temp_directory_path() / "kvtrack-test-XXXXXX").string();
    path_ = mkdtemp(pattern.data()) ? pattern : std::string();
  }
  ~TemporaryFolder() {
    std::error_code ignored;
    fs::remove_all(path_, ignored);
  }
  const std::string& path() const { return path_; }
  std::string operator/(std::string_view name) const { return path_ + "/" + std::string(name); }

 private:
  std::string path_;
};

void writeFile(const std::string& path, const std::string& content) {
  std::ofstream(path, std::ios::binary) << content;
}

// Names that break careless quoting; "pwned" is the file an escape would create.
const std::vector<std::string> kNastyNames = {
    "it's",        "'",         "''",          "\\'",       "$(touch pwned)",
    "`touch pwned`", "a;touch pwned", "a && touch pwned #", "a\nb",    "\n",
    "-rf",         "--help",    "with space",  "  padded  ", "Zürich 東京",
    "\xff\xfe invalid", "\xc3",  "\\",          "\"",        "\"'\"'",
    "!",           "!!",        "*",           "?",         "~",
    "$HOME",       "${HOME}",   "a|b",         "a>b",       "\t\r\x1b[31m",
    "%s%n",        "#comment",  "{a,b}",       "[ab]",      "\x7f\x80\x9f",
};

std::string everyByte() {
  std::string bytes;
  for (int byte = 1; byte < 256; ++byte) bytes += static_cast<char>(byte);
  return bytes;
}

// What the shell hands to a program for filenameForShell(text).
std::string expectedWord(const std::string& text) {
  return !text.empty() && text.front() == '-' ? "./" + text : text;
}

TEST(FileHandlingShellQuoting, PrintfSeesExactlyTheBytesOfEachSingleByte) {
  TemporaryFolder folder;
  for (int byte = 1; byte < 256; ++byte) {
    const std::string text = std::string("a") + static_cast<char>(byte) + "b";
    const std::string alone(1, static_cast<char>(byte));
    ShellOutput result = runShellCommandReadingOutput(
        "cd " + FileHandling::filenameForShell(folder.path()) + " && printf '%s|%s' " +
        FileHandling::filenameForShell(text) + " " + FileHandling::filenameForShell(alone));
    EXPECT_EQ(result.status, 0) << "byte " << byte;
    EXPECT_EQ(result.output, text + "|" + expectedWord(alone)) << "byte " << byte;
  }
  EXPECT_TRUE(fs::is_empty(folder.path()));
}

TEST(FileHandlingShellQuoting, PrintfSeesExactlyTheNastyNames) {
  TemporaryFolder folder;
  std::vector<std::string> names = kNastyNames;
  names.push_back(everyByte());
  names.push_back("");
  for (const std::string& name : names) {
    ShellOutput result =
        runShellCommandReadingOutput("cd " + FileHandling::filenameForShell(folder.path()) +
                                     " && printf '%s' " + FileHandling::filenameForShell(name));
    EXPECT_EQ(result.status, 0) << name;
    EXPECT_EQ(result.output, expectedWord(name)) << name;
  }
  EXPECT_FALSE(fs::exists(folder / "pwned"));
}

TEST(FileHandlingShellQuoting, CatReadsFilesWithNastyNames) {
  TemporaryFolder folder;
  std::vector<std::string> names;
  for (const std::string& name : kNastyNames) {
    if (name.find('/') == std::string::npos) names.push_back(name);
  }
  for (int byte = 1; byte < 256; ++byte) {
    if (byte != '/') names.push_back(std::string("f") + static_cast<char>(byte));
  }
  std::string absoluteWords;
  std::string relativeWords;
  std::string expected;
  for (size_t i = 0; i < names.size(); ++i) {
    const std::string content = "<" + std::to_string(i) + ">";
    writeFile(folder / names[i], content);
    absoluteWords += " " + FileHandling::filenameForShell(folder / names[i]);
    relativeWords += " " + FileHandling::filenameForShell(names[i]);
    expected += content;
  }
  ShellOutput absolute = runShellCommandReadingOutput("cat" + absoluteWords);
  EXPECT_EQ(absolute.status, 0);
  EXPECT_EQ(absolute.output, expected);
  // Relative names like "-rf" only work thanks to the "./" in front.
  ShellOutput relative = runShellCommandReadingOutput(
      "cd " + FileHandling::filenameForShell(folder.path()) + " && cat" + relativeWords);
  EXPECT_EQ(relative.status, 0);
  EXPECT_EQ(relative.output, expected);
  EXPECT_FALSE(fs::exists(folder / "pwned"));
}

TEST(FileHandlingShellQuoting, EmptyPathIsOneEmptyWord) {
  EXPECT_EQ(FileHandling::filenameForShell(""), "''");
  ShellOutput result = runShellCommandReadingOutput(
      "set -- " + FileHandling::filenameForShell("") + "; printf '%s' \"$#\"");
  EXPECT_EQ(result.output, "1");
}

TEST(FileHandlingShellQuoting, StringForShellSurvivesDoubleQuotes) {
  TemporaryFolder folder;
  std::vector<std::string> values = kNastyNames;
  values.push_back(everyByte());
  values.push_back("");
  for (int byte = 1; byte < 256; ++byte) values.emplace_back(1, static_cast<char>(byte));
  for (const std::string& value : values) {
    ShellOutput result = runShellCommandReadingOutput(
        "cd " + FileHandling::filenameForShell(folder.path()) + " && printf '%s' \"" +
        FileHandling::stringForShell(value) + "\"");
    EXPECT_EQ(result.status, 0) << value;
    EXPECT_EQ(result.output, value) << value;
  }
  EXPECT_FALSE(fs::exists(folder / "pwned"));
}

TEST(FileHandlingFileNames, ReplacesSeparatorsAndReservedCharacters) {
  EXPECT_EQ(FileHandling::filenameWithoutSpecialCharacters("a/b\\c:d*e?f\"g<h>i|j"),
            "a_b_c_d_e_f_g_h_i_j");
  EXPECT_EQ(FileHandling::filenameWithoutSpecialCharacters("tab\there\x01\x1f\x7f"),
            "tab_here___");
  EXPECT_EQ(FileHandling::filenameWithoutSpecialCharacters("a\xc2\x85" "b"), "a_b");
  EXPECT_EQ(FileHandling::filenameWithoutSpecialCharacters("Track 2024-05-01, Zürich 東京"),
            "Track 2024-05-01, Zürich 東京");
}

TEST(FileHandlingFileNames, NoHiddenFilesNoBlanksNeverEmpty) {
  EXPECT_EQ(FileHandling::filenameWithoutSpecialCharacters(".hidden"), "_hidden");
  EXPECT_EQ(FileHandling::filenameWithoutSpecialCharacters(".."), "_.");
  EXPECT_EQ(FileHandling::filenameWithoutSpecialCharacters("."), "_");
  EXPECT_EQ(FileHandling::filenameWithoutSpecialCharacters("  .x  "), "_x");
  EXPECT_EQ(FileHandling::filenameWithoutSpecialCharacters("  name \n"), "name");
  EXPECT_EQ(FileHandling::filenameWithoutSpecialCharacters("\xe3\x80\x80wide blank"),
            "wide blank");
  EXPECT_EQ(FileHandling::filenameWithoutSpecialCharacters(""), "_");
  EXPECT_EQ(FileHandling::filenameWithoutSpecialCharacters(" \t\n "), "_");
  EXPECT_EQ(FileHandling::filenameWithoutSpecialCharacters("a.b.c"), "a.b.c");
}

TEST(FileHandlingFileNames, InvalidUtf8BecomesUnderscores) {
  EXPECT_EQ(FileHandling::filenameWithoutSpecialCharacters("ab\xff" "cd"), "ab_cd");
  EXPECT_EQ(FileHandling::filenameWithoutSpecialCharacters("end\xc3"), "end_");
  // Overlong and surrogate encodings are invalid too.
  for (std::string bad : {"x\xc0\xafy", "x\xed\xa0\x80y", "x\xf8\x88\x80\x80\x80y"}) {
    std::string clean = FileHandling::filenameWithoutSpecialCharacters(bad);
    EXPECT_EQ(clean.front(), 'x');
    EXPECT_EQ(clean.back(), 'y');
    EXPECT_EQ(clean.find_first_not_of("xy_"), std::string::npos) << clean;
  }
}

TEST(FileHandlingFileNames, CapsAt200BytesWithoutCuttingCharacters) {
  std::string accents;
  for (int i = 0; i < 150; ++i) accents += "é";
  EXPECT_EQ(FileHandling::filenameWithoutSpecialCharacters(accents), accents.substr(0, 200));
  EXPECT_EQ(FileHandling::filenameWithoutSpecialCharacters("a" + accents),
            "a" + accents.substr(0, 198));
  // A cut right after a blank must not leave it at the end.
  EXPECT_EQ(FileHandling::filenameWithoutSpecialCharacters(std::string(199, 'a') + " b"),
            std::string(199, 'a'));
}

TEST(FileHandlingFileNames, ResultIsStableAndUsableForEveryByte) {
  TemporaryFolder folder;
  std::set<std::string> names;
  for (int byte = 0; byte < 256; ++byte) {
    std::string clean = FileHandling::filenameWithoutSpecialCharacters(
        std::string("x") + static_cast<char>(byte) + "y");
    EXPECT_EQ(FileHandling::filenameWithoutSpecialCharacters(clean), clean) << byte;
    EXPECT_LE(clean.size(), 200u);
    writeFile(folder / clean, "x");
    EXPECT_TRUE(fs::is_regular_file(folder / clean)) << byte;
    names.insert(clean);
  }
  EXPECT_EQ(std::distance(fs::directory_iterator(folder.path()), fs::directory_iterator()),
            static_cast<long>(names.size()));
}

TEST(FileHandlingGuid, IsAnUpperCaseRandomUuidAndUnique) {
  // 8-4-4-4-12 upper-case hex digits, version 4, variant 10xx.
  auto wellFormed = [](const std::string& guid) {
    if (guid.size() != 36 || guid[14] != '4' || !std::strchr("89AB", guid[19])) return false;
    for (size_t i = 0; i < guid.size(); ++i) {
      const bool dash = i == 8 || i == 13 || i == 18 || i == 23;
      if (dash ? guid[i] != '-' : !std::strchr("0123456789ABCDEF", guid[i])) return false;
    }
    return true;
  };
  std::set<std::string> seen;
  for (int i = 0; i < 1000; ++i) {
    std::string guid = FileHandling::guid();
    EXPECT_TRUE(wellFormed(guid)) << guid;
    seen.insert(guid);
  }
  EXPECT_EQ(seen.size(), 1000u);
}

TEST(FileHandlingAlias, FollowsAChainOfRelativeLinks) {
  TemporaryFolder folder;
  fs::create_directories(folder / "data");
  fs::create_directories(folder / "links");
  writeFile(folder / "data/track.gpx", "gpx");
  fs::create_symlink("track.gpx", folder / "data/last");
  fs::create_symlink("../data/last", folder / "links/middle");
  fs::create_symlink("middle", folder / "links/first");

  std::string resolved = FileHandling::resolveAlias(folder / "links/first");
  EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(resolved))) << resolved;
  EXPECT_TRUE(fs::equivalent(resolved, folder / "data/track.gpx")) << resolved;

  fs::create_symlink(folder / "data/track.gpx", folder / "absolute");
  EXPECT_EQ(FileHandling::resolveAlias(folder / "absolute"), folder / "data/track.gpx");
}

TEST(FileHandlingAlias, LeavesEverythingElseAlone) {
  TemporaryFolder folder;
  writeFile(folder / "plain", "x");
  EXPECT_EQ(FileHandling::resolveAlias(folder / "plain"), folder / "plain");
  EXPECT_EQ(FileHandling::resolveAlias(folder / "missing"), folder / "missing");
  fs::create_symlink("nowhere", folder / "dangling");
  EXPECT_EQ(FileHandling::resolveAlias(folder / "dangling"), folder / "dangling");
  fs::create_symlink("loopB", folder / "loopA");
  fs::create_symlink("loopA", folder / "loopB");
  EXPECT_EQ(FileHandling::resolveAlias(folder / "loopA"), folder / "loopA");
  EXPECT_EQ(FileHandling::resolveAlias(""), "");
}

TEST(FileHandlingFolders, LibraryFolderPrecedence) {
  TemporaryFolder folder;
  ScopedEnvironment home("HOME", folder / "home");
  {
    ScopedEnvironment library("WAYFOLIO_LIBRARY", folder / "library");
    ScopedEnvironment data("XDG_DATA_HOME", folder / "data");
    FileHandling files;
    EXPECT_EQ(files.userApplicationSupport(), folder / "library");
    EXPECT_TRUE(fs::is_directory(folder / "library"));
  }
  {
    ScopedEnvironment library("WAYFOLIO_LIBRARY", "");
    ScopedEnvironment data("XDG_DATA_HOME", folder / "data");
    FileHandling files;
    EXPECT_EQ(files.userApplicationSupport(), folder / "data/wayfolio");
    EXPECT_TRUE(fs::is_directory(folder / "data/wayfolio"));
  }
  {
    ScopedEnvironment library("WAYFOLIO_LIBRARY", std::nullopt);
    ScopedEnvironment data("XDG_DATA_HOME", "relative/ignored");
    FileHandling files;
    EXPECT_EQ(files.userApplicationSupport(), folder / "home/.local/share/wayfolio");
    EXPECT_TRUE(fs::is_directory(folder / "home/.local/share/wayfolio"));
    files.setUserApplicationSupport(folder / "chosen/deep");
    EXPECT_EQ(files.userApplicationSupport(), folder / "chosen/deep");
    EXPECT_TRUE(fs::is_directory(folder / "chosen/deep"));
  }
}

TEST(FileHandlingFolders, LocationCachePrecedence) {
  TemporaryFolder folder;
  ScopedEnvironment home("HOME", folder / "home");
  {
    ScopedEnvironment cache("XDG_CACHE_HOME", folder / "cache");
    FileHandling files;
    EXPECT_EQ(files.writableLocationCache(), folder / "cache/wayfolio/locations");
    EXPECT_TRUE(fs::is_directory(folder / "cache/wayfolio/locations"));
  }
  {
    ScopedEnvironment cache("XDG_CACHE_HOME", std::nullopt);
    FileHandling files;
    EXPECT_EQ(files.writableLocationCache(), folder / "home/.cache/wayfolio/locations");
    files.setWritableLocationCache(folder / "mine");
    EXPECT_EQ(files.writableLocationCache(), folder / "mine");
    EXPECT_TRUE(fs::is_directory(folder / "mine"));
  }
}

TEST(FileHandlingFolders, SandboxIsPrivateStableAndRemovedAfterwards) {
  TemporaryFolder folder;
  ScopedEnvironment temporary("TMPDIR", folder.path());
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
    writeFile(sandbox + "/inner/file", "x");
  }
  EXPECT_FALSE(fs::exists(sandbox));

  // A folder handed in belongs to the caller and stays.
  fs::create_directories(folder / "given");
  {
    FileHandling files;
    files.setSandbox(folder / "given");
    EXPECT_EQ(files.sandbox(), folder / "given");
  }
  EXPECT_TRUE(fs::is_directory(folder / "given"));
}

TEST(FileHandlingFolders, DeviceFolderAndCalloutPrefixes) {
  FileHandling files;
  EXPECT_EQ(files.deviceFolder(), "/dev/");
  EXPECT_EQ(files.calloutPrefixes(), (std::vector<std::string>{"ttyACM", "ttyUSB"}));
  files.setDeviceFolder("/tmp/devices/");
  files.setCalloutPrefixes({"cu."});
  EXPECT_EQ(files.deviceFolder(), "/tmp/devices/");
  EXPECT_EQ(files.calloutPrefixes(), std::vector<std::string>{"cu."});
  EXPECT_EQ(&FileHandling::singleton(), &FileHandling::singleton());
}

TEST(FileHandlingFolders, HomeFolderFallsBackToTheUserDatabase) {
  ScopedEnvironment home("HOME", std::nullopt);
  std::string fallback = FileHandling::homeFolder();
  EXPECT_FALSE(fallback.empty());
  EXPECT_TRUE(fs::path(fallback).is_absolute());
}

}  // namespace
}  // namespace kvtrack
