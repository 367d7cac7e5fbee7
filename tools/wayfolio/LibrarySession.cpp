#include "tools/wayfolio/LibrarySession.h"

#include "kvtrack/library/TrackLibrary.h"
#include "kvtrack/support/FileHandling.h"
#include "tools/wayfolio/Commands.h"

#include <fmt/format.h>

#include <cstdio>
#include <filesystem>

namespace wayfolio {

namespace fs = std::filesystem;
using namespace kvtrack;

namespace {

std::string chooseFolder(const std::string& folderOption) {
  FileHandling& files = FileHandling::singleton();
  if (!folderOption.empty()) files.setUserApplicationSupport(fs::absolute(folderOption).string());
  const std::string folder = files.userApplicationSupport();  // made when missing
  std::error_code error;
  if (!fs::is_directory(folder, error)) {
    fs::create_directories(folder, error);  // once more, for the reason
    throw CommandError(fmt::format("cannot use the library folder {}: {}", folder,
                                   error ? error.message() : "it is not a folder"));
  }
  return folder;
}

void warn(const std::string& message) {
  std::fflush(stdout);
  std::fprintf(stderr, "wayfolio: %s\n", message.c_str());
}

// What a rebuild found, in one paragraph on standard error.
void reportRebuild(const LibraryOpening& opening, const TrackLibrary& library) {
  const std::string what = opening.index == IndexState::kMissing
                               ? fmt::format("the library index {} is missing", library.indexPath())
                               : fmt::format("the library index {} cannot be read ({})",
                                             library.indexPath(), opening.indexProblem);
  warn(fmt::format("{}; the library was rebuilt from its files: {} tracks from the previous "
                   "index, {} track files adopted into the folder Recovered",
                   what, opening.tracksFromPreviousIndex, opening.adoptedFiles.size()));
  for (const auto& file : opening.unreadableFiles) {
    warn(fmt::format("  {} cannot be read and stays where it is: {}", file.filename, file.reason));
  }
}

}  // namespace

LibrarySession::LibrarySession(const std::string& folderOption, bool noWait, bool readOnly) {
  const std::string folder = chooseFolder(folderOption);
  lock_.emplace(folder, noWait);
  auto library = TrackLibrary::trackLibraryWithFileHandling(FileHandling::singleton());
  library->setReadOnly(readOnly);
  opening_ = openLibrary(*library, kTrackIdPrefix);
  if (opening_.rebuilt()) reportRebuild(opening_, *library);
}

LibrarySession::~LibrarySession() {
  const auto library = TrackLibrary::current();
  if (!library) return;
  if (opening_.rebuilt() && !saved_) {
    warn("the rebuilt library was not saved; 'wayfolio check --repair' saves it");
  }
  library->setReadOnly(true);  // whatever was not saved stays unsaved
  TrackLibrary::releaseSingleton();
}

void LibrarySession::save() {
  const auto library = TrackLibrary::singleton();
  const std::optional<std::string> aside = library->damagedIndexAside();
  if (const Status saved = library->syncToDisk(); !saved) {
    throw CommandError(fmt::format("could not save the library: {}; its files were left as they "
                                   "were before this command",
                                   saved.reason()));
  }
  if (opening_.rebuilt() && !saved_) {
    warn(aside ? fmt::format("the rebuilt library was saved; the damaged index is kept as {}", *aside)
               : std::string("the rebuilt library was saved"));
  }
  saved_ = true;
}

}  // namespace wayfolio
