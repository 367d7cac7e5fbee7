// wayfolio geotag and photos.
#include "tools/wayfolio/PhotoCommands.h"

#include "kvtrack/library/TrackLibrary.h"
#include "kvtrack/photos/ExifTool.h"
#include "kvtrack/photos/ExifWriter.h"
#include "kvtrack/photos/PhotoMatching.h"
#include "kvtrack/photos/TrackPhotoFiles.h"
#include "kvtrack/support/FileHandling.h"
#include "tools/wayfolio/DamagedTracks.h"
#include "tools/wayfolio/LibraryNames.h"
#include "tools/wayfolio/PhotoWriting.h"
#include "tools/wayfolio/TextTable.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <deque>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <sstream>
#include <thread>

namespace wayfolio {

namespace fs = std::filesystem;
using namespace kvtrack;

namespace {

// Matching goes in slices of at least this many photos; each slice is
// still read ahead in parallel.
constexpr size_t kSlice = 16;

struct GeotagOptions {
  std::vector<std::string> inputs;
  std::string track;
  int32_t maxDiff = 120;
  bool outside = false;
  std::string write;
  bool dryRun = false;
};

bool isHidden(const fs::path& path) { return path.filename().string().starts_with('.'); }

// Named files as given; folders walked recursively for photo files, without
// hidden entries, in path order. A file named twice is matched once.
std::vector<std::string> collectPhotos(const std::vector<std::string>& inputs) {
  std::vector<std::string> files;
  std::set<std::string> seen;
  const auto add = [&](const std::string& path) {
    if (seen.insert(path).second) files.push_back(path);
  };
  for (const auto& input : inputs) {
    std::error_code error;
    if (!fs::is_directory(input, error)) {
      add(fs::absolute(input, error).lexically_normal().string());
      continue;
    }
    std::vector<std::string> found;
    for (auto it = fs::recursive_directory_iterator(
             fs::absolute(input, error), fs::directory_options::skip_permission_denied, error);
         !error && it != fs::recursive_directory_iterator(); it.increment(error)) {
      if (isHidden(it->path())) {
        if (it->is_directory(error)) it.disable_recursion_pending();
        continue;
      }
      if (it->is_regular_file(error) && ExifTool::isPhotoExtension(it->path().string())) {
        found.push_back(it->path().lexically_normal().string());
      }
    }
    std::sort(found.begin(), found.end());
    for (const auto& path : found) add(path);
  }
  return files;
}

void requireExiftool() {
  std::string version;
  const std::string command = FileHandling::filenameForShell(ExifTool::exiftoolPath()) + " -ver";
  if (ExifTool::execute(command, &version) != 0) {
    throw CommandError(fmt::format(
        "exiftool cannot be run ('{}'): install it (Debian: libimage-exiftool-perl) or set "
        "exiftoolPath in the settings",
        ExifTool::exiftoolPath()));
  }
}

bool spans(const Track& track, const std::vector<ISODate>& localTimes) {
  const auto& start = track.startTime();
  const auto& end = track.endTime();
  if (!start || !end) return false;
  return std::any_of(localTimes.begin(), localTimes.end(), [&](const ISODate& local) {
    const ISODate time = local.convertLocalTimeToUTC(start->timezoneOffset());
    return time.compare(*start) >= 0 && time.compare(*end) <= 0;
  });
}

// A dry run matches on copies of the tracks, so the library stays as it
// was; copy → original for the summary.
class Scratch {
 public:
  TrackPtr copyOf(const TrackPtr& track) {
    TrackPtr copy = track->copy();
    copy->setName(track->name());
    originals_[copy.get()] = track;
    return copy;
  }
  const Track& original(const Track& track) const {
    const auto it = originals_.find(&track);
    return it == originals_.end() ? track : *it->second;
  }
  // Only tracks whose span can take a photo are copied: a copy loads the track.
  std::vector<TrackPtr> candidates(const TrackLibrary& library,
                                   const std::vector<std::string>& files) {
    std::vector<ISODate> times;
    for (const auto& path : files) {
      if (auto time = ExifTool::isoDateForFile(path, 0, true)) times.push_back(*time);
    }
    std::vector<TrackPtr> copies;
    for (const auto& track : library.allTracks()) {
      if (spans(*track, times)) copies.push_back(copyOf(track));
    }
    return copies;
  }

 private:
  std::map<const Track*, TrackPtr> originals_;
};

struct Matching {
  FoundPhotos found;
  size_t noTrack = 0;
  size_t noTime = 0;
};

// The given files as attached on the given tracks, in the files' order.
std::vector<Attached> attachedOn(const std::map<TrackPtr, std::set<std::string>>& wanted,
                                 const std::vector<std::string>& files) {
  std::map<std::string, Attached> byPath;
  for (const auto& [track, paths] : wanted) {
    std::lock_guard<Track> lock(*track);
    for (const auto& point : track->trackPoints()) {
      for (const auto& photo : point->trackPhotos()) {
        const std::string& path = photo->originalFilepath();
        if (paths.contains(path) && !byPath.contains(path)) {
          byPath[path] = {photo, point->latitude(), point->longitude(), point->elevation()};
        }
      }
    }
  }
  std::vector<Attached> ordered;
  for (const auto& path : files) {
    if (auto it = byPath.find(path); it != byPath.end()) ordered.push_back(it->second);
  }
  return ordered;
}

// Matches in slices, so the progress display moves and each slice's photos
// can be written while the next slice is matched.
Matching match(TrackLibrary& library, const TrackPtr& target, const GeotagOptions& options,
               const std::vector<std::string>& files, Scratch& scratch, PhotoWriting* writing) {
  Matching result;
  const auto noTrack = [&result] { ++result.noTrack; };
  std::vector<TrackPtr> tracks;
  TrackPtr track;
  if (!target && options.dryRun) tracks = scratch.candidates(library, files);
  if (target) track = options.dryRun ? scratch.copyOf(target) : target;
  const size_t sliceSize = std::max(kSlice, files.size() / 64);
  {
    Progress progress;
    for (size_t first = 0; first < files.size(); first += sliceSize) {
      progress.show("Matching", first + 1, files.size(), files[first]);
      const std::vector<std::string> slice(
          files.begin() + static_cast<std::ptrdiff_t>(first),
          files.begin() + static_cast<std::ptrdiff_t>(std::min(files.size(), first + sliceSize)));
      std::map<TrackPtr, std::set<std::string>> wanted;
      if (!track) {
        if (options.dryRun) {
          importPhotosToTracks(tracks, slice, &result.found, nullptr, noTrack);
        } else {
          importPhotosToAllTracks(library, slice, &result.found, nullptr, noTrack);
        }
      } else if (options.outside) {
        addPhotosToBeginningOrEndOfTrack(*track, slice);
        wanted[track].insert(slice.begin(), slice.end());
      } else {
        importPhotos(*track, slice, options.maxDiff, &result.found);
      }
      for (const auto& path : slice) {
        if (auto it = result.found.find(path); it != result.found.end() && it->second) {
          wanted[it->second].insert(path);
        }
      }
      if (!writing && !options.outside) continue;
      std::vector<Attached> attached = attachedOn(wanted, slice);
      if (options.outside) {
        for (const auto& entry : attached) result.found[entry.photo->originalFilepath()] = track;
      }
      if (writing) writing->add(std::move(attached));
    }
  }
  if (!track) {
    result.noTime = files.size() - result.found.size() - result.noTrack;
    return result;
  }
  for (const auto& path : files) {  // one track: tell the two kinds of misses apart
    if (result.found.contains(path)) continue;
    ++(ExifTool::isoDateForFile(path, 0, true) ? result.noTrack : result.noTime);
  }
  return result;
}

std::string summary(const Matching& matching, const std::vector<std::string>& files,
                    const Scratch& scratch) {
  std::vector<std::pair<const Track*, size_t>> perTrack;  // in the order of the files
  for (const auto& path : files) {
    const auto it = matching.found.find(path);
    if (it == matching.found.end() || !it->second) continue;
    const Track* track = &scratch.original(*it->second);
    auto at = std::find_if(perTrack.begin(), perTrack.end(),
                           [track](const auto& entry) { return entry.first == track; });
    if (at == perTrack.end()) at = perTrack.insert(perTrack.end(), {track, 0});
    ++at->second;
  }
  std::string text = fmt::format("Attached {} photos", matching.found.size());
  for (size_t i = 0; i < perTrack.size(); ++i) {
    text += fmt::format("{}{} to {}", i == 0 ? ": " : ", ", perTrack[i].second,
                        trackPath(*perTrack[i].first));
  }
  return text + fmt::format("; {} with no track found; {} without a capture time\n",
                            matching.noTrack, matching.noTime);
}

Outcome runGeotag(const GeotagOptions& options) {
  const WriteChoice choice = options.write.empty() ? WriteChoice{} : parseWrite(options.write);
  requireExiftool();
  auto library = TrackLibrary::singleton();
  const TrackPtr target = options.track.empty() ? nullptr : findTrack(*library, options.track);

  std::vector<std::string> files, missing;
  for (auto& path : collectPhotos(options.inputs)) {
    std::error_code error;
    (fs::is_regular_file(path, error) ? files : missing).push_back(std::move(path));
  }

  Scratch scratch;
  std::optional<PhotoWriting> writing;
  if (choice.any()) writing.emplace(choice, options.dryRun);
  if (choice.places) writing->fillPlacesFrom(std::make_shared<PhotoPlaces>());
  const Matching matching =
      match(*library, target, options, files, scratch, writing ? &*writing : nullptr);
  std::string report = summary(matching, files, scratch);
  for (const auto& path : missing) report += fmt::format("  not found: {}\n", path);

  std::vector<std::string> failed;
  if (writing) failed = writing->finish(options.dryRun);
  std::fflush(stdout);

  Outcome outcome = libraryChanged(!options.dryRun && !matching.found.empty(), std::move(report));
  if (!missing.empty()) {
    outcome.failure = fmt::format("{} of {} photos not found", missing.size(),
                                  missing.size() + files.size());
  } else if (!failed.empty()) {
    outcome.failure = fmt::format("{} photos could not be written (-v shows exiftool's lines)",
                                  failed.size());
  }
  return outcome;
}

std::string placeText(const TrackPhoto& photo) {
  std::string text;
  for (const auto* part : {&photo.place(), &photo.city(), &photo.state(), &photo.country()}) {
    if (!*part || (*part)->empty()) continue;
    if (!text.empty()) text += ", ";
    text += **part;
  }
  if (const auto& code = photo.isoCountryCode(); code && !code->empty()) {
    text += (text.empty() ? "(" : " (") + *code + ")";
  }
  return text.empty() ? "-" : text;
}

Outcome listPhotos(const std::string& text) {
  const auto library = TrackLibrary::singleton();
  const TrackPtr track = findTrack(*library, text);
  using Align = TextTable::Align;
  TextTable table({{"FILE", Align::kLeft},
                   {"TIME", Align::kLeft},
                   {"LATITUDE", Align::kRight},
                   {"LONGITUDE", Align::kRight},
                   {"PLACE", Align::kLeft}});
  {
    std::lock_guard<Track> lock(*track);
    for (const auto& point : track->trackPoints()) {
      for (const auto& photo : point->trackPhotos()) {
        const auto& time = photo->storedTimeOfPhoto();  // a listing never runs exiftool
        // The file where it is found now: moved photos resolve to their copies.
        table.addRow({TrackPhotos::filepath(*photo), time ? time->description() : "-",
                      fmt::format("{:.6f}", point->latitude()),
                      fmt::format("{:.6f}", point->longitude()), placeText(*photo)});
      }
    }
  }
  std::fputs(table.render().c_str(), stdout);
  Outcome outcome;
  if (const auto message = damageMessage(*track)) outcome.failure = *message + "; shown is what could be read";
  return outcome;
}

}  // namespace

void addPhotoCommands(CLI::App& app, Invocation& invocation) {
  auto options = std::make_shared<GeotagOptions>();
  CLI::App* geotag = app.add_subcommand(
      "geotag", "Attach photos to the tracks they were taken on, and write positions into them");
  geotag->add_option("photos", options->inputs, "Photos and folders of them (recursively)")
      ->required();
  CLI::Option* track =
      geotag->add_option("--track", options->track, "Attach to this track only (path or name)");
  geotag->add_option("--max-diff", options->maxDiff,
                     "With --track: seconds a photo may lie from its nearest point (0: no limit)")
      ->default_val(120)
      ->needs(track);
  geotag->add_flag("--outside", options->outside,
                   "With --track: photos taken before or after it get new points at its ends")
      ->needs(track);
  geotag->add_option("--write", options->write,
                     "What to write into the attached photos: gps,places,keywords,times "
                     "(keywords include places); without it no photo changes");
  geotag->add_flag("--dry-run", options->dryRun,
                   "Show the exiftool command lines; change neither photos nor library");
  geotag->callback([&invocation, options] {
    invocation.changesLibrary = true;
    invocation.action = [options] { return runGeotag(*options); };
  });

  auto listed = std::make_shared<std::string>();
  CLI::App* photos = app.add_subcommand("photos", "List the photos of one track");
  photos->add_option("track", *listed, "Track path or name")->required();
  photos->callback([&invocation, listed] {
    invocation.action = [listed] { return listPhotos(*listed); };
  });
}

}  // namespace wayfolio
