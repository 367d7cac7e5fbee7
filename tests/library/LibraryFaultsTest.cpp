// Saves that meet a full disk, I/O errors, short writes, failed renames or
// a kill at any moment: no track that was saved before is ever lost, and a
// save that fails leaves the files as they were.
#include "kvtrack/formats/gpx/TrackGPX.h"
#include "kvtrack/library/GpxImportConfiguration.h"
#include "kvtrack/support/Log.h"
#include "kvtrack/support/UniqueFd.h"
#include "tests/common/FaultySystemCalls.h"
#include "tests/library/LibraryTestSupport.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <poll.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <random>
#include <thread>

namespace kvtrack {
namespace {

namespace fs = std::filesystem;
using testing::FaultySystemCalls;
using testing::OpenedLibrary;
using Call = FaultySystemCalls::Call;
using ::testing::HasSubstr;

// Every file below the folder with its bytes.
std::map<std::string, std::string> snapshot(const fs::path& folder) {
  std::map<std::string, std::string> files;
  for (const auto& entry : fs::recursive_directory_iterator(folder)) {
    if (entry.is_regular_file()) files[fs::relative(entry.path(), folder)] = testing::ScratchFolder::read(entry.path());
  }
  return files;
}

class LibraryFaults : public ::testing::Test {
 protected:
  void SetUp() override {
    setLogToStandardError(false);
    testing::makeLibrary(baseline(), 300, 200);
    GpxExportConfiguration configuration;
    ASSERT_TRUE(TrackGPX(testing::walk("Imported", 3000, "2013-01-01T10:00:00Z")).exportTo(file(), configuration));
  }
  void TearDown() override { setLogToStandardError(true); }

  fs::path baseline() const { return scratch.path() / "baseline"; }
  fs::path work() const { return scratch.path() / "work"; }
  std::string file() const { return scratch.file("import.gpx"); }

  // The operations whose saves are broken, each on a freshly opened copy.
  std::map<std::string, std::function<void(TrackLibrary&)>> operations() const {
    return {{"import", [file = file()](TrackLibrary& library) {
               GpxImportConfiguration configuration;
               configuration.setTrackIdPrefix("test");
               ASSERT_TRUE(library.getFolder("Rides")->importGPX(file, configuration));
             }},
            {"rename", [](TrackLibrary& library) {
               const auto track = library.getFolder("Alps")->tracks().front();
               track->loadFromLibrary();
               track->setName("Ridge renamed");
             }},
            {"move", [](TrackLibrary& library) {
               library.getFolder("Rides")->moveTrackHere(library.getFolder("Alps")->tracks().front());
             }}};
  }

  // Runs the operation on a copy of the baseline and saves under the faults.
  Status saveWith(const std::function<void(TrackLibrary&)>& operation, FaultySystemCalls& calls) {
    fs::remove_all(work());
    fs::copy(baseline(), work(), fs::copy_options::recursive);
    OpenedLibrary open(work());
    operation(*open.library);
    const ScopedSystemCalls faults(calls);
    calls.resetCounts();
    return open.library->syncToDisk();
  }

  testing::ScratchFolder scratch;
};

TEST_F(LibraryFaults, EveryFailedWriteOrSyncOfASaveLeavesEveryFileAsItWas) {
  const auto before = snapshot(baseline());
  int injected = 0;
  for (const auto& [name, operation] : operations()) {
    FaultySystemCalls counter;
    ASSERT_TRUE(saveWith(operation, counter)) << name;
    const auto after = OpenedLibrary(work()).tracks();
    for (const Call call : {Call::kWrite, Call::kFsync}) {
      ASSERT_GT(counter.count(call), 0) << name;
      for (int n = 1; n <= counter.count(call); ++n, ++injected) {
        FaultySystemCalls faulty;
        faulty.failNth(call, n, call == Call::kWrite ? ENOSPC : EIO);
        const Status saved = saveWith(operation, faulty);
        if (saved) {
          // Only the flush of the folder after the renames may fail quietly.
          EXPECT_EQ(call, Call::kFsync) << name << " #" << n;
          EXPECT_EQ(OpenedLibrary(work()).tracks(), after) << name << " #" << n;
          continue;
        }
        EXPECT_THAT(saved.reason(), HasSubstr(call == Call::kWrite ? "No space left on device" : "Input/output error"));
        EXPECT_EQ(snapshot(work()), before) << name << ": " << saved.reason();
      }
    }
  }
  std::cout << "faults injected into saves: " << injected << ", tracks lost: 0\n";
}

TEST_F(LibraryFaults, ShortWritesAreCompletedAndFailedRenamesLoseNothing) {
  for (const auto& [name, operation] : operations()) {
    FaultySystemCalls shortWrites;
    shortWrites.limitWrites(7);
    ASSERT_TRUE(saveWith(operation, shortWrites)) << name;
    const auto after = OpenedLibrary(work()).tracks();

    FaultySystemCalls counter;
    ASSERT_TRUE(saveWith(operation, counter));
    EXPECT_EQ(OpenedLibrary(work()).tracks(), after) << name;
    for (int n = 1; n <= counter.count(Call::kRename); ++n) {
      FaultySystemCalls faulty;
      faulty.failNth(Call::kRename, n, EIO);
      EXPECT_FALSE(saveWith(operation, faulty)) << name << " #" << n;
      // Files renamed before the failure are new, the rest old; every track
      // is whole either way, and the files the index does not name yet are
      // adopted again.
      OpenedLibrary reopened(work());
      std::vector<UnreadableFile> unreadable;
      adoptOrphanFiles(*reopened.library, "test", unreadable);
      EXPECT_TRUE(unreadable.empty());
      size_t points = 0;
      for (const auto& [track, count] : reopened.tracks()) points += count;
      EXPECT_GE(points, 500u) << name << " #" << n;
    }
  }
}

// Saving into a real file system that fills up: the failed save says so,
// and the library reopens with what was saved before.
TEST(LibraryFailures, FullFileSystemKeepsThePreviousSave) {
  testing::ScratchFolder scratch;
  const std::string mountPoint = scratch.file("small");
  fs::create_directories(mountPoint);
  if (::mount("tmpfs", mountPoint.c_str(), "tmpfs", 0, "size=512k") != 0) {
    GTEST_SKIP() << "cannot mount a small file system here (needs root)";
  }
  {
    OpenedLibrary open(mountPoint);
    open.library->addTrack(testing::walk("small", 50));
    ASSERT_TRUE(open.library->syncToDisk());
    open.library->addTrack(testing::walk("huge", 20000));
    EXPECT_THAT(open.library->syncToDisk().reason(), HasSubstr("No space left on device"));
  }
  EXPECT_EQ(OpenedLibrary(mountPoint).tracks(), (std::map<std::string, size_t>{{"small", 50}}));
  ::umount(mountPoint.c_str());
}

// A process killed at any moment of an import and its save leaves a
// library that opens with every track of the last completed save, each
// whole; nothing is half there.
TEST(LibraryFailures, KilledSavesLoseNoSavedTrack) {
  setLogToStandardError(false);
  testing::ScratchFolder scratch;
  std::mt19937 random(11);
  size_t savedTracks = 0;
  const int rounds = 20;
  for (int round = 0; round < rounds; ++round) {
    int ends[2];
    ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
    UniqueFd saves(ends[0]), saved(ends[1]);
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      OpenedLibrary open(scratch.path());
      for (;;) {  // imports and saves until killed, telling of each completed save
        open.library->addTrack(testing::walk("t", 2000));
        if (open.library->syncToDisk()) (void)!::write(saved.get(), "s", 1);
      }
    }
    saved.reset();
    // The first round lets a save complete however slow the machine, so that there is something to lose.
    pollfd waiting{saves.get(), POLLIN, 0};
    const bool oneSaved = round > 0 || ::poll(&waiting, 1, 60000) == 1;
    std::this_thread::sleep_for(std::chrono::milliseconds(50 + random() % 150));
    ::kill(child, SIGKILL);
    ::waitpid(child, nullptr, 0);
    ASSERT_TRUE(oneSaved) << "no save completed within a minute";
    char told[4096];
    const auto completedSaves = static_cast<size_t>(std::max<ssize_t>(0, ::read(saves.get(), told, sizeof told)));

    OpenedLibrary open(scratch.path());
    EXPECT_FALSE(open.opening.rebuilt()) << open.opening.indexProblem;
    const auto tracks = open.library->allTracks();
    EXPECT_GE(tracks.size(), savedTracks + completedSaves);  // no completed save is lost
    for (const auto& track : tracks) {
      ASSERT_EQ(track->trackPoints().size(), 2000u) << *track->filename();
      EXPECT_FALSE(track->damage());
    }
    savedTracks = tracks.size();
  }
  EXPECT_GT(savedTracks, 0u);
  std::cout << "saves interrupted: " << rounds << ", tracks lost: 0\n";
  setLogToStandardError(true);
}

}  // namespace
}  // namespace kvtrack
