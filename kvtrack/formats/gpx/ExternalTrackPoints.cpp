#include "kvtrack/formats/gpx/ExternalTrackPoints.h"

#include <fmt/format.h>

#include <charconv>
#include <cstdio>
#include <limits>
#include <memory>
#include <mutex>
#include <string_view>
#include <system_error>
#include <type_traits>

namespace kvtrack::gpx {

namespace {

constexpr int64_t kReferenceDateSeconds = 978'307'200;  // 2001-01-01T00:00:00Z

struct FileCloser {
  void operator()(std::FILE* file) const { std::fclose(file); }
};
using File = std::unique_ptr<std::FILE, FileCloser>;

// Whole seconds since the reference date, truncated toward zero, computed in
// integers so that no instant overflows or rounds.
long long secondsSinceReferenceDate(int64_t micros) {
  int64_t seconds = micros / 1'000'000 - kReferenceDateSeconds;
  const int64_t fraction = micros % 1'000'000;
  if (seconds < 0 && fraction > 0) ++seconds;
  if (seconds > 0 && fraction < 0) --seconds;
  return seconds;
}

// What scanf makes of a number beyond the type: infinity for overflow, zero
// (or the nearest tiny value) for underflow.
template <typename Float>
Float outOfRange(const char* begin, const char* end) {
  constexpr Float kInfinity = std::numeric_limits<Float>::infinity();
  const bool negative = *begin == '-';
  double wide = 0;
  if (std::from_chars(begin, end, wide).ec == std::errc()) {
    if (wide > std::numeric_limits<Float>::max()) return kInfinity;
    if (wide < -std::numeric_limits<Float>::max()) return -kInfinity;
    return static_cast<Float>(wide);
  }
  // Beyond double as well: a negative exponent means underflow.
  const std::string_view digits(begin, static_cast<size_t>(end - begin));
  const size_t exponent = digits.find_first_of("eE");
  if (exponent != std::string_view::npos && digits.substr(exponent + 1).starts_with('-')) {
    return negative ? -Float(0) : Float(0);
  }
  return negative ? -kInfinity : kInfinity;
}

// Reads one sscanf-style field: leading blanks skipped, then the number.
// Advances the cursor only when a number was converted.
template <typename Number>
bool readField(const char*& cursor, const char* end, Number& out) {
  const char* p = cursor;
  while (p < end && (*p == ' ' || *p == '\t' || *p == '\r')) ++p;
  if constexpr (std::is_floating_point_v<Number>) {
    if (p < end && *p == '+') ++p;  // scanf takes a plus sign, from_chars does not
    const auto [next, error] = std::from_chars(p, end, out);
    if (next == p) return false;
    if (error == std::errc::result_out_of_range) out = outOfRange<Number>(p, next);
    cursor = next;
    return true;
  } else {
    if (p < end && *p == '+') ++p;
    const auto [next, error] = std::from_chars(p, end, out);
    if (next == p || error != std::errc()) return false;
    cursor = next;
    return true;
  }
}

// Fields of one line, like sscanf("%f,%f,%f,%d,%d,%lld"): the count of the
// fields converted before the first that fails.
struct Line {
  float latitude = 0, longitude = 0, elevation = 0;
  int wayPoint = 0, endOfSegment = 0;
  long long seconds = 0;
};

int parseLine(const char* cursor, const char* end, Line& line) {
  int converted = 0;
  auto separator = [&]() {
    if (cursor < end && *cursor == ',') {
      ++cursor;
      return true;
    }
    return false;
  };
  if (!readField(cursor, end, line.latitude)) return converted;
  ++converted;
  if (!separator() || !readField(cursor, end, line.longitude)) return converted;
  ++converted;
  if (!separator() || !readField(cursor, end, line.elevation)) return converted;
  ++converted;
  if (!separator() || !readField(cursor, end, line.wayPoint)) return converted;
  ++converted;
  if (!separator() || !readField(cursor, end, line.endOfSegment)) return converted;
  ++converted;
  if (!separator() || !readField(cursor, end, line.seconds)) return converted;
  return ++converted;
}

}  // namespace

bool writeExternalTrackPoints(const std::string& path, const std::vector<TrackPointPtr>& points) {
  File file(std::fopen(path.c_str(), "w"));
  if (!file) return false;
  fmt::memory_buffer buffer;
  bool ok = true;
  for (const auto& point : points) {
    const long long seconds =
        point->hasTime() ? secondsSinceReferenceDate(point->time()->microsecondsSince1970()) : 0;
    fmt::format_to(std::back_inserter(buffer), "{:.6f},{:.6f},{:.6f},{:d},{:d},{:d}\n",
                   point->latitude(), point->longitude(), point->elevation(),
                   point->isWayPoint() ? 1 : 0, point->isEndOfSegment() ? 1 : 0, seconds);
    if (buffer.size() >= (1 << 20)) {
      ok = ok && std::fwrite(buffer.data(), 1, buffer.size(), file.get()) == buffer.size();
      buffer.clear();
    }
  }
  ok = ok && std::fwrite(buffer.data(), 1, buffer.size(), file.get()) == buffer.size();
  return std::fclose(file.release()) == 0 && ok;
}

int32_t readExternalTrackPoints(const std::string& path, Track& track) {
  File file(std::fopen(path.c_str(), "r"));
  if (!file) return 0;
  std::string text;
  char chunk[1 << 16];
  size_t count;
  while ((count = std::fread(chunk, 1, sizeof chunk, file.get())) > 0) text.append(chunk, count);

  std::lock_guard<Track> lock(track);
  int32_t invalid = 0;
  std::string_view rest(text);
  while (!rest.empty()) {
    const size_t newline = rest.find('\n');
    const std::string_view lineText = rest.substr(0, newline);
    rest.remove_prefix(newline == std::string_view::npos ? rest.size() : newline + 1);
    Line line;
    if (parseLine(lineText.data(), lineText.data() + lineText.size(), line) == 0) break;
    if (!TrackPoint::isValidPosition(line.latitude, line.longitude)) {
      ++invalid;
      continue;
    }
    auto point = TrackPoint::trackPointWithParent(&track);
    point->setLatitude(line.latitude);
    point->setLongitude(line.longitude);
    point->setElevation(line.elevation);
    point->setIsWayPoint(line.wayPoint != 0);
    point->setIsEndOfSegment(line.endOfSegment != 0);
    point->setTime(
        ISODate::isoDateWithTimeIntervalSinceReferenceDate(static_cast<double>(line.seconds)));
    track.addTrackPoint(std::move(point));
  }
  return invalid;
}

}  // namespace kvtrack::gpx
