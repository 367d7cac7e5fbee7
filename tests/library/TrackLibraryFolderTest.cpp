// The folder tree: adding and moving tracks and folders, walks over the
// tree, sorting and splitting.
#include "LibraryTestSupport.h"

namespace kvtrack {
namespace {

using LibraryFolders = testing::LibraryTest;
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
  const auto points = track->trackPoints();
  library->splitAtPointInTrack(Track::nextPointInTrack(track->firstPointInTrack(), 4));
  const auto second = library->tracks()[1];
  EXPECT_EQ(std::tuple(track->trackPoints().size(), second->trackPoints().size()),
            std::tuple(size_t{5}, size_t{6}));
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

}  // namespace
}  // namespace kvtrack
