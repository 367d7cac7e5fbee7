#pragma once
// Options handed down through every GPX writer. One export at a time uses a
// configuration; the writers update filename and
// indexOfTrackPointInExternalFile while they run.

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace kvtrack {

class TrackPoint;

class GpxExportConfiguration {
 public:
  using Predicate = std::function<bool(const TrackPoint&)>;

  static std::shared_ptr<GpxExportConfiguration> gpxExportConfiguration() {
    return std::make_shared<GpxExportConfiguration>();
  }

  bool exportWayfolioExtensions() const { return exportWayfolioExtensions_; }
  void setExportWayfolioExtensions(bool v) { exportWayfolioExtensions_ = v; }
  bool exportWaypointsOnly() const { return exportWaypointsOnly_; }
  void setExportWaypointsOnly(bool v) { exportWaypointsOnly_ = v; }
  bool exportGroundspeakExtensions() const { return exportGroundspeakExtensions_; }
  void setExportGroundspeakExtensions(bool v) { exportGroundspeakExtensions_ = v; }
  bool exportGeocachingAuExtensions() const { return exportGeocachingAuExtensions_; }
  void setExportGeocachingAuExtensions(bool v) { exportGeocachingAuExtensions_ = v; }
  bool exportGeocachingDescriptionAsPlainText() const { return exportGeocachingDescriptionAsPlainText_; }
  void setExportGeocachingDescriptionAsPlainText(bool v) { exportGeocachingDescriptionAsPlainText_ = v; }
  /// Folder for geocache descriptions and logs kept out of the GPX.
  const std::optional<std::string>& exportGeocachingDescriptionAndLogsInExternalFolder() const {
    return externalFolder_;
  }
  void setExportGeocachingDescriptionAndLogsInExternalFolder(std::optional<std::string> v) {
    externalFolder_ = std::move(v);
  }
  bool exportiPhonePhotosOnly() const { return exportiPhonePhotosOnly_; }
  void setExportiPhonePhotosOnly(bool v) { exportiPhonePhotosOnly_ = v; }
  bool doNotExportPhotos() const { return doNotExportPhotos_; }
  void setDoNotExportPhotos(bool v) { doNotExportPhotos_ = v; }
  /// Text file that receives all track points; only photo points stay in the GPX.
  const std::optional<std::string>& exportTrackPointsInExternalFile() const { return externalTrackPoints_; }
  void setExportTrackPointsInExternalFile(std::optional<std::string> v) { externalTrackPoints_ = std::move(v); }
  bool useGPX10() const { return useGPX10_; }
  void setUseGPX10(bool v) { useGPX10_ = v; }
  /// When set, a point is written only if the predicate accepts it.
  const Predicate& filterPredicate() const { return filterPredicate_; }
  void setFilterPredicate(Predicate p) { filterPredicate_ = std::move(p); }
  int32_t indexOfTrackPointInExternalFile() const { return indexOfTrackPointInExternalFile_; }
  void setIndexOfTrackPointInExternalFile(int32_t v) { indexOfTrackPointInExternalFile_ = v; }
  const std::optional<std::string>& filename() const { return filename_; }
  void setFilename(std::optional<std::string> v) { filename_ = std::move(v); }
  bool doNotExportBookmarks() const { return doNotExportBookmarks_; }
  void setDoNotExportBookmarks(bool v) { doNotExportBookmarks_ = v; }
  bool doNotExportiCloudInfo() const { return doNotExportiCloudInfo_; }
  void setDoNotExportiCloudInfo(bool v) { doNotExportiCloudInfo_ = v; }

 private:
  bool exportWayfolioExtensions_ = true;
  bool exportWaypointsOnly_ = false;
  bool exportGroundspeakExtensions_ = false;
  bool exportGeocachingAuExtensions_ = true;
  bool exportGeocachingDescriptionAsPlainText_ = false;
  std::optional<std::string> externalFolder_;
  bool exportiPhonePhotosOnly_ = false;
  bool doNotExportPhotos_ = false;
  std::optional<std::string> externalTrackPoints_;
  bool useGPX10_ = false;
  Predicate filterPredicate_;
  int32_t indexOfTrackPointInExternalFile_ = 0;
  std::optional<std::string> filename_;
  bool doNotExportBookmarks_ = false;
  bool doNotExportiCloudInfo_ = false;
};

}  // namespace kvtrack
