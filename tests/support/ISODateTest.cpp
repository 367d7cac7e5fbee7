#include "kvtrack/support/ISODate.h"

#include <gtest/gtest.h>
#include <unicode/locid.h>

#include <climits>
#include <cmath>
#include <limits>
#include <random>
#include <string>
#include <thread>

using kvtrack::CalendarDate;
using kvtrack::ISODate;

namespace {

constexpr int64_t kSecond = 1'000'000;
constexpr int64_t kMay1st2012At10Z = 1'335'866'400 * kSecond;  // 2012-05-01T10:00:00Z

ISODate at(std::string_view text) {
  const auto date = ISODate::isoDateWithString(text);
  EXPECT_TRUE(date.has_value()) << text;
  return date.value_or(ISODate{});
}

ISODate micros(int64_t value, int32_t offset = 0) { return ISODate::fromMicrosecondsSince1970(value, offset); }

}  // namespace

// --- parsing ------------------------------------------------------------------

TEST(ISODateParsing, ReadsTheGpxFormWithEveryZoneForm) {
  struct Case {
    const char* text;
    int64_t micros;
    int32_t offset;
  };
  const Case cases[] = {
      {"2012-05-01T10:00:00Z", kMay1st2012At10Z, 0},
      {"2012-05-01t10:00:00z", kMay1st2012At10Z, 0},
      {"2012-05-01T10:00:00", kMay1st2012At10Z, 0},
      {" \t2012-05-01T10:00:00Z\r\n", kMay1st2012At10Z, 0},
      {"2012-05-01T12:00:00+02:00", kMay1st2012At10Z, 120},
      {"2012-05-01T12:00:00+0200", kMay1st2012At10Z, 120},
      {"2012-05-01T12:00:00+02", kMay1st2012At10Z, 120},
      {"2012-05-01T04:30:00-05:30", kMay1st2012At10Z, -330},
      {"2012-05-02T00:05:00+14:05", kMay1st2012At10Z, 845},
      {"2012-05-01T09:59:00-00:01", kMay1st2012At10Z, -1},
      {"2012-05-01T10:00:00.1234569Z", kMay1st2012At10Z + 123'456, 0},  // truncated, not rounded
      {"2012-05-01T10:00:00.0000009", kMay1st2012At10Z, 0},
      {"2012-06-30T23:59:60Z", 1'341'100'800 * kSecond, 0},  // leap second = next minute
      {"0001-01-01T00:00:00Z", -62'135'596'800 * kSecond, 0},
      {"9999-12-31T23:59:59Z", 253'402'300'799 * kSecond, 0},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(ISODate::isoDateWithString(c.text), micros(c.micros, c.offset)) << c.text;
  }
}

TEST(ISODateParsing, RejectsEverythingElse) {
  const char* const texts[] = {
      "", "   ", "garbage", "2012", "2012-05-01", "2012-05-01T", "2012-05-01T10:00", "2012-05-01T10:00:0",
      "2012-05-01T10:00:00.", "2012-05-01T10:00:00.Z", "2012-5-01T10:00:00Z", "12012-05-01T10:00:00Z",
      "-2012-05-01T10:00:00Z", "2012-05-01T+1:00:00Z", "2012-05-01T 1:00:00Z", "２０１２-05-01T10:00:00Z",
      // out of range
      "2012-00-10T10:00:00Z", "2012-13-01T10:00:00Z", "2012-05-00T10:00:00Z", "2012-04-31T10:00:00Z",
      "2013-02-29T10:00:00Z", "1900-02-29T10:00:00Z", "2012-05-01T24:00:00Z", "2012-05-01T10:60:00Z",
      "2012-05-01T10:00:61Z",
      // zones and trailing junk
      "2012-05-01T10:00:00ZZ", "2012-05-01T10:00:00Z junk", "2012-05-01T10:00:00 Z",
      "2012-05-01T10:00:00 +02:00", "2012-05-01T10:00:00+", "2012-05-01T10:00:00+2",
      "2012-05-01T10:00:00+02:0", "2012-05-01T10:00:00+020", "2012-05-01T10:00:00+24:00",
      "2012-05-01T10:00:00+02:60", "2012-05-01T10:00:00+02:00:00", "2012-05-01T10:00:00.5.5Z",
      "2012-05-01T10:00:00UTC",
      // other forms are for the lenient readers only
      "2012-05-01 10:00:00Z", "2012:05:01 10:00:00",
  };
  for (const char* text : texts) {
    EXPECT_EQ(ISODate::isoDateWithString(text), std::nullopt) << text;
  }
  EXPECT_EQ(ISODate::isoDateWithString(std::string_view("2012-05-01T10:00:00Z\0", 21)), std::nullopt);
}

TEST(ISODateParsing, LenientAndExifForms) {
  const ISODate expected = micros(kMay1st2012At10Z, 120);
  EXPECT_EQ(ISODate::dateWithString("2012-05-01T12:00:00+02:00"), expected);
  EXPECT_EQ(ISODate::dateWithString("2012-05-01 12:00:00+02:00"), expected);
  EXPECT_EQ(ISODate::dateWithString("2012:05:01 12:00:00+02:00"), expected);
  EXPECT_EQ(ISODate::dateWithString(" 2012-05-01 "), micros(1'335'830'400 * kSecond));  // midnight UTC
  EXPECT_EQ(ISODate::dateWithString("2012-05-01 10:00:00.5"), micros(kMay1st2012At10Z + 500'000));
  for (const char* text : {"", "2012-05-01  10:00:00", "2012-02-30", "2012-05-01 10:00", "2012:05:01",
                           "2012:05:01T10:00:00", "2012-05-01x", "2012-05-01T"}) {
    EXPECT_EQ(ISODate::dateWithString(text), std::nullopt) << text;
  }

  EXPECT_EQ(ISODate::isoDateWithEXIFString("2012:05:01 12:00:00+02:00"), expected);
  EXPECT_EQ(ISODate::isoDateWithEXIFString("2012:05:01 10:00:00"), micros(kMay1st2012At10Z));
  EXPECT_EQ(ISODate::isoDateWithEXIFString("2012:05:01 10:00:00.75Z"), micros(kMay1st2012At10Z + 750'000));
  for (const char* text : {"2012-05-01T10:00:00Z", "2012-05-01 10:00:00", "2012:05:01T10:00:00",
                           "0000:00:00 00:00:00", "    :  :     :  :  ", "2012:05:01", "2012:02:30 10:00:00"}) {
    EXPECT_EQ(ISODate::isoDateWithEXIFString(text), std::nullopt) << text;
  }
}

// --- text forms -------------------------------------------------------------------

TEST(ISODateText, DescriptionAndItsRoundTrip) {
  struct Case {
    int64_t micros;
    int32_t offset;
    const char* text;
  };
  const Case cases[] = {
      {kMay1st2012At10Z, 0, "2012-05-01T10:00:00Z"},
      {kMay1st2012At10Z, 120, "2012-05-01T12:00:00+02:00"},
      {kMay1st2012At10Z + 250'000, 0, "2012-05-01T10:00:00.25Z"},
      {kMay1st2012At10Z, -1, "2012-05-01T09:59:00-00:01"},
      {-500'000, 0, "1969-12-31T23:59:59.5Z"},
      {-1, 0, "1969-12-31T23:59:59.999999Z"},
      {-1, 60, "1970-01-01T00:59:59.999999+01:00"},
      {10, 0, "1970-01-01T00:00:00.00001Z"},
      {-62'135'596'800 * kSecond, 0, "0001-01-01T00:00:00Z"},
      {-62'135'596'800 * kSecond, -60, "0000-12-31T23:00:00-01:00"},
      {253'402'300'799 * kSecond + 999'999, 0, "9999-12-31T23:59:59.999999Z"},
  };
  for (const Case& c : cases) {
    const ISODate date = micros(c.micros, c.offset);
    EXPECT_EQ(date.description(), c.text);
    EXPECT_EQ(date.descriptionWithTimezone(true), c.text);
    EXPECT_EQ(ISODate::isoDateWithString(date.description()), date) << c.text;
  }
  EXPECT_EQ(micros(kMay1st2012At10Z + 250'000, 120).descriptionWithTimezone(false), "2012-05-01T12:00:00.25");
  EXPECT_EQ(micros(kMay1st2012At10Z).descriptionWithTimezone(false), "2012-05-01T10:00:00");
  // exiftool's form has no fraction and always an offset.
  EXPECT_EQ(micros(kMay1st2012At10Z + 999'999, 120).descriptionForExiftool(), "2012:05:01 12:00:00+02:00");
  EXPECT_EQ(micros(kMay1st2012At10Z).descriptionForExiftool(), "2012:05:01 10:00:00+00:00");
  EXPECT_EQ(micros(-500'000).descriptionForExiftool(), "1969:12:31 23:59:59+00:00");
}

TEST(ISODateText, YearsBeyondFourDigitsStillFormat) {
  EXPECT_EQ(micros(253'402'300'800 * kSecond).description(), "10000-01-01T00:00:00Z");
  EXPECT_EQ(micros(-62'198'755'200 * kSecond).description(), "-0001-01-01T00:00:00Z");  // the year 2 BC
  for (const ISODate& date : {micros(INT64_MAX), micros(INT64_MIN), micros(INT64_MAX, INT32_MAX),
                              micros(INT64_MIN, INT32_MIN)}) {
    const std::string text = date.description();
    EXPECT_NE(text.find('T'), std::string::npos) << text;
    EXPECT_EQ(ISODate::isoDateWithString(text), std::nullopt) << text;
    EXPECT_FALSE(date.descriptionForExiftool().empty());
  }
  EXPECT_EQ(micros(INT64_MAX).description().substr(0, 7), "294247-");
  EXPECT_EQ(micros(INT64_MIN).description().substr(0, 8), "-290308-");
}

TEST(ISODateText, RandomInstantsRoundTrip) {
  std::mt19937_64 random(20120501);
  const int64_t first = -62'135'596'800 * kSecond + 86'400 * kSecond;  // 0001-01-02
  const int64_t last = 253'402'300'799 * kSecond - 86'400 * kSecond;   // 9999-12-30
  std::uniform_int_distribution<int64_t> instants(first, last);
  std::uniform_int_distribution<int32_t> offsets(-(23 * 60 + 59), 23 * 60 + 59);
  for (int i = 0; i < 4000; ++i) {
    int64_t value = instants(random);
    if (i % 3 == 0) value -= value % kSecond;  // whole seconds
    if (i % 3 == 1) value -= value % 1000;     // milliseconds
    const int32_t offset = i % 4 == 0 ? 0 : offsets(random);
    const ISODate date = micros(value, offset);
    const std::string text = date.description();
    ASSERT_EQ(ISODate::isoDateWithString(text), date) << text;
    ASSERT_EQ(ISODate::dateWithString(text), date) << text;
    ASSERT_EQ(ISODate::isoDateWithCalendarDate(date.calendarDate()), date) << text;
    ASSERT_EQ(text.rfind(date.descriptionWithTimezone(false), 0), 0u) << text;
    // exiftool's form drops the fraction only.
    const auto exif = ISODate::isoDateWithEXIFString(date.descriptionForExiftool());
    ASSERT_TRUE(exif.has_value()) << date.descriptionForExiftool();
    ASSERT_EQ(exif->timezoneOffset(), offset);
    const int64_t fraction = ((value % kSecond) + kSecond) % kSecond;
    ASSERT_EQ(exif->microsecondsSince1970(), value - fraction) << text;
  }
}

TEST(ISODateText, GuiTextUsesDefaultLocaleAndOwnOffset) {
  const icu::Locale saved = icu::Locale::getDefault();
  UErrorCode status = U_ZERO_ERROR;
  icu::Locale::setDefault(icu::Locale("en_US"), status);
  ASSERT_TRUE(U_SUCCESS(status));

  ISODate date = at("2012-05-01T15:42:07Z");
  date.setTimezoneOffsetInMinutes(-330);  // 10:12:07 on the wall clock
  const std::string text = date.descriptionForGui();
  EXPECT_NE(text.find("2012"), std::string::npos) << text;
  EXPECT_NE(text.find("10:12:07"), std::string::npos) << text;
  EXPECT_EQ(text.find("42"), std::string::npos) << text;

  date.setTimezoneOffsetInMinutes(600);  // 01:42:07 on May 2: the zone is set anew on every call
  const std::string later = date.descriptionForGui();
  EXPECT_NE(later.find("1:42:07"), std::string::npos) << later;
  EXPECT_EQ(later.find("10:12"), std::string::npos) << later;

  std::string fromThread;  // formatters are not shared between threads
  std::thread([&] { fromThread = date.descriptionForGui(); }).join();
  EXPECT_EQ(fromThread, later);

  // Proleptic Gregorian like the rest: no switch to the Julian calendar.
  const std::string old = at("1500-03-01T12:00:00Z").descriptionForGui();
  EXPECT_NE(old.find("Mar 1,"), std::string::npos) << old;

  icu::Locale::setDefault(icu::Locale("de_DE"), status);
  const std::string german = at("2012-05-01T15:00:00Z").descriptionForGui();
  EXPECT_NE(german.find("15:00:00"), std::string::npos) << german;
  EXPECT_NE(german.find("2012"), std::string::npos) << german;

  icu::Locale::setDefault(saved, status);
}

// --- arithmetic, intervals and zones ------------------------------------------------

TEST(ISODateArithmetic, IntervalsZonesAndComparison) {
  EXPECT_EQ(ISODate::isoDateWithTimeIntervalSinceReferenceDate(0), at("2001-01-01T00:00:00Z"));
  EXPECT_EQ(at("2012-05-01T10:00:00Z").timeIntervalSinceReferenceDate(), 1'335'866'400.0 - 978'307'200.0);
  EXPECT_EQ(ISODate::isoDateWithTimeIntervalSinceReferenceDate(-0.25).description(), "2000-12-31T23:59:59.75Z");
  EXPECT_EQ(ISODate::isoDateWithTimeIntervalSince1970(4e-7).microsecondsSince1970(), 0);
  EXPECT_EQ(ISODate::isoDateWithTimeIntervalSince1970(6e-7).microsecondsSince1970(), 1);
  EXPECT_EQ(ISODate::isoDateWithTimeIntervalSince1970(-1335866400.5).timeIntervalSince1970(), -1335866400.5);
  EXPECT_EQ(ISODate::isoDateWithTimeIntervalSince1970(std::nan("")), ISODate{});
  EXPECT_EQ(ISODate::isoDateWithTimeIntervalSince1970(-INFINITY), ISODate{});
  EXPECT_GT(ISODate::isoDateWithTimeIntervalSince1970(1e300).compare(at("9999-12-31T23:59:59Z")), 0);
  EXPECT_LT(ISODate::isoDateWithTimeIntervalSinceReferenceDate(-1e300).compare(at("0001-01-01T00:00:00Z")), 0);

  // The same instant in another zone compares equal but is not the same value.
  const ISODate local = at("2012-05-01T12:00:00Z").convertLocalTimeToUTC(120);
  EXPECT_EQ(local.description(), "2012-05-01T12:00:00+02:00");
  EXPECT_EQ(local.compare(at("2012-05-01T10:00:00Z")), 0);
  EXPECT_NE(local, at("2012-05-01T10:00:00Z"));
  EXPECT_EQ(at("2012-05-01T12:00:00Z").convertLocalTimeToUTC(-330).description(), "2012-05-01T12:00:00-05:30");
  EXPECT_EQ(at("2012-05-01T10:01:30.5Z").timeIntervalSinceDate(local), 90.5);
}

TEST(ISODateArithmetic, AddingWorksOnTheOwnWallClock) {
  const auto plus = [](const char* text, int y, int mo, int d, int h, int mi, double s) {
    return at(text).dateByAddingYears(y, mo, d, h, mi, s).description();
  };
  EXPECT_EQ(plus("2012-01-31T08:00:00Z", 0, 1, 0, 0, 0, 0), "2012-02-29T08:00:00Z");
  EXPECT_EQ(plus("2013-01-31T08:00:00Z", 0, 1, 0, 0, 0, 0), "2013-02-28T08:00:00Z");
  // In UTC this is already February 1st; the wall clock decides.
  EXPECT_EQ(plus("2012-01-31T23:30:00-05:00", 0, 1, 0, 0, 0, 0), "2012-02-29T23:30:00-05:00");
  EXPECT_EQ(plus("2012-03-31T08:00:00+01:00", 0, -13, 0, 0, 0, 0), "2011-02-28T08:00:00+01:00");
  EXPECT_EQ(plus("2012-11-15T08:00:00Z", 1, 14, 0, 0, 0, 0), "2015-01-15T08:00:00Z");
  EXPECT_EQ(plus("2012-02-29T08:00:00Z", 1, 0, 0, 0, 0, 0), "2013-02-28T08:00:00Z");
  EXPECT_EQ(plus("2012-02-28T12:00:00Z", 0, 0, 2, 0, 0, 0), "2012-03-01T12:00:00Z");
  EXPECT_EQ(plus("2012-05-01T23:00:00+02:00", 0, 0, 0, 25, -61, 0), "2012-05-02T22:59:00+02:00");
  EXPECT_EQ(plus("2012-05-01T10:00:00Z", 0, 0, 0, 0, 0, 1.5), "2012-05-01T10:00:01.5Z");
  EXPECT_EQ(plus("1970-01-31T00:00:00.25Z", 0, -1, -1, 0, 0, -0.5), "1969-12-29T23:59:59.75Z");
  // Month arithmetic keeps the fraction and the time of day before 1970 too.
  EXPECT_EQ(plus("1969-01-31T06:07:08.9-03:00", 0, 1, 0, 0, 0, 0), "1969-02-28T06:07:08.9-03:00");

  // Absurd amounts saturate instead of overflowing.
  const ISODate date = at("2012-05-01T10:00:00Z");
  EXPECT_GT(date.dateByAddingYears(INT_MAX, INT_MAX, INT_MAX, INT_MAX, INT_MAX, 1e300).compare(date), 0);
  EXPECT_LT(date.dateByAddingYears(INT_MIN, INT_MIN, INT_MIN, INT_MIN, INT_MIN, -1e300).compare(date), 0);
  EXPECT_EQ(date.dateByAddingYears(0, 0, 0, 0, 0, std::nan("")), date);
}

TEST(ISODateArithmetic, CalendarFieldsAreNormalised) {
  const auto fromFields = [](int y, int mo, int d, int h, int mi, double s, int32_t offset = 0) {
    return ISODate::isoDateWithCalendarDate(CalendarDate{y, mo, d, h, mi, s, offset}).description();
  };
  EXPECT_EQ(fromFields(2012, 5, 1, 12, 0, 0, 120), "2012-05-01T12:00:00+02:00");
  EXPECT_EQ(fromFields(2012, 13, 1, 0, 0, 0), "2013-01-01T00:00:00Z");
  EXPECT_EQ(fromFields(2012, -13, 15, 0, 0, 0), "2010-11-15T00:00:00Z");
  EXPECT_EQ(fromFields(2012, 3, 0, 0, 0, 0), "2012-02-29T00:00:00Z");
  EXPECT_EQ(fromFields(2012, 2, 30, 0, 0, 0), "2012-03-01T00:00:00Z");
  EXPECT_EQ(fromFields(2012, 5, 1, 10, 75, 0), "2012-05-01T11:15:00Z");
  EXPECT_EQ(fromFields(2012, 5, 1, -1, 0, 61.5), "2012-04-30T23:01:01.5Z");
  EXPECT_EQ(fromFields(2012, 5, 1, 0, 0, 0.0000004), "2012-05-01T00:00:00Z");
  EXPECT_EQ(fromFields(2012, 5, 1, 0, 0, 0.0000006), "2012-05-01T00:00:00.000001Z");
  // Absurd fields give some date, never undefined behaviour.
  ISODate::isoDateWithCalendarDate(CalendarDate{INT_MAX, INT_MAX, INT_MAX, INT_MAX, INT_MAX, 1e300, INT32_MAX});
  ISODate::isoDateWithCalendarDate(CalendarDate{INT_MIN, INT_MIN, INT_MIN, INT_MIN, INT_MIN, -1e300, INT32_MIN});

  const CalendarDate f = micros(-1, 60).calendarDate();  // floor, not truncation, before 1970
  EXPECT_EQ(std::tuple(f.year, f.month, f.day, f.hour, f.minute, f.timezoneOffsetInMinutes),
            std::tuple(1970, 1, 1, 0, 59, 60));
  EXPECT_NEAR(f.second, 59.999999, 1e-9);
}
