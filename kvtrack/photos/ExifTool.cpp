#include "kvtrack/photos/ExifTool.h"

#include "kvtrack/photos/ExifToolSession.h"
#include "kvtrack/photos/ShellWords.h"
#include "kvtrack/support/ExternalProgram.h"
#include "kvtrack/support/FileHandling.h"
#include "kvtrack/support/KvPreferences.h"
#include "kvtrack/support/Log.h"
#include "kvtrack/support/SettingsFile.h"

#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <charconv>
#include <cstdio>
#include <filesystem>
#include <set>
#include <string_view>
#include <thread>

namespace kvtrack {

namespace {

// -1: no choice made in this process; the preference (default on) decides.
std::atomic<int> sessionsChoice{-1};

std::string_view trim(std::string_view text) {
  constexpr std::string_view blanks = " \t\n\r\v\f";
  const size_t first = text.find_first_not_of(blanks);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

// The leading number of a text, as a lenient "doubleValue" reads it; 0 when
// there is none.
double leadingNumber(std::string_view text) {
  text = trim(text);
  if (!text.empty() && text.front() == '+') text.remove_prefix(1);
  double value = 0;
  std::from_chars(text.data(), text.data() + text.size(), value);
  return value;
}

int leadingInteger(std::string_view text) {
  text = trim(text);
  if (!text.empty() && text.front() == '+') text.remove_prefix(1);
  int value = 0;
  std::from_chars(text.data(), text.data() + text.size(), value);
  return value;
}

std::string lowerExtension(const std::string& path) {
  std::string extension = std::filesystem::path(path).extension().string();
  if (!extension.empty()) extension.erase(0, 1);
  std::transform(extension.begin(), extension.end(), extension.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return extension;
}

constexpr std::array<std::string_view, 5> kAlwaysWritable = {"jpg", "jp2", "jpx", "jpeg", "xmp"};
constexpr std::array<std::string_view, 47> kPhotoExtensions = {
    "jpg", "jp2", "jpx", "jpeg", "xmp", "ai",   "arw", "cr2", "ciff", "cs1", "dcp", "dng",
    "eps", "epsf", "ps", "erf",  "exif", "gif", "hdp", "wdp", "mef",  "mie", "mos", "mpo",
    "mrw", "nef", "nrw", "orf",  "pdf",  "pef", "png", "jng", "mng",  "ppm", "pbm", "pgm",
    "psd", "raf", "rw2", "rwl",  "sr2",  "srw", "thm", "tiff", "tif", "vrd", "raw"};

template <size_t N>
bool contains(const std::array<std::string_view, N>& list, std::string_view value) {
  return std::find(list.begin(), list.end(), value) != list.end();
}

std::optional<std::string> firstPresent(const ExifTool::Tags& tags,
                                        std::initializer_list<const char*> names) {
  for (const char* name : names) {
    if (auto it = tags.find(name); it != tags.end()) return it->second;
  }
  return std::nullopt;
}

// Lines "Tag Name   : value", read in pieces of at most 1023 bytes like a
// line reader with a 1024-byte buffer would; later tags overwrite earlier.
ExifTool::Tags parseTags(std::string_view text) {
  ExifTool::Tags tags;
  size_t position = 0;
  while (position < text.size()) {
    const size_t newline = text.find('\n', position);
    size_t end = newline == std::string_view::npos ? text.size() : newline + 1;
    end = std::min(end, position + 1023);
    const std::string_view piece = text.substr(position, end - position);
    position = end;
    const size_t colon = piece.find(':');
    if (colon == std::string_view::npos) continue;
    tags[std::string(trim(piece.substr(0, colon)))] = std::string(trim(piece.substr(colon + 1)));
  }
  return tags;
}

// Words that are not options: the files a writing command may touch (and a
// few option values, which only makes the lock a little wider).
std::vector<std::string> pathsIn(const std::vector<std::string>& arguments) {
  std::vector<std::string> paths;
  for (const std::string& argument : arguments) {
    if (!argument.empty() && argument[0] != '-') paths.push_back(argument);
  }
  return paths;
}

void forward(std::FILE* stream, const std::string& text) {
  if (text.empty()) return;
  std::fwrite(text.data(), 1, text.size(), stream);
  std::fflush(stream);
}

}  // namespace

std::string ExifTool::exiftoolPath() {
  std::optional<std::string> path = KvPreferences::singleton().exiftoolPath();
  return path && !path->empty() ? *path : std::string("exiftool");
}

// Sessions are on unless turned off here or by the preference
// "exiftoolPersistentSessions" (table "preferences" of the settings file; it
// is read here directly, KvPreferences has no accessor for it).
void ExifTool::setPersistentSessions(bool enabled) {
  sessionsChoice = enabled ? 1 : 0;
  if (!enabled) shutdownSessions();
}

void ExifTool::resetPersistentSessions() { sessionsChoice = -1; }

bool ExifTool::persistentSessions() {
  const int choice = sessionsChoice;
  if (choice >= 0) return choice == 1;
  return SettingsFile::shared().boolean("preferences", "exiftoolPersistentSessions").value_or(true);
}

void ExifTool::shutdownSessions() { ExifToolSessionPool::shared().shutdown(); }

// Both paths log the command line once (ExternalProgram logs what it runs)
// and return exiftool's own exit status: a session reads it from exiftool's
// "${status}" echo, which is the status a process of its own would end with.
// Output the caller does not take goes to our standard output, and exiftool's
// messages to standard error, in both paths alike.
namespace {

int runThroughShell(const std::string& program, const std::string& commandLine, std::string* output) {
  int status;
  if (output) {
    ShellOutput result = runShellCommandReadingOutput(commandLine);
    *output = std::move(result.output);
    status = result.status;
  } else {
    status = runShellCommand(commandLine);
  }
  if (status == 126 || status == 127) logf("exiftool: cannot run {} (exit status {})", program, status);
  return status;
}

// The arguments of a plain exiftool call (the program word, then words the
// library quotes); nothing for any other command line.
std::optional<std::vector<std::string>> plainArguments(const std::string& program,
                                                       const std::string& commandLine) {
  std::optional<std::vector<std::string>> words = splitShellWords(commandLine);
  if (!words || words->empty() || words->front() != program) return std::nullopt;
  words->erase(words->begin());
  return words;
}

void deliver(ExifToolResult& result, std::string* output) {
  if (output) {
    *output = std::move(result.output);
  } else {
    forward(stdout, result.output);
  }
  forward(stderr, result.errors);
}

}  // namespace

int ExifTool::execute(const std::string& commandLine, std::string* output) {
  const std::string program = exiftoolPath();
  const std::optional<std::vector<std::string>> arguments = plainArguments(program, commandLine);
  std::optional<ExifToolWriteLock> writeLock;
  if (arguments && exiftoolArgumentsWrite(*arguments)) writeLock.emplace(pathsIn(*arguments));

  if (arguments && persistentSessions()) {
    std::optional<ExifToolResult> result = ExifToolSessionPool::shared().run(
        program, *arguments, [&commandLine] { logLine(commandLine); });
    if (result) {
      deliver(*result, output);
      return result->status;
    }
    // No session could run it (exiftool missing, or dying at every start):
    // one process gives the real answer.
  }
  return runThroughShell(program, commandLine, output);
}

namespace {

// Plain exiftool calls of a batch: their places in it and their arguments.
struct BatchPart {
  std::vector<size_t> lines;
  std::vector<std::vector<std::string>> arguments;
};

// Hands one part to one session; the lines it answered get their status
// and output and are marked done.
void runPart(const std::string& program, const std::vector<std::string>& commandLines,
             const BatchPart& part, std::vector<int>& statuses, std::vector<std::string>* outputs,
             std::vector<char>& done) {
  std::vector<std::string> written;
  for (const auto& arguments : part.arguments) {
    if (!exiftoolArgumentsWrite(arguments)) continue;
    for (auto& path : pathsIn(arguments)) written.push_back(std::move(path));
  }
  std::optional<ExifToolWriteLock> writeLock;
  if (!written.empty()) writeLock.emplace(written);
  std::vector<ExifToolResult> results =
      ExifToolSessionPool::shared().runBatch(program, part.arguments, [&] {
        for (size_t line : part.lines) logLine(commandLines[line]);
      });
  for (size_t i = 0; i < results.size(); ++i) {
    const size_t line = part.lines[i];
    deliver(results[i], outputs ? &(*outputs)[line] : nullptr);
    statuses[line] = results[i].status;
    done[line] = 1;
  }
}

// The plain calls cut into one part per session (contiguous, so each part
// keeps the batch's order); one part when a file is written twice, whose
// writes must then keep their order.
std::vector<BatchPart> splitBatch(const std::string& program, const std::vector<std::string>& commandLines) {
  BatchPart all;
  std::set<std::string> writtenPaths;
  bool repeated = false;
  for (size_t line = 0; line < commandLines.size(); ++line) {
    std::optional<std::vector<std::string>> arguments = plainArguments(program, commandLines[line]);
    if (!arguments) continue;
    if (exiftoolArgumentsWrite(*arguments)) {
      for (const auto& path : pathsIn(*arguments)) repeated |= !writtenPaths.insert(path).second;
    }
    all.lines.push_back(line);
    all.arguments.push_back(std::move(*arguments));
  }
  constexpr size_t kSmallestPart = 4;  // below this, a second session gains nothing
  const size_t count = all.lines.size();
  const size_t parts = repeated ? 1 : std::clamp<size_t>(count / kSmallestPart, 1,
                                                         ExifToolSessionPool::shared().capacity());
  std::vector<BatchPart> result(parts);
  for (size_t i = 0; i < count; ++i) {
    BatchPart& part = result[i * parts / count];
    part.lines.push_back(all.lines[i]);
    part.arguments.push_back(std::move(all.arguments[i]));
  }
  return result;
}

}  // namespace

std::vector<int> ExifTool::executeBatch(const std::vector<std::string>& commandLines,
                                        std::vector<std::string>* outputs) {
  std::vector<int> statuses(commandLines.size(), -1);
  if (outputs) outputs->assign(commandLines.size(), std::string());
  std::vector<char> done(commandLines.size(), 0);
  const std::string program = exiftoolPath();
  if (persistentSessions()) {
    std::vector<BatchPart> parts = splitBatch(program, commandLines);
    std::vector<std::thread> helpers;
    for (size_t p = 1; p < parts.size(); ++p) {
      helpers.emplace_back([&, p] { runPart(program, commandLines, parts[p], statuses, outputs, done); });
    }
    if (!parts.empty()) runPart(program, commandLines, parts[0], statuses, outputs, done);
    for (auto& helper : helpers) helper.join();
  }
  // Lines no session answered (or that are not plain calls) run one by one.
  for (size_t line = 0; line < commandLines.size(); ++line) {
    if (!done[line]) statuses[line] = execute(commandLines[line], outputs ? &(*outputs)[line] : nullptr);
  }
  return statuses;
}

// --- reading ------------------------------------------------------------------

namespace {

// -c '%f': coordinates as unsigned decimal degrees and a hemisphere letter.
std::string tagsCommand(const std::string& path) {
  return fmt::format("{} -c '%f' {}", FileHandling::filenameForShell(ExifTool::exiftoolPath()),
                     FileHandling::filenameForShell(path));
}

std::optional<ExifTool::Tags> tagsFromAnswer(const std::string& path, int status, const std::string& output) {
  if (status < 0) {
    logLine("exifTagsForFile: error opening pipe to exiftool!");
    return std::nullopt;
  }
  if (status != 0) logf("exifTagsForFile: exiftool ended with status {} for {}", status, path);
  return parseTags(output);
}

}  // namespace

std::optional<ExifTool::Tags> ExifTool::exifTagsForFile(const std::string& path) {
  std::string output;
  const int status = execute(tagsCommand(path), &output);
  return tagsFromAnswer(path, status, output);
}

std::vector<std::optional<ExifTool::Tags>> ExifTool::exifTagsForFiles(const std::vector<std::string>& paths) {
  std::vector<std::string> commands;
  for (const std::string& path : paths) commands.push_back(tagsCommand(path));
  std::vector<std::string> outputs;
  const std::vector<int> statuses = executeBatch(commands, &outputs);
  std::vector<std::optional<Tags>> tags(paths.size());
  for (size_t i = 0; i < paths.size(); ++i) tags[i] = tagsFromAnswer(paths[i], statuses[i], outputs[i]);
  return tags;
}

std::optional<ExifTool::Tags> ExifTool::exifTagsForFileAndXmp(const std::string& path) {
  std::optional<Tags> tags = exifTagsForFile(path);
  if (!tags) return std::nullopt;
  const std::string sidePath = std::filesystem::path(path).replace_extension(".xmp").string();
  std::error_code error;
  if (sidePath != path && std::filesystem::exists(sidePath, error)) {
    if (std::optional<Tags> side = exifTagsForFile(sidePath)) {
      for (auto& [tag, value] : *side) (*tags)[tag] = std::move(value);
    }
  }
  return tags;
}

double ExifTool::latitudeFromDictionary(const Tags& tags) {
  auto it = tags.find("GPS Latitude");
  if (it == tags.end()) return 0;
  const double value = leadingNumber(it->second);
  return it->second.ends_with("S") ? -value : value;
}

double ExifTool::longitudeFromDictionary(const Tags& tags) {
  auto it = tags.find("GPS Longitude");
  if (it == tags.end()) return 0;
  const double value = leadingNumber(it->second);
  return it->second.ends_with("W") ? -value : value;
}

// exiftool prints the reference as "Below Sea Level", which does not end in
// "Below": such altitudes stay positive, as callers have always seen them.
double ExifTool::elevationFromDictionary(const Tags& tags) {
  auto altitude = tags.find("GPS Altitude");
  auto reference = tags.find("GPS Altitude Ref");
  if (altitude == tags.end() || reference == tags.end()) return 0;
  const double value = leadingNumber(altitude->second);
  return reference->second.ends_with("Below") ? -value : value;
}

int ExifTool::rotationFromDictionary(const Tags& tags) {
  auto it = tags.find("Orientation");
  if (it == tags.end()) return 0;
  if (it->second == "Rotate 90 CW") return 90;
  if (it->second == "Rotate 270 CW") return 270;
  if (it->second == "Rotate 180") return 180;
  return 0;
}

std::optional<ISODate> ExifTool::digitizedFromDictionary(const Tags& tags,
                                                         int32_t defaultOffsetInMinutes,
                                                         bool forceTimezone) {
  std::string text;
  int32_t offset = defaultOffsetInMinutes;
  if (auto digitized = tags.find("Date/Time Digitized"); digitized != tags.end()) {
    text = digitized->second;
    if (text.size() < 19) return std::nullopt;  // no fallback to the original time
    if (!forceTimezone) {
      const std::string zoneHour = text.size() >= 22 ? text.substr(19, 3) : "+00";
      const std::string zoneMinute = text.size() >= 25 ? text.substr(23, 2) : "00";
      // The minutes are added even for a negative zone (-05:30 gives -270);
      // photos stored so far carry times made this way.
      offset = leadingInteger(zoneHour) * 60 + leadingInteger(zoneMinute);
    }
  } else if (auto original = tags.find("Date/Time Original");
             original != tags.end() && original->second.size() >= 19) {
    text = original->second;  // any zone text in it is ignored
  } else {
    return std::nullopt;
  }
  const std::string iso = fmt::format("{}-{}-{}T{}:{}:{}", text.substr(0, 4), text.substr(5, 2),
                                      text.substr(8, 2), text.substr(11, 2), text.substr(14, 2),
                                      text.substr(17, 2));
  std::optional<ISODate> wallClock = ISODate::isoDateWithString(iso);
  if (!wallClock) return std::nullopt;
  const int64_t micros = wallClock->microsecondsSince1970() - int64_t{offset} * 60 * 1000000;
  return ISODate::fromMicrosecondsSince1970(micros, offset);
}

std::optional<ISODate> ExifTool::isoDateForFile(const std::string& path, int32_t defaultOffsetInMinutes,
                                                bool forceTimezone) {
  struct stat info {};
  if (::stat(path.c_str(), &info) != 0) {
    logf("isoDateForFile: no such file {}", path);
    return std::nullopt;
  }
  if (std::optional<Tags> tags = exifTagsForFile(path)) {
    if (auto date = digitizedFromDictionary(*tags, defaultOffsetInMinutes, forceTimezone)) return date;
  }
  logLine("no EXIF tag found");
  if (::stat(path.c_str(), &info) != 0) return std::nullopt;
  return ISODate::fromMicrosecondsSince1970(int64_t{info.st_mtim.tv_sec} * 1000000 +
                                            info.st_mtim.tv_nsec / 1000);
}

std::optional<std::string> ExifTool::cityFromDictionary(const Tags& tags) {
  return firstPresent(tags, {"City", "Location Shown City", "Location Created City"});
}

std::optional<std::string> ExifTool::countryFromDictionary(const Tags& tags) {
  return firstPresent(tags, {"Country", "Country-Primary Location Name",
                             "Location Shown Country Name", "Location Created Country Name"});
}

std::optional<std::string> ExifTool::stateFromDictionary(const Tags& tags) {
  return firstPresent(tags, {"State", "Province-State", "Location Shown Province State",
                             "Location Created Province State"});
}

std::optional<std::string> ExifTool::locationFromDictionary(const Tags& tags) {
  return firstPresent(tags, {"Sub-location", "Location", "Location Shown Sublocation",
                             "Location Created Sublocation"});
}

std::optional<std::string> ExifTool::isoCountryCodeFromDictionary(const Tags& tags) {
  return firstPresent(tags, {"Country-Primary Location Code", "Country Code",
                             "Location Shown Country Code", "Location Created Country Code"});
}

bool ExifTool::isPhotoExtension(const std::string& path) {
  return contains(kPhotoExtensions, lowerExtension(path));
}

bool ExifTool::canWriteToFile(const std::string& path) {
  const std::string extension = lowerExtension(path);
  if (contains(kAlwaysWritable, extension)) return true;
  return contains(kPhotoExtensions, extension) && KvPreferences::singleton().rawFileMode() == 1;
}

// --- writing ------------------------------------------------------------------

int ExifTool::copyTagsFrom(const std::string& source, const std::string& target) {
  std::string summary;  // "1 image files updated" means nothing to our users
  return execute(fmt::format("{} -overwrite_original_in_place -tagsFromFile {} {}",
                             FileHandling::filenameForShell(exiftoolPath()),
                             FileHandling::filenameForShell(source),
                             FileHandling::filenameForShell(target)),
                 &summary);
}

}  // namespace kvtrack
