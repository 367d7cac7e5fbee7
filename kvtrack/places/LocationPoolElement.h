#pragma once
// One cell of the place cache: the place names of a square of 0.005
// degrees, kept in memory and in a small file named after the cell's key
// in the cache folder. The file holds five lines (city, country name,
// country code, place name, state name) and is replaced whole, so a crash
// never leaves half a cell.
//
// Threads: a loader thread fills an element once while the host reads it;
// every field is guarded, and dataAvailable() turns true only once all
// five names of a lookup are in place.

#include "kvtrack/support/Status.h"

#include <atomic>
#include <mutex>
#include <optional>
#include <string>

namespace kvtrack {

class LocationPoolElement {
 public:
  /// "LON_LAT" of the cell, each coordinate times 200 truncated toward
  /// zero ("1708_9475" for 8.5432, 47.3769). So the cells at index 0
  /// reach from -0.005 to +0.005 and are twice as wide as the others, and
  /// 180 and -180 are different cells. Empty for a position that is not
  /// finite or lies beyond the poles or the date line.
  static std::string keyForLongitude(double longitude, double latitude);

  /// The element of that position's cell, with the names of its file
  /// when the cache folder holds a good one.
  LocationPoolElement(double longitude, double latitude, std::string cacheFolder);
  /// Writes the cell when it changed since it was last written.
  ~LocationPoolElement();
  LocationPoolElement(const LocationPoolElement&) = delete;
  LocationPoolElement& operator=(const LocationPoolElement&) = delete;

  /// Reads the cell file; a missing one changes nothing, a damaged one
  /// (fewer than five lines, not UTF-8, too large) is logged and ignored.
  void load();
  /// Writes the cell file when the element is dirty and holds data. The
  /// element stays dirty; an unchanged cell is not written twice.
  Status store();

  /// Setters of the names: a non-empty name makes the cell hold data.
  void setName(std::string name);
  void setCountryName(std::string countryName);
  void setCountryCode(std::string countryCode);
  void setStateName(std::string stateName);
  /// The place name alone never makes a cell count as filled.
  void setPlaceName(std::string placeName);
  /// All names of one lookup at once; readers see none or all of them.
  void fill(std::string name, std::string countryName, std::string countryCode,
            std::string placeName, std::string stateName);

  std::string name() const;
  std::string countryName() const;
  std::string countryCode() const;
  std::string placeName() const;
  std::string stateName() const;
  struct Names {
    std::string name, countryName, countryCode, placeName, stateName;
  };
  /// The five names read together.
  Names names() const;

  const std::string& key() const { return key_; }
  double longitude() const;
  void setLongitude(double longitude);
  double latitude() const;
  void setLatitude(double latitude);
  bool dirty() const;
  bool dataAvailable() const { return dataAvailable_.load(std::memory_order_acquire); }

  /// "Zurich, Switzerland: ", "Switzerland: " or "" for lists.
  std::string description() const;

  /// The path of the cell file.
  std::string path() const { return cacheFolder_ + "/" + key_; }

 private:
  void setText(std::string& field, std::string value, bool makesData);

  const std::string key_;
  const std::string cacheFolder_;
  mutable std::mutex mutex_;
  double longitude_, latitude_;
  Names names_;
  bool dirty_ = false;
  bool holdsData_ = false;  // dataAvailable as the writer sees it
  std::atomic<bool> dataAvailable_{false};
  std::optional<std::string> lastStored_;  // the file's text as read or written
};

}  // namespace kvtrack
