// The writer's output byte for byte against files kept under
// tests/formats/golden (see the README there): the bundled examples read and
// written again, generated tracks under every export option, and one track
// that carries every element and attribute the writer knows, with texts
// that need escaping and numbers at the ends of their ranges, whose values
// read back exactly.
#include "kvtrack/formats/gpx/TrackGPX.h"
#include "tests/common/ScratchFolder.h"
#include "tests/formats/TrackGenerator.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <limits>
#include <tuple>

namespace kvtrack {
namespace {

using testing::Generator;
using testing::ScratchFolder;

const std::filesystem::path kGolden = std::filesystem::path(KVTRACK_SOURCE_DIR) / "tests/formats/golden";

// With KVTRACK_WRITE_GOLDEN_FILES=1 the files are (re)written instead of compared.
bool writingGoldenFiles() {
  const char* value = std::getenv("KVTRACK_WRITE_GOLDEN_FILES");
  return value && std::string_view(value) == "1";
}

void expectGolden(const std::string& written, const std::string& name) {
  const auto golden = (kGolden / name).string();
  if (writingGoldenFiles()) {
    std::ofstream(golden, std::ios::binary) << ScratchFolder::read(written);
    return;
  }
  ASSERT_TRUE(std::filesystem::exists(golden)) << golden;
  const std::string expected = ScratchFolder::read(golden), actual = ScratchFolder::read(written);
  if (expected == actual) return;
  size_t at = 0;
  while (at < expected.size() && at < actual.size() && expected[at] == actual[at]) ++at;
  ADD_FAILURE() << name << " differs from byte " << at
                << ":\nexpected: " << expected.substr(at > 40 ? at - 40 : 0, 120)
                << "\nactual:   " << actual.substr(at > 40 ? at - 40 : 0, 120);
}

// Geocaches need a fixed identifier where a process-wide counter would
// otherwise number them (the Groundspeak block).
void identifyGeocaches(Track& track) {
  int n = 0;
  for (const auto& point : track.trackPoints()) {
    if (point->geocache() && !point->geocache()->identifier) {
      point->geocache()->identifier = "GCX" + std::to_string(++n);
    }
  }
}

TrackPointPtr point(Track& track, double latitude, double longitude, double elevation) {
  auto p = TrackPoint::trackPointWithParent(&track);
  p->setLatitude(latitude);
  p->setLongitude(longitude);
  p->setElevation(elevation);
  track.addTrackPoint(p);
  return p;
}

// Texts with every character that needs escaping in text or attributes,
// control characters XML forbids (dropped), and letters beyond ASCII.
const std::string kOdd = "a<b>c&d\"e'f\tg\nh\ri\x01j\x1fk ü東 &amp; ]]> end ";

TrackPhotoPtr fullPhoto(const std::string& path, int32_t offset) {
  auto photo = TrackPhoto::trackPhotoWithFilepath(path);
  photo->setTimeOfPhoto(ISODate::fromMicrosecondsSince1970(1335866400123456LL, offset));
  photo->setBase64Bookmark("Ym9va21hcms=");
  photo->setCity(kOdd);
  photo->setState("Bern");
  photo->setCountry("Schweiz");
  photo->setIsoCountryCode("CH");
  photo->setPlace("");
  photo->setIPhotoIdAppleScript("photo id \"7\"");
  photo->setIPhotoId(-9223372036854775807LL - 1);
  photo->setICloudId("cloud&id");
  photo->setIPhoneFilename("Roamly/photo.jpg");
  return photo;
}

GeocachePtr fullGeocache() {
  auto g = std::make_shared<Geocache>();
  std::tie(g->name, g->owner, g->locale, g->state, g->country, g->summary, g->description, g->hints,
           g->license, g->identifier, g->descriptionAsPDF) =
      std::tuple(kOdd, "owner", "de", "", "CH", "<b>summary</b>", "long & <i>description</i>", "hint",
                 "licence", "GC12345", "/pdf/c&c.pdf");
  std::tie(g->status, g->type, g->container, g->difficulty, g->terrain, g->yourLogType) =
      std::tuple(3, 9, 6, 3.5f, 5.0f, 5);
  auto log = std::make_shared<GeocacheLog>();
  std::tie(log->time, log->geocacher, log->geocacherIdentifier, log->identifier, log->type, log->text) =
      std::tuple(ISODate::fromMicrosecondsSince1970(1335866400000000LL, -210), kOdd, "42", "", 2,
                 "log\ntext");
  g->logs.push_back(log);
  return g;
}

// Every element and attribute of tracks, points, waypoints and photos, and
// numbers at the ends of their ranges. Without waypoints for reading back
// (waypoints are merged into the points they match).
TrackPtr everyElement(bool withWaypoints = true) {
  auto track = Track::trackWithName(kOdd);
  track->setDescription("track & description");
  track->setTags("tag1, tag2 <x>");
  track->setColor({0.125, 1.0, 0.0, 0.5});
  track->setWidth(2.75f);
  track->setShowArea(true);
  track->setAreaDistanceInMeter(1234.5f);
  track->setShowDirectionArrows(true);
  track->setSyncPhotosOniPhone(true);
  const double extremes[][3] = {
      {47.137154, 8.1, 400.25},
      {-0.0, 0.0, -0.0},
      {90.0, 180.0, std::numeric_limits<double>::max()},
      {-90.0, -180.0, -std::numeric_limits<double>::max()},
      {4.9406564584124654e-324, -4.9406564584124654e-324, std::numeric_limits<double>::min()},
      {1e-7, 123.456789012345678, 0.5e-6},
      {89.9999995, -179.9999994999, 1.0000005},
      {12.3456785, 0.0000005, 2.5e-6},
      {33.3333333333333333, 66.6666666666666666, std::nan("")},
      {1e-5, 1e-15, std::numeric_limits<double>::infinity()},
  };
  int64_t micros = 1335866400LL * 1000000;
  const int32_t offsets[] = {345, -210, 0, 840, -720};
  int i = 0;
  for (const auto& e : extremes) {
    auto p = point(*track, e[0], e[1], e[2]);
    const int32_t offset = offsets[i % 5];
    micros += (i % 2 ? 1000000 : 1234567);
    if (i != 3) p->setTime(ISODate::fromMicrosecondsSince1970(micros, offset));
    const double speeds[] = {-1.0, 0.0, 1e-7, 3.6, 299792.458, std::nan(""), 1e300, 5e-324, 12.5, -0.0};
    p->setSpeed(speeds[i]);
    p->setLength(i % 3 == 0 ? -1.0 : speeds[(i + 3) % 10]);
    if (i % 2) p->setTags(i == 3 ? "" : kOdd);
    if (i == 2) p->setDescription("");
    if (i == 4) p->setDescription(kOdd);
    if (i == 5) p->setComment(kOdd);
    if (i == 6) p->setUrlAsPDF("/pdf/a&b.pdf");
    if (withWaypoints && (i == 1 || i == 7)) {
      p->setIsWayPoint(true);
      p->setName(i == 1 ? kOdd : "");
      p->setSource("src");
      p->setUrl("http://example.invalid/?a=1&b=2");
      p->setUrlName("url name");
      p->setSymbol("Flag");
      p->setType("type");
      p->setGeocache(fullGeocache());
    }
    if (i == 1 || i == 8) p->addTrackPhoto(fullPhoto("/photos/a&b \"c\".jpg", offset));
    if (i == 8) p->addTrackPhoto(TrackPhoto::trackPhotoWithFilepath("/photos/plain.jpg"));
    p->setIsEndOfSegment(i == 2 || i == 3 || i == 9);
    ++i;
  }
  // Dates far from now: before 1970, a leap day, and beyond the year 9999.
  point(*track, 1, 2, 3)->setTime(ISODate::fromMicrosecondsSince1970(-62135596800000001LL, 0));
  point(*track, 1, 2, 3)->setTime(ISODate::fromMicrosecondsSince1970(951782400000000LL, -59));
  point(*track, 1, 2, 3)->setTime(ISODate::fromMicrosecondsSince1970(253402300800000000LL, 1439));
  return track;
}

struct Case {
  std::string name;
  std::function<TrackPtr()> track;
  std::function<void(GpxExportConfiguration&)> options = [](GpxExportConfiguration&) {};
};

TrackPtr generated(uint32_t seed, int32_t type = Track::kRecordedTrack) {
  auto track = Generator(seed).track();
  track->setType(type);
  identifyGeocaches(*track);
  return track;
}

// The bundled examples as read.
TrackPtr example(const std::string& name) {
  auto track = Track::track();
  EXPECT_TRUE(TrackGPX(track).importFrom(std::string(KVTRACK_SOURCE_DIR) + "/examples/" + name + ".gpx"));
  return track;
}

std::vector<Case> cases() {
  std::vector<Case> all;
  for (uint32_t seed = 1; seed <= 6; ++seed) {
    all.push_back({"generated-" + std::to_string(seed), [seed] { return generated(seed); }});
  }
  all.push_back({"generated-gpx10-plain", [] { return generated(7); },
                 [](auto& c) {
                   c.setUseGPX10(true);
                   c.setExportWayfolioExtensions(false);
                 }});
  all.push_back(
      {"generated-no-photos", [] { return generated(8); }, [](auto& c) { c.setDoNotExportPhotos(true); }});
  all.push_back({"generated-phone-photos", [] { return generated(9); },
                 [](auto& c) {
                   c.setExportiPhonePhotosOnly(true);
                   c.setDoNotExportBookmarks(true);
                   c.setDoNotExportiCloudInfo(true);
                 }});
  all.push_back(
      {"generated-filtered", [] { return generated(10); },
       [](auto& c) { c.setFilterPredicate([](const TrackPoint& p) { return p.latitude() > 0; }); }});
  all.push_back({"generated-groundspeak", [] { return generated(11); },
                 [](auto& c) {
                   c.setExportGroundspeakExtensions(true);
                   c.setExportGeocachingAuExtensions(false);
                 }});
  all.push_back({"generated-waypoints-only", [] { return generated(12); },
                 [](auto& c) { c.setExportWaypointsOnly(true); }});
  all.push_back({"generated-route", [] { return generated(13, Track::kPlaceCollection); }});
  all.push_back({"generated-collection", [] { return generated(14, Track::kGeocacheCollection); }});
  const auto every = [] { return everyElement(); };
  all.push_back({"every-element", every});
  all.push_back({"every-element-groundspeak", every, [](auto& c) {
                   c.setExportGroundspeakExtensions(true);
                   c.setExportGeocachingDescriptionAsPlainText(true);
                 }});
  all.push_back({"every-element-no-extensions", every, [](auto& c) {
                   c.setExportWayfolioExtensions(false);
                   c.setUseGPX10(true);
                 }});
  for (const char* name : {"bachalpsee-hike", "rhine-ride", "zurich-places"}) {
    all.push_back({std::string("example-") + name, [name] { return example(name); }});
  }
  return all;
}

TEST(GpxGoldenFiles, WrittenTracksAreByteForByteTheKeptFiles) {
  ScratchFolder folder;
  for (const Case& c : cases()) {
    SCOPED_TRACE(c.name);
    GpxExportConfiguration configuration;
    c.options(configuration);
    const std::string path = folder.file(c.name + ".gpx");
    ASSERT_TRUE(TrackGPX(c.track()).exportTo(path, configuration));
    expectGolden(path, c.name + ".gpx");
  }

  GpxExportConfiguration configuration;
  const std::string several = folder.file("several.gpx");
  ASSERT_TRUE(TrackGPX(Track::track())
                  .exportTo(several, {generated(20), generated(21, Track::kPlaceCollection), everyElement()},
                            configuration));
  expectGolden(several, "several-tracks.gpx");
  GpxExportConfiguration externalPoints;
  externalPoints.setExportTrackPointsInExternalFile(folder.file("points.txt"));
  const std::string external = folder.file("external.gpx");
  ASSERT_TRUE(TrackGPX(generated(22)).exportTo(external, externalPoints));
  expectGolden(external, "external-points.gpx");
  expectGolden(folder.file("points.txt"), "external-points.txt");
}

// Every number as written, the extremes included, reads back exactly (the
// track takes its first point's time zone, so instants are compared). That
// generated tracks read back is the round trip's business.
TEST(GpxGoldenFiles, ExtremeNumbersReadBackExactly) {
  ScratchFolder folder;
  auto original = everyElement(false);
  GpxExportConfiguration configuration;
  ASSERT_TRUE(TrackGPX(original).exportTo(folder.file("numbers.gpx"), configuration));
  auto copy = Track::track();
  ASSERT_TRUE(TrackGPX(copy).importFrom(folder.file("numbers.gpx")));
  const auto written = original->trackPoints();
  const auto read = copy->trackPoints();
  ASSERT_EQ(read.size(), written.size());
  for (size_t i = 0; i < read.size(); ++i) {
    SCOPED_TRACE("point " + std::to_string(i));
    const TrackPoint &r = *read[i], &w = *written[i];
    EXPECT_EQ(std::tuple(r.latitude(), r.longitude(), r.trackPhotos().size()),
              std::tuple(w.latitude(), w.longitude(), w.trackPhotos().size()));
    if (std::isfinite(w.elevation())) {
      EXPECT_EQ(r.elevation(), w.elevation());
    }
    if (w.speed() >= 0) {
      EXPECT_EQ(r.speed(), w.speed());
    }
    // Years beyond 9999 are not read as times.
    if (w.hasTime() && w.time()->calendarDate().year <= 9999) {
      ASSERT_TRUE(r.hasTime());
      EXPECT_EQ(r.time()->microsecondsSince1970(), w.time()->microsecondsSince1970());
    }
  }
}

}  // namespace
}  // namespace kvtrack
