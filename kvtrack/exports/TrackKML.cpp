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

Status logged(std::string reason) {
  logf("TrackKML: {}", reason);
  return Status::failure(std::move(reason));
}

// The scratch folder, emptied: every KMZ export shares it.
Status prepareScratchFolder(const std::string& folder) {
  std::error_code error;
  fs::remove_all(folder, error);
  fs::create_directories(fs::path(folder) / ".", error);
  if (error) return logged(fmt::format("cannot make the folder {}: {}", folder, error.message()));
  fs::permissions(folder, fs::perms(0775), error);
  return {};
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

Status packFolder(const std::string& folder, const std::string& target) {
  // zip runs inside the folder, so a relative target must be made absolute.
  std::error_code error;
  const std::string absoluteTarget = fs::absolute(target, error).string();
  const char* tmpdir = std::getenv("TMPDIR");
  const std::string tempPath = tmpdir && *tmpdir ? tmpdir : "/tmp";
  const std::string script = fmt::format("cd {}; zip -qr --temp-path {} {} .",
                                         FileHandling::filenameForShell(folder),
                                         FileHandling::filenameForShell(tempPath),
                                         FileHandling::filenameForShell(absoluteTarget));
  const ShellOutput zip = runShellCommandReadingErrors(script);
  Status packed;
  if (zip.status != 0) {
    const std::string complaint = zip.errors.substr(0, zip.errors.find('\n'));
    packed = logged(fmt::format("zip ended with status {} for {}{}", zip.status, target,
                                complaint.empty() ? "" : ": " + complaint));
  }
  if (!fs::exists(target, error)) return packed ? Status::failure("zip wrote no file " + target) : packed;
  giveUsualPermissions(target);
  return {};
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

ExportOutcome TrackKML::exportTo(const std::string& path, bool createKMZ) {
  ExportOutcome outcome;
  if (!track_) {
    outcome.status = Status::failure("no track to export");
    return outcome;
  }
  std::error_code error;
  fs::remove(path, error);

  std::unique_lock<std::mutex> scratchLock;
  std::string kmlPath = path, relativePath, kmlRoot;
  if (createKMZ) {
    scratchLock = std::unique_lock(scratchFolderMutex());
    kmlRoot = FileHandling::singleton().userApplicationSupport() + "/kml";
    outcome.status = prepareScratchFolder(kmlRoot);
    if (!outcome.ok()) return outcome;
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
    createKMLTrackPhotosForParent(*track_, body, relativePath, kmlRoot, configuration_, outcome.warnings);
  }
  createKMLTrackForParent(*track_, body, configuration_);

  outcome.status = document.save(kmlPath, "UTF-8");
  if (!outcome.ok()) {
    logf("TrackKML: {}", outcome.reason());
  } else if (createKMZ) {
    outcome.status = packFolder(kmlRoot, path);
  }
  return outcome;
}

ExportOutcome exportKml(const TrackPtr& track, const std::string& path, bool withPhotos, bool createKMZ) {
  if (!track) return {Status::failure("no track to export"), {}};
  TrackKMLConfiguration configuration;
  configuration.includePhotos = withPhotos;
  configuration.maxWidth = 1024;
  configuration.maxHeight = 1024;
  track->loadFromLibrary();
  return TrackKML(track, configuration).exportTo(path, createKMZ);
}

}  // namespace kvtrack
