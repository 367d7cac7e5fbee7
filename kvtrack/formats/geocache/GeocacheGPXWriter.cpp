// Writing the geocache blocks of a GPX waypoint and the external
// description files.

#include "kvtrack/formats/geocache/GeocacheDescription.h"
#include "kvtrack/formats/geocache/GeocacheGPX.h"
#include "kvtrack/formats/geocache/GeocacheNames.h"
#include "kvtrack/model/Track.h"
#include "kvtrack/model/TrackPoint.h"

#include <fmt/format.h>

#include <atomic>
#include <charconv>
#include <cstdint>

namespace kvtrack::GeocacheGPX {

namespace {

// Caches without an identifier still need a unique Groundspeak id.
std::atomic<int64_t> nextGroundspeakIdentifier{1000};

bool isSet(const std::optional<std::string>& value) { return value && !value->empty(); }

void addChildIfSet(xml::XmlElement parent, std::string_view name,
                   const std::optional<std::string>& value, xml::XmlNamespace ns = {}) {
  if (value) parent.addChild(name, *value, ns);
}

// Shortest text that reads back to the same float: "2", "3.5".
std::string shortestText(float value) {
  char buffer[64];
  const auto result =
      std::to_chars(buffer, buffer + sizeof buffer, value, std::chars_format::fixed);
  if (result.ec != std::errc()) return fmt::format("{}", value);
  return std::string(buffer, result.ptr);
}

std::string plainLogTypeText(int32_t type) {
  switch (type) {
    case 0: return "Found";
    case 1: return "Not Found";
    case 2: return "Not Attempted";
    case 3: return "Note";
    case 4: return "Other";
    case 5: return "Owner Maintenance";
    default: return {};
  }
}

std::string externalFilePath(const std::string& folder, int32_t index) {
  return fmt::format("{}/desc{:09d}.gpxx", folder, index);
}

void writeExternalFile(const std::string& path, const Geocache& geocache) {
  xml::XmlDocument document("gpxExt");
  createGPXGeocacheDescription(document.root(), geocache);
  createGPXGeocacheLogs(document.root(), geocache);
  // The reference stays in the GPX file; a file we cannot write only loses
  // the description, so the export goes on without it.
  (void)document.save(path, "UTF-8");
}

// The description, directly or as a reference to the external file.
void appendPlainDescription(xml::XmlElement block, TrackPoint& point, Geocache& geocache,
                            const std::optional<std::string>& externalFolder) {
  if (!externalFolder) {
    geocache.loadExternalGpx();
    createGPXGeocacheDescription(block, geocache);
    return;
  }
  if (geocache.indexForGPXExternalFile == -1) {
    Track* track = point.track();
    geocache.indexForGPXExternalFile = track ? track->nextIndexForGPXExternalFile() : 0;
    geocache.externalGPXFileLoaded = true;
    geocache.externalGPXFileDirty = true;
  }
  block.addChild("description", fmt::format("wayfolioref:{}", geocache.indexForGPXExternalFile));
  if (geocache.externalGPXFileLoaded && geocache.externalGPXFileDirty) {
    writeExternalFile(externalFilePath(*externalFolder, geocache.indexForGPXExternalFile),
                      geocache);
  }
}

}  // namespace

void createGPXGeocacheDescription(xml::XmlElement parent, const Geocache& geocache) {
  addChildIfSet(parent, "description", geocache.description);
}

void createGPXGeocacheLogs(xml::XmlElement parent, const Geocache& geocache) {
  xml::XmlElement logs = parent.addChild("logs");
  for (const auto& log : geocache.logs) {
    if (!log) continue;
    xml::XmlElement entry = logs.addChild("log");
    if (isSet(log->identifier)) entry.setAttribute("id", *log->identifier);
    if (log->time) entry.addChild("time", log->time->description());
    xml::XmlElement geocacher = entry.addChild("geocacher", log->geocacher.value_or(""));
    if (isSet(log->geocacherIdentifier)) geocacher.setAttribute("id", *log->geocacherIdentifier);
    entry.addChild("type", plainLogTypeText(log->type));
    entry.addChild("text", log->text.value_or(""));
  }
}

void createGPXGroundspeakLogs(xml::XmlElement parent, const Geocache& geocache,
                              xml::XmlNamespace groundspeak) {
  xml::XmlElement logs = parent.addChild("logs", groundspeak);
  for (const auto& log : geocache.logs) {
    if (!log) continue;
    xml::XmlElement entry = logs.addChild("log", groundspeak);
    if (isSet(log->identifier)) entry.setAttribute("id", *log->identifier);
    if (log->time) entry.addChild("date", log->time->description(), groundspeak);
    entry.addChild("type", groundspeakGpxNameForLogType(log->type), groundspeak);
    xml::XmlElement finder = entry.addChild("finder", log->geocacher.value_or(""), groundspeak);
    if (isSet(log->geocacherIdentifier)) finder.setAttribute("id", *log->geocacherIdentifier);
    entry.addChild("text", log->text.value_or(""), groundspeak).setAttribute("encoded", "False");
  }
}

void appendPlainBlock(xml::XmlElement pointElement, TrackPoint& point,
                      const std::optional<std::string>& externalFolder) {
  const GeocachePtr& pointer = point.geocache();
  if (!pointer) return;
  Geocache& geocache = *pointer;

  xml::XmlElement block = pointElement.addChild("geocache");
  if (auto status = gpxNameforStatus(geocache.status)) block.setAttribute("status", *status);
  if (isSet(geocache.identifier)) block.setAttribute("id", *geocache.identifier);

  addChildIfSet(block, "name", geocache.name);
  addChildIfSet(block, "owner", geocache.owner);
  addChildIfSet(block, "locale", geocache.locale);
  addChildIfSet(block, "state", geocache.state);
  addChildIfSet(block, "country", geocache.country);
  block.addChild("type", gpxNameForType(geocache.type));
  block.addChild("container", gpxNameForContainer(geocache.container));
  block.addChild("difficulty", fmt::format("{:.1f}", geocache.difficulty));
  block.addChild("terrain", fmt::format("{:.1f}", geocache.terrain));
  addChildIfSet(block, "summary", geocache.summary);
  appendPlainDescription(block, point, geocache, externalFolder);
  addChildIfSet(block, "hints", geocache.hints);
  addChildIfSet(block, "licence", geocache.license);  // the element is spelled this way
  // With an external folder the logs went into the description file.
  if (!externalFolder) createGPXGeocacheLogs(block, geocache);
}

void appendGroundspeakBlock(xml::XmlElement pointElement, TrackPoint& point,
                            bool descriptionAsPlainText) {
  const GeocachePtr& pointer = point.geocache();
  if (!pointer) return;
  Geocache& geocache = *pointer;
  geocache.loadExternalGpx();

  xml::XmlElement block = pointElement.addChild("cache");
  const xml::XmlNamespace gs = block.declareNamespace("groundspeak", kGroundspeakNamespace);
  block.setNamespace(gs);
  block.setAttribute("id", isSet(geocache.identifier)
                               ? *geocache.identifier
                               : std::to_string(nextGroundspeakIdentifier.fetch_add(1)));
  block.setAttribute("available", geocache.status == 1 ? "True" : "False");
  block.setAttribute("archived", geocache.status == 3 ? "True" : "False");

  addChildIfSet(block, "name", geocache.name, gs);
  addChildIfSet(block, "owner", geocache.owner, gs);
  block.addChild("type", groundspeakGpxNameForType(geocache.type), gs);
  block.addChild("container", gpxNameForContainer(geocache.container), gs);
  block.addChild("difficulty", shortestText(geocache.difficulty), gs);
  block.addChild("terrain", shortestText(geocache.terrain), gs);
  addChildIfSet(block, "country", geocache.country, gs);
  addChildIfSet(block, "state", geocache.state, gs);
  if (geocache.summary) {
    block.addChild("short_description", *geocache.summary, gs).setAttribute("html", "True");
  }
  if (geocache.description) {
    if (descriptionAsPlainText) {
      block.addChild("long_description", kvtrack::descriptionAsPlainText(geocache), gs)
          .setAttribute("html", "False");
    } else {
      block.addChild("long_description", *geocache.description, gs).setAttribute("html", "True");
    }
  }
  addChildIfSet(block, "encoded_hints", geocache.hints, gs);
  createGPXGroundspeakLogs(block, geocache, gs);
}

}  // namespace kvtrack::GeocacheGPX
