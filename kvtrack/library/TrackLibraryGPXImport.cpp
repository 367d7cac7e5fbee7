// Importing a GPX file into the library as new tracks.
#include "kvtrack/formats/geocache/GeocacheExternalImport.h"
#include "kvtrack/formats/gpx/GpxHandlers.h"
#include "kvtrack/library/ICloudSynchronizer.h"
#include "kvtrack/library/LibraryRecovery.h"
#include "kvtrack/library/TrackLibrary.h"
#include "kvtrack/library/TrackLibraryGPX.h"
#include "kvtrack/support/FileHandling.h"
#include "kvtrack/support/KvPreferences.h"
#include "kvtrack/support/Log.h"
#include "kvtrack/support/UserDefaults.h"

#include <algorithm>

namespace kvtrack {

namespace {

// The document level: every "trk" or "rte" becomes a new track of the
// target folder, every "wpt" a loose point matched afterwards.
class LibraryRoot : public xml::SaxHandler {
 public:
  LibraryRoot(TrackLibraryFolder& folder, GpxImportConfiguration& configuration,
              gpx::ReadContext& context)
      : folder_(folder), configuration_(configuration), context_(context) {}

  std::vector<TrackPtr> created;
  std::vector<TrackPointPtr> wayPoints;

  void startElement(xml::SaxParser& parser, std::string_view name,
                    const xml::Attributes& attributes) override {
    GpxImportDelegate* delegate = configuration_.delegate();
    if (name == "trk" || name == "rte") {
      if (delegate) delegate->notificationNewTrack();
      auto track = Track::track();
      track->setIsLoaded(true);
      folder_.addTrack(track);
      created.push_back(track);
      gpx::TrackGPXElement::trackGPXElementForTrack(*track, parser, context_);
      if (delegate) delegate->notificationNewTrackOk();
    } else if (name == "wpt") {
      auto point = gpx::WayPointGPXElement::startWayPoint(nullptr, parser, attributes, context_);
      if (point) wayPoints.push_back(std::move(point));
    }
  }

  bool parseError(xml::SaxParser&, const xml::ParseError& error) override {
    logf("TrackLibraryGPX: Error {}, Description: {}, Line: {}, Column: {}", error.code,
         error.description, error.line, error.column);
    return true;
  }

 private:
  TrackLibraryFolder& folder_;
  GpxImportConfiguration& configuration_;
  gpx::ReadContext& context_;
};

void notifyNewTrack(Track& track, GpxImportConfiguration& configuration) {
  auto& preferences = KvPreferences::singleton();
  if (preferences.iCloudSupported().value_or(false)) {
    if (auto synchronizer = preferences.iCloudSynchronizer()) synchronizer->newTrackInTrackLibrary(track);
  }
  if (auto* delegate = configuration.delegate()) delegate->newTrackAdded(track);
}

void removeTrack(const TrackPtr& track, std::vector<TrackPtr>& created) {
  if (auto folder = std::dynamic_pointer_cast<TrackLibraryFolder>(track->parent())) {
    folder->deleteTrack(track);
  }
  std::erase(created, track);
}

// Points of interest go to the library's collection of loose waypoints.
void fileAsPointsOfInterest(Track& track, TrackLibrary& library,
                            GpxImportConfiguration& configuration) {
  Track& collection = *library.waypointTrack();
  std::lock_guard<Track> lock(track);
  for (const auto& point : track.trackPoints()) {
    auto copy = TrackPoint::trackPointWithParent(&collection, *point);
    if (!copy->description()) copy->setDescription("");
    copy->setTags("");
    if (copy->name() && !copy->name()->empty()) {
      collection.addTrackPointNamed(copy);
    } else {
      collection.addTrackPoint(copy);
    }
    configuration.importedPOIs().push_back(copy);
  }
  collection.makeDirty();
}

void fileAsGeocaches(Track& track, TrackLibrary& library, GpxImportConfiguration& configuration) {
  Track& collection = *library.geocacheTrack();
  {
    std::lock_guard<Track> lock(track);
    for (const auto& point : track.trackPoints()) {
      auto copy = TrackPoint::trackPointWithParent(&collection, *point);
      if (!copy->geocache() && copy->name() && copy->name()->starts_with("GC")) {
        auto cache = std::make_shared<Geocache>();
        cache->owner = cache->country = cache->description = cache->hints = "";
        cache->identifier = cache->license = cache->locale = cache->state = "";
        cache->summary = cache->descriptionAsPDF = "";
        cache->name = copy->description().value_or("");
        cache->status = 1;
        cache->container = 6;
        cache->yourLogType = 1;
        copy->setGeocache(cache);
      }
      collection.addTrackPointNamed(copy);
      collection.makeDirty();
      configuration.setFiledGeocacheCounter(configuration.filedGeocacheCounter() + 1);
    }
  }
  // Written now so that the descriptions can leave memory. After a failure
  // (logged) they stay, and the collection is written with the next save.
  if (!collection.saveToLibraryWithExternalGPX()) return;
  std::lock_guard<Track> lock(collection);
  for (const auto& point : collection.trackPoints()) {
    if (point->geocache()) point->geocache()->unloadExternals();
  }
}

// One file read into the library, step by step.
class FileImport {
 public:
  FileImport(TrackLibrary& library, TrackLibraryFolder& target, GpxImportConfiguration& configuration)
      : library_(library), target_(target), configuration_(configuration) {}

  GpxFileImport run(const std::string& path) {
    gpx::ReadContext context{path, 0};
    LibraryRoot root(target_, configuration_, context);
    xml::SaxParser parser;
    const bool parsed = parser.parseFile(path, root);
    configuration_.setInvalidPositionCounter(configuration_.invalidPositionCounter() +
                                             context.invalidPositions);
    created_ = std::move(root.created);
    const bool fileHadTracks = !created_.empty();
    settleNewTracks();
    if (!configuration_.removeAllWaypoints()) {
      if (!created_.empty()) {
        matchWayPoints(root.wayPoints);
      } else if (!fileHadTracks && !root.wayPoints.empty()) {
        // When the file's tracks were all refused as duplicates, its
        // waypoints are not filed as places either.
        fileLooseWayPoints(root.wayPoints);
      }
    }
    if (configuration_.isExternal()) dropTinyTracks();

    auto& imported = configuration_.mutableImportedTracks();
    imported.insert(imported.end(), created_.begin(), created_.end());
    configuration_.setNewTrackCounter(configuration_.newTrackCounter() +
                                      static_cast<int64_t>(created_.size()));
    GpxFileImport result{static_cast<int32_t>(created_.size() + duplicates_), {}};
    if (!parsed) {
      logLine("TrackLibraryGPX: Error parsing file!");
      result.status = Status::failure(parser.error() ? parser.error()->reason() : "not readable");
    }
    return result;
  }

 private:
  // Time zone and id of each new track; duplicates of library tracks go.
  void settleNewTracks() {
    const auto timeZone = KvPreferences::singleton().timeZoneInMinutes();
    const bool ignoreIds =
        UserDefaults::singleton().boolForKey("IgnoreTrackIdDuringImport").value_or(false);
    for (const auto& track : std::vector<TrackPtr>(created_)) {
      track->setNewlyImported(configuration_.isExternal());
      if (configuration_.setTimeZone() && !track->timezoneSetDuringImport() && timeZone) {
        track->setTimezoneOffset(*timeZone);
      }
      if (const auto& prefix = configuration_.trackIdPrefix()) {
        const auto id = contentTrackId(*track, *prefix);
        if (id && library_.trackWithTrackId(*id) && !ignoreIds) {
          logf("Track with ID {} already exists and will not be imported!", *id);
          configuration_.setIdenticalTrackCounter(configuration_.identicalTrackCounter() + 1);
          ++duplicates_;
          removeTrack(track, created_);
          continue;
        }
        track->setTrackId(id ? *id : FileHandling::guid());
      }
      track->updateAll();
    }
  }

  // Each named waypoint marks the first matching point of the new tracks.
  // A single track whose every point is so named is a list of places.
  void matchWayPoints(const std::vector<TrackPointPtr>& wayPoints) {
    size_t matches = 0;
    for (const auto& wayPoint : wayPoints) {
      if (!wayPoint->name() || wayPoint->name()->empty()) continue;
      for (const auto& track : created_) {
        auto match = track->findTrackPointForWayPoint(*wayPoint);
        if (!match) continue;
        match->setIsWayPoint(true);
        match->copyWaypointAttributesFrom(*wayPoint);
        ++matches;
        break;
      }
    }
    if (created_.size() == 1 && !configuration_.doNotImportPOIs() &&
        matches == created_.front()->loadedPointCount()) {
      const TrackPtr track = created_.front();
      track->setType(Track::kPlaceCollection);
      fileAsPointsOfInterest(*track, library_, configuration_);
      removeTrack(track, created_);
    }
    for (const auto& track : created_) track->updateProperties();  // counts after matching
  }

  // A file of waypoints alone: a track of them, filed as geocaches or
  // places when it is one of those, kept as a track otherwise.
  void fileLooseWayPoints(const std::vector<TrackPointPtr>& wayPoints) {
    auto track = Track::track();
    if (const auto& name = wayPoints.front()->name()) track->setName(*name);
    track->setIsLoaded(true);
    target_.addTrack(track);
    for (const auto& wayPoint : wayPoints) {
      auto copy = TrackPoint::trackPointWithParent(track.get(), *wayPoint);
      const bool unnamed = copy->name() && copy->name()->starts_with("WPT");
      if (unnamed) copy->setName(std::nullopt);
      copy->setIsWayPoint(!unnamed);
      track->addTrackPoint(copy);
    }
    track->updateAll();
    if (track->type() == Track::kGeocacheCollection) {
      fileAsGeocaches(*track, library_, configuration_);
      target_.deleteTrack(track);
    } else if (track->type() == Track::kPlaceCollection && !configuration_.doNotImportPOIs()) {
      fileAsPointsOfInterest(*track, library_, configuration_);
      target_.deleteTrack(track);
    } else {
      created_.push_back(track);
      notifyNewTrack(*track, configuration_);
    }
  }

  // Tracks from a device need two points, or one waypoint.
  void dropTinyTracks() {
    for (const auto& track : std::vector<TrackPtr>(created_)) {
      const size_t count = track->loadedPointCount();
      const bool lonelyWaypoint = count == 1 && track->trackPoints().front()->isWayPoint();
      if (count < 2 && !lonelyWaypoint) {
        removeTrack(track, created_);
      } else {
        notifyNewTrack(*track, configuration_);
      }
    }
  }

  TrackLibrary& library_;
  TrackLibraryFolder& target_;
  GpxImportConfiguration& configuration_;
  std::vector<TrackPtr> created_;
  int32_t duplicates_ = 0;
};

}  // namespace

GpxFileImport TrackLibraryGPX::importFrom(const std::string& path,
                                          GpxImportConfiguration& configuration) {
  GeocacheExternalImport::install();
  const auto library = TrackLibrary::singleton();
  TrackLibraryFolderPtr target = configuration.targetFolder();
  if (!target) target = library;  // design decision: files without a folder go to the root
  if (path.empty()) {
    logLine("Error creating URL!");
    return {0, Status::failure("no file named")};
  }
  return FileImport(*library, *target, configuration).run(path);
}

}  // namespace kvtrack
