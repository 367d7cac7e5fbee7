#include "kvtrack/formats/geocache/GeocacheFilters.h"

#include "kvtrack/support/FileHandling.h"
#include "kvtrack/support/Log.h"
#include "tests/common/ScratchFolder.h"

#include <gtest/gtest.h>

#include <filesystem>

namespace kvtrack {
namespace {

using Filters = decltype(GeocacheFilters::filters);
const Filters kFilters = {{"Easy ones", "difficulty <= 2 AND terrain < 2.5"},
                          {"Quotes \"&\" <angles>", "name CONTAINS[c] 'mill'"},
                          {"", ""}};

TEST(GeocacheFilterFiles, ExportImportAndLibraryCopyAppendToTheList) {
  testing::ScratchFolder folder;
  GeocacheFilters filters;
  filters.filters = kFilters;
  const std::string path = folder.file("filters.xml");
  ASSERT_TRUE(filters.exportTo(path));
  EXPECT_TRUE(testing::ScratchFolder::read(path).starts_with(
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<wayfolioGeocacheFilters creator=\"Wayfolio\" version=\"0.1.0\">"));
  GeocacheFilters read;
  read.filters = {{"kept", "TRUEPREDICATE"}};
  ASSERT_TRUE(read.importFrom(path));
  EXPECT_EQ(read.filters.size(), 4u);
  EXPECT_EQ(Filters(read.filters.begin() + 1, read.filters.end()), kFilters);

  FileHandling::singleton().setUserApplicationSupport(folder.path().string());
  ASSERT_TRUE(filters.syncToDisk("My filters"));
  EXPECT_TRUE(std::filesystem::exists(folder.file("My filters.wayfolio")));
  GeocacheFilters loaded;
  ASSERT_TRUE(loaded.loadFromDisk("My filters"));
  EXPECT_EQ(loaded.filters, kFilters);
}

TEST(GeocacheFilterFiles, FailuresAreLoggedAndLeaveTheListAlone) {
  testing::ScratchFolder folder;
  GeocacheFilters filters;
  LogCapture capture;
  EXPECT_FALSE(filters.importFrom(folder.write("broken.xml", R"(<wayfolioGeocacheFilters><filter name="a" predicate="b"/>)")));
  EXPECT_TRUE(capture.contains("GeocacheFilters: Error parsing file!"));
  EXPECT_FALSE(filters.importFrom(folder.file("missing.xml")));
  EXPECT_TRUE(filters.filters.empty());
  EXPECT_FALSE(filters.importFrom(""));
  EXPECT_TRUE(capture.contains("GeocacheFilters: Error creating URL!"));
  filters.filters = kFilters;
  EXPECT_FALSE(filters.exportTo(folder.file("no/such/folder/filters.xml")));
}

}  // namespace
}  // namespace kvtrack
