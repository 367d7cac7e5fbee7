#include "kvtrack/model/NamedAndTimedObject.h"
#include "tests/common/TrackBuilders.h"

#include <algorithm>
#include <cmath>
#include <vector>

namespace kvtrack {
namespace {

using testing::at;

TEST(DurationText, FollowsTheCoarseUnitsAndTruncates) {
  const std::vector<std::pair<double, std::string>> cases = {
      {0, ""},           {-5, ""},            {std::nan(""), ""},     {0.5, "0 s"},
      {59.9, "59 s"},    {60, "60 s"},        {61, "0:01 h"},         {3600, "0:60 h"},
      {3601, "1:00 h"},  {7500, "2:05 h"},    {86400, "24:00 h"},     {86401, "1 days"},
      {2678400, "31 days"}, {2678401, "1 months"}, {32140800, "12 months"},
      {32140801, "1 years"}, {1e12, "31113 years"},
  };
  for (const auto& [seconds, text] : cases) {
    EXPECT_EQ(NamedAndTimedObject::getDurationString(seconds), text) << seconds;
  }
  // Long units go through the translation hook; untranslated keys stay English.
  NamedAndTimedObject::setLocalizer([](const std::string& key) {
    return key == "%d days" ? std::string("%d Tage") : std::string();
  });
  EXPECT_EQ(NamedAndTimedObject::getDurationString(3 * 86400 + 1), "3 Tage");
  EXPECT_EQ(NamedAndTimedObject::getDurationString(2678401), "1 months");
  NamedAndTimedObject::setLocalizer(nullptr);
  EXPECT_EQ(NamedAndTimedObject::getDurationString(3 * 86400 + 1), "3 days");
  // Between two dates the signed interval counts, whatever their zones.
  EXPECT_EQ(NamedAndTimedObject::getDurationStringFrom(at("2012-05-01T10:00:00Z"),
                                                       at("2012-05-01T12:05:30+02:00")),
            "0:05 h");
  EXPECT_EQ(NamedAndTimedObject::getDurationStringFrom(at("2012-05-01T11:00:00Z"),
                                                       at("2012-05-01T10:00:00Z")),
            "");
}

TEST(TimedObject, DurationAndMembershipFollowOnlyWhenBothTimesArePresent) {
  NamedAndTimedObject object("walk");
  object.setDuration(42);
  object.setStartTime(at("2012-05-01T10:00:00Z"));
  EXPECT_EQ(object.duration(), 42);
  object.setEndTime(at("2012-05-01T10:01:30.5Z"));
  EXPECT_DOUBLE_EQ(object.duration(), 90.5);
  EXPECT_EQ(object.durationString(), "0:01 h");
  object.setEndTime(at("2012-05-01T09:59:00Z"));
  EXPECT_DOUBLE_EQ(object.duration(), -60);  // nothing forbids an end before the start
  object.setStartTime(std::nullopt);
  EXPECT_DOUBLE_EQ(object.duration(), -60);  // kept, not reset
  EXPECT_FALSE(object.belongsToObjectAtDate(at("2012-05-01T10:00:00Z")));

  // A date belongs only strictly between start and end.
  object.setStartTime(at("2012-05-01T10:00:00Z"));
  object.setEndTime(at("2012-05-01T11:00:00Z"));
  EXPECT_FALSE(object.belongsToObjectAtDate(at("2012-05-01T10:00:00Z")));
  EXPECT_FALSE(object.belongsToObjectAtDate(at("2012-05-01T11:00:00Z")));
  EXPECT_TRUE(object.belongsToObjectAtDate(at("2012-05-01T10:00:00.001Z")));
  EXPECT_TRUE(object.belongsToObjectAtDate(at("2012-05-01T12:30:00+02:00")));
}

TEST(TimedObjectOrder, NamesIgnoreCaseOnlyAndUndatedObjectsSortLast) {
  NamedAndTimedObject a("alps"), b("Bern"), c("ALPS"), d("äpfel"), e("Äpfel");
  NamedAndTimedObject n2("track 2"), n10("track 10");
  EXPECT_EQ(a.compareName(b), -1);
  EXPECT_EQ(b.compareName(a), 1);
  EXPECT_EQ(a.compareName(c), 0);
  EXPECT_EQ(d.compareName(e), 0);
  EXPECT_EQ(a.compareNameDescending(b), 1);
  EXPECT_EQ(n2.compareName(n10), 1);  // no numeric ordering

  std::vector<std::shared_ptr<NamedAndTimedObject>> objects;
  for (const char* time :
       {"2012-05-03T00:00:00Z", "", "2012-05-01T00:00:00Z", "2012-05-02T00:00:00+05:00"}) {
    objects.push_back(NamedAndTimedObject::namedAndTimedObjectWithName(time));
    if (*time) objects.back()->setStartTime(at(time));
  }
  std::stable_sort(objects.begin(), objects.end(),
                   [](const auto& x, const auto& y) { return x->compareDate(*y) < 0; });
  std::vector<std::string> names;
  for (const auto& o : objects) names.push_back(o->name());
  EXPECT_EQ(names, (std::vector<std::string>{"2012-05-01T00:00:00Z", "2012-05-02T00:00:00+05:00",
                                             "2012-05-03T00:00:00Z", ""}));
  // Absent times are deliberately not mirrored in the descending comparator.
  NamedAndTimedObject dated, undated, later;
  dated.setStartTime(at("2012-05-01T00:00:00Z"));
  later.setStartTime(at("2012-06-01T00:00:00Z"));
  EXPECT_EQ(dated.compareDateDescending(undated), -1);
  EXPECT_EQ(undated.compareDateDescending(dated), 1);
  EXPECT_EQ(dated.compareDateDescending(later), 1);
}

}  // namespace
}  // namespace kvtrack
