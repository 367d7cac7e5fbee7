#include "kvtrack/model/Track.h"
#include "kvtrack/model/TrackFolder.h"
#include "kvtrack/model/TrackStore.h"
#include "tests/common/TrackBuilders.h"

#include <cmath>
#include <functional>

namespace kvtrack {
namespace {

using testing::addPoint;
using testing::addTimedPoint;
using testing::addWaypoint;
using testing::at;

TEST(TrackCreation, CopyTakesPointsAndLooksButNotIdentity) {
  auto track = Track::trackWithName("X");
  addPoint(*track, 47, 8, "2012-05-01T10:00:00+02:00", 400)->setName("start");
  addPoint(*track, 47.01, 8, "2012-05-01T10:10:00+02:00", 420);
  track->setColor({1, 0, 0, 1});
  track->setShowArea(true);
  track->setAreaDistanceInMeter(25);
  track->setWidth(3);
  track->setDescription("desc");
  track->setTrackId("id-1");
  track->updateAll();

  auto copy = track->copy();
  EXPECT_EQ(copy->name(), "");  // neither name, width, description nor identity
  EXPECT_EQ(copy->width(), 1.0f);
  EXPECT_FALSE(copy->trackId());
  EXPECT_EQ(copy->color(), (Color{1, 0, 0, 1}));
  EXPECT_TRUE(copy->showArea());
  EXPECT_EQ(copy->areaDistanceInMeter(), 25);
  EXPECT_EQ(copy->length(), track->length());
  EXPECT_EQ(copy->startTime(), track->startTime());
  EXPECT_DOUBLE_EQ(copy->duration(), 600);
  ASSERT_EQ(copy->trackPoints().size(), 2u);
  EXPECT_NE(copy->trackPoints()[0], track->trackPoints()[0]);
  EXPECT_EQ(copy->trackPoints()[0]->track(), copy.get());
  EXPECT_EQ(copy->trackPoints()[0]->name(), "start");
}

TEST(TrackEditing, SortedInsertMergesPointsAtTheSameTime) {
  Track track;
  auto a = addTimedPoint(track, 0);
  auto c = addTimedPoint(track, 20);
  auto b = TrackPoint::trackPointWithParent(&track);
  b->setTime(at("2012-05-01T10:00:10Z"));
  EXPECT_EQ(track.addTrackPointSorted(b), b);
  EXPECT_EQ(track.trackPoints()[1], b);

  // A track point at an existing time merges, bringing its photos along.
  auto again = TrackPoint::trackPointWithParent(&track);
  again->setTime(at("2012-05-01T12:00:10+02:00"));
  again->addTrackPhoto(TrackPhoto::trackPhotoWithFilepath("/p/1.jpg"));
  track.setIsDirty(false);
  EXPECT_EQ(track.addTrackPointSorted(again), b);
  EXPECT_EQ(track.trackPoints().size(), 3u);
  ASSERT_TRUE(b->hasPhotos());
  EXPECT_EQ(b->trackPhotos()[0]->trackPoint(), b.get());
  EXPECT_TRUE(track.isDirty());

  // A waypoint at that time goes before the existing point.
  auto waypoint = TrackPoint::trackPointWithParent(&track);
  waypoint->setTime(at("2012-05-01T10:00:10Z"));
  waypoint->setIsWayPoint(true);
  EXPECT_EQ(track.addTrackPointSorted(waypoint), waypoint);
  auto last = TrackPoint::trackPointWithParent(&track);
  last->setTime(at("2012-05-01T11:00:00Z"));
  track.addTrackPointSorted(last);
  auto first = TrackPoint::trackPointWithParent(&track);
  first->setTime(at("2012-05-01T09:00:00Z"));
  track.addTrackPointSorted(first);
  EXPECT_EQ(*track.trackPoints(), (std::vector<TrackPointPtr>{first, a, waypoint, b, c, last}));
}

TEST(TrackEditing, NamedInsertMergesByExactName) {
  Track track;
  auto hut = addPoint(track, 46, 7);
  hut->setName("Hut");
  auto unnamed = TrackPoint::trackPointWithParent(&track);
  EXPECT_EQ(track.addTrackPointNamed(unnamed), unnamed);
  auto moved = TrackPoint::trackPointWithParent(&track);
  moved->setName("Hut");
  moved->setLatitude(46.5);
  moved->setComment("renovated");
  EXPECT_EQ(track.addTrackPointNamed(moved), hut);
  EXPECT_EQ(hut->latitude(), 46.5);
  EXPECT_EQ(hut->comment(), "renovated");
  auto other = TrackPoint::trackPointWithParent(&track);
  other->setName("hut");  // exact comparison
  EXPECT_EQ(track.addTrackPointNamed(other), other);
  EXPECT_EQ(track.trackPoints().size(), 3u);
}

TEST(TrackEditing, InsertingAfterDeletingAndStripping) {
  Track track;
  for (int i = 0; i < 4; ++i) addPoint(track, i, i);
  auto inserted = TrackPoint::trackPointWithParent(&track);
  track.addTrackPoint(inserted, track.trackPoints()[0].get());
  EXPECT_EQ(track.trackPoints()[1], inserted);
  TrackPoint stranger;  // after a point not in the track: only marks dirty
  track.setIsDirty(false);
  track.addTrackPoint(TrackPoint::trackPointWithParent(&track), &stranger);
  EXPECT_EQ(track.trackPoints().size(), 5u);
  EXPECT_TRUE(track.isDirty());

  // The first point of a track is never deleted through navigation.
  const auto start = track.firstPointInTrack();
  Track::deletePointInTrack(start);
  EXPECT_EQ(track.trackPoints().size(), 5u);
  Track::deletePointInTrack(Track::nextPointInTrack(start, 1));
  EXPECT_EQ(track.trackPoints().size(), 4u);
  EXPECT_EQ(track.trackPoints()[1]->latitude(), 1);
  Track::deletePointInTrack({&track, nullptr, 99, -1});  // out of range: nothing
  // Every occurrence of a point goes.
  auto twice = track.trackPoints()[1];
  track.trackPoints()->push_back(twice);
  track.setIsDirty(false);
  track.deleteTrackPoint(twice.get());
  EXPECT_EQ(track.trackPoints().size(), 3u);
  EXPECT_TRUE(track.isDirty());

  // Stripping keeps at least one hundred points.
  Track large;
  for (int i = 0; i < 150; ++i) addTimedPoint(large, i);
  large.stripToAtMostTrackPoints(10);
  EXPECT_EQ(large.trackPoints().size(), 100u);
  large.stripToAtMostTrackPoints(120);
  EXPECT_EQ(large.trackPoints().size(), 100u);
}

TEST(TrackFlags, DirtyMarksFollowTheRules) {
  Track track;
  auto point = addWaypoint(track, 1, 1, "w");
  track.setDescription("d");
  const std::vector<std::pair<std::function<void()>, bool>> rules = {
      {[&] { track.setName("renamed"); }, true},
      {[&] { track.setColor(track.color()); }, false},
      {[&] { track.setColor({0, 1, 0, 1}); }, true},
      {[&] { track.setWidth(track.width()); }, true},  // an unchanged width still marks
      {[&] { track.setDescription("d"); }, false},
      {[&] { track.setTags("t"); }, true},
      {[&] { track.setIsSelected(true); }, false},
      {[&] { track.setIsHidden(true); }, false},
      {[&] { track.setICloudIsUploading(true); }, false},
      {[&] { point->setLatitude(2); }, false},  // plain point setters do not mark
      {[&] { point->makeDirty(); }, true},
      {[&] { track.removeAllWaypoints(); }, true},
  };
  for (size_t i = 0; i < rules.size(); ++i) {
    track.setIsDirty(false);
    rules[i].first();
    EXPECT_EQ(track.isDirty(), rules[i].second) << "rule " << i;
  }
  EXPECT_FALSE(point->isWayPoint());
  EXPECT_EQ(track.trackPoints().size(), 1u);
  EXPECT_EQ(track.nextIndexForGPXExternalFile(), 0);
  EXPECT_EQ(track.nextIndexForGPXExternalFile(), 1);
  EXPECT_EQ(track.counterGPXExternal(), 2);
}

TEST(TrackFlags, ComparatorsTreatNaNAsEqual) {
  Track a, b;
  a.setLength(1.5);
  b.setLength(2.5);
  EXPECT_EQ(a.compareLength(b), -1);
  EXPECT_EQ(a.compareLengthDescending(b), 1);
  b.setLength(std::nan(""));
  EXPECT_EQ(a.compareLength(b), 0);
  a.setDuration(10);
  b.setDuration(20);
  EXPECT_EQ(a.compareDuration(b), -1);
  EXPECT_EQ(a.compareDurationDescending(b), 1);
}

// A folder of the library, reduced to what a track asks of it.
class Folder : public TrackFolder {
 public:
  Folder(std::string name, std::shared_ptr<Folder> parent, int index)
      : TrackFolder(std::move(name)), parent_(std::move(parent)), index_(index) {}
  int indexOfTrack(const Track&) const override { return 3; }
  void addPath(std::string& path) const override {
    if (!parent_) return;
    path.insert(0, std::to_string(index_) + ".");
    parent_->addPath(path);
  }
  std::shared_ptr<TrackFolder> parentFolder() const override { return parent_; }

 private:
  std::shared_ptr<Folder> parent_;
  int index_;
};

TEST(TrackPosition, PathsThroughTheFolderTree) {
  auto root = std::make_shared<Folder>("Library", nullptr, 0);
  auto year = std::make_shared<Folder>("2012", root, 1);
  auto unnamed = std::make_shared<Folder>("", year, 0);
  auto alps = std::make_shared<Folder>("Alps", unnamed, 2);  // the track holds it weakly
  Track track;
  EXPECT_EQ(track.folderPath(), "");
  EXPECT_EQ(track.path(), "");
  track.setParent(alps);
  EXPECT_EQ(track.folderPath(), "Library####2012########Alps");
  EXPECT_EQ(track.pathArray(), (std::vector<std::string>{"Library", "2012", "Alps"}));
  EXPECT_EQ(track.path(), "1.0.2.3");
}

// Stands in for the library's storage: counts and serves loads.
class CountingStore : public TrackStore {
 public:
  int loads = 0;
  void loadTrack(Track& track) override {
    ++loads;
    EXPECT_TRUE(track.isLoaded());
    track.trackPoints();  // nested use while reading returns at once
    addPoint(track, 10, 20);
  }
  std::string generateFilename(Track&) override { return "Track00000007.gpx"; }
};

TEST(TrackStorage, PointsLoadOnFirstUseOnlyWhenTheTrackNamesAFile) {
  auto store = std::make_shared<CountingStore>();
  TrackStore::setShared(store);
  Track fresh;
  EXPECT_TRUE(fresh.trackPoints().empty());
  EXPECT_EQ(store->loads, 0);

  Track stored;
  stored.generateNewFilename();
  EXPECT_EQ(stored.filename(), "Track00000007.gpx");
  EXPECT_TRUE(std::isnan(stored.minElevation()));  // statistics do not load
  EXPECT_EQ(store->loads, 0);
  EXPECT_EQ(stored.firstPoint()->latitude(), 10);
  EXPECT_EQ(stored.trackPoints().size(), 1u);
  EXPECT_EQ(store->loads, 1);

  TrackStore::setShared(nullptr);
  Track orphan;
  orphan.generateNewFilename();
  EXPECT_FALSE(orphan.filename());
}

}  // namespace
}  // namespace kvtrack
