#include "LibraryTestSupport.h"

namespace kvtrack {
namespace {

using LibraryFolders = testing::LibraryTest;

TEST_F(LibraryFolders, AddingNamesTracksFromTheCounterAndAlwaysCountsUp) {
  library->setTrackCounter(42);
  auto unnamed = Track::track();
  library->addTrack(unnamed);
  EXPECT_EQ(unnamed->filename(), "Track00000042.gpx");
  EXPECT_EQ(unnamed->name(), "Track00000042");
  auto named = Track::trackWithName("Walk");
  named->setFilename("mine.gpx");
  library->addTrack(named);
  EXPECT_EQ(named->filename(), "mine.gpx");
  EXPECT_EQ(named->name(), "Walk");
  EXPECT_EQ(library->trackCounter(), 44);
  EXPECT_EQ(named->parent(), library);

  auto inserted = Track::trackWithName("between");
  library->addTrack(inserted, unnamed.get());
  EXPECT_EQ(library->indexOfTrack(*inserted), 1);
  auto stranger = Track::track();
  auto appended = Track::trackWithName("end");
  library->addTrack(appended, stranger.get());
  EXPECT_EQ(library->indexOfTrack(*appended), 3);
  EXPECT_EQ(library->indexOfTrack(*stranger), -1);

  auto indexed = Track::track();
  library->addTrack(indexed, "From index", "Track00000001.gpx");
  EXPECT_EQ(library->trackCounter(), 46);  // the index form uses no number
}

TEST_F(LibraryFolders, MovesRefuseCyclesAndMarkMetadata) {
  auto a = TrackLibraryFolder::trackLibraryFolder("A");
  auto b = TrackLibraryFolder::trackLibraryFolder("B");
  library->addFolder(a);
  a->addFolder(b);
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
  EXPECT_EQ(library->folders().size(), 2u);
  EXPECT_TRUE(a->folders().empty());
  EXPECT_EQ(b->path(), "1.");
  EXPECT_EQ(library->path(), "");
  EXPECT_EQ(track->path(), "1.0");
  EXPECT_EQ(library->getFolder("b"), nullptr);  // case matters
  EXPECT_EQ(library->getFolder("B"), b);
}

TEST_F(LibraryFolders, CollectionsWalkSubfoldersFirst) {
  auto sub = TrackLibraryFolder::trackLibraryFolder("sub");
  auto subsub = TrackLibraryFolder::trackLibraryFolder("subsub");
  library->addFolder(sub);
  sub->addFolder(subsub);
  auto rootTrack = walk("root", 1), subTrack = walk("sub", 1), deepTrack = walk("deep", 1);
  library->addTrack(rootTrack);
  sub->addTrack(subTrack);
  subsub->addTrack(deepTrack);
  const auto all = library->allTracks();
  ASSERT_EQ(all.size(), 3u);
  EXPECT_EQ(all[0], deepTrack);
  EXPECT_EQ(all[2], rootTrack);

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
  EXPECT_TRUE(library->allSelectedTracks().empty());
  EXPECT_TRUE(library->allSelectedFolders().empty());
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
  auto folder = TrackLibraryFolder::trackLibraryFolder("F");
  library->addFolder(folder);
  auto inner = TrackLibraryFolder::trackLibraryFolder("b");
  auto inner2 = TrackLibraryFolder::trackLibraryFolder("A");
  folder->addFolder(inner);
  folder->addFolder(inner2);
  auto deepB = TrackLibraryFolder::trackLibraryFolder("z"), deepA = TrackLibraryFolder::trackLibraryFolder("y");
  inner->addFolder(deepB);
  inner->addFolder(deepA);
  auto late = walk("late", 2, "2013-01-01T00:00:00Z"), early = walk("early", 2, "2011-01-01T00:00:00Z");
  auto undated = Track::trackWithName("Undated");
  for (const auto& t : {late, undated, early}) folder->addTrack(t);

  folder->sortByDateAscending(true);
  EXPECT_EQ(folder->tracks(), (std::vector<TrackPtr>{early, late, undated}));
  folder->sortByDateAscending(false);
  EXPECT_EQ(folder->tracks(), (std::vector<TrackPtr>{late, early, undated}));
  folder->sortByNameAscending(true);
  EXPECT_EQ(folder->tracks(), (std::vector<TrackPtr>{early, late, undated}));
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
  ASSERT_EQ(library->tracks().size(), 2u);
  auto second = library->tracks()[1];
  EXPECT_EQ(track->name(), "Walk (1)");
  EXPECT_EQ(second->name(), "Walk (2)");
  ASSERT_EQ(track->trackPoints().size(), 5u);
  ASSERT_EQ(second->trackPoints().size(), 6u);
  EXPECT_EQ(second->trackPoints()[0]->time(), points[4]->time());
  EXPECT_EQ(second->trackPoints()[0]->track(), second.get());
  EXPECT_TRUE(track->isDirty());
  EXPECT_EQ(*second->startTime(), *points[4]->time());

  auto three = walk("Walk", 10);
  library->addTrack(three);
  const auto p = three->firstPointInTrack();
  library->splitAtPointInTrack(Track::nextPointInTrack(p, 2), Track::nextPointInTrack(p, 6));
  const auto tracks = library->tracks();
  ASSERT_EQ(tracks.size(), 5u);
  EXPECT_EQ(three->trackPoints().size(), 3u);
  EXPECT_EQ(tracks[3]->name(), "Walk (2)");
  EXPECT_EQ(tracks[3]->trackPoints().size(), 5u);
  EXPECT_EQ(tracks[4]->name(), "Walk (3)");
  EXPECT_EQ(tracks[4]->trackPoints().size(), 4u);

  auto edge = walk("Edge", 5);
  library->addTrack(edge);
  library->splitAtPointInTrack(edge->firstPointInTrack());
  EXPECT_EQ(edge->trackPoints().size(), 1u);
}

}  // namespace
}  // namespace kvtrack
