#include "kvtrack/model/NamedAndTimedObject.h"

#include "kvtrack/support/CaseInsensitive.h"

#include <fmt/format.h>

#include <cmath>
#include <limits>
#include <mutex>

namespace kvtrack {

namespace {

constexpr double kSecondsPerDay = 86400.0;
constexpr double kSecondsPerMonth = 2678400.0;  // 31 days
constexpr double kSecondsPerYear = 32140800.0;  // 12 x 31 days

std::mutex localizerMutex;
NamedAndTimedObject::Localizer localizer;

// Truncates toward zero; spans beyond int range are clamped, not UB.
int truncated(double value) {
  const double t = std::trunc(value);
  if (t >= static_cast<double>(std::numeric_limits<int>::max())) return std::numeric_limits<int>::max();
  if (t <= static_cast<double>(std::numeric_limits<int>::min())) return std::numeric_limits<int>::min();
  return static_cast<int>(t);
}

// Looks the English format up through the translation hook and fills in the count.
std::string localizedCount(const std::string& englishFormat, int count) {
  std::string format = englishFormat;
  {
    std::lock_guard lock(localizerMutex);
    if (localizer) {
      std::string translated = localizer(englishFormat);
      if (!translated.empty()) format = std::move(translated);
    }
  }
  const auto at = format.find("%d");
  if (at == std::string::npos) return format;
  return format.substr(0, at) + std::to_string(count) + format.substr(at + 2);
}

}  // namespace

void NamedAndTimedObject::setLocalizer(Localizer newLocalizer) {
  std::lock_guard lock(localizerMutex);
  localizer = std::move(newLocalizer);
}

void NamedAndTimedObject::setStartTime(std::optional<ISODate> time) {
  startTime_ = time;
  updateDuration();
}

void NamedAndTimedObject::setEndTime(std::optional<ISODate> time) {
  endTime_ = time;
  updateDuration();
}

void NamedAndTimedObject::updateDuration() {
  if (!startTime_ || !endTime_) return;
  setDuration(endTime_->timeIntervalSinceDate(*startTime_));
}

std::string NamedAndTimedObject::getDurationString(double d) {
  if (!(d > 0.0)) return "";  // also NaN
  if (d > kSecondsPerYear) return localizedCount("%d years", truncated(d / kSecondsPerYear));
  if (d > kSecondsPerMonth) return localizedCount("%d months", truncated(d / kSecondsPerMonth));
  if (d > kSecondsPerDay) return localizedCount("%d days", truncated(d / kSecondsPerDay));
  if (d > 3600.0) {
    const int hours = truncated(d / 3600.0);
    const int minutes = truncated(d / 60.0 - hours * 60.0);
    return fmt::format("{}:{:02} h", hours, minutes);
  }
  // Exactly 3600 s lands here and reads "0:60 h".
  if (d > 60.0) return fmt::format("0:{:02} h", truncated(d / 60.0));
  return fmt::format("{} s", truncated(d));
}

std::string NamedAndTimedObject::getDurationStringFrom(const ISODate& from, const ISODate& to) {
  return getDurationString(to.timeIntervalSinceDate(from));
}

bool NamedAndTimedObject::belongsToObjectAtDate(const ISODate& date) const {
  if (!startTime_ || !endTime_) return false;
  return date.compare(*startTime_) > 0 && date.compare(*endTime_) < 0;
}

int NamedAndTimedObject::compareName(const NamedAndTimedObject& other) const {
  return compareCaseInsensitive(name(), other.name());
}

int NamedAndTimedObject::compareNameDescending(const NamedAndTimedObject& other) const {
  return compareCaseInsensitive(other.name(), name());
}

int NamedAndTimedObject::compareDate(const NamedAndTimedObject& other) const {
  if (!other.startTime_) return -1;
  if (!startTime_) return 1;
  return startTime_->compare(*other.startTime_);
}

int NamedAndTimedObject::compareDateDescending(const NamedAndTimedObject& other) const {
  // The rules for absent times are deliberately the same as ascending.
  if (!other.startTime_) return -1;
  if (!startTime_) return 1;
  return other.startTime_->compare(*startTime_);
}

}  // namespace kvtrack
