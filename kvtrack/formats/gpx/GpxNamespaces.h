#pragma once
// Namespace URIs written into and expected in GPX files.

namespace kvtrack::gpx {

inline constexpr const char* kGpx10Namespace = "http://www.topografix.com/GPX/1/0";
inline constexpr const char* kGpx11Namespace = "http://www.topografix.com/GPX/1/1";
inline constexpr const char* kXmlSchemaNamespace = "http://www.w3.org/2001/XMLSchema";
inline constexpr const char* kXmlSchemaInstanceNamespace = "http://www.w3.org/2001/XMLSchema-instance";
/// Our own extension elements (prefix "wayfolio").
inline constexpr const char* kWayfolioNamespace = "https://wayfolio.invalid/xmlschemas/WayfolioGPX/1/0";
inline constexpr const char* kCreator = "Wayfolio";

}  // namespace kvtrack::gpx
