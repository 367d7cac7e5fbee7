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
  auto unnamed = Track::track();
  library->addTrack(unnamed);
  EXPECT_EQ(std::pair(unnamed->filename(), unnamed->name()),
            std::pair(std::optional<std::string>("Track00000042.gpx"), std::string("Track00000042")));
  auto named = Track::trackWithName("Walk");
  named->setFilename("mine.gpx");
  library->addTrack(named);
  EXPECT_EQ(std::pair(named->filename(), named->name()),
            std::pair(std::optional<std::string>("mine.gpx"), std::string("Walk")));
  EXPECT_EQ(library->trackCounter(), 44);
  EXPECT_EQ(named->parent(), library);

  auto inserted = Track::trackWithName("between"), stranger = Track::track(), appended = Track::trackWithName("end");
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
  EXPECT_EQ(library->folders().size(), 1u);
  EXPECT_EQ(b->parent(), a);

  auto track = walk("T", 2);
  a->addTrack(track);
  const int32_t counter = library->trackCounter();
  track->setMetadataDirty(false);
  a->moveTrackHere(track);  // already here: nothing
  EXPECT_EQ(library->trackCounter(), counter);
  EXPECT_FALSE(track->metadataDirty());
  b->moveTrackHere(track);
  EXPECT_TRUE(a->tracks().empty());
  EXPECT_EQ(track->parent(), b);
  EXPECT_TRUE(track->metadataDirty());
  EXPECT_EQ(library->trackCounter(), counter + 1);

  library->moveTrackLibraryFolderHere(b);
  EXPECT_EQ(library->folders(), (std::vector<TrackLibraryFolderPtr>{a, b}));
  EXPECT_TRUE(a->folders().empty());
  EXPECT_EQ(std::tuple(b->path(), library->path(), track->path()), std::tuple("1.", "", "1.0"));
  EXPECT_EQ(library->getFolder("b"), nullptr);  // case matters
  EXPECT_EQ(library->getFolder("B"), b);
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

  subTrack->setIsSelected(true);
  rootTrack->setIsSelected(true);
  subsub->setIsSelected(true);
  EXPECT_EQ(library->firstSelectedTrack(), subTrack);
  EXPECT_EQ(library->allSelectedTracks().size(), 2u);
  EXPECT_EQ(library->firstSelectedTrackFolder(), subsub);
  EXPECT_EQ(library->allSelectedFolders(), std::vector<TrackLibraryFolderPtr>{subsub});
  library->unselectAll();
  EXPECT_TRUE(library->allSelectedTracks().empty() && library->allSelectedFolders().empty());
  library->selectAllTracks();
  EXPECT_EQ(library->allSelectedTracks().size(), 3u);

  deepTrack->trackPoints()[0]->addTrackPhoto(TrackPhoto::trackPhotoWithFilepath("/deep.jpg"));
  rootTrack->trackPoints()[0]->addTrackPhoto(TrackPhoto::trackPhotoWithFilepath("/root.jpg"));
  const auto photos = library->trackPhotosOfTracks();
  ASSERT_EQ(photos.size(), 2u);
  EXPECT_EQ(photos[0]->originalFilepath(), "/deep.jpg");
  library->unselectAll();
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
  EXPECT_EQ(folder->folders()[0], inner2);  // "A" before "b", ignoring case
  EXPECT_EQ(inner->folders()[0], deepA);    // recursion
  folder->sortByLengthAscending(false);
  EXPECT_EQ(folder->tracks().back(), undated);
  folder->sortByDateAndNameAscending(false);
  EXPECT_EQ(folder->folders()[0], inner);  // "b" before "A", descending
  EXPECT_EQ(inner->folders()[0], deepA);   // deeper levels keep their folder order
}

TEST_F(LibraryFolders, SplittingSharesTheSplitPoints) {
  auto track = walk("Walk", 10);
  library->addTrack(track);
  const auto points = track->trackPoints();
  library->splitAtPointInTrack(Track::nextPointInTrack(track->firstPointInTrack(), 4));
  auto three = walk("Walk", 10);
  library->addTrack(three);
  const auto p = three->firstPointInTrack();
  library->splitAtPointInTrack(Track::nextPointInTrack(p, 2), Track::nextPointInTrack(p, 6));
  std::vector<std::pair<std::string, size_t>> pieces;
  for (const auto& t : library->tracks()) pieces.emplace_back(t->name(), t->trackPoints().size());
  EXPECT_EQ(pieces, (decltype(pieces){{"Walk (1)", 5}, {"Walk (2)", 6}, {"Walk (1)", 3}, {"Walk (2)", 5}, {"Walk (3)", 4}}));
  const auto second = library->tracks()[1];
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
