#include "kvtrack/photos/ExifWriter.h"

#include "kvtrack/photos/ExifTool.h"
#include "kvtrack/photos/TrackPhotoFiles.h"
#include "kvtrack/support/ChildProcess.h"
#include "kvtrack/support/FileHandling.h"
#include "kvtrack/support/KvPreferences.h"
#include "kvtrack/support/Log.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <set>

namespace kvtrack {

namespace fs = std::filesystem;

namespace {

// One fixed temporary file per process: writes through it take turns.
std::mutex temporaryFileMutex;

bool present(const std::optional<std::string>& value) { return value && !value->empty(); }

// An argument in double quotes, the value escaped for them.
std::string quoted(std::string_view templ, std::string_view value = {}) {
  return "\"" + std::string(templ) + FileHandling::stringForShell(value) + "\"";
}

// Latitude reference, latitude, longitude reference, longitude, altitude
// reference, altitude; all empty without GPSLocation. Exactly 0 counts as
// south and west, and an elevation of 0 writes no altitude at all.
std::array<std::string, 6> positionParts(bool GPSLocation, double latitude, double longitude,
                                         double elevation) {
  std::array<std::string, 6> parts;
  if (!GPSLocation) return parts;
  const bool north = latitude > 0;
  parts[0] = north ? "\"-GPSLatitudeRef=N\"" : "\"-GPSLatitudeRef=S\"";
  parts[1] = fmt::format("\"-GPSLatitude={:f}{}\"", std::fabs(latitude), north ? 'N' : 'S');
  const bool east = longitude > 0;
  parts[2] = east ? "\"-GPSLongitudeRef=E\"" : "\"-GPSLongitudeRef=W\"";
  parts[3] = fmt::format("\"-GPSLongitude={:f}{}\"", std::fabs(longitude), east ? 'E' : 'W');
  if (std::isfinite(elevation) && elevation != 0) {  // NaN: the point has no elevation
    parts[4] = fmt::format("\"-GPSAltitudeRef={}\"",
                           elevation > 0 ? "Above Sea Level" : "Below Sea Level");
    parts[5] = fmt::format("\"-GPSAltitude={}\"", static_cast<long long>(std::fabs(elevation)));
  }
  return parts;
}

struct PlaceField {
  std::optional<std::string> value;
  std::array<const char*, 4> templates;
  bool keywords;  // the country code never becomes a keyword
};

// Set or clear templates for every field; each quoted argument is followed
// by one blank. Keywords are removed before they are added, so writing
// twice never doubles one.
std::string placeBlock(const TrackPhoto& photo, bool locationInformation, bool addKeywords) {
  if (!locationInformation) return {};
  const PlaceField fields[] = {
      {photo.city(),
       {"-IPTC:City=", "-XMP:City=", "-XMP-iptcExt:LocationCreatedCity=",
        "-XMP-iptcExt:LocationShownCity="},
       true},
      {photo.state(),
       {"-IPTC:Province-State=", "-XMP:State=", "-XMP-iptcExt:LocationCreatedProvinceState=",
        "-XMP-iptcExt:LocationShownProvinceState="},
       true},
      {photo.country(),
       {"-IPTC:Country-PrimaryLocationName=", "-XMP:Country=",
        "-XMP-iptcExt:LocationCreatedCountryName=", "-XMP-iptcExt:LocationShownCountryName="},
       true},
      {TrackPhotos::isoCountryCodeWith3Chars(photo),
       {"-IPTC:Country-PrimaryLocationCode=", "-XMP-iptcCore:CountryCode=",
        "-XMP-iptcExt:LocationCreatedCountryCode=", "-XMP-iptcExt:LocationShownCountryCode="},
       false},
      {photo.place(),
       {"-IPTC:Sub-Location=", "-XMP-iptcCore:Location=",
        "-XMP-iptcExt:LocationCreatedSublocation=", "-XMP-iptcExt:LocationShownSublocation="},
       true},
  };
  std::string block;
  for (const PlaceField& field : fields) {
    const std::string value = present(field.value) ? *field.value : std::string();
    for (const char* templ : field.templates) block += quoted(templ, value) + " ";
    if (value.empty() || !field.keywords || !addKeywords) continue;
    for (const char* templ :
         {"-keywords-=", "-keywords+=", "-XMP-dc:Subject-=", "-XMP-dc:Subject+="}) {
      block += quoted(templ, value) + " ";
    }
  }
  return block;
}

// The four date tags; empty without timeStamps, and empty for a photo with
// no time (writing nothing beats erasing the dates).
std::string timeStampBlock(TrackPhoto& photo, bool timeStamps) {
  if (!timeStamps) return {};
  const auto& time = photo.timeOfPhoto();
  if (!time) return {};
  const std::string value = time->descriptionForExiftool();
  return quoted("-DateTimeOriginal=", value) + " " + quoted("-CreateDate=", value) + " " +
         quoted("-ModifyDate=", value) + " " + quoted("-DateTimeDigitized=", value);
}

std::string exiftoolWord() { return FileHandling::filenameForShell(ExifTool::exiftoolPath()); }

// TMPDIR counts only when it is a folder of ours that nobody else may write.
bool isPrivateFolder(const std::string& folder) {
  struct stat info {};
  return ::stat(folder.c_str(), &info) == 0 && S_ISDIR(info.st_mode) &&
         info.st_uid == ::geteuid() && (info.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

std::optional<std::string> readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return std::nullopt;
  std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  if (in.bad()) return std::nullopt;
  return bytes;
}

bool writeAll(int fd, const std::string& bytes) {
  size_t done = 0;
  while (done < bytes.size()) {
    const ssize_t n = ::write(fd, bytes.data() + done, bytes.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += static_cast<size_t>(n);
  }
  return true;
}

// New bytes for the file: written beside it and renamed over it, so an
// interrupted write leaves the old file or the new one, never a mixture.
// No fsync, as exiftool's own -overwrite_original: it would cost more than
// the rest of our work per photo, and file systems flush a file renamed
// over another before the rename (ext4 auto_da_alloc, XFS, btrfs).
// A link keeps pointing at the photo: its target is replaced.
bool replaceAtomically(const std::string& file, const std::string& bytes, mode_t mode) {
  const fs::path target(FileHandling::resolveAlias(file));
  std::string name = (target.parent_path() / ".wayfolio-exif-XXXXXX").string();
  const int fd = ::mkstemp(name.data());
  if (fd < 0) return false;
  const bool ok = writeAll(fd, bytes) && ::fchmod(fd, mode & 07777) == 0;
  if (::close(fd) != 0 || !ok || ::rename(name.c_str(), target.c_str()) != 0) {
    ::unlink(name.c_str());
    return false;
  }
  return true;
}

// Place block, the six position parts and the time stamps, as they stand
// between the options and the file on every command line.
std::string argumentsFor(TrackPhoto& photo, bool GPSLocation, bool locationInformation,
                         bool addKeywords, bool timeStamps, double latitude, double longitude,
                         double elevation) {
  const auto p = positionParts(GPSLocation, latitude, longitude, elevation);
  return fmt::format("{} {} {} {} {} {} {} {}", placeBlock(photo, locationInformation, addKeywords),
                     p[0], p[1], p[2], p[3], p[4], p[5], timeStampBlock(photo, timeStamps));
}

// Batches write through copies of their own, numbered across the process
// so that batches never share one.
std::atomic<unsigned long> nextBatchCopy{1};

// exiftool's copy written beside the photo (the link's target) takes the
// photo's place by a rename, as exiftool's own -overwrite_original does:
// no second copy of the bytes.
bool moveOver(const std::string& copy, const std::string& file, mode_t mode) {
  const std::string target = FileHandling::resolveAlias(file);
  struct stat info {};
  if (::lstat(copy.c_str(), &info) != 0 || !S_ISREG(info.st_mode)) return false;  // not a link
  return ::chmod(copy.c_str(), mode & 07777) == 0 && ::rename(copy.c_str(), target.c_str()) == 0;
}

// A name beside the photo's target that nothing has yet. exiftool -o
// refuses a name that exists, so nobody can point it elsewhere; the dot
// keeps it out of folder walks.
std::string copyBeside(const std::string& file) {
  const fs::path target(FileHandling::resolveAlias(file));
  return (target.parent_path() / fmt::format(".wayfolio-exif-{}-{}.img", ::getpid(), nextBatchCopy++))
      .string();
}

// Copies left by a run that was killed between exiftool's write and the
// rename: the photo beside them is whole, the copy is garbage. Only copies
// of processes that no longer run are removed; a running one may still
// rename its copy.
void removeStaleCopies(const fs::path& folder) {
  std::error_code error;
  for (const auto& entry : fs::directory_iterator(folder, error)) {
    const std::string name = entry.path().filename().string();
    int pid = 0;
    unsigned long number = 0;
    int length = 0;
    if (std::sscanf(name.c_str(), ".wayfolio-exif-%d-%lu.img%n", &pid, &number, &length) != 2 ||
        static_cast<size_t>(length) != name.size() || pid <= 0 || pid == ::getpid()) {
      continue;
    }
    if (!processIsRunning(pid)) fs::remove(entry.path(), error);
  }
}

}  // namespace

std::string ExifWriter::temporaryFile() {
  std::string folder;
  if (const char* value = std::getenv("TMPDIR"); value && *value && isPrivateFolder(value)) {
    folder = value;
  } else {
    folder = FileHandling::singleton().sandbox();
    if (folder.empty()) return {};
  }
  // The name is appended directly; Linux values of TMPDIR seldom end in "/".
  if (folder.back() != '/') folder += '/';
  return folder + "exiftool.img";
}

int ExifWriter::run(const std::string& commandLine) {
  commandLines_.push_back(commandLine);
  if (dryRun_) return 0;
  std::string report;  // "1 image files created": not for our caller's output
  return ExifTool::execute(commandLine, &report);
}

std::string ExifWriter::copyCommand(const std::string& arguments, const std::string& file,
                                    const std::string& temporary) {
  return fmt::format("{} -m -codedcharacterset=UTF8 {} {} -o {}", exiftoolWord(), arguments,
                     FileHandling::filenameForShell(file), FileHandling::filenameForShell(temporary));
}

bool ExifWriter::writeThroughCopy(const std::string& arguments, const std::string& file,
                                  bool restoreTimes) {
  std::lock_guard lock(temporaryFileMutex);
  const std::string temporary = temporaryFile();
  if (temporary.empty()) {
    logf("Error writing file {}", file);  // no private folder for the copy
    ++failed_;
    return false;
  }
  std::error_code ignored;
  if (!dryRun_) fs::remove(temporary, ignored);  // exiftool -o never overwrites
  const int status = run(copyCommand(arguments, file, temporary));
  if (dryRun_) return true;
  return replaceFromCopy(status, temporary, file, restoreTimes, false);
}

bool ExifWriter::replaceFromCopy(int status, const std::string& temporary, const std::string& file,
                                 bool restoreTimes, bool beside) {
  std::error_code ignored;
  std::optional<std::string> bytes;
  if (status == 0) bytes = beside ? std::optional<std::string>("") : readFile(temporary);
  if (!bytes || (beside && !fs::exists(temporary, ignored))) {
    fs::remove(temporary, ignored);  // exiftool could not write it: the photo stays as it was
    ++failed_;
    return false;
  }
  struct stat before {};
  const bool haveAttributes = ::stat(file.c_str(), &before) == 0;
  const bool replaced =
      haveAttributes && (beside ? moveOver(temporary, file, before.st_mode)
                                : replaceAtomically(file, *bytes, before.st_mode));
  fs::remove(temporary, ignored);  // photo data do not linger in the temporary folder
  if (!replaced) {
    logf("Error writing file {}", file);
    ++failed_;
    return false;
  }
  logf("File {} copied successfully.", file);
  if (restoreTimes) {
    const struct timespec times[2] = {before.st_atim, before.st_mtim};
    if (::utimensat(AT_FDCWD, file.c_str(), times, 0) != 0) {
      logLine("Cannot set creation date of new file.");
    }
  }
  ++written_;
  return true;
}

void ExifWriter::updateExifForGPSLocation(TrackPhoto& photo, bool GPSLocation,
                                          bool locationInformation, bool addKeywords,
                                          bool timeStamps) {
  TrackPhotos::startAccessingSecurityScopedResource(photo);
  updateExifForGPSLocation(photo, GPSLocation, locationInformation, addKeywords, timeStamps,
                           TrackPhotos::filepath(photo), true);
  TrackPhotos::stopAccessingSecurityScopedResource(photo);
}

void ExifWriter::updateExifForGPSLocation(TrackPhoto& photo, bool GPSLocation,
                                          bool locationInformation, bool addKeywords,
                                          bool timeStamps, double latitude, double longitude,
                                          double elevation) {
  TrackPhotos::startAccessingSecurityScopedResource(photo);
  updateExifForGPSLocation(photo, GPSLocation, locationInformation, addKeywords, timeStamps,
                           TrackPhotos::filepath(photo), true, latitude, longitude, elevation);
  TrackPhotos::stopAccessingSecurityScopedResource(photo);
}

void ExifWriter::updateExifForGPSLocation(TrackPhoto& photo, bool GPSLocation,
                                          bool locationInformation, bool addKeywords,
                                          bool timeStamps, const std::string& filepath,
                                          bool withActionlist) {
  const TrackPoint* point = photo.trackPoint();
  if (!point) return;  // no position to write
  updateExifForGPSLocation(photo, GPSLocation, locationInformation, addKeywords, timeStamps,
                           filepath, withActionlist, point->latitude(), point->longitude(),
                           point->elevation());
}

void ExifWriter::updateExifForGPSLocation(TrackPhoto& photo, bool GPSLocation,
                                          bool locationInformation, bool addKeywords,
                                          bool timeStamps, const std::string& filepath,
                                          bool /*withActionlist*/, double latitude,
                                          double longitude, double elevation) {
  std::error_code error;
  if (filepath.empty() || !fs::exists(filepath, error)) return;
  const std::string arguments = argumentsFor(photo, GPSLocation, locationInformation, addKeywords,
                                             timeStamps, latitude, longitude, elevation);

  if (ExifTool::canWriteToFile(filepath)) {
    writeThroughCopy(arguments, filepath, true);
  } else {
    // Formats exiftool does not write here get a side file beside them. No
    // file coordination exists here for sandboxed hosts: the command runs directly.
    const std::string sideFile =
        FileHandling::filenameForShell(fs::path(filepath).replace_extension(".xmp").string());
    const std::string command =
        KvPreferences::singleton().rawFileMode().value_or(0) == 2
            ? fmt::format("{} -m -codedcharacterset=UTF8 -overwrite_original_in_place {} {}",
                          exiftoolWord(), arguments, sideFile)
            : fmt::format(
                  "{} -tagsfromfile {} -m -codedcharacterset=UTF8 -overwrite_original_in_place {} {}",
                  exiftoolWord(), FileHandling::filenameForShell(filepath), arguments, sideFile);
    run(command);  // side-file commands report nothing
    if (!dryRun_) ++written_;
  }

  if (const auto other = TrackPhotos::iPhotoOtherFilepath(photo)) {
    if (!dryRun_) logf("Processing other iPhoto file: {}", *other);
    writeThroughCopy(arguments, *other, false);
  }
}

std::vector<std::string> ExifWriter::updateExifForGPSLocation(const std::vector<PhotoAtPosition>& photos,
                                                             bool GPSLocation, bool locationInformation,
                                                             bool addKeywords, bool timeStamps) {
  struct Copy {
    const PhotoAtPosition* entry;
    std::string file, temporary;
  };
  std::vector<Copy> copies;
  std::vector<std::string> commands, failedPaths;
  std::set<fs::path> swept;  // folders cleared of stale copies
  for (const PhotoAtPosition& entry : photos) {
    TrackPhoto& photo = *entry.photo;
    TrackPhotos::startAccessingSecurityScopedResource(photo);
    std::string file = TrackPhotos::filepath(photo);
    std::error_code error;
    // Side files, other renditions and dry runs take the one-photo path.
    if (dryRun_ || file.empty() || !fs::exists(file, error) ||
        !ExifTool::canWriteToFile(file) || TrackPhotos::iPhotoOtherFilepath(photo)) {
      const size_t failedBefore = failed_;
      updateExifForGPSLocation(photo, GPSLocation, locationInformation, addKeywords, timeStamps, file,
                               true, entry.latitude, entry.longitude, entry.elevation);
      if (failed_ > failedBefore) failedPaths.push_back(photo.originalFilepath());
      continue;
    }
    const fs::path folder = fs::path(FileHandling::resolveAlias(file)).parent_path();
    if (swept.insert(folder).second) removeStaleCopies(folder);
    std::string temporary = copyBeside(file);
    commands.push_back(copyCommand(argumentsFor(photo, GPSLocation, locationInformation, addKeywords,
                                                timeStamps, entry.latitude, entry.longitude,
                                                entry.elevation),
                                   file, temporary));
    copies.push_back({&entry, std::move(file), std::move(temporary)});
  }
  commandLines_.insert(commandLines_.end(), commands.begin(), commands.end());
  std::vector<std::string> reports;  // "1 image files created": not for our caller's output
  const std::vector<int> statuses = ExifTool::executeBatch(commands, &reports);
  for (size_t i = 0; i < copies.size(); ++i) {
    if (!replaceFromCopy(statuses[i], copies[i].temporary, copies[i].file, true, true)) {
      failedPaths.push_back(copies[i].entry->photo->originalFilepath());
    }
  }
  for (const PhotoAtPosition& entry : photos) TrackPhotos::stopAccessingSecurityScopedResource(*entry.photo);
  return failedPaths;
}

void ExifWriter::updateExifForGPSLocation(Track& track, bool GPSLocation,
                                          bool locationInformation, bool addKeywords,
                                          bool timeStamps) {
  track.loadFromLibrary();
  std::lock_guard<Track> lock(track);
  for (const auto& point : track.trackPoints()) {
    updateExifForGPSLocation(*point, GPSLocation, locationInformation, addKeywords, timeStamps);
  }
}

void ExifWriter::updateExifForGPSLocation(TrackPoint& point, bool GPSLocation,
                                          bool locationInformation, bool addKeywords,
                                          bool timeStamps) {
  const std::vector<TrackPhotoPtr> photos = point.trackPhotos();  // a copy: writing may relocate
  for (const auto& photo : photos) {
    updateExifForGPSLocation(*photo, GPSLocation, locationInformation, addKeywords, timeStamps);
  }
}

}  // namespace kvtrack
