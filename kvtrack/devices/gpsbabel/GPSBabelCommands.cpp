// GPSBabel: file conversions and other single gpsbabel runs.

#include "kvtrack/devices/gpsbabel/GPSBabel.h"

#include "kvtrack/support/ExternalProgram.h"
#include "kvtrack/support/FileHandling.h"
#include "kvtrack/support/KvPreferences.h"
#include "kvtrack/support/Log.h"

#include <array>
#include <cstdint>
#include <string_view>
#include <utility>
#include <vector>

namespace kvtrack {

namespace {

std::string shellWord(const std::string& path) { return FileHandling::filenameForShell(path); }

std::string_view trimmed(std::string_view line) {
  constexpr std::string_view kBlanks = " \t\r\n\v\f";
  const size_t first = line.find_first_not_of(kBlanks);
  if (first == std::string_view::npos) return {};
  return line.substr(first, line.find_last_not_of(kBlanks) - first + 1);
}

// The non-blank output lines, trimmed; at most `limit` of them.
std::vector<std::string> outputLines(std::string_view output, size_t limit) {
  std::vector<std::string> lines;
  while (!output.empty() && lines.size() < limit) {
    const size_t end = output.find('\n');
    const std::string_view line = trimmed(output.substr(0, end));
    if (!line.empty()) lines.emplace_back(line);
    output = end == std::string_view::npos ? std::string_view() : output.substr(end + 1);
  }
  return lines;
}

void appendLine(std::string* text, const std::string& line) {
  if (!text) return;
  if (!text->empty()) *text += '\n';
  *text += line;
}

}  // namespace

Status GPSBabel::runConversion(const std::string& prefix, const std::string& commandLine,
                               const std::string& inputFile, const std::string& format) {
  logf("{} {}", prefix, commandLine);
  const ShellOutput result = runShellCommandReadingErrors(commandLine);
  const std::vector<std::string> complaints = outputLines(result.errors, SIZE_MAX);
  for (const std::string& line : complaints) logf("{} Result: {}", prefix, line);
  logf("{} exit with error code {}", prefix, result.status);
  if (result.status == 0) return {};
  std::string reason =
      fmt::format("gpsbabel could not read {} as {} (status {})", inputFile, format, result.status);
  if (result.status == 127) reason += ": gpsbabel is not installed or not on the PATH";
  // The first line names the problem; the rest is gpsbabel's usage help.
  else if (!complaints.empty()) reason += ": " + complaints.front();
  return Status::failure(reason);
}

int32_t GPSBabel::importTracksAndWaypointFromFile(const std::string& inputFile,
                                                  const std::string& gpxFile,
                                                  std::string* errorString) {
  KvPreferences& preferences = KvPreferences::singleton();
  std::string chosenFormat = preferences.gpsFileFormat().value_or("");
  if (chosenFormat.empty()) chosenFormat = "gpx";
  const auto [executable, format] = executableAndFormat(chosenFormat);
  const std::string options = preferences.gpsFileAdditionalArguments().value_or("");

  // "!" makes the options a helper command line of their own.
  const std::string command =
      options.starts_with('!')
          ? replaceTemplates(options.substr(1), inputFile, gpxFile)
          : fmt::format("{} -t -w -i {} -f {} -o gpx -F {} {} 2>&1", shellWord(executable),
                        shellWord(format), shellWord(inputFile), shellWord(gpxFile), options);
  logf("importTracksAndWaypointFromFile: {}", command);
  const ShellOutput result = runShellCommandReadingOutput(command);
  for (const std::string& line : outputLines(result.output, SIZE_MAX)) {
    appendLine(errorString, line);
    logf("importTracksAndWaypointFromFile: Result: {}", line);
  }
  logf("importTracksAndWaypointFromFile: exit with error code {}", result.status);
  return result.status;
}

int32_t GPSBabel::convertToTrackFromFile(const std::string& inputFile,
                                         const std::string& outputFile, std::string* errorString) {
  const std::string command =
      fmt::format("{} -i gpx -f {} -x transform,trk=wpt -o gpx -F {} 2>&1",
                  shellWord(gpsbabelExecutable()), shellWord(inputFile), shellWord(outputFile));
  logf("convertToTrackFromFile: {}", command);
  const ShellOutput result = runShellCommandReadingOutput(command);
  // The first line names the problem; the rest is gpsbabel's usage help.
  for (const std::string& line : outputLines(result.output, 1)) appendLine(errorString, line);
  logf("convertToTrackFromFile: exit with error code {}", result.status);
  return result.status;
}

Status GPSBabel::convertGPX(const std::string& gpxFile, const std::string& kmlFile) {
  return runConversion(
      "convertGPX:toKML:",
      fmt::format("{} -t -w -i gpx -f {} -o kml,trackdata=0,points=0 -F {}",
                  shellWord(gpsbabelExecutable()), shellWord(gpxFile), shellWord(kmlFile)),
      gpxFile, "gpx");
}

Status GPSBabel::convertKML(const std::string& kmlFile, const std::string& gpxFile) {
  return runConversion("convertKML:toGPX:",
                       fmt::format("{} -t -w -i kml -f {} -o gpx -F {}", shellWord(gpsbabelExecutable()),
                                   shellWord(kmlFile), shellWord(gpxFile)),
                       kmlFile, "kml");
}

Status GPSBabel::convertLOC(const std::string& locFile, const std::string& gpxFile) {
  return runConversion("convertLOC:toGPX:",
                       fmt::format("{} -t -w -i geo -f {} -o gpx -F {}", shellWord(gpsbabelExecutable()),
                                   shellWord(locFile), shellWord(gpxFile)),
                       locFile, "geo");
}

Status GPSBabel::convertGPI(const std::string& gpiFile, const std::string& gpxFile) {
  return runConversion("convertGPI:toGPX:",
                       fmt::format("{} -w -i garmin_gpi -f {} -o gpx -F {}", shellWord(gpsbabelExecutable()),
                                   shellWord(gpiFile), shellWord(gpxFile)),
                       gpiFile, "garmin_gpi");
}

Status GPSBabel::convert(const std::string& inputFile, const std::string& gpxFile,
                         const std::string& format) {
  // The format comes from the user, so it is one quoted word like the paths.
  return runConversion("convert:toGPX:",
                       fmt::format("{} -w -i {} -f {} -o gpx -F {}", shellWord(gpsbabelExecutable()),
                                   shellWord(format), shellWord(inputFile), shellWord(gpxFile)),
                       inputFile, format);
}

Status GPSBabel::simplifyFile(const std::string& inputFile, const std::string& outputFile,
                              uint32_t count) {
  return runConversion(
      "simplifyFile:",
      fmt::format("{} -r -i gpx -f {} -x duplicate,location -x simplify,count={} -o gpx -F {}",
                  shellWord(gpsbabelExecutable()), shellWord(inputFile), count,
                  shellWord(outputFile)),
      inputFile, "gpx");
}

std::string GPSBabel::getRealtimeTrackingString() const {
  return fmt::format("{} -T -i NMEA -f \"{}\" -o csv -F -", gpsbabelExecutable(),
                     FileHandling::stringForShell(devicePath()));
}

void GPSBabel::killAllRunningProcesses() {
  // killall comes with psmisc, which may be missing; then a download hangs on.
  const int status = runShellCommand("killall gpsbabel");
  if (status != 0)
    logf("killAllRunningProcesses: killall gpsbabel exit with error code {}", status);
}

std::string GPSBabel::correctSetting(const std::string& setting) {
  // Texts as older versions stored them, odd ones included.
  static constexpr std::array<std::pair<std::string_view, std::string_view>, 12> kMoves{{
      {"$APP_BUNDLE/gpsbabel", "$BUNDLE/Contents/MacOS/gpsbabel"},
      {"$APP_BUNDLE/iTU4l.pl", "$BUNDLE/Contents/Resources/iTU4l.pl"},
      {"$APP_BUNDLE/sr2x.pl", "$BUNDLE/Resources/Resources/sr2x.pl"},
      {"$APP_BUNDLE/rgm3800-rev25.py", "$BUNDLE/Resources/Resources/rgm3800-rev25.py"},
      {"$APP_BUNDLE/wpl1000reader", "$BUNDLE/Contents/MacOS/wpl1000reader"},
      {"&quot;$APP_BUNDLE/mainnavdist/mainnav-reader-helper&quot",
       "python &quot;$BUNDLE/Contents/Resources/mainnavdist/mainnav-reader-helper&quot"},
      {"$APP_BUNDLE/ambit2gpx.py", "$BUNDLE/Contents/Resources/ambit2gpx.py"},
      {"$APP_BUNDLE/fit2tcx", "$BUNDLE/Contents/Resources/fit2tcx"},
      {"$APP_BUNDLE/../Resources/drivers", "$BUNDLE/Contents/Resources/drivers"},
      {"$BUNDLE/Contents/Resources/drivers/igotu0.3.0/bin/igotu2gpx",
       "$BUNDLE/Contents/MacOS/igotu2gpx0.3.0"},
      {"$BUNDLE/Contents/Resources/drivers/igotu0.4.0/bin/igotu2gpx",
       "$BUNDLE/Contents/MacOS/igotu2gpx0.4.0"},
      {"$BUNDLE/Contents/Resources/gpsbabel", "$BUNDLE/Contents/MacOS/gpsbabel"},
  }};
  std::string result = setting;
  for (const auto& [from, to] : kMoves) {
    for (size_t at = result.find(from); at != std::string::npos;
         at = result.find(from, at + to.size())) {
      result.replace(at, from.size(), to);
    }
  }
  return result;
}

}  // namespace kvtrack
