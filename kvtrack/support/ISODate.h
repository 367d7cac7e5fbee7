#pragma once
// ISODate: the one time type of kvtrack. An instant with microsecond
// precision together with the time-zone offset (minutes east of UTC) in which
// it is expressed. Changing the offset never moves the instant.
//
// Representation: signed 64-bit microseconds since 1970-01-01T00:00:00Z
// (about +-292,000 years) and a 32-bit offset in minutes. 16 bytes, no heap.

#include <compare>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace kvtrack {

/// A wall-clock reading broken into calendar fields, plus the offset in
/// minutes that turns it into an instant (instant = wall clock - offset).
struct CalendarDate {
  int year = 1970;
  int month = 1;   // 1..12
  int day = 1;     // 1..31
  int hour = 0;    // 0..23
  int minute = 0;  // 0..59
  double second = 0.0;  // 0 <= second < 61, fractions kept to the microsecond
  int32_t timezoneOffsetInMinutes = 0;
};

class ISODate {
 public:
  /// 1970-01-01T00:00:00Z.
  constexpr ISODate() = default;

  // --- construction -------------------------------------------------------

  /// "YYYY-MM-DDTHH:MM:SS" with optional fraction ".f…" and optional zone
  /// "Z", "+HH:MM", "+HHMM" or "+HH" (also "-"). A text without zone is read
  /// as UTC with offset 0. Leading and trailing white space is ignored.
  /// Absent for anything else (including out-of-range fields).
  static std::optional<ISODate> isoDateWithString(std::string_view text);

  /// Lenient form for texts from foreign files: everything isoDateWithString
  /// reads, plus a blank instead of "T", a date alone ("YYYY-MM-DD", midnight
  /// UTC) and the EXIF form.
  static std::optional<ISODate> dateWithString(std::string_view text);

  /// EXIF form "YYYY:MM:DD HH:MM:SS" with optional fraction and optional zone
  /// as above; without zone the reading is taken as UTC with offset 0.
  static std::optional<ISODate> isoDateWithEXIFString(std::string_view text);

  /// The instant of the wall-clock fields at the given offset, expressed in
  /// that offset. Fields out of range are normalised (month 13 = January of
  /// the next year), as calendar arithmetic does.
  static ISODate isoDateWithCalendarDate(const CalendarDate& date);

  static ISODate isoDateWithTimeIntervalSince1970(double seconds);
  /// Seconds since 2001-01-01T00:00:00Z.
  static ISODate isoDateWithTimeIntervalSinceReferenceDate(double seconds);
  static constexpr ISODate fromMicrosecondsSince1970(int64_t micros, int32_t offsetMinutes = 0) {
    ISODate d;
    d.micros_ = micros;
    d.offset_ = offsetMinutes;
    return d;
  }

  // --- comparison and intervals -------------------------------------------

  /// -1 when this instant lies before the other, 0 when equal, +1 after.
  /// The offsets play no part.
  int compare(const ISODate& other) const {
    return micros_ < other.micros_ ? -1 : (micros_ > other.micros_ ? 1 : 0);
  }
  /// Same instant (offsets may differ).
  bool isEqualToDate(const ISODate& other) const { return micros_ == other.micros_; }
  /// Same instant and same offset: the value round trips compare with this.
  bool operator==(const ISODate& other) const = default;

  /// Signed seconds from the other date to this one (this - other).
  double timeIntervalSinceDate(const ISODate& other) const {
    // In doubles: exact for every realistic instant, and no overflow at the extremes.
    return (static_cast<double>(micros_) - static_cast<double>(other.micros_)) / 1e6;
  }
  double timeIntervalSince1970() const { return static_cast<double>(micros_) / 1e6; }
  double timeIntervalSinceReferenceDate() const;
  int64_t microsecondsSince1970() const { return micros_; }

  // --- time zone ----------------------------------------------------------

  int32_t timezoneOffset() const { return offset_; }
  /// Re-expresses the same instant in another offset.
  void setTimezoneOffsetInMinutes(int32_t minutes) { offset_ = minutes; }
  /// Same, with the offset in seconds east of UTC (truncated to minutes).
  void setTimeZone(int32_t secondsFromGMT) { offset_ = secondsFromGMT / 60; }

  /// Takes this date as a wall-clock reading mistakenly stored as UTC and
  /// returns the true instant of that reading in a zone of the given offset,
  /// expressed in that offset (12:00Z converted with +120 is 10:00Z, shown
  /// as 12:00+02:00).
  [[nodiscard]] ISODate convertLocalTimeToUTC(int32_t offsetMinutes) const;

  /// Calendar arithmetic on the wall clock of this date's offset: years and
  /// months first (the day is clamped to the length of the resulting month,
  /// so January 31 plus one month is the last day of February), then days,
  /// hours, minutes and seconds as exact durations. The offset is kept.
  [[nodiscard]] ISODate dateByAddingYears(int years, int months, int days, int hours,
                                          int minutes, double seconds) const;

  /// The wall-clock fields of this date in its own offset.
  CalendarDate calendarDate() const;

  // --- text forms -----------------------------------------------------------

  /// GPX form, read back by isoDateWithString with the same instant and
  /// offset: "2012-05-01T12:00:00+02:00", "2012-05-01T10:00:00Z" for offset 0,
  /// "2012-05-01T10:00:00.25Z" with a fraction (trailing zeros dropped).
  std::string description() const;
  /// With the zone: description(). Without: the wall clock alone,
  /// "2012-05-01T12:00:00" (fraction as above).
  std::string descriptionWithTimezone(bool withTimezone) const;
  /// Display text in the user's locale (ICU medium date and time), shown in
  /// this date's own offset.
  std::string descriptionForGui() const;
  /// exiftool's date form "2012:05:01 12:00:00+02:00" (whole seconds, zone
  /// always present, "+00:00" for UTC).
  std::string descriptionForExiftool() const;

 private:
  int64_t micros_ = 0;
  int32_t offset_ = 0;
};

static_assert(sizeof(ISODate) == 16);

}  // namespace kvtrack
