#include "kvtrack/support/ISODate.h"

#include <unicode/datefmt.h>
#include <unicode/gregocal.h>
#include <unicode/simpletz.h>
#include <unicode/unistr.h>

#include <algorithm>
#include <charconv>
#include <chrono>
#include <cmath>
#include <limits>
#include <memory>
#include <mutex>

namespace kvtrack {

namespace {

namespace chr = std::chrono;

constexpr int64_t kMicrosPerSecond = 1'000'000;
constexpr int64_t kMicrosPerMinute = 60 * kMicrosPerSecond;
constexpr int64_t kMicrosPerHour = 60 * kMicrosPerMinute;
constexpr int64_t kMicrosPerDay = 24 * kMicrosPerHour;
// 2001-01-01T00:00:00Z.
constexpr int64_t kReferenceDateMicros = 978'307'200 * kMicrosPerSecond;
// The Gregorian calendar repeats itself every 400 years of 146097 days.
constexpr int64_t kDaysPer400Years = 146'097;
constexpr int64_t kInt64Max = std::numeric_limits<int64_t>::max();
constexpr int64_t kInt64Min = std::numeric_limits<int64_t>::min();

// --- integer helpers --------------------------------------------------------
// Every instant computation saturates at the int64 limits instead of
// overflowing: absurd inputs give absurd but defined dates.

int64_t saturatingAdd(int64_t a, int64_t b) {
  int64_t r;
  if (__builtin_add_overflow(a, b, &r)) return b > 0 ? kInt64Max : kInt64Min;
  return r;
}

int64_t saturatingSub(int64_t a, int64_t b) {
  int64_t r;
  if (__builtin_sub_overflow(a, b, &r)) return b < 0 ? kInt64Max : kInt64Min;
  return r;
}

int64_t saturatingMul(int64_t a, int64_t b) {
  int64_t r;
  if (__builtin_mul_overflow(a, b, &r)) return (a < 0) == (b < 0) ? kInt64Max : kInt64Min;
  return r;
}

constexpr int64_t floorDiv(int64_t a, int64_t b) {  // b > 0
  const int64_t q = a / b;
  return (a % b < 0) ? q - 1 : q;
}

constexpr int64_t floorMod(int64_t a, int64_t b) {  // b > 0
  const int64_t r = a % b;
  return r < 0 ? r + b : r;
}

int64_t offsetMicros(int32_t offsetMinutes) {
  return static_cast<int64_t>(offsetMinutes) * kMicrosPerMinute;  // |x| < 1.3e17
}

/// Seconds as a whole number of microseconds, rounded to the nearest one.
/// NaN and infinities count as 0; finite values beyond the range of the
/// representation are clamped to it.
int64_t secondsToMicros(double seconds) {
  if (!std::isfinite(seconds)) return 0;
  constexpr double kLimit = 9.2e12;  // seconds; 9.2e18 us still fits in int64
  seconds = std::clamp(seconds, -kLimit, kLimit);
  return static_cast<int64_t>(std::llround(seconds * 1e6));
}

// --- calendar ---------------------------------------------------------------
// std::chrono's year only covers -32767..32767, while the representation
// spans some 292,000 years either way. Both conversions therefore reduce the
// year into one 400-year cycle, let std::chrono do the calendar work there,
// and add the whole cycles back.

struct Civil {
  int64_t year;
  unsigned month;  // 1..12
  unsigned day;    // 1..31
};

/// Days since 1970-01-01 of a valid day of the proleptic Gregorian calendar.
constexpr int64_t daysFromCivil(int64_t year, unsigned month, unsigned day) {
  const int64_t cycles = floorDiv(year, 400);
  const int yearInCycle = static_cast<int>(year - cycles * 400);  // 0..399
  const chr::sys_days sd{chr::year{yearInCycle} / chr::month{month} / chr::day{day}};
  return sd.time_since_epoch().count() + cycles * kDaysPer400Years;
}

constexpr Civil civilFromDays(int64_t days) {
  const int64_t cycles = floorDiv(days, kDaysPer400Years);
  const int64_t dayInCycle = days - cycles * kDaysPer400Years;  // 1970..2369
  const chr::year_month_day ymd{chr::sys_days{chr::days{dayInCycle}}};
  return Civil{static_cast<int>(ymd.year()) + cycles * 400, static_cast<unsigned>(ymd.month()),
               static_cast<unsigned>(ymd.day())};
}

unsigned daysInMonth(int64_t year, unsigned month) {
  const int yearInCycle = static_cast<int>(floorMod(year, 400)) + 2000;
  return static_cast<unsigned>((chr::year{yearInCycle} / chr::month{month} / chr::last).day());
}

static_assert(daysFromCivil(1970, 1, 1) == 0);
static_assert(daysFromCivil(2001, 1, 1) * 86'400 == 978'307'200);
static_assert(daysFromCivil(1, 1, 1) == -719'162);
static_assert(daysFromCivil(-1, 12, 31) == -719'529);  // 2 BC; year 0 is a leap year
static_assert(civilFromDays(-719'162).year == 1 && civilFromDays(-719'163).year == 0);
static_assert(civilFromDays(daysFromCivil(-123'456, 2, 29)).day == 29);

/// A wall clock reading in microseconds since 1970 split into days and the
/// time of day (0 <= timeOfDay < one day), floor-wise for negative values.
struct WallClock {
  int64_t days;
  int64_t timeOfDay;
};

WallClock splitWallClock(int64_t wallMicros) {
  // Computed from the remainder so that no product can overflow.
  int64_t days = wallMicros / kMicrosPerDay;
  int64_t timeOfDay = wallMicros % kMicrosPerDay;
  if (timeOfDay < 0) {
    timeOfDay += kMicrosPerDay;
    --days;
  }
  return {days, timeOfDay};
}

// --- parsing ----------------------------------------------------------------

bool isDigit(char c) { return c >= '0' && c <= '9'; }
bool isSpace(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f' || c == '\v'; }

std::string_view trimmed(std::string_view text) {
  while (!text.empty() && isSpace(text.front())) text.remove_prefix(1);
  while (!text.empty() && isSpace(text.back())) text.remove_suffix(1);
  return text;
}

/// The text forms of date and time, differing in their separators.
struct Syntax {
  char dateSeparator;       // '-' (ISO 8601) or ':' (EXIF)
  bool acceptsT;            // "T" or "t" between date and time
  bool acceptsBlank;        // " " between date and time
  bool acceptsDateAlone;    // "YYYY-MM-DD" as midnight UTC
};

constexpr Syntax kStrictISO{'-', true, false, false};
constexpr Syntax kLenientISO{'-', true, true, true};
constexpr Syntax kEXIF{':', false, true, false};

class Scanner {
 public:
  explicit Scanner(std::string_view text) : text_(text) {}

  bool atEnd() const { return pos_ == text_.size(); }
  char peek() const { return atEnd() ? '\0' : text_[pos_]; }

  bool skip(char c) {
    if (peek() != c) return false;
    ++pos_;
    return true;
  }

  /// Exactly `width` decimal digits (no sign, no blanks).
  bool fixedNumber(size_t width, int& out) {
    if (text_.size() - pos_ < width) return false;
    const char* first = text_.data() + pos_;
    if (!std::all_of(first, first + width, isDigit)) return false;
    const auto [end, ec] = std::from_chars(first, first + width, out);
    if (ec != std::errc{} || end != first + width) return false;
    pos_ += width;
    return true;
  }

  /// One or more digits after a decimal point, as microseconds; digits
  /// beyond the sixth are checked but truncated.
  bool fraction(int64_t& micros) {
    const size_t start = pos_;
    while (!atEnd() && isDigit(text_[pos_])) ++pos_;
    const size_t count = pos_ - start;
    if (count == 0) return false;
    const size_t used = std::min<size_t>(count, 6);
    int value = 0;
    const char* first = text_.data() + start;
    if (std::from_chars(first, first + used, value).ec != std::errc{}) return false;
    for (size_t i = used; i < 6; ++i) value *= 10;
    micros = value;
    return true;
  }

 private:
  std::string_view text_;
  size_t pos_ = 0;
};

/// "+HH:MM", "+HHMM", "+HH", the same with "-", or "Z"; the scanner must
/// stand at the first character of the zone.
bool parseZone(Scanner& in, int32_t& offsetMinutes) {
  if (in.skip('Z') || in.skip('z')) {
    offsetMinutes = 0;
    return true;
  }
  int sign;
  if (in.skip('+')) {
    sign = 1;
  } else if (in.skip('-')) {
    sign = -1;
  } else {
    return false;
  }
  int hours = 0;
  int minutes = 0;
  if (!in.fixedNumber(2, hours)) return false;
  if (in.skip(':')) {
    if (!in.fixedNumber(2, minutes)) return false;
  } else if (!in.atEnd()) {
    if (!in.fixedNumber(2, minutes)) return false;
  }
  if (hours > 23 || minutes > 59) return false;
  offsetMinutes = sign * (hours * 60 + minutes);
  return true;
}

std::optional<ISODate> parse(std::string_view text, const Syntax& syntax) {
  Scanner in(trimmed(text));

  int year = 0;
  int month = 0;
  int day = 0;
  if (!in.fixedNumber(4, year) || !in.skip(syntax.dateSeparator) || !in.fixedNumber(2, month) ||
      !in.skip(syntax.dateSeparator) || !in.fixedNumber(2, day)) {
    return std::nullopt;
  }
  const chr::year_month_day ymd{chr::year{year}, chr::month{static_cast<unsigned>(month)},
                                chr::day{static_cast<unsigned>(day)}};
  if (!ymd.ok()) return std::nullopt;
  const int64_t days = chr::sys_days{ymd}.time_since_epoch().count();

  if (in.atEnd()) {
    if (!syntax.acceptsDateAlone) return std::nullopt;
    return ISODate::fromMicrosecondsSince1970(days * kMicrosPerDay, 0);
  }

  const char separator = in.peek();
  const bool separatorOK = ((separator == 'T' || separator == 't') && syntax.acceptsT) ||
                           (separator == ' ' && syntax.acceptsBlank);
  if (!separatorOK || !in.skip(separator)) return std::nullopt;

  int hour = 0;
  int minute = 0;
  int second = 0;
  if (!in.fixedNumber(2, hour) || !in.skip(':') || !in.fixedNumber(2, minute) || !in.skip(':') ||
      !in.fixedNumber(2, second)) {
    return std::nullopt;
  }
  // Second 60 is a leap second; it rolls over into the next minute.
  if (hour > 23 || minute > 59 || second > 60) return std::nullopt;

  int64_t fraction = 0;
  if (in.skip('.') && !in.fraction(fraction)) return std::nullopt;

  int32_t offset = 0;
  if (!in.atEnd() && !parseZone(in, offset)) return std::nullopt;
  if (!in.atEnd()) return std::nullopt;

  const int64_t wall = days * kMicrosPerDay + hour * kMicrosPerHour + minute * kMicrosPerMinute +
                       second * kMicrosPerSecond + fraction;
  return ISODate::fromMicrosecondsSince1970(wall - offsetMicros(offset), offset);
}

// --- formatting -------------------------------------------------------------

/// Appends a non-negative number with at least `width` digits.
void appendPadded(std::string& out, int64_t value, int width) {
  char buffer[24];
  const auto result = std::to_chars(buffer, buffer + sizeof buffer, value);
  const auto length = static_cast<int>(result.ptr - buffer);
  if (length < width) out.append(static_cast<size_t>(width - length), '0');
  out.append(buffer, result.ptr);
}

/// "YYYY", "-YYYY" before the year 0, more digits after 9999.
void appendYear(std::string& out, int64_t year) {
  if (year < 0) out += '-';
  appendPadded(out, year < 0 ? -year : year, 4);  // |year| < 300,000
}

/// "+HH:MM" or "-HH:MM".
void appendOffset(std::string& out, int32_t offsetMinutes) {
  const int64_t magnitude = offsetMinutes < 0 ? -static_cast<int64_t>(offsetMinutes) : offsetMinutes;
  out += offsetMinutes < 0 ? '-' : '+';
  appendPadded(out, magnitude / 60, 2);
  out += ':';
  appendPadded(out, magnitude % 60, 2);
}

struct WallFields {
  Civil date;
  int hour;
  int minute;
  int second;
  int micros;
};

WallFields wallFields(int64_t micros, int32_t offsetMinutes) {
  const WallClock wall = splitWallClock(saturatingAdd(micros, offsetMicros(offsetMinutes)));
  const int64_t t = wall.timeOfDay;
  return WallFields{civilFromDays(wall.days), static_cast<int>(t / kMicrosPerHour),
                    static_cast<int>(t / kMicrosPerMinute % 60), static_cast<int>(t / kMicrosPerSecond % 60),
                    static_cast<int>(t % kMicrosPerSecond)};
}

/// Date, time, separators given; the fraction when asked and not zero.
std::string formatWallClock(const WallFields& f, char dateSeparator, char timeSeparator, bool withFraction) {
  std::string out;
  out.reserve(40);
  appendYear(out, f.date.year);
  out += dateSeparator;
  appendPadded(out, f.date.month, 2);
  out += dateSeparator;
  appendPadded(out, f.date.day, 2);
  out += timeSeparator;
  appendPadded(out, f.hour, 2);
  out += ':';
  appendPadded(out, f.minute, 2);
  out += ':';
  appendPadded(out, f.second, 2);
  if (withFraction && f.micros != 0) {
    int digits = 6;
    int value = f.micros;
    while (value % 10 == 0) {
      value /= 10;
      --digits;
    }
    out += '.';
    appendPadded(out, value, digits);
  }
  return out;
}

// --- display text -----------------------------------------------------------
// Building an ICU date format is expensive, so one prototype per default
// locale is built and every thread keeps its own clone of it. A change of
// the default locale is noticed on the next call.

std::unique_ptr<icu::DateFormat> clonePrototypeFormat(const icu::Locale& locale) {
  static std::mutex mutex;
  static std::unique_ptr<icu::DateFormat> prototype;
  static std::string prototypeLocale;

  std::lock_guard lock(mutex);
  if (!prototype || prototypeLocale != locale.getName()) {
    prototype.reset(
        icu::DateFormat::createDateTimeInstance(icu::DateFormat::kMedium, icu::DateFormat::kMedium, locale));
    prototypeLocale = locale.getName();
    if (!prototype) return nullptr;
    // The rest of kvtrack counts days in the proleptic Gregorian calendar;
    // ICU switches to the Julian calendar before 1582 unless told otherwise.
    std::unique_ptr<icu::Calendar> calendar(prototype->getCalendar()->clone());
    if (auto* gregorian = dynamic_cast<icu::GregorianCalendar*>(calendar.get())) {
      UErrorCode status = U_ZERO_ERROR;
      gregorian->setGregorianChange(U_DATE_MIN, status);
      if (U_SUCCESS(status)) prototype->adoptCalendar(calendar.release());
    }
  }
  return std::unique_ptr<icu::DateFormat>(prototype->clone());
}

struct ThreadGuiFormat {
  std::string localeName;
  std::unique_ptr<icu::DateFormat> format;
  std::optional<int32_t> offsetMinutes;  // the zone currently set on format
};

}  // namespace

// --- construction -------------------------------------------------------------

std::optional<ISODate> ISODate::isoDateWithString(std::string_view text) { return parse(text, kStrictISO); }

std::optional<ISODate> ISODate::dateWithString(std::string_view text) {
  if (auto date = parse(text, kLenientISO)) return date;
  return parse(text, kEXIF);
}

std::optional<ISODate> ISODate::isoDateWithEXIFString(std::string_view text) { return parse(text, kEXIF); }

ISODate ISODate::isoDateWithCalendarDate(const CalendarDate& date) {
  const int64_t monthIndex = static_cast<int64_t>(date.year) * 12 + (static_cast<int64_t>(date.month) - 1);
  const int64_t year = floorDiv(monthIndex, 12);
  const auto month = static_cast<unsigned>(floorMod(monthIndex, 12) + 1);
  const int64_t days = daysFromCivil(year, month, 1) + (static_cast<int64_t>(date.day) - 1);

  int64_t wall = saturatingMul(days, kMicrosPerDay);
  wall = saturatingAdd(wall, static_cast<int64_t>(date.hour) * kMicrosPerHour);  // < 7.8e18
  wall = saturatingAdd(wall, static_cast<int64_t>(date.minute) * kMicrosPerMinute);
  wall = saturatingAdd(wall, secondsToMicros(date.second));
  const int32_t offset = date.timezoneOffsetInMinutes;
  return fromMicrosecondsSince1970(saturatingSub(wall, offsetMicros(offset)), offset);
}

ISODate ISODate::isoDateWithTimeIntervalSince1970(double seconds) {
  return fromMicrosecondsSince1970(secondsToMicros(seconds));
}

ISODate ISODate::isoDateWithTimeIntervalSinceReferenceDate(double seconds) {
  return fromMicrosecondsSince1970(saturatingAdd(secondsToMicros(seconds), kReferenceDateMicros));
}

double ISODate::timeIntervalSinceReferenceDate() const {
  int64_t difference;
  if (__builtin_sub_overflow(micros_, kReferenceDateMicros, &difference)) {
    return static_cast<double>(micros_) / 1e6 - static_cast<double>(kReferenceDateMicros / kMicrosPerSecond);
  }
  return static_cast<double>(difference) / 1e6;
}

// --- time zone and arithmetic ---------------------------------------------------

ISODate ISODate::convertLocalTimeToUTC(int32_t offsetMinutes) const {
  return fromMicrosecondsSince1970(saturatingSub(micros_, offsetMicros(offsetMinutes)), offsetMinutes);
}

ISODate ISODate::dateByAddingYears(int years, int months, int days, int hours, int minutes,
                                   double seconds) const {
  const WallClock wall = splitWallClock(saturatingAdd(micros_, offsetMicros(offset_)));
  const Civil civil = civilFromDays(wall.days);

  const int64_t monthIndex = civil.year * 12 + (civil.month - 1) + static_cast<int64_t>(years) * 12 + months;
  const int64_t year = floorDiv(monthIndex, 12);
  const auto month = static_cast<unsigned>(floorMod(monthIndex, 12) + 1);
  const unsigned day = std::min(civil.day, daysInMonth(year, month));

  int64_t result = saturatingAdd(saturatingMul(daysFromCivil(year, month, day), kMicrosPerDay), wall.timeOfDay);
  result = saturatingAdd(result, saturatingMul(days, kMicrosPerDay));
  result = saturatingAdd(result, static_cast<int64_t>(hours) * kMicrosPerHour);
  result = saturatingAdd(result, static_cast<int64_t>(minutes) * kMicrosPerMinute);
  result = saturatingAdd(result, secondsToMicros(seconds));
  return fromMicrosecondsSince1970(saturatingSub(result, offsetMicros(offset_)), offset_);
}

CalendarDate ISODate::calendarDate() const {
  const WallFields f = wallFields(micros_, offset_);
  CalendarDate date;
  date.year = static_cast<int>(f.date.year);  // |year| < 300,000
  date.month = static_cast<int>(f.date.month);
  date.day = static_cast<int>(f.date.day);
  date.hour = f.hour;
  date.minute = f.minute;
  date.second = f.second + f.micros / 1e6;
  date.timezoneOffsetInMinutes = offset_;
  return date;
}

// --- text forms ---------------------------------------------------------------

std::string ISODate::description() const { return descriptionWithTimezone(true); }

std::string ISODate::descriptionWithTimezone(bool withTimezone) const {
  std::string out = formatWallClock(wallFields(micros_, offset_), '-', 'T', true);
  if (withTimezone) {
    if (offset_ == 0) {
      out += 'Z';
    } else {
      appendOffset(out, offset_);
    }
  }
  return out;
}

std::string ISODate::descriptionForExiftool() const {
  std::string out = formatWallClock(wallFields(micros_, offset_), ':', ' ', false);
  appendOffset(out, offset_);
  return out;
}

std::string ISODate::descriptionForGui() const {
  thread_local ThreadGuiFormat cache;

  const icu::Locale& locale = icu::Locale::getDefault();
  if (!cache.format || cache.localeName != locale.getName()) {
    cache.format = clonePrototypeFormat(locale);
    cache.localeName = locale.getName();
    cache.offsetMinutes.reset();
  }
  if (!cache.format) return description();

  if (cache.offsetMinutes != offset_) {
    // ICU takes the offset in milliseconds as int32: about +-596 hours.
    constexpr int32_t kMaxOffsetMinutes = std::numeric_limits<int32_t>::max() / 60'000;
    const int32_t minutes = std::clamp(offset_, -kMaxOffsetMinutes, kMaxOffsetMinutes);
    cache.format->adoptTimeZone(new icu::SimpleTimeZone(minutes * 60'000, icu::UnicodeString(u"custom")));
    cache.offsetMinutes = offset_;
  }

  const auto udate = static_cast<UDate>(floorDiv(micros_, 1000));  // milliseconds since 1970
  icu::UnicodeString text;
  cache.format->format(udate, text);
  std::string out;
  text.toUTF8String(out);
  return out;
}

}  // namespace kvtrack
