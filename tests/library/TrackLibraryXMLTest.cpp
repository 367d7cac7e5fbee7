// The library index: writing a folder tree, reading it back without loading
// any track, hand-written and damaged index files, and the percent-escaping
// of descriptions and tags.
#include "kvtrack/library/TrackLibraryXML.h"

#include "kvtrack/library/TrackLibrary.h"
#include "kvtrack/support/FileHandling.h"
#include "kvtrack/support/Log.h"
#include "tests/common/ScratchFolder.h"
#include "tests/common/TrackBuilders.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

namespace kvtrack {
namespace {

using testing::at;
using testing::ScratchFolder;

const std::string kDescription = "He said \"Grüß dich\" 100% <sure>";
const std::string kEscapedDescription = "He%20said%20%22Gr%9F%A7%20dich%22%20100%25%20%3Csure%3E";

TrackPtr addTrack(const TrackLibraryFolderPtr& folder, const std::string& name,
                  const std::string& filename) {
  TrackPtr track = Track::track();
  folder->addTrack(track, name, filename);
  return track;
}

// Root: tracks Alpine (every attribute) and Bare (none), added before the
// folders so that the written order proves folders come first. Trips holds
// the nested folder 2012; Private is kept out of the standard library.
TrackLibraryFolderPtr makeTree() {
  auto root = TrackLibraryFolder::trackLibraryFolder();
  TrackPtr alpine = addTrack(root, "Alpine", "Track00000001.gpx");
  alpine->setStartTime(at("2012-05-01T12:00:00+02:00"));
  alpine->setEndTime(at("2012-05-01T10:30:00-03:30"));
  alpine->setPhotoCount(3);
  alpine->setWaypointCount(4);
  alpine->setGeocacheCount(5);
  alpine->setLength(1234.56789);
  alpine->setType(Track::kPlaceCollection);
  alpine->setTrackId("T-1");
  alpine->setICloudId("C-1");
  alpine->setICloudTimestamp(1334567890.75);
  alpine->setICloudIsUploading(true);
  alpine->setDescription(kDescription);
  alpine->setTags("hiking, alps");
  alpine->setSyncPhotosOniPhone(true);
  addTrack(root, "Bare", "")->setFilename(std::nullopt);

  auto trips = TrackLibraryFolder::trackLibraryFolder("Trips");
  root->addFolder(trips);
  auto year = TrackLibraryFolder::trackLibraryFolder("2012");
  trips->addFolder(year);
  addTrack(year, "Nested", "Track00000003.gpx");
  addTrack(trips, "InTrips", "Track00000004.gpx");

  auto hidden = TrackLibraryFolder::trackLibraryFolder("Private");
  hidden->setDoNotSaveInStandardLibrary(true);
  root->addFolder(hidden);
  addTrack(hidden, "Hidden", "Track00000005.gpx");
  return root;
}

std::vector<std::string> trackNames(const TrackLibraryFolderPtr& folder) {
  std::vector<std::string> names;
  for (const auto& track : folder->tracks()) names.push_back(track->name());
  return names;
}

std::vector<std::string> folderNames(const TrackLibraryFolderPtr& folder) {
  std::vector<std::string> names;
  for (const auto& child : folder->folders()) names.push_back(child->name());
  return names;
}

class TrackLibraryXMLTest : public ::testing::Test {
 protected:
  // Writes the tree and returns the index text.
  std::string write(const TrackLibraryFolderPtr& tree, bool standard) {
    TrackLibraryXML xml;
    xml.setIsStandardLibrary(standard);
    EXPECT_TRUE(xml.exportTo(path_, tree));
    return ScratchFolder::read(path_);
  }
  bool read(const TrackLibraryFolderPtr& into, bool standard) {
    TrackLibraryXML xml;
    xml.setIsStandardLibrary(standard);
    return xml.importFrom(path_, into).ok();
  }
  TrackLibraryFolderPtr readText(const std::string& body) {
    scratch_.write("library.wayfolio", "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n" + body);
    auto folder = TrackLibraryFolder::trackLibraryFolder();
    EXPECT_TRUE(read(folder, false));
    return folder;
  }

  ScratchFolder scratch_;
  std::string path_ = scratch_.file("library.wayfolio");
};

// --- writing -----------------------------------------------------------------------

TEST_F(TrackLibraryXMLTest, WritesRootAttributesAndTrackAttributesInOrder) {
  const std::string text = write(makeTree(), false);
  EXPECT_EQ(text.rfind("<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n", 0), 0u) << text;
  // Without a library both counters are 0.
  EXPECT_NE(text.find("<wayfoliolib creator=\"Wayfolio\" version=\"1.0\" trackCounter=\"0\" "
                      "geocacheTrackCounterGPXExternal=\"0\">"),
            std::string::npos) << text;
  // Single-precision length; the timestamp truncated; each offset kept.
  EXPECT_NE(text.find("<trk name=\"Alpine\" filename=\"Track00000001.gpx\" "
                      "starttime=\"2012-05-01T12:00:00+02:00\" endtime=\"2012-05-01T10:30:00-03:30\" "
                      "photocount=\"3\" waypointcount=\"4\" geocachecount=\"5\" length=\"1234.567871\" "
                      "type=\"1\" trackId=\"T-1\" iCloudId=\"C-1\" iCloudTimestamp=\"1334567890\" "
                      "iCloudIsUploading=\"yes\" description=\"" + kEscapedDescription +
                      "\" tags=\"hiking,%20alps\" syncPhotos=\"yes\" pointcount=\"0\"/>"),
            std::string::npos) << text;
  // Absent values: empty texts for the always-written ones, nothing for the rest.
  EXPECT_NE(text.find("<trk name=\"Bare\" filename=\"\" starttime=\"\" endtime=\"\" photocount=\"0\" "
                      "waypointcount=\"0\" geocachecount=\"0\" length=\"0.000000\" type=\"0\" pointcount=\"0\"/>"),
            std::string::npos) << text;

  // Indented by depth; subfolders before tracks on every level.
  std::vector<size_t> positions;
  for (const char* line : {"\n  <folder name=\"Trips\">", "\n    <folder name=\"2012\">",
                           "\n      <trk name=\"Nested\"", "\n    <trk name=\"InTrips\"",
                           "\n  <folder name=\"Private\">", "\n  <trk name=\"Alpine\""}) {
    positions.push_back(text.find(line));
    EXPECT_NE(positions.back(), std::string::npos) << line;
  }
  EXPECT_TRUE(std::is_sorted(positions.begin(), positions.end())) << text;
}

TEST_F(TrackLibraryXMLTest, StandardLibraryLeavesOutFlaggedFolders) {
  const std::string text = write(makeTree(), true);
  EXPECT_EQ(text.find("Private"), std::string::npos) << text;
  EXPECT_EQ(text.find("Hidden"), std::string::npos) << text;
  EXPECT_NE(text.find("InTrips"), std::string::npos) << text;

  auto folder = TrackLibraryFolder::trackLibraryFolder();
  ASSERT_TRUE(read(folder, true));
  EXPECT_EQ(folderNames(folder), std::vector<std::string>{"Trips"});
}

// --- reading back --------------------------------------------------------------------

TEST_F(TrackLibraryXMLTest, ReadsBackTreeAndEveryAttribute) {
  write(makeTree(), false);
  auto folder = TrackLibraryFolder::trackLibraryFolder();
  ASSERT_TRUE(read(folder, false));

  ASSERT_EQ(folderNames(folder), (std::vector<std::string>{"Trips", "Private"}));
  ASSERT_EQ(trackNames(folder), (std::vector<std::string>{"Alpine", "Bare"}));
  const auto trips = folder->folders()[0];
  ASSERT_EQ(folderNames(trips), std::vector<std::string>{"2012"});
  EXPECT_EQ(trackNames(trips), std::vector<std::string>{"InTrips"});
  EXPECT_EQ(trackNames(trips->folders()[0]), std::vector<std::string>{"Nested"});
  EXPECT_EQ(trackNames(folder->folders()[1]), std::vector<std::string>{"Hidden"});

  const TrackPtr alpine = folder->tracks()[0];
  EXPECT_EQ(alpine->filename(), "Track00000001.gpx");
  ASSERT_TRUE(alpine->startTime() && alpine->endTime());
  EXPECT_EQ(*alpine->startTime(), at("2012-05-01T12:00:00+02:00"));
  EXPECT_EQ(alpine->startTime()->timezoneOffset(), 120);
  EXPECT_EQ(*alpine->endTime(), at("2012-05-01T10:30:00-03:30"));
  EXPECT_EQ(alpine->endTime()->timezoneOffset(), -210);
  EXPECT_EQ(alpine->photoCount(), 3);
  EXPECT_EQ(alpine->waypointCount(), 4);
  EXPECT_EQ(alpine->geocacheCount(), 5);
  EXPECT_EQ(alpine->length(), static_cast<double>(1234.567871f));
  EXPECT_NE(alpine->length(), 1234.56789);
  EXPECT_EQ(alpine->type(), Track::kPlaceCollection);
  EXPECT_EQ(alpine->trackId(), "T-1");
  EXPECT_EQ(alpine->iCloudId(), "C-1");
  EXPECT_EQ(alpine->iCloudTimestamp(), 1334567890.0);
  EXPECT_TRUE(alpine->iCloudIsUploading());
  EXPECT_EQ(alpine->description(), kDescription);
  EXPECT_EQ(alpine->tags(), "hiking, alps");
  EXPECT_TRUE(alpine->syncPhotosOniPhone());

  const TrackPtr bare = folder->tracks()[1];
  EXPECT_EQ(bare->filename().value_or("?"), "");
  EXPECT_FALSE(bare->startTime());
  EXPECT_FALSE(bare->endTime());
  EXPECT_EQ(bare->iCloudTimestamp(), 0.0);
  EXPECT_FALSE(bare->trackId() || bare->iCloudId() || bare->description() || bare->tags());
  EXPECT_FALSE(bare->iCloudIsUploading() || bare->syncPhotosOniPhone());

  // Only the metadata were read; Track::setName alone would have marked them dirty.
  for (const auto& track : folder->allTracks()) {
    EXPECT_FALSE(track->isLoaded() || track->isDirty() || track->metadataDirty()) << track->name();
    EXPECT_EQ(track->loadedPointCount(), 0u) << track->name();
  }
}

TEST_F(TrackLibraryXMLTest, HandWrittenIndexQuirks) {
  const auto folder = readText(
      "<wayfoliolib><folderX name=\"Old\"><trk name=\"InOld\" filename=\"o.gpx\"/></folderX>"
      "<trk name=\"Shout\" filename=\"s.gpx\" syncPhotos=\"YES\" iCloudIsUploading=\"YES\" "
      "starttime=\"yesterday\" endtime=\"\" length=\"2.5km\" photocount=\"x\"/>"
      "<trk name=\"NoFile\"/><trk filename=\"noname.gpx\"/><unknown name=\"u\"/>"
      "<trk name=\"Quiet\" filename=\"q.gpx\" syncPhotos=\"yes\" iCloudIsUploading=\"no\"/>"
      "</wayfoliolib>");
  ASSERT_EQ(folderNames(folder), std::vector<std::string>{"Old"});
  EXPECT_EQ(trackNames(folder->folders()[0]), std::vector<std::string>{"InOld"});
  // Tracks without name or file name are skipped.
  ASSERT_EQ(trackNames(folder), (std::vector<std::string>{"Shout", "Quiet"}));
  const TrackPtr shout = folder->tracks()[0];
  EXPECT_FALSE(shout->syncPhotosOniPhone());  // exact "yes" only
  EXPECT_TRUE(shout->iCloudIsUploading());    // any case
  EXPECT_FALSE(shout->startTime());
  EXPECT_FALSE(shout->endTime());
  EXPECT_EQ(shout->length(), 2.5);
  EXPECT_EQ(shout->photoCount(), 0);
  EXPECT_TRUE(folder->tracks()[1]->syncPhotosOniPhone());
  EXPECT_FALSE(folder->tracks()[1]->iCloudIsUploading());
}

TEST_F(TrackLibraryXMLTest, TruncatedIndexKeepsWhatCameBefore) {
  const std::string text = write(makeTree(), false);
  const size_t cut = text.find("<trk name=\"InTrips\"");
  ASSERT_NE(cut, std::string::npos);
  scratch_.write("library.wayfolio", text.substr(0, cut + 12));

  LogCapture capture;
  auto folder = TrackLibraryFolder::trackLibraryFolder();
  EXPECT_FALSE(read(folder, false));
  EXPECT_TRUE(capture.contains("TrackLibraryXML: Error ")) << ::testing::PrintToString(capture.lines());
  EXPECT_TRUE(capture.contains("TrackLibraryXML: Error parsing file!"));
  ASSERT_EQ(folderNames(folder), std::vector<std::string>{"Trips"});
  ASSERT_EQ(folderNames(folder->folders()[0]), std::vector<std::string>{"2012"});
  EXPECT_EQ(trackNames(folder->folders()[0]->folders()[0]), std::vector<std::string>{"Nested"});
  EXPECT_TRUE(folder->folders()[0]->tracks().empty());
  EXPECT_TRUE(folder->tracks().empty());
}

TEST_F(TrackLibraryXMLTest, MissingFilesAndPathsAreResults) {
  LogCapture capture;
  auto folder = TrackLibraryFolder::trackLibraryFolder();
  TrackLibraryXML xml;
  EXPECT_FALSE(xml.importFrom(scratch_.file("nothing.wayfolio"), folder));
  EXPECT_TRUE(capture.contains("TrackLibraryXML: Error -1, Description: "));
  EXPECT_TRUE(capture.contains("TrackLibraryXML: Error parsing file!"));
  EXPECT_TRUE(folder->tracks().empty() && folder->folders().empty());

  EXPECT_FALSE(xml.importFrom("", folder));
  EXPECT_TRUE(capture.contains("Error creating URL!"));
  // Without a library there is nothing to read into or write.
  EXPECT_FALSE(xml.importFrom(path_));
  EXPECT_FALSE(xml.exportTo(path_));
  EXPECT_FALSE(xml.exportTo(path_, nullptr));
  EXPECT_FALSE(xml.exportTo(scratch_.file("missing/library.wayfolio"), makeTree()));
}

// --- the counters of the library -------------------------------------------------------

TEST_F(TrackLibraryXMLTest, CountersTravelWithTheStandardIndex) {
  FileHandling fileHandling;
  fileHandling.setUserApplicationSupport(scratch_.path().string());
  {
    TrackLibraryPtr library = TrackLibrary::trackLibraryWithFileHandling(fileHandling);
    // Unregistered even when an assertion ends the test early; the library
    // itself goes before the folders it saves into.
    struct Release {
      ~Release() { TrackLibrary::releaseSingleton(); }
    } release;
    ASSERT_TRUE(library && library->geocacheTrack());
    library->setTrackCounter(17);
    library->geocacheTrack()->setCounterGPXExternal(5);
    const std::string text = write(makeTree(), true);
    EXPECT_NE(text.find("trackCounter=\"17\" geocacheTrackCounterGPXExternal=\"5\""),
              std::string::npos) << text;

    library->setTrackCounter(0);
    library->geocacheTrack()->setCounterGPXExternal(0);
    ASSERT_TRUE(read(TrackLibraryFolder::trackLibraryFolder(), true));
    EXPECT_EQ(library->trackCounter(), 17);
    EXPECT_EQ(library->geocacheTrack()->counterGPXExternal(), 5);

    // Another library's index leaves the counter alone, not the external counter.
    scratch_.write("other.wayfolio",
                   "<wayfoliolib trackCounter=\"23\" geocacheTrackCounterGPXExternal=\"9\"/>");
    TrackLibraryXML other;
    other.setIsStandardLibrary(false);
    ASSERT_TRUE(other.importFrom(scratch_.file("other.wayfolio"), TrackLibraryFolder::trackLibraryFolder()));
    EXPECT_EQ(library->trackCounter(), 17);
    EXPECT_EQ(library->geocacheTrack()->counterGPXExternal(), 9);
  }
}

// --- escaping ------------------------------------------------------------------------------

TEST(IndexEscapingTest, EscapesThroughMacRoman) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"", ""},
      {"Az09-._~", "Az09-._~"},
      {"!$&'()*+,;=:@/?", "!$&'()*+,;=:@/?"},
      {" \"%<>", "%20%22%25%3C%3E"},
      {"#[]\\^`{|}", "%23%5B%5D%5C%5E%60%7B%7C%7D"},
      {"\n\t\x7F", "%0A%09%7F"},
      {"äé€", "%8A%8E%DB"},
      {"東", "?"},  // not in Mac OS Roman: the converter's substitute
      {kDescription, kEscapedDescription},
  };
  for (const auto& [text, escaped] : cases) EXPECT_EQ(escapeForIndex(text), escaped) << text;
}

TEST(IndexEscapingTest, UnescapesThroughMacRoman) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"%8A%8e", "äé"},   // either case of hex digits
      {"%c3", "√"},
      {"%41%42c", "ABc"},
      {"100%", "100%"},   // broken escapes stay as they are
      {"%zz%4", "%zz%4"},
      {"a+b", "a+b"},     // no form decoding
      {"Grüße", "Grüße"}, // literal text is already UTF-8
  };
  for (const auto& [escaped, text] : cases) EXPECT_EQ(unescapeFromIndex(escaped), text) << escaped;
}

}  // namespace
}  // namespace kvtrack
