// geotag and photos: real photos made with exiftool, matched to the bundled
// Bachalpsee hike (recorded at +02:00, points every three minutes from
// 08:00 to 10:00 local time) and written with the installed exiftool.
#include "tests/cli/WayfolioFixture.h"

#include <fmt/format.h>

#include <chrono>
#include <thread>

namespace kvtrack::testing {
namespace {

namespace fs = std::filesystem;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;
using ::testing::Not;

class PhotoCommandsTest : public WayfolioTest {
 protected:
  void SetUp() override { importExamples(); }
};

TEST_F(PhotoCommandsTest, GeotagAttachesByTheTracksLocalTimeAndPhotosListsThem) {
  const auto first = photo("a.jpg", "2024:06:15 08:12:00");
  photo("day two/b.jpg", "2024:06:15 08:30:30");  // 30 s after a point, 150 s before the next
  photo("c.JPG", "2024:06:15 09:45:00");
  photo("elsewhere.jpg", "2024:06:16 12:00:00");
  scratch.write("photos/notes.txt", "not a photo");
  const std::string before = ScratchFolder::read(first);
  const std::string index = ScratchFolder::read(library() + "/library.wayfolio");
  const std::string dryRun = ok("geotag --dry-run --write gps,places,keywords,times " + photos());
  EXPECT_THAT(dryRun, HasSubstr("Attached 3 photos: 3 to Bachalpsee hike"));
  EXPECT_THAT(dryRun, HasSubstr("\"-GPSLatitudeRef=N\" \"-GPSLatitude=46.663918N\""));
  EXPECT_THAT(dryRun, HasSubstr("\"-DateTimeOriginal=2024:06:15 08:12:00+02:00\""));
  EXPECT_THAT(dryRun, HasSubstr(word(first) + " -o "));
  EXPECT_EQ(ScratchFolder::read(first), before);
  EXPECT_EQ(ScratchFolder::read(library() + "/library.wayfolio"), index);  // nothing attached either

  EXPECT_EQ(ok("geotag " + photos()),
            "Attached 3 photos: 3 to Bachalpsee hike; 1 with no track found; "
            "0 without a capture time\n");
  EXPECT_EQ(ScratchFolder::read(first), before);  // without --write no photo changes

  const std::string listed = ok(std::string("photos ") + kHike);
  EXPECT_EQ(lineCount(listed), 4u);
  EXPECT_THAT(lineWith(listed, "a.jpg"),
              MatchesRegex(".*/photos/a.jpg +2024-06-15T08:12:00\\+02:00 +46.663918 +"
                           "8.060032 +-"));
  EXPECT_THAT(lineWith(listed, "b.jpg"), HasSubstr("46.668669   8.067359"));
  EXPECT_THAT(lineWith(ok("ls"), "Bachalpsee hike"), ::testing::EndsWith(" 3"));

  // Again: nothing is attached twice, but every photo still counts.
  EXPECT_THAT(ok("geotag " + photos()), HasSubstr("Attached 3 photos: 3 to Bachalpsee hike"));
  EXPECT_EQ(lineCount(ok(std::string("photos ") + kHike)), 4u);
}

TEST_F(PhotoCommandsTest, WritesPositionsAndPlacesThatExiftoolReadsBack) {
  const auto hostile = photo("it's $(touch pwned) `x`.jpg", "2024:06:15 08:12:00",
                             {"IPTC:City=Grindelwald", "IPTC:Country-PrimaryLocationCode=CHE"});
  const auto plain = photo("day two/plain.jpg", "2024:06:15 09:00:00");
  const std::string out = ok("geotag --write gps,places " + photos());
  EXPECT_THAT(out, HasSubstr("Attached 2 photos"));
  EXPECT_THAT(out, HasSubstr("Wrote 2 photos\n"));
  EXPECT_EQ(readTag(hostile, "GPSLatitude"), "46.663918");
  EXPECT_EQ(readTag(hostile, "GPSLongitude"), "8.060032");
  EXPECT_EQ(readTag(hostile, "GPSAltitude"), "2189");
  EXPECT_EQ(readTag(hostile, "XMP:City"), "Grindelwald");  // read from the file, written back
  EXPECT_EQ(readTag(plain, "GPSLatitude"), "46.677665");
  EXPECT_EQ(readTag(plain, "City"), "");
  EXPECT_FALSE(fs::exists("pwned"));
  EXPECT_THAT(lineWith(ok(std::string("photos ") + kHike), "pwned"), HasSubstr("Grindelwald (CHE)"));
}

TEST_F(PhotoCommandsTest, OneTrackWithALimitOrForPhotosOutsideIt) {
  const auto near = photo("near.jpg", "2024:06:15 08:31:30");  // 90 s from the nearest point
  EXPECT_EQ(ok(std::string("geotag --track ") + kHike + " --max-diff 60 " + word(near)),
            "Attached 0 photos; 1 with no track found; 0 without a capture time\n");
  EXPECT_THAT(ok(std::string("geotag --track ") + kHike + " --max-diff 0 " + word(near)),
              HasSubstr("Attached 1 photos: 1 to Bachalpsee hike"));

  const auto early = photo("early.jpg", "2024:06:15 07:50:00");
  EXPECT_THAT(ok(std::string("geotag --outside --track ") + kHike + " " + word(early)),
              HasSubstr("Attached 1 photos: 1 to Bachalpsee hike"));
  const std::string shown = ok(std::string("show ") + kHike);
  EXPECT_THAT(lineWith(shown, "Start:"), HasSubstr("2024-06-15T07:50:00+02:00"));
  EXPECT_THAT(lineWith(ok(std::string("photos ") + kHike), "early.jpg"), HasSubstr("46.659000   8.054800"));
}

TEST_F(PhotoCommandsTest, ClearMessagesForWhatCannotBeDone) {
  fs::create_directories(scratch.file("photos"));
  const WayfolioRun missing = run("geotag " + word(scratch.file("nowhere.jpg")));
  EXPECT_EQ(missing.status, 1);
  EXPECT_THAT(missing.out, HasSubstr("not found: " + scratch.file("nowhere.jpg")));
  EXPECT_THAT(missing.err, HasSubstr("wayfolio: error: 1 of 1 photos not found"));

  const WayfolioRun bogus = run("geotag --write gps,colour " + photos());
  EXPECT_EQ(bogus.status, 1);
  EXPECT_THAT(bogus.err, HasSubstr("not 'colour'"));

  EXPECT_NE(run("geotag --outside " + photos()).status, 0);  // --outside needs --track

  scratch.write("settings.toml", "[preferences]\nexiftoolPath = \"/nonexistent/exiftool\"\n");
  const WayfolioRun noTool = run("geotag " + photos());
  EXPECT_EQ(noTool.status, 1);
  EXPECT_THAT(noTool.err, HasSubstr("exiftool cannot be run"));
  EXPECT_THAT(noTool.out, Not(HasSubstr("Attached")));
}

// A geotag run killed while exiftool writes (once its first copy beside
// the photos appears) leaves every photo either as it was or fully written.
TEST_F(PhotoCommandsTest, AKilledWriteLeavesEveryPhotoWholeOrUntouched) {
  const int count = 16;
  const std::string original = ScratchFolder::read(photo("p0.jpg", "2024:06:15 08:12:00"));
  for (int i = 1; i < count; ++i) scratch.write(fmt::format("photos/p{}.jpg", i), original);
  const std::string pidFile = scratch.file("pid");
  ASSERT_EQ(runShellCommand("WAYFOLIO_SETTINGS=" + word(scratch.file("settings.toml")) + " " +
                            word(WAYFOLIO_BINARY) + " --library " + word(library()) + " geotag --write gps " +
                            photos() + " >/dev/null 2>&1 & echo $! > " + word(pidFile)),
            0);
  const auto hiddenCopies = [&] {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(scratch.file("photos"))) {
      if (entry.path().filename().string().starts_with(".wayfolio-exif-")) names.push_back(entry.path());
    }
    std::sort(names.begin(), names.end());
    return names;
  };
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  while (hiddenCopies().empty() && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  EXPECT_EQ(runShellCommand("kill -9 $(cat " + word(pidFile) + ")"), 0) << "it ended before the kill";
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  // One exiftool run reads every photo: a changed one has its position and its time.
  const std::string tags =
      "exiftool -q -m -p '$FileName $GPSLatitude $DateTimeOriginal' " + photos() + "/p*.jpg";
  const std::string positioned = "p[0-9]+\\.jpg [0-9]+ deg .* 2024:06:15 08:12:00";
  int written = 0;
  for (const std::string& line : lines(runShellCommandReadingOutput(tags).output)) {
    if (ScratchFolder::read(scratch.file("photos/" + line.substr(0, line.find(' ')))) == original) continue;
    ++written;
    EXPECT_THAT(line, MatchesRegex(positioned)) << "half written";
  }
  // exiftool works through the commands it had already read; wait until it has done.
  for (auto seen = hiddenCopies(); std::chrono::steady_clock::now() < deadline;) {
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    auto now = hiddenCopies();
    if (now == seen) break;
    seen = std::move(now);
  }
  // Whatever happened, a new run finishes the job and clears the killed run's copies.
  EXPECT_THAT(ok("geotag --write gps " + photos()), HasSubstr(fmt::format("Attached {} photos", count)));
  EXPECT_THAT(hiddenCopies(), IsEmpty());
  const auto finished = lines(runShellCommandReadingOutput(tags).output);
  EXPECT_EQ(finished.size(), static_cast<size_t>(count));
  for (const std::string& line : finished) EXPECT_THAT(line, MatchesRegex(positioned));
  RecordProperty("photosWrittenBeforeTheKill", written);
}

}  // namespace
}  // namespace kvtrack::testing
