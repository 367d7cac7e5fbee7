#pragma once
// A built-in GPS logger driver. The GPSBabel bridge files each driver under
// its name ("i-gotU", "i-gotUGT800", "BG728", "GNS2000") and selects it with
// the device type "*" followed by that name.

#include "kvtrack/model/Track.h"
#include "kvtrack/support/Log.h"

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace kvtrack {

class GpsDriver {
 public:
  using Options = std::map<std::string, std::string>;

  virtual ~GpsDriver() = default;
  virtual std::string name() const = 0;
  /// Reads the logger at the device path; blocks until the exchange ends.
  /// Absent when nothing could be read.
  virtual std::optional<std::vector<TrackPtr>> importTracksFromDevice(const std::string& device,
                                                                      const Options& options) = 0;
  /// Erases the logger's memory; true on success.
  virtual bool deleteTracksFromDevice(const std::string& device, const Options& options) = 0;

  /// Hears how far a download is: done and total in the driver's unit
  /// ("blocks", "points"). Set before a download; called on its thread.
  using Progress = std::function<void(uint64_t done, uint64_t total, const char* unit)>;
  void setProgress(Progress progress) { progress_ = std::move(progress); }

  /// Records of the last download skipped for a position outside the earth
  /// (latitude beyond 90, longitude beyond 180 degrees).
  uint64_t invalidPositionCount() const { return invalidPositions_; }

 protected:
  void reportProgress(uint64_t done, uint64_t total, const char* unit) const {
    if (progress_) progress_(done, total, unit);
  }
  /// Drivers call this at the start of every download.
  void resetInvalidPositionCount() { invalidPositions_ = 0; }
  /// True for a position to keep; counts and logs the others.
  bool acceptPosition(double latitude, double longitude) {
    if (TrackPoint::isValidPosition(latitude, longitude)) return true;
    ++invalidPositions_;
    logf("{}: record skipped: invalid position {}, {}", name(), latitude, longitude);
    return false;
  }

 private:
  Progress progress_;
  uint64_t invalidPositions_ = 0;
};

}  // namespace kvtrack
