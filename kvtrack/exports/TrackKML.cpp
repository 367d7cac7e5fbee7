#include "kvtrack/exports/TrackKML.h"

#include "kvtrack/formats/xml/XmlTree.h"
#include "kvtrack/support/ExternalProgram.h"
#include "kvtrack/support/FileHandling.h"
#include "kvtrack/support/KvPreferences.h"
#include "kvtrack/support/Log.h"

#include <fmt/format.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <mutex>

namespace kvtrack {

namespace fs = std::filesystem;

namespace {

constexpr const char* kKmlNamespace = "http://earth.google.com/kml/2.2";

void addStyles(xml::XmlElement& document) {
  // A fixed opaque blue line, whatever the track's own colour.
  auto trackStyle = document.addChild("Style");
  trackStyle.setAttribute("id", "trackstyle");
  auto line = trackStyle.addChild("LineStyle");
  line.addChild("color", "ffff0000");
  line.addChild("width", "4");

  auto cameraStyle = document.addChild("Style");
  cameraStyle.setAttribute("id", "camerastyle");
  cameraStyle.addChild("IconStyle").addChild("Icon").addChild("href", kKmlCameraIconURL);

  auto waypointStyle = document.addChild("Style");
  waypointStyle.setAttribute("id", "waypointstyle");
  auto icon = waypointStyle.addChild("IconStyle");
  icon.addChild("Icon").addChild("href", kKmlWaypointIconURL);
  auto hotSpot = icon.addChild("hotSpot");
  hotSpot.setAttribute("x", "8");
  hotSpot.setAttribute("y", "5");
  hotSpot.setAttribute("xunits", "pixels");
  hotSpot.setAttribute("yunits", "pixels");
}

// The scratch folder, emptied: every KMZ export shares it.
bool prepareScratchFolder(const std::string& folder) {
  std::error_code error;
  fs::remove_all(folder, error);
  fs::create_directories(fs::path(folder) / ".", error);
  if (error) {
    logf("TrackKML: cannot make the folder {}: {}", folder, error.message());
    return false;
  }
  fs::permissions(folder, fs::perms(0775), error);
  return true;
}

// zip builds the archive as a private temporary file and renames it, which
// leaves it readable by its owner only; other files we write follow the umask.
void giveUsualPermissions(const std::string& path) {
  unsigned mask = 022;
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.rfind("Umask:", 0) == 0) mask = static_cast<unsigned>(std::stoul(line.substr(6), nullptr, 8));
  }
  std::error_code error;
  fs::permissions(path, static_cast<fs::perms>(0666 & ~mask), error);
}

bool packFolder(const std::string& folder, const std::string& target) {
  // zip runs inside the folder, so a relative target must be made absolute.
  std::error_code error;
  const std::string absoluteTarget = fs::absolute(target, error).string();
  const char* tmpdir = std::getenv("TMPDIR");
  const std::string tempPath = tmpdir && *tmpdir ? tmpdir : "/tmp";
  const std::string script = fmt::format("cd {}; zip -qr --temp-path {} {} .",
                                         FileHandling::filenameForShell(folder),
                                         FileHandling::filenameForShell(tempPath),
                                         FileHandling::filenameForShell(absoluteTarget));
  const int status = runShellCommand(script);
  if (status != 0) logf("TrackKML: zip ended with status {} for {}", status, target);
  if (!fs::exists(target, error)) return false;
  giveUsualPermissions(target);
  return true;
}

std::mutex& scratchFolderMutex() {
  static std::mutex mutex;
  return mutex;
}

}  // namespace

TrackKMLConfiguration::TrackKMLConfiguration() {
  const auto& preferences = KvPreferences::singleton();
  includePhotos = preferences.kmlExportIncludePhotos().value_or(includePhotos);
  maxWidth = preferences.kmlExportMaxWidth().value_or(maxWidth);
  maxHeight = preferences.kmlExportMaxHeight().value_or(maxHeight);
  if (const auto quality = preferences.kmlExportJPEGQuality()) {
    jpegQuality = static_cast<float>(*quality);
  }
}

TrackKML::TrackKML(TrackPtr track, TrackKMLConfiguration configuration)
    : track_(std::move(track)), configuration_(configuration) {}

std::shared_ptr<TrackKML> TrackKML::trackKMLWithTrack(TrackPtr track) {
  return std::make_shared<TrackKML>(std::move(track), TrackKMLConfiguration());
}

std::shared_ptr<TrackKML> TrackKML::trackKMLWithTrack(TrackPtr track,
                                                      TrackKMLConfiguration configuration) {
  return std::make_shared<TrackKML>(std::move(track), configuration);
}

bool TrackKML::exportTo(const std::string& path, bool createKMZ) {
  if (!track_) return false;
  std::error_code error;
  fs::remove(path, error);

  std::unique_lock<std::mutex> scratchLock;
  std::string kmlPath = path, relativePath, kmlRoot;
  if (createKMZ) {
    scratchLock = std::unique_lock(scratchFolderMutex());
    kmlRoot = FileHandling::singleton().userApplicationSupport() + "/kml";
    if (!prepareScratchFolder(kmlRoot)) return false;
    kmlPath = (fs::path(kmlRoot) / fs::path(path).filename().replace_extension(".kml")).string();
    relativePath = "./";
  }

  xml::XmlDocument document("kml");
  auto root = document.root();
  root.setAttribute("xmlns", kKmlNamespace);
  auto body = root.addChild("Document");
  addStyles(body);
  createKMLWaypointsForParent(*track_, body, configuration_);
  if (configuration_.includePhotos) {
    createKMLTrackPhotosForParent(*track_, body, relativePath, kmlRoot, configuration_);
  }
  createKMLTrackForParent(*track_, body, configuration_);

  if (!document.save(kmlPath, "UTF-8")) {
    logf("TrackKML: cannot write {}", kmlPath);
    return false;
  }
  return createKMZ ? packFolder(kmlRoot, path) : true;
}

bool exportKml(const TrackPtr& track, const std::string& path, bool withPhotos, bool createKMZ) {
  if (!track) return false;
  TrackKMLConfiguration configuration;
  configuration.includePhotos = withPhotos;
  configuration.maxWidth = 1024;
  configuration.maxHeight = 1024;
  track->loadFromLibrary();
  return TrackKML(track, configuration).exportTo(path, createKMZ);
}

}  // namespace kvtrack
