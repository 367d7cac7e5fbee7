#include "kvtrack/model/TrackPoint.h"

#include "kvtrack/model/Track.h"
#include "kvtrack/model/detail/GreatCircle.h"
#include "kvtrack/support/CaseInsensitive.h"
#include "kvtrack/support/FileHandling.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <filesystem>

namespace kvtrack {

// Storage only points with waypoint data, geocaches or photos allocate.
struct TrackPoint::Attributes {
  std::optional<std::string> name, description, comment, source, url, urlAsPDF, urlName, symbol,
      type, tags;
  const GeocachingService* geocachingService = nullptr;
  GeocachePtr geocache;
  std::vector<TrackPhotoPtr> photos;
};

static_assert(sizeof(TrackPoint) <= 72, "keep plain track points small");

namespace {
const std::optional<std::string> kAbsent;
const GeocachePtr kNoGeocache;
const std::vector<TrackPhotoPtr> kNoPhotos;
}  // namespace

TrackPoint::TrackPoint(Track* parent) : parent_(parent) {}

TrackPoint::~TrackPoint() {
  // Photos may outlive the point in a caller's list; do not leave them dangling.
  if (attributes_) {
    for (const auto& photo : attributes_->photos) {
      if (photo->trackPoint() == this) photo->setTrackPoint(nullptr);
    }
  }
}

std::shared_ptr<TrackPoint> TrackPoint::trackPointWithParent(Track* parent) {
  return std::make_shared<TrackPoint>(parent);
}

std::shared_ptr<TrackPoint> TrackPoint::trackPointWithParent(Track* parent,
                                                             const TrackPoint& source) {
  auto point = std::make_shared<TrackPoint>(parent);
  point->setTime(source.time());
  point->setLongitude(source.longitude());
  point->setLatitude(source.latitude());
  point->setElevation(source.elevation());
  point->setSpeed(source.speed());
  point->setIsWayPoint(source.isWayPoint());
  point->setIsEndOfSegment(source.isEndOfSegment());
  if (const Attributes* a = source.attributesOrNull()) {
    point->setName(a->name);
    point->setDescription(a->description);
    point->setComment(a->comment);
    point->setSource(a->source);
    point->setUrl(a->url);
    point->setUrlAsPDF(a->urlAsPDF);
    point->setUrlName(a->urlName);
    point->setSymbol(a->symbol);
    point->setType(a->type);
    point->setGeocachingService(a->geocachingService);
    point->setGeocache(a->geocache ? a->geocache->copy() : nullptr);
    for (const auto& photo : a->photos) point->addTrackPhoto(photo->copy());
  }
  return point;
}

TrackPoint::Attributes& TrackPoint::attributes() {
  if (!attributes_) attributes_ = std::make_unique<Attributes>();
  return *attributes_;
}

void TrackPoint::setTime(std::optional<ISODate> time) {
  hasTime_ = time.has_value();
  timeMicros_ = time ? time->microsecondsSince1970() : 0;
  timeOffset_ = time ? time->timezoneOffset() : 0;
}

void TrackPoint::setLatitude(double v) {
  if (v > 90.0) v -= 180.0;
  if (v < -90.0) v += 180.0;
  latitude_ = v;
}

void TrackPoint::setLongitude(double v) {
  if (v > 180.0) v -= 360.0;
  if (v < -180.0) v += 360.0;
  longitude_ = v;
}

void TrackPoint::setElevation(double v) {
  elevation_ = std::isfinite(v) ? v : std::nan("");
}

// Absent values never allocate the side record.
#define KVTRACK_POINT_ATTRIBUTE(getter, setter, field)                        \
  const std::optional<std::string>& TrackPoint::getter() const {              \
    return attributes_ ? attributes_->field : kAbsent;                        \
  }                                                                           \
  void TrackPoint::setter(std::optional<std::string> value) {                 \
    if (!value && !attributes_) return;                                       \
    attributes().field = std::move(value);                                    \
  }

KVTRACK_POINT_ATTRIBUTE(name, setName, name)
KVTRACK_POINT_ATTRIBUTE(description, setDescription, description)
KVTRACK_POINT_ATTRIBUTE(comment, setComment, comment)
KVTRACK_POINT_ATTRIBUTE(source, setSource, source)
KVTRACK_POINT_ATTRIBUTE(url, setUrl, url)
KVTRACK_POINT_ATTRIBUTE(urlAsPDF, setUrlAsPDF, urlAsPDF)
KVTRACK_POINT_ATTRIBUTE(urlName, setUrlName, urlName)
KVTRACK_POINT_ATTRIBUTE(symbol, setSymbol, symbol)
KVTRACK_POINT_ATTRIBUTE(type, setType, type)
KVTRACK_POINT_ATTRIBUTE(tags, setTags, tags)
#undef KVTRACK_POINT_ATTRIBUTE

const GeocachingService* TrackPoint::geocachingService() const {
  return attributes_ ? attributes_->geocachingService : nullptr;
}

void TrackPoint::setGeocachingService(const GeocachingService* service) {
  if (!service && !attributes_) return;
  attributes().geocachingService = service;
}

const GeocachePtr& TrackPoint::geocache() const {
  return attributes_ ? attributes_->geocache : kNoGeocache;
}

void TrackPoint::setGeocache(GeocachePtr geocache) {
  if (!geocache && !attributes_) return;
  attributes().geocache = std::move(geocache);
}

const std::vector<TrackPhotoPtr>& TrackPoint::trackPhotos() const {
  return attributes_ ? attributes_->photos : kNoPhotos;
}

bool TrackPoint::hasPhotos() const { return attributes_ && !attributes_->photos.empty(); }

TrackPhotoPtr TrackPoint::getFirstPhoto() const {
  return hasPhotos() ? attributes_->photos.front() : nullptr;
}

void TrackPoint::addTrackPhoto(TrackPhotoPtr photo, bool sorted) {
  if (!photo) return;
  auto& photos = attributes().photos;
  const std::string& path = photo->originalFilepath();
  if (std::any_of(photos.begin(), photos.end(),
                  [&](const TrackPhotoPtr& p) { return p->originalFilepath() == path; })) {
    return;  // the same file is attached only once
  }
  if (photos.empty()) photos.reserve(8);
  auto at = photos.end();
  if (sorted) {
    at = std::find_if(photos.begin(), photos.end(), [&](const TrackPhotoPtr& p) {
      return compareCaseInsensitive(p->originalFilepath(), path) > 0;
    });
  }
  photo->setTrackPoint(this);
  photos.insert(at, std::move(photo));
}

void TrackPoint::addTrackPhotos(std::vector<TrackPhotoPtr>& into) const {
  const auto& photos = trackPhotos();
  into.insert(into.end(), photos.begin(), photos.end());
}

void TrackPoint::removeTrackPhoto(const TrackPhotoPtr& photo) {
  if (!attributes_) return;
  auto& photos = attributes_->photos;
  std::erase(photos, photo);
  makeDirty();
  if (photos.empty()) std::vector<TrackPhotoPtr>().swap(photos);
}

void TrackPoint::removePhotoReferences() {
  if (attributes_) std::vector<TrackPhotoPtr>().swap(attributes_->photos);
}

void TrackPoint::makeDirty() {
  if (parent_) parent_->makeDirty();
}

double TrackPoint::distanceToTrackPoint(const TrackPoint& other) const {
  return distanceToLatitude(other.latitude_, other.longitude_);
}

double TrackPoint::distanceToLatitude(double latitude, double longitude) const {
  return distanceFromLatitude(latitude_, longitude_, latitude, longitude);
}

double TrackPoint::distanceFromLatitude(double latitude1, double longitude1, double latitude2,
                                        double longitude2) {
  return detail::greatCircleDistance(detail::SphericalCoordinate::of(latitude1, longitude1),
                                     detail::SphericalCoordinate::of(latitude2, longitude2));
}

double TrackPoint::relativeDistanceToLatitude(double latitude, double longitude) const {
  const double dLat = latitude - latitude_;
  const double dLon = longitude - longitude_;
  return dLat * dLat + dLon * dLon;
}

void TrackPoint::moveLatitude(double deltaLatitude, double deltaLongitude) {
  setLatitude(latitude_ + deltaLatitude);
  setLongitude(longitude_ + deltaLongitude);
  makeDirty();
}

void TrackPoint::copyWaypointAttributesFrom(const TrackPoint& source) {
  setLatitude(source.latitude());
  setLongitude(source.longitude());
  setElevation(source.elevation());
  setName(source.name());
  setDescription(source.description());
  setComment(source.comment());
  setSource(source.source());
  setUrl(source.url());
  setUrlAsPDF(source.urlAsPDF());
  setUrlName(source.urlName());
  setSymbol(source.symbol());
  setType(source.type());

  const GeocachePtr own = geocache();
  const int32_t ownLogType = own ? own->yourLogType : 0;
  if (own) {
    // Logs recorded here are handed to the incoming record first.
    own->loadExternalGpx();
    if (source.geocache()) source.geocache()->addLogs(own->logs);
  }
  const int32_t ownIndex = own ? own->indexForGPXExternalFile : 0;

  // The replacement keeps the incoming logs, which now include ours: a plain
  // copy starts without logs and would lose them.
  GeocachePtr replacement;
  if (const GeocachePtr& incoming = source.geocache()) {
    replacement = incoming->copy();
    for (const auto& log : incoming->logs) {
      replacement->logs.push_back(std::make_shared<GeocacheLog>(*log));
    }
  }
  setGeocache(std::move(replacement));
  setGeocachingService(source.geocachingService());
  if (const GeocachePtr& replaced = geocache()) {
    // The external description file keeps its slot and is rewritten at the next save.
    replaced->indexForGPXExternalFile = ownIndex;
    replaced->externalGPXFileDirty = true;
    replaced->externalGPXFileLoaded = true;
    if (ownLogType == 0) replaced->yourLogType = 0;
  }
  makeDirty();
}

void TrackPoint::removeAllWaypointData() {
  if (attributes_) {
    auto& a = *attributes_;
    a.name.reset();
    a.description.reset();
    a.comment.reset();
    a.source.reset();
    a.url.reset();
    a.urlAsPDF.reset();
    a.urlName.reset();
    a.symbol.reset();
    a.type.reset();
    a.geocache.reset();
    a.geocachingService = nullptr;
  }
  makeDirty();
}

void TrackPoint::removeExternalGpxFile() {
  const GeocachePtr& cache = geocache();
  if (!cache || cache->indexForGPXExternalFile < 0) return;
  const std::string folder =
      fmt::format("{}/all_geocaches.gpxx_ext", FileHandling::singleton().userApplicationSupport());
  std::error_code ignored;  // a missing file is fine
  std::filesystem::remove(fmt::format("{}/desc{:09}.gpxx", folder, cache->indexForGPXExternalFile),
                          ignored);
}

}  // namespace kvtrack
