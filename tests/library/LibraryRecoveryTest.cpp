// A library whose index is missing, empty, cut short or garbage, or whose
// track files are damaged: nothing is taken for an empty library, nothing
// unreadable is overwritten.
#include "kvtrack/formats/gpx/TrackGPX.h"
#include "kvtrack/library/GpxImportConfiguration.h"
#include "kvtrack/support/Log.h"
#include "tests/library/LibraryTestSupport.h"

#include <gmock/gmock.h>

namespace kvtrack {
namespace {

namespace fs = std::filesystem;
using testing::OpenedLibrary;
using testing::ScratchFolder;
using ::testing::HasSubstr;
using Tracks = std::map<std::string, size_t>;

std::vector<std::string> filesStartingWith(const fs::path& folder, const std::string& prefix) {
  std::vector<std::string> names;
  for (const auto& entry : fs::directory_iterator(folder)) {
    if (entry.path().filename().string().starts_with(prefix)) names.push_back(entry.path().filename());
  }
  return names;
}

class LibraryRecovery : public ::testing::Test {
 protected:
  // "Alps/Ridge" and "Lake" saved twice, then "Rides/Tour" imported and
  // saved: the previous index knows the first two only.
  void SetUp() override {
    setLogToStandardError(false);
    testing::makeLibrary(folder(), 30, 20);
    GpxExportConfiguration export_;
    ASSERT_TRUE(TrackGPX(testing::walk("Tour", 40, "2013-01-01T10:00:00Z")).exportTo(tour(), export_));
    OpenedLibrary open(folder());
    GpxImportConfiguration configuration;
    configuration.setTrackIdPrefix("test");
    ASSERT_TRUE(open.library->getFolder("Rides")->importGPX(tour(), configuration));
    ASSERT_TRUE(open.library->syncToDisk());
    fs::copy(folder(), scratch.file("pristine"), fs::copy_options::recursive);
  }
  void TearDown() override { setLogToStandardError(true); }

  std::string folder() const { return scratch.file("library"); }
  std::string index() const { return folder() + "/library.wayfolio"; }
  std::string tour() const { return scratch.file("tour.gpx"); }

  ScratchFolder scratch;
};

TEST_F(LibraryRecovery, DamagedIndexesAreRebuiltAndKeptAside) {
  const std::string whole = ScratchFolder::read(index());
  for (const std::string& bytes : {std::string(), whole.substr(0, whole.find("<trk name=\"Tour\"") + 10),
                                   std::string("\x89PNG\r\n\x1a\n not an index at all"),
                                   std::string("<?xml version=\"1.0\"?><html><body/></html>")}) {
    SCOPED_TRACE(bytes);
    fs::remove_all(folder());
    fs::copy(scratch.file("pristine"), folder(), fs::copy_options::recursive);
    scratch.write("library/library.wayfolio", bytes);
    {
      OpenedLibrary open(folder());
      EXPECT_EQ(open.opening.index, IndexState::kDamaged);
      EXPECT_FALSE(open.opening.indexProblem.empty());
      // What the index yields before its error and the previous index bring
      // back folders; the imported track, which neither knows whole, comes
      // from its file with its GPX name.
      EXPECT_EQ(open.tracks(), (Tracks{{"Alps/Ridge", 30}, {"Lake", 20}, {"Recovered/Tour", 40}}));
      ASSERT_TRUE(open.library->syncToDisk());
    }
    const auto aside = filesStartingWith(folder(), "library.wayfolio.damaged-");
    ASSERT_EQ(aside.size(), 1u);
    EXPECT_EQ(ScratchFolder::read(folder() + "/" + aside[0]), bytes);
    fs::remove(folder() + "/" + aside[0]);
    OpenedLibrary reopened(folder());
    EXPECT_FALSE(reopened.opening.rebuilt());
    EXPECT_EQ(reopened.tracks().size(), 3u);
  }
}

TEST_F(LibraryRecovery, MissingIndexIsRebuiltFromTheFilesAndRefusesReimports) {
  fs::remove(index());
  fs::remove(folder() + "/library.wayfolio.previous");
  OpenedLibrary open(folder());
  EXPECT_EQ(open.opening.index, IndexState::kMissing);
  EXPECT_EQ(open.opening.adoptedFiles.size(), 3u);
  EXPECT_EQ(open.tracks(), (Tracks{{"Recovered/Ridge", 30}, {"Recovered/Lake", 20}, {"Recovered/Tour", 40}}));
  const auto tour = open.library->getFolder("Recovered")->tracks()[2];
  EXPECT_EQ(tour->startTime()->description(), "2013-01-01T10:00:00Z");
  EXPECT_EQ(tour->pointCount(), 40);

  GpxImportConfiguration configuration;
  configuration.setTrackIdPrefix("test");
  ASSERT_TRUE(open.library->importGPX(this->tour(), configuration));
  EXPECT_EQ(configuration.identicalTrackCounter(), 1);  // the recovered id refuses it
  // A new track never takes a file name the folder holds already.
  auto added = testing::walk("New", 2);
  open.library->addTrack(added);
  EXPECT_FALSE(fs::exists(folder() + "/" + *added->filename()));
  EXPECT_GE(open.library->trackCounter(), 3);
}

TEST_F(LibraryRecovery, ReadOnlyOpeningsAndNewLibrariesWriteNothing) {
  fs::remove(index());
  const auto before = filesStartingWith(folder(), "");
  {
    OpenedLibrary open(folder(), true);
    EXPECT_TRUE(open.opening.rebuilt());
    EXPECT_TRUE(open.library->syncToDisk());  // read-only: nothing happens
  }
  EXPECT_EQ(filesStartingWith(folder(), ""), before);

  LogCapture log;
  OpenedLibrary empty(scratch.file("new"));
  EXPECT_FALSE(empty.opening.rebuilt());
  EXPECT_TRUE(log.lines().empty()) << ::testing::PrintToString(log.lines());
}

TEST_F(LibraryRecovery, DamagedTrackFilesAreReportedAndKeptBeforeAnySave) {
  OpenedLibrary open(folder());
  const auto lake = open.library->tracks()[0];
  const std::string path = folder() + "/" + *lake->filename();
  const std::string cut = ScratchFolder::read(path).substr(0, fs::file_size(path) / 2);
  scratch.write("library/" + *lake->filename(), cut);

  const LibraryCheck check = checkLibrary(*open.library, open.opening);
  ASSERT_EQ(check.damagedFiles.size(), 1u);
  EXPECT_EQ(check.damagedFiles[0].filename, *lake->filename());
  EXPECT_THAT(check.damagedFiles[0].reason, ::testing::StartsWith("line "));

  lake->loadFromLibrary();
  EXPECT_THAT(lake->damage().value_or(""), HasSubstr("cannot be read whole"));
  EXPECT_LT(lake->trackPoints().size(), 20u);
  EXPECT_EQ(lake->name(), "Lake");
  ASSERT_TRUE(open.library->syncToDisk());
  EXPECT_EQ(ScratchFolder::read(path), cut);  // a clean save leaves it alone

  lake->setName("Lake, what is left");
  ASSERT_TRUE(open.library->syncToDisk());
  const auto aside = filesStartingWith(folder(), *lake->filename() + ".damaged-");
  ASSERT_EQ(aside.size(), 1u);
  EXPECT_EQ(ScratchFolder::read(folder() + "/" + aside[0]), cut);
  EXPECT_FALSE(lake->damage());

  scratch.write("library/" + *open.library->folders()[0]->tracks()[0]->filename(), "garbage");
  fs::remove(folder() + "/" + *open.library->folders()[1]->tracks()[0]->filename());
  const LibraryCheck later = checkLibrary(*open.library, open.opening);
  EXPECT_EQ(later.damagedFiles.size(), 1u);
  EXPECT_EQ(later.missingFiles.size(), 1u);
  EXPECT_FALSE(later.sound());
}

}  // namespace
}  // namespace kvtrack
