#pragma once
// The geocache blocks of GPX waypoints: writing the plain "geocache" block
// and the Groundspeak "groundspeak:cache" block, and the handlers that read
// them back. The GPX track and point code calls these.

#include "kvtrack/formats/xml/SaxParser.h"
#include "kvtrack/formats/xml/XmlTree.h"
#include "kvtrack/model/Geocache.h"

#include <optional>
#include <string>

namespace kvtrack {

class Track;
class TrackPoint;

namespace GeocacheGPX {

/// The Groundspeak cache namespace, version 1.0.1.
inline constexpr const char* kGroundspeakNamespace = "http://www.groundspeak.com/cache/1/0/1";

/// Appends the plain "geocache" block of the point's geocache to the point
/// element. With an external folder, description and logs go to the file
/// "desc%09d.gpxx" in that folder (indices come from the owning track).
void appendPlainBlock(xml::XmlElement pointElement, TrackPoint& point,
                      const std::optional<std::string>& externalFolder);
/// Appends the "groundspeak:cache" block of the point's geocache.
void appendGroundspeakBlock(xml::XmlElement pointElement, TrackPoint& point,
                            bool descriptionAsPlainText);

/// The "description" child of the plain block, when there is a description.
void createGPXGeocacheDescription(xml::XmlElement parent, const Geocache& geocache);
/// The plain "logs" block (appended even when empty).
void createGPXGeocacheLogs(xml::XmlElement parent, const Geocache& geocache);
/// The "groundspeak:logs" block (appended even when empty).
void createGPXGroundspeakLogs(xml::XmlElement parent, const Geocache& geocache,
                              xml::XmlNamespace groundspeak);

// --- reading: each pushes its handler onto the parser ------------------------

/// Plain block; the waypoint's URL supplies the identifier after "cacheid=".
void geocacheGPXElementForGeocache(Geocache& geocache, xml::SaxParser& parser,
                                   const xml::Attributes& attributes,
                                   const std::optional<std::string>& waypointUrl);
void geocacheLogsGPXElementForGeocache(Geocache& geocache, xml::SaxParser& parser,
                                       const xml::Attributes& attributes);
void geocacheLogGPXElementForGeocache(Geocache& geocache, xml::SaxParser& parser,
                                      const xml::Attributes& attributes);
void groundspeakCacheGPXElementForGeocache(Geocache& geocache, xml::SaxParser& parser,
                                           const xml::Attributes& attributes);
void groundspeakLogsGPXElementForGeocache(Geocache& geocache, xml::SaxParser& parser,
                                          const xml::Attributes& attributes);
void groundspeakLogGPXElementForGeocache(Geocache& geocache, xml::SaxParser& parser,
                                         const xml::Attributes& attributes);
void groundspeakTravelBugsGPXElementForGeocache(Geocache& geocache, xml::SaxParser& parser,
                                                const xml::Attributes& attributes);

}  // namespace GeocacheGPX
}  // namespace kvtrack
