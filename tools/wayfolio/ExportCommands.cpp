// wayfolio export and convert: GPX files out of the library, and gpsbabel
// conversions that do not touch the library at all.
#include "kvtrack/devices/gpsbabel/GPSBabel.h"
#include "kvtrack/formats/gpx/TrackGPX.h"
#include "kvtrack/library/TrackLibrary.h"
#include "tools/wayfolio/CapturedStandardError.h"
#include "tools/wayfolio/Commands.h"
#include "tools/wayfolio/LibraryNames.h"

#include <fmt/format.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <memory>

namespace wayfolio {

namespace fs = std::filesystem;
using namespace kvtrack;

namespace {

// The GPX writer only says that it failed; this says why, where it can.
std::string writeProblem(const std::string& path) {
  std::error_code error;
  if (fs::is_directory(path, error)) return "it is a folder";
  fs::path folder = fs::path(path).parent_path();
  if (folder.empty()) folder = ".";
  if (!fs::is_directory(folder, error)) return fmt::format("there is no folder {}", folder.string());
  if (::access(folder.c_str(), W_OK) != 0) return std::strerror(errno);
  return "the file could not be written";
}

struct ExportOptions {
  std::string item, gpx;
};

Outcome exportGpx(const ExportOptions& options) {
  const auto library = TrackLibrary::singleton();
  const LibraryItem item = findItem(*library, options.item);
  GpxExportConfiguration configuration;
  bool written = false;
  if (item.track) {
    written = TrackGPX(item.track).exportTo(options.gpx, configuration);
  } else {
    const auto tracks = item.folder->allTracks();
    if (tracks.empty()) {
      throw CommandError(fmt::format("folder '{}' holds no tracks to export", options.item));
    }
    // The writer's own track plays no part when it is given the list.
    written = TrackGPX(tracks.front()).exportTo(options.gpx, tracks, configuration);
  }
  if (!written) {
    throw CommandError(fmt::format("could not write {}: {}", options.gpx, writeProblem(options.gpx)));
  }
  return {};
}

struct ConvertOptions {
  std::string input, output, format;
  bool verbose = false;
};

Outcome convert(const ConvertOptions& options) {
  CapturedStandardError complaint(!options.verbose);
  const int status = GPSBabel::singleton().convert(options.input, options.output, options.format);
  const std::string message = complaint.firstLine();
  if (status != 0) {
    std::string text =
        fmt::format("gpsbabel could not convert {} (status {})", options.input, status);
    if (!message.empty()) text += ": " + message;
    throw CommandError(text);
  }
  return {};
}

}  // namespace

void addExportCommands(CLI::App& app, Invocation& invocation) {
  auto exporting = std::make_shared<ExportOptions>();
  CLI::App* exportCommand =
      app.add_subcommand("export", "Write a track, or every track of a folder, as one GPX file");
  exportCommand->add_option("item", exporting->item, "Track or folder")->required();
  exportCommand->add_option("--gpx", exporting->gpx, "The GPX file to write")->required();
  exportCommand->callback([&invocation, exporting] {
    invocation.action = [exporting] { return exportGpx(*exporting); };
  });

  auto converting = std::make_shared<ConvertOptions>();
  CLI::App* convertCommand =
      app.add_subcommand("convert", "Convert a file to GPX with gpsbabel (the library stays out)");
  convertCommand->add_option("input", converting->input, "File to read")->required();
  convertCommand->add_option("output", converting->output, "GPX file to write")->required();
  convertCommand->add_option("--format", converting->format, "gpsbabel input format of the file")
      ->required();
  convertCommand->callback([&invocation, converting] {
    invocation.usesLibrary = false;
    invocation.action = [&invocation, converting] {
      converting->verbose = invocation.verbose;
      return convert(*converting);
    };
  });
}

}  // namespace wayfolio
