// The track library: the folder tree (adding and moving tracks and folders,
// walks, sorting, splitting); tracks on disk (saved, reopened unloaded,
// loaded on first use, deleted, found by path, time and position, copied out,
// their moved photos found again); GPX files in and out (files and content
// ids, duplicates refused, waypoint files filed as places or geocaches, other
// formats through gpsbabel, exports with all waypoints first).
#include "kvtrack/formats/gpx/TrackGPX.h"
#include "kvtrack/library/GpxImportConfiguration.h"
#include "kvtrack/library/TrackLibraryGPX.h"
#include "kvtrack/library/TrackStorage.h"
#include "kvtrack/model/TrackPhoto.h"
#include "kvtrack/support/ExternalProgram.h"
#include "kvtrack/support/KvPreferences.h"
#include "kvtrack/support/KvSandbox.h"
#include "kvtrack/support/NotificationCenter.h"
#include "kvtrack/support/UserDefaults.h"
#include "tests/library/LibraryTestSupport.h"

#include <filesystem>

namespace kvtrack {
namespace {

namespace fs = std::filesystem;
using testing::LibraryTest;
using testing::ScratchFolder;
using LibraryFolders = LibraryTest;
using LibraryStorage = LibraryTest;
using LibraryGPX = LibraryTest;
using Tracks = std::vector<TrackPtr>;

TrackLibraryFolderPtr addFolder(const TrackLibraryFolderPtr& parent, const std::string& name) {
  auto folder = TrackLibraryFolder::trackLibraryFolder(name);
  parent->addFolder(folder);
  return folder;
}

TEST_F(LibraryFolders, AddingNamesTracksFromTheCounterAndAlwaysCountsUp) {
  library->setTrackCounter(42);
  auto unnamed = Track::track(), named = Track::trackWithName("Walk");
  named->setFilename("mine.gpx");
  library->addTrack(unnamed);
  library->addTrack(named);
  EXPECT_EQ(std::tuple(unnamed->filename(), unnamed->name(), named->filename(), named->name()),
            std::tuple("Track00000042.gpx", "Track00000042", "mine.gpx", "Walk"));
  EXPECT_EQ(library->trackCounter(), 44);
  EXPECT_EQ(named->parent(), library);

  auto inserted = Track::trackWithName("between"), stranger = Track::track(),
       appended = Track::trackWithName("end");
  library->addTrack(inserted, unnamed.get());
  library->addTrack(appended, stranger.get());
  EXPECT_EQ(library->tracks(), (Tracks{unnamed, inserted, named, appended}));
  EXPECT_EQ(library->indexOfTrack(*stranger), -1);
  library->addTrack(Track::track(), "From index", "Track00000001.gpx");
  EXPECT_EQ(library->trackCounter(), 46);  // the index form uses no number
}

TEST_F(LibraryFolders, MovesRefuseCyclesAndMarkMetadata) {
  auto a = addFolder(library, "A"), b = addFolder(a, "B");
  b->moveTrackLibraryFolderHere(a);  // into its own descendant
  a->moveTrackLibraryFolderHere(a);
  EXPECT_EQ(std::tuple(library->folders().size(), b->parent()),
            std::tuple(size_t{1}, TrackLibraryFolderPtr(a)));

  auto track = walk("T", 2);
  a->addTrack(track);
  const int32_t counter = library->trackCounter();
  track->setMetadataDirty(false);
  a->moveTrackHere(track);  // already here: nothing
  EXPECT_EQ(std::tuple(library->trackCounter(), track->metadataDirty()), std::tuple(counter, false));
  b->moveTrackHere(track);
  EXPECT_TRUE(a->tracks().empty());
  EXPECT_EQ(track->parent(), b);
  EXPECT_EQ(std::tuple(library->trackCounter(), track->metadataDirty()), std::tuple(counter + 1, true));

  library->moveTrackLibraryFolderHere(b);
  EXPECT_EQ(library->folders(), (std::vector<TrackLibraryFolderPtr>{a, b}));
  EXPECT_EQ(std::tuple(b->path(), library->path(), track->path()), std::tuple("1.", "", "1.0"));
  EXPECT_EQ(std::tuple(library->getFolder("b"), library->getFolder("B")),
            std::tuple(nullptr, b));  // case matters
}

TEST_F(LibraryFolders, WalksTakeSubfoldersFirstAndSelectionsCollect) {
  auto sub = addFolder(library, "sub"), subsub = addFolder(sub, "subsub");
  auto rootTrack = walk("root", 1), subTrack = walk("sub", 1), deepTrack = walk("deep", 1);
  library->addTrack(rootTrack);
  sub->addTrack(subTrack);
  subsub->addTrack(deepTrack);
  EXPECT_EQ(library->allTracks(), (Tracks{deepTrack, subTrack, rootTrack}));
  rootTrack->setTrackId("id");
  deepTrack->setTrackId("id");
  EXPECT_EQ(library->trackWithTrackId("id"), rootTrack);  // own tracks before subfolders

  for (const auto& selected : {subTrack, rootTrack}) selected->setIsSelected(true);
  subsub->setIsSelected(true);
  EXPECT_EQ(std::tuple(library->firstSelectedTrack(), library->firstSelectedTrackFolder()),
            std::tuple(subTrack, subsub));
  EXPECT_EQ(library->allSelectedTracks().size(), 2u);
  library->unselectAll();
  EXPECT_TRUE(library->allSelectedTracks().empty() && library->allSelectedFolders().empty());

  deepTrack->trackPoints()[0]->addTrackPhoto(TrackPhoto::trackPhotoWithFilepath("/deep.jpg"));
  rootTrack->trackPoints()[0]->addTrackPhoto(TrackPhoto::trackPhotoWithFilepath("/root.jpg"));
  const auto photos = library->trackPhotosOfTracks();
  ASSERT_EQ(photos.size(), 2u);
  EXPECT_EQ(photos[0]->originalFilepath(), "/deep.jpg");
  sub->setIsSelected(true);
  EXPECT_EQ(library->trackPhotosOfSelectedFolders().size(), 1u);
}

TEST_F(LibraryFolders, SortingKeepsUndatedTracksLastAndRecursesAsDocumented) {
  auto folder = addFolder(library, "F");
  auto inner = addFolder(folder, "b"), inner2 = addFolder(folder, "A");
  addFolder(inner, "z");
  auto deepA = addFolder(inner, "y");
  auto late = walk("late", 2, "2013-01-01T00:00:00Z"), early = walk("early", 2, "2011-01-01T00:00:00Z");
  auto undated = Track::trackWithName("Undated");
  for (const auto& t : {late, undated, early}) folder->addTrack(t);

  folder->sortByDateAscending(true);
  EXPECT_EQ(folder->tracks(), (Tracks{early, late, undated}));
  folder->sortByDateAscending(false);
  EXPECT_EQ(folder->tracks(), (Tracks{late, early, undated}));
  folder->sortByNameAscending(true);
  EXPECT_EQ(folder->tracks(), (Tracks{early, late, undated}));
  // "A" before "b", ignoring case, and on deeper levels too.
  EXPECT_EQ(std::tuple(folder->folders()[0], inner->folders()[0]), std::tuple(inner2, deepA));
  folder->sortByLengthAscending(false);
  EXPECT_EQ(folder->tracks().back(), undated);
  folder->sortByDateAndNameAscending(false);
  // "b" before "A", descending; deeper levels keep their folder order.
  EXPECT_EQ(std::tuple(folder->folders()[0], inner->folders()[0]), std::tuple(inner, deepA));
}

TEST_F(LibraryFolders, SplittingSharesTheSplitPoints) {
  auto track = walk("Walk", 10);
  library->addTrack(track);
  const TrackPoints::List points = *track->trackPoints();  // a copy: no lock held across the split
  library->splitAtPointInTrack(Track::nextPointInTrack(track->firstPointInTrack(), 4));
  const auto second = library->tracks()[1];
  EXPECT_EQ(track->trackPoints().size(), 5u);  // one view at a time: the save locks tracks in tree order
  EXPECT_EQ(second->trackPoints().size(), 6u);
  EXPECT_EQ(std::tuple(track->name(), second->name()), std::tuple("Walk (1)", "Walk (2)"));
  EXPECT_EQ(second->trackPoints()[0]->time(), points[4]->time());
  EXPECT_EQ(second->trackPoints()[0]->track(), second.get());
  EXPECT_EQ(*second->startTime(), *points[4]->time());
  EXPECT_TRUE(track->isDirty());

  auto edge = walk("Edge", 5);
  library->addTrack(edge);
  library->splitAtPointInTrack(edge->firstPointInTrack());
  EXPECT_EQ(edge->trackPoints().size(), 1u);
}

TEST_F(LibraryStorage, SavedTracksReopenUnloadedAndLoadOnFirstUse) {
  auto folder = TrackLibraryFolder::trackLibraryFolder("2012");
  library->addFolder(folder);
  auto track = walk("Alps", 20);
  folder->addTrack(track);
  const double length = track->length();
  const int32_t counter = library->trackCounter();
  reopen();

  ASSERT_EQ(library->folders().size(), 1u);
  const auto reopened = library->folders()[0]->tracks().at(0);
  // From the index, without loading.
  EXPECT_EQ(std::tuple(reopened->isLoaded(), reopened->pointCount(), reopened->name()),
            std::tuple(false, 20, "Alps"));
  EXPECT_NEAR(reopened->length(), length, 1e-3);
  EXPECT_EQ(library->trackCounter(), counter);
  EXPECT_FALSE(library->atLeastOneTrackDirty());

  EXPECT_EQ(reopened->trackPoints().size(), 20u);  // read from its file now
  EXPECT_EQ(std::tuple(reopened->isLoaded(), reopened->isDirty()), std::tuple(true, false));
  EXPECT_EQ(reopened->trackPoints()[5]->time()->timezoneOffset(), 120);

  int unloading = 0;
  auto token = NotificationCenter::defaultCenter().addObserver("UnloadingTrack",
                                                               [&](const Notification&) { ++unloading; });
  auto fresh = walk("T", 5);
  library->addTrack(fresh);
  fresh->unload();  // saves first
  EXPECT_EQ(std::tuple(unloading, fresh->isLoaded(), fresh->loadedPointCount()),
            std::tuple(1, false, size_t{0}));
  EXPECT_EQ(fresh->trackPoints().size(), 5u);  // back from the file
  fresh->unload();
  fresh->unload();  // not loaded: nothing
  EXPECT_EQ(unloading, 2);
}

// Only files the library itself stopped naming go; a file it never knew
// may be a track whose index entry was lost, and stays.
TEST_F(LibraryStorage, SavesDeleteOnlyTheFilesOfRemovedTracks) {
  auto kept = walk("kept", 2), removed = walk("removed", 2);
  library->addTrack(kept);
  library->addTrack(removed);
  ASSERT_TRUE(library->syncToDisk());
  const std::string removedFile = folder.file(*removed->filename());
  folder.write(*removed->filename() + "_tp", "x");
  for (const char* name : {"Track00000003.GPX", ".library.wayfolio.Ab12Cd", ".notes.txt.Ab12Cd"})
    folder.write(name, "x");
  library->deleteTrack(removed);
  ASSERT_TRUE(library->syncToDisk());
  for (const std::string& gone :
       {removedFile, removedFile + "_tp", folder.file(".library.wayfolio.Ab12Cd")}) {
    EXPECT_FALSE(fs::exists(gone)) << gone;  // the last a stale temporary file of a crashed save
  }
  for (const std::string& stays :
       {folder.file(".notes.txt.Ab12Cd"), folder.file("Track00000003.GPX"), folder.file(*kept->filename())}) {
    EXPECT_TRUE(fs::exists(stays)) << stays;
  }
}

TEST_F(LibraryStorage, PathsAndSearches) {
  for (const char* name : {"a", "b", "c"}) library->addFolder(TrackLibraryFolder::trackLibraryFolder(name));
  auto first = library->folders()[0];
  first->addFolder(TrackLibraryFolder::trackLibraryFolder("a1"));
  for (int i = 0; i < 3; ++i) library->addTrack(walk("root" + std::to_string(i), 3));
  EXPECT_EQ(library->trackLibraryFolderWithPath("0"), library);
  EXPECT_EQ(library->trackLibraryFolderWithPath(""), library);
  EXPECT_EQ(library->trackLibraryFolderWithPath("0."), first);
  EXPECT_EQ(library->trackLibraryFolderWithPath("0.0."), first->folders()[0]);
  EXPECT_EQ(library->trackLibraryFolderWithPath("7."), nullptr);
  EXPECT_EQ(library->trackWithPath("7.2"), library->tracks()[2]);  // invalid steps are skipped
  EXPECT_EQ(library->trackWithPath("3"), nullptr);
  EXPECT_EQ(library->trackLibraryFolderWithPath(first->folders()[0]->path()), first->folders()[0]);

  // The tracks run 10:00 to 10:02 wall-clock time in their +02:00 zone; both ends count.
  const auto find = [this](const char* local) {
    return library->findTrackForDateWithLocalTimezone(ISODate::isoDateWithString(local).value());
  };
  EXPECT_EQ(find("2012-05-01T10:01:00"), library->tracks()[0]);
  EXPECT_NE(find("2012-05-01T10:02:00"), nullptr);
  EXPECT_EQ(find("2012-05-01T10:02:01"), nullptr);
  EXPECT_EQ(find("2012-05-01T08:01:00"), nullptr);

  library->tracks()[1]->setIsSelected(true);
  const auto nearest = library->findNearestPointForLatitude(47.0011, 8.0, false);
  EXPECT_EQ(nearest.track, library->tracks()[1].get());  // only selected tracks, always
  EXPECT_EQ(nearest.index, 1);
}

TEST_F(LibraryStorage, ExternalCopyDropsTheSynchronisationIds) {
  auto track = walk("T", 2);
  library->addTrack(track);
  auto photo = TrackPhoto::trackPhotoWithFilepath("/p.jpg");
  photo->setICloudId("ABC-123_X");
  track->trackPoints()[0]->addTrackPhoto(photo);
  track->makeDirty();
  const std::string copy = folder.file("copy.gpx");
  ASSERT_TRUE(exportExternalGpx(*track, copy, true, {}));
  const std::string stripped = ScratchFolder::read(copy);
  EXPECT_NE(ScratchFolder::read(folder.file(*track->filename())).find("iCloudId=\"ABC-123_X\""),
            std::string::npos);
  EXPECT_EQ(stripped.find("iCloudId"), std::string::npos);
  EXPECT_NE(stripped.find("filename=\"/p.jpg\""), std::string::npos);
}

// Bookmarks that follow a moved file and are always reported stale, as a
// sandbox reports them after the file moved.
class MovingSandbox : public KvSandbox {
 public:
  std::string from, to;
  std::string base64bookmarkForFile(const std::string& path) override { return "bookmark:" + path; }
  std::optional<std::string> urlForBase64Bookmark(const std::string& bookmark, bool& stale) override {
    stale = true;
    const std::string path = bookmark.substr(std::string("bookmark:").size());
    return path == from ? to : path;
  }
};

TEST_F(LibraryTest, LoadingFollowsMovedPhotosAndSavesTheRenewedBookmark) {
  auto sandbox = std::make_shared<MovingSandbox>();
  KvSandbox::setSingleton(sandbox);
  sandbox->from = folder.write("summit.jpg", "jpeg");
  sandbox->to = folder.file("moved/summit.jpg");
  auto track = walk("Walk", 3);
  track->trackPoints()[1]->addTrackPhoto(TrackPhoto::trackPhotoWithFilepath(sandbox->from));
  track->trackPoints()[1]->trackPhotos()[0]->updateBookmarkFromPath();
  library->addTrack(track);
  // Moved before the library opens again: it may load tracks at once.
  fs::create_directories(folder.file("moved"));
  fs::rename(sandbox->from, sandbox->to);
  reopen();

  const TrackPtr loaded = library->tracks().front();
  const TrackPhotoPtr photo = loaded->trackPoints()[1]->trackPhotos().at(0);
  EXPECT_EQ(photo->originalFilepath(), sandbox->to);
  EXPECT_EQ(photo->base64Bookmark(), "bookmark:" + sandbox->to);
  EXPECT_TRUE(loaded->isDirty()) << "the renewed bookmark must be saved";

  reopen();
  const TrackPtr again = library->tracks().front();
  EXPECT_EQ(again->trackPoints()[1]->trackPhotos().at(0)->originalFilepath(), sandbox->to);
  KvSandbox::setSingleton(nullptr);
}

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
  const TrackPoints::List collection = *library->geocacheTrack()->trackPoints();
  ASSERT_EQ(collection.size(), 2u);
  ASSERT_TRUE(collection[0]->geocache());
  const Geocache& cache = *collection[0]->geocache();
  EXPECT_EQ(std::tuple(cache.name, cache.status, cache.container), std::tuple("Lake view", 1, 6));
  EXPECT_TRUE(fs::exists(folder.file("all_geocaches.gpxx")));

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
  EXPECT_FALSE(fs::exists(folder.file("convert.gpx")) || fs::exists(folder.file("loc.gpx")));
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
  const TrackPtr cut = library->tracks()[3];
  EXPECT_EQ(std::tuple(cut->name(), cut->trackPoints().size()), std::tuple(std::string("Morning"), size_t{3}));
  EXPECT_FALSE(library->importGPX(folder.file("missing.gpx"), fromFile));
}

TEST_F(LibraryGPX, ExportsAllSelectedOrOneTrackWithWaypointsFirst) {
  auto first = walk("First", 3), second = walk("Second", 2), places = walk("Places", 2);
  first->trackPoints()[1]->setIsWayPoint(true);
  first->trackPoints()[1]->setName("Hut");
  places->setType(Track::kPlaceCollection);
  for (const auto& t : {first, second, places}) library->addTrack(t);
  const auto elements = [](const std::string& path) {  // the root's children in order, by their first letters
    const std::string text = ScratchFolder::read(path);
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
