#include "kvtrack/formats/geocache/GeocacheExternalImport.h"
#include "kvtrack/formats/geocache/GeocacheGPX.h"
#include "kvtrack/model/Track.h"
#include "kvtrack/support/Log.h"
#include "kvtrack/support/UserDefaults.h"
#include "tests/common/ScratchFolder.h"
#include "tests/common/TrackBuilders.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <tuple>
#include <vector>

namespace kvtrack {
namespace {

namespace fs = std::filesystem;
using testing::at;
using Names = std::vector<std::string>;

bool contains(const std::string& text, std::string_view fragment) {
  return text.find(fragment) != std::string::npos;
}

GeocacheLogPtr makeLog(std::optional<ISODate> time, const char* geocacher, int32_t type,
                       const char* text) {
  auto log = std::make_shared<GeocacheLog>();
  log->time = time;
  log->geocacher = geocacher;
  log->type = type;
  log->text = text;
  return log;
}

// A cache with every field set to a value that differs from the defaults.
GeocachePtr fullGeocache() {
  auto g = std::make_shared<Geocache>();
  g->name = "Bridge & Tunnel";
  g->owner = "Owner O";
  g->locale = "de";
  g->state = "Bayern";
  g->country = "Germany";
  g->type = 8;
  g->container = 3;
  g->difficulty = 3.5f;
  g->terrain = 2.0f;
  g->summary = "Short <i>one</i>";
  g->description = "<b>Long</b> text";
  g->hints = "under the stone";
  g->license = "CC BY";
  g->status = 3;
  g->identifier = "GC12345";
  auto first = makeLog(at("2012-05-01T12:00:00+02:00"), "Finder Fred", 5, "Fixed the lid");
  first->identifier = "L1";
  first->geocacherIdentifier = "F7";
  g->logs = {first, makeLog(std::nullopt, "Nobody", 1, "Too many muggles")};
  return g;
}

// The fields both blocks carry, for comparing what was written with what was read.
auto fieldsOf(const Geocache& g) {
  return std::tuple(g.name, g.owner, g.state, g.country, g.type, g.container, g.difficulty,
                    g.terrain, g.summary, g.description, g.hints, g.status, g.identifier);
}
auto logsOf(const Geocache& g) {
  std::vector<std::tuple<std::optional<ISODate>, std::optional<std::string>,
                         std::optional<std::string>, std::optional<std::string>, int32_t,
                         std::optional<std::string>>> logs;
  for (const auto& l : g.logs) {
    logs.emplace_back(l->time, l->geocacher, l->geocacherIdentifier, l->identifier, l->type, l->text);
  }
  return logs;
}

// Reads the blocks the way the GPX waypoint reader does and records which
// ends reached the root (so a handler that fails to hand back shows).
class WaypointReader : public xml::SaxHandler {
 public:
  Geocache plain, groundspeak;
  std::optional<std::string> url;
  Names rootEnds;

  void startElement(xml::SaxParser& parser, std::string_view name,
                    const xml::Attributes& attributes) override {
    if (name == "geocache") {
      GeocacheGPX::geocacheGPXElementForGeocache(plain, parser, attributes, url);
    }
    if (name == "groundspeak:cache") {
      GeocacheGPX::groundspeakCacheGPXElementForGeocache(groundspeak, parser, attributes);
    }
  }
  void endElement(xml::SaxParser&, std::string_view name) override { rootEnds.emplace_back(name); }
  bool read(const std::string& text) {
    xml::SaxParser parser;
    return parser.parseText(text, *this);
  }
};

struct Written {
  std::string text;
  WaypointReader reader;
};

// Writes the point's blocks into a waypoint of a fresh document and reads them back.
Written writeAndRead(TrackPoint& point, bool plain, bool groundspeak, bool plainText = false) {
  xml::XmlDocument document("gpx");
  xml::XmlElement waypoint = document.root().addChild("wpt");
  if (plain) GeocacheGPX::appendPlainBlock(waypoint, point, std::nullopt);
  if (groundspeak) GeocacheGPX::appendGroundspeakBlock(waypoint, point, plainText);
  Written result;
  result.text = document.text("UTF-8");
  EXPECT_TRUE(result.reader.read(result.text)) << result.text;
  EXPECT_EQ(result.reader.rootEnds, (Names{"wpt", "gpx"}));
  return result;
}

// Reading every field back is covered by the GPX round trip; here the texts and their order.
TEST(GeocachePlainBlock, ChildrenComeInAFixedOrderWithTheNamedValues) {
  TrackPoint point;
  point.setGeocache(fullGeocache());
  Written w = writeAndRead(point, true, false);
  EXPECT_TRUE(contains(w.text, "<geocache status=\"Archived\" id=\"GC12345\">")) << w.text;
  EXPECT_TRUE(contains(w.text, "<terrain>2.0</terrain>"));
  EXPECT_TRUE(contains(w.text, "<type>Owner Maintenance</type>"));
  size_t last = 0;
  for (const char* tag : {"<name>", "<owner>", "<locale>", "<state>", "<country>", "<type>",
                          "<container>", "<difficulty>3.5<", "<terrain>", "<summary>",
                          "<description>", "<hints>", "<licence>CC BY<", "<logs>"}) {
    const size_t position = w.text.find(tag);
    ASSERT_NE(position, std::string::npos) << tag;
    EXPECT_GT(position, last) << tag;
    last = position;
  }
}

TEST(GeocachePlainBlock, UnsetFieldsAndUnknownValuesStayOut) {
  TrackPoint point;
  auto cache = std::make_shared<Geocache>();
  cache->status = 9;
  cache->identifier = "";
  cache->logs = {makeLog(std::nullopt, "A", 9, "x")};
  cache->logs[0]->identifier = "";
  point.setGeocache(cache);
  Written w = writeAndRead(point, true, false);
  for (const char* present : {"<geocache>", "<log>", "<type/>"}) {
    EXPECT_TRUE(contains(w.text, present)) << present << "\n" << w.text;
  }
  for (const char* absent :
       {"<name", "<owner", "<summary", "<description", "<hints", "<licence", "<time"}) {
    EXPECT_FALSE(contains(w.text, absent)) << absent;
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
  EXPECT_EQ(reader.plain.identifier, "4711");
  EXPECT_EQ(reader.plain.status, 2);
  EXPECT_EQ(reader.plain.indexForGPXExternalFile, 42);
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

TEST(GeocacheGroundspeakBlock, EveryFieldRoundTrips) {
  TrackPoint point;
  GeocachePtr cache = fullGeocache();
  cache->logs[0]->type = 0;
  cache->logs.push_back(makeLog(at("2013-01-02T03:04:05Z"), "Nora", 3, "Nice"));
  cache->logs.push_back(makeLog(at("2013-01-03T03:04:05Z"), "Otto", 5, "Checked"));
  point.setGeocache(cache);
  Written w = writeAndRead(point, false, true);
  EXPECT_EQ(fieldsOf(w.reader.groundspeak), fieldsOf(*cache));
  EXPECT_EQ(logsOf(w.reader.groundspeak), logsOf(*cache));
  EXPECT_EQ(w.reader.groundspeak.yourLogType, 2);
  for (const std::string& fragment :
       {std::string("<groundspeak:cache xmlns:groundspeak=\"") +
            GeocacheGPX::kGroundspeakNamespace + R"(" id="GC12345" available="False" archived="True">)",
        std::string("<groundspeak:difficulty>3.5</groundspeak:difficulty>"),
        std::string("<groundspeak:terrain>2</groundspeak:terrain>"),
        std::string("<groundspeak:type>Mystery/Puzzle Cache</groundspeak:type>"),
        std::string("<groundspeak:finder id=\"F7\">Finder Fred</groundspeak:finder>"),
        std::string("<groundspeak:long_description html=\"True\">")}) {
    EXPECT_TRUE(contains(w.text, fragment)) << fragment << "\n" << w.text;
  }
}

TEST(GeocacheGroundspeakBlock, PlainTextDescriptionAndUntranslatableLogTypes) {
  TrackPoint point;
  auto cache = std::make_shared<Geocache>();
  cache->description = "<p>Look <b>here</b></p>";
  cache->logs = {makeLog(std::nullopt, "A", 2, "not attempted"), makeLog(std::nullopt, "B", 4, "x")};
  point.setGeocache(cache);
  Written w = writeAndRead(point, false, true, true);
  EXPECT_TRUE(contains(w.text, "<groundspeak:long_description html=\"False\">Look here<"))
      << w.text;
  EXPECT_EQ(w.reader.groundspeak.description, "Look here");
  // Both are written as "Other", which reads back as nothing in particular.
  ASSERT_EQ(w.reader.groundspeak.logs.size(), 2u);
  EXPECT_EQ(w.reader.groundspeak.logs[0]->type, 0);
  EXPECT_EQ(w.reader.groundspeak.logs[1]->type, 0);
}

TEST(GeocacheGroundspeakBlock, StatusAndGeneratedIdentifiers) {
  for (auto [status, expected] : std::vector<std::pair<int32_t, int32_t>>{{1, 1}, {2, 2}, {3, 3}, {0, 2}}) {
    TrackPoint point;
    point.setGeocache(std::make_shared<Geocache>());
    point.geocache()->status = status;
    EXPECT_EQ(writeAndRead(point, false, true).reader.groundspeak.status, expected) << status;
  }
  WaypointReader both;
  ASSERT_TRUE(both.read(
      R"(<groundspeak:cache xmlns:groundspeak="x" available="True" archived="True"/>)"));
  EXPECT_EQ(both.groundspeak.status, 1);

  // Caches without identifier share one counter that starts at 1000.
  TrackPoint point;
  point.setGeocache(std::make_shared<Geocache>());
  const auto first = writeAndRead(point, false, true).reader.groundspeak.identifier;
  const auto second = writeAndRead(point, false, true).reader.groundspeak.identifier;
  ASSERT_TRUE(first && second);
  EXPECT_GE(std::stoll(*first), 1000);
  EXPECT_EQ(std::stoll(*second), std::stoll(*first) + 1);
  EXPECT_FALSE(point.geocache()->identifier);  // generated ids are not kept
}

// The rest of a pocket query is read in the foreign-file tests.
const char* kPocketQuery = R"(<gpx xmlns:groundspeak="http://www.groundspeak.com/cache/1/0/1">
 <wpt lat="47.1" lon="8.2"><name>GC1ABC</name>
  <groundspeak:cache id="98765" available="False" archived="False">
   <groundspeak:name>Old Mill</groundspeak:name><groundspeak:placed_by>Miller</groundspeak:placed_by>
   <groundspeak:owner id="12">Owner</groundspeak:owner>
   <groundspeak:long_description html="True">&lt;p&gt;Long&lt;/p&gt;</groundspeak:long_description>
   <groundspeak:logs>
    <groundspeak:log id="501"><groundspeak:date>2011-07-14T19:00:00Z</groundspeak:date>
     <groundspeak:type>Found it</groundspeak:type><groundspeak:finder id="333">me myself</groundspeak:finder>
     <groundspeak:text encoded="False">TFTC</groundspeak:text></groundspeak:log>
    <groundspeak:log id="502"><groundspeak:type>Didn't find it</groundspeak:type>
     <groundspeak:finder id="444">Someone</groundspeak:finder></groundspeak:log>
   </groundspeak:logs>
   <groundspeak:travelbugs><groundspeak:travelbug id="9" ref="TB1">
    <groundspeak:name>Travelling Bug</groundspeak:name></groundspeak:travelbug></groundspeak:travelbugs>
  </groundspeak:cache>
 </wpt>
</gpx>)";

TEST(GeocacheGroundspeakBlock, ReadsPocketQueriesSkipsTravelBugsAndSpotsTheUsersFind) {
  // The user's own "Found it" marks the cache found; any other user or log type does not.
  for (const auto& [user, yourLogType] : std::vector<std::pair<const char*, int32_t>>{
           {"Not In The Logs", 2}, {"Me Myself", 0}, {"Someone", 2}}) {
    UserDefaults::singleton().setStringForKey(UserDefaults::kGeocachingComUserName, user);
    WaypointReader reader;
    ASSERT_TRUE(reader.read(kPocketQuery));
    EXPECT_EQ(reader.groundspeak.yourLogType, yourLogType) << user;
    EXPECT_EQ(reader.rootEnds, (Names{"name", "wpt", "gpx"}));
    const Geocache& g = reader.groundspeak;
    EXPECT_EQ(g.name, "Old Mill");
    EXPECT_EQ(g.owner, "Owner");
    EXPECT_EQ(g.status, 2);
    EXPECT_EQ(g.description, "<p>Long</p>");
    EXPECT_EQ(logsOf(g)[0], std::tuple(at("2011-07-14T19:00:00Z"), "me myself", "333", "501", 0, "TFTC"));
    EXPECT_EQ(g.logs[1]->type, 1);
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
};

TEST(GeocacheExternalFile, WrittenOnExportAndLoadedOnDemand) {
  LibraryFolder library;
  auto track = Track::track();
  track->setCounterGPXExternal(42);
  auto point = TrackPoint::trackPointWithParent(track.get());
  point->setGeocache(fullGeocache());
  xml::XmlDocument document("gpx");
  GeocacheGPX::appendPlainBlock(document.root().addChild("wpt"), *point, library.external());
  const std::string text = document.text("UTF-8");
  EXPECT_TRUE(contains(text, "<description>wayfolioref:42</description>")) << text;
  EXPECT_FALSE(contains(text, "<logs"));
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
  xml::XmlDocument document("gpx");
  TrackPoint unchanged;  // the file exists already and was never loaded
  unchanged.setGeocache(std::make_shared<Geocache>());
  unchanged.geocache()->indexForGPXExternalFile = 5;
  GeocacheGPX::appendPlainBlock(document.root().addChild("wpt"), unchanged, library.external());
  EXPECT_FALSE(fs::exists(library.external() + "/desc000000005.gpxx"));

  TrackPoint orphan;  // no track to number the file
  orphan.setGeocache(std::make_shared<Geocache>());
  GeocacheGPX::appendPlainBlock(document.root().addChild("wpt"), orphan, library.external());
  EXPECT_EQ(orphan.geocache()->indexForGPXExternalFile, 0);
  EXPECT_TRUE(fs::exists(library.external() + "/desc000000000.gpxx"));

  LogCapture capture;
  TrackPoint unwritable;  // a folder that is gone costs the file, quietly
  unwritable.setGeocache(std::make_shared<Geocache>());
  GeocacheGPX::appendPlainBlock(document.root().addChild("wpt"), unwritable,
                                library.external() + "/gone");
  EXPECT_TRUE(capture.lines().empty());

  Geocache target;
  EXPECT_FALSE(GeocacheExternalImport::importFrom(
      library.write("all_geocaches.gpxx_ext/broken.gpxx", "<gpxExt><description>"), target));
  EXPECT_TRUE(capture.contains("GeocacheExternalImport: Error parsing file!"));
}

}  // namespace
}  // namespace kvtrack
