#pragma once
// A recorded route: an ordered list of track points (waypoints mixed in),
// display attributes, library bookkeeping and cached statistics.
//
// Each track is its own recursive lock (Track meets the Lockable
// requirements): every operation that reads or changes the point list
// takes it for its whole run, and trackPoints() hands out a view that holds
// it for as long as the view lives. Points are read from the library on
// first use (loadFromLibrary); the statistic getters never load.
// Units: kilometres for lengths, km/h for speeds, metres for elevations and
// corridor widths, seconds for durations, minutes for time-zone offsets.

#include "kvtrack/model/NamedAndTimedObject.h"
#include "kvtrack/model/PointInTrack.h"
#include "kvtrack/model/TrackPoint.h"
#include "kvtrack/support/Status.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace kvtrack {

class TrackFolder;
class TrackPoints;

/// Line colour, components 0..1.
struct Color {
  double red = 0.0, green = 0.0, blue = 1.0, alpha = 1.0;
  bool operator==(const Color&) const = default;
};

class Track : public NamedAndTimedObject, public std::enable_shared_from_this<Track> {
 public:
  /// Track type: how the points are meant (set once by updateProperties).
  enum Type : int32_t {
    kRecordedTrack = 0,
    kPlaceCollection = 1,    // every point a waypoint, or no point with a time
    kGeocacheCollection = 2, // every point a geocache
    kLibraryCollection = 3,  // the library's own geocache and waypoint collections
  };

  explicit Track(std::string name = {});
  ~Track() override;
  Track(const Track&) = delete;
  Track& operator=(const Track&) = delete;

  static std::shared_ptr<Track> track() { return std::make_shared<Track>(); }
  static std::shared_ptr<Track> trackWithName(std::string name) {
    return std::make_shared<Track>(std::move(name));
  }
  /// Duplicates of the points, colour and corridor, times and length; not
  /// the name, width, description, tags, identifiers or flags.
  std::shared_ptr<Track> copy();

  // --- the lock ------------------------------------------------------------
  void lock() const { mutex_.lock(); }
  void unlock() const { mutex_.unlock(); }
  bool try_lock() const { return mutex_.try_lock(); }

  // --- point list ------------------------------------------------------------
  /// The live list (loaded first), locked for as long as the view lives.
  TrackPoints trackPoints();
  /// Replaces the list; no dirty mark.
  void setTrackPoints(std::vector<TrackPointPtr> points);
  /// Number of points in memory, without loading.
  size_t loadedPointCount() const;
  /// Number of points without loading: those in memory once loaded, else
  /// the number the library index recorded.
  int32_t pointCount() const;
  void setStoredPointCount(int32_t count) { storedPointCount_ = count; }

  void addTrackPoint(TrackPointPtr point);
  /// Inserts behind the reference point (by identity); nothing when the
  /// reference is not in the track. Marks dirty in both cases.
  void addTrackPoint(TrackPointPtr point, const TrackPoint* afterPoint);
  /// Inserts by time. A track point at the time of an existing point is
  /// merged into it (its photos move over) and the existing point returned;
  /// a waypoint at that time goes before it.
  TrackPointPtr addTrackPointSorted(TrackPointPtr point);
  /// Merges a waypoint into the first point of the same name, or appends it.
  TrackPointPtr addTrackPointNamed(TrackPointPtr point);
  void deleteTrackPoint(TrackPoint* point);
  /// Removes the point the record names, but never the first point.
  static void deletePointInTrack(const PointInTrack& position);
  void removeAllWaypoints();
  /// Drops points from the end down to max(count, 100).
  void stripToAtMostTrackPoints(int32_t count);
  TrackPointPtr firstPoint();
  TrackPointPtr lastPoint();

  // --- navigation by position ------------------------------------------------
  PointInTrack firstPointInTrack();
  static PointInTrack nextPointInTrack(const PointInTrack& position) {
    return nextPointInTrack(position, 1);
  }
  static PointInTrack nextPointInTrack(const PointInTrack& position, int32_t stepSize);
  static PointInTrack previousPointInTrack(const PointInTrack& position) {
    return previousPointInTrack(position, 1);
  }
  static PointInTrack previousPointInTrack(const PointInTrack& position, int32_t stepSize);
  static PointInTrack nextWayPointInTrack(const PointInTrack& position);
  static PointInTrack previousWayPointInTrack(const PointInTrack& position);
  TrackPointPtr nextPoint(const TrackPoint* point);
  TrackPointPtr previousPoint(const TrackPoint* point);

  // --- searches --------------------------------------------------------------
  /// Nearest point in time by bisection (time-ordered points assumed);
  /// whole seconds only, ties go to the later point; absent outside the track.
  TrackPointPtr findTrackPointWithDate(const std::optional<ISODate>& date);
  TrackPointPtr findTrackPointBeforeDate(const ISODate& date);
  TrackPointPtr findTrackPointAfterDate(const ISODate& date);
  /// First point at exactly the same latitude and longitude.
  TrackPointPtr findTrackPointForCoords(const TrackPoint& point);
  /// The point a waypoint read from a file names: the one at its position
  /// (when both coordinates are non-zero), else the one nearest its time.
  TrackPointPtr findTrackPointForWayPoint(const TrackPoint& wayPoint);
  PointInTrack findNearestPointForLatitude(double latitude, double longitude);
  /// Continues a search over several tracks: returns the better of the given
  /// record and this track's nearest point (earliest among equals).
  PointInTrack findNearestPointForLatitude(double latitude, double longitude,
                                           PointInTrack nearestPoint);
  /// The first point lies strictly after the date (false for an empty track).
  bool isBeforeTrack(const ISODate& date);
  /// The last point lies strictly before the date (false for an empty track).
  bool isAfterTrack(const ISODate& date);

  // --- statistics --------------------------------------------------------------
  /// Elevation range, ascent and descent (10 m hysteresis), counts and type.
  /// Skipped for clean tracks computed before; uses the points in memory.
  void updateProperties();
  void update() { updateProperties(); }
  /// Per-point speeds smoothed over the minimum interval, and the speed range.
  void updateSpeeds();
  /// Sets every point's leg length and returns their sum (km).
  double calcLength();
  void updateLength();
  void updateTimes();
  void updateAll();

  double minElevation();
  double maxElevation();
  double minSpeed();
  double maxSpeed();
  double ascending();
  double descending();
  double length() const { return length_; }
  void setLength(double km) { length_ = km; }

  void calcMinLatitude(double& minLatitude, double& maxLatitude, double& minLongitude,
                       double& maxLongitude);
  /// A box from about 17 sampled points of those in memory.
  void estimateMinLatitude(double& minLatitude, double& maxLatitude, double& minLongitude,
                           double& maxLongitude);

  /// Re-expresses every point and photo time in the offset; instants stay.
  void setTimezoneOffset(int32_t minutes);
  int32_t timezoneOffset();

  // --- flags and attributes ---------------------------------------------------
  bool isDirty() const { return isDirty_.load(std::memory_order_relaxed); }
  void setIsDirty(bool value) { isDirty_.store(value, std::memory_order_relaxed); }
  void makeDirty() { setIsDirty(true); }
  bool propertiesUpdated() const { return propertiesUpdated_; }
  void setPropertiesUpdated(bool value) { propertiesUpdated_ = value; }
  bool isLoaded() const { return isLoaded_; }
  void setIsLoaded(bool value) { isLoaded_ = value; }
  bool isSelected() const { return isSelected_; }
  void setIsSelected(bool value) { isSelected_ = value; }
  bool isHidden() const { return isHidden_; }
  void setIsHidden(bool value) { isHidden_ = value; }
  bool metadataDirty() const { return metadataDirty_; }
  void setMetadataDirty(bool value) { metadataDirty_ = value; }
  bool newlyImported() const { return newlyImported_; }
  void setNewlyImported(bool value) { newlyImported_ = value; }
  bool timezoneSetDuringImport() const { return timezoneSetDuringImport_; }
  void setTimezoneSetDuringImport(bool value) { timezoneSetDuringImport_ = value; }
  bool doNotSaveInStandardLibrary() const { return doNotSaveInStandardLibrary_; }
  void setDoNotSaveInStandardLibrary(bool value) { doNotSaveInStandardLibrary_ = value; }
  bool syncPhotosOniPhone() const { return syncPhotosOniPhone_; }
  void setSyncPhotosOniPhone(bool value) { syncPhotosOniPhone_ = value; }
  bool iCloudIsUploading() const { return iCloudIsUploading_; }
  void setICloudIsUploading(bool value) { iCloudIsUploading_ = value; }
  double iCloudTimestamp() const { return iCloudTimestamp_; }
  void setICloudTimestamp(double value) { iCloudTimestamp_ = value; }
  const std::optional<std::string>& trackId() const { return trackId_; }
  void setTrackId(std::optional<std::string> value) { trackId_ = std::move(value); }
  const std::optional<std::string>& iCloudId() const { return iCloudId_; }
  void setICloudId(std::optional<std::string> value) { iCloudId_ = std::move(value); }
  int32_t type() const { return type_; }
  void setType(int32_t value) { type_ = value; }
  int32_t photoCount() const { return photoCount_; }
  void setPhotoCount(int32_t value) { photoCount_ = value; }
  int32_t waypointCount() const { return waypointCount_; }
  void setWaypointCount(int32_t value) { waypointCount_ = value; }
  int32_t geocacheCount() const { return geocacheCount_; }
  void setGeocacheCount(int32_t value) { geocacheCount_ = value; }
  int32_t counterGPXExternal() const { return counterGPXExternal_; }
  void setCounterGPXExternal(int32_t value) { counterGPXExternal_ = value; }
  /// Returns the counter, then increments it.
  int32_t nextIndexForGPXExternalFile() { return counterGPXExternal_++; }

  const std::optional<std::string>& filename() const { return filename_; }
  void setFilename(std::optional<std::string> value) { filename_ = std::move(value); }
  /// Asks the library's store for a fresh file name; nothing without a store.
  void generateNewFilename();

  std::shared_ptr<TrackFolder> parent() const { return parent_.lock(); }
  void setParent(const std::shared_ptr<TrackFolder>& folder) { parent_ = folder; }

  void setName(std::string name) override;
  const Color& color() const { return color_; }
  /// Marks dirty only when the colour changes.
  void setColor(const Color& color);
  bool showArea() const { return showArea_; }
  void setShowArea(bool value);
  bool showDirectionArrows() const { return showDirectionArrows_; }
  void setShowDirectionArrows(bool value) { showDirectionArrows_ = value; }
  float areaDistanceInMeter() const { return areaDistanceInMeter_; }
  void setAreaDistanceInMeter(float metres);
  float width() const { return width_; }
  void setWidth(float value);
  const std::optional<std::string>& description() const { return description_; }
  void setDescription(std::optional<std::string> value);
  const std::optional<std::string>& tags() const { return tags_; }
  void setTags(std::optional<std::string> value);

  // --- position in the library -------------------------------------------------
  /// Folder names from the root down, joined by "####".
  std::string folderPath() const;
  std::string path();
  /// Puts this track's index in its folder in front and continues upward.
  void addPath(std::string& path);
  /// Ancestor folder names, root first, empty names left out.
  std::vector<std::string> pathArray();

  int compareLength(const Track& other) const;
  int compareLengthDescending(const Track& other) const;
  int compareDuration(const Track& other) const;
  int compareDurationDescending(const Track& other) const;

  // --- storage -------------------------------------------------------------------
  /// Reads the points from the library on first use; always true.
  bool loadFromLibrary();
  /// Saves and drops the points; the metadata stay. Posts "UnloadingTrack" first.
  /// Points that cannot be saved stay loaded.
  void unload();
  /// Writes the track file when the track is dirty and loaded.
  Status saveToLibrary();
  /// The same for the library's own collections (descriptions kept apart).
  Status saveToLibraryWithExternalGPX();
  /// Why the track's file could not be read whole when it was loaded
  /// ("its file Track00000003.gpx is missing"); nothing for a sound track.
  /// The library keeps the file's bytes aside before it saves such a track.
  const std::optional<std::string>& damage() const { return damage_; }
  void setDamage(std::optional<std::string> reason) { damage_ = std::move(reason); }

 private:
  mutable std::recursive_mutex mutex_;
  std::vector<TrackPointPtr> trackPoints_;
  std::atomic<bool> isDirty_{false};
  bool propertiesUpdated_ = false;
  bool isLoaded_ = false;
  bool isSelected_ = false;
  bool isHidden_ = false;
  std::optional<std::string> filename_;
  std::weak_ptr<TrackFolder> parent_;
  double minElevation_ = 0.0, maxElevation_ = 0.0, minSpeed_ = 0.0, maxSpeed_ = 0.0;
  double length_ = 0.0, ascending_ = 0.0, descending_ = 0.0;
  int32_t photoCount_ = 0, waypointCount_ = 0, geocacheCount_ = 0;
  int32_t storedPointCount_ = 0;
  Color color_;
  bool showArea_ = false;
  bool showDirectionArrows_ = true;
  float areaDistanceInMeter_ = 0.0f;
  float width_ = 1.0f;
  bool metadataDirty_ = false;
  bool timezoneSetDuringImport_ = false;
  bool newlyImported_ = false;
  std::optional<std::string> description_;
  std::optional<std::string> tags_;
  bool syncPhotosOniPhone_ = false;
  int32_t type_ = kRecordedTrack;
  int32_t counterGPXExternal_ = 0;
  bool doNotSaveInStandardLibrary_ = false;
  std::optional<std::string> trackId_;
  std::optional<std::string> iCloudId_;
  bool iCloudIsUploading_ = false;
  double iCloudTimestamp_ = 0.0;
  std::optional<std::string> damage_;
};

/// A track's point list, with the track's lock held while the view lives:
/// range-for over it, index it, or change the list through -> and *.
/// Keep it no longer than needed; other threads wait for it.
class TrackPoints {
 public:
  using List = std::vector<TrackPointPtr>;

  TrackPoints(TrackPoints&&) noexcept = default;
  TrackPoints& operator=(TrackPoints&&) noexcept = default;

  List::iterator begin() const { return points_->begin(); }
  List::iterator end() const { return points_->end(); }
  size_t size() const { return points_->size(); }
  bool empty() const { return points_->empty(); }
  const TrackPointPtr& operator[](size_t index) const { return (*points_)[index]; }
  const TrackPointPtr& front() const { return points_->front(); }
  const TrackPointPtr& back() const { return points_->back(); }
  List& operator*() const { return *points_; }
  List* operator->() const { return points_; }

 private:
  friend class Track;
  TrackPoints(const Track& track, List& points) : lock_(track), points_(&points) {}

  std::unique_lock<const Track> lock_;
  List* points_;
};

using TrackPtr = std::shared_ptr<Track>;

}  // namespace kvtrack
