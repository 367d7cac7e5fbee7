// ExifTool against the installed exiftool and small real JPEG and TIFF files,
// with persistent sessions on and off.

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
using testing::makeJpeg;
using testing::makeTiff;
using testing::readTag;
using testing::ScopedEnvironment;
using testing::ScratchFolder;
using Tags = ExifTool::Tags;

class ExifToolTest : public ::testing::Test {
 protected:
  void TearDown() override {
    ExifTool::resetPersistentSessions();
    KvPreferences::singleton().setExiftoolPath(std::nullopt);
    KvPreferences::singleton().setRawFileMode(std::nullopt);
  }
  std::string jpeg(const std::string& name, const std::vector<std::string>& tags = {}) {
    const std::string path = scratch.file(name);
    EXPECT_TRUE(makeJpeg(path, tags)) << name;
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

TEST_F(ExifToolTest, ReadsPositionOrientationTimeAndPlacesFromAJpeg) {
  const std::string south = jpeg("south.jpg", {"GPSLatitude=47.5", "GPSLatitudeRef=S",
      "GPSLongitude=8.25", "GPSLongitudeRef=W", "GPSAltitude=12.5", "GPSAltitudeRef=Below Sea Level",
      "Orientation=Rotate 90 CW", "XMP-exif:DateTimeDigitized=2012:06:01 10:00:00+02:00",
      "IPTC:City=Bern", "XMP-iptcExt:LocationShownCity=Thun", "IPTC:Province-State=BE",
      "XMP:State=Bernese", "IPTC:Country-PrimaryLocationName=Schweiz",
      "IPTC:Country-PrimaryLocationCode=CHE", "IPTC:Sub-location=Altstadt",
      "Artist=a: b: c"});
  std::optional<Tags> tags = ExifTool::exifTagsForFile(south);
  ASSERT_TRUE(tags);
  EXPECT_DOUBLE_EQ(ExifTool::latitudeFromDictionary(*tags), -47.5);
  EXPECT_DOUBLE_EQ(ExifTool::longitudeFromDictionary(*tags), -8.25);
  // exiftool prints "Below Sea Level", which does not end in "Below".
  EXPECT_DOUBLE_EQ(ExifTool::elevationFromDictionary(*tags), 12.5);
  EXPECT_EQ(ExifTool::rotationFromDictionary(*tags), 90);
  EXPECT_EQ(ExifTool::digitizedFromDictionary(*tags, 0, false),
            ISODate::fromMicrosecondsSince1970(utc("2012-06-01T08:00:00Z").microsecondsSince1970(), 120));
  EXPECT_EQ(ExifTool::cityFromDictionary(*tags), "Bern");
  EXPECT_EQ(ExifTool::stateFromDictionary(*tags), "Bernese");
  EXPECT_EQ(ExifTool::countryFromDictionary(*tags), "Schweiz");
  EXPECT_EQ(ExifTool::isoCountryCodeFromDictionary(*tags), "CHE");
  EXPECT_EQ(ExifTool::locationFromDictionary(*tags), "Altstadt");
  EXPECT_EQ(tags->at("Artist"), "a: b: c");

  const std::string north = jpeg("north.jpg", {"GPSLatitude=47.5", "GPSLatitudeRef=N",
      "GPSLongitude=8.25", "GPSLongitudeRef=E", "Orientation=Rotate 180",
      "XMP-iptcExt:LocationShownCity=Thun", "XMP-iptcExt:LocationCreatedCity=Basel",
      "XMP-iptcExt:LocationCreatedSublocation=Hafen"});
  tags = ExifTool::exifTagsForFile(north);
  ASSERT_TRUE(tags);
  EXPECT_DOUBLE_EQ(ExifTool::latitudeFromDictionary(*tags), 47.5);
  EXPECT_DOUBLE_EQ(ExifTool::longitudeFromDictionary(*tags), 8.25);
  EXPECT_DOUBLE_EQ(ExifTool::elevationFromDictionary(*tags), 0);
  EXPECT_EQ(ExifTool::rotationFromDictionary(*tags), 180);
  EXPECT_EQ(ExifTool::cityFromDictionary(*tags), "Thun");
  EXPECT_EQ(ExifTool::locationFromDictionary(*tags), "Hafen");
  EXPECT_EQ(ExifTool::countryFromDictionary(*tags), std::nullopt);
}

TEST_F(ExifToolTest, DictionaryRulesForNumbersAndLongLines) {
  EXPECT_DOUBLE_EQ(ExifTool::elevationFromDictionary({{"GPS Altitude", "30 m"}, {"GPS Altitude Ref", "Below"}}), -30);
  EXPECT_DOUBLE_EQ(ExifTool::elevationFromDictionary({{"GPS Altitude", "30 m"}}), 0);
  EXPECT_EQ(ExifTool::rotationFromDictionary({{"Orientation", "Rotate 270 CW"}}), 270);
  EXPECT_EQ(ExifTool::rotationFromDictionary({{"Orientation", "Mirror horizontal"}}), 0);

  // A line is read in pieces of 1023 bytes, each piece taken as a line.
  const std::string comment = std::string(1000, 'x') + " later: piece";
  const std::string path = jpeg("long.jpg", {"Comment=" + comment});
  std::optional<Tags> tags = ExifTool::exifTagsForFile(path);
  ASSERT_TRUE(tags);
  const std::string& head = tags->at("Comment");
  EXPECT_LT(head.size(), 1000u);
  EXPECT_EQ(head.find_first_not_of('x'), std::string::npos);
  const size_t tailLength = 1000 - head.size();
  EXPECT_EQ(tags->at(std::string(tailLength, 'x') + " later"), "piece");
}

TEST_F(ExifToolTest, SideFileWinsOverTheImage) {
  const std::string tiff = scratch.file("scan.tif");
  ASSERT_TRUE(makeTiff(tiff, {"XMP:City=Inside", "XMP:Country=Inland"}));
  ASSERT_EQ(runShellCommand("exiftool -q -XMP:City=Beside -o " +
                            FileHandling::filenameForShell(scratch.file("scan.xmp"))),
            0);
  std::optional<Tags> tags = ExifTool::exifTagsForFileAndXmp(tiff);
  ASSERT_TRUE(tags);
  EXPECT_EQ(ExifTool::cityFromDictionary(*tags), "Beside");
  EXPECT_EQ(ExifTool::countryFromDictionary(*tags), "Inland");
  EXPECT_EQ(ExifTool::cityFromDictionary(*ExifTool::exifTagsForFile(tiff)), "Inside");
}

TEST_F(ExifToolTest, CaptureTimeRules) {
  const Tags zoned{{"Date/Time Digitized", "2012:06:01 10:00:00+02:00"}};
  EXPECT_EQ(ExifTool::digitizedFromDictionary(zoned, 60, false),
            ISODate::fromMicrosecondsSince1970(utc("2012-06-01T08:00:00Z").microsecondsSince1970(), 120));
  EXPECT_EQ(ExifTool::digitizedFromDictionary(zoned, 60, true),
            ISODate::fromMicrosecondsSince1970(utc("2012-06-01T09:00:00Z").microsecondsSince1970(), 60));
  // The minutes of a negative zone are added: -05:30 is -270 minutes.
  std::optional<ISODate> india = ExifTool::digitizedFromDictionary(
      {{"Date/Time Digitized", "2012:06:01 10:00:00-05:30"}}, 0, false);
  ASSERT_TRUE(india);
  EXPECT_EQ(india->timezoneOffset(), -270);
  EXPECT_TRUE(india->isEqualToDate(utc("2012-06-01T14:30:00Z")));
  EXPECT_EQ(ExifTool::digitizedFromDictionary({{"Date/Time Digitized", "2012:06:01 10:00:00"}}, 60, false)
                ->timezoneOffset(), 0);
  // The original time always takes the default offset, whatever zone it shows.
  std::optional<ISODate> original = ExifTool::digitizedFromDictionary(
      {{"Date/Time Original", "2012:06:01 10:00:00+02:00"}}, 60, false);
  ASSERT_TRUE(original);
  EXPECT_EQ(*original, ISODate::fromMicrosecondsSince1970(utc("2012-06-01T09:00:00Z").microsecondsSince1970(), 60));
  // A short digitized time hides a valid original one.
  EXPECT_FALSE(ExifTool::digitizedFromDictionary(
      {{"Date/Time Digitized", "2012:06:01 10:00:0"}, {"Date/Time Original", "2012:06:01 10:00:00"}}, 0, true));
  EXPECT_FALSE(ExifTool::digitizedFromDictionary({{"Date/Time Original", "2012:06:01"}}, 0, true));
  EXPECT_FALSE(ExifTool::digitizedFromDictionary({{"Date/Time Original", "not a date at all!!"}}, 0, true));
  EXPECT_FALSE(ExifTool::digitizedFromDictionary({}, 0, true));
}

TEST_F(ExifToolTest, FileTimesFallBackToTheModificationTime) {
  const std::string dated = jpeg("dated.jpg", {"DateTimeOriginal=2012:06:01 10:00:00"});
  EXPECT_EQ(ExifTool::isoDateForFile(dated, 0, true), utc("2012-06-01T10:00:00Z"));

  const std::string undated = jpeg("undated.jpg");
  const auto when = fs::file_time_type::clock::now() - std::chrono::hours(50);
  fs::last_write_time(undated, when);
  LogCapture log;
  std::optional<ISODate> fallback = ExifTool::isoDateForFile(undated, 60, true);
  ASSERT_TRUE(fallback);
  EXPECT_TRUE(log.contains("no EXIF tag found"));
  const auto expected = std::chrono::file_clock::to_sys(when);
  EXPECT_NEAR(fallback->timeIntervalSince1970(),
              std::chrono::duration<double>(expected.time_since_epoch()).count(), 1e-3);
  EXPECT_EQ(fallback->timezoneOffset(), 0);

  log.clear();
  EXPECT_FALSE(ExifTool::isoDateForFile(scratch.file("gone.jpg"), 0, true));
  EXPECT_TRUE(log.contains("no such file"));
}

TEST_F(ExifToolTest, ExtensionsAndWritableFormats) {
  for (const char* name : {"a.JPG", "b.jpeg", "c.xmp", "d.nef", "e.tif", "f.raw", "g.pdf", "h.Png"}) {
    EXPECT_TRUE(ExifTool::isPhotoExtension(name)) << name;
  }
  for (const char* name : {"a.txt", "b.gpx", "noextension", "c.heic"}) {
    EXPECT_FALSE(ExifTool::isPhotoExtension(name)) << name;
  }
  EXPECT_TRUE(ExifTool::canWriteToFile("x.JPG"));
  EXPECT_TRUE(ExifTool::canWriteToFile("x.xmp"));
  EXPECT_FALSE(ExifTool::canWriteToFile("x.NEF"));
  EXPECT_FALSE(ExifTool::canWriteToFile("x.txt"));
  KvPreferences::singleton().setRawFileMode(1);
  EXPECT_TRUE(ExifTool::canWriteToFile("x.NEF"));
  EXPECT_FALSE(ExifTool::canWriteToFile("x.txt"));
  KvPreferences::singleton().setRawFileMode(2);
  EXPECT_FALSE(ExifTool::canWriteToFile("x.tif"));
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

TEST_F(ExifToolTest, SessionsAndSingleProcessesGiveTheSameTagsAndLogLines) {
  const std::string path = jpeg("same.jpg", {"DateTimeOriginal=2012:06:01 10:00:00",
                                             "GPSLatitude=1.5", "GPSLatitudeRef=N", "IPTC:City=Köln"});
  ExifTool::exifTagsForFile(path);  // settles the access time
  std::vector<std::string> lines[2];
  Tags tags[2];
  for (int on = 0; on < 2; ++on) {
    ExifTool::setPersistentSessions(on == 1);
    LogCapture log;
    tags[on] = ExifTool::exifTagsForFile(path).value_or(Tags{});
    lines[on] = log.lines();
    tags[on].erase("File Access Date/Time");
  }
  EXPECT_EQ(tags[0], tags[1]);
  EXPECT_EQ(tags[1].at("City"), "Köln");
  ASSERT_EQ(lines[1].size(), 1u);
  EXPECT_EQ(lines[0], lines[1]);
  EXPECT_EQ(lines[1][0], "'exiftool' -c '%f' " + FileHandling::filenameForShell(path));
}

TEST_P(ExifToolModeTest, ABatchAnswersEveryCommandAsIfItRanAlone) {
  std::vector<std::string> paths;
  for (int i = 0; i < 8; ++i) {
    paths.push_back(i == 5 ? scratch.file("missing.jpg")
                           : jpeg(fmt::format("b{}.jpg", i),
                                  {fmt::format("DateTimeOriginal=2012:06:01 10:{:02}:00", i),
                                   "IPTC:City=Köln " + std::to_string(i)}));
  }
  LogCapture log;
  const std::vector<std::optional<Tags>> batch = ExifTool::exifTagsForFiles(paths);
  ASSERT_EQ(batch.size(), paths.size());
  for (size_t i = 0; i < paths.size(); ++i) {
    ASSERT_TRUE(batch[i]) << paths[i];
    EXPECT_TRUE(log.contains("'exiftool' -c '%f' " + FileHandling::filenameForShell(paths[i])));
    if (i == 5) {
      EXPECT_TRUE(batch[i]->empty());
      EXPECT_TRUE(log.contains("exifTagsForFile: exiftool ended with status 1 for " + paths[i]));
      continue;
    }
    Tags alone = ExifTool::exifTagsForFile(paths[i]).value_or(Tags{});
    Tags inBatch = *batch[i];
    alone.erase("File Access Date/Time");
    inBatch.erase("File Access Date/Time");
    EXPECT_EQ(inBatch, alone) << paths[i];
    EXPECT_EQ(inBatch.at("City"), "Köln " + std::to_string(i));
  }

  // Raw output that ends in no newline, and a failing command in between.
  const std::string exiftool = FileHandling::filenameForShell(ExifTool::exiftoolPath());
  std::vector<std::string> names;
  const std::vector<int> statuses = ExifTool::executeBatch(
      {exiftool + " -b -FileName " + FileHandling::filenameForShell(paths[0]),
       exiftool + " -b -FileName " + FileHandling::filenameForShell(paths[5]),
       "true", exiftool + " -b -FileName " + FileHandling::filenameForShell(paths[7])},
      &names);
  EXPECT_EQ(statuses, (std::vector<int>{0, 1, 0, 0}));
  EXPECT_EQ(names, (std::vector<std::string>{"b0.jpg", "", "", "b7.jpg"}));
}

TEST_F(ExifToolTest, SessionRestartsAfterExiftoolDies) {
  ExifTool::setPersistentSessions(true);
  const std::string path = jpeg("kill.jpg", {"DateTimeOriginal=2012:06:01 10:00:00"});
  ASSERT_TRUE(ExifTool::isoDateForFile(path, 0, true));
  std::vector<pid_t> pids = ExifToolSessionPool::shared().processIds();
  ASSERT_FALSE(pids.empty());
  for (pid_t pid : pids) ASSERT_EQ(::kill(pid, SIGKILL), 0);
  LogCapture log;
  EXPECT_EQ(ExifTool::isoDateForFile(path, 0, true), utc("2012-06-01T10:00:00Z"));
  EXPECT_TRUE(log.contains("restarting"));
  for (pid_t pid : ExifToolSessionPool::shared().processIds()) {
    EXPECT_EQ(std::count(pids.begin(), pids.end(), pid), 0);
  }
}

TEST_F(ExifToolTest, SessionsSurviveShortReadsSpawnFailuresAndAnExiftoolDyingMidAnswer) {
  ExifTool::setPersistentSessions(true);
  const std::string path = jpeg("faults.jpg", {"DateTimeOriginal=2012:06:01 10:00:00", "IPTC:City=Köln"});
  const auto tagsOf = [&path] {
    Tags tags = ExifTool::exifTagsForFile(path).value_or(Tags{});
    tags.erase("File Access Date/Time");
    return tags;
  };
  const Tags expected = tagsOf();
  ASSERT_EQ(expected.at("City"), "Köln");
  ExifTool::resetPersistentSessions();
  {
    testing::FaultySystemCalls calls;
    calls.limitReads(5);
    const ScopedSystemCalls inForce(calls);
    EXPECT_EQ(tagsOf(), expected);
    EXPECT_GT(calls.count(testing::FaultySystemCalls::Call::kRead), 100);
  }
  {
    testing::FaultySystemCalls calls;
    calls.failNth(testing::FaultySystemCalls::Call::kSpawn, 1, EAGAIN);
    const ScopedSystemCalls inForce(calls);
    ExifTool::resetPersistentSessions();
    EXPECT_EQ(tagsOf(), expected);  // the next start works
  }
  // An exiftool that answers half a command and dies, every time it runs
  // as a session; run on its own it is the real one.
  const std::string dying = scratch.write("dying-exiftool",
      "#!/bin/sh\n"
      "[ \"$1\" = -stay_open ] || exec exiftool \"$@\"\n"
      "while read -r line; do case $line in -execute*) printf '[City] Kö'; exit 3;; esac; done\n");
  fs::permissions(dying, fs::perms::owner_all);
  ExifToolSessionPool pool(1);
  EXPECT_FALSE(pool.run(dying, {"-c", "%f", path}));
  EXPECT_TRUE(pool.processIds().empty());
  KvPreferences::singleton().setExiftoolPath(dying);
  EXPECT_EQ(tagsOf(), expected);
}

TEST_F(ExifToolTest, SessionsCarryEveryByteOfAnArgument) {
  ExifToolSessionPool pool(1);
  const std::string name = "new\nline\ttab \\ \"q\" .jpg";
  ASSERT_TRUE(makeJpeg(scratch.file(name)));
  std::optional<ExifToolResult> result = pool.run("exiftool", {"-b", "-FileName", scratch.file(name)});
  ASSERT_TRUE(result);
  EXPECT_EQ(result->status, 0);
  EXPECT_EQ(result->output, name);  // -b: the raw bytes
  result = pool.run("exiftool", {"-FileName", scratch.file("none.jpg")});
  ASSERT_TRUE(result);
  EXPECT_EQ(result->status, 1);
  EXPECT_NE(result->errors.find("File not found"), std::string::npos);
  EXPECT_FALSE(pool.run("exiftool", {"-stay_open", "False"}));
  EXPECT_FALSE(pool.run("exiftool", {"-FileName", "a\n$b.jpg"}));

  EXPECT_EQ(ExifToolSession::argumentLine("-c"), "-c");
  EXPECT_EQ(ExifToolSession::argumentLine("a\nb\\c\td"), "#[CSTR]a\\nb\\\\c\\td");
  EXPECT_EQ(ExifToolSession::argumentLine(" lead"), "#[CSTR] lead");
  EXPECT_EQ(ExifToolSession::argumentLine("#hash"), "#[CSTR]#hash");
  EXPECT_EQ(ExifToolSession::argumentLine(""), "#[CSTR]");
  EXPECT_EQ(ExifToolSession::argumentLine("-City= padded"), "#[CSTR]-City= padded");
  EXPECT_FALSE(ExifToolSession::argumentLine("a\n$b"));  // exiftool would read "\$"
  EXPECT_TRUE(exiftoolArgumentsWrite({"-overwrite_original", "-GPSLatitude=1", "f.jpg"}));
  EXPECT_TRUE(exiftoolArgumentsWrite({"-tagsFromFile", "a.jpg", "b.jpg"}));
  EXPECT_FALSE(exiftoolArgumentsWrite({"-c", "%f", "a=b.jpg"}));
}

// --- both modes -----------------------------------------------------------------

TEST_P(ExifToolModeTest, HostileFileNamesAreReadAndWrittenAndNeverRun) {
  const std::string marker = scratch.file("marker");
  ScopedEnvironment environment("KVTRACK_MARKER", marker);
  const std::string source = jpeg("source.jpg", {"GPSLatitude=10.5", "GPSLatitudeRef=S",
                                                  "GPSLongitude=20.25", "GPSLongitudeRef=E"});
  for (const char* name : {"it's \"q\".jpg", "$(touch $KVTRACK_MARKER).jpg",
                           "`touch $KVTRACK_MARKER`.jpg", "two  words .jpg", "line\nbreak.jpg",
                           "-leading.jpg", "Zürich Straße ☀.jpg", "mail@$HOME\n$x.jpg",
                           " ; touch $KVTRACK_MARKER #.jpg"}) {
    SCOPED_TRACE(name);
    const std::string path = jpeg(name, {"DateTimeOriginal=2011:02:03 04:05:06"});
    EXPECT_EQ(ExifTool::isoDateForFile(path, 0, true), utc("2011-02-03T04:05:06Z"));
    EXPECT_EQ(ExifTool::copyTagsFrom(source, path), 0);
    std::optional<Tags> tags = ExifTool::exifTagsForFile(path);
    ASSERT_TRUE(tags);
    EXPECT_DOUBLE_EQ(ExifTool::latitudeFromDictionary(*tags), -10.5);
    EXPECT_DOUBLE_EQ(ExifTool::longitudeFromDictionary(*tags), 20.25);
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
  EXPECT_TRUE(log.contains("exifTagsForFile: exiftool ended with status 1 for " + missing));
  // A corrupt image reads as a file without a capture time.
  log.clear();
  EXPECT_TRUE(ExifTool::isoDateForFile(corrupt, 0, true));
  EXPECT_TRUE(log.contains("no EXIF tag found"));

  if (::geteuid() != 0) {  // root writes read-only files anyway
    fs::permissions(good, fs::perms::owner_read);
    EXPECT_EQ(ExifTool::copyTagsFrom(corrupt, good), 1);
  }

  KvPreferences::singleton().setExiftoolPath(scratch.file("no-exiftool"));
  log.clear();
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
  EXPECT_EQ(readTag(target, "GPSLatitude"), "3.5");
}

INSTANTIATE_TEST_SUITE_P(ExifToolSessions, ExifToolModeTest, ::testing::Bool(),
                         [](const auto& info) { return info.param ? "On" : "Off"; });

}  // namespace
}  // namespace kvtrack
