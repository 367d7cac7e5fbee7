// The geocache blocks of GPX waypoints, written and read back through
// TrackGPX; a pocket query read whole; the external description files.
// Every plain-block field reading back is the GPX round trip's business.
#include "kvtrack/formats/geocache/GeocacheExternalImport.h"
#include "kvtrack/formats/geocache/GeocacheGPX.h"
#include "kvtrack/formats/geocache/GeocachingServices.h"
#include "kvtrack/formats/gpx/TrackGPX.h"
#include "kvtrack/support/Log.h"
#include "kvtrack/support/UserDefaults.h"
#include "tests/common/ScratchFolder.h"
#include "tests/common/TrackBuilders.h"

#include <gmock/gmock.h>

#include <filesystem>
#include <tuple>

namespace kvtrack {
namespace {

namespace fs = std::filesystem;
using testing::at;
using ::testing::HasSubstr;

GeocacheLogPtr makeLog(std::optional<ISODate> time, const char* geocacher, int32_t type, const char* text) {
  auto log = std::make_shared<GeocacheLog>();
  std::tie(log->time, log->geocacher, log->type, log->text) = std::tuple(time, geocacher, type, text);
  return log;
}

// A cache with every field set to a value that differs from the defaults.
GeocachePtr fullGeocache() {
  auto g = std::make_shared<Geocache>();
  std::tie(g->name, g->owner, g->locale, g->state, g->country, g->summary, g->description, g->hints,
           g->license, g->identifier) =
      std::tuple("Bridge & Tunnel", "Owner O", "de", "Bayern", "Germany", "Short <i>one</i>",
                 "<b>Long</b> text", "under the stone", "CC BY", "GC12345");
  std::tie(g->type, g->container, g->difficulty, g->terrain, g->status) = std::tuple(8, 3, 3.5f, 2.0f, 3);
  g->logs = {makeLog(at("2012-05-01T12:00:00+02:00"), "Finder Fred", 5, "Fixed the lid"),
             makeLog(std::nullopt, "Nobody", 1, "Too many muggles")};
  g->logs[0]->identifier = "L1";
  g->logs[0]->geocacherIdentifier = "F7";
  return g;
}

// The fields both blocks carry, for comparing what was written with what was read.
auto fieldsOf(const Geocache& g) {
  return std::tuple(g.name, g.owner, g.state, g.country, g.type, g.container, g.difficulty, g.terrain,
                    g.summary, g.description, g.hints, g.status, g.identifier);
}
auto logsOf(const Geocache& g) {
  std::vector<std::tuple<std::optional<ISODate>, std::optional<std::string>, std::optional<std::string>,
                         std::optional<std::string>, int32_t, std::optional<std::string>>>
      logs;
  for (const auto& l : g.logs)
    logs.emplace_back(l->time, l->geocacher, l->geocacherIdentifier, l->identifier, l->type, l->text);
  return logs;
}

// The cache on a waypoint of a place list, written with the configuration
// and read back, with a second waypoint behind it that reads back only when
// the cache's reader hands the parser back.
struct Written {
  std::string text, block;  // the whole file, and the first cache block in it
  GeocachePtr read;
};
Written writeAndRead(const GeocachePtr& cache, GpxExportConfiguration configuration = {}) {
  testing::ScratchFolder folder;
  auto track = Track::track();
  track->setType(Track::kLibraryCollection);
  testing::addWaypoint(*track, 47, 8, "GC1")->setGeocache(cache);
  testing::addWaypoint(*track, 48, 9, "after");
  const std::string path = folder.file("cache.gpx");
  EXPECT_TRUE(TrackGPX(track).exportTo(path, configuration));
  Written result{testing::ScratchFolder::read(path), {}, nullptr};
  const size_t start = result.text.find("cache"), end = result.text.find("cache>", start + 1);
  result.block = result.text.substr(start, end == std::string::npos ? 0 : end - start);
  auto copy = Track::track();
  EXPECT_TRUE(TrackGPX(copy).importFrom(path));
  EXPECT_EQ(copy->trackPoints().size(), 2u);
  EXPECT_EQ(copy->trackPoints().back()->name(), "after");
  if (!copy->trackPoints().empty()) result.read = copy->trackPoints().front()->geocache();
  EXPECT_NE(result.read, nullptr);
  return result;
}

GpxExportConfiguration groundspeakOnly(bool descriptionAsPlainText = false) {
  GpxExportConfiguration configuration;
  configuration.setExportGroundspeakExtensions(true);
  configuration.setExportGeocachingAuExtensions(false);
  configuration.setExportGeocachingDescriptionAsPlainText(descriptionAsPlainText);
  return configuration;
}

// What every field looks like in the block is in the kept files
// (GpxGoldenFilesTest); here what they leave out.
TEST(GeocachePlainBlock, UnsetFieldsAndUnknownValuesAreLeftOut) {
  auto bare = std::make_shared<Geocache>();
  bare->status = 9;
  bare->identifier = "";
  bare->logs = {makeLog(std::nullopt, "A", 9, "x")};
  bare->logs[0]->identifier = "";
  const Written w = writeAndRead(bare);
  EXPECT_TRUE(w.block.starts_with("cache>")) << w.text;
  for (const char* present : {"<log>", "<type/>"}) EXPECT_THAT(w.block, HasSubstr(present));
  for (const char* absent : {"<name", "<owner", "<summary", "<description", "<hints", "<licence", "<time"}) {
    EXPECT_THAT(w.block, ::testing::Not(HasSubstr(absent)));
  }
  ASSERT_TRUE(w.read);
  EXPECT_FALSE(w.read->identifier);
  ASSERT_EQ(w.read->logs.size(), 1u);
  EXPECT_EQ(w.read->logs[0]->type, 0);  // an empty type leaves the new log's type
}

TEST(GeocachePlainBlock, ReadsIdentifierFromTheWaypointUrlAndExternalReferences) {
  testing::ScratchFolder folder;
  auto track = Track::track();
  ASSERT_TRUE(TrackGPX(track).importFrom(folder.write("in.gpx", R"(<gpx>
    <wpt lat="1" lon="1"><url>https://example.org/cache_details.aspx?cacheid=4711</url><geocache status="unavailable">
      <description>wayfolioref:42</description><license>old spelling</license>
      <logs><log><type>Not Attempted</type></log><log><type>found</type></log><other/></logs></geocache></wpt>
    <wpt lat="2" lon="2"><url>https://example.org/?cacheid=</url><geocache/></wpt></gpx>)")));
  ASSERT_EQ(track->trackPoints().size(), 2u);
  const Geocache& g = *track->trackPoints()[0]->geocache();
  EXPECT_EQ(std::tuple(g.identifier, g.status, g.indexForGPXExternalFile), std::tuple("4711", 2, 42));
  EXPECT_FALSE(g.description);
  EXPECT_EQ(g.license, "old spelling");
  ASSERT_EQ(g.logs.size(), 2u);
  EXPECT_EQ(g.logs[0]->type, 2);
  EXPECT_EQ(g.logs[1]->type, 0);                                  // "found" is not "Found": unchanged
  EXPECT_FALSE(track->trackPoints()[1]->geocache()->identifier);  // nothing after "cacheid="
}

TEST(GeocacheGroundspeakBlock, EveryFieldRoundTripsInGroundspeaksTexts) {
  GeocachePtr cache = fullGeocache();
  cache->logs[0]->type = 0;
  cache->logs.push_back(makeLog(at("2013-01-02T03:04:05Z"), "Nora", 3, "Nice"));
  cache->logs.push_back(makeLog(at("2013-01-03T03:04:05Z"), "Otto", 5, "Checked"));
  Written w = writeAndRead(cache, groundspeakOnly());
  ASSERT_TRUE(w.read);
  EXPECT_EQ(fieldsOf(*w.read), fieldsOf(*cache));
  EXPECT_EQ(logsOf(*w.read), logsOf(*cache));
  // Plain text drops the markup; log types Groundspeak has no text for are written as "Other".
  cache = std::make_shared<Geocache>();
  cache->description = "<p>Look <b>here</b></p>";
  cache->logs = {makeLog(std::nullopt, "A", 2, "not attempted"), makeLog(std::nullopt, "B", 4, "x")};
  w = writeAndRead(cache, groundspeakOnly(true));
  ASSERT_TRUE(w.read);
  EXPECT_THAT(w.text, HasSubstr("<groundspeak:long_description html=\"False\">Look here<"));
  EXPECT_EQ(w.read->description, "Look here");
  ASSERT_EQ(w.read->logs.size(), 2u);
  for (const auto& log : w.read->logs) EXPECT_EQ(log->type, 0);  // "Other" is nothing in particular
}

TEST(GeocacheGroundspeakBlock, StatusAndGeneratedIdentifiers) {
  for (auto [status, expected] : std::vector<std::pair<int32_t, int32_t>>{{1, 1}, {2, 2}, {3, 3}, {0, 2}}) {
    auto cache = std::make_shared<Geocache>();
    cache->status = status;
    const Written w = writeAndRead(cache, groundspeakOnly());
    EXPECT_EQ(w.read ? w.read->status : -1, expected) << status;
  }
  // Caches without identifier share one counter that starts at 1000.
  auto cache = std::make_shared<Geocache>();
  const auto first = writeAndRead(cache, groundspeakOnly()).read->identifier;
  const auto second = writeAndRead(cache, groundspeakOnly()).read->identifier;
  ASSERT_TRUE(first && second);
  EXPECT_GE(std::stoll(*first), 1000);
  EXPECT_EQ(std::stoll(*second), std::stoll(*first) + 1);
  EXPECT_FALSE(cache->identifier);  // generated ids are not kept
}

const char* kPocketQuery = R"(<?xml version="1.0" encoding="utf-8"?>
<gpx xmlns:xsd="http://www.w3.org/2001/XMLSchema" xmlns:xsi="http://www.w3.org/2001/XMLSchema-instance"
     version="1.0" creator="Groundspeak Pocket Query" xmlns="http://www.topografix.com/GPX/1/0">
  <name>My Finds Pocket Query</name><time>2012-06-01T12:00:00.0000000Z</time>
  <wpt lat="47.366667" lon="8.55"><time>2010-03-14T08:00:00</time><name>GC1ABCD</name>
    <desc>Lake view by someone, Traditional Cache (1.5/2)</desc>
    <url>http://www.geocaching.com/seek/cache_details.aspx?guid=abc</url><urlname>Lake view</urlname>
    <sym>Geocache Found</sym><type>Geocache|Traditional Cache</type>
    <groundspeak:cache id="1234567" available="True" archived="True" xmlns:groundspeak="http://www.groundspeak.com/cache/1/0/1">
      <groundspeak:name>Lake view</groundspeak:name><groundspeak:placed_by>someone</groundspeak:placed_by>
      <groundspeak:owner id="42">someone</groundspeak:owner><groundspeak:type>Traditional Cache</groundspeak:type>
      <groundspeak:container>Small</groundspeak:container><groundspeak:difficulty>1.5</groundspeak:difficulty>
      <groundspeak:terrain>2</groundspeak:terrain><groundspeak:country>Switzerland</groundspeak:country>
      <groundspeak:state>Zürich</groundspeak:state>
      <groundspeak:short_description html="True">Short &lt;b&gt;one&lt;/b&gt;</groundspeak:short_description>
      <groundspeak:long_description html="True">&lt;p&gt;Long&lt;/p&gt;</groundspeak:long_description>
      <groundspeak:encoded_hints>under the bench</groundspeak:encoded_hints>
      <groundspeak:logs>
        <groundspeak:log id="9001"><groundspeak:date>2010-03-14T19:00:00Z</groundspeak:date>
          <groundspeak:type>Found it</groundspeak:type><groundspeak:finder id="7">me myself</groundspeak:finder>
          <groundspeak:text encoded="False">TFTC</groundspeak:text></groundspeak:log>
        <groundspeak:log id="9002"><groundspeak:type>Didn't find it</groundspeak:type>
          <groundspeak:finder id="8">Someone</groundspeak:finder></groundspeak:log>
      </groundspeak:logs>
      <groundspeak:travelbugs><groundspeak:travelbug id="55" ref="TB1234">
        <groundspeak:name>Bug</groundspeak:name></groundspeak:travelbug></groundspeak:travelbugs>
    </groundspeak:cache>
  </wpt>
</gpx>)";

// Available and archived at once: available wins.
TEST(GeocachePocketQuery, ReadsTheCacheSkipsTravelBugsAndSpotsTheUsersFind) {
  testing::ScratchFolder folder;
  const std::string path = folder.write("pq.gpx", kPocketQuery);
  // The user's own "Found it" marks the cache found; any other user or log type does not.
  for (const auto& [user, yourLogType] : std::vector<std::pair<const char*, int32_t>>{
           {"Not In The Logs", 2}, {"Me Myself", 0}, {"Someone", 2}}) {
    UserDefaults::singleton().setStringForKey(UserDefaults::kGeocachingComUserName, user);
    auto track = Track::track();
    ASSERT_TRUE(TrackGPX(track).importFrom(path));
    ASSERT_EQ(track->trackPoints().size(), 1u);
    const auto& point = track->trackPoints()[0];
    EXPECT_EQ(point->name(), "GC1ABCD");
    ASSERT_TRUE(point->geocache());
    const Geocache& g = *point->geocache();
    EXPECT_EQ(g.yourLogType, yourLogType) << user;
    EXPECT_EQ(fieldsOf(g), std::tuple("Lake view", "someone", "Zürich", "Switzerland", 0, 3, 1.5f, 2.0f,
                                      "Short <b>one</b>", "<p>Long</p>", "under the bench", 1, "1234567"));
    ASSERT_EQ(g.logs.size(), 2u);
    EXPECT_EQ(logsOf(g)[0], std::tuple(at("2010-03-14T19:00:00Z"), "me myself", "7", "9001", 0, "TFTC"));
    EXPECT_EQ(g.logs[1]->type, 1);
    ASSERT_NE(point->geocachingService(), nullptr);
    EXPECT_EQ(point->geocachingService(), GeocachingServices::geocachingService(*point));
    track->updateProperties();
    EXPECT_EQ(track->type(), Track::kGeocacheCollection);
  }
  UserDefaults::singleton().removeObjectForKey(UserDefaults::kGeocachingComUserName);
}

// A library folder with the folder for external description files.
struct LibraryFolder : testing::ScratchFolder {
  LibraryFolder() {
    fs::create_directories(path() / "all_geocaches.gpxx_ext");
    FileHandling::singleton().setUserApplicationSupport(path().string());
  }
  std::string external() const { return file("all_geocaches.gpxx_ext"); }
  std::string text(TrackPoint& point, const std::string& folder) {
    xml::XmlDocument document("gpx");
    GeocacheGPX::appendPlainBlock(document.root().addChild("wpt"), point, folder);
    return document.text("UTF-8");
  }
};

TEST(GeocacheExternalFile, WrittenOnExportAndLoadedOnDemand) {
  LibraryFolder library;
  auto track = Track::track();
  track->setCounterGPXExternal(42);
  auto point = TrackPoint::trackPointWithParent(track.get());
  point->setGeocache(fullGeocache());
  const std::string text = library.text(*point, library.external());
  EXPECT_THAT(text, HasSubstr("<description>wayfolioref:42</description>"));
  EXPECT_THAT(text, ::testing::Not(HasSubstr("<logs")));
  EXPECT_EQ(point->geocache()->indexForGPXExternalFile, 42);
  EXPECT_EQ(track->counterGPXExternal(), 43);
  ASSERT_TRUE(fs::exists(library.external() + "/desc000000042.gpxx"));

  GeocacheExternalImport::install();
  GeocacheExternalImport::install();
  Geocache loaded;
  loaded.indexForGPXExternalFile = 42;
  loaded.loadExternalGpx();
  EXPECT_TRUE(loaded.externalGPXFileLoaded);
  EXPECT_EQ(loaded.description, point->geocache()->description);
  EXPECT_EQ(logsOf(loaded), logsOf(*point->geocache()));

  LogCapture capture;  // a missing file counts as loaded, quietly
  Geocache missing;
  missing.indexForGPXExternalFile = 77;
  missing.loadExternalGpx();
  EXPECT_TRUE(missing.externalGPXFileLoaded);
  EXPECT_FALSE(missing.description);
  EXPECT_TRUE(capture.lines().empty());
}

TEST(GeocacheExternalFile, OnlyLoadedChangesAreWritten) {
  LibraryFolder library;
  TrackPoint unchanged;  // the file exists already and was never loaded
  unchanged.setGeocache(std::make_shared<Geocache>());
  unchanged.geocache()->indexForGPXExternalFile = 5;
  library.text(unchanged, library.external());
  EXPECT_FALSE(fs::exists(library.external() + "/desc000000005.gpxx"));

  TrackPoint orphan;  // no track to number the file
  orphan.setGeocache(std::make_shared<Geocache>());
  library.text(orphan, library.external());
  EXPECT_EQ(orphan.geocache()->indexForGPXExternalFile, 0);
  EXPECT_TRUE(fs::exists(library.external() + "/desc000000000.gpxx"));

  LogCapture capture;
  TrackPoint unwritable;  // a folder that is gone costs the file, quietly
  unwritable.setGeocache(std::make_shared<Geocache>());
  library.text(unwritable, library.external() + "/gone");
  EXPECT_TRUE(capture.lines().empty());

  Geocache target;
  EXPECT_FALSE(GeocacheExternalImport::importFrom(
      library.write("all_geocaches.gpxx_ext/broken.gpxx", "<gpxExt><description>"), target));
  EXPECT_TRUE(capture.contains("GeocacheExternalImport: Error parsing file!"));
}

}  // namespace
}  // namespace kvtrack
