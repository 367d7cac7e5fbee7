// The placemarks of a KML document: waypoints, photos and the track line.
#include "kvtrack/exports/GxImage.h"
#include "kvtrack/exports/TrackKML.h"
#include "kvtrack/formats/xml/XmlTree.h"
#include "kvtrack/model/TrackPoint.h"
#include "kvtrack/photos/ExifTool.h"
#include "kvtrack/photos/TrackPhotoFiles.h"
#include "kvtrack/support/Log.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <filesystem>
#include <limits>
#include <mutex>

namespace kvtrack {

namespace fs = std::filesystem;

namespace {

// Elevations are written as whole metres, truncated toward zero. An unknown
// elevation (NaN) becomes -2147483648, the value the integer conversion gives
// on the platforms the format grew up on; readers take it as "no altitude".
int32_t truncatedElevation(double elevation) {
  if (!(elevation > -2147483649.0 && elevation < 2147483648.0)) {
    return std::numeric_limits<int32_t>::min();
  }
  return static_cast<int32_t>(elevation);
}

std::string coordinates(const TrackPoint& point) {
  return fmt::format("{:f},{:f},{}", point.longitude(), point.latitude(),
                     truncatedElevation(point.elevation()));
}

std::string lowercased(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return text;
}

bool endsWith(const std::string& text, std::string_view suffix) {
  return text.size() >= suffix.size() && text.compare(text.size() - suffix.size(), suffix.size(),
                                                      suffix) == 0;
}

// "Munich, Bavaria, Germany"; a missing city leaves the text starting ", ".
std::string placeText(const TrackPhoto& photo) {
  std::string text = photo.city().value_or("");
  if (const auto& state = photo.state(); state && !state->empty()) text += ", " + *state;
  if (const auto& country = photo.country(); country && !country->empty()) text += ", " + *country;
  return text;
}

// Holds the photo's sandbox access for one scope.
class PhotoAccess {
 public:
  explicit PhotoAccess(TrackPhoto& photo) : photo_(photo) {
    TrackPhotos::startAccessingSecurityScopedResource(photo_);
  }
  ~PhotoAccess() { TrackPhotos::stopAccessingSecurityScopedResource(photo_); }
  PhotoAccess(const PhotoAccess&) = delete;
  PhotoAccess& operator=(const PhotoAccess&) = delete;

 private:
  TrackPhoto& photo_;
};

}  // namespace

void createKMLWaypointsForParent(Track& track, xml::XmlElement& parent,
                                 const TrackKMLConfiguration& configuration) {
  std::lock_guard<Track> lock(track);
  for (const auto& point : track.trackPoints()) {
    if (point->isWayPoint()) createKMLPlacemarkForParent(*point, parent, configuration);
  }
}

void createKMLPlacemarkForParent(const TrackPoint& point, xml::XmlElement& parent,
                                 const TrackKMLConfiguration& /*configuration*/) {
  auto placemark = parent.addChild("Placemark");
  if (const auto& name = point.name()) placemark.addChild("name", *name);
  placemark.addChild("styleUrl", "#waypointstyle");
  placemark.addChild("Point").addChild("coordinates", coordinates(point));
}

void createKMLTrackForParent(Track& track, xml::XmlElement& parent,
                             const TrackKMLConfiguration& /*configuration*/) {
  std::lock_guard<Track> lock(track);
  auto placemark = parent.addChild("Placemark");
  placemark.addChild("name", track.name());
  placemark.addChild("styleUrl", "#trackstyle");
  fmt::memory_buffer text;
  text.push_back('\n');
  for (const auto& point : track.trackPoints()) {
    fmt::format_to(std::back_inserter(text), "\t\t\t{:f},{:f},{}\n", point->longitude(),
                   point->latitude(), truncatedElevation(point->elevation()));
  }
  placemark.addChild("LineString").addChild("coordinates", std::string_view(text.data(), text.size()));
}

void createKMLTrackPhotosForParent(Track& track, xml::XmlElement& parent,
                                   const std::string& relativePath, const std::string& kmlRoot,
                                   const TrackKMLConfiguration& configuration, ExportWarnings& warnings) {
  std::lock_guard<Track> lock(track);
  int n = 0;  // numbers the copies across the whole track
  for (const auto& point : track.trackPoints()) {
    for (const auto& photo : point->trackPhotos()) {
      if (!kmlRoot.empty()) {
        const std::string relativeName = fmt::format("{}/image{:05d}.jpg", relativePath, n);
        std::string scaledFile = kmlRoot + "/" + relativeName;
        // A non-JPEG photo's copy ends in ".jpg.jpg"; links already out there
        // point at those names.
        const std::string lower = lowercased(TrackPhotos::filepath(*photo));
        if (!endsWith(lower, ".jpg") && !endsWith(lower, ".jpeg")) scaledFile += ".jpg";
        createKMLPlacemarkForParent(*photo, parent, relativeName, configuration.maxWidth,
                                    configuration.maxHeight, scaledFile, configuration, warnings);
        ++n;
      } else {
        const std::string path = TrackPhotos::filepath(*photo);
        const std::string lower = lowercased(path);
        std::error_code error;
        const std::string& filename = fs::exists(lower, error) ? lower : path;
        createKMLPlacemarkForParent(*photo, parent, filename, configuration.maxWidth,
                                    configuration.maxHeight, std::string(), configuration, warnings);
      }
    }
  }
}

void createKMLPlacemarkForParent(TrackPhoto& photo, xml::XmlElement& parent,
                                 const std::string& filename, int32_t maxWidth, int32_t maxHeight,
                                 const std::string& scaledFile,
                                 const TrackKMLConfiguration& configuration, ExportWarnings& warnings) {
  int32_t width = 0, height = 0;
  if (const Status opened = imageSizeWidth(photo, width, height); !opened) {
    warnings.push_back(opened.reason());  // logged by the image reader
    return;
  }
  const float scale = std::max({1.0f, static_cast<float>(width) / static_cast<float>(maxWidth),
                                static_cast<float>(height) / static_cast<float>(maxHeight)});
  width = static_cast<int32_t>(static_cast<float>(width) / scale);
  height = static_cast<int32_t>(static_cast<float>(height) / scale);

  if (!scaledFile.empty()) {
    const Status scaled = createJPG(photo, scaledFile, width, height, configuration.jpegQuality / 10.0f);
    const std::string source = TrackPhotos::filepath(photo);
    if (!scaled) {
      warnings.push_back(scaled.reason());
    } else if (ExifTool::copyTagsFrom(source, scaledFile) != 0) {
      warnings.push_back(fmt::format("the metadata of {} could not be copied to its scaled copy", source));
      logf("TrackKML: {}", warnings.back());
    }
  }

  std::string source = filename.rfind(".//", 0) == 0 ? filename.substr(3) : filename;
  if (!scaledFile.empty()) source = fs::path(scaledFile).filename().string();
  std::string description =
      fmt::format("<img src=\"{}\" width={} height={} />", source, width, height);
  if (TrackPhotos::hasLocationData(photo)) description += fmt::format("<p>{}</p>", placeText(photo));

  auto placemark = parent.addChild("Placemark");
  const auto& time = photo.timeOfPhoto();
  placemark.addChild("name", time ? time->descriptionForGui() : std::string());
  placemark.addChild("description", description);
  placemark.addChild("styleUrl", "#camerastyle");
  if (const TrackPoint* point = photo.trackPoint()) {
    placemark.addChild("Point").addChild("coordinates", coordinates(*point));
  }
}

Status imageSizeWidth(TrackPhoto& photo, int32_t& width, int32_t& height) {
  PhotoAccess access(photo);
  const Result<GxImage> image = GxImage::imageWithPath(TrackPhotos::filepath(photo));
  if (!image) return image.status();
  width = image->width();
  height = image->height();
  return {};
}

Status createJPG(TrackPhoto& photo, const std::string& path, int32_t& width, int32_t& height,
                 float quality) {
  PhotoAccess access(photo);
  const Result<GxImage> image = GxImage::imageWithPath(TrackPhotos::filepath(photo));
  if (!image) return image.status();
  const double scale = std::max({1.0, static_cast<double>(image->width()) / width,
                                 static_cast<double>(image->height()) / height});
  const int newWidth = static_cast<int>(std::lround(image->width() / scale));
  const int newHeight = static_cast<int>(std::lround(image->height() / scale));
  if (const Status written = image->writeScaledJpeg(path, newWidth, newHeight, quality); !written) {
    return written;
  }
  // Shown turned by a quarter: the size as seen swaps.
  const bool turned = image->orientation() >= 5;
  width = turned ? newHeight : newWidth;
  height = turned ? newWidth : newHeight;
  return {};
}

}  // namespace kvtrack
