// The library index: writing a folder tree, reading it back without loading
// any track, hand-written and damaged index files, and the percent-escaping
// of descriptions and tags.
#include "kvtrack/library/TrackLibraryXML.h"

#include "kvtrack/library/TrackLibrary.h"
#include "kvtrack/support/FileHandling.h"
#include "tests/common/ScratchFolder.h"
#include "tests/common/TrackBuilders.h"

#include <gmock/gmock.h>

#include <algorithm>

namespace kvtrack {
namespace {

using testing::at;
using ::testing::HasSubstr;
using testing::ScratchFolder;
using Names = std::vector<std::string>;

const std::string kDescription = "He said \"Grüß dich\" 100% <sure>";
const std::string kEscapedDescription = "He%20said%20%22Gr%9F%A7%20dich%22%20100%25%20%3Csure%3E";

TrackPtr addTrack(const TrackLibraryFolderPtr& folder, const std::string& name, const std::string& filename) {
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

// "folder/" or "track" for each entry below the folder, depth first.
Names tree(const TrackLibraryFolderPtr& folder, const std::string& prefix = "") {
  Names names;
  for (const auto& child : folder->folders()) {
    names.push_back(prefix + child->name() + "/");
    for (const auto& below : tree(child, prefix + child->name() + "/")) names.push_back(below);
  }
  for (const auto& track : folder->tracks()) names.push_back(prefix + track->name());
  return names;
}

class TrackLibraryXMLTest : public ::testing::Test {
 protected:
  static std::string write(const TrackLibraryFolderPtr& tree, bool standard) {
    TrackLibraryXML xml;
    xml.setIsStandardLibrary(standard);
    return xml.exportText(tree);
  }
  static TrackLibraryFolderPtr read(std::string_view text, bool standard = false, bool complete = true) {
    TrackLibraryXML xml;
    xml.setIsStandardLibrary(standard);
    auto folder = TrackLibraryFolder::trackLibraryFolder();
    EXPECT_EQ(xml.importText(text, folder).ok(), complete) << text;
    return folder;
  }
  ScratchFolder scratch_;
  std::string path_ = scratch_.file("library.wayfolio");
};

TEST_F(TrackLibraryXMLTest, WritesEveryAttributeAndTheTreeInOrderAndReadsThemBackWithoutLoading) {
  const std::string text = write(makeTree(), false);
  EXPECT_TRUE(text.starts_with("<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n")) << text;
  // Without a library both counters are 0.
  EXPECT_THAT(text, HasSubstr("<wayfoliolib creator=\"Wayfolio\" version=\"1.0\" trackCounter=\"0\" "
                              "geocacheTrackCounterGPXExternal=\"0\">"));
  // Single-precision length; the timestamp truncated; each offset kept.
  EXPECT_THAT(
      text,
      HasSubstr("<trk name=\"Alpine\" filename=\"Track00000001.gpx\" "
                "starttime=\"2012-05-01T12:00:00+02:00\" endtime=\"2012-05-01T10:30:00-03:30\" "
                "photocount=\"3\" waypointcount=\"4\" geocachecount=\"5\" length=\"1234.567871\" "
                "type=\"1\" trackId=\"T-1\" iCloudId=\"C-1\" iCloudTimestamp=\"1334567890\" "
                "iCloudIsUploading=\"yes\" description=\"" +
                kEscapedDescription + "\" tags=\"hiking,%20alps\" syncPhotos=\"yes\" pointcount=\"0\"/>"));
  // Absent values: empty texts for the always-written ones, nothing for the rest.
  EXPECT_THAT(
      text,
      HasSubstr("<trk name=\"Bare\" filename=\"\" starttime=\"\" endtime=\"\" photocount=\"0\" "
                "waypointcount=\"0\" geocachecount=\"0\" length=\"0.000000\" type=\"0\" pointcount=\"0\"/>"));
  // Indented by depth; subfolders before tracks on every level.
  std::vector<size_t> positions;
  for (const char* line :
       {"\n  <folder name=\"Trips\">", "\n    <folder name=\"2012\">", "\n      <trk name=\"Nested\"",
        "\n    <trk name=\"InTrips\"", "\n  <folder name=\"Private\">", "\n  <trk name=\"Alpine\""}) {
    positions.push_back(text.find(line));
    EXPECT_NE(positions.back(), std::string::npos) << line;
  }
  EXPECT_TRUE(std::is_sorted(positions.begin(), positions.end())) << text;
  // The standard library leaves out the flagged folder.
  EXPECT_EQ(tree(read(write(makeTree(), true), true)),
            (Names{"Trips/", "Trips/2012/", "Trips/2012/Nested", "Trips/InTrips", "Alpine", "Bare"}));

  const auto folder = read(text);
  EXPECT_EQ(write(folder, false), text);  // every attribute and the tree read back as written
  EXPECT_EQ(folder->tracks()[0]->description(), kDescription);
  EXPECT_EQ(folder->tracks()[0]->endTime()->timezoneOffset(), -210);
  // Only the metadata were read; Track::setName alone would have marked them dirty.
  for (const auto& track : folder->allTracks()) {
    EXPECT_FALSE(track->isLoaded() || track->isDirty() || track->metadataDirty()) << track->name();
    EXPECT_EQ(track->loadedPointCount(), 0u) << track->name();
  }
}

TEST_F(TrackLibraryXMLTest, HandWrittenAndDamagedIndexes) {
  const auto folder = read(
      "<wayfoliolib><folderX name=\"Old\"><trk name=\"InOld\" filename=\"o.gpx\"/></folderX>"
      "<trk name=\"Shout\" filename=\"s.gpx\" syncPhotos=\"YES\" iCloudIsUploading=\"YES\" "
      "starttime=\"yesterday\" endtime=\"\" length=\"2.5km\" photocount=\"x\"/>"
      "<trk name=\"NoFile\"/><trk filename=\"noname.gpx\"/><unknown name=\"u\"/>"
      "<trk name=\"Quiet\" filename=\"q.gpx\" syncPhotos=\"yes\" iCloudIsUploading=\"no\"/></wayfoliolib>");
  // Tracks without name or file name are skipped.
  EXPECT_EQ(tree(folder), (Names{"Old/", "Old/InOld", "Shout", "Quiet"}));
  const TrackPtr shout = folder->tracks()[0], quiet = folder->tracks()[1];
  // syncPhotos takes an exact "yes" only, iCloudIsUploading any case.
  EXPECT_EQ(std::tuple(shout->syncPhotosOniPhone(), shout->iCloudIsUploading(), quiet->syncPhotosOniPhone(),
                       quiet->iCloudIsUploading()),
            std::tuple(false, true, true, false));
  EXPECT_FALSE(shout->startTime() || shout->endTime());
  EXPECT_EQ(std::tuple(shout->length(), shout->photoCount()), std::tuple(2.5, 0));

  // A damaged index keeps what came before the damage and says so.
  const std::string text = write(makeTree(), false);
  EXPECT_EQ(tree(read(text.substr(0, text.find("<trk name=\"InTrips\"") + 12), false, false)),
            (Names{"Trips/", "Trips/2012/", "Trips/2012/Nested"}));
  TrackLibraryXML xml;
  EXPECT_FALSE(xml.importFrom(scratch_.file("nothing.wayfolio"), folder).reason().empty());
  EXPECT_FALSE(xml.exportTo(scratch_.file("missing/library.wayfolio"), makeTree()));
}

TEST_F(TrackLibraryXMLTest, CountersTravelWithTheStandardIndex) {
  FileHandling fileHandling;
  fileHandling.setUserApplicationSupport(scratch_.path().string());
  TrackLibraryPtr library = TrackLibrary::trackLibraryWithFileHandling(fileHandling);
  // Unregistered even when an assertion ends the test early; the library
  // itself goes before the folders it saves into.
  struct Release {
    ~Release() { TrackLibrary::releaseSingleton(); }
  } release;
  ASSERT_TRUE(library && library->geocacheTrack());
  library->setTrackCounter(17);
  library->geocacheTrack()->setCounterGPXExternal(5);
  TrackLibraryXML xml;
  xml.setIsStandardLibrary(true);
  ASSERT_TRUE(xml.exportTo(path_, makeTree()));
  EXPECT_THAT(ScratchFolder::read(path_),
              HasSubstr("trackCounter=\"17\" geocacheTrackCounterGPXExternal=\"5\""));
  library->setTrackCounter(0);
  library->geocacheTrack()->setCounterGPXExternal(0);
  ASSERT_TRUE(xml.importFrom(path_, TrackLibraryFolder::trackLibraryFolder()));
  EXPECT_EQ(library->trackCounter(), 17);
  EXPECT_EQ(library->geocacheTrack()->counterGPXExternal(), 5);

  // Another library's index leaves the counter alone, not the external counter.
  read("<wayfoliolib trackCounter=\"23\" geocacheTrackCounterGPXExternal=\"9\"/>", false);
  EXPECT_EQ(library->trackCounter(), 17);
  EXPECT_EQ(library->geocacheTrack()->counterGPXExternal(), 9);
}

TEST(IndexEscapingTest, EscapesAndUnescapesThroughMacRoman) {
  const std::pair<std::string, std::string> escapes[] = {
      {"", ""},
      {"Az09-._~!$&'()*+,;=:@/?", "Az09-._~!$&'()*+,;=:@/?"},
      {" \"%<>#[]\\^`{|}\n\t\x7F", "%20%22%25%3C%3E%23%5B%5D%5C%5E%60%7B%7C%7D%0A%09%7F"},
      {"äé€", "%8A%8E%DB"},
      {"東", "?"},  // not in Mac OS Roman: the converter's substitute
      {kDescription, kEscapedDescription}};
  for (const auto& [text, escaped] : escapes) EXPECT_EQ(escapeForIndex(text), escaped) << text;
  const std::pair<std::string, std::string> unescapes[] = {
      {"%8A%8e", "äé"},  // either case of hex digits
      {"%c3", "√"},       {"%41%42c", "ABc"},
      {"100%", "100%"},   {"%zz%4", "%zz%4"},                    // broken escapes stay as they are
      {"a+b", "a+b"},                                            // no form decoding
      {"Grüße", "Grüße"}, {kEscapedDescription, kDescription}};  // literal text is already UTF-8
  for (const auto& [escaped, text] : unescapes) EXPECT_EQ(unescapeFromIndex(escaped), text) << escaped;
}

}  // namespace
}  // namespace kvtrack
