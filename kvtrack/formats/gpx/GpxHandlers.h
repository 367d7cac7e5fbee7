#pragma once
// The element handlers of the GPX reader. Each takes over the parser's
// events when its element starts and hands them back to its parent when it
// ends.

#include "kvtrack/formats/xml/SaxParser.h"
#include "kvtrack/model/Track.h"

#include <cstdint>
#include <optional>
#include <string>
#include <utility>

namespace kvtrack::gpx {

/// Logs "<class>: Error %d, Description: %s, Line: %d, Column: %d"; the
/// premature-end code 5 stays silent. Always reports the error as handled.
bool logParseError(const char* className, const xml::ParseError& error);

/// What the handlers of one read of a file share.
struct ReadContext {
  /// The file being read, to find an external point file beside it.
  std::string importFilename;
  /// Points skipped because their position is missing, not a number, or
  /// outside the earth (latitude beyond 90, longitude beyond 180 degrees).
  int32_t invalidPositions = 0;
};

/// The position of a "trkpt", "rtept" or "wpt" element when both
/// coordinates are numbers within range; nothing otherwise.
std::optional<std::pair<double, double>> readPosition(const xml::Attributes& attributes);

/// ISODate::isoDateWithString for the times of a track, which keep their
/// date and zone from one point to the next: for a plain
/// "YYYY-MM-DDThh:mm:ss" time with the date and zone ("Z" or "+hh:mm") of the
/// time read before, only the time of day is read.
class TimeTextReader {
 public:
  std::optional<ISODate> read(std::string_view text);

 private:
  std::string dateAndZone_;  // "YYYY-MM-DDT" and the zone of the last plain time
  int64_t midnight_ = 0;     // its date's start in its zone, microseconds since 1970
  int32_t offset_ = 0;
  bool cached_ = false;
};

/// A "trkpt" or "rtept": time, elevation, speed, the waypoint name, photos.
class TrackPointGPXElement : public xml::SaxHandler {
 public:
  /// The handler shares the point: a point dropped for its position still
  /// receives its children's events.
  static void trackPointGPXElementForTrackPoint(TrackPointPtr point, xml::SaxParser& parser);

  TrackPointGPXElement() = default;
  explicit TrackPointGPXElement(TrackPointPtr point) { reset(std::move(point)); }
  /// Starts over for another point: the handler of a track is reused for
  /// each of its points.
  void reset(TrackPointPtr point);
  /// Makes the handler, started over for the point, current.
  void take(TrackPointPtr point, xml::SaxParser& parser) {
    reset(std::move(point));
    parser.pushHandler(*this);
  }

  void startElement(xml::SaxParser& parser, std::string_view name,
                    const xml::Attributes& attributes) override;
  void endElement(xml::SaxParser& parser, std::string_view name) override;
  void characters(xml::SaxParser& parser, std::string_view chunk) override;

 private:
  void startPhoto(const xml::Attributes& attributes);

  TrackPointPtr owned_;
  TrackPoint* point_ = nullptr;
  TrackPhotoPtr currentPhoto_;
  std::string buffer_;
  TimeTextReader times_;
  bool parserInTime_ = false;
  bool parserInElevation_ = false;
  bool parserInSpeed_ = false;
  bool parserInLength_ = false;
  bool parserInName_ = false;
  bool parserInPhoto_ = false;
  bool parserInPhotoBookmark_ = false;
};

/// A "trk" or "rte": name, description, tags, display attributes, time
/// zone, segments, and its points (each through a TrackPointGPXElement).
class TrackGPXElement : public xml::SaxHandler {
 public:
  static void trackGPXElementForTrack(Track& track, xml::SaxParser& parser, ReadContext& context);

  TrackGPXElement(Track& track, ReadContext& context) : track_(track), context_(context) {}
  void startElement(xml::SaxParser& parser, std::string_view name,
                    const xml::Attributes& attributes) override;
  void endElement(xml::SaxParser& parser, std::string_view name) override;
  void characters(xml::SaxParser& parser, std::string_view chunk) override;
  bool parseError(xml::SaxParser& parser, const xml::ParseError& error) override;

 private:
  void startPoint(xml::SaxParser& parser, std::string_view name, const xml::Attributes& attributes);

  Track& track_;
  ReadContext& context_;
  TrackPointGPXElement pointHandler_;  // reused for every point
  bool parserInName_ = false;
  bool parserInDescription_ = false;
  bool parserInTags_ = false;
  bool hasTimezoneOffset_ = false;
  int32_t timezoneOffset_ = 0;
};

/// A "wpt": position, time, the waypoint attributes and geocache blocks.
class WayPointGPXElement : public xml::SaxHandler {
 public:
  static void wayPointGPXElementForTrackPoint(TrackPointPtr point, xml::SaxParser& parser);
  /// A new point for a "wpt" element, its handler pushed. Null (and
  /// counted in the context) when its position is not valid; a "wpt" with
  /// no position at all is kept (files whose points are kept apart).
  static TrackPointPtr startWayPoint(Track* parent, xml::SaxParser& parser,
                                     const xml::Attributes& attributes, ReadContext& context);

  explicit WayPointGPXElement(TrackPointPtr point) : owned_(std::move(point)), point_(*owned_) {}
  void startElement(xml::SaxParser& parser, std::string_view name,
                    const xml::Attributes& attributes) override;
  void endElement(xml::SaxParser& parser, std::string_view name) override;
  void characters(xml::SaxParser& parser, std::string_view chunk) override;
  bool parseError(xml::SaxParser& parser, const xml::ParseError& error) override;

 private:
  TrackPointPtr owned_;
  TrackPoint& point_;
  std::string buffer_;
  bool parserInTime_ = false;
  bool parserInElevation_ = false;
};

}  // namespace kvtrack::gpx
