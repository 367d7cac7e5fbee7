#pragma once
// Reading the external description files ("gpxExt" documents) that hold
// the description and logs of library geocaches outside the GPX files.

#include "kvtrack/model/Geocache.h"

#include <string>

namespace kvtrack {

class GeocacheExternalImport {
 public:
  /// Sets the description and appends the logs found in the file. False
  /// (logged) when the file cannot be parsed.
  static bool importFrom(const std::string& path, Geocache& geocache);

  /// Makes Geocache::loadExternalGpx read
  /// "<library>/all_geocaches.gpxx_ext/desc<index, 9 digits>.gpxx".
  /// Safe to call any number of times.
  static void install();

  /// The external file of an index in the library.
  static std::string libraryPathForIndex(int32_t index);
};

}  // namespace kvtrack
