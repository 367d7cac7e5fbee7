// A library whose index is missing, empty, cut short or garbage, or whose
// track files are damaged: nothing is taken for an empty library, nothing
// unreadable is overwritten.
#include "kvtrack/formats/gpx/TrackGPX.h"
#include "kvtrack/library/GpxImportConfiguration.h"
#include "kvtrack/library/LibraryRecovery.h"
#include "kvtrack/support/Log.h"
#include "tests/library/LibraryTestSupport.h"

#include <gmock/gmock.h>

#include <filesystem>
#include <map>

namespace kvtrack {
namespace {

namespace fs = std::filesystem;
using ::testing::HasSubstr;
using ::testing::StartsWith;

// A fresh library object on the folder, opened as wayfolio opens it.
struct Opened {
  explicit Opened(const std::string& folder, bool readOnly = false) {
    files.setUserApplicationSupport(folder);
    library = TrackLibrary::trackLibraryWithFileHandling(files);
    library->setReadOnly(readOnly);
    opening = openLibrary(*library, "test");
  }
  ~Opened() {
    library->setReadOnly(true);
    library.reset();
    TrackLibrary::releaseSingleton();
  }
  // "Folder/Name" -> point count, for every track.
  std::map<std::string, size_t> tracks() const {
    std::map<std::string, size_t> found;
    for (const auto& track : library->allTracks()) {
      const auto folder = std::dynamic_pointer_cast<TrackLibraryFolder>(track->parent());
      found[(folder == library ? "" : folder->name() + "/") + track->name()] =
          track->trackPoints().size();
    }
    return found;
  }
  FileHandling files;
  TrackLibraryPtr library;
  LibraryOpening opening;
};

std::vector<std::string> filesStartingWith(const fs::path& folder, const std::string& prefix) {
  std::vector<std::string> names;
  for (const auto& entry : fs::directory_iterator(folder)) {
    const std::string name = entry.path().filename().string();
    if (name.starts_with(prefix)) names.push_back(name);
  }
  return names;
}

class LibraryRecovery : public ::testing::Test {
 protected:
  // Two saves with "Alps/Ridge" and "Lake", then "Rides/Tour" imported:
  // the previous index knows the first two only.
  void SetUp() override {
    setLogToStandardError(false);
    Opened open(folder());
    auto alps = TrackLibraryFolder::trackLibraryFolder("Alps");
    open.library->addFolder(alps);
    alps->addTrack(testing::walk("Ridge", 30));
    open.library->addTrack(testing::walk("Lake", 20, "2012-06-01T10:00:00+02:00"));
    ASSERT_TRUE(open.library->syncToDisk());
    auto rides = TrackLibraryFolder::trackLibraryFolder("Rides");
    open.library->addFolder(rides);
    GpxExportConfiguration export_;
    ASSERT_TRUE(TrackGPX(testing::walk("Tour", 40, "2013-01-01T10:00:00Z")).exportTo(tour(), export_));
    GpxImportConfiguration configuration;
    configuration.setTrackIdPrefix("test");
    ASSERT_TRUE(rides->importGPX(tour(), configuration));
    ASSERT_TRUE(open.library->syncToDisk());
    fs::copy(folder(), scratch.file("pristine"), fs::copy_options::recursive);
  }

  // The library as SetUp left it, with the index replaced by the bytes.
  void restoreWithIndex(const std::string& bytes) {
    fs::remove_all(folder());
    fs::copy(scratch.file("pristine"), folder(), fs::copy_options::recursive);
    scratch.write("library/library.wayfolio", bytes);
  }
  void TearDown() override { setLogToStandardError(true); }

  std::string folder() const { return scratch.file("library"); }
  std::string index() const { return folder() + "/library.wayfolio"; }
  std::string tour() const { return scratch.file("tour.gpx"); }

  testing::ScratchFolder scratch;
};

TEST_F(LibraryRecovery, DamagedIndexesAreRebuiltAndKeptAside) {
  const std::string whole = testing::ScratchFolder::read(index());
  const std::map<std::string, std::string> damages{
      {"empty", ""},
      {"cut", whole.substr(0, whole.find("<trk name=\"Tour\"") + 10)},
      {"garbage", "\x89PNG\r\n\x1a\n not an index at all"},
      {"other XML", "<?xml version=\"1.0\"?><html><body/></html>"},
  };
  for (const auto& [kind, bytes] : damages) {
    restoreWithIndex(bytes);
    {
      Opened open(folder());
      EXPECT_EQ(open.opening.index, IndexState::kDamaged) << kind;
      EXPECT_FALSE(open.opening.indexProblem.empty()) << kind;
      // What the index yields before its error and the previous index bring
      // back folders; the imported track, which neither knows whole, comes
      // from its file with its GPX name.
      EXPECT_EQ(open.tracks(), (std::map<std::string, size_t>{
                                   {"Alps/Ridge", 30}, {"Lake", 20}, {"Recovered/Tour", 40}}))
          << kind;
      ASSERT_TRUE(open.library->syncToDisk());
    }
    const auto aside = filesStartingWith(folder(), "library.wayfolio.damaged-");
    ASSERT_EQ(aside.size(), 1u) << kind;
    EXPECT_EQ(testing::ScratchFolder::read(folder() + "/" + aside[0]), bytes) << kind;
    fs::remove(folder() + "/" + aside[0]);
    Opened reopened(folder());
    EXPECT_FALSE(reopened.opening.rebuilt()) << kind;
    EXPECT_EQ(reopened.tracks().size(), 3u) << kind;
  }
}

TEST_F(LibraryRecovery, MissingIndexIsRebuiltFromTheFilesAndRefusesReimports) {
  fs::remove(index());
  fs::remove(folder() + "/library.wayfolio.previous");
  Opened open(folder());
  EXPECT_EQ(open.opening.index, IndexState::kMissing);
  EXPECT_EQ(open.opening.adoptedFiles.size(), 3u);
  EXPECT_EQ(open.tracks(), (std::map<std::string, size_t>{
                               {"Recovered/Ridge", 30}, {"Recovered/Lake", 20}, {"Recovered/Tour", 40}}));
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
    Opened open(folder(), true);
    EXPECT_TRUE(open.opening.rebuilt());
    EXPECT_TRUE(open.library->syncToDisk());  // read-only: nothing happens
  }
  EXPECT_EQ(filesStartingWith(folder(), ""), before);

  LogCapture log;
  Opened empty(scratch.file("new"));
  EXPECT_FALSE(empty.opening.rebuilt());
  EXPECT_TRUE(log.lines().empty()) << ::testing::PrintToString(log.lines());
}

TEST_F(LibraryRecovery, DamagedTrackFilesAreReportedAndKeptBeforeAnySave) {
  Opened open(folder());
  const auto lake = open.library->tracks()[0];
  const std::string path = folder() + "/" + *lake->filename();
  const std::string whole = testing::ScratchFolder::read(path);
  const std::string cut = whole.substr(0, whole.size() / 2);
  scratch.write("library/" + *lake->filename(), cut);

  const LibraryCheck check = checkLibrary(*open.library, open.opening);
  ASSERT_EQ(check.damagedFiles.size(), 1u);
  EXPECT_EQ(check.damagedFiles[0].filename, *lake->filename());
  EXPECT_THAT(check.damagedFiles[0].reason, StartsWith("line "));

  lake->loadFromLibrary();
  ASSERT_TRUE(lake->damage());
  EXPECT_THAT(*lake->damage(), HasSubstr("cannot be read whole"));
  EXPECT_LT(lake->trackPoints().size(), 20u);
  EXPECT_EQ(lake->name(), "Lake");
  ASSERT_TRUE(open.library->syncToDisk());
  EXPECT_EQ(testing::ScratchFolder::read(path), cut);  // a clean save leaves it alone

  lake->setName("Lake, what is left");
  ASSERT_TRUE(open.library->syncToDisk());
  const auto aside = filesStartingWith(folder(), *lake->filename() + ".damaged-");
  ASSERT_EQ(aside.size(), 1u);
  EXPECT_EQ(testing::ScratchFolder::read(folder() + "/" + aside[0]), cut);
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
