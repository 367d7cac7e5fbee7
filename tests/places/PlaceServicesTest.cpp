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

namespace kvtrack::testing {
namespace {

using ::testing::HasSubstr;
using Texts = std::vector<std::string>;

// The five texts a reverse lookup fills: city, state, country, code, place.
struct Names {
  Texts texts{"old city", "old state", "old country", "old code", "old place"};
  Status lookUp(GISServiceConvertLocation& service, double lon, double lat) {
    return service.ConvertLon(lon, lat, texts[0], texts[1], texts[2], texts[3], texts[4]);
  }
};

TEST(GISServiceText, FindsTagsAndStringsAndWalksRepeatedElements) {
  using GIS = GISService;
  const std::string solr = "<doc><str name=\"name\">Genève</str><str name=\"empty\"></str><str name=\"open\">x";
  const std::pair<std::optional<std::string>, std::optional<std::string>> cases[] = {
      {GIS::contentOfTag("name", "<a><name>Zürich</name><name>B</name>"), "Zürich"},
      {GIS::contentOfTag("name", "<name></name>"), {}}, {GIS::contentOfTag("name", "no tags here"), {}},
      {GIS::contentOfTag("name", "</name> then <name>x"), {}}, {GIS::contentOfTag("name", "<name>cut short"), {}},
      {GIS::contentOfTag("name", "<name lang=\"de\">x</name>"), {}},
      {GIS::contentOfString("name", solr), "Genève"}, {GIS::contentOfString("empty", solr), {}},
      {GIS::contentOfString("open", solr), {}}, {GIS::contentOfString("missing", solr), {}},
      // One character after the closing tag is skipped: the line break.
      {GIS::remainingStringAfterTag("g", "<g>1</g>\n<g>2</g>"), "<g>2</g>"},
      {GIS::remainingStringAfterTag("g", "<g>1</g>X<g>2</g>"), "<g>2</g>"},
      {GIS::remainingStringAfterTag("g", "<g></g>\n<g>2</g>"), {}}, {GIS::remainingStringAfterTag("g", "<g>1</g>"), ""},
      {GIS::resultStringForData(std::string("abc\0def", 7)), "abc"},
      {GIS::resultStringForData("Z\xC3\xBCrich"), "Zürich"}, {GIS::resultStringForData("Z\xFCrich"), {}}};  // Latin-1
  for (size_t i = 0; i < std::size(cases); ++i) EXPECT_EQ(cases[i].first, cases[i].second) << i;

  GISLocation location = GISLocation::gisLocation();
  EXPECT_EQ(location.feature(), "");
  for (const auto& [code, text] : std::vector<std::pair<std::string, std::string>>{
           {"A", "Administrative Boundary"}, {"H", "Hydrographic"}, {"L", "Area"}, {"P", "Populated Place"},
           {"R", "Road / Railroad"}, {"S", "Spot"}, {"T", "Hypsographic"}, {"U", "Undersea"}, {"V", "Vegetation"},
           {"Q", "Q"}, {"Main Street 1, Springfield", "Main Street 1, Springfield"}}) {
    location.featureClass = code;
    EXPECT_EQ(location.feature(), text) << code;
  }
}

TEST(UrlsToCoordinatesTest, ReadsThePositionOfGoogleMapsLinksOnly) {
  const auto read = [](const std::string& link) -> std::optional<std::pair<double, double>> {
    double lon = 99.0, lat = 99.0;
    if (!UrlsToCoordinates().ConvertAddress(link, lon, lat)) return std::nullopt;
    return std::make_pair(lat, lon);
  };
  const std::pair<double, double> seattle{47.6, -122.3};
  EXPECT_EQ(read("http://maps.google.com/?ll=47.6,-122.3"), seattle);
  EXPECT_EQ(read("https://maps.google.com/maps?q=coffee&ll=47.6,-122.3&z=14"), seattle);
  EXPECT_EQ(read("maps.google.com/maps?ll=+47.6,-122.3"), seattle);
  EXPECT_EQ(read("http://mapsXgoogleYcom/?ll=-33.8688,151.2093"), std::make_pair(-33.8688, 151.2093));  // dots match anything
  for (const char* other : {"http://maps.google.de/maps?ll=1.5,2.25", "http://maps.google.com/?ll=47,-122",
                            "http://maps.google.com/?sll=47.6,-122.3", "http://maps.google.com/ll=47.6,-122.3",
                            "Bahnhofstrasse 1, Zürich"}) {
    EXPECT_EQ(read(other), std::nullopt) << other;  // another host, no decimal point, no "?ll=", no link
  }
}

// One reverse lookup against the emulator answering so.
struct Lookup {
  const char* what;
  GISServiceConvertLocation& service;
  std::map<std::string, CannedAnswer> answers;
  double lat, lon;
  std::string failure;  // empty for success
  size_t requests;
  Texts names;
};

class PlaceServices : public ::testing::Test {
 protected:
  // The own search server's exchanges are logged in full.
  PlaceServices() { setLogToStandardError(false); }
  ~PlaceServices() override { setLogToStandardError(true); }

  PlaceServiceEmulator emulator;
  LogCapture log;
  PlacesSettings settings = [this] {
    PlacesSettings s = emulator.settings("alice");
    s.lookupTimeout = std::chrono::milliseconds(1000);
    return s;
  }();
  GeoNames geoNames{settings};
  MyGeoNames own{settings};
  TerraService terra{settings};
  CoreLocationService coreLocation;
};

TEST_F(PlaceServices, ReverseLookupsFillWhatTheAnswersNameOrFailWithAReason) {
  const auto terraAnswer = [](const std::string& result) {
    return std::map<std::string, CannedAnswer>{
        {"/TerraService2.asmx",
         {200, "<ConvertLonLatPtToNearestPlaceResult>" + result + "</ConvertLonLatPtToNearestPlaceResult>"}}};
  };
  const Lookup lookups[] = {
      {"both answers", geoNames, {}, 47.3769, 8.5417, "", 2, {"Zürich", "Kanton Zürich", "Switzerland", "CH", "Zürich"}},
      {"an empty element", geoNames,
       {{"/findNearbyPostalCodes", {200, "<code><name>Grindelwald</name><adminName1></adminName1>"}}}, 46.66, 8.06, "",
       2, {"Grindelwald", "old state", "Switzerland", "CH", "Grindelwald"}},
      {"the open sea", geoNames, {}, -65.0, -40.0, "", 2, Names().texts},
      {"an answer cut short", geoNames, {{"/findNearbyPlaceName", {200, "<geonames><geoname><name>Zür"}}}, 47.3769,
       8.5417, "", 2, {"Zürich", "Kanton Zürich", "old country", "old code", "old place"}},
      {"a busy server", geoNames, {{"/findNearbyPlaceName", {503, "busy"}}}, 47.37, 8.54,
       "answered with HTTP status 503", 1, {}},
      {"a missing page", geoNames, {{"/findNearbyPostalCodes", {404, ""}}}, 47.37, 8.54, "404", 2, {}},
      {"a used-up account", geoNames,
       {{"/findNearbyPostalCodes",
         {200, "<geonames><status message=\"the hourly limit of 1000 credits for tester has been exceeded.\"/>"}}},
       47.37, 8.54, "GeoNames: the hourly limit of 1000 credits", 2, {}},
      {"Latin-1", geoNames, {{"/findNearbyPostalCodes", {200, "<name>Z\xFCrich</name>"}}}, 47.37, 8.54, "not UTF-8", 2,
       {}},
      {"a slow server", geoNames, {{"/findNearbyPlaceName", {200, "<name>late</name>", std::chrono::seconds(5)}}}, 47.37,
       8.54, "no answer from", 1, {}},
      {"our own server", own, {}, 46.66, 8.06, "", 2, {"Grindelwald", "Bern", "Switzerland", "CH", "old place"}},
      {"our own server at sea", own, {}, -65.0, -40.0, "knows no city", 1, {}},  // no featureId: no second request
      {"TerraService", terra, {}, 64.1, -21.9, "", 1, {"Reykjavík", "Höfuðborgarsvæði", "Iceland", "old code", "old place"}},
      {"TerraService with three parts", terra, terraAnswer("Seattle, Washington, United States"), 47.6, -122.3, "", 1,
       {"Seattle", "Washington", "United States", "old code", "old place"}},
      {"TerraService with two parts", terra, terraAnswer("Seattle, Washington"), 1, 1, "city, state, country", 1, {}},
      {"TerraService with four parts", terra, terraAnswer("A, B, C, D"), 1, 1, "city, state, country", 1, {}},
      {"TerraService with nothing", terra, terraAnswer(""), 1, 1, "city, state, country", 1, {}},
      {"CoreLocation", coreLocation, {}, 47.3, 8.5, "", 0, Names().texts},
  };
  for (const Lookup& c : lookups) {
    SCOPED_TRACE(c.what);
    emulator.clearAnswers();
    for (const auto& [path, answer] : c.answers) emulator.setAnswer(path, answer);
    const size_t before = emulator.server().requestCount();
    Names names;
    const Status status = names.lookUp(c.service, c.lon, c.lat);
    EXPECT_EQ(status.reason().empty(), c.failure.empty()) << status.reason();
    EXPECT_THAT(status.reason(), HasSubstr(c.failure));
    EXPECT_EQ(names.texts, c.failure.empty() ? c.names : Names().texts);  // nothing filled by a failed lookup
    EXPECT_EQ(emulator.server().requestCount() - before, c.requests);  // a failed first request stops at once
  }
}

TEST_F(PlaceServices, RequestsAsEachServiceWantsThemAndNoneWithoutAnAccount) {
  EXPECT_EQ(std::tuple(geoNames.name(), own.name(), terra.name()),
            std::tuple("GeoNames.org", "GeoNames.org", "Microsoft TerraService"));
  Names names;
  ASSERT_TRUE(names.lookUp(geoNames, 8.5417, 47.3769));
  ASSERT_TRUE(names.lookUp(own, 8.06, 46.66));
  ASSERT_TRUE(names.lookUp(terra, -21.9, 64.1));
  const auto requests = emulator.server().requests();
  ASSERT_EQ(requests.size(), 5u);
  const std::map<std::string, std::string> query{
      {"username", "alice"}, {"lat", "47.376900"}, {"lng", "8.541700"}, {"style", "FULL"}, {"lang", "en"}};
  EXPECT_EQ(std::tuple(requests[0].path, requests[0].query), std::tuple("/findNearbyPlaceName", query));
  EXPECT_EQ(std::tuple(requests[1].path, requests[1].query), std::tuple("/findNearbyPostalCodes", query));
  // Our own server: the nearest city's feature, then its names; the exchange is logged in full.
  EXPECT_EQ(std::tuple(requests[2].path, requests[2].query.at("placetype"), requests[3].path, requests[3].query.at("q")),
            std::tuple("/geoloc/findnearbylocation", "city", "/fulltext/fulltextsearch", "2657896"));
  EXPECT_TRUE(log.contains("/geoloc/findnearbylocation?lat=46.660000&lng=8.060000&from=1"));
  EXPECT_TRUE(log.contains("<featureId>2657896</featureId>"));
  // TerraService: one SOAP request, longitude first.
  EXPECT_EQ(requests[4].method, "POST");
  EXPECT_EQ(requests[4].headers.at("soapaction"), "http://terraservice.net/terraserver/ConvertLonLatPtToNearestPlace");
  EXPECT_EQ(requests[4].headers.at("content-type"), "text/xml; charset=utf-8");
  EXPECT_THAT(requests[4].body, HasSubstr("<Lon>-21.900000</Lon>"));
  EXPECT_LT(requests[4].body.find("<Lon>"), requests[4].body.find("<Lat>"));

  settings.geoNamesServer = "http://127.0.0.1:" + std::to_string(unusedLoopbackPort());
  GeoNames absent(settings);
  EXPECT_THAT(names.lookUp(absent, 8.5, 47.3).reason(), HasSubstr("cannot reach"));
  double lon = 0, lat = 0;
  GeoNames withoutAccount(emulator.settings(""));
  EXPECT_THAT(names.lookUp(withoutAccount, 8.5, 47.3).reason(), HasSubstr("geoNamesUserName"));
  EXPECT_FALSE(withoutAccount.ConvertAddress("Zürich", lon, lat));
  EXPECT_EQ(emulator.server().requestCount(), 5u);  // nothing sent
  std::optional<size_t> hits;
  CoreLocationService::ConvertAddress("Zürich", [&hits](std::vector<GISLocation> found) { hits = found.size(); });
  EXPECT_EQ(hits, 0u);
}

TEST_F(PlaceServices, SearchesFindTheFirstHitOrAllOfThem) {
  GeoNames& service = geoNames;
  double lon = 0, lat = 0;
  ASSERT_TRUE(service.ConvertAddress("Zürich", lon, lat));
  EXPECT_EQ(std::pair(lat, lon), std::pair(47.36667, 8.55));
  EXPECT_EQ(emulator.server().requests().back().query.at("q"), "Zürich");  // sent percent-escaped as UTF-8
  EXPECT_EQ(emulator.server().requests().back().query.at("maxRows"), "1");

  const auto hits = service.ConvertAddress("Zürich");
  ASSERT_TRUE(hits);
  ASSERT_EQ(hits->size(), 2u);  // the third hit has no position
  EXPECT_EQ((*hits)[0].name, "Zürich");
  EXPECT_EQ(std::tuple((*hits)[1].name, (*hits)[1].country, (*hits)[1].feature()),
            std::tuple("Lake Zurich", "Switzerland", "Hydrographic"));
  EXPECT_EQ(emulator.server().requests().back().query.at("maxRows"), "20");

  EXPECT_FALSE(service.ConvertAddress("Atlantis", lon, lat));
  EXPECT_TRUE(service.ConvertAddress("Atlantis")->empty());
  emulator.setAnswer("/search", {500, "oops"});
  EXPECT_FALSE(service.ConvertAddress("Zürich", lon, lat));
  EXPECT_FALSE(service.ConvertAddress("Zürich"));
  EXPECT_TRUE(log.contains("GeoNames: ConvertAddress: statusCode = 500"));

  emulator.clearAnswers();  // our own server logs each hit and each step of the walk
  ASSERT_TRUE(own.ConvertAddress("Zürich"));
  EXPECT_TRUE(log.contains("Lake Zurich Switzerland"));
  EXPECT_TRUE(log.contains("Remaining: <geoname>"));
}

TEST_F(PlaceServices, PointsAndTracksGiveTheirPhotosTheNamesAndStopAtTheFirstFailure) {
  auto track = Track::track();
  for (const auto& [lat, lon, photos] : std::vector<std::tuple<double, double, int>>{
           {47.3769, 8.5417, 2}, {46.9, 7.4, 0}, {-65.0, -40.0, 1}, {46.66, 8.06, 1}}) {
    auto point = addPoint(*track, lat, lon);
    for (int i = 0; i < photos; ++i) {
      point->addTrackPhoto(TrackPhoto::trackPhotoWithFilepath("/photos/" + std::to_string(i) + ".jpg"));
      point->trackPhotos().back()->setCity("Old");
    }
  }
  const auto photo = [&track](size_t point, size_t i = 0) { return track->trackPoints()[point]->trackPhotos()[i]; };
  GeoNames& service = geoNames;
  ASSERT_TRUE(TrackPlaces::updateAddressInformationWithService(*track->trackPoints()[1], service));
  EXPECT_EQ(emulator.server().requestCount(), 0u);  // no photos, no lookup

  track->setIsDirty(false);
  emulator.setAnswer("/findNearbyPostalCodes", {500, ""});
  EXPECT_FALSE(TrackPlaces::updateAddressInformationWithService(*track->trackPoints()[0], service));
  EXPECT_EQ(photo(0)->city(), "Old");
  EXPECT_FALSE(track->isDirty());
  emulator.clearAnswers();
  ASSERT_TRUE(TrackPlaces::updateAddressInformationWithService(*track, service));
  EXPECT_EQ(std::tuple(photo(0)->city(), photo(0, 1)->country(), photo(3)->place()),
            std::tuple("Zürich", "Switzerland", "Grindelwald"));
  EXPECT_EQ(photo(2)->city(), std::nullopt);  // found nothing: the old name is cleared
  EXPECT_TRUE(track->isDirty());

  // A failing point stops the walk: the points after it keep their names.
  photo(3)->setCity("Kept");
  emulator.setAnswer("/findNearbyPostalCodes", {500, ""});
  EXPECT_THAT(TrackPlaces::updateAddressInformationWithService(*track, service).reason(), HasSubstr("point 1 of 4"));
  EXPECT_EQ(photo(3)->city(), "Kept");
}

}  // namespace
}  // namespace kvtrack::testing
