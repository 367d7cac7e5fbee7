#include "kvtrack/formats/geocache/GeocacheExternalImport.h"
#include "kvtrack/formats/geocache/GeocacheGPX.h"
#include "kvtrack/model/Track.h"
#include "kvtrack/model/TrackPoint.h"
#include "kvtrack/support/FileHandling.h"
#include "kvtrack/support/Log.h"
#include "kvtrack/support/UserDefaults.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace kvtrack {
namespace {

namespace fs = std::filesystem;

ISODate at(const char* text) { return ISODate::isoDateWithString(text).value(); }

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

// Reads the blocks the way the GPX waypoint reader does and records which
// ends reached the root (so a handler that fails to hand back shows).
class WaypointReader : public xml::SaxHandler {
 public:
  Geocache plain, groundspeak;
  std::optional<std::string> url;
  std::vector<std::string> rootEnds;

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
  EXPECT_EQ(result.reader.rootEnds, (std::vector<std::string>{"wpt", "gpx"}));
  return result;
}

void expectSameCache(const Geocache& read, const Geocache& written) {
  EXPECT_EQ(read.name, written.name);
  EXPECT_EQ(read.owner, written.owner);
  EXPECT_EQ(read.state, written.state);
  EXPECT_EQ(read.country, written.country);
  EXPECT_EQ(read.type, written.type);
  EXPECT_EQ(read.container, written.container);
  EXPECT_EQ(read.difficulty, written.difficulty);
  EXPECT_EQ(read.terrain, written.terrain);
  EXPECT_EQ(read.summary, written.summary);
  EXPECT_EQ(read.description, written.description);
  EXPECT_EQ(read.hints, written.hints);
  EXPECT_EQ(read.status, written.status);
  EXPECT_EQ(read.identifier, written.identifier);
  EXPECT_EQ(read.yourLogType, 2);
  ASSERT_EQ(read.logs.size(), written.logs.size());
  for (size_t i = 0; i < read.logs.size(); ++i) {
    const GeocacheLog& r = *read.logs[i];
    const GeocacheLog& w = *written.logs[i];
    EXPECT_EQ(r.time, w.time) << i;
    EXPECT_EQ(r.geocacher, w.geocacher) << i;
    EXPECT_EQ(r.geocacherIdentifier, w.geocacherIdentifier) << i;
    EXPECT_EQ(r.identifier, w.identifier) << i;
    EXPECT_EQ(r.type, w.type) << i;
    EXPECT_EQ(r.text, w.text) << i;
  }
}

TEST(GeocachePlainBlock, EveryFieldRoundTrips) {
  TrackPoint point;
  point.setGeocache(fullGeocache());
  Written w = writeAndRead(point, true, false);
  expectSameCache(w.reader.plain, *point.geocache());
  EXPECT_EQ(w.reader.plain.locale, "de");
  EXPECT_EQ(w.reader.plain.license, "CC BY");
  EXPECT_TRUE(contains(w.text, "<geocache status=\"Archived\" id=\"GC12345\">")) << w.text;
  EXPECT_TRUE(contains(w.text, "<terrain>2.0</terrain>"));
  EXPECT_TRUE(contains(w.text, "<type>Owner Maintenance</type>"));
  size_t last = 0;  // the children come in a fixed order
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
  auto odd = makeLog(std::nullopt, "A", 9, "x");
  odd->identifier = "";
  cache->logs = {odd};
  point.setGeocache(cache);
  Written w = writeAndRead(point, true, false);
  EXPECT_TRUE(contains(w.text, "<geocache>")) << w.text;
  EXPECT_TRUE(contains(w.text, "<log>"));
  EXPECT_TRUE(contains(w.text, "<type/>"));
  for (const char* absent :
       {"<name", "<owner", "<summary", "<description", "<hints", "<licence", "<time"}) {
    EXPECT_FALSE(contains(w.text, absent)) << absent;
  }
  EXPECT_FALSE(w.reader.plain.identifier);
  ASSERT_EQ(w.reader.plain.logs.size(), 1u);
  EXPECT_EQ(w.reader.plain.logs[0]->type, 0);  // an empty type leaves the new log's type
}

TEST(GeocachePlainBlock, ReadsIdentifierFromTheWaypointUrlAndExternalReferences) {
  const std::string block =
      "<wpt><geocache status=\"unavailable\"><description>wayfolioref:42</description>"
      "<license>old spelling</license><logs><log><type>Not Attempted</type></log>"
      "<log><type>found</type></log><other/></logs></geocache></wpt>";
  WaypointReader reader;
  reader.url = "https://example.org/cache_details.aspx?cacheid=4711";
  ASSERT_TRUE(reader.read(block));
  EXPECT_EQ(reader.plain.identifier, "4711");
  EXPECT_EQ(reader.plain.status, 2);
  EXPECT_EQ(reader.plain.indexForGPXExternalFile, 42);
  EXPECT_FALSE(reader.plain.description);
  EXPECT_EQ(reader.plain.license, "old spelling");
  ASSERT_EQ(reader.plain.logs.size(), 2u);
  EXPECT_EQ(reader.plain.logs[0]->type, 2);
  EXPECT_EQ(reader.plain.logs[1]->type, 0);  // "found" is not "Found": unchanged
  EXPECT_EQ(reader.rootEnds, (std::vector<std::string>{"wpt"}));

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
  expectSameCache(w.reader.groundspeak, *cache);
  EXPECT_TRUE(contains(w.text, std::string("<groundspeak:cache xmlns:groundspeak=\"") +
                                   GeocacheGPX::kGroundspeakNamespace +
                                   R"(" id="GC12345" available="False" archived="True">)"))
      << w.text;
  EXPECT_TRUE(contains(w.text, "<groundspeak:difficulty>3.5</groundspeak:difficulty>"));
  EXPECT_TRUE(contains(w.text, "<groundspeak:terrain>2</groundspeak:terrain>"));
  EXPECT_TRUE(contains(w.text, "<groundspeak:type>Mystery/Puzzle Cache</groundspeak:type>"));
  EXPECT_TRUE(contains(w.text, "<groundspeak:finder id=\"F7\">Finder Fred</groundspeak:finder>"));
  EXPECT_TRUE(contains(w.text, "<groundspeak:long_description html=\"True\">"));
}

TEST(GeocacheGroundspeakBlock, PlainTextDescriptionAndUntranslatableLogTypes) {
  TrackPoint point;
  auto cache = std::make_shared<Geocache>();
  cache->description = "<p>Look <b>here</b></p>";
  cache->logs = {makeLog(std::nullopt, "A", 2, "not attempted"),
                 makeLog(std::nullopt, "B", 4, "x")};
  point.setGeocache(cache);
  Written w = writeAndRead(point, false, true, true);
  EXPECT_TRUE(contains(w.text, "<groundspeak:long_description html=\"False\">Look here<"))
      << w.text;
  EXPECT_EQ(w.reader.groundspeak.description, "Look here");
  ASSERT_EQ(w.reader.groundspeak.logs.size(), 2u);
  // Both are written as "Other", which reads back as nothing in particular.
  EXPECT_EQ(w.reader.groundspeak.logs[0]->type, 0);
  EXPECT_EQ(w.reader.groundspeak.logs[1]->type, 0);
  EXPECT_TRUE(contains(w.text, "<groundspeak:logs>"));
}

TEST(GeocacheGroundspeakBlock, StatusAndGeneratedIdentifiers) {
  const std::vector<std::pair<int32_t, int32_t>> written = {{1, 1}, {2, 2}, {3, 3}, {0, 2}};
  for (auto [status, expected] : written) {
    TrackPoint point;
    auto cache = std::make_shared<Geocache>();
    cache->status = status;
    point.setGeocache(cache);
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

// The user name setting only lives for one test.
class UserNameSetting {
 public:
  explicit UserNameSetting(const char* name) {
    UserDefaults::singleton().setStringForKey(UserDefaults::kGeocachingComUserName, name);
  }
  ~UserNameSetting() {
    UserDefaults::singleton().removeObjectForKey(UserDefaults::kGeocachingComUserName);
  }
};

const char* kPocketQuery = R"(<?xml version="1.0" encoding="utf-8"?>
<gpx xmlns="http://www.topografix.com/GPX/1/0"
     xmlns:groundspeak="http://www.groundspeak.com/cache/1/0/1">
 <wpt lat="47.1" lon="8.2"><name>GC1ABC</name>
  <groundspeak:cache id="98765" available="False" archived="False">
   <groundspeak:name>Old Mill</groundspeak:name>
   <groundspeak:placed_by>Miller</groundspeak:placed_by>
   <groundspeak:owner id="12">Miller</groundspeak:owner>
   <groundspeak:type>Multi-cache</groundspeak:type>
   <groundspeak:container>Regular</groundspeak:container>
   <groundspeak:attributes>
    <groundspeak:attribute id="1" inc="1">Dogs</groundspeak:attribute>
   </groundspeak:attributes>
   <groundspeak:difficulty>1.5</groundspeak:difficulty>
   <groundspeak:terrain>4</groundspeak:terrain>
   <groundspeak:state>Zürich</groundspeak:state>
   <groundspeak:long_description html="True">&lt;p&gt;Long&lt;/p&gt;</groundspeak:long_description>
   <groundspeak:logs>
    <groundspeak:log id="501">
     <groundspeak:date>2011-07-14T19:00:00Z</groundspeak:date>
     <groundspeak:type>Found it</groundspeak:type>
     <groundspeak:finder id="333">me myself</groundspeak:finder>
     <groundspeak:text encoded="False">TFTC</groundspeak:text>
    </groundspeak:log>
    <groundspeak:log id="502"><groundspeak:type>Didn't find it</groundspeak:type>
     <groundspeak:finder id="444">Someone</groundspeak:finder></groundspeak:log>
   </groundspeak:logs>
   <groundspeak:travelbugs>
    <groundspeak:travelbug id="9" ref="TB1">
     <groundspeak:name>Travelling Bug</groundspeak:name>
    </groundspeak:travelbug>
   </groundspeak:travelbugs>
  </groundspeak:cache>
 </wpt>
</gpx>
)";

TEST(GeocacheGroundspeakBlock, ReadsPocketQueriesAndSkipsTravelBugs) {
  UserNameSetting user("Not In The Logs");
  WaypointReader reader;
  ASSERT_TRUE(reader.read(kPocketQuery));
  const Geocache& g = reader.groundspeak;
  EXPECT_EQ(g.name, "Old Mill");
  EXPECT_EQ(g.identifier, "98765");
  EXPECT_EQ(g.status, 2);
  EXPECT_EQ(g.owner, "Miller");
  EXPECT_EQ(g.type, 1);
  EXPECT_EQ(g.container, 4);
  EXPECT_EQ(g.difficulty, 1.5f);
  EXPECT_EQ(g.terrain, 4.0f);
  EXPECT_EQ(g.state, "Zürich");
  EXPECT_EQ(g.description, "<p>Long</p>");
  ASSERT_EQ(g.logs.size(), 2u);
  EXPECT_EQ(g.logs[0]->identifier, "501");
  EXPECT_EQ(g.logs[0]->geocacherIdentifier, "333");
  EXPECT_EQ(g.logs[0]->time, at("2011-07-14T19:00:00Z"));
  EXPECT_EQ(g.logs[0]->type, 0);
  EXPECT_EQ(g.logs[1]->type, 1);
  EXPECT_EQ(g.logs[1]->geocacher, "Someone");
  EXPECT_EQ(g.yourLogType, 2);
  EXPECT_EQ(reader.rootEnds, (std::vector<std::string>{"name", "wpt", "gpx"}));
}

TEST(GeocacheGroundspeakBlock, TheUsersOwnFindMarksTheCacheFound) {
  {
    UserNameSetting user("Me Myself");
    WaypointReader reader;
    ASSERT_TRUE(reader.read(kPocketQuery));
    EXPECT_EQ(reader.groundspeak.yourLogType, 0);
  }
  {
    UserNameSetting user("Someone");  // logged, but did not find it
    WaypointReader reader;
    ASSERT_TRUE(reader.read(kPocketQuery));
    EXPECT_EQ(reader.groundspeak.yourLogType, 2);
  }
}

class LibraryFolder {
 public:
  LibraryFolder()
      : path_(fs::temp_directory_path() / ("kvtrack-geocache-" + FileHandling::guid())) {
    fs::create_directories(path_ / "all_geocaches.gpxx_ext");
    FileHandling::singleton().setUserApplicationSupport(path_.string());
  }
  ~LibraryFolder() { fs::remove_all(path_); }
  std::string external() const { return (path_ / "all_geocaches.gpxx_ext").string(); }

 private:
  fs::path path_;
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
  ASSERT_EQ(loaded.logs.size(), 2u);
  EXPECT_EQ(loaded.logs[0]->text, "Fixed the lid");
  EXPECT_EQ(loaded.logs[0]->time, point->geocache()->logs[0]->time);
  EXPECT_EQ(loaded.logs[1]->type, 1);

  LogCapture capture;
  Geocache missing;
  missing.indexForGPXExternalFile = 77;
  missing.loadExternalGpx();
  EXPECT_TRUE(missing.externalGPXFileLoaded);
  EXPECT_FALSE(missing.description);
  EXPECT_TRUE(capture.lines().empty());
}

TEST(GeocacheExternalFile, OnlyLoadedChangesAreWritten) {
  LibraryFolder library;
  TrackPoint unchanged;  // file exists already and was never loaded
  auto cache = std::make_shared<Geocache>();
  cache->indexForGPXExternalFile = 5;
  unchanged.setGeocache(cache);
  xml::XmlDocument document("gpx");
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

  const std::string broken = library.external() + "/broken.gpxx";
  std::ofstream(broken) << "<gpxExt><description>";
  Geocache target;
  EXPECT_FALSE(GeocacheExternalImport::importFrom(broken, target));
  EXPECT_TRUE(capture.contains("GeocacheExternalImport: Error parsing file!"));
}

}  // namespace
}  // namespace kvtrack
