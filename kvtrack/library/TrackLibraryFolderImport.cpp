// Importing files into a folder: GPX directly, every other format through
// gpsbabel into an intermediate GPX file in the library folder.
#include "kvtrack/devices/gpsbabel/GPSBabel.h"
#include "kvtrack/library/TrackLibrary.h"
#include "kvtrack/library/TrackLibraryGPX.h"

#include <algorithm>
#include <filesystem>

namespace kvtrack {

namespace {

bool endsWithIgnoringCase(const std::string& text, std::string_view ending) {
  if (text.size() < ending.size()) return false;
  return std::equal(ending.begin(), ending.end(), text.end() - static_cast<std::ptrdiff_t>(ending.size()),
                    [](char e, char t) { return std::tolower(static_cast<unsigned char>(t)) == e; });
}

// The intermediate file goes before each conversion, so a conversion that
// fails reads as a missing file instead of the previous file's data, and
// again once it has been read.
std::string intermediateFile(const char* name) {
  const auto library = TrackLibrary::singleton();
  const std::string path = library->folder() + "/" + name;
  std::error_code ignored;
  std::filesystem::remove(path, ignored);
  return path;
}

// Reads an intermediate file with a fresh configuration; what it collected
// is handed back to the caller's configuration for its summary.
bool importIntermediate(TrackLibraryFolder& folder, const std::string& path,
                        GpxImportConfiguration& fresh, GpxImportConfiguration* caller) {
  fresh.setTargetFolder(std::dynamic_pointer_cast<TrackLibraryFolder>(folder.shared_from_this()));
  TrackLibraryGPX importer;
  importer.importFrom(path, fresh);
  // The tracks are in memory now; the library names only files it keeps.
  std::error_code ignored;
  std::filesystem::remove(path, ignored);
  if (caller) {
    auto& tracks = caller->mutableImportedTracks();
    tracks.insert(tracks.end(), fresh.importedTracks().begin(), fresh.importedTracks().end());
    caller->setIdenticalTrackCounter(caller->identicalTrackCounter() + fresh.identicalTrackCounter());
    caller->setNewTrackCounter(caller->newTrackCounter() + fresh.newTrackCounter());
    caller->setInvalidPositionCounter(caller->invalidPositionCounter() +
                                      fresh.invalidPositionCounter());
  }
  return importer.lastImportSucceeded();
}

}  // namespace

bool TrackLibraryFolder::importGPX(const std::string& path, GpxImportConfiguration& configuration) {
  if (endsWithIgnoringCase(path, ".kml")) {
    return importKML(path, configuration.setTimeZone(), configuration.delegate());
  }
  if (endsWithIgnoringCase(path, ".loc")) {
    return importLOC(path, configuration.setTimeZone(), configuration.delegate());
  }
  if (endsWithIgnoringCase(path, ".gpi")) return importFrom(path, "garmin_gpi", &configuration);
  if (endsWithIgnoringCase(path, ".ov2")) return importFrom(path, "tomtom", &configuration);
  configuration.setTargetFolder(shared_from_this());
  TrackLibraryGPX importer;
  importer.importFrom(path, configuration);
  return importer.lastImportSucceeded();
}

bool TrackLibraryFolder::importKML(const std::string& path) { return importKML(path, true, nullptr); }

bool TrackLibraryFolder::importKML(const std::string& path, bool setTimeZone,
                                   GpxImportDelegate* delegate) {
  const std::string gpx = intermediateFile("kml.gpx");
  GPSBabel::singleton().convertKML(path, gpx);
  GpxImportConfiguration fresh;
  fresh.setSetTimeZone(setTimeZone);
  fresh.setDelegate(delegate);
  fresh.setDoNotImportPOIs(true);
  return importIntermediate(*this, gpx, fresh, nullptr);
}

bool TrackLibraryFolder::importLOC(const std::string& path) { return importLOC(path, true, nullptr); }

bool TrackLibraryFolder::importLOC(const std::string& path, bool setTimeZone,
                                   GpxImportDelegate* delegate) {
  const std::string gpx = intermediateFile("loc.gpx");
  GPSBabel::singleton().convertLOC(path, gpx);
  GpxImportConfiguration fresh;
  fresh.setSetTimeZone(setTimeZone);
  fresh.setDelegate(delegate);
  return importIntermediate(*this, gpx, fresh, nullptr);
}

bool TrackLibraryFolder::importFrom(const std::string& path, const std::string& format) {
  return importFrom(path, format, nullptr);
}

bool TrackLibraryFolder::importFrom(const std::string& path, const std::string& format,
                                    GpxImportConfiguration* gpxConfiguration) {
  const std::string gpx = intermediateFile("convert.gpx");
  GPSBabel::singleton().convert(path, gpx, format);
  GpxImportConfiguration fresh;
  fresh.setSetTimeZone(false);
  if (gpxConfiguration) {
    fresh.setDelegate(gpxConfiguration->delegate());
    fresh.setTrackIdPrefix(gpxConfiguration->trackIdPrefix());
  }
  const bool ok = importIntermediate(*this, gpx, fresh, gpxConfiguration);
  if (gpxConfiguration) {
    auto& pois = gpxConfiguration->importedPOIs();
    pois.insert(pois.end(), fresh.importedPOIs().begin(), fresh.importedPOIs().end());
  }
  return ok;
}

}  // namespace kvtrack
