// IGotU: turning 32-byte log records into track points.
//
// Record layout (multi-byte fields big-endian):
//   0      flags: 0x02 timeout log, 0x04 normal log, 0x08 timeout with good
//          fix, 0x10 navigation data invalid, 0x20 track stop, 0x40 track start
//   1      high nibble: year in a 16-year cycle; low nibble: month
//   2      bits 7-3 day; bits 2-0 upper three bits of the hour
//   3      bits 7-6 lower two bits of the hour; bits 5-0 minute
//   4..5   milliseconds within the minute
//   8..11  elevation, signed, centimetres
//   12..15 latitude, signed, degrees x 1e7
//   16..19 longitude, signed, degrees x 1e7
//   29     low nibble qualified satellites; high nibble most satellites found
//   30     weight criteria
#include "kvtrack/devices/igotu/IGotU.h"

#include "kvtrack/model/TrackPoint.h"
#include "kvtrack/support/ISODate.h"
#include "kvtrack/support/Log.h"

#include <fmt/format.h>

#include <algorithm>
#include <ctime>

namespace kvtrack {

namespace {

constexpr uint8_t kFlagNavigationInvalid = 0x10;
constexpr uint64_t kProgressLogInterval = 50;

int32_t bigEndian32(const uint8_t* bytes) {
  return static_cast<int32_t>((uint32_t{bytes[0]} << 24) | (uint32_t{bytes[1]} << 16) |
                              (uint32_t{bytes[2]} << 8) | uint32_t{bytes[3]});
}

int currentYear() {
  const std::time_t now = std::time(nullptr);
  std::tm local{};
  localtime_r(&now, &local);
  return local.tm_year + 1900;
}

// The logger keeps only the year's place in a 16-year cycle: a place later
// than this year's belongs to the previous cycle (in 2025, place 15 is 2015).
int recordYear(int cycleYear, int thisYear) {
  const int base = thisYear - thisYear % 16;
  return base + cycleYear - (cycleYear > thisYear - base ? 16 : 0);
}

// The record's time in UTC, whole seconds (the logger keeps UTC).
std::optional<ISODate> recordTime(const uint8_t* r, int thisYear) {
  const int year = recordYear(r[1] >> 4, thisYear);
  const int month = r[1] & 0x0F;
  const int day = r[2] >> 3;
  const int hour = ((r[2] & 7) << 2) | (r[3] >> 6);
  const int minute = r[3] & 0x3F;
  const int milliseconds = (r[4] << 8) | r[5];
  logf("{}-{}-{} {}:{}:{},{}", year, month, day, hour, minute, milliseconds / 1000,
       milliseconds % 1000);
  return ISODate::isoDateWithString(fmt::format("{}-{:02}-{:02}T{:02}:{:02}:{:02}", year, month,
                                                day, hour, minute, milliseconds / 1000));
}

}  // namespace

void IGotU::createTrackPoints(std::span<const uint8_t> records, uint64_t count) {
  if (!currentTrack_) currentTrack_ = Track::track();
  const int thisYear = currentYear();
  // Never past the bytes read: a count above 1,536 outruns the 12 blocks.
  const uint64_t available = std::min<uint64_t>(count, records.size() / kRecordSize);
  for (uint64_t i = 0; i < available; ++i) {
    const uint8_t* r = records.data() + i * kRecordSize;
    logf("timeoutlog:{} normalLog:{} timeoutGtOk:{} navigationDataInvalid:{} trackStop:{} "
         "trackStart:{}",
         (r[0] >> 1) & 1, (r[0] >> 2) & 1, (r[0] >> 3) & 1, (r[0] >> 4) & 1, (r[0] >> 5) & 1,
         (r[0] >> 6) & 1);
    const std::optional<ISODate> time = recordTime(r, thisYear);
    const double latitude = bigEndian32(r + 12) / 10000000.0;
    const double longitude = bigEndian32(r + 16) / 10000000.0;
    const double elevation = bigEndian32(r + 8) / 100.0;
    logf("Lat: {:f} lon: {:f}  ele: {:f}", latitude, longitude, elevation);
    logf("qualifiedSatelliteNumber:{} maximumFoundSV:{} weightCriteria:{}", r[29] & 0x0F, r[29] >> 4,
         r[30]);
    if (i % kProgressLogInterval == 0) logf("i-GotU: Track point {} of {}", i, available);

    const bool hasFix = (r[0] & kFlagNavigationInvalid) == 0 && (r[29] & 0x0F) != 0 && r[29] > 15;
    if (!hasFix || !acceptPosition(latitude, longitude)) continue;
    TrackPointPtr point = TrackPoint::trackPointWithParent(currentTrack_.get());
    point->setLatitude(latitude);
    point->setLongitude(longitude);
    point->setTime(time);
    point->setElevation(elevation);
    currentTrack_->addTrackPoint(point);
    if (currentTrack_->loadedPointCount() == 1 && time) {
      currentTrack_->setName(time->descriptionForGui());
    }
  }
}

}  // namespace kvtrack
