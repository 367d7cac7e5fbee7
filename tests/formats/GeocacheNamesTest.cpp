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

TEST(GeocacheNames, TextsAsOtherProgramsWriteThem) {
  EXPECT_FALSE(gpxNameforStatus(4));
  EXPECT_EQ(gpxNameForContainer(1), "Nano");
  EXPECT_EQ(gpxNameForContainer(99), "Other");
  EXPECT_EQ(gpxNameForType(7), "benchmark");
  EXPECT_EQ(gpxNameForType(13), "Other");
  EXPECT_EQ(groundspeakGpxNameForType(1), "Multi-cache");
  EXPECT_EQ(groundspeakGpxNameForType(7), "benchmark Cache");
  EXPECT_EQ(groundspeakGpxNameForType(9), "Letterbox Hybrid");
  EXPECT_EQ(groundspeakGpxNameForType(-3), "Other");
  EXPECT_EQ(gpxNameForLogType(4), "Other");
  const char* groundspeakLogs[] = {"Found it", "Didn't find it", "Other", "Write note", "Other",
                                   "Owner Maintenance", ""};
  for (int32_t v = 0; v <= 6; ++v) EXPECT_EQ(groundspeakGpxNameForLogType(v), groundspeakLogs[v]);
  EXPECT_EQ(groundspeakGpxNameForLogType(-1), "");
}

TEST(GeocacheNames, ReverseLookupsIgnoreCaseAndFallBack) {
  EXPECT_EQ(statusForGPXName("ARCHIVED"), 3);
  EXPECT_EQ(statusForGPXName("gone"), 0);
  EXPECT_EQ(containerForGPXName("large"), 5);
  EXPECT_EQ(containerForGPXName("Not chosen"), 6);
  EXPECT_EQ(typeForGPXName("Unknown Cache"), 12);
  EXPECT_EQ(typeForGPXName("BENCHMARK"), 7);
  EXPECT_EQ(typeForGPXName("Traditional Cache"), 5);  // the Groundspeak text is unknown here
  EXPECT_EQ(typeForGroundspeakGPXName("earthcache"), 11);
  EXPECT_EQ(typeForGroundspeakGPXName("Traditional"), 12);
  EXPECT_EQ(logTypeForGPXName("not attempted"), 2);
  EXPECT_EQ(logTypeForGPXName("Found it"), 4);
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

std::shared_ptr<TrackPoint> waypointWithUrl(std::optional<std::string> url) {
  auto point = std::make_shared<TrackPoint>();
  point->setIsWayPoint(true);
  point->setUrl(std::move(url));
  return point;
}

TEST(GeocachingServices, FindsTheServiceOfAWaypoint) {
  const auto serviceOf = [](std::optional<std::string> url) {
    return GeocachingServices::geocachingService(*waypointWithUrl(std::move(url)));
  };
  const GeocachingService* com = serviceOf("https://www.geocaching.com/geocache/GC1ABC");
  ASSERT_NE(com, nullptr);
  EXPECT_EQ(com->name(), "geocaching.com");
  const GeocachingService* de = serviceOf("https://opencaching.de/viewcache.php?wp=OC1");
  ASSERT_NE(de, nullptr);
  EXPECT_EQ(de->name(), "opencaching.de");
  EXPECT_EQ(serviceOf("https://example.org/"), nullptr);
  EXPECT_EQ(serviceOf(std::nullopt), nullptr);
}

TEST(GeocachingServices, SearchAddresses) {
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
