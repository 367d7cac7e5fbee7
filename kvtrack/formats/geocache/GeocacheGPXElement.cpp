// Reading the plain "geocache" block of a GPX waypoint and its logs.

#include "kvtrack/formats/geocache/GeocacheGPX.h"
#include "kvtrack/formats/geocache/GeocacheNames.h"
#include "kvtrack/formats/geocache/GeocacheSaxSupport.h"
#include "kvtrack/support/ISODate.h"
#include "kvtrack/support/NumberText.h"

namespace kvtrack::GeocacheGPX {

namespace {

using detail::endsWith;

// Our own export puts this in front of the index of an external description file.
constexpr std::string_view kExternalReference = "wayfolioref:";
// Waypoint addresses of some sites end in the cache's identifier.
constexpr std::string_view kCacheIdInUrl = "cacheid=";

class GeocacheGPXElement final : public detail::ElementHandler {
 public:
  GeocacheGPXElement(Geocache& geocache, const xml::Attributes& attributes,
                     const std::optional<std::string>& waypointUrl)
      : geocache_(geocache) {
    geocache_.yourLogType = 2;
    if (auto status = attributes.value("status")) geocache_.status = statusForGPXName(*status);
    if (auto id = attributes.value("id")) {
      geocache_.identifier = std::string(*id);
    } else if (waypointUrl) {
      const size_t at = waypointUrl->find(kCacheIdInUrl);
      if (at != std::string::npos && at + kCacheIdInUrl.size() < waypointUrl->size()) {
        geocache_.identifier = waypointUrl->substr(at + kCacheIdInUrl.size());
      }
    }
  }

 protected:
  bool childStarted(xml::SaxParser& parser, std::string_view name,
                    const xml::Attributes& attributes) override {
    if (name != "logs") return false;
    geocacheLogsGPXElementForGeocache(geocache_, parser, attributes);
    return true;
  }

  void childEnded(std::string_view name, const std::string& text) override {
    Geocache& g = geocache_;
    if (name == "name") g.name = text;
    else if (name == "summary") g.summary = text;
    else if (name == "owner") g.owner = text;
    else if (name == "locale") g.locale = text;
    else if (name == "state") g.state = text;
    else if (name == "country") g.country = text;
    else if (name == "difficulty") g.difficulty = parseFloatValue(text);
    else if (name == "terrain") g.terrain = parseFloatValue(text);
    else if (name == "hints") g.hints = text;
    else if (name == "licence" || name == "license") g.license = text;
    else if (name == "type") g.type = typeForGPXName(text);
    else if (name == "container") g.container = containerForGPXName(text);
    else if (name == "description") readDescription(text);
  }

 private:
  // A reference names the external file; the description itself stays
  // unloaded until needed.
  void readDescription(const std::string& text) {
    if (text.starts_with(kExternalReference)) {
      geocache_.indexForGPXExternalFile =
          parseIntValue(std::string_view(text).substr(kExternalReference.size()));
    } else {
      geocache_.description = text;
    }
  }

  Geocache& geocache_;
};

class GeocacheLogGPXElement final : public detail::ElementHandler {
 public:
  GeocacheLogGPXElement(Geocache& geocache, const xml::Attributes& attributes)
      : log_(detail::appendLog(geocache, attributes)) {}

 protected:
  bool childStarted(xml::SaxParser&, std::string_view name,
                    const xml::Attributes& attributes) override {
    if (endsWith(name, "geocacher")) {
      if (auto id = attributes.value("id")) log_->geocacherIdentifier = std::string(*id);
    }
    return false;
  }

  void childEnded(std::string_view name, const std::string& text) override {
    if (endsWith(name, "type")) typeText_ = text;
    else if (endsWith(name, "geocacher")) log_->geocacher = text;
    else if (endsWith(name, "text")) log_->text = text;
    else if (endsWith(name, "time")) log_->time = ISODate::dateWithString(text);
  }

  // Exact texts only: anything else keeps the log's type.
  void finished() override {
    if (typeText_ == "Found") log_->type = 0;
    else if (typeText_ == "Not Found") log_->type = 1;
    else if (typeText_ == "Note") log_->type = 3;
    else if (typeText_ == "Not Attempted") log_->type = 2;
    else if (typeText_ == "Owner Maintenance") log_->type = 5;
    else if (typeText_ == "Other") log_->type = 4;
  }

 private:
  GeocacheLogPtr log_;
  std::string typeText_;
};

}  // namespace

void geocacheGPXElementForGeocache(Geocache& geocache, xml::SaxParser& parser,
                                   const xml::Attributes& attributes,
                                   const std::optional<std::string>& waypointUrl) {
  parser.pushHandler(std::make_unique<GeocacheGPXElement>(geocache, attributes, waypointUrl));
}

void geocacheLogsGPXElementForGeocache(Geocache& geocache, xml::SaxParser& parser,
                                       const xml::Attributes&) {
  parser.pushHandler(
      std::make_unique<detail::LogListHandler>(geocache, &geocacheLogGPXElementForGeocache));
}

void geocacheLogGPXElementForGeocache(Geocache& geocache, xml::SaxParser& parser,
                                      const xml::Attributes& attributes) {
  parser.pushHandler(std::make_unique<GeocacheLogGPXElement>(geocache, attributes));
}

}  // namespace kvtrack::GeocacheGPX
