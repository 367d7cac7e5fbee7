// places and geocode against the loopback emulator of the place services,
// with the place cache in the test's scratch folder; geotag --write places
// then writes the cached names into the photos (read back with exiftool).
#include "tests/cli/WayfolioFixture.h"
#include "tests/common/ScopedEnvironment.h"
#include "tests/places/PlaceServiceEmulator.h"

#include <fmt/format.h>

namespace kvtrack::testing {
namespace {

namespace fs = std::filesystem;
using ::testing::HasSubstr;

class PlaceCommandsTest : public WayfolioTest {
 protected:
  PlaceCommandsTest() : cache("XDG_CACHE_HOME", scratch.file("cache")) {}
  void SetUp() override { importExamples(); }
  void useEmulator(const std::string& account = "tester") {
    scratch.write(
        "settings.toml",
        fmt::format("[places]\ngeoNamesUserName = \"{}\"\ngeoNamesServer = \"{}\"\n"
                    "geolocationServer = \"{}\"\nterraServiceServer = \"{}\"\n"
                    "geoNamesRequestSpacing = 0.0\n[defaults]\nGeoNamesLocale = \"de\"\n",
                    account, emulator.server().url(), emulator.server().url(), emulator.server().url()));
  }

  PlaceServiceEmulator emulator;
  ScopedEnvironment cache;
};

TEST_F(PlaceCommandsTest, PlacesFillsTrackPhotosThroughTheCacheAndGeotagWritesThem) {
  const auto first = photo("a.jpg", "2024:06:15 08:12:00");
  const auto second = photo("b.jpg", "2024:06:15 08:13:00");  // the same point
  ASSERT_THAT(ok("geotag " + photos()), HasSubstr("Attached 2 photos"));

  useEmulator("");  // no account: a clear message, and nothing is sent
  const WayfolioRun noAccount = run(std::string("places ") + kHike);
  EXPECT_EQ(noAccount.status, 1);
  EXPECT_THAT(noAccount.err, HasSubstr("geoNamesUserName"));
  EXPECT_EQ(emulator.server().requestCount(), 0u);

  useEmulator();
  EXPECT_EQ(ok(std::string("places ") + kHike),
            "Place names for 2 of 2 photos of Bachalpsee hike (1 cells: 0 from the cache, "
            "1 looked up)\n");
  EXPECT_EQ(emulator.geoNamesLookups(), 1u);
  EXPECT_EQ(emulator.server().requests().front().query.at("lang"), "de");
  EXPECT_THAT(lineWith(ok(std::string("photos ") + kHike), "a.jpg"),
              HasSubstr("Grindelwald, Grindelwald, Bern, Switzerland (CH)"));
  EXPECT_TRUE(fs::exists(scratch.file("cache/wayfolio/locations/1612_9332")));
  EXPECT_EQ(ok(std::string("places ") + kHike), "All 2 photos of Bachalpsee hike have place names\n");

  // A photo new to the track at a cached cell: geotag writes names from
  // the cache without asking the service again.
  const auto third = photo("c.jpg", "2024:06:15 08:12:30");
  EXPECT_THAT(ok("geotag --write places " + photos()), HasSubstr("Wrote 3 photos"));
  EXPECT_EQ(emulator.geoNamesLookups(), 1u);
  for (const auto& path : {first, second, third}) {
    EXPECT_EQ(readTag(path, "XMP:City"), "Grindelwald") << path;
    EXPECT_EQ(readTag(path, "IPTC:Province-State"), "Bern") << path;
  }
  EXPECT_EQ(readTag(third, "Country-PrimaryLocationCode"), "CH");
}

TEST_F(PlaceCommandsTest, GeocodeSearchesNamesPositionsAndLinks) {
  useEmulator();
  EXPECT_EQ(ok("geocode 'https://maps.google.com/maps?q=x&ll=47.6,-122.3&z=3'"), "47.600000 -122.300000\n");
  EXPECT_EQ(emulator.server().requestCount(), 0u);  // read offline
  const WayfolioRun notALink = run("geocode 'https://example.com/?ll=47,-122'");
  EXPECT_EQ(notALink.status, 1);
  EXPECT_THAT(notALink.err, HasSubstr("not a Google Maps link"));

  EXPECT_EQ(ok("geocode 47.3769 8.5417"),
            "City: Zürich\nState: Kanton Zürich\nCountry: Switzerland\nCountry code: CH\n"
            "Place: Zürich\n");
  EXPECT_EQ(ok("geocode --service terraservice -- 64.1 -21.9"),
            "City: Reykjavík\nState: Höfuðborgarsvæði\nCountry: Iceland\n");
  EXPECT_THAT(ok("geocode --service geolocation-server 46.66 8.06"), HasSubstr("City: Grindelwald"));
  EXPECT_EQ(ok("geocode -- -65 -40"), "No place names known at -65.000000 -40.000000\n");

  const std::string hits = ok("geocode Zürich");
  EXPECT_EQ(lineCount(hits), 3u);
  EXPECT_THAT(lineWith(hits, "Lake Zurich"), HasSubstr("47.250000"));
  EXPECT_THAT(lineWith(hits, "Lake Zurich"), HasSubstr("Hydrographic"));
  EXPECT_EQ(ok("geocode Atlantis"), "No places named 'Atlantis'\n");

  emulator.setAnswer("/findNearbyPlaceName", {500, ""});
  const WayfolioRun failed = run("geocode 47.3769 8.5417");
  EXPECT_EQ(failed.status, 1);
  EXPECT_THAT(failed.err, HasSubstr("HTTP status 500"));
}

}  // namespace
}  // namespace kvtrack::testing
