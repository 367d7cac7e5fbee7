// wayfolio export and convert: GPX, KML, KMZ and CSV files out of the
// library, and gpsbabel conversions that do not touch the library at all.
#include "kvtrack/devices/gpsbabel/GPSBabel.h"
#include "kvtrack/formats/csv/TrackCSV.h"
#include "kvtrack/formats/gpx/TrackGPX.h"
#include "kvtrack/exports/TrackKML.h"
#include "kvtrack/library/TrackLibrary.h"
#include "tools/wayfolio/Commands.h"
#include "tools/wayfolio/DamagedTracks.h"
#include "tools/wayfolio/ExportProblems.h"
#include "tools/wayfolio/LibraryNames.h"

#include <fmt/format.h>
#include <memory>

namespace wayfolio {

using namespace kvtrack;

namespace {

struct ExportOptions {
  std::string item, gpx, kml, kmz, csv;
  bool noPhotos = false;
};

constexpr std::string_view kNothingExported = "nothing was exported";

void exportGpx(const LibraryItem& item, const ExportOptions& options) {
  GpxExportConfiguration configuration;
  Status written;
  if (item.track) {
    written = TrackGPX(item.track).exportTo(options.gpx, configuration);
  } else {
    const auto tracks = item.folder->allTracks();
    if (tracks.empty()) {
      throw CommandError(fmt::format("folder '{}' holds no tracks to export", options.item));
    }
    requireWholeTracks(tracks, kNothingExported);
    // The writer's own track plays no part when it is given the list.
    written = TrackGPX(tracks.front()).exportTo(options.gpx, tracks, configuration);
  }
  if (!written) throw CommandError(written.reason());
}

Outcome exportItem(const ExportOptions& options) {
  const auto library = TrackLibrary::singleton();
  const LibraryItem item = findItem(*library, options.item);
  if (item.track) requireWholeTracks({item.track}, kNothingExported);
  if (!options.gpx.empty()) {
    exportGpx(item, options);
    return {};
  }
  if (!item.track) {
    throw CommandError(fmt::format("'{}' is a folder: only --gpx exports a whole folder",
                                   options.item));
  }
  if (!options.csv.empty()) {
    if (const Status written = TrackCSV::trackCSVWithTrack(item.track)->exportTo(options.csv);
        !written) {
      throw CommandError(written.reason());
    }
    return {};
  }
  const bool kmz = !options.kmz.empty();
  const std::string& target = kmz ? options.kmz : options.kml;
  const ExportOutcome written = exportKml(item.track, target, !options.noPhotos, kmz);
  reportWarnings(written.warnings);
  if (!written) throw CommandError(written.reason());
  return {};
}
struct ConvertOptions {
  std::string input, output, format;
};

Outcome convert(const ConvertOptions& options) {
  const Status converted = GPSBabel::singleton().convert(options.input, options.output, options.format);
  if (!converted) throw CommandError(converted.reason());
  return {};
}

}  // namespace

void addExportCommands(CLI::App& app, Invocation& invocation) {
  auto exporting = std::make_shared<ExportOptions>();
  CLI::App* exportCommand = app.add_subcommand(
      "export", "Write a track as GPX, KML, KMZ or CSV, or every track of a folder as one GPX file");
  exportCommand->add_option("item", exporting->item, "Track (or folder, for --gpx)")->required();
  auto* formats = exportCommand->add_option_group("format", "The file to write");
  formats->add_option("--gpx", exporting->gpx, "GPX file");
  formats->add_option("--kml", exporting->kml, "KML file for Google Earth (photos by their paths)");
  formats->add_option("--kmz", exporting->kmz, "KMZ archive: KML with scaled copies of the photos");
  formats->add_option("--csv", exporting->csv, "Semicolon-separated table (UTF-16) of the points");
  formats->require_option(1);
  exportCommand->add_flag("--no-photos", exporting->noPhotos, "Leave photos out of KML and KMZ");
  exportCommand->callback([&invocation, exporting] {
    invocation.action = [exporting] { return exportItem(*exporting); };
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
      return convert(*converting);
    };
  });
}

}  // namespace wayfolio
