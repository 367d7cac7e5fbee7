#pragma once
// A built-in GPS logger driver. The GPSBabel bridge files each driver under
// its name ("i-gotU", "i-gotUGT800", "BG728", "GNS2000") and selects it with
// the device type "*" followed by that name.

#include "kvtrack/model/Track.h"

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

 protected:
  void reportProgress(uint64_t done, uint64_t total, const char* unit) const {
    if (progress_) progress_(done, total, unit);
  }

 private:
  Progress progress_;
};

}  // namespace kvtrack
