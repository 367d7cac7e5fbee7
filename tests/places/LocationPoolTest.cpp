// The place cache: cell keys, cell files shared between processes, and the
// four loaders working off one queue against the loopback emulator.
#include "kvtrack/places/GeoNames.h"
#include "kvtrack/places/LocationPool.h"
#include "tests/common/ScratchFolder.h"
#include "tests/places/PlaceServiceEmulator.h"

#include <fmt/format.h>
#include <gmock/gmock.h>

#include <filesystem>
#include <set>

namespace kvtrack::testing {
namespace {

namespace fs = std::filesystem;
using std::chrono::seconds;

TEST(LocationPoolElementTest, KeysTruncateTowardZeroAtCellEdgesAndTheDateLine) {
  const std::tuple<double, double, std::string> cases[] = {
      {8.5432, 47.3769, "1708_9475"},
      {-0.001, 0.004, "0_0"},  // cell 0 spans -0.005..+0.005
      {0.004, -0.001, "0_0"},
      {0.005, 0.00499, "1_0"},
      {-0.005, -0.00499, "-1_0"},
      {0.0099, 0.0101, "1_2"},
      {-122.3321, 47.6062, "-24466_9521"},
      {179.9999, -16.5, "35999_-3300"},
      {-179.9999, -16.5, "-35999_-3300"},  // across the date line: another cell
      {180.0, 90.0, "36000_18000"},
      {-180.0, -90.0, "-36000_-18000"},
      {180.1, 0.0, ""},
      {std::nan(""), 0.0, ""},
      {0.0, -std::numeric_limits<double>::infinity(), ""}};
  for (const auto& [lon, lat, key] : cases)
    EXPECT_EQ(LocationPoolElement::keyForLongitude(lon, lat), key) << lon;
}

TEST(LocationPoolElementTest, CellFilesNeedFiveLinesAndAreWrittenWholeWhenFilled) {
  ScratchFolder cache;
  const std::string folder = cache.path().string(),
                    key = LocationPoolElement::keyForLongitude(8.5432, 47.3769);
  // Damaged: four lines, not UTF-8, too large, not even a file.
  for (const std::string& damaged : {std::string("\xFF\xFE\n\n\n\n\n"), std::string(70000, '\n'),
                                     std::string(), std::string("Zürich\nSwitzerland\nCH\nHauptbahnhof\n")}) {
    fs::remove(cache.file(key));
    if (damaged.empty()) fs::create_directory(cache.file(key));
    if (!damaged.empty()) cache.write(key, damaged);
    LocationPoolElement element(8.5432, 47.3769, folder);
    EXPECT_FALSE(element.dataAvailable()) << damaged.size();
  }
  {
    LocationPoolElement element(8.5432, 47.3769, folder);
    element.setPlaceName("Hauptbahnhof");  // a place name alone is no data
    EXPECT_FALSE(element.dataAvailable());
    EXPECT_TRUE(element.store());
    EXPECT_EQ(element.description(), "");
  }
  EXPECT_EQ(ScratchFolder::read(cache.file(key)),
            "Zürich\nSwitzerland\nCH\nHauptbahnhof\n");  // left as it was

  cache.write(key, "Zürich\r\nSwitzerland\nCH\nHB\nKanton Zürich\nsixth line\n");
  LocationPoolElement six(8.5432, 47.3769, folder);
  EXPECT_EQ(std::tuple(six.dataAvailable(), six.dirty()), std::tuple(true, false));
  EXPECT_EQ(std::tuple(six.name(), six.countryName(), six.stateName()),
            std::tuple("Zürich", "", "HB"));  // "\r\n": two breaks
  EXPECT_EQ(six.description(), "Zürich: ");

  {
    LocationPoolElement element(9.0, 47.0, folder);
    element.setCountryName("Switzerland");
    element.setPlaceName("Rigi");
    EXPECT_EQ(element.description(), "Rigi, Switzerland: ");
    element.setName("Zurich");
    EXPECT_EQ(std::tuple(element.dataAvailable(), element.description()),
              std::tuple(true, std::string("Zurich, Switzerland: ")));
    EXPECT_TRUE(element.store());
    EXPECT_TRUE(element.dirty());  // stays dirty; an unchanged cell is not written again
    EXPECT_EQ(ScratchFolder::read(element.path()), "Zurich\nSwitzerland\n\nRigi\n\n");
    element.setStateName("Zürich");
  }  // released: written again with the change
  EXPECT_EQ(LocationPoolElement(9.0, 47.0, folder).stateName(), "Zürich");
  EXPECT_EQ(std::distance(fs::directory_iterator(cache.path()), {}), 2);  // no temporary left behind
}

class LocationPoolTest : public ::testing::Test {
 protected:
  std::shared_ptr<LocationPool> pool(const std::string& account = "tester") {
    return LocationPool::create(std::make_shared<GeoNames>(emulator.settings(account)), cache.path().string(),
                                host);
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
  emulator.setAnswer("/findNearbyPlaceName", {200, PlaceServiceEmulator::findNearbyPlaceName(47.3769, 8.5432),
                                              std::chrono::milliseconds(200)});
  const auto first = places->elementForLongitude(8.5432, 47.3769);
  EXPECT_EQ(places->elementForLongitude(8.5401, 47.3751), first);  // same cell, still queued
  EXPECT_FALSE(first->dataAvailable());
  EXPECT_EQ(places->elementForLongitude(200.0, 0.0), nullptr);
  ASSERT_TRUE(places->waitForElement(*first, seconds(10)));
  EXPECT_EQ(first->placeName(), "Zürich");
  EXPECT_DOUBLE_EQ(first->longitude(), 8.5432);  // asked for where it was first requested
  EXPECT_EQ(emulator.geoNamesLookups(), 1u);
  EXPECT_EQ(announcements, 0);  // not on a loader thread
  EXPECT_TRUE(host.runUntil([&] { return announcements == 1; }, seconds(5)));
  EXPECT_EQ(ScratchFolder::read(first->path()), "Zürich\nSwitzerland\nCH\nZürich\nKanton Zürich\n");
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
  EXPECT_EQ(places->loading().filled, 120u);
  EXPECT_EQ(places->loading().failed + places->loading().empty, 0u);
  std::multiset<std::string> asked;
  for (const auto& request : emulator.server().requests()) {
    if (request.path == "/findNearbyPlaceName") asked.insert(request.query.at("lat"));
  }
  EXPECT_EQ(asked.size(), 120u);
  EXPECT_EQ(std::set<std::string>(asked.begin(), asked.end()).size(), 120u);
  for (size_t i = 0; i < elements.size(); i += 2) {
    EXPECT_EQ(elements[i], elements[i + 1]);
    // Each cell holds the answer to its own question.
    EXPECT_EQ(elements[i]->placeName(), fmt::format("Place {:.6f} {:.6f}", elements[i]->latitude(), 20.0011));
  }
}

TEST_F(LocationPoolTest, AFailedLookupStaysEmptyHereAndIsRetriedByTheNextProcess) {
  {
    auto places = pool("");  // no account: nothing is sent
    const auto element = places->elementForLongitude(8.5432, 47.3769);
    EXPECT_FALSE(places->waitForElement(*element, seconds(10)));
    EXPECT_THAT(places->loading().lastFailure, ::testing::HasSubstr("geoNamesUserName"));
    EXPECT_EQ(places->elementForLongitude(8.5433, 47.3768), element);  // not queued again
    EXPECT_TRUE(places->waitUntilIdle(seconds(5)));
    EXPECT_EQ(places->loading().failed, 1u);
    EXPECT_FALSE(fs::exists(element->path()));
  }
  {
    auto places = pool();
    emulator.setAnswer("/findNearbyPlaceName", {503, ""});
    const auto element = places->elementForLongitude(8.5432, 47.3769);
    EXPECT_FALSE(places->waitForElement(*element, seconds(10)));
    EXPECT_FALSE(fs::exists(element->path()));
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
