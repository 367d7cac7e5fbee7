#pragma once
// One recorded position of a track, and at the same time the record of a
// waypoint (told apart by isWayPoint). A point knows the track that holds it
// and forwards edits to it (makeDirty).
//
// Memory: a plain track point is 72 bytes. Waypoint attributes, photos and
// geocaches live in a side record that only points having them allocate.
// Units: degrees (north and east positive), metres for the elevation, km/h
// for the speed, kilometres for the leg length.

#include "kvtrack/model/Geocache.h"
#include "kvtrack/model/TrackPhoto.h"
#include "kvtrack/support/ISODate.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace kvtrack {

class Track;
class GeocachingService;

class TrackPoint {
 public:
  /// No time, elevation 0.0, speed -1.0 (never computed), everything else
  /// zero, false or absent. The parent is not owned.
  explicit TrackPoint(Track* parent = nullptr);
  ~TrackPoint();
  TrackPoint(const TrackPoint&) = delete;  // points are compared by identity
  TrackPoint& operator=(const TrackPoint&) = delete;

  static std::shared_ptr<TrackPoint> trackPointWithParent(Track* parent);
  /// A duplicate of the source for another parent: shares the time value,
  /// copies position, speed, flags, waypoint attributes, the geocache and
  /// the photos, but neither the tags nor the leg length.
  static std::shared_ptr<TrackPoint> trackPointWithParent(Track* parent, const TrackPoint& source);

  // --- recorded values ----------------------------------------------------
  std::optional<ISODate> time() const {
    if (!hasTime_) return std::nullopt;
    return ISODate::fromMicrosecondsSince1970(timeMicros_, timeOffset_);
  }
  bool hasTime() const { return hasTime_; }
  void setTime(std::optional<ISODate> time);
  /// Re-expresses the time (if any) in another offset; the instant stays.
  void setTimezoneOffsetOfTime(int32_t minutes) { timeOffset_ = minutes; }

  /// A position a receiver can have recorded: latitude within [-90, 90],
  /// longitude within [-180, 180], both finite. Readers skip points that
  /// fail it rather than let the normalising setters fold them into
  /// another place.
  static bool isValidPosition(double latitude, double longitude) {
    return latitude >= -90.0 && latitude <= 90.0 && longitude >= -180.0 && longitude <= 180.0;
  }

  double latitude() const { return latitude_; }
  /// One step of normalisation only: 91 becomes -89, -91 becomes 89.
  void setLatitude(double latitude);
  double longitude() const { return longitude_; }
  /// One step of normalisation only: 190 becomes -170; beyond +-540 stays out of range.
  void setLongitude(double longitude);
  /// NaN means no elevation.
  double elevation() const { return elevation_; }
  /// Infinite and NaN values are stored as NaN.
  void setElevation(double elevation);
  /// km/h; -1.0 means never computed, NaN for collections of places.
  double speed() const { return speed_; }
  void setSpeed(double speed) { speed_ = speed; }
  /// Kilometres of the leg from the previous point (not a running total).
  double length() const { return length_; }
  void setLength(double length) { length_ = length; }
  bool isWayPoint() const { return isWayPoint_; }
  void setIsWayPoint(bool value) { isWayPoint_ = value; }
  bool isEndOfSegment() const { return isEndOfSegment_; }
  void setIsEndOfSegment(bool value) { isEndOfSegment_ = value; }

  Track* track() const { return parent_; }
  void setTrack(Track* parent) { parent_ = parent; }

  // --- waypoint attributes (absent unless set) -----------------------------
  const std::optional<std::string>& name() const;
  void setName(std::optional<std::string> value);
  const std::optional<std::string>& description() const;
  void setDescription(std::optional<std::string> value);
  const std::optional<std::string>& comment() const;
  void setComment(std::optional<std::string> value);
  const std::optional<std::string>& source() const;
  void setSource(std::optional<std::string> value);
  const std::optional<std::string>& url() const;
  void setUrl(std::optional<std::string> value);
  const std::optional<std::string>& urlAsPDF() const;
  void setUrlAsPDF(std::optional<std::string> value);
  const std::optional<std::string>& urlName() const;
  void setUrlName(std::optional<std::string> value);
  const std::optional<std::string>& symbol() const;
  void setSymbol(std::optional<std::string> value);
  const std::optional<std::string>& type() const;
  void setType(std::optional<std::string> value);
  const std::optional<std::string>& tags() const;
  void setTags(std::optional<std::string> value);

  /// Not owned: services are long-lived registry entries.
  const GeocachingService* geocachingService() const;
  void setGeocachingService(const GeocachingService* service);
  const GeocachePtr& geocache() const;
  void setGeocache(GeocachePtr geocache);

  // --- photos --------------------------------------------------------------
  /// The attached photos; empty when the point has none.
  const std::vector<TrackPhotoPtr>& trackPhotos() const;
  bool hasPhotos() const;
  TrackPhotoPtr getFirstPhoto() const;
  void addTrackPhoto(TrackPhotoPtr photo) { addTrackPhoto(std::move(photo), false); }
  /// Ignores a photo whose path is already attached; sorted inserts before
  /// the first photo whose path is greater ignoring case, else appends.
  void addTrackPhoto(TrackPhotoPtr photo, bool sorted);
  /// Appends this point's photos to the caller's list.
  void addTrackPhotos(std::vector<TrackPhotoPtr>& into) const;
  /// Removes the photo (by identity) and marks the point dirty.
  void removeTrackPhoto(const TrackPhotoPtr& photo);
  /// Drops the list without marking anything dirty.
  void removePhotoReferences();

  // --- operations -------------------------------------------------------------
  void makeDirty();

  /// Kilometres, great circle.
  double distanceToTrackPoint(const TrackPoint& other) const;
  double distanceToLatitude(double latitude, double longitude) const;
  /// The one distance formula: spherical law of cosines, radius 6371.0 km,
  /// latitude first for both ends; 0.0 instead of NaN for identical points.
  static double distanceFromLatitude(double latitude1, double longitude1, double latitude2,
                                     double longitude2);
  /// Squared degrees: an ordering key for nearest-point searches, not a distance.
  double relativeDistanceToLatitude(double latitude, double longitude) const;

  /// Shifts the position through the normalising setters and marks dirty.
  void moveLatitude(double deltaLatitude, double deltaLongitude);
  /// Takes position and waypoint attributes of an imported waypoint while
  /// keeping the logs recorded here and the external description slot.
  void copyWaypointAttributesFrom(const TrackPoint& source);
  /// Clears the waypoint attributes and the geocache; keeps tags, flag,
  /// photos and position.
  void removeAllWaypointData();
  std::string isGeocacheAsString() const { return geocache() ? "YES" : "NO"; }
  /// Deletes the external description file of this point's geocache.
  void removeExternalGpxFile();

 private:
  struct Attributes;
  Attributes& attributes();
  const Attributes* attributesOrNull() const { return attributes_.get(); }

  int64_t timeMicros_ = 0;
  double latitude_ = 0.0;
  double longitude_ = 0.0;
  double elevation_ = 0.0;
  double speed_ = -1.0;
  double length_ = 0.0;
  Track* parent_ = nullptr;  // not owned: the track owns its points
  std::unique_ptr<Attributes> attributes_;
  int32_t timeOffset_ = 0;
  bool hasTime_ = false;
  bool isWayPoint_ = false;
  bool isEndOfSegment_ = false;
};

using TrackPointPtr = std::shared_ptr<TrackPoint>;

}  // namespace kvtrack
