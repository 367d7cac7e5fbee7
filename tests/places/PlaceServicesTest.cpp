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
  const std::string solr =
      "<doc><str name=\"name\">Genève</str><str name=\"empty\"></str><str name=\"open\">x";
  // What the lookups below do not reach through the services' answers.
  const std::pair<std::optional<std::string>, std::optional<std::string>> cases[] = {
      {GIS::contentOfTag("name", "<a><name>Zürich</name><name>B</name>"), "Zürich"},
      {GIS::contentOfTag("name", "</name> then <name>x"), {}},
      {GIS::contentOfTag("name", "<name lang=\"de\">x</name>"), {}},
      {GIS::contentOfString("name", solr), "Genève"},
      {GIS::contentOfString("empty", solr), {}},
      {GIS::contentOfString("open", solr), {}},
      // One character after the closing tag is skipped: the line break.
      {GIS::remainingStringAfterTag("g", "<g>1</g>X<g>2</g>"), "<g>2</g>"},
      {GIS::remainingStringAfterTag("g", "<g></g>\n<g>2</g>"), {}},
      {GIS::resultStringForData(std::string("abc\0def", 7)), "abc"}};
  for (size_t i = 0; i < std::size(cases); ++i) EXPECT_EQ(cases[i].first, cases[i].second) << i;
}

TEST(UrlsToCoordinatesTest, ReadsThePositionOfGoogleMapsLinksOnly) {
  using Position = std::optional<std::pair<double, double>>;  // latitude, longitude
  const std::pair<const char*, Position> cases[] = {
      {"https://maps.google.com/maps?q=coffee&ll=47.6,-122.3&z=14", std::pair(47.6, -122.3)},
      {"maps.google.com/maps?ll=+47.6,-122.3", std::pair(47.6, -122.3)},
      {"http://mapsXgoogleYcom/?ll=-33.8688,151.2093", std::pair(-33.8688, 151.2093)},  // dots match anything
      // Another host, no decimal point, no "?ll=".
      {"http://maps.google.de/maps?ll=1.5,2.25", {}},
      {"http://maps.google.com/?ll=47,-122", {}},
      {"http://maps.google.com/?sll=47.6,-122.3", {}},
      {"http://maps.google.com/ll=47.6,-122.3", {}}};
  for (const auto& [link, expected] : cases) {
    double lon = 99.0, lat = 99.0;
    const bool read = UrlsToCoordinates().ConvertAddress(link, lon, lat).ok();
    EXPECT_EQ(read ? Position(std::pair(lat, lon)) : std::nullopt, expected) << link;
  }
}

// One reverse lookup against the emulator, one path of which may answer
// otherwise; the names filled as "city|state|country|code|place", empty
// where none is filled.
struct Lookup {
  const char* what;
  GISServiceConvertLocation& service;
  double lat, lon;
  const char* failure;  // empty for success
  size_t requests;
  std::string names, path = {}, body = {};
  int status = 200;
  std::chrono::milliseconds delay{0};
};

class PlaceServices : public ::testing::Test {
 protected:
  // The own search server's exchanges are logged in full.
  PlaceServices() { setLogToStandardError(false); }
  ~PlaceServices() override { setLogToStandardError(true); }

  PlaceServiceEmulator emulator;
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
  const std::string asmx = "/TerraService2.asmx", postal = "/findNearbyPostalCodes",
                    place = "/findNearbyPlaceName";
  const auto terraAnswer = [](const std::string& result) {
    return "<ConvertLonLatPtToNearestPlaceResult>" + result + "</ConvertLonLatPtToNearestPlaceResult>";
  };
  const Lookup lookups[] = {
      {"both answers", geoNames, 47.3769, 8.5417, "", 2, "Zürich|Kanton Zürich|Switzerland|CH|Zürich"},
      {"an empty element", geoNames, 46.66, 8.06, "", 2, "Grindelwald|old state|Switzerland|CH|Grindelwald",
       postal, "<code><name>Grindelwald</name><adminName1></adminName1>"},
      {"the open sea", geoNames, -65.0, -40.0, "", 2, ""},
      {"an answer cut short", geoNames, 47.3769, 8.5417, "", 2,
       "Zürich|Kanton Zürich|old country|old code|old place", place, "<geonames><geoname><name>Zür"},
      {"a busy server", geoNames, 47.37, 8.54, "answered with HTTP status 503", 1, "", place, "busy", 503},
      {"a missing page", geoNames, 47.37, 8.54, "404", 2, "", postal, "", 404},
      {"a used-up account", geoNames, 47.37, 8.54, "GeoNames: the hourly limit of 1000 credits", 2, "",
       postal,
       "<geonames><status message=\"the hourly limit of 1000 credits for tester has been exceeded.\"/>"},
      {"Latin-1", geoNames, 47.37, 8.54, "not UTF-8", 2, "", postal, "<name>Z\xFCrich</name>"},
      {"a slow server", geoNames, 47.37, 8.54, "no answer from", 1, "", place, "<name>late</name>", 200,
       std::chrono::seconds(5)},
      {"our own server", own, 46.66, 8.06, "", 2, "Grindelwald|Bern|Switzerland|CH|old place"},
      // No featureId: no second request.
      {"our own server at sea", own, -65.0, -40.0, "knows no city", 1, ""},
      {"TerraService", terra, 64.1, -21.9, "", 1, "Reykjavík|Höfuðborgarsvæði|Iceland|old code|old place"},
      {"TerraService with three parts", terra, 47.6, -122.3, "", 1,
       "Seattle|Washington|United States|old code|old place", asmx,
       terraAnswer("Seattle, Washington, United States")},
      {"TerraService with two parts", terra, 1, 1, "city, state, country", 1, "", asmx,
       terraAnswer("Seattle, Washington")},
      {"TerraService with four parts", terra, 1, 1, "city, state, country", 1, "", asmx,
       terraAnswer("A, B, C, D")},
      {"TerraService with nothing", terra, 1, 1, "city, state, country", 1, "", asmx, terraAnswer("")},
      {"CoreLocation", coreLocation, 47.3, 8.5, "", 0, ""},
  };
  for (const Lookup& c : lookups) {
    SCOPED_TRACE(c.what);
    emulator.clearAnswers();
    if (!c.path.empty()) emulator.setAnswer(c.path, {c.status, c.body, c.delay});
    const size_t before = emulator.server().requestCount();
    Names names;
    const Status status = names.lookUp(c.service, c.lon, c.lat);
    EXPECT_EQ(status.reason().empty(), std::string(c.failure).empty()) << status.reason();
    EXPECT_THAT(status.reason(), HasSubstr(c.failure));
    // Nothing is filled by a failed lookup.
    std::string filled;
    for (const auto& text : names.texts) filled += (filled.empty() ? "" : "|") + text;
    EXPECT_EQ(filled, c.names.empty() ? "old city|old state|old country|old code|old place" : c.names);
    EXPECT_EQ(emulator.server().requestCount() - before, c.requests);  // a failed first request stops at once
  }
}

TEST_F(PlaceServices, RequestsAsEachServiceWantsThemAndNoneWithoutAnAccount) {
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
  // Our own server: the nearest city's feature, then its names.
  EXPECT_EQ(std::tuple(requests[2].path, requests[2].query.at("placetype"), requests[3].path,
                       requests[3].query.at("q")),
            std::tuple("/geoloc/findnearbylocation", "city", "/fulltext/fulltextsearch", "2657896"));
  EXPECT_EQ(
      std::tuple(requests[2].query.at("lat"), requests[2].query.at("lng"), requests[2].query.at("from")),
      std::tuple("46.660000", "8.060000", "1"));
  // TerraService: one SOAP request, longitude first.
  EXPECT_EQ(requests[4].method, "POST");
  EXPECT_EQ(requests[4].headers.at("soapaction"),
            "http://terraservice.net/terraserver/ConvertLonLatPtToNearestPlace");
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
  CoreLocationService::ConvertAddress("Zürich",
                                      [&hits](std::vector<GISLocation> found) { hits = found.size(); });
  EXPECT_EQ(hits, 0u);
}

TEST_F(PlaceServices, SearchesFindTheFirstHitOrAllOfThem) {
  double lon = 0, lat = 0;
  ASSERT_TRUE(geoNames.ConvertAddress("Zürich", lon, lat));
  EXPECT_EQ(std::tuple(lat, lon), std::tuple(47.36667, 8.55));
  // Sent percent-escaped as UTF-8.
  const auto asked = [this] { return emulator.server().requests().back().query; };
  EXPECT_EQ(std::tuple(asked().at("q"), asked().at("maxRows")), std::tuple("Zürich", "1"));

  const auto hits = geoNames.ConvertAddress("Zürich");
  ASSERT_TRUE(hits);
  ASSERT_EQ(hits->size(), 2u);  // the third hit has no position
  EXPECT_EQ(std::tuple((*hits)[0].name, (*hits)[1].name, (*hits)[1].country, (*hits)[1].feature()),
            std::tuple("Zürich", "Lake Zurich", "Switzerland", "Hydrographic"));
  EXPECT_EQ(asked().at("maxRows"), "20");
  EXPECT_EQ(own.ConvertAddress("Zürich")->size(), 2u);

  EXPECT_FALSE(geoNames.ConvertAddress("Atlantis", lon, lat));
  EXPECT_TRUE(geoNames.ConvertAddress("Atlantis")->empty());
  emulator.setAnswer("/search", {500, "oops"});
  EXPECT_FALSE(geoNames.ConvertAddress("Zürich", lon, lat));
  EXPECT_FALSE(geoNames.ConvertAddress("Zürich"));
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
  const auto photo = [&track](size_t point, size_t i = 0) {
    return track->trackPoints()[point]->trackPhotos()[i];
  };
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
  EXPECT_THAT(TrackPlaces::updateAddressInformationWithService(*track, service).reason(),
              HasSubstr("point 1 of 4"));
  EXPECT_EQ(photo(3)->city(), "Kept");
}

}  // namespace
}  // namespace kvtrack::testing
