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
#include <atomic>

namespace kvtrack {

namespace {

std::atomic<bool> nextImportIsExternal{false};
std::atomic<int32_t> filedGeocaches{0};

// The document level: every "trk" or "rte" becomes a new track of the
// target folder, every "wpt" a loose point matched afterwards.
class LibraryRoot : public xml::SaxHandler {
 public:
  LibraryRoot(TrackLibraryFolder& folder, GpxImportConfiguration& configuration,
              gpx::ReadContext& context)
      : folder_(folder), configuration_(configuration), context_(context) {}

  std::vector<TrackPtr> created;
  std::vector<TrackPointPtr> wayPoints;
  int32_t trackCounter = 0;

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
      ++trackCounter;
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

TrackPointPtr matchWayPoint(Track& track, const TrackPoint& wayPoint) {
  TrackPointPtr match;
  if (wayPoint.latitude() != 0.0 && wayPoint.longitude() != 0.0) {
    match = track.findTrackPointForCoords(wayPoint);
  }
  if (!match) match = track.findTrackPointWithDate(wayPoint.time());
  return match;
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

void fileAsGeocaches(Track& track, TrackLibrary& library) {
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
      ++filedGeocaches;
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

}  // namespace

void TrackLibraryGPX::setNextImportIsExternal() { nextImportIsExternal = true; }
int32_t TrackLibraryGPX::geocacheCount() { return filedGeocaches; }
void TrackLibraryGPX::resetGeocacheCount() { filedGeocaches = 0; }

int32_t TrackLibraryGPX::importFrom(const std::string& path, GpxImportConfiguration& configuration) {
  GeocacheExternalImport::install();
  lastImportSucceeded_ = false;
  const auto library = TrackLibrary::singleton();
  TrackLibraryFolderPtr target = configuration.targetFolder();
  if (!target) target = library;  // design decision: files without a folder go to the root
  if (path.empty()) {
    logLine("Error creating URL!");
    nextImportIsExternal = false;
    return 0;
  }
  importFilename_ = path;
  gpx::ReadContext context{path, 0};
  LibraryRoot root(*target, configuration, context);
  xml::SaxParser parser;
  const bool parsed = parser.parseFile(path, root);
  configuration.setInvalidPositionCounter(configuration.invalidPositionCounter() +
                                          context.invalidPositions);
  const bool external = nextImportIsExternal;
  std::vector<TrackPtr>& created = root.created;
  int32_t& trackCounter = root.trackCounter;

  const auto timeZone = KvPreferences::singleton().timeZoneInMinutes();
  std::vector<TrackPtr> duplicates;
  for (const auto& track : created) {
    track->setNewlyImported(external);
    if (configuration.setTimeZone() && !track->timezoneSetDuringImport() && timeZone) {
      track->setTimezoneOffset(*timeZone);
    }
    if (const auto& prefix = configuration.trackIdPrefix()) {
      if (const auto contentId = contentTrackId(*track, *prefix)) {
        const std::string& id = *contentId;
        const bool ignoreIds =
            UserDefaults::singleton().boolForKey("IgnoreTrackIdDuringImport").value_or(false);
        if (library->trackWithTrackId(id) && !ignoreIds) {
          logf("Track with ID {} already exists and will not be imported!", id);
          duplicates.push_back(track);
          configuration.setIdenticalTrackCounter(configuration.identicalTrackCounter() + 1);
          continue;
        }
        track->setTrackId(id);
      } else {
        track->setTrackId(FileHandling::guid());
      }
    }
    track->updateAll();
  }
  for (const auto& duplicate : duplicates) removeTrack(duplicate, created);

  const bool fileHadTracks = trackCounter > 0;
  if (!configuration.removeAllWaypoints() && !created.empty()) {
    size_t matches = 0;
    for (const auto& wayPoint : root.wayPoints) {
      for (const auto& track : created) {
        auto match = matchWayPoint(*track, *wayPoint);
        if (!match || !wayPoint->name() || wayPoint->name()->empty()) continue;
        match->setIsWayPoint(true);
        match->copyWaypointAttributesFrom(*wayPoint);
        ++matches;
        break;
      }
    }
    if (created.size() == 1 && !configuration.doNotImportPOIs() &&
        matches == created.front()->loadedPointCount()) {
      // Every point named by a waypoint: a list of points of interest.
      const TrackPtr track = created.front();
      track->setType(Track::kPlaceCollection);
      --trackCounter;
      fileAsPointsOfInterest(*track, *library, configuration);
      removeTrack(track, created);
    }
    for (const auto& track : created) track->updateProperties();  // counts after matching
  } else if (!configuration.removeAllWaypoints() && !fileHadTracks && !root.wayPoints.empty()) {
    // Only a file of waypoints alone: when its tracks were all refused as
    // duplicates, its waypoints are not filed as places either.
    auto track = Track::track();
    if (const auto& name = root.wayPoints.front()->name()) track->setName(*name);
    track->setIsLoaded(true);
    target->addTrack(track);
    ++trackCounter;
    for (const auto& wayPoint : root.wayPoints) {
      auto copy = TrackPoint::trackPointWithParent(track.get(), *wayPoint);
      if (copy->name() && copy->name()->starts_with("WPT")) {
        copy->setName(std::nullopt);
        copy->setIsWayPoint(false);
      } else {
        copy->setIsWayPoint(true);
      }
      track->addTrackPoint(copy);
    }
    track->updateAll();
    if (track->type() == Track::kGeocacheCollection) {
      --trackCounter;
      fileAsGeocaches(*track, *library);
      target->deleteTrack(track);
    } else if (track->type() == Track::kPlaceCollection && !configuration.doNotImportPOIs()) {
      --trackCounter;
      fileAsPointsOfInterest(*track, *library, configuration);
      target->deleteTrack(track);
    } else {
      created.push_back(track);
      notifyNewTrack(*track, configuration);
    }
  }

  if (external) {
    for (const auto& track : std::vector<TrackPtr>(created)) {
      const size_t count = track->loadedPointCount();
      const bool lonelyWaypoint = count == 1 && track->trackPoints().front()->isWayPoint();
      if (count < 2 && !lonelyWaypoint) {
        --trackCounter;
        removeTrack(track, created);
      } else {
        notifyNewTrack(*track, configuration);
      }
    }
  }

  auto& imported = configuration.mutableImportedTracks();
  imported.insert(imported.end(), created.begin(), created.end());
  nextImportIsExternal = false;
  if (!parsed) logLine("TrackLibraryGPX: Error parsing file!");
  importFilename_.clear();
  configuration.setNewTrackCounter(configuration.newTrackCounter() + trackCounter -
                                   configuration.identicalTrackCounter());
  lastImportSucceeded_ = parsed;
  return trackCounter;
}

}  // namespace kvtrack
