// The geocache blocks of GPX waypoints, written into a waypoint and read
// back the way the waypoint reader does; a pocket query read whole; the
// external description files. Every plain-block field reading back is the
// GPX round trip's business.
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
using Names = std::vector<std::string>;

GeocacheLogPtr makeLog(std::optional<ISODate> time, const char* geocacher, int32_t type, const char* text) {
  auto log = std::make_shared<GeocacheLog>();
  std::tie(log->time, log->geocacher, log->type, log->text) = std::tuple(time, geocacher, type, text);
  return log;
}

// A cache with every field set to a value that differs from the defaults.
GeocachePtr fullGeocache() {
  auto g = std::make_shared<Geocache>();
  std::tie(g->name, g->owner, g->locale, g->state, g->country, g->summary, g->description, g->hints, g->license,
           g->identifier) = std::tuple("Bridge & Tunnel", "Owner O", "de", "Bayern", "Germany", "Short <i>one</i>",
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
  return std::tuple(g.name, g.owner, g.state, g.country, g.type, g.container, g.difficulty, g.terrain, g.summary,
                    g.description, g.hints, g.status, g.identifier);
}
auto logsOf(const Geocache& g) {
  std::vector<std::tuple<std::optional<ISODate>, std::optional<std::string>, std::optional<std::string>,
                         std::optional<std::string>, int32_t, std::optional<std::string>>> logs;
  for (const auto& l : g.logs) logs.emplace_back(l->time, l->geocacher, l->geocacherIdentifier, l->identifier, l->type, l->text);
  return logs;
}

// Reads the blocks the way the GPX waypoint reader does and records which
// ends reached the root (so a handler that fails to hand back shows).
struct WaypointReader : xml::SaxHandler {
  Geocache plain, groundspeak;
  std::optional<std::string> url;
  Names rootEnds;

  void startElement(xml::SaxParser& parser, std::string_view name, const xml::Attributes& attributes) override {
    if (name == "geocache") GeocacheGPX::geocacheGPXElementForGeocache(plain, parser, attributes, url);
    if (name == "groundspeak:cache") GeocacheGPX::groundspeakCacheGPXElementForGeocache(groundspeak, parser, attributes);
  }
  void endElement(xml::SaxParser&, std::string_view name) override { rootEnds.emplace_back(name); }
  bool read(const std::string& text) { return xml::SaxParser().parseText(text, *this); }
};

struct Written {
  std::string text;
  WaypointReader reader;
};

enum Blocks { kPlain, kGroundspeak, kGroundspeakPlainText };

// Writes the cache's block into a waypoint of a fresh document and reads it back.
Written writeAndRead(const GeocachePtr& cache, Blocks blocks) {
  TrackPoint point;
  point.setGeocache(cache);
  xml::XmlDocument document("gpx");
  xml::XmlElement waypoint = document.root().addChild("wpt");
  if (blocks == kPlain) GeocacheGPX::appendPlainBlock(waypoint, point, std::nullopt);
  if (blocks != kPlain) GeocacheGPX::appendGroundspeakBlock(waypoint, point, blocks == kGroundspeakPlainText);
  Written result{document.text("UTF-8"), {}};
  EXPECT_TRUE(result.reader.read(result.text)) << result.text;
  EXPECT_EQ(result.reader.rootEnds, (Names{"wpt", "gpx"}));
  return result;
}

TEST(GeocachePlainBlock, ChildrenInAFixedOrderWithNamedValuesAndUnsetFieldsLeftOut) {
  Written w = writeAndRead(fullGeocache(), kPlain);
  EXPECT_THAT(w.text, HasSubstr("<geocache status=\"Archived\" id=\"GC12345\">"));
  EXPECT_THAT(w.text, HasSubstr("<type>Owner Maintenance</type>"));  // the first log's
  size_t last = 0;
  for (const char* tag : {"<name>", "<owner>", "<locale>", "<state>", "<country>", "<type>Mystery", "<container>",
                          "<difficulty>3.5<", "<terrain>2.0<", "<summary>", "<description>", "<hints>",
                          "<licence>CC BY<", "<logs>"}) {
    ASSERT_GT(w.text.find(tag), last) << tag << "\n" << w.text;
    last = w.text.find(tag);
  }

  auto bare = std::make_shared<Geocache>();
  bare->status = 9;
  bare->identifier = "";
  bare->logs = {makeLog(std::nullopt, "A", 9, "x")};
  bare->logs[0]->identifier = "";
  w = writeAndRead(bare, kPlain);
  for (const char* present : {"<geocache>", "<log>", "<type/>"}) EXPECT_THAT(w.text, HasSubstr(present));
  for (const char* absent : {"<name", "<owner", "<summary", "<description", "<hints", "<licence", "<time"}) {
    EXPECT_THAT(w.text, ::testing::Not(HasSubstr(absent)));
  }
  EXPECT_FALSE(w.reader.plain.identifier);
  ASSERT_EQ(w.reader.plain.logs.size(), 1u);
  EXPECT_EQ(w.reader.plain.logs[0]->type, 0);  // an empty type leaves the new log's type
}

TEST(GeocachePlainBlock, ReadsIdentifierFromTheWaypointUrlAndExternalReferences) {
  WaypointReader reader;
  reader.url = "https://example.org/cache_details.aspx?cacheid=4711";
  ASSERT_TRUE(reader.read(
      "<wpt><geocache status=\"unavailable\"><description>wayfolioref:42</description>"
      "<license>old spelling</license><logs><log><type>Not Attempted</type></log>"
      "<log><type>found</type></log><other/></logs></geocache></wpt>"));
  EXPECT_EQ(std::tuple(reader.plain.identifier, reader.plain.status, reader.plain.indexForGPXExternalFile),
            std::tuple("4711", 2, 42));
  EXPECT_FALSE(reader.plain.description);
  EXPECT_EQ(reader.plain.license, "old spelling");
  ASSERT_EQ(reader.plain.logs.size(), 2u);
  EXPECT_EQ(reader.plain.logs[0]->type, 2);
  EXPECT_EQ(reader.plain.logs[1]->type, 0);  // "found" is not "Found": unchanged
  EXPECT_EQ(reader.rootEnds, (Names{"wpt"}));

  WaypointReader nothingAfter;
  nothingAfter.url = "https://example.org/?cacheid=";
  ASSERT_TRUE(nothingAfter.read("<geocache/>"));
  EXPECT_FALSE(nothingAfter.plain.identifier);
}

TEST(GeocacheGroundspeakBlock, EveryFieldRoundTripsInGroundspeaksTexts) {
  GeocachePtr cache = fullGeocache();
  cache->logs[0]->type = 0;
  cache->logs.push_back(makeLog(at("2013-01-02T03:04:05Z"), "Nora", 3, "Nice"));
  cache->logs.push_back(makeLog(at("2013-01-03T03:04:05Z"), "Otto", 5, "Checked"));
  Written w = writeAndRead(cache, kGroundspeak);
  EXPECT_EQ(fieldsOf(w.reader.groundspeak), fieldsOf(*cache));
  EXPECT_EQ(logsOf(w.reader.groundspeak), logsOf(*cache));
  EXPECT_EQ(w.reader.groundspeak.yourLogType, 2);
  for (const std::string& fragment :
       {std::string("<groundspeak:cache xmlns:groundspeak=\"") + GeocacheGPX::kGroundspeakNamespace +
            R"(" id="GC12345" available="False" archived="True">)",
        std::string("<groundspeak:difficulty>3.5</groundspeak:difficulty>"),
        std::string("<groundspeak:terrain>2</groundspeak:terrain>"),
        std::string("<groundspeak:type>Mystery/Puzzle Cache</groundspeak:type>"),
        std::string("<groundspeak:finder id=\"F7\">Finder Fred</groundspeak:finder>"),
        std::string("<groundspeak:long_description html=\"True\">")}) {
    EXPECT_THAT(w.text, HasSubstr(fragment));
  }

  // Plain text drops the markup; log types Groundspeak has no text for are written as "Other".
  cache = std::make_shared<Geocache>();
  cache->description = "<p>Look <b>here</b></p>";
  cache->logs = {makeLog(std::nullopt, "A", 2, "not attempted"), makeLog(std::nullopt, "B", 4, "x")};
  w = writeAndRead(cache, kGroundspeakPlainText);
  EXPECT_THAT(w.text, HasSubstr("<groundspeak:long_description html=\"False\">Look here<"));
  EXPECT_EQ(w.reader.groundspeak.description, "Look here");
  ASSERT_EQ(w.reader.groundspeak.logs.size(), 2u);
  for (const auto& log : w.reader.groundspeak.logs) EXPECT_EQ(log->type, 0);  // "Other" is nothing in particular
}

TEST(GeocacheGroundspeakBlock, StatusAndGeneratedIdentifiers) {
  for (auto [status, expected] : std::vector<std::pair<int32_t, int32_t>>{{1, 1}, {2, 2}, {3, 3}, {0, 2}}) {
    auto cache = std::make_shared<Geocache>();
    cache->status = status;
    EXPECT_EQ(writeAndRead(cache, kGroundspeak).reader.groundspeak.status, expected) << status;
  }
  WaypointReader both;
  ASSERT_TRUE(both.read(R"(<groundspeak:cache xmlns:groundspeak="x" available="True" archived="True"/>)"));
  EXPECT_EQ(both.groundspeak.status, 1);

  // Caches without identifier share one counter that starts at 1000.
  auto cache = std::make_shared<Geocache>();
  const auto first = writeAndRead(cache, kGroundspeak).reader.groundspeak.identifier;
  const auto second = writeAndRead(cache, kGroundspeak).reader.groundspeak.identifier;
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
    <groundspeak:cache id="1234567" available="True" archived="False" xmlns:groundspeak="http://www.groundspeak.com/cache/1/0/1">
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

TEST(GeocachePocketQuery, ReadsTheCacheSkipsTravelBugsAndSpotsTheUsersFind) {
  testing::ScratchFolder folder;
  const std::string path = folder.write("pq.gpx", kPocketQuery);
  // The user's own "Found it" marks the cache found; any other user or log type does not.
  for (const auto& [user, yourLogType] :
       std::vector<std::pair<const char*, int32_t>>{{"Not In The Logs", 2}, {"Me Myself", 0}, {"Someone", 2}}) {
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
