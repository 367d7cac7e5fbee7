#pragma once
// The user's saved geocache filters: a name and a predicate text each,
// kept in a small XML file in the library folder.

#include <string>
#include <vector>

namespace kvtrack {

struct GeocacheFilter {
  std::string name;
  std::string predicateString;
  bool operator==(const GeocacheFilter&) const = default;
};

class GeocacheFilters {
 public:
  std::vector<GeocacheFilter> filters;

  /// Writes all filters atomically. False (logged) on failure.
  bool exportTo(const std::string& path) const;
  /// Appends every filter of the file. False (logged) on failure, with
  /// nothing appended.
  bool importFrom(const std::string& path);

  /// "<library>/<name>.wayfolio".
  static std::string libraryPath(const std::string& name);
  bool syncToDisk(const std::string& name) const { return exportTo(libraryPath(name)); }
  bool loadFromDisk(const std::string& name) { return importFrom(libraryPath(name)); }
};

}  // namespace kvtrack
