#pragma once
// The "trkpt" elements of a track segment formatted straight into text,
// byte for byte as the element tree saves the same elements: a million
// points then cost no tree node, no per-number string and no per-point
// allocation. Used for segments written in the normal (not external-file)
// mode; waypoints and route points go through the element tree.

#include "kvtrack/formats/gpx/GpxExportConfiguration.h"
#include "kvtrack/model/Track.h"
#include "kvtrack/support/ISODate.h"

#include <cstdint>
#include <string>

namespace kvtrack::gpx {

/// The ISODate description of times, the calendar part formatted once per
/// day and time zone.
class TimeText {
 public:
  void append(std::string& out, const ISODate& time);

 private:
  int64_t day_ = 0;
  int32_t offset_ = 0;
  bool cached_ = false;
  std::string prefix_;  // "2012-05-01T"
  std::string suffix_;  // "Z" or "+02:00"
};

class TrackPointMarkup {
 public:
  /// Points at the given depth of the document (the root is depth 0).
  TrackPointMarkup(GpxExportConfiguration& configuration, int depth)
      : configuration_(configuration), depth_(depth) {}

  /// Appends a line break, the indentation and the point's "trkpt" element.
  void append(std::string& out, TrackPoint& point);

 private:
  void appendDescription(std::string& out, const TrackPoint& point);
  void appendExtensions(std::string& out, TrackPoint& point);
  void appendPhoto(std::string& out, TrackPhoto& photo, int depth);

  GpxExportConfiguration& configuration_;
  int depth_;
  TimeText times_;
};

/// The number forms of the writer, appended without allocating.
/// Shortest text that reads back to the same double, never with an
/// exponent; "NaN", "inf", "-inf".
void appendDecimal(std::string& out, double value);
/// printf "%f".
void appendFixed(std::string& out, double value);

}  // namespace kvtrack::gpx
