#include "kvtrack/formats/geocache/GeocacheDescription.h"
#include "kvtrack/formats/geocache/GeocacheNames.h"
#include "kvtrack/formats/geocache/GeocachingServices.h"
#include "kvtrack/model/TrackPoint.h"

#include <gtest/gtest.h>

namespace kvtrack {
namespace {

TEST(GeocacheNames, EveryValueReadsBackFromItsName) {
  for (int32_t v = 0; v <= 3; ++v) EXPECT_EQ(statusForGPXName(gpxNameforStatus(v).value()), v);
  for (int32_t v = 0; v <= 6; ++v) EXPECT_EQ(containerForGPXName(gpxNameForContainer(v)), v);
  for (int32_t v = 0; v <= 12; ++v) {
    EXPECT_EQ(typeForGPXName(gpxNameForType(v)), v) << gpxNameForType(v);
    EXPECT_EQ(typeForGroundspeakGPXName(groundspeakGpxNameForType(v)), v);
  }
  for (int32_t v = 0; v <= 5; ++v) EXPECT_EQ(logTypeForGPXName(gpxNameForLogType(v)), v);
}

TEST(GeocacheNames, TextsAsOtherProgramsWriteThemAndLookupsThatFallBack) {
  EXPECT_FALSE(gpxNameforStatus(4));
  const std::pair<std::string, std::string> names[] = {
      {gpxNameForContainer(1), "Nano"}, {gpxNameForContainer(99), "Other"}, {gpxNameForType(7), "benchmark"},
      {gpxNameForType(13), "Other"}, {groundspeakGpxNameForType(1), "Multi-cache"},
      {groundspeakGpxNameForType(7), "benchmark Cache"}, {groundspeakGpxNameForType(9), "Letterbox Hybrid"},
      {groundspeakGpxNameForType(-3), "Other"}, {gpxNameForLogType(4), "Other"},
      {groundspeakGpxNameForLogType(-1), ""}};
  for (const auto& [name, expected] : names) EXPECT_EQ(name, expected);
  const char* groundspeakLogs[] = {"Found it", "Didn't find it", "Other", "Write note", "Other", "Owner Maintenance", ""};
  for (int32_t v = 0; v <= 6; ++v) EXPECT_EQ(groundspeakGpxNameForLogType(v), groundspeakLogs[v]);
  // Reverse lookups ignore case and fall back to a catch-all value.
  const std::pair<int32_t, int32_t> values[] = {
      {statusForGPXName("ARCHIVED"), 3}, {statusForGPXName("gone"), 0}, {containerForGPXName("large"), 5},
      {containerForGPXName("Not chosen"), 6}, {typeForGPXName("Unknown Cache"), 12}, {typeForGPXName("BENCHMARK"), 7},
      {typeForGPXName("Traditional Cache"), 5},  // the Groundspeak text is unknown here
      {typeForGroundspeakGPXName("earthcache"), 11}, {typeForGroundspeakGPXName("Traditional"), 12},
      {logTypeForGPXName("not attempted"), 2}, {logTypeForGPXName("Found it"), 4}};
  for (size_t i = 0; i < std::size(values); ++i) EXPECT_EQ(values[i].first, values[i].second) << i;
}

TEST(GeocacheDescription, PageAndPlainText) {
  Geocache cache;
  cache.description = "<b>Hi</b> &amp; there\n";
  const std::string page = descriptionAsHtmlPage(cache);
  EXPECT_NE(page.find("-//W3C//DTD XHTML 1.0 Transitional//EN"), std::string::npos);
  EXPECT_NE(page.find("<p><b>Hi</b> &amp; there\n</p>"), std::string::npos) << page;
  EXPECT_EQ(descriptionAsPlainText(cache), "Hi & there");
  cache.description = "\n&nbsp; <div>One<br/>two</div>\t\r\n";
  EXPECT_EQ(descriptionAsPlainText(cache), "Onetwo");
  cache.description.reset();
  EXPECT_EQ(descriptionAsPlainText(cache), "");
}

TEST(GeocachingServices, FindsTheServiceOfAWaypointAndItsSearchAddress) {
  const auto serviceOf = [](std::optional<std::string> url) {
    TrackPoint point;
    point.setIsWayPoint(true);
    point.setUrl(std::move(url));
    const GeocachingService* service = GeocachingServices::geocachingService(point);
    return service ? service->name() : "none";
  };
  EXPECT_EQ(serviceOf("https://www.geocaching.com/geocache/GC1ABC"), "geocaching.com");
  EXPECT_EQ(serviceOf("https://opencaching.de/viewcache.php?wp=OC1"), "opencaching.de");
  EXPECT_EQ(serviceOf("https://example.org/"), "none");
  EXPECT_EQ(serviceOf(std::nullopt), "none");
  // 1000 km are 621.371 miles, sent in single precision.
  EXPECT_EQ(GeocachingCom().urlForLatitude(47.5, -8.25, 1000.0),
            "https://www.geocaching.com/seek/nearest.aspx?origin_lat=47.500000"
            "&origin_long=-8.250000&dist=621.370972&submit3=Search");
  EXPECT_EQ(OpenCaching().urlForLatitude(52.125, 13.0, 12.5),
            "https://www.opencaching.de/search.php?searchto=searchbydistance&showresult=1&expert=0"
            "&output=HTML&utf8=1&sort=bydistance&orderRatingFirst=0&f_userowner=0&f_userfound=0"
            "&f_inactive=1&f_ignored=1&country=&cachetype=&cache_attribs=&cache_attribs_not=7"
            "&latNS=N&lat_h=52.125000&lat_min=0&lonEW=E&lon_h=13.000000&lon_min=0"
            "&distance=12.500000&unit=km");
}

}  // namespace
}  // namespace kvtrack
