// ExifTool against the installed exiftool and small real JPEG files, with
// persistent sessions on and off.

#include "kvtrack/photos/ExifTool.h"

#include "kvtrack/photos/ExifToolSession.h"
#include "kvtrack/photos/ShellWords.h"
#include "kvtrack/support/ExternalProgram.h"
#include "kvtrack/support/FileHandling.h"
#include "kvtrack/support/KvPreferences.h"
#include "kvtrack/support/Log.h"
#include "kvtrack/support/SystemCalls.h"
#include "tests/common/FaultySystemCalls.h"
#include "tests/common/ScopedEnvironment.h"
#include "tests/common/ScratchFolder.h"
#include "tests/photos/PhotoTestSupport.h"

#include <gtest/gtest.h>

#include <signal.h>
#include <unistd.h>

#include <filesystem>
#include <thread>

namespace kvtrack {
namespace {

namespace fs = std::filesystem;
using testing::ScratchFolder;
using Tags = ExifTool::Tags;
using Faults = testing::FaultySystemCalls;

class ExifToolTest : public ::testing::Test {
 protected:
  void TearDown() override {
    ExifTool::resetPersistentSessions();
    KvPreferences::singleton().setExiftoolPath(std::nullopt);
    KvPreferences::singleton().setRawFileMode(std::nullopt);
  }
  std::string jpeg(const std::string& name, const std::vector<std::string>& tags = {}) {
    const std::string path = scratch.file(name);
    EXPECT_TRUE(testing::makeJpeg(path, tags)) << name;
    return path;
  }
  ScratchFolder scratch;
};

// Parameter: persistent sessions on or off.
class ExifToolModeTest : public ExifToolTest, public ::testing::WithParamInterface<bool> {
 protected:
  void SetUp() override { ExifTool::setPersistentSessions(GetParam()); }
};

ISODate utc(const char* text) { return *ISODate::isoDateWithString(text); }
ISODate zoned(const char* instant, int offset) {
  return ISODate::fromMicrosecondsSince1970(utc(instant).microsecondsSince1970(), offset);
}

// The tags of a file without the access time, which every read changes.
Tags tagsOf(const std::string& path) {
  Tags tags = ExifTool::exifTagsForFile(path).value_or(Tags{});
  tags.erase("File Access Date/Time");
  return tags;
}

TEST_F(ExifToolTest, ReadsPositionOrientationTimeAndPlacesFromAJpeg) {
  const Tags south = tagsOf(
      jpeg("south.jpg", {"GPSLatitude=47.5", "GPSLatitudeRef=S", "GPSLongitude=8.25", "GPSLongitudeRef=W",
                         "GPSAltitude=12.5", "GPSAltitudeRef=Below Sea Level", "Orientation=Rotate 90 CW",
                         "XMP-exif:DateTimeDigitized=2012:06:01 10:00:00+02:00", "IPTC:City=Bern",
                         "XMP-iptcExt:LocationShownCity=Thun", "IPTC:Province-State=BE", "XMP:State=Bernese",
                         "IPTC:Country-PrimaryLocationName=Schweiz", "IPTC:Country-PrimaryLocationCode=CHE",
                         "IPTC:Sub-location=Altstadt", "Artist=a: b: c"}));
  EXPECT_DOUBLE_EQ(ExifTool::latitudeFromDictionary(south), -47.5);
  EXPECT_DOUBLE_EQ(ExifTool::longitudeFromDictionary(south), -8.25);
  // exiftool prints "Below Sea Level", which does not end in "Below".
  EXPECT_DOUBLE_EQ(ExifTool::elevationFromDictionary(south), 12.5);
  EXPECT_EQ(ExifTool::rotationFromDictionary(south), 90);
  EXPECT_EQ(ExifTool::digitizedFromDictionary(south, 0, false), zoned("2012-06-01T08:00:00Z", 120));
  EXPECT_EQ(std::tuple(ExifTool::cityFromDictionary(south), ExifTool::stateFromDictionary(south),
                       ExifTool::countryFromDictionary(south), ExifTool::isoCountryCodeFromDictionary(south),
                       ExifTool::locationFromDictionary(south), south.at("Artist")),
            std::tuple("Bern", "Bernese", "Schweiz", "CHE", "Altstadt", "a: b: c"));

  const std::string northFile =
      jpeg("north.jpg",
           {"GPSLatitude=47.5", "GPSLatitudeRef=N", "GPSLongitude=8.25", "GPSLongitudeRef=E",
            "Orientation=Rotate 180", "XMP-iptcExt:LocationShownCity=Thun",
            "XMP-iptcExt:LocationCreatedCity=Basel", "XMP-iptcExt:LocationCreatedSublocation=Hafen",
            "DateTimeOriginal=2012:06:01 10:00:00", "Comment=" + std::string(1000, 'x') + " later: piece"});
  const Tags north = tagsOf(northFile);
  EXPECT_EQ(std::tuple(ExifTool::latitudeFromDictionary(north), ExifTool::longitudeFromDictionary(north),
                       ExifTool::elevationFromDictionary(north), ExifTool::rotationFromDictionary(north)),
            std::tuple(47.5, 8.25, 0.0, 180));
  EXPECT_EQ(std::tuple(ExifTool::cityFromDictionary(north), ExifTool::locationFromDictionary(north),
                       ExifTool::countryFromDictionary(north)),
            std::tuple("Thun", "Hafen", std::nullopt));

  EXPECT_EQ(ExifTool::isoDateForFile(northFile, 0, true), utc("2012-06-01T10:00:00Z"));
  // A line is read in pieces of 1023 bytes, each piece taken as a line.
  const std::string& head = north.at("Comment");
  EXPECT_LT(head.size(), 1000u);
  EXPECT_EQ(head.find_first_not_of('x'), std::string::npos);
  EXPECT_EQ(north.at(std::string(1000 - head.size(), 'x') + " later"), "piece");
}

TEST_F(ExifToolTest, DictionaryRulesForElevationRotationAndCaptureTimes) {
  EXPECT_DOUBLE_EQ(
      ExifTool::elevationFromDictionary({{"GPS Altitude", "30 m"}, {"GPS Altitude Ref", "Below"}}), -30);
  EXPECT_DOUBLE_EQ(ExifTool::elevationFromDictionary({{"GPS Altitude", "30 m"}}), 0);
  EXPECT_EQ(ExifTool::rotationFromDictionary({{"Orientation", "Rotate 270 CW"}}), 270);
  EXPECT_EQ(ExifTool::rotationFromDictionary({{"Orientation", "Mirror horizontal"}}), 0);

  const char* digitized = "Date/Time Digitized";
  const char* original = "Date/Time Original";
  const struct {
    Tags tags;
    int defaultOffset;
    bool useDefault;
    std::optional<ISODate> expected;
  } cases[] = {
      {{{digitized, "2012:06:01 10:00:00+02:00"}}, 60, false, zoned("2012-06-01T08:00:00Z", 120)},
      {{{digitized, "2012:06:01 10:00:00+02:00"}}, 60, true, zoned("2012-06-01T09:00:00Z", 60)},
      // The minutes of a negative zone are added: -05:30 is -270 minutes.
      {{{digitized, "2012:06:01 10:00:00-05:30"}}, 0, false, zoned("2012-06-01T14:30:00Z", -270)},
      {{{digitized, "2012:06:01 10:00:00"}}, 60, false, zoned("2012-06-01T10:00:00Z", 0)},
      // The original time always takes the default offset, whatever zone it shows.
      {{{original, "2012:06:01 10:00:00+02:00"}}, 60, false, zoned("2012-06-01T09:00:00Z", 60)},
      // A short digitized time hides a valid original one.
      {{{digitized, "2012:06:01 10:00:0"}, {original, "2012:06:01 10:00:00"}}, 0, true, std::nullopt},
      {{{original, "2012:06:01"}}, 0, true, std::nullopt},
      {{{original, "not a date at all!!"}}, 0, true, std::nullopt},
      {{}, 0, true, std::nullopt}};
  for (const auto& c : cases) {
    EXPECT_EQ(ExifTool::digitizedFromDictionary(c.tags, c.defaultOffset, c.useDefault), c.expected)
        << ::testing::PrintToString(c.tags) << " " << c.useDefault;
  }
}

TEST_F(ExifToolTest, FileTimesFallBackToTheModificationTime) {
  const std::string undated = jpeg("undated.jpg");
  const auto when = fs::file_time_type::clock::now() - std::chrono::hours(50);
  fs::last_write_time(undated, when);
  std::optional<ISODate> fallback = ExifTool::isoDateForFile(undated, 60, true);
  ASSERT_TRUE(fallback);
  const auto expected = std::chrono::file_clock::to_sys(when).time_since_epoch();
  EXPECT_NEAR(fallback->timeIntervalSince1970(), std::chrono::duration<double>(expected).count(), 1e-3);
  EXPECT_EQ(fallback->timezoneOffset(), 0);
  EXPECT_FALSE(ExifTool::isoDateForFile(scratch.file("gone.jpg"), 0, true));
}

TEST_F(ExifToolTest, ExtensionsAndWritableFormats) {
  // Name, a photo, writable by default, with raw files written directly, with side files only.
  const std::tuple<const char*, bool, bool, bool, bool> cases[] = {
      {"a.JPG", true, true, true, true},     {"b.jpeg", true, true, true, true},
      {"c.xmp", true, true, true, true},     {"d.NEF", true, false, true, false},
      {"e.tif", true, false, true, false},   {"h.Png", true, false, true, false},
      {"a.txt", false, false, false, false}, {"noextension", false, false, false, false},
      {"c.heic", false, false, false, false}};
  for (const auto& [name, photo, plain, direct, side] : cases) {
    SCOPED_TRACE(name);
    EXPECT_EQ(ExifTool::isPhotoExtension(name), photo);
    KvPreferences::singleton().setRawFileMode(std::nullopt);
    EXPECT_EQ(ExifTool::canWriteToFile(name), plain);
    KvPreferences::singleton().setRawFileMode(1);
    EXPECT_EQ(ExifTool::canWriteToFile(name), direct);
    KvPreferences::singleton().setRawFileMode(2);
    EXPECT_EQ(ExifTool::canWriteToFile(name), side);
  }
}

TEST_F(ExifToolTest, ShellWordsSplitOnlyWhatTheLibraryQuotes) {
  using Words = std::vector<std::string>;
  EXPECT_EQ(splitShellWords("'exiftool' -c '%f' 'it'\\''s a\nb'"),
            (Words{"exiftool", "-c", "%f", "it's a\nb"}));
  EXPECT_EQ(splitShellWords("x \"-City=\\$(a) \\\"q\\\" \\` \\\\ \\n\" ''"),
            (Words{"x", "-City=$(a) \"q\" ` \\ \\n", ""}));
  for (const char* line : {"x | y", "x; y", "x && y", "x > f", "x 2>&1", "x $(y)", "x `y`", "x \"$y\"",
                           "x *.jpg", "x ~/a", "x #c", "x\ny", "x 'open"}) {
    EXPECT_FALSE(splitShellWords(line)) << line;
  }
}

// Each command of a batch answers as if it ran alone, and sessions answer
// and log exactly as single processes do.
TEST_F(ExifToolTest, BatchesSessionsAndSingleProcessesGiveTheSameAnswers) {
  std::vector<std::string> paths;
  for (int i = 0; i < 8; ++i) {
    paths.push_back(
        i == 5 ? scratch.file("missing.jpg")
               : jpeg(fmt::format("b{}.jpg", i), {fmt::format("DateTimeOriginal=2012:06:01 10:{:02}:00", i),
                                                  "IPTC:City=Köln " + std::to_string(i)}));
  }
  ExifTool::exifTagsForFile(paths[0]);  // settles the access time
  std::vector<std::string> singleLines[2];
  Tags single[2];
  for (const bool sessions : {false, true}) {
    SCOPED_TRACE(sessions);
    ExifTool::setPersistentSessions(sessions);
    {
      LogCapture log;
      single[sessions] = tagsOf(paths[0]);
      singleLines[sessions] = log.lines();
    }
    LogCapture log;
    const std::vector<std::optional<Tags>> batch = ExifTool::exifTagsForFiles(paths);
    ASSERT_EQ(batch.size(), paths.size());
    for (size_t i = 0; i < paths.size(); ++i) {
      ASSERT_TRUE(batch[i]) << paths[i];
      EXPECT_TRUE(log.contains("'exiftool' -c '%f' " + FileHandling::filenameForShell(paths[i])));
      Tags inBatch = *batch[i];
      inBatch.erase("File Access Date/Time");
      EXPECT_EQ(inBatch, tagsOf(paths[i])) << paths[i];
      if (i != 5) EXPECT_EQ(inBatch.at("City"), "Köln " + std::to_string(i));
    }
    EXPECT_TRUE(batch[5]->empty());

    // Raw output that ends in no newline, and a failing command in between.
    const std::string exiftool = FileHandling::filenameForShell(ExifTool::exiftoolPath()) + " -b -FileName ";
    std::vector<std::string> names;
    const std::vector<int> statuses =
        ExifTool::executeBatch({exiftool + FileHandling::filenameForShell(paths[0]),
                                exiftool + FileHandling::filenameForShell(paths[5]), "true",
                                exiftool + FileHandling::filenameForShell(paths[7])},
                               &names);
    EXPECT_EQ(statuses, (std::vector<int>{0, 1, 0, 0}));
    EXPECT_EQ(names, (std::vector<std::string>{"b0.jpg", "", "", "b7.jpg"}));
  }
  EXPECT_EQ(single[0], single[1]);
  EXPECT_EQ(singleLines[0], singleLines[1]);
  EXPECT_EQ(singleLines[1],
            std::vector<std::string>{"'exiftool' -c '%f' " + FileHandling::filenameForShell(paths[0])});
}

TEST_F(ExifToolTest, SessionsSurviveKillsShortReadsSpawnFailuresAndAnExiftoolDyingMidAnswer) {
  ExifTool::setPersistentSessions(true);
  const std::string path = jpeg("faults.jpg", {"DateTimeOriginal=2012:06:01 10:00:00", "IPTC:City=Köln"});
  const Tags expected = tagsOf(path);
  ASSERT_EQ(expected.at("City"), "Köln");
  const std::vector<pid_t> pids = ExifToolSessionPool::shared().processIds();
  ASSERT_FALSE(pids.empty());
  for (pid_t pid : pids) ASSERT_EQ(::kill(pid, SIGKILL), 0);
  EXPECT_EQ(ExifTool::isoDateForFile(path, 0, true), utc("2012-06-01T10:00:00Z"));
  for (pid_t pid : ExifToolSessionPool::shared().processIds())
    EXPECT_EQ(std::count(pids.begin(), pids.end(), pid), 0);

  ExifTool::resetPersistentSessions();
  {
    Faults calls;
    calls.limitReads(5);
    const ScopedSystemCalls inForce(calls);
    EXPECT_EQ(tagsOf(path), expected);
    EXPECT_GT(calls.count(Faults::Call::kRead), 100);
  }
  {
    Faults calls;
    calls.failNth(Faults::Call::kSpawn, 1, EAGAIN);
    const ScopedSystemCalls inForce(calls);
    ExifTool::resetPersistentSessions();
    EXPECT_EQ(tagsOf(path), expected);  // the next start works
  }
  // An exiftool that answers half a command and dies, every time it runs
  // as a session; run on its own it is the real one.
  const std::string dying =
      scratch.write("dying-exiftool",
                    "#!/bin/sh\n"
                    "[ \"$1\" = -stay_open ] || exec exiftool \"$@\"\n"
                    "while read -r line; do case $line in -execute*) printf '[City] Kö'; "
                    "exit 3;; esac; done\n");
  fs::permissions(dying, fs::perms::owner_all);
  ExifToolSessionPool pool(1);
  EXPECT_FALSE(pool.run(dying, {"-c", "%f", path}));
  EXPECT_TRUE(pool.processIds().empty());
  KvPreferences::singleton().setExiftoolPath(dying);
  EXPECT_EQ(tagsOf(path), expected);
}

TEST_F(ExifToolTest, SessionsCarryEveryByteOfAnArgument) {
  ExifToolSessionPool pool(1);
  const std::string name = "new\nline\ttab \\ \"q\" .jpg";
  std::optional<ExifToolResult> result = pool.run("exiftool", {"-b", "-FileName", jpeg(name)});
  ASSERT_TRUE(result);
  EXPECT_EQ(std::tuple(result->status, result->output), std::tuple(0, name));  // -b: the raw bytes
  result = pool.run("exiftool", {"-FileName", scratch.file("none.jpg")});
  ASSERT_TRUE(result);
  EXPECT_EQ(result->status, 1);
  EXPECT_NE(result->errors.find("File not found"), std::string::npos);
  EXPECT_FALSE(pool.run("exiftool", {"-stay_open", "False"}));
  EXPECT_FALSE(pool.run("exiftool", {"-FileName", "a\n$b.jpg"}));

  // What the name above does not reach: exiftool strips blanks and skips comments.
  for (const std::string argument : {" lead", "#hash", "", "-City= padded"}) {
    EXPECT_EQ(ExifToolSession::argumentLine(argument), "#[CSTR]" + argument);
  }
  EXPECT_TRUE(exiftoolArgumentsWrite({"-overwrite_original", "-GPSLatitude=1", "f.jpg"}));
  EXPECT_TRUE(exiftoolArgumentsWrite({"-tagsFromFile", "a.jpg", "b.jpg"}));
  EXPECT_FALSE(exiftoolArgumentsWrite({"-c", "%f", "a=b.jpg"}));
}

// --- both modes -----------------------------------------------------------------

TEST_P(ExifToolModeTest, HostileFileNamesAreReadAndWrittenAndNeverRun) {
  const std::string marker = scratch.file("marker");
  testing::ScopedEnvironment environment("KVTRACK_MARKER", marker);
  const std::string source =
      jpeg("source.jpg", {"GPSLatitude=10.5", "GPSLatitudeRef=S", "GPSLongitude=20.25", "GPSLongitudeRef=E"});
  const std::string dated = jpeg("dated.jpg", {"DateTimeOriginal=2011:02:03 04:05:06"});
  for (const char* name : {"it's \"q\".jpg", "$(touch $KVTRACK_MARKER).jpg", "`touch $KVTRACK_MARKER`.jpg",
                           "two  words .jpg", "line\nbreak.jpg", "-leading.jpg", "Zürich Straße ☀.jpg",
                           "mail@$HOME\n$x.jpg", " ; touch $KVTRACK_MARKER #.jpg"}) {
    SCOPED_TRACE(name);
    const std::string path = scratch.file(name);
    fs::copy_file(dated, path);
    EXPECT_EQ(ExifTool::isoDateForFile(path, 0, true), utc("2011-02-03T04:05:06Z"));
    EXPECT_EQ(ExifTool::copyTagsFrom(source, path), 0);
    const Tags tags = tagsOf(path);
    EXPECT_EQ(std::tuple(ExifTool::latitudeFromDictionary(tags), ExifTool::longitudeFromDictionary(tags)),
              std::tuple(-10.5, 20.25));
  }
  EXPECT_FALSE(fs::exists(marker));
}

TEST_P(ExifToolModeTest, FailuresGiveTheSameStatusesAndClearMessages) {
  const std::string good = jpeg("good.jpg", {"GPSLatitude=1", "GPSLatitudeRef=N"});
  const std::string corrupt = scratch.write("corrupt.jpg", "this is no image");
  const std::string missing = scratch.file("missing.jpg");
  LogCapture log;
  EXPECT_EQ(ExifTool::copyTagsFrom(good, missing), 1);
  EXPECT_EQ(ExifTool::copyTagsFrom(good, corrupt), 1);
  EXPECT_EQ(ScratchFolder::read(corrupt), "this is no image");  // untouched
  EXPECT_EQ(ExifTool::copyTagsFrom(missing, good), 1);
  EXPECT_EQ(ExifTool::exifTagsForFile(missing), Tags{});
  EXPECT_TRUE(ExifTool::isoDateForFile(corrupt, 0, true));  // read as a file without a capture time
  if (::geteuid() != 0) {                                   // root writes read-only files anyway
    fs::permissions(good, fs::perms::owner_read);
    EXPECT_EQ(ExifTool::copyTagsFrom(corrupt, good), 1);
  }
  KvPreferences::singleton().setExiftoolPath(scratch.file("no-exiftool"));
  EXPECT_EQ(ExifTool::exifTagsForFile(good), Tags{});
  EXPECT_TRUE(log.contains("exiftool: cannot run " + scratch.file("no-exiftool") + " (exit status 127)"));
  EXPECT_EQ(ExifTool::copyTagsFrom(good, good), 127);
}

TEST_P(ExifToolModeTest, ConcurrentWritesOfOneFileWaitForEachOther) {
  const std::string source = jpeg("from.jpg", {"GPSLatitude=3.5", "GPSLatitudeRef=N"});
  const std::string target = jpeg("to.jpg");
  std::vector<int> statuses(8, -1);
  std::vector<std::thread> threads;
  for (size_t i = 0; i < statuses.size(); ++i) {
    threads.emplace_back([&, i] { statuses[i] = ExifTool::copyTagsFrom(source, target); });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(statuses, std::vector<int>(8, 0));
  EXPECT_EQ(testing::readTag(target, "GPSLatitude"), "3.5");
}

INSTANTIATE_TEST_SUITE_P(ExifToolSessions, ExifToolModeTest, ::testing::Bool(),
                         [](const auto& info) { return info.param ? "On" : "Off"; });

}  // namespace
}  // namespace kvtrack
