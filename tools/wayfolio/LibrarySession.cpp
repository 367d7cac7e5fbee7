#include "tools/wayfolio/LibrarySession.h"

#include "kvtrack/library/TrackLibrary.h"
#include "kvtrack/library/TrackLibraryXML.h"
#include "kvtrack/support/FileHandling.h"
#include "kvtrack/support/Log.h"
#include "tools/wayfolio/Commands.h"
#include "tools/wayfolio/LogReasons.h"

#include <fmt/format.h>

#include <algorithm>
#include <filesystem>
#include <optional>
#include <string_view>

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

// The library rewrites its index whenever it is released, and would keep
// only what it could read of a damaged one; so a damaged index stops here,
// before the library is opened.
void checkIndex(const std::string& folder) {
  const std::string index = folder + "/library.wayfolio";
  std::error_code error;
  if (!fs::exists(index, error)) return;  // a new library
  LogCapture capture;
  TrackLibraryXML reader;
  reader.setIsStandardLibrary(false);
  if (!reader.importFrom(index, TrackLibraryFolder::trackLibraryFolder())) {
    const std::string reason = relevantLogLine(capture, {"Description:"});
    throw CommandError(fmt::format("the library index {} cannot be read{}; nothing was changed",
                                   index, reason.empty() ? "" : " (" + reason + ")"));
  }
}

// "Track00000042.gpx" -> 42: the names the library gives new track files.
std::optional<int32_t> generatedNumber(const std::string& filename) {
  constexpr std::string_view kPrefix = "Track", kSuffix = ".gpx";
  if (filename.size() <= kPrefix.size() + kSuffix.size() || !filename.starts_with(kPrefix) ||
      !filename.ends_with(kSuffix)) {
    return std::nullopt;
  }
  const std::string digits =
      filename.substr(kPrefix.size(), filename.size() - kPrefix.size() - kSuffix.size());
  if (digits.size() > 9 || digits.find_first_not_of("0123456789") != std::string::npos) {
    return std::nullopt;
  }
  return static_cast<int32_t>(std::stol(digits));
}

// An index can hold a track counter behind the file names in use (earlier
// builds of the library wrote 0 when saving during shutdown). New tracks would
// then get the file names of existing ones and overwrite them; so the counter
// starts behind every generated name in the index and in the folder.
void repairTrackCounter(TrackLibrary& library) {
  int32_t next = library.trackCounter();
  const auto consider = [&](const std::string& filename) {
    if (const auto number = generatedNumber(filename)) next = std::max(next, *number + 1);
  };
  for (const auto& track : library.allTracks()) consider(track->filename().value_or(""));
  std::error_code error;
  for (const auto& entry : fs::directory_iterator(library.folder(), error)) {
    consider(entry.path().filename().string());
  }
  library.setTrackCounter(next);
}

}  // namespace

LibrarySession::LibrarySession(const std::string& folderOption, bool noWait) {
  const std::string folder = chooseFolder(folderOption);
  lock_.emplace(folder, noWait);
  checkIndex(folder);
  repairTrackCounter(*TrackLibrary::singleton());  // the first use reads the index
}

LibrarySession::~LibrarySession() {
  if (TrackLibrary::current()) TrackLibrary::releaseSingleton();
}

void LibrarySession::save() {
  LogCapture capture;
  if (!TrackLibrary::singleton()->syncToDisk()) {
    const std::string reason = relevantLogLine(capture, {"Error writing file", "cannot"});
    throw CommandError("could not save the library: " +
                       (reason.empty() ? std::string("a file could not be written") : reason));
  }
}

}  // namespace wayfolio
