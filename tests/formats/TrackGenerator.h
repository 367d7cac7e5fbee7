#pragma once
// Random tracks within what GPX files carry, for property tests: texts with
// markup characters and non-ASCII letters, waypoints with every attribute,
// geocaches with logs, photos, segments and one time zone per track.

#include "kvtrack/model/Track.h"

#include <cmath>
#include <random>
#include <string>
#include <vector>

namespace kvtrack::testing {

class Generator {
 public:
  explicit Generator(uint32_t seed) : random_(seed) {}

  std::shared_ptr<Track> track() {
    auto t = Track::trackWithName(text(0));
    if (chance(0.5)) t->setDescription(text(0));
    if (chance(0.5)) t->setTags(text(1));
    t->setColor({eighth(), eighth(), eighth(), eighth()});
    const float widths[] = {1.0f, 1.5f, 2.0f, 3.25f};
    t->setWidth(widths[pick(4)]);
    t->setShowArea(chance(0.5));
    t->setAreaDistanceInMeter(static_cast<float>(pick(500)));
    t->setShowDirectionArrows(chance(0.5));
    t->setSyncPhotosOniPhone(chance(0.5));
    const int32_t offset = (static_cast<int32_t>(pick(103)) - 48) * 15;
    int64_t micros = 1335866400LL * 1000000 + static_cast<int64_t>(pick(1000000000));
    const size_t n = pick(60);
    for (size_t i = 0; i < n; ++i) {
      auto p = TrackPoint::trackPointWithParent(t.get());
      p->setLatitude(uniform(-89.9, 89.9));
      p->setLongitude(uniform(-179.9, 179.9));
      p->setElevation(chance(0.1) ? NAN : uniform(-400, 8800));
      p->setSpeed(chance(0.3) ? -1.0 : uniform(0, 200));
      micros += 1 + static_cast<int64_t>(pick(100000000));
      if (i == 0 || !chance(0.05)) p->setTime(ISODate::fromMicrosecondsSince1970(micros, offset));
      p->setIsEndOfSegment(chance(0.1) || i + 1 == n);  // a file ends every segment
      if (chance(0.2)) makeWaypoint(*p, offset);
      if (chance(0.1)) addPhotos(*p, offset);
      t->addTrackPoint(p);
    }
    return t;
  }

 private:
  void makeWaypoint(TrackPoint& p, int32_t offset) {
    p.setIsWayPoint(true);
    if (chance(0.9)) p.setName(text(1));
    p.setDescription(text(0));  // without one the file carries a made-up text
    if (chance(0.5)) p.setComment(text(0));
    if (chance(0.3)) p.setSource(text(1));
    if (chance(0.5)) p.setUrl("http://example.invalid/" + std::to_string(pick(1000)));
    if (chance(0.3)) p.setUrlName(text(1));
    if (chance(0.5)) p.setSymbol(text(1));
    if (chance(0.3)) p.setType(text(1));
    if (chance(0.2)) p.setUrlAsPDF("/pdf/" + std::to_string(pick(1000)) + ".pdf");
    if (chance(0.3)) p.setGeocache(geocache(offset));
  }

  GeocachePtr geocache(int32_t offset) {
    auto g = std::make_shared<Geocache>();
    const auto maybe = [&](std::optional<std::string>& field) {
      if (chance(0.6)) field = text(1);
    };
    maybe(g->name), maybe(g->owner), maybe(g->locale), maybe(g->state), maybe(g->country);
    maybe(g->summary), maybe(g->description), maybe(g->hints), maybe(g->license);
    if (chance(0.5)) g->identifier = "GC" + std::to_string(1000 + pick(9000));
    if (chance(0.3)) g->descriptionAsPDF = "/pdf/cache.pdf";
    g->status = static_cast<int32_t>(pick(4));
    g->type = static_cast<int32_t>(pick(13));
    g->container = static_cast<int32_t>(pick(7));
    g->difficulty = 1.0f + 0.5f * static_cast<float>(pick(9));
    g->terrain = 1.0f + 0.5f * static_cast<float>(pick(9));
    g->yourLogType = 0;  // merging into a plain point resets any other state to "found"
    for (size_t k = pick(4); k > 0; --k) {
      auto log = std::make_shared<GeocacheLog>();
      log->time = ISODate::fromMicrosecondsSince1970(1335866400LL * 1000000 + static_cast<int64_t>(pick(1u << 30)) * 1000000, offset);
      log->geocacher = text(1);
      if (chance(0.5)) log->geocacherIdentifier = std::to_string(pick(100000));
      if (chance(0.5)) log->identifier = std::to_string(pick(100000));
      log->type = static_cast<int32_t>(pick(6));
      log->text = text(0);
      g->logs.push_back(log);
    }
    return g;
  }

  void addPhotos(TrackPoint& p, int32_t offset) {
    for (size_t k = 1 + pick(2); k > 0; --k) {
      auto photo = TrackPhoto::trackPhotoWithFilepath("/photos/" + text(1) + std::to_string(k) + ".jpg");
      if (chance(0.8)) photo->setTimeOfPhoto(ISODate::fromMicrosecondsSince1970(static_cast<int64_t>(pick(1u << 31)) * 1000000, offset));
      if (chance(0.5)) photo->setCity(text(1));
      if (chance(0.5)) photo->setState(text(1));
      if (chance(0.5)) photo->setCountry(text(1));
      if (chance(0.5)) photo->setIsoCountryCode("CH");
      if (chance(0.5)) photo->setPlace(text(1));
      if (chance(0.3)) photo->setBase64Bookmark("Ym9va21hcms=");
      if (chance(0.2)) {
        photo->setIPhotoIdAppleScript("photo id " + std::to_string(pick(100)));
        photo->setIPhotoId(static_cast<int64_t>(pick(100000)));
      }
      if (chance(0.2)) photo->setICloudId(text(1));
      p.addTrackPhoto(photo);
    }
  }

  // Texts with markup characters, quotes, tabs, newlines and non-ASCII letters.
  std::string text(size_t minimum) {
    static const std::vector<std::string> pieces = {"a", "Z", "7", " ", "&", "<", ">", "\"", "'", "\t",
                                                    "\n", "ü", "ß", "東", "é", "-", ";", "=", "/"};
    std::string s;
    for (size_t k = minimum + pick(12); k > 0; --k) s += pieces[pick(pieces.size())];
    if (minimum > 0 && s.find_first_not_of(" \t\n") == std::string::npos) s = "x" + s;
    return s;
  }

  bool chance(double p) { return std::uniform_real_distribution<double>(0, 1)(random_) < p; }
  size_t pick(size_t n) { return std::uniform_int_distribution<size_t>(0, n - 1)(random_); }
  double uniform(double a, double b) { return std::uniform_real_distribution<double>(a, b)(random_); }
  double eighth() { return static_cast<double>(pick(9)) / 8.0; }

  std::mt19937 random_;
};

}  // namespace kvtrack::testing
