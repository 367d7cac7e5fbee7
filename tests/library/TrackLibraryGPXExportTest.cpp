#include "LibraryTestSupport.h"

#include "kvtrack/formats/gpx/TrackGPX.h"
#include "kvtrack/library/TrackLibraryGPX.h"

namespace kvtrack {
namespace {

using LibraryExport = testing::LibraryTest;

size_t count(const std::string& text, const std::string& what) {
  size_t n = 0;
  for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
  return n;
}

TEST_F(LibraryExport, AllSelectedOrOneTrackWithWaypointsFirst) {
  auto first = walk("First", 3), second = walk("Second", 2), places = walk("Places", 2);
  first->trackPoints()[1]->setIsWayPoint(true);
  first->trackPoints()[1]->setName("Hut");
  places->setType(Track::kPlaceCollection);
  for (const auto& t : {first, second, places}) library->addTrack(t);

  GpxExportConfiguration configuration;
  const std::string all = folder.file("all.gpx");
  ASSERT_TRUE(library->exportGPX(all, configuration));
  const std::string text = testing::ScratchFolder::read(all);
  EXPECT_EQ(count(text, "<trk>"), 2u);
  EXPECT_EQ(count(text, "<rte>"), 1u);
  EXPECT_EQ(count(text, "<wpt "), 1u);
  EXPECT_LT(text.find("<wpt "), text.find("<trk>"));
  EXPECT_NE(text.find("version=\"1.1\""), std::string::npos);

  second->setIsSelected(true);
  const std::string selected = folder.file("selected.gpx");
  ASSERT_TRUE(library->exportSelectedGPX(selected, configuration));
  auto back = Track::track();
  ASSERT_TRUE(TrackGPX(back).importFrom(selected));
  EXPECT_EQ(back->name(), "Second");
  EXPECT_EQ(back->trackPoints().size(), 2u);

  configuration.setExportWaypointsOnly(true);
  configuration.setUseGPX10(true);  // the library export is always GPX 1.1
  const std::string one = folder.file("one.gpx");
  ASSERT_TRUE(TrackLibraryGPX().exportTo(one, first, configuration));
  const std::string oneText = testing::ScratchFolder::read(one);
  EXPECT_EQ(count(oneText, "<trk>"), 1u);  // a single track comes with its line whatever the option
  EXPECT_EQ(count(oneText, "<wpt "), 1u);
  EXPECT_NE(oneText.find("version=\"1.1\""), std::string::npos);
  EXPECT_FALSE(TrackLibraryGPX().exportTo(folder.file("missing/dir.gpx"), configuration));
}

}  // namespace
}  // namespace kvtrack
