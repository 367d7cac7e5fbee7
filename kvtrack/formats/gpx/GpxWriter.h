#pragma once
// The element writers shared by every GPX export: a track's waypoint pass
// and track pass, a point, a photo, and the document root.

#include "kvtrack/formats/gpx/GpxExportConfiguration.h"
#include "kvtrack/formats/xml/XmlTree.h"
#include "kvtrack/model/Track.h"

namespace kvtrack::gpx {

/// The "gpx" root with its namespace declarations, creator, version and
/// schema location. The returned namespace is our extension namespace.
xml::XmlNamespace setUpRoot(xml::XmlElement root, bool useGPX10);

/// Waypoint pass (the track's "wpt" elements) or track pass (its "trk" or
/// "rte"), appended to the parent under the track's lock.
void createGPXForParent(xml::XmlElement parent, Track& track, bool waypointsOnly,
                        GpxExportConfiguration& configuration, xml::XmlNamespace wayfolio);
/// One "wpt", "trkpt" or "rtept" (nothing for a non-waypoint in the
/// waypoint pass, or a point the filter rejects).
void createGPXForParent(xml::XmlElement parent, TrackPoint& point, bool waypointsOnly,
                        GpxExportConfiguration& configuration, xml::XmlNamespace wayfolio);

/// One "wayfolio:photo".
void createGPXForParent(xml::XmlElement parent, TrackPhoto& photo,
                        GpxExportConfiguration& configuration, xml::XmlNamespace wayfolio);

}  // namespace kvtrack::gpx
