// The lookup services against the loopback emulator: recorded answers in
// each service's format, bad statuses, empty and unterminated elements,
// non-ASCII names, answers slower than the time-out and a server that is
// not there; the text operations they read answers with; map links.
#include "kvtrack/model/Track.h"
#include "kvtrack/places/AddressUpdates.h"
#include "kvtrack/places/CoreLocationService.h"
#include "kvtrack/places/GeoNames.h"
#include "kvtrack/places/MyGeoNames.h"
#include "kvtrack/places/TerraService.h"
#include "kvtrack/places/UrlsToCoordinates.h"
#include "kvtrack/support/Log.h"
#include "tests/common/TrackBuilders.h"
#include "tests/places/PlaceServiceEmulator.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace kvtrack::testing {
namespace {

using ::testing::HasSubstr;

struct Names {
  std::string city = "old city", state = "old state", country = "old country",
              code = "old code", place = "old place";
  Status lookUp(GISServiceConvertLocation& service, double lon, double lat) {
    return service.ConvertLon(lon, lat, city, state, country, code, place);
  }
};

TEST(GISServiceText, FindsTagsAndStringsAndWalksRepeatedElements) {
  EXPECT_EQ(GISService::contentOfTag("name", "<a><name>Zürich</name><name>B</name>"), "Zürich");
  EXPECT_EQ(GISService::contentOfTag("name", "<name></name>"), std::nullopt);
  EXPECT_EQ(GISService::contentOfTag("name", "no tags here"), std::nullopt);
  EXPECT_EQ(GISService::contentOfTag("name", "</name> then <name>x"), std::nullopt);
  EXPECT_EQ(GISService::contentOfTag("name", "<name>cut short"), std::nullopt);
  EXPECT_EQ(GISService::contentOfTag("name", "<name lang=\"de\">x</name>"), std::nullopt);

  const std::string solr = "<doc><str name=\"name\">Genève</str><str name=\"empty\"></str>"
                           "<str name=\"open\">x";
  EXPECT_EQ(GISService::contentOfString("name", solr), "Genève");
  EXPECT_EQ(GISService::contentOfString("empty", solr), std::nullopt);
  EXPECT_EQ(GISService::contentOfString("open", solr), std::nullopt);
  EXPECT_EQ(GISService::contentOfString("missing", solr), std::nullopt);

  // One character after the closing tag is skipped: the line break.
  EXPECT_EQ(GISService::remainingStringAfterTag("g", "<g>1</g>\n<g>2</g>"), "<g>2</g>");
  EXPECT_EQ(GISService::remainingStringAfterTag("g", "<g>1</g>X<g>2</g>"), "<g>2</g>");
  EXPECT_EQ(GISService::remainingStringAfterTag("g", "<g></g>\n<g>2</g>"), std::nullopt);
  EXPECT_EQ(GISService::remainingStringAfterTag("g", "<g>1</g>"), "");

  EXPECT_EQ(GISService::resultStringForData(std::string("abc\0def", 7)), "abc");
  EXPECT_EQ(GISService::resultStringForData("Z\xC3\xBCrich"), "Zürich");
  EXPECT_EQ(GISService::resultStringForData("Z\xFCrich"), std::nullopt);  // Latin-1
}

TEST(GISServiceText, LocationsNameTheirFeatureClass) {
  GISLocation location = GISLocation::gisLocation();
  EXPECT_EQ(location.feature(), "");
  for (const auto& [code, text] : std::vector<std::pair<std::string, std::string>>{
           {"A", "Administrative Boundary"}, {"H", "Hydrographic"}, {"L", "Area"},
           {"P", "Populated Place"}, {"R", "Road / Railroad"}, {"S", "Spot"},
           {"T", "Hypsographic"}, {"U", "Undersea"}, {"V", "Vegetation"}, {"Q", "Q"},
           {"Main Street 1, Springfield", "Main Street 1, Springfield"}}) {
    location.featureClass = code;
    EXPECT_EQ(location.feature(), text) << code;
  }
}

TEST(UrlsToCoordinatesTest, ReadsThePositionOfGoogleMapsLinksOnly) {
  UrlsToCoordinates links;
  const auto read = [&links](const std::string& link) -> std::optional<std::pair<double, double>> {
    double lon = 99.0, lat = 99.0;
    if (!links.ConvertAddress(link, lon, lat)) return std::nullopt;
    return std::make_pair(lat, lon);
  };
  const std::pair<double, double> seattle{47.6, -122.3};
  EXPECT_EQ(read("http://maps.google.com/?ll=47.6,-122.3"), seattle);
  EXPECT_EQ(read("https://maps.google.com/maps?q=coffee&ll=47.6,-122.3&z=14"), seattle);
  EXPECT_EQ(read("maps.google.com/maps?ll=+47.6,-122.3"), seattle);
  EXPECT_EQ(read("http://maps.google.de/maps?ll=1.5,2.25"), std::nullopt);  // another host
  EXPECT_EQ(read("http://mapsXgoogleYcom/?ll=-33.8688,151.2093"),          // dots match anything
            std::make_pair(-33.8688, 151.2093));
  EXPECT_EQ(read("http://maps.google.com/?ll=47,-122"), std::nullopt);  // no decimal point
  EXPECT_EQ(read("http://maps.google.com/?sll=47.6,-122.3"), std::nullopt);
  EXPECT_EQ(read("http://maps.google.com/ll=47.6,-122.3"), std::nullopt);
  EXPECT_EQ(read("Bahnhofstrasse 1, Zürich"), std::nullopt);
}

class GeoNamesTest : public ::testing::Test {
 protected:
  // The own search server's exchanges are logged in full.
  GeoNamesTest() { setLogToStandardError(false); }
  ~GeoNamesTest() override { setLogToStandardError(true); }
  PlaceServiceEmulator emulator;
  LogCapture log;
};

TEST_F(GeoNamesTest, ReverseLookupFillsNamesFromBothAnswers) {
  GeoNames service(emulator.settings("alice"));
  EXPECT_EQ(service.name(), "GeoNames.org");
  Names names;
  ASSERT_TRUE(names.lookUp(service, 8.5417, 47.3769));
  EXPECT_EQ(names.city, "Zürich");  // the postal code's place
  EXPECT_EQ(names.state, "Kanton Zürich");
  EXPECT_EQ(names.country, "Switzerland");
  EXPECT_EQ(names.code, "CH");
  EXPECT_EQ(names.place, "Zürich");  // the nearest populated place

  const auto requests = emulator.server().requests();
  ASSERT_EQ(requests.size(), 2u);
  EXPECT_EQ(requests[0].path, "/findNearbyPlaceName");
  EXPECT_EQ(requests[1].path, "/findNearbyPostalCodes");
  const std::map<std::string, std::string> query{{"username", "alice"}, {"lat", "47.376900"},
                                                 {"lng", "8.541700"},   {"style", "FULL"},
                                                 {"lang", "en"}};
  EXPECT_EQ(requests[0].query, query);
  EXPECT_EQ(requests[1].query, query);
}

TEST_F(GeoNamesTest, MissingOrEmptyElementsKeepTheCallersTexts) {
  GeoNames service(emulator.settings());
  emulator.setAnswer("/findNearbyPostalCodes",
                     {200, "<geonames><code><name>Grindelwald</name>"
                           "<adminName1></adminName1></code></geonames>"});
  Names names;
  ASSERT_TRUE(names.lookUp(service, 8.06, 46.66));
  EXPECT_EQ(names.city, "Grindelwald");
  EXPECT_EQ(names.state, "old state");
  EXPECT_EQ(names.country, "Switzerland");

  // Open sea: both answers hold no element at all, and that is no failure.
  emulator.clearAnswers();
  Names sea;
  ASSERT_TRUE(sea.lookUp(service, -40.0, -65.0));
  EXPECT_EQ(sea.city, "old city");
  EXPECT_EQ(sea.place, "old place");

  // An answer cut short inside an element names nothing there.
  emulator.setAnswer("/findNearbyPlaceName", {200, "<geonames><geoname><name>Zür"});
  Names cut;
  ASSERT_TRUE(cut.lookUp(service, 8.5417, 47.3769));
  EXPECT_EQ(cut.place, "old place");
  EXPECT_EQ(cut.city, "Zürich");
}

TEST_F(GeoNamesTest, BadAnswersFailWithAReason) {
  GeoNames service(emulator.settings());
  Names names;
  emulator.setAnswer("/findNearbyPlaceName", {503, "busy"});
  Status failed = names.lookUp(service, 8.5417, 47.3769);
  EXPECT_THAT(failed.reason(), HasSubstr("answered with HTTP status 503"));
  EXPECT_EQ(emulator.server().requestCount("/findNearbyPostalCodes"), 0u);  // stops at once

  emulator.clearAnswers();
  emulator.setAnswer("/findNearbyPostalCodes", {404, ""});
  EXPECT_THAT(names.lookUp(service, 8.5417, 47.3769).reason(), HasSubstr("404"));

  emulator.setAnswer("/findNearbyPostalCodes",
                     {200, "<geonames><status message=\"the hourly limit of 1000 credits for "
                           "tester has been exceeded.\" value=\"19\"/></geonames>"});
  EXPECT_THAT(names.lookUp(service, 8.5417, 47.3769).reason(),
              HasSubstr("GeoNames: the hourly limit of 1000 credits"));

  emulator.setAnswer("/findNearbyPostalCodes", {200, "<name>Z\xFCrich</name>"});
  EXPECT_THAT(names.lookUp(service, 8.5417, 47.3769).reason(), HasSubstr("not UTF-8"));
  EXPECT_EQ(names.city, "old city");  // nothing filled by a failed lookup
}

TEST_F(GeoNamesTest, SlowAndMissingServersFailWithinTheTimeOut) {
  PlacesSettings settings = emulator.settings();
  settings.lookupTimeout = std::chrono::milliseconds(300);
  emulator.setAnswer("/findNearbyPlaceName", {200, "<name>late</name>", std::chrono::seconds(5)});
  GeoNames slow(settings);
  Names names;
  const auto started = std::chrono::steady_clock::now();
  EXPECT_THAT(names.lookUp(slow, 8.5, 47.3).reason(), HasSubstr("no answer from"));
  EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(3));

  settings.geoNamesServer = fmt::format("http://127.0.0.1:{}", unusedLoopbackPort());
  GeoNames absent(settings);
  EXPECT_THAT(names.lookUp(absent, 8.5, 47.3).reason(), HasSubstr("cannot reach"));
  EXPECT_EQ(names.place, "old place");
}

TEST_F(GeoNamesTest, WithoutAnAccountNothingIsSent) {
  GeoNames service(emulator.settings(""));
  Names names;
  EXPECT_THAT(names.lookUp(service, 8.5, 47.3).reason(), HasSubstr("geoNamesUserName"));
  double lon = 0, lat = 0;
  EXPECT_FALSE(service.ConvertAddress("Zürich", lon, lat));
  EXPECT_EQ(emulator.server().requestCount(), 0u);
}

TEST_F(GeoNamesTest, SearchesFindTheFirstHitOrAllOfThem) {
  GeoNames service(emulator.settings());
  double lon = 0, lat = 0;
  ASSERT_TRUE(service.ConvertAddress("Zürich", lon, lat));
  EXPECT_DOUBLE_EQ(lat, 47.36667);
  EXPECT_DOUBLE_EQ(lon, 8.55);
  const auto first = emulator.server().requests().back();
  EXPECT_EQ(first.query.at("q"), "Zürich");  // sent percent-escaped as UTF-8
  EXPECT_EQ(first.query.at("maxRows"), "1");

  const auto hits = service.ConvertAddress("Zürich");
  ASSERT_TRUE(hits);
  ASSERT_EQ(hits->size(), 2u);  // the third hit has no position
  EXPECT_EQ((*hits)[0].name, "Zürich");
  EXPECT_EQ((*hits)[1].name, "Lake Zurich");
  EXPECT_EQ((*hits)[1].country, "Switzerland");
  EXPECT_EQ((*hits)[1].feature(), "Hydrographic");
  EXPECT_EQ(emulator.server().requests().back().query.at("maxRows"), "20");

  EXPECT_FALSE(service.ConvertAddress("Atlantis", lon, lat));
  EXPECT_TRUE(service.ConvertAddress("Atlantis")->empty());

  emulator.setAnswer("/search", {500, "oops"});
  EXPECT_FALSE(service.ConvertAddress("Zürich", lon, lat));
  EXPECT_FALSE(service.ConvertAddress("Zürich"));
  EXPECT_TRUE(log.contains("GeoNames: ConvertAddress: statusCode = 500"));
}

TEST_F(GeoNamesTest, OwnSearchServerAnswersReverseLookupsAndLogsTheExchange) {
  MyGeoNames service(emulator.settings());
  EXPECT_EQ(service.name(), "GeoNames.org");
  Names names;
  ASSERT_TRUE(names.lookUp(service, 8.06, 46.66));
  EXPECT_EQ(names.city, "Grindelwald");
  EXPECT_EQ(names.state, "Bern");
  EXPECT_EQ(names.country, "Switzerland");
  EXPECT_EQ(names.code, "CH");
  EXPECT_EQ(names.place, "old place");
  const auto requests = emulator.server().requests();
  ASSERT_EQ(requests.size(), 2u);
  EXPECT_EQ(requests[0].path, "/geoloc/findnearbylocation");
  EXPECT_EQ(requests[0].query.at("placetype"), "city");
  EXPECT_EQ(requests[1].path, "/fulltext/fulltextsearch");
  EXPECT_EQ(requests[1].query.at("q"), "2657896");
  EXPECT_TRUE(log.contains("/geoloc/findnearbylocation?lat=46.660000&lng=8.060000&from=1"));
  EXPECT_TRUE(log.contains("<featureId>2657896</featureId>"));

  Names sea;  // no featureId: fails before the second request
  EXPECT_FALSE(sea.lookUp(service, -40.0, -65.0));
  EXPECT_EQ(emulator.server().requestCount(), 3u);

  ASSERT_TRUE(service.ConvertAddress("Zürich"));
  EXPECT_TRUE(log.contains("Lake Zurich Switzerland"));
  EXPECT_TRUE(log.contains("Remaining: <geoname>"));
}

TEST_F(GeoNamesTest, TerraServiceSplitsItsAnswerInThree) {
  TerraService service(emulator.settings());
  EXPECT_EQ(service.name(), "Microsoft TerraService");
  Names names;
  ASSERT_TRUE(names.lookUp(service, -21.9, 64.1));
  EXPECT_EQ(names.city, "Reykjavík");
  EXPECT_EQ(names.state, "Höfuðborgarsvæði");
  EXPECT_EQ(names.country, "Iceland");
  EXPECT_EQ(names.code, "old code");
  const auto request = emulator.server().requests().back();
  EXPECT_EQ(request.method, "POST");
  EXPECT_EQ(request.headers.at("soapaction"),
            "http://terraservice.net/terraserver/ConvertLonLatPtToNearestPlace");
  EXPECT_EQ(request.headers.at("content-type"), "text/xml; charset=utf-8");
  EXPECT_THAT(request.body, HasSubstr("<Lon>-21.900000</Lon>"));
  EXPECT_LT(request.body.find("<Lon>"), request.body.find("<Lat>"));

  for (const char* result : {"Seattle, Washington", "A, B, C, D", ""}) {
    emulator.setAnswer("/TerraService2.asmx",
                       {200, std::string("<ConvertLonLatPtToNearestPlaceResult>") + result +
                                 "</ConvertLonLatPtToNearestPlaceResult>"});
    Names rejected;
    EXPECT_FALSE(rejected.lookUp(service, 1.0, 1.0)) << result;
    EXPECT_EQ(rejected.city, "old city");
  }
  emulator.setAnswer("/TerraService2.asmx",
                     {200, "<ConvertLonLatPtToNearestPlaceResult>Seattle, Washington, United "
                           "States</ConvertLonLatPtToNearestPlaceResult>"});
  ASSERT_TRUE(names.lookUp(service, -122.3, 47.6));
  EXPECT_EQ(names.state, "Washington");
  EXPECT_EQ(names.country, "United States");
}

TEST(CoreLocationServiceTest, AnswersNothing) {
  CoreLocationService service;
  Names names;
  EXPECT_TRUE(names.lookUp(service, 8.5, 47.3));
  EXPECT_EQ(names.city, "old city");
  std::optional<size_t> hits;
  CoreLocationService::ConvertAddress("Zürich", [&hits](std::vector<GISLocation> found) {
    hits = found.size();
  });
  EXPECT_EQ(hits, 0u);
}

TEST_F(GeoNamesTest, PointsAndTracksGiveTheirPhotosTheNames) {
  auto track = Track::track();
  for (const auto& [lat, lon, photos] :
       std::vector<std::tuple<double, double, int>>{{47.3769, 8.5417, 2}, {46.9, 7.4, 0},
                                                   {-65.0, -40.0, 1}, {46.66, 8.06, 1}}) {
    auto point = addPoint(*track, lat, lon);
    for (int i = 0; i < photos; ++i) {
      auto photo = TrackPhoto::trackPhotoWithFilepath("/photos/" + std::to_string(i) + ".jpg");
      photo->setCity("Old");
      point->addTrackPhoto(photo);
    }
  }
  GeoNames service(emulator.settings());
  ASSERT_TRUE(TrackPlaces::updateAddressInformationWithService(*track->trackPoints()[1], service));
  EXPECT_EQ(emulator.server().requestCount(), 0u);  // no photos, no lookup

  track->setIsDirty(false);
  emulator.setAnswer("/findNearbyPlaceName", {200, "<name>Grindelwald</name>"});
  emulator.setAnswer("/findNearbyPostalCodes", {500, ""});
  EXPECT_FALSE(TrackPlaces::updateAddressInformationWithService(*track->trackPoints()[0], service));
  EXPECT_EQ(track->trackPoints()[0]->trackPhotos()[0]->city(), "Old");
  EXPECT_FALSE(track->isDirty());
  emulator.clearAnswers();
  ASSERT_TRUE(TrackPlaces::updateAddressInformationWithService(*track, service));
  const auto& zurich = track->trackPoints()[0]->trackPhotos();
  EXPECT_EQ(zurich[0]->city(), "Zürich");
  EXPECT_EQ(zurich[1]->country(), "Switzerland");
  const auto& sea = track->trackPoints()[2]->trackPhotos()[0];
  EXPECT_EQ(sea->city(), std::nullopt);  // found nothing: the old name is cleared
  EXPECT_EQ(track->trackPoints()[3]->trackPhotos()[0]->place(), "Grindelwald");
  EXPECT_TRUE(track->isDirty());

  // A failing point stops the walk: the points after it keep their names.
  track->trackPoints()[3]->trackPhotos()[0]->setCity("Kept");
  emulator.setAnswer("/findNearbyPostalCodes", {500, ""});
  const Status failed = TrackPlaces::updateAddressInformationWithService(*track, service);
  EXPECT_THAT(failed.reason(), HasSubstr("point 1 of 4"));
  EXPECT_EQ(track->trackPoints()[3]->trackPhotos()[0]->city(), "Kept");
}

}  // namespace
}  // namespace kvtrack::testing
