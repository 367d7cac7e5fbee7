#include "kvtrack/formats/geocache/GeocacheFilters.h"

#include "kvtrack/support/FileHandling.h"
#include "kvtrack/support/Log.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>

namespace kvtrack {
namespace {

namespace fs = std::filesystem;

class GeocacheFilterFiles : public ::testing::Test {
 protected:
  void SetUp() override {
    folder_ = fs::temp_directory_path() / ("kvtrack-filters-" + FileHandling::guid());
    fs::create_directories(folder_);
  }
  void TearDown() override { fs::remove_all(folder_); }
  std::string path(const char* name) const { return (folder_ / name).string(); }
  static std::string contents(const std::string& path) {
    std::ostringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
  }

  fs::path folder_;
};

GeocacheFilters someFilters() {
  GeocacheFilters filters;
  filters.filters = {{"Easy ones", "difficulty <= 2 AND terrain < 2.5"},
                     {"Quotes \"&\" <angles>", "name CONTAINS[c] 'mill'"},
                     {"", ""}};
  return filters;
}

TEST_F(GeocacheFilterFiles, ExportAndImportRoundTrip) {
  const GeocacheFilters written = someFilters();
  ASSERT_TRUE(written.exportTo(path("filters.xml")));
  const std::string text = contents(path("filters.xml"));
  EXPECT_NE(text.find("<?xml version=\"1.0\" encoding=\"UTF-8\"?>"), std::string::npos) << text;
  EXPECT_NE(text.find("<wayfolioGeocacheFilters creator=\"Wayfolio\" version=\"0.1.0\">"),
            std::string::npos);

  GeocacheFilters read;
  read.filters = {{"kept", "TRUEPREDICATE"}};
  ASSERT_TRUE(read.importFrom(path("filters.xml")));
  ASSERT_EQ(read.filters.size(), 4u);
  EXPECT_EQ(read.filters[0], (GeocacheFilter{"kept", "TRUEPREDICATE"}));
  for (size_t i = 0; i < written.filters.size(); ++i) {
    EXPECT_EQ(read.filters[i + 1], written.filters[i]);
  }
}

TEST_F(GeocacheFilterFiles, FailuresAreLoggedAndLeaveTheListAlone) {
  std::ofstream(path("broken.xml"))
      << R"(<wayfolioGeocacheFilters><filter name="a" predicate="b"/>)";
  GeocacheFilters filters;
  LogCapture capture;
  EXPECT_FALSE(filters.importFrom(path("broken.xml")));
  EXPECT_TRUE(capture.contains("GeocacheFilters: Error parsing file!"));
  EXPECT_FALSE(filters.importFrom(path("missing.xml")));
  EXPECT_TRUE(filters.filters.empty());

  capture.clear();
  EXPECT_FALSE(filters.importFrom(""));
  EXPECT_TRUE(capture.contains("GeocacheFilters: Error creating URL!"));
  EXPECT_FALSE(someFilters().exportTo(path("no/such/folder/filters.xml")));
}

TEST_F(GeocacheFilterFiles, LibraryCopyUsesTheNameAsFileName) {
  FileHandling::singleton().setUserApplicationSupport(folder_.string());
  ASSERT_TRUE(someFilters().syncToDisk("My filters"));
  EXPECT_TRUE(fs::exists(path("My filters.wayfolio")));
  GeocacheFilters loaded;
  ASSERT_TRUE(loaded.loadFromDisk("My filters"));
  EXPECT_EQ(loaded.filters, someFilters().filters);
}

}  // namespace
}  // namespace kvtrack
