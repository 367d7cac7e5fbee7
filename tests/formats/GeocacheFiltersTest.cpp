#include "kvtrack/formats/geocache/GeocacheFilters.h"

#include "kvtrack/support/FileHandling.h"
#include "kvtrack/support/Log.h"
#include "tests/common/ScratchFolder.h"

#include <gtest/gtest.h>

#include <filesystem>

namespace kvtrack {
namespace {

using testing::ScratchFolder;

GeocacheFilters someFilters() {
  GeocacheFilters filters;
  filters.filters = {{"Easy ones", "difficulty <= 2 AND terrain < 2.5"},
                     {"Quotes \"&\" <angles>", "name CONTAINS[c] 'mill'"},
                     {"", ""}};
  return filters;
}

TEST(GeocacheFilterFiles, ExportAndImportAppendToTheList) {
  ScratchFolder folder;
  const std::string path = folder.file("filters.xml");
  ASSERT_TRUE(someFilters().exportTo(path));
  const std::string text = ScratchFolder::read(path);
  EXPECT_TRUE(text.starts_with("<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
                               "<wayfolioGeocacheFilters creator=\"Wayfolio\" version=\"0.1.0\">"))
      << text;
  GeocacheFilters read;
  read.filters = {{"kept", "TRUEPREDICATE"}};
  ASSERT_TRUE(read.importFrom(path));
  auto expected = someFilters().filters;
  expected.insert(expected.begin(), {"kept", "TRUEPREDICATE"});
  EXPECT_EQ(read.filters, expected);
}

TEST(GeocacheFilterFiles, FailuresAreLoggedAndLeaveTheListAlone) {
  ScratchFolder folder;
  GeocacheFilters filters;
  LogCapture capture;
  EXPECT_FALSE(filters.importFrom(
      folder.write("broken.xml", R"(<wayfolioGeocacheFilters><filter name="a" predicate="b"/>)")));
  EXPECT_TRUE(capture.contains("GeocacheFilters: Error parsing file!"));
  EXPECT_FALSE(filters.importFrom(folder.file("missing.xml")));
  EXPECT_TRUE(filters.filters.empty());
  capture.clear();
  EXPECT_FALSE(filters.importFrom(""));
  EXPECT_TRUE(capture.contains("GeocacheFilters: Error creating URL!"));
  EXPECT_FALSE(someFilters().exportTo(folder.file("no/such/folder/filters.xml")));
}

TEST(GeocacheFilterFiles, LibraryCopyUsesTheNameAsFileName) {
  ScratchFolder folder;
  FileHandling::singleton().setUserApplicationSupport(folder.path().string());
  ASSERT_TRUE(someFilters().syncToDisk("My filters"));
  EXPECT_TRUE(std::filesystem::exists(folder.file("My filters.wayfolio")));
  GeocacheFilters loaded;
  ASSERT_TRUE(loaded.loadFromDisk("My filters"));
  EXPECT_EQ(loaded.filters, someFilters().filters);
}

}  // namespace
}  // namespace kvtrack
