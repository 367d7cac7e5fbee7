// wayfolio view on the bundled tracks: where the page goes, what the user is
// told, and what --open hands to the desktop. The page itself is tested in
// tests/view, in a browser.
#include "tests/cli/WayfolioFixture.h"
#include "tests/photos/PhotoTestSupport.h"

#include <gmock/gmock.h>

#include <filesystem>

namespace kvtrack::testing {
namespace {

using ::testing::HasSubstr;
using ::testing::StartsWith;

class ViewCommandTest : public WayfolioTest {
 protected:
  void SetUp() override { importExamples(); }

  // wayfolio with its cache folder, and a PATH whose xdg-open writes the
  // argument it got into opened.txt.
  WayfolioRun view(const std::string& arguments) const {
    std::filesystem::create_directories(scratch.file("bin"));
    const std::string opener = scratch.write(
        "bin/xdg-open", "#!/bin/sh\nprintf '%s' \"$1\" > " + word(scratch.file("opened.txt")) + "\n");
    std::filesystem::permissions(opener, std::filesystem::perms::owner_all);
    const std::string environment = "XDG_CACHE_HOME=" + word(scratch.file("cache")) +
                                    " PATH=" + word(scratch.file("bin")) + ":\"$PATH\" ";
    return runProgram(environment + word(WAYFOLIO_BINARY), library(), "view " + arguments);
  }
};

TEST_F(ViewCommandTest, PageGoesToTheCacheFolderOrTheChosenFile) {
  const WayfolioRun cached = view("'Bachalpsee hike'");
  ASSERT_EQ(cached.status, 0) << cached.err;
  const std::string page = scratch.file("cache/wayfolio/view/Bachalpsee hike.html");
  EXPECT_THAT(cached.out, StartsWith(page + "\n"));
  EXPECT_THAT(cached.out, HasSubstr("1 track, 41 points"));
  EXPECT_THAT(ScratchFolder::read(page), StartsWith("<!DOCTYPE html>"));

  // A file name with quotes and blanks reaches xdg-open whole.
  const std::string chosen = scratch.file("it's a \"view\" $(x).html");
  const WayfolioRun opened = view("/ --html " + word(chosen) + " --open");
  ASSERT_EQ(opened.status, 0) << opened.err;
  EXPECT_THAT(opened.out, StartsWith(chosen + "\n"));
  EXPECT_THAT(opened.out, HasSubstr("3 tracks"));
  EXPECT_EQ(ScratchFolder::read(scratch.file("opened.txt")), chosen);
}

TEST_F(ViewCommandTest, NothingToShowOrNowhereToWriteFailsClearly) {
  ok("mkdir Empty");
  const WayfolioRun empty = view("Empty");
  EXPECT_EQ(empty.status, 1);
  EXPECT_THAT(empty.err, HasSubstr("folder 'Empty' holds no tracks to view"));

  const std::string nowhere = scratch.file("missing/folder/view.html");
  const WayfolioRun unwritable = view("'Rhine ride' --html " + word(nowhere));
  EXPECT_EQ(unwritable.status, 1);
  EXPECT_THAT(unwritable.err, HasSubstr("wayfolio: error:"));
  EXPECT_FALSE(std::filesystem::exists(nowhere));

  const WayfolioRun unknown = view("'No such walk'");
  EXPECT_EQ(unknown.status, 1);
}

TEST_F(ViewCommandTest, UnreadablePhotosAreNamedAndStillMarked) {
  const std::string photo = scratch.file("photos/lost.jpg");
  std::filesystem::create_directories(scratch.file("photos"));
  ASSERT_TRUE(makeJpeg(photo, {"DateTimeOriginal=2024:06:15 08:30:00"}));
  ok("geotag " + word(scratch.file("photos")));
  std::filesystem::remove(photo);
  const WayfolioRun viewed = view("'Bachalpsee hike' --html " + word(scratch.file("hike.html")));
  EXPECT_EQ(viewed.status, 0) << viewed.err;
  EXPECT_THAT(viewed.err, HasSubstr("warning: photo " + photo + " cannot be read"));
  EXPECT_THAT(viewed.out, HasSubstr("1 photo,"));
}

}  // namespace
}  // namespace kvtrack::testing
