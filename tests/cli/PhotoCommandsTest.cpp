// geotag and photos: real photos made with exiftool, matched to the bundled
// Bachalpsee hike (recorded at +02:00, points every three minutes from
// 08:00 to 10:00 local time) and written with the installed exiftool.
#include "tests/cli/WayfolioFixture.h"
#include "tests/photos/PhotoTestSupport.h"

#include <gmock/gmock.h>

#include <fmt/format.h>

#include <chrono>
#include <thread>

namespace kvtrack::testing {
namespace {

namespace fs = std::filesystem;
using ::testing::HasSubstr;
using ::testing::Not;

class PhotoCommandsTest : public WayfolioTest {
 protected:
  void SetUp() override {
    importExamples();
    fs::create_directories(scratch.path() / "photos/day two");
  }
  /// A photo in the photos folder whose camera clock read that local time.
  std::string photo(const std::string& name, const std::string& wallClock,
                    std::vector<std::string> tags = {}) {
    const std::string path = scratch.file("photos/" + name);
    tags.push_back("DateTimeOriginal=" + wallClock);
    EXPECT_TRUE(makeJpeg(path, tags)) << name;
    return path;
  }
  std::string photos() const { return word(scratch.file("photos")); }
  static constexpr const char* kHike = "'Bachalpsee hike'";
};

TEST_F(PhotoCommandsTest, GeotagAttachesByTheTracksLocalTimeAndPhotosListsThem) {
  const auto first = photo("a.jpg", "2024:06:15 08:12:00");
  photo("day two/b.jpg", "2024:06:15 08:30:30");  // 30 s after a point, 150 s before the next
  photo("c.JPG", "2024:06:15 09:45:00");
  photo("elsewhere.jpg", "2024:06:16 12:00:00");
  scratch.write("photos/notes.txt", "not a photo");
  const std::string before = ScratchFolder::read(first);

  EXPECT_EQ(ok("geotag " + photos()),
            "Attached 3 photos: 3 to Bachalpsee hike; 1 with no track found; "
            "0 without a capture time\n");
  EXPECT_EQ(ScratchFolder::read(first), before);  // without --write no photo changes

  const std::string listed = ok(std::string("photos ") + kHike);
  EXPECT_EQ(lineCount(listed), 4u);
  EXPECT_THAT(lineWith(listed, "a.jpg"),
              ::testing::MatchesRegex(".*/photos/a.jpg +2024-06-15T08:12:00\\+02:00 +46.663918 +"
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

TEST_F(PhotoCommandsTest, ADryRunShowsTheCommandsAndChangesNothing) {
  const auto path = photo("a.jpg", "2024:06:15 08:12:00");
  const std::string before = ScratchFolder::read(path);
  const std::string index = ScratchFolder::read(library() + "/library.wayfolio");
  const std::string out = ok("geotag --dry-run --write gps,places,keywords,times " + photos());
  EXPECT_THAT(out, HasSubstr("Attached 1 photos: 1 to Bachalpsee hike"));
  EXPECT_THAT(out, HasSubstr("\"-GPSLatitudeRef=N\" \"-GPSLatitude=46.663918N\""));
  EXPECT_THAT(out, HasSubstr("\"-DateTimeOriginal=2024:06:15 08:12:00+02:00\""));
  EXPECT_THAT(out, HasSubstr(word(path) + " -o "));
  EXPECT_EQ(ScratchFolder::read(path), before);
  EXPECT_EQ(ScratchFolder::read(library() + "/library.wayfolio"), index);
  EXPECT_EQ(lineCount(ok(std::string("photos ") + kHike)), 1u);
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
  EXPECT_THAT(lineWith(ok(std::string("photos ") + kHike), "early.jpg"),
              HasSubstr("46.659000   8.054800"));
}

TEST_F(PhotoCommandsTest, ClearMessagesForWhatCannotBeDone) {
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

// A geotag run killed in the middle of writing leaves every photo either
// as it was or fully written, never half written.
TEST_F(PhotoCommandsTest, AKilledWriteLeavesEveryPhotoWholeOrUntouched) {
  std::vector<std::pair<std::string, std::string>> originals;
  for (int i = 0; i < 40; ++i) {
    const std::string name = "p" + std::to_string(i) + ".jpg";
    const std::string path = photo(name, fmt::format("2024:06:15 08:{:02}:00", 10 + i));
    originals.emplace_back(path, ScratchFolder::read(path));
  }
  const std::string pidFile = scratch.file("pid");
  ASSERT_EQ(runShellCommand("WAYFOLIO_SETTINGS=" + word(scratch.file("settings.toml")) + " " +
                            word(WAYFOLIO_BINARY) + " --library " + word(library()) +
                            " geotag --write gps " + photos() + " >/dev/null 2>&1 & echo $! > " +
                            word(pidFile)),
            0);
  std::this_thread::sleep_for(std::chrono::milliseconds(250));
  runShellCommand("kill -9 $(cat " + word(pidFile) + ") 2>/dev/null; sleep 0.2");
  size_t written = 0;
  for (const auto& [path, original] : originals) {
    if (ScratchFolder::read(path) == original) continue;
    ++written;
    EXPECT_EQ(readTag(path, "GPSLatitude").empty(), false) << path << " is half written";
    EXPECT_TRUE(readTag(path, "DateTimeOriginal").size() > 0) << path;
  }
  // Whatever happened, a new run finishes the job.
  EXPECT_THAT(ok("geotag --write gps " + photos()), HasSubstr("Attached 40 photos"));
  for (const auto& [path, original] : originals) EXPECT_FALSE(readTag(path, "GPSLatitude").empty());
  RecordProperty("photosWrittenBeforeTheKill", static_cast<int>(written));
}

}  // namespace
}  // namespace kvtrack::testing
