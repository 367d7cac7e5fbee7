// Reading the "groundspeak:cache" block of a GPX waypoint (pocket queries
// and our own export) with its logs; travel bugs are skipped.

#include "kvtrack/formats/geocache/GeocacheGPX.h"
#include "kvtrack/formats/geocache/GeocacheNames.h"
#include "kvtrack/formats/geocache/GeocacheSaxSupport.h"
#include "kvtrack/support/CaseInsensitive.h"
#include "kvtrack/support/ISODate.h"
#include "kvtrack/support/NumberText.h"
#include "kvtrack/support/UserDefaults.h"

namespace kvtrack::GeocacheGPX {

namespace {

using detail::endsWith;

class GroundspeakCacheGPXElement final : public detail::ElementHandler {
 public:
  GroundspeakCacheGPXElement(Geocache& geocache, const xml::Attributes& attributes)
      : geocache_(geocache) {
    geocache_.yourLogType = 2;
    if (attributes.value("available") == "True") geocache_.status = 1;
    else if (attributes.value("archived") == "True") geocache_.status = 3;
    else geocache_.status = 2;
    if (auto id = attributes.value("id")) geocache_.identifier = std::string(*id);
  }

 protected:
  bool childStarted(xml::SaxParser& parser, std::string_view name,
                    const xml::Attributes& attributes) override {
    if (endsWith(name, "logs")) {
      groundspeakLogsGPXElementForGeocache(geocache_, parser, attributes);
      return true;
    }
    if (endsWith(name, "travelbugs")) {
      groundspeakTravelBugsGPXElementForGeocache(geocache_, parser, attributes);
      return true;
    }
    return false;
  }

  void childEnded(std::string_view name, const std::string& text) override {
    Geocache& g = geocache_;
    // "long_description" and "short_description" before any shorter ending.
    if (endsWith(name, "long_description")) g.description = text;
    else if (endsWith(name, "short_description")) g.summary = text;
    else if (endsWith(name, "encoded_hints")) g.hints = text;
    else if (endsWith(name, "name")) g.name = text;
    else if (endsWith(name, "owner")) g.owner = text;
    else if (endsWith(name, "locale")) g.locale = text;
    else if (endsWith(name, "state")) g.state = text;
    else if (endsWith(name, "country")) g.country = text;
    else if (endsWith(name, "difficulty")) g.difficulty = parseFloatValue(text);
    else if (endsWith(name, "terrain")) g.terrain = parseFloatValue(text);
    else if (endsWith(name, "type")) g.type = typeForGroundspeakGPXName(text);
    else if (endsWith(name, "container")) g.container = containerForGPXName(text);
  }

 private:
  Geocache& geocache_;
};

class GroundspeakLogGPXElement final : public detail::ElementHandler {
 public:
  GroundspeakLogGPXElement(Geocache& geocache, const xml::Attributes& attributes)
      : geocache_(geocache), log_(detail::appendLog(geocache, attributes)) {}

 protected:
  bool childStarted(xml::SaxParser&, std::string_view name,
                    const xml::Attributes& attributes) override {
    if (endsWith(name, "finder")) {
      if (auto id = attributes.value("id")) log_->geocacherIdentifier = std::string(*id);
    }
    return false;
  }

  void childEnded(std::string_view name, const std::string& text) override {
    if (endsWith(name, "finder")) log_->geocacher = text;
    else if (endsWith(name, "text")) log_->text = text;
    else if (endsWith(name, "date")) log_->time = ISODate::dateWithString(text);
    else if (endsWith(name, "type")) typeText_ = text;
  }

  void finished() override {
    // The user's own find marks the whole cache as found.
    if (typeText_ == "Found it" && log_->geocacher) {
      const auto userName =
          UserDefaults::singleton().stringForKey(UserDefaults::kGeocachingComUserName);
      if (userName && equalsCaseInsensitive(*userName, *log_->geocacher)) {
        geocache_.yourLogType = 0;
      }
    }
    // Exact texts only: anything else keeps the log's type.
    if (typeText_ == "Found it") log_->type = 0;
    else if (typeText_ == "Didn't find it") log_->type = 1;
    else if (typeText_ == "Write note") log_->type = 3;
    else if (typeText_ == "Owner Maintenance") log_->type = 5;
  }

 private:
  Geocache& geocache_;
  GeocacheLogPtr log_;
  std::string typeText_;
};

// Travel bugs are not kept; their "name" children must not reach the cache.
class GroundspeakTravelBugsGPXElement final : public detail::ElementHandler {
 protected:
  void childEnded(std::string_view, const std::string&) override {}
};

}  // namespace

void groundspeakCacheGPXElementForGeocache(Geocache& geocache, xml::SaxParser& parser,
                                           const xml::Attributes& attributes) {
  parser.pushHandler(std::make_unique<GroundspeakCacheGPXElement>(geocache, attributes));
}

void groundspeakLogsGPXElementForGeocache(Geocache& geocache, xml::SaxParser& parser,
                                          const xml::Attributes&) {
  parser.pushHandler(
      std::make_unique<detail::LogListHandler>(geocache, &groundspeakLogGPXElementForGeocache));
}

void groundspeakLogGPXElementForGeocache(Geocache& geocache, xml::SaxParser& parser,
                                         const xml::Attributes& attributes) {
  parser.pushHandler(std::make_unique<GroundspeakLogGPXElement>(geocache, attributes));
}

void groundspeakTravelBugsGPXElementForGeocache(Geocache&, xml::SaxParser& parser,
                                                const xml::Attributes&) {
  parser.pushHandler(std::make_unique<GroundspeakTravelBugsGPXElement>());
}

}  // namespace kvtrack::GeocacheGPX
