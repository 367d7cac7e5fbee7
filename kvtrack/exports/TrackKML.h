#pragma once
// One track as a KML document for Google Earth: the track line, its
// waypoints as pins and, when asked, its photos as camera placemarks whose
// balloon shows the picture. As KMZ, the document and scaled JPEG copies of
// the photos are put in a scratch folder inside the library folder ("kml")
// and packed with the zip program. KML is written, never read.

#include "kvtrack/exports/ExportOutcome.h"
#include "kvtrack/model/Track.h"

#include <memory>
#include <string>

namespace kvtrack {

namespace xml {
class XmlElement;
}

/// Icons of the camera and waypoint styles, served by the product's site.
inline constexpr const char* kKmlCameraIconURL = "https://wayfolio.invalid/kml/icons/camera.png";
inline constexpr const char* kKmlWaypointIconURL = "https://wayfolio.invalid/kml/icons/pin.png";

class TrackKMLConfiguration {
 public:
  /// Defaults from KvPreferences: photos included, 1024 x 1024 pixels,
  /// quality 7 of 10 where nothing is chosen.
  TrackKMLConfiguration();

  bool includePhotos = true;
  /// Largest size of a photo in the balloon and of a scaled copy, pixels.
  int32_t maxWidth = 1024;
  int32_t maxHeight = 1024;
  /// Quality of scaled copies, 0 to 10.
  float jpegQuality = 7.0f;
};

class TrackKML {
 public:
  TrackKML(TrackPtr track, TrackKMLConfiguration configuration);
  static std::shared_ptr<TrackKML> trackKMLWithTrack(TrackPtr track);
  static std::shared_ptr<TrackKML> trackKMLWithTrack(TrackPtr track,
                                                     TrackKMLConfiguration configuration);

  const TrackPtr& track() const { return track_; }
  const TrackKMLConfiguration& configuration() const { return configuration_; }

  /// Replaces any file at the path. Whether the KML (or the KMZ archive)
  /// was written; photos that cannot be read are left out, each logged and
  /// named in the outcome's warnings.
  ExportOutcome exportTo(const std::string& path, bool createKMZ);

 private:
  TrackPtr track_;
  TrackKMLConfiguration configuration_;
};

/// Loads the track from the library and exports it with the preferences'
/// configuration, photos as asked and both photo limits at 1024 pixels.
ExportOutcome exportKml(const TrackPtr& track, const std::string& path, bool withPhotos, bool createKMZ);

// The document's parts, each written while holding the track's lock.
void createKMLWaypointsForParent(Track& track, xml::XmlElement& parent,
                                 const TrackKMLConfiguration& configuration);
/// relativePath and kmlRoot are empty for plain KML; for KMZ the photos are
/// copied to kmlRoot/relativePath as "image%05d.jpg".
/// Photos left out go to warnings.
void createKMLTrackPhotosForParent(Track& track, xml::XmlElement& parent,
                                   const std::string& relativePath, const std::string& kmlRoot,
                                   const TrackKMLConfiguration& configuration, ExportWarnings& warnings);
void createKMLTrackForParent(Track& track, xml::XmlElement& parent,
                             const TrackKMLConfiguration& configuration);
void createKMLPlacemarkForParent(const TrackPoint& point, xml::XmlElement& parent,
                                 const TrackKMLConfiguration& configuration);
/// A photo's placemark; not added when the image size cannot be read.
/// scaledFile empty: the balloon shows the file itself. What went wrong
/// with the photo goes to warnings.
void createKMLPlacemarkForParent(TrackPhoto& photo, xml::XmlElement& parent,
                                 const std::string& filename, int32_t maxWidth, int32_t maxHeight,
                                 const std::string& scaledFile,
                                 const TrackKMLConfiguration& configuration, ExportWarnings& warnings);

/// The photo's pixel size; fails when the file cannot be opened as an image.
Status imageSizeWidth(TrackPhoto& photo, int32_t& width, int32_t& height);
/// A JPEG copy at most width x height (in-out: the final size as shown,
/// turned for orientations 5 to 8), quality 0..1.
Status createJPG(TrackPhoto& photo, const std::string& path, int32_t& width, int32_t& height,
                 float quality);

}  // namespace kvtrack
