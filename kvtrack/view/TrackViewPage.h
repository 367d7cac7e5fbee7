#pragma once
// A track view: one self-contained HTML page that shows tracks on a map
// (Leaflet, inlined from the system's copy), their waypoints and photos,
// elevation and speed profiles against distance or time, and their
// figures. Nothing is loaded from anywhere when the page is opened, except
// OpenStreetMap tiles when the browser is online; offline the lines are
// drawn on a plain background with a scale.

#include "kvtrack/model/Track.h"
#include "kvtrack/support/Status.h"
#include "kvtrack/view/TrackViewData.h"

#include <string>
#include <vector>

namespace kvtrack {

/// Where Debian's libjs-leaflet puts Leaflet.
inline constexpr const char* kLeafletFolder = "/usr/share/javascript/leaflet";
/// The tile server used when the browser is online.
inline constexpr const char* kOpenStreetMapTiles = "https://tile.openstreetmap.org/{z}/{x}/{y}.png";

struct TrackViewOptions {
  /// The page's heading: the track's or the folder's name.
  std::string title;
  /// The folder the tracks come from ("/2024/Alps"), shown under the title;
  /// empty for none.
  std::string subtitle;
  TrackViewSettings settings;
  /// KvPreferences::unitMode: 1 miles, feet and mph; 2 nautical miles,
  /// feet and knots; anything else kilometres, metres and km/h.
  int unitMode = 0;
  std::string leafletFolder = kLeafletFolder;
  std::string tileUrl = kOpenStreetMapTiles;
};

/// Leaflet's script and its style sheet with the pictures it names inlined.
struct LeafletAssets {
  std::string script;
  std::string style;
};
/// Fails, naming the package to install, when Leaflet cannot be read.
Result<LeafletAssets> loadLeaflet(const std::string& folder);

/// The page for the tracks (one track, or every track of a folder), built
/// from what gatherTrackView reads of each.
Result<std::string> trackViewPage(const std::vector<TrackPtr>& tracks,
                                  const TrackViewOptions& options);

/// The same page from data already gathered.
std::string trackViewPage(const std::vector<TrackViewData>& tracks, const LeafletAssets& leaflet,
                          const TrackViewOptions& options);

/// What a written view holds.
struct TrackViewSummary {
  size_t pageBytes = 0;
  size_t tracks = 0;
  size_t points = 0;         // recorded points of all tracks
  size_t drawnVertices = 0;  // vertices of the map lines after simplification
  size_t photos = 0;
  /// Photo files that could not be read: their markers show no picture.
  std::vector<std::string> unreadablePhotos;
};

/// Builds the page and writes it atomically to the path.
Result<TrackViewSummary> writeTrackView(const std::string& path,
                                        const std::vector<TrackPtr>& tracks,
                                        const TrackViewOptions& options);

}  // namespace kvtrack
