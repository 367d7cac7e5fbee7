#include "kvtrack/formats/geocache/GeocacheExternalImport.h"

#include "kvtrack/formats/geocache/GeocacheGPX.h"
#include "kvtrack/formats/xml/SaxParser.h"
#include "kvtrack/support/FileHandling.h"
#include "kvtrack/support/Log.h"

#include <fmt/format.h>

#include <filesystem>
#include <mutex>

namespace kvtrack {

namespace {

constexpr const char* kLibraryFolder = "all_geocaches.gpxx_ext";

// The root of a "gpxExt" document: a "description" and a plain "logs" block.
class ExternalFileHandler final : public xml::SaxHandler {
 public:
  explicit ExternalFileHandler(Geocache& geocache) : geocache_(geocache) {}

  void startElement(xml::SaxParser& parser, std::string_view name,
                    const xml::Attributes& attributes) override {
    text_.clear();
    if (name == "logs") {
      GeocacheGPX::geocacheLogsGPXElementForGeocache(geocache_, parser, attributes);
    }
  }
  void endElement(xml::SaxParser&, std::string_view name) override {
    if (name == "description") geocache_.description = text_;
  }
  void characters(xml::SaxParser&, std::string_view chunk) override { text_.append(chunk); }

 private:
  Geocache& geocache_;
  std::string text_;
};

}  // namespace

bool GeocacheExternalImport::importFrom(const std::string& path, Geocache& geocache) {
  xml::SaxParser parser;
  ExternalFileHandler handler(geocache);
  if (!parser.parseFile(path, handler)) {
    logLine("GeocacheExternalImport: Error parsing file!");
    return false;
  }
  return true;
}

std::string GeocacheExternalImport::libraryPathForIndex(int32_t index) {
  return fmt::format("{}/{}/desc{:09d}.gpxx", FileHandling::singleton().userApplicationSupport(),
                     kLibraryFolder, index);
}

void GeocacheExternalImport::install() {
  static std::once_flag once;
  std::call_once(once, [] {
    Geocache::setExternalLoader([](Geocache& geocache) {
      const std::string path = libraryPathForIndex(geocache.indexForGPXExternalFile);
      // Caches whose file never got written simply have no description.
      std::error_code error;
      if (!std::filesystem::exists(path, error)) return;
      importFrom(path, geocache);
    });
  });
}

}  // namespace kvtrack
