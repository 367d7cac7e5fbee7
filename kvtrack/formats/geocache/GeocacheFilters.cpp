#include "kvtrack/formats/geocache/GeocacheFilters.h"

#include "kvtrack/formats/xml/SaxParser.h"
#include "kvtrack/formats/xml/XmlTree.h"
#include "kvtrack/support/FileHandling.h"
#include "kvtrack/support/Log.h"

#include <fmt/format.h>

namespace kvtrack {

namespace {

constexpr const char* kRootElement = "wayfolioGeocacheFilters";
constexpr const char* kCreator = "Wayfolio";
#ifdef KVTRACK_VERSION
constexpr const char* kVersion = KVTRACK_VERSION;  // the project version, from the build
#else
constexpr const char* kVersion = "0.1.0";
#endif

class FilterFileHandler final : public xml::SaxHandler {
 public:
  explicit FilterFileHandler(std::vector<GeocacheFilter>& filters) : filters_(filters) {}

  void startElement(xml::SaxParser&, std::string_view name,
                    const xml::Attributes& attributes) override {
    if (name != "filter") return;
    filters_.push_back({std::string(attributes.value("name").value_or("")),
                        std::string(attributes.value("predicate").value_or(""))});
  }

 private:
  std::vector<GeocacheFilter>& filters_;
};

}  // namespace

bool GeocacheFilters::exportTo(const std::string& path) const {
  if (path.empty()) {
    logLine("GeocacheFilters: Error creating URL!");
    return false;
  }
  xml::XmlDocument document(kRootElement);
  xml::XmlElement root = document.root();
  root.setAttribute("creator", kCreator);
  root.setAttribute("version", kVersion);
  for (const auto& filter : filters) {
    xml::XmlElement element = root.addChild("filter");
    element.setAttribute("name", filter.name);
    element.setAttribute("predicate", filter.predicateString);
  }
  if (!document.save(path, "UTF-8")) {
    logf("GeocacheFilters: Error writing file {}!", path);
    return false;
  }
  return true;
}

bool GeocacheFilters::importFrom(const std::string& path) {
  if (path.empty()) {
    logLine("GeocacheFilters: Error creating URL!");
    return false;
  }
  xml::SaxParser parser;
  std::vector<GeocacheFilter> read;
  FilterFileHandler handler(read);
  if (!parser.parseFile(path, handler)) {
    logLine("GeocacheFilters: Error parsing file!");
    return false;
  }
  filters.insert(filters.end(), read.begin(), read.end());
  return true;
}

std::string GeocacheFilters::libraryPath(const std::string& name) {
  return fmt::format("{}/{}.wayfolio", FileHandling::singleton().userApplicationSupport(), name);
}

}  // namespace kvtrack
