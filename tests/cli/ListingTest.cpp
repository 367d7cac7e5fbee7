// ls, tree, show and points: what a user reads about the library.
#include "kvtrack/support/ISODate.h"
#include "tests/cli/WayfolioFixture.h"

#include <gmock/gmock.h>

namespace kvtrack::testing {
namespace {

using ::testing::HasSubstr;
using ::testing::StartsWith;

class ListingTest : public WayfolioTest {
 protected:
  void SetUp() override { importExamples(); }
};

TEST_F(ListingTest, LsShowsStartDurationAndLengthFromTheIndex) {
  const std::string listing = ok("ls");
  EXPECT_THAT(lineWith(listing, "NAME"),
              ::testing::MatchesRegex("NAME +START +DURATION +LENGTH +POINTS +PHOTOS"));
  const std::string hike = lineWith(listing, "Bachalpsee hike");
  // Shown in the track's own zone, in the user's locale.
  const auto start = ISODate::isoDateWithString("2024-06-15T08:00:00+02:00");
  EXPECT_THAT(hike, HasSubstr(start->descriptionForGui()));
  EXPECT_THAT(hike, HasSubstr("2:00 h"));
  EXPECT_THAT(hike, HasSubstr("5.93 km"));
  EXPECT_EQ(lineCount(listing), 4u);
}

TEST_F(ListingTest, UnitsFollowTheSettings) {
  scratch.write("settings.toml", "[preferences]\nunitMode = 1\n");
  EXPECT_THAT(lineWith(ok("ls"), "Rhine ride"), HasSubstr("5.45 mi"));
  EXPECT_THAT(lineWith(ok("show " + word("Rhine ride")), "Length:"), HasSubstr("5.45 mi"));
  scratch.write("settings.toml", "[preferences]\nunitMode = 2\n");
  EXPECT_THAT(lineWith(ok("ls"), "Rhine ride"), HasSubstr("4.74 nmi"));
}

TEST_F(ListingTest, ShowGivesEveryFigureOfATrack) {
  const std::string shown = ok("show " + word("Bachalpsee hike"));
  EXPECT_EQ(lineWith(shown, "Name:"), "Name:          Bachalpsee hike");
  EXPECT_EQ(lineWith(shown, "Folder:"), "Folder:        /");
  EXPECT_EQ(lineWith(shown, "Start:"), "Start:         2024-06-15T08:00:00+02:00");
  EXPECT_EQ(lineWith(shown, "End:"), "End:           2024-06-15T10:00:00+02:00");
  EXPECT_EQ(lineWith(shown, "Points:"), "Points:        41");
  EXPECT_EQ(lineWith(shown, "Waypoints:"), "Waypoints:     2");
  EXPECT_EQ(lineWith(shown, "Max elevation:"), "Max elevation: 2268 m");
  EXPECT_EQ(lineWith(shown, "Time zone:"), "Time zone:     +02:00");
  EXPECT_EQ(lineWith(shown, "Type:"), "Type:          recorded track");
  EXPECT_THAT(lineWith(shown, "Max speed:"), ::testing::MatchesRegex("Max speed: +[1-9][0-9.]* km/h"));
  EXPECT_THAT(lineWith(shown, "Track id:"), HasSubstr("wayfolio:2024:06:15 08:00:00+02:00"));
  EXPECT_EQ(lineWith(shown, "Description:"),
            "Description:   Out and back from First to the Bachalpsee");
}

TEST_F(ListingTest, PointsListsEveryPointWithFlags) {
  const std::string ride = ok("points " + word("Rhine ride"));
  EXPECT_EQ(lineCount(ride), 31u);  // title and 30 points
  const std::string first = lineWith(ride, "2024-07-02T16:30:00Z");
  EXPECT_THAT(first, StartsWith(" 0  2024-07-02T16:30:00Z  47.559600   7.588600"));
  // The first segment ends at point 14.
  EXPECT_THAT(lineWith(ride, "2024-07-02T16:44:00Z"), ::testing::EndsWith("|"));

  const std::string lake = lineWith(ok("points " + word("Bachalpsee hike")), "Bachalpsee");
  EXPECT_THAT(lake, StartsWith("20  2024-06-15T09:00:00+02:00"));
  EXPECT_THAT(lake, ::testing::EndsWith("W      Bachalpsee"));
}

}  // namespace
}  // namespace kvtrack::testing
