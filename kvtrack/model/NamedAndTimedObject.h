#pragma once
// A named object with a start time, an end time and the duration between
// them. Also owns the one routine that renders a time span as the short text
// shown everywhere ("3 days", "2:05 h", "45 s").

#include "kvtrack/model/NamedObject.h"
#include "kvtrack/support/ISODate.h"

#include <functional>
#include <optional>
#include <string>

namespace kvtrack {

class NamedAndTimedObject : public NamedObject {
 public:
  NamedAndTimedObject() = default;
  explicit NamedAndTimedObject(std::string name) : NamedObject(std::move(name)) {}

  static std::shared_ptr<NamedAndTimedObject> namedAndTimedObject() {
    return std::make_shared<NamedAndTimedObject>();
  }
  static std::shared_ptr<NamedAndTimedObject> namedAndTimedObjectWithName(std::string name) {
    return std::make_shared<NamedAndTimedObject>(std::move(name));
  }

  const std::optional<ISODate>& startTime() const { return startTime_; }
  const std::optional<ISODate>& endTime() const { return endTime_; }
  /// Both setters recompute the duration when both times are present.
  void setStartTime(std::optional<ISODate> time);
  void setEndTime(std::optional<ISODate> time);

  /// Seconds from start to end; keeps its last value while a time is absent.
  double duration() const { return duration_; }
  void setDuration(double seconds) { duration_ = seconds; }
  void updateDuration();

  std::string durationString() const { return getDurationString(duration_); }
  /// Short text for a span in seconds. Months are 31 days and years twelve
  /// such months; counts are truncated, and there is no singular form.
  static std::string getDurationString(double seconds);
  static std::string getDurationStringFrom(const ISODate& from, const ISODate& to);

  /// True only strictly between start and end.
  bool belongsToObjectAtDate(const ISODate& date) const;

  // Comparators: -1 ascending, 0 same, +1 descending.
  int compareName(const NamedAndTimedObject& other) const;
  int compareNameDescending(const NamedAndTimedObject& other) const;
  /// Objects without a start time sort after every dated object.
  int compareDate(const NamedAndTimedObject& other) const;
  int compareDateDescending(const NamedAndTimedObject& other) const;

  /// Translation hook for the long duration units ("%d days" and so on);
  /// the key is the English format. Unset, or returning an empty text,
  /// means the English text is used.
  using Localizer = std::function<std::string(const std::string& key)>;
  static void setLocalizer(Localizer localizer);

 protected:
  /// For subclasses that re-express the times in another zone in place.
  std::optional<ISODate>& mutableStartTime() { return startTime_; }
  std::optional<ISODate>& mutableEndTime() { return endTime_; }

 private:
  std::optional<ISODate> startTime_;
  std::optional<ISODate> endTime_;
  double duration_ = 0.0;
};

}  // namespace kvtrack
