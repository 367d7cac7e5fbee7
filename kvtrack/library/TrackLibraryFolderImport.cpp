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
Status importIntermediate(TrackLibraryFolder& folder, const std::string& path,
                          GpxImportConfiguration& fresh, GpxImportConfiguration* caller) {
  fresh.setTargetFolder(std::dynamic_pointer_cast<TrackLibraryFolder>(folder.shared_from_this()));
  const GpxFileImport read = TrackLibraryGPX().importFrom(path, fresh);
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
    caller->setFiledGeocacheCounter(caller->filedGeocacheCounter() + fresh.filedGeocacheCounter());
    auto& pois = caller->importedPOIs();
    pois.insert(pois.end(), fresh.importedPOIs().begin(), fresh.importedPOIs().end());
  }
  return read.status;
}

// Converts through gpsbabel, then reads what it wrote.
Status importConverted(TrackLibraryFolder& folder, const Status& converted, const std::string& gpx,
                       GpxImportConfiguration& fresh, GpxImportConfiguration* caller) {
  if (!converted) return converted;
  return importIntermediate(folder, gpx, fresh, caller);
}

}  // namespace

Status TrackLibraryFolder::importGPX(const std::string& path, GpxImportConfiguration& configuration) {
  if (endsWithIgnoringCase(path, ".kml")) {
    return importKML(path, configuration.setTimeZone(), configuration.delegate());
  }
  if (endsWithIgnoringCase(path, ".loc")) {
    return importLOC(path, configuration.setTimeZone(), configuration.delegate());
  }
  if (endsWithIgnoringCase(path, ".gpi")) return importFrom(path, "garmin_gpi", &configuration);
  if (endsWithIgnoringCase(path, ".ov2")) return importFrom(path, "tomtom", &configuration);
  configuration.setTargetFolder(shared_from_this());
  return TrackLibraryGPX().importFrom(path, configuration).status;
}

Status TrackLibraryFolder::importKML(const std::string& path) { return importKML(path, true, nullptr); }

Status TrackLibraryFolder::importKML(const std::string& path, bool setTimeZone,
                                   GpxImportDelegate* delegate) {
  const std::string gpx = intermediateFile("kml.gpx");
  const Status converted = GPSBabel::singleton().convertKML(path, gpx);
  GpxImportConfiguration fresh;
  fresh.setSetTimeZone(setTimeZone);
  fresh.setDelegate(delegate);
  fresh.setDoNotImportPOIs(true);
  return importConverted(*this, converted, gpx, fresh, nullptr);
}

Status TrackLibraryFolder::importLOC(const std::string& path) { return importLOC(path, true, nullptr); }

Status TrackLibraryFolder::importLOC(const std::string& path, bool setTimeZone,
                                   GpxImportDelegate* delegate) {
  const std::string gpx = intermediateFile("loc.gpx");
  const Status converted = GPSBabel::singleton().convertLOC(path, gpx);
  GpxImportConfiguration fresh;
  fresh.setSetTimeZone(setTimeZone);
  fresh.setDelegate(delegate);
  return importConverted(*this, converted, gpx, fresh, nullptr);
}

Status TrackLibraryFolder::importFrom(const std::string& path, const std::string& format) {
  return importFrom(path, format, nullptr);
}

Status TrackLibraryFolder::importFrom(const std::string& path, const std::string& format,
                                    GpxImportConfiguration* gpxConfiguration) {
  const std::string gpx = intermediateFile("convert.gpx");
  const Status converted = GPSBabel::singleton().convert(path, gpx, format);
  GpxImportConfiguration fresh;
  fresh.setSetTimeZone(false);
  if (gpxConfiguration) {
    fresh.setDelegate(gpxConfiguration->delegate());
    fresh.setTrackIdPrefix(gpxConfiguration->trackIdPrefix());
  }
  return importConverted(*this, converted, gpx, fresh, gpxConfiguration);
}

}  // namespace kvtrack
