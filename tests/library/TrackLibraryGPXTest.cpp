// GPX files in and out of the library: tracks get files and content ids,
// duplicates are refused, waypoint files are filed as places or geocaches,
// other formats come through gpsbabel; exports put all waypoints first.
#include "LibraryTestSupport.h"

#include "kvtrack/formats/gpx/TrackGPX.h"
#include "kvtrack/library/GpxImportConfiguration.h"
#include "kvtrack/library/TrackLibraryGPX.h"
#include "kvtrack/support/ExternalProgram.h"
#include "kvtrack/support/KvPreferences.h"
#include "kvtrack/support/UserDefaults.h"

namespace kvtrack {
namespace {

using LibraryGPX = testing::LibraryTest;

const char* kTrackFile = R"(<?xml version="1.0"?>
<gpx xmlns="http://www.topografix.com/GPX/1/1" version="1.1" creator="test">
  <wpt lat="47.0005" lon="8.0005"><name>Bridge</name></wpt>
  <trk><name>Morning</name><trkseg>
    <trkpt lat="47.0" lon="8.0"><time>2012-05-01T10:00:00Z</time></trkpt>
    <trkpt lat="47.0005" lon="8.0005"><time>2012-05-01T10:01:00Z</time></trkpt>
    <trkpt lat="47.001" lon="8.001"><time>2012-05-01T10:02:00Z</time></trkpt>
  </trkseg></trk>
  <trk><name>Evening</name><trkseg>
    <trkpt lat="46.0" lon="7.0"><time>2012-05-01T18:00:00+02:00</time></trkpt>
    <trkpt lat="46.001" lon="7.001"><time>2012-05-01T18:05:00+02:00</time></trkpt>
  </trkseg><extensions><wayfolio:timezone xmlns:wayfolio="urn:w" offset="120"/></extensions></trk>
</gpx>)";

TEST_F(LibraryGPX, TracksGetFilesAndIdsAndDuplicatesAreRefused) {
  const std::string file = folder.write("two.gpx", kTrackFile);
  auto target = TrackLibraryFolder::trackLibraryFolder("imports");
  library->addFolder(target);
  library->setTrackCounter(5);
  GpxImportConfiguration configuration;
  configuration.setTrackIdPrefix("wayfolio");
  ASSERT_TRUE(target->importGPX(file, configuration));
  const auto tracks = target->tracks();
  ASSERT_EQ(tracks.size(), 2u);
  EXPECT_EQ(std::tuple(tracks[0]->name(), tracks[0]->filename(), tracks[0]->trackPoints()[1]->name()),
            std::tuple("Morning", "Track00000005.gpx", "Bridge"));
  EXPECT_EQ(tracks[0]->trackId(), "wayfolio:2012:05:01 10:00:00+00:00-2012:05:01 10:02:00+00:00");
  EXPECT_GT(tracks[0]->length(), 0.1);
  EXPECT_EQ(tracks[0]->waypointCount(), 1);  // counted after the waypoint found its point
  EXPECT_EQ(configuration.importedTracks().size(), 2u);

  ASSERT_TRUE(target->importGPX(file, configuration));
  EXPECT_EQ(target->tracks().size(), 2u);
  EXPECT_EQ(configuration.identicalTrackCounter(), 2);
  EXPECT_TRUE(library->waypointTrack()->trackPoints().empty());  // nor filed as places

  UserDefaults::singleton().setBoolForKey("IgnoreTrackIdDuringImport", true);
  ASSERT_TRUE(target->importGPX(file, configuration));
  UserDefaults::singleton().removeObjectForKey("IgnoreTrackIdDuringImport");
  EXPECT_EQ(target->tracks().size(), 4u);

  // The user's time zone only for a file without its own.
  KvPreferences::singleton().setTimeZoneInMinutes(-300);
  GpxImportConfiguration plain;
  ASSERT_TRUE(library->importGPX(file, plain));
  KvPreferences::singleton().setTimeZoneInMinutes(std::nullopt);
  ASSERT_EQ(library->tracks().size(), 2u);
  EXPECT_EQ(std::tuple(library->tracks()[0]->timezoneOffset(), library->tracks()[1]->timezoneOffset()),
            std::tuple(-300, 120));
}

TEST_F(LibraryGPX, PointsOfInterestAndGeocachesGoToTheCollectionsFromAnyFormat) {
  const std::string pois = folder.write("pois.gpx", R"(<?xml version="1.0"?><gpx>
    <wpt lat="46.5" lon="7.5"><name>Hut</name><cmt>beds</cmt></wpt><wpt lat="46.6" lon="7.6"><name>Lake</name></wpt></gpx>)");
  GpxImportConfiguration configuration;
  ASSERT_TRUE(library->importGPX(pois, configuration));
  EXPECT_EQ(configuration.importedPOIs().size(), 2u);
  ASSERT_TRUE(
      library->importGPX(pois, configuration));  // the same names replace the points instead of doubling them
  ASSERT_EQ(library->waypointTrack()->trackPoints().size(), 2u);
  EXPECT_TRUE(library->tracks().empty());
  EXPECT_EQ(library->waypointTrack()->trackPoints()[0]->comment(), "beds");

  const std::string caches = folder.write("caches.gpx", R"(<?xml version="1.0"?><gpx>
    <wpt lat="47.1" lon="8.1"><name>GC1AAAA</name><desc>Lake view</desc><url>https://www.geocaching.com/geocache/GC1AAAA</url></wpt>
    <wpt lat="47.2" lon="8.2"><name>GC1BBBB</name><url>https://www.geocaching.com/geocache/GC1BBBB</url></wpt></gpx>)");
  ASSERT_TRUE(library->importGPX(caches, configuration));
  EXPECT_TRUE(library->tracks().empty());
  EXPECT_EQ(configuration.filedGeocacheCounter(), 2);
  const auto collection = library->geocacheTrack()->trackPoints();
  ASSERT_EQ(collection.size(), 2u);
  ASSERT_TRUE(collection[0]->geocache());
  const Geocache& cache = *collection[0]->geocache();
  EXPECT_EQ(std::tuple(cache.name, cache.status, cache.container), std::tuple("Lake view", 1, 6));
  EXPECT_TRUE(std::filesystem::exists(folder.file("all_geocaches.gpxx")));

  // Waypoint files of other formats come through gpsbabel as points of interest, not tracks.
  const std::string source = folder.write("source.gpx", kTrackFile);
  for (const auto& [format, name] :
       {std::pair("garmin_gpi", "route.GPI"), {"tomtom", "places.ov2"}, {"geo", "caches.loc"}}) {
    const std::string out = folder.file(name);
    ASSERT_EQ(runShellCommand("gpsbabel -t -w -i gpx -f " + FileHandling::filenameForShell(source) + " -o " +
                              format + " -F " + FileHandling::filenameForShell(out)),
              0);
    ASSERT_TRUE(library->importGPX(out, configuration)) << format;
  }
  EXPECT_TRUE(library->tracks().empty());
  EXPECT_GT(library->waypointTrack()->trackPoints().size(), 2u);
  // Intermediate files go once read: the library keeps only files it names.
  EXPECT_FALSE(std::filesystem::exists(folder.file("convert.gpx")) ||
               std::filesystem::exists(folder.file("loc.gpx")));
}

TEST_F(LibraryGPX, DeviceImportsDropTinyTracksAndBrokenFilesKeepWhatWasRead) {
  const std::string file = folder.write("device.gpx", R"(<?xml version="1.0"?><gpx>
    <trk><trkseg><trkpt lat="1" lon="1"/></trkseg></trk>
    <trk><trkseg><trkpt lat="1" lon="1"/><trkpt lat="2" lon="2"/></trkseg></trk></gpx>)");
  GpxImportConfiguration fromDevice, fromFile;
  fromDevice.setIsExternal(true);
  EXPECT_EQ(TrackLibraryGPX().importFrom(file, fromDevice).trackCount, 1);
  ASSERT_EQ(library->tracks().size(), 1u);
  EXPECT_TRUE(library->tracks()[0]->newlyImported());
  EXPECT_EQ(TrackLibraryGPX().importFrom(file, fromFile).trackCount, 2);
  EXPECT_EQ(library->tracks().size(), 3u);

  EXPECT_FALSE(library->importGPX(folder.write("cut.gpx", std::string(kTrackFile).substr(0, 500)), fromFile));
  ASSERT_GE(library->tracks().size(), 4u);
  EXPECT_EQ(std::tuple(library->tracks()[3]->name(), library->tracks()[3]->trackPoints().size()),
            std::tuple(std::string("Morning"), size_t{3}));
  EXPECT_FALSE(library->importGPX(folder.file("missing.gpx"), fromFile));
}

TEST_F(LibraryGPX, ExportsAllSelectedOrOneTrackWithWaypointsFirst) {
  auto first = walk("First", 3), second = walk("Second", 2), places = walk("Places", 2);
  first->trackPoints()[1]->setIsWayPoint(true);
  first->trackPoints()[1]->setName("Hut");
  places->setType(Track::kPlaceCollection);
  for (const auto& t : {first, second, places}) library->addTrack(t);
  const auto elements = [](const std::string& path) {  // the root's children in order, by their first letters
    const std::string text = testing::ScratchFolder::read(path);
    std::string found;
    for (size_t at = text.find("\n  <"); at != std::string::npos; at = text.find("\n  <", at + 1)) {
      if (text[at + 4] != '/') found += text[at + 4];
    }
    EXPECT_NE(text.find("version=\"1.1\""), std::string::npos);
    return found;
  };
  GpxExportConfiguration configuration;
  ASSERT_TRUE(library->exportGPX(folder.file("all.gpx"), configuration));
  EXPECT_EQ(elements(folder.file("all.gpx")), "wttr");

  second->setIsSelected(true);
  ASSERT_TRUE(library->exportSelectedGPX(folder.file("selected.gpx"), configuration));
  auto back = Track::track();
  ASSERT_TRUE(TrackGPX(back).importFrom(folder.file("selected.gpx")));
  EXPECT_EQ(std::tuple(back->name(), back->trackPoints().size()),
            std::tuple(std::string("Second"), size_t{2}));

  configuration.setExportWaypointsOnly(true);
  configuration.setUseGPX10(true);  // the library export is always GPX 1.1
  ASSERT_TRUE(TrackLibraryGPX().exportTo(folder.file("one.gpx"), false, first, configuration));
  EXPECT_EQ(elements(folder.file("one.gpx")),
            "wt");  // a single track comes with its line whatever the option
  EXPECT_FALSE(TrackLibraryGPX().exportTo(folder.file("missing/dir.gpx"), configuration));
}

}  // namespace
}  // namespace kvtrack
