// The place cache: cell keys, cell files shared between processes, and the
// four loaders working off one queue against the loopback emulator.
#include "kvtrack/places/GeoNames.h"
#include "kvtrack/places/LocationPool.h"
#include "kvtrack/support/Log.h"
#include "tests/common/ScratchFolder.h"
#include "tests/common/TrackBuilders.h"
#include "tests/places/PlaceServiceEmulator.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <set>

namespace kvtrack::testing {
namespace {

using std::chrono::seconds;
using ::testing::HasSubstr;

TEST(LocationPoolElementTest, KeysTruncateTowardZeroAtCellEdgesAndTheDateLine) {
  const auto key = LocationPoolElement::keyForLongitude;
  EXPECT_EQ(key(8.5432, 47.3769), "1708_9475");
  EXPECT_EQ(key(-0.001, 0.004), "0_0");  // cell 0 spans -0.005..+0.005
  EXPECT_EQ(key(0.004, -0.001), "0_0");
  EXPECT_EQ(key(0.005, 0.00499), "1_0");
  EXPECT_EQ(key(-0.005, -0.00499), "-1_0");
  EXPECT_EQ(key(0.0099, 0.0101), "1_2");
  EXPECT_EQ(key(-122.3321, 47.6062), "-24466_9521");
  EXPECT_EQ(key(179.9999, -16.5), "35999_-3300");
  EXPECT_EQ(key(-179.9999, -16.5), "-35999_-3300");  // across the date line: another cell
  EXPECT_EQ(key(180.0, 90.0), "36000_18000");
  EXPECT_EQ(key(-180.0, -90.0), "-36000_-18000");
  EXPECT_EQ(key(180.1, 0.0), "");
  EXPECT_EQ(key(std::nan(""), 0.0), "");
  EXPECT_EQ(key(0.0, -std::numeric_limits<double>::infinity()), "");
}

TEST(LocationPoolElementTest, CellFilesNeedFiveLinesAndOnlyNamesMakeData) {
  ScratchFolder cache;
  LogCapture log;
  const std::string key = LocationPoolElement::keyForLongitude(8.5432, 47.3769);
  cache.write(key, "Zürich\nSwitzerland\nCH\nHauptbahnhof\n");  // four lines
  {
    LocationPoolElement element(8.5432, 47.3769, cache.path().string());
    EXPECT_FALSE(element.dataAvailable());
    EXPECT_TRUE(log.contains("ignoring damaged cache file " + element.path() + ": 4 lines"));
    element.setPlaceName("Hauptbahnhof");  // a place name alone is no data
    EXPECT_FALSE(element.dataAvailable());
    EXPECT_TRUE(element.store());
    EXPECT_EQ(element.description(), "");
  }
  EXPECT_EQ(ScratchFolder::read(cache.file(key)), "Zürich\nSwitzerland\nCH\nHauptbahnhof\n");

  cache.write(key, "Zürich\r\nSwitzerland\nCH\nHB\nKanton Zürich\nsixth line\n");
  LocationPoolElement six(8.5432, 47.3769, cache.path().string());
  EXPECT_TRUE(six.dataAvailable());
  EXPECT_FALSE(six.dirty());
  EXPECT_EQ(six.name(), "Zürich");
  EXPECT_EQ(six.countryName(), "");  // "\r\n" is two line breaks
  EXPECT_EQ(six.stateName(), "HB");
  EXPECT_EQ(six.description(), "Zürich: ");

  for (const std::string& damaged : {std::string("\xFF\xFE\n\n\n\n\n"), std::string(70000, '\n')}) {
    cache.write(key, damaged);
    log.clear();
    LocationPoolElement element(8.5432, 47.3769, cache.path().string());
    EXPECT_FALSE(element.dataAvailable());
    EXPECT_TRUE(log.contains("ignoring damaged cache file"));
  }
  std::filesystem::remove(cache.file(key));
  std::filesystem::create_directory(cache.file(key));  // not even a file
  LocationPoolElement folder(8.5432, 47.3769, cache.path().string());
  EXPECT_FALSE(folder.dataAvailable());
}

TEST(LocationPoolElementTest, FilledCellsAreWrittenWholeAndDescribed) {
  ScratchFolder cache;
  {
    LocationPoolElement element(8.5432, 47.3769, cache.path().string());
    element.setName("Zurich");
    element.setCountryName("Switzerland");
    EXPECT_TRUE(element.dataAvailable());
    EXPECT_EQ(element.description(), "Zurich, Switzerland: ");
    EXPECT_TRUE(element.store());
    EXPECT_TRUE(element.dirty());  // stays dirty; an unchanged cell is not written again
    EXPECT_EQ(ScratchFolder::read(element.path()), "Zurich\nSwitzerland\n\n\n\n");
    element.setStateName("Zürich");
  }  // released: written again with the change
  LocationPoolElement again(8.5432, 47.3769, cache.path().string());
  EXPECT_EQ(again.stateName(), "Zürich");
  LocationPoolElement country(9.0, 47.0, cache.path().string());
  country.setCountryName("Switzerland");
  EXPECT_EQ(country.description(), "Switzerland: ");
  country.setPlaceName("Rigi");
  EXPECT_EQ(country.description(), "Rigi, Switzerland: ");
  // Only the cell files are there: no temporary was left behind.
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(cache.path()),
                          std::filesystem::directory_iterator()),
            1);
}

class LocationPoolTest : public ::testing::Test {
 protected:
  std::shared_ptr<LocationPool> pool(const std::string& account = "tester") {
    return LocationPool::create(std::make_shared<GeoNames>(emulator.settings(account)),
                                cache.path().string(), host);
  }
  PlaceServiceEmulator emulator;
  ScratchFolder cache;
  RunLoop host;
};

TEST_F(LocationPoolTest, OneCellIsLookedUpOnceAndAnnouncedOnTheHostLoop) {
  auto places = pool();
  EXPECT_EQ(LocationPool::singleton(), places);
  int announcements = 0;
  places->setNotificationTarget([&announcements] { ++announcements; });
  emulator.setAnswer("/findNearbyPlaceName",
                     {200, PlaceServiceEmulator::findNearbyPlaceName(47.3769, 8.5432),
                      std::chrono::milliseconds(200)});
  const auto first = places->elementForLongitude(8.5432, 47.3769);
  const auto second = places->elementForLongitude(8.5401, 47.3751);  // same cell, still queued
  EXPECT_EQ(first, second);
  EXPECT_FALSE(first->dataAvailable());
  EXPECT_EQ(places->elementForLongitude(200.0, 0.0), nullptr);
  ASSERT_TRUE(places->waitForElement(*first, seconds(10)));
  EXPECT_EQ(first->placeName(), "Zürich");
  EXPECT_EQ(first->countryCode(), "CH");
  EXPECT_DOUBLE_EQ(first->longitude(), 8.5432);  // asked for where it was first requested
  EXPECT_EQ(emulator.geoNamesLookups(), 1u);
  EXPECT_EQ(announcements, 0);  // not on a loader thread
  EXPECT_TRUE(host.runUntil([&] { return announcements == 1; }, std::chrono::seconds(5)));
  EXPECT_EQ(ScratchFolder::read(first->path()),
            "Zürich\nSwitzerland\nCH\nZürich\nKanton Zürich\n");
}

TEST_F(LocationPoolTest, FourLoadersWorkOffOneQueueWithoutLosingOrDoublingALookup) {
  auto places = pool();
  std::vector<std::shared_ptr<LocationPoolElement>> elements;
  for (int i = 0; i < 120; ++i) {
    const double lat = 10.0011 + 0.01 * i;  // 0.2 of a cell from its southern edge
    elements.push_back(places->elementForLongitude(20.0011, lat));
    elements.push_back(places->elementForLongitude(20.0021, lat + 0.001));  // same cell
  }
  ASSERT_TRUE(places->waitUntilIdle(seconds(60)));
  const auto loading = places->loading();
  EXPECT_EQ(loading.filled, 120u);
  EXPECT_EQ(loading.failed + loading.empty, 0u);
  std::multiset<std::string> asked;
  for (const auto& request : emulator.server().requests()) {
    if (request.path == "/findNearbyPlaceName") asked.insert(request.query.at("lat"));
  }
  EXPECT_EQ(asked.size(), 120u);
  EXPECT_EQ(std::set<std::string>(asked.begin(), asked.end()).size(), 120u);
  for (size_t i = 0; i < elements.size(); i += 2) {
    EXPECT_EQ(elements[i], elements[i + 1]);
    // Each cell holds the answer to its own question.
    EXPECT_EQ(elements[i]->placeName(),
              fmt::format("Place {:.6f} {:.6f}", elements[i]->latitude(), 20.0011));
  }
}

TEST_F(LocationPoolTest, TrackPhotosGetNamesFromCachedCellsWithoutASecondRequest) {
  auto track = Track::track();
  const auto addPhoto = [&track](double lat, double lon, const std::string& name) {
    auto point = addPoint(*track, lat, lon);
    auto photo = TrackPhoto::trackPhotoWithFilepath("/photos/" + name);
    point->addTrackPhoto(photo);
    return photo;
  };
  const auto a = addPhoto(46.6639, 8.0600, "a.jpg");
  const auto b = addPhoto(46.6641, 8.0602, "b.jpg");  // same cell as a
  const auto c = addPhoto(47.3769, 8.5417, "c.jpg");
  const auto named = addPhoto(47.3769, 8.5417, "named.jpg");
  named->setCity("Kept");
  addPoint(*track, 46.0, 7.0);  // no photo: no lookup

  {
    auto places = pool();
    EXPECT_EQ(places->updateForTrack(*track), 0u);  // nothing cached yet: two cells queued
    ASSERT_TRUE(places->waitUntilIdle(seconds(20)));
    track->setIsDirty(false);
    EXPECT_EQ(places->updateForTrack(*track), 3u);
    EXPECT_TRUE(track->isDirty());
    EXPECT_EQ(emulator.geoNamesLookups(), 2u);
  }
  EXPECT_EQ(a->city(), "Grindelwald");
  EXPECT_EQ(b->state(), "Bern");
  EXPECT_EQ(c->place(), "Zürich");
  EXPECT_EQ(c->isoCountryCode(), "CH");
  EXPECT_EQ(named->city(), "Kept");
  EXPECT_EQ(named->country(), std::nullopt);

  // The next process finds the cells on disk and asks nobody.
  for (const auto& photo : {a, b, c}) {
    photo->setCity(std::nullopt);
    photo->setState(std::nullopt);
    photo->setCountry(std::nullopt);
    photo->setIsoCountryCode(std::nullopt);
    photo->setPlace(std::nullopt);
  }
  auto next = pool();
  EXPECT_EQ(next->updateForTrack(*track), 3u);
  EXPECT_EQ(b->city(), "Grindelwald");
  EXPECT_EQ(emulator.geoNamesLookups(), 2u);
  EXPECT_EQ(next->loading().queued + next->loading().running, 0u);
}

TEST_F(LocationPoolTest, AFailedLookupStaysEmptyHereAndIsRetriedByTheNextProcess) {
  {
    auto places = pool("");  // no account: nothing is sent
    const auto element = places->elementForLongitude(8.5432, 47.3769);
    EXPECT_FALSE(places->waitForElement(*element, seconds(10)));
    EXPECT_THAT(places->loading().lastFailure, HasSubstr("geoNamesUserName"));
    EXPECT_EQ(places->loading().failed, 1u);
    EXPECT_EQ(places->elementForLongitude(8.5433, 47.3768), element);  // not queued again
    EXPECT_TRUE(places->waitUntilIdle(seconds(5)));
    EXPECT_EQ(places->loading().failed, 1u);
    EXPECT_FALSE(std::filesystem::exists(element->path()));
  }
  {
    auto places = pool();
    emulator.setAnswer("/findNearbyPlaceName", {503, ""});
    const auto element = places->elementForLongitude(8.5432, 47.3769);
    EXPECT_FALSE(places->waitForElement(*element, seconds(10)));
    EXPECT_FALSE(std::filesystem::exists(element->path()));
  }
  emulator.clearAnswers();
  auto places = pool();
  const auto element = places->elementForLongitude(8.5432, 47.3769);
  EXPECT_TRUE(places->waitForElement(*element, seconds(10)));
  EXPECT_EQ(element->name(), "Zürich");
  EXPECT_EQ(emulator.geoNamesLookups(), 2u);
}

}  // namespace
}  // namespace kvtrack::testing
