#pragma once
// The geocache record of a geocache waypoint and its logs. The name tables
// and the GPX blocks live with the exchange formats; the description file
// loader is plugged in from there.

#include "kvtrack/support/ISODate.h"

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace kvtrack {

class GeocacheLog {
 public:
  std::optional<ISODate> time;
  std::optional<std::string> geocacher;
  std::optional<std::string> geocacherIdentifier;
  int32_t type = 0;
  std::optional<std::string> text;
  std::optional<std::string> textEncoding;
  std::optional<std::string> identifier;

  /// Orders two logs by time; a log without time sorts first.
  int compareTime(const GeocacheLog& other) const;
};

using GeocacheLogPtr = std::shared_ptr<GeocacheLog>;

class Geocache {
 public:
  std::optional<std::string> name, owner, locale, state, country, summary;
  bool summaryUsesHTML = false;
  int32_t type = 0;
  int32_t container = 0;
  float difficulty = 1.0f;
  float terrain = 1.0f;
  std::optional<std::string> description;
  std::optional<std::string> descriptionAsPDF;
  bool descriptionUsesHTML = false;
  std::optional<std::string> hints;
  std::optional<std::string> license;
  std::vector<GeocacheLogPtr> logs;
  std::optional<std::string> identifier;
  int32_t status = 0;
  int32_t indexForGPXExternalFile = -1;
  bool externalGPXFileLoaded = false;
  bool externalGPXFileDirty = false;
  int32_t yourLogType = 0;

  /// Every field but the logs (the copy starts with none) and the dirty
  /// flag (false).
  std::shared_ptr<Geocache> copy() const;

  /// True when a log with an equal time and the same geocacher exists.
  bool containsLog(const GeocacheLog& log) const;
  /// Appends the logs this record does not contain yet, in order.
  void addLogs(const std::vector<GeocacheLogPtr>& newLogs);

  /// Reads description and logs from the external description file once,
  /// when the record has one; marks them loaded even when reading fails.
  void loadExternalGpx();
  /// Drops description and logs again; the index keeps naming the file.
  void unloadExternals();

  /// Installed by the geocache format code: reads the external file of a
  /// record into it.
  using ExternalLoader = std::function<void(Geocache&)>;
  static void setExternalLoader(ExternalLoader loader);
};

using GeocachePtr = std::shared_ptr<Geocache>;

}  // namespace kvtrack
