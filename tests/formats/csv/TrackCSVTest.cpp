// CSV export read back with Python's csv module, the kind of reader
// spreadsheet users script against.
#include "kvtrack/formats/csv/TrackCSV.h"

#include "kvtrack/support/FileHandling.h"
#include "kvtrack/support/KvPreferences.h"
#include "kvtrack/support/Localization.h"
#include "tests/common/ScratchFolder.h"
#include "tests/common/TrackBuilders.h"

#include <gtest/gtest.h>
#include <unicode/locid.h>

#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <sstream>

namespace kvtrack {
namespace {

using testing::addPoint;
using testing::ScratchFolder;
using Row = std::vector<std::string>;
using Rows = std::vector<Row>;

const Row kMetricHeader = {"Index", "Time", "Latitude", "Longitude", "Elevation (m)", "Speed (km/h)", "Waypoint", "Name"};

class TrackCSVTest : public ::testing::Test {
 protected:
  void SetUp() override {
    useLocale("en_US");
    KvPreferences::singleton().setUnitMode(std::nullopt);
  }
  void TearDown() override {
    KvPreferences::singleton().setUnitMode(savedUnitMode_);
    setLocalizer(nullptr);
    useLocale(savedLocale_.getName());
  }
  static void useLocale(const char* name) {
    UErrorCode status = U_ZERO_ERROR;
    icu::Locale::setDefault(icu::Locale(name), status);
    ASSERT_TRUE(U_SUCCESS(status));
  }

  // The rows of the exported file, which must be UTF-16 with a byte-order mark.
  Rows exportAndRead(const std::shared_ptr<Track>& track) {
    const std::string csv = folder_.file("track.csv"), out = folder_.file("rows.txt");
    EXPECT_TRUE(TrackCSV::trackCSVWithTrack(track)->exportTo(csv));
    EXPECT_EQ(ScratchFolder::read(csv).substr(0, 2), "\xFF\xFE");
    const std::string script = folder_.write("read.py",
        "import csv, sys\n"
        "with open(sys.argv[1], encoding='utf-16', newline='') as f:\n"
        "    rows = list(csv.reader(f, delimiter=';'))\n"
        "with open(sys.argv[2], 'w', encoding='utf-8', newline='') as out:\n"
        "    out.write(''.join('\\t'.join(row) + '\\n' for row in rows))\n");
    const std::string command = "python3 " + FileHandling::filenameForShell(script) + " " +
                                FileHandling::filenameForShell(csv) + " " + FileHandling::filenameForShell(out);
    EXPECT_EQ(std::system(command.c_str()), 0) << command;
    Rows rows;
    std::istringstream lines(ScratchFolder::read(out));
    for (std::string line; std::getline(lines, line);) {
      Row& row = rows.emplace_back();
      std::istringstream fields(line + "\t");
      for (std::string field; std::getline(fields, field, '\t');) row.push_back(field);
    }
    return rows;
  }

  ScratchFolder folder_;
  std::optional<int> savedUnitMode_ = KvPreferences::singleton().unitMode();
  icu::Locale savedLocale_ = icu::Locale::getDefault();
};

TEST_F(TrackCSVTest, PointsReadBackWithAStandardCsvReaderInTheLocalesNumbers) {
  auto track = Track::track();
  auto summit = addPoint(*track, 48.1234567, -11.5, "2012-05-01T12:00:00+02:00", 1520.25);
  summit->setSpeed(12.5);
  summit->setIsWayPoint(true);
  summit->setName("Gipfelkreuz Zugspitze \xF0\x9F\x8F\x94");  // outside the BMP: a surrogate pair
  addPoint(*track, 0.000001, 180.0, {}, NAN);  // unknown elevation; the speed stays never computed
  const Rows rows = exportAndRead(track);
  const std::string time = testing::at("2012-05-01T12:00:00+02:00").descriptionForGui();
  EXPECT_EQ(rows, (Rows{kMetricHeader,
                        {"1", time, "48.1234567", "-11.5", "1520.25", "12.5", "x", "Gipfelkreuz Zugspitze \xF0\x9F\x8F\x94"},
                        {"2", "", "0.000001", "180", "NaN", "-1", "", ""}}));

  useLocale("de_DE");
  EXPECT_EQ(exportAndRead(track)[2], (Row{"2", "", "0,000001", "180", "NaN", "-1", "", ""}));
  EXPECT_EQ(exportAndRead(track)[1][4], "1520,25");
}

TEST_F(TrackCSVTest, UnitModesConvertElevationAndSpeedButNotPositions) {
  struct Case {
    std::optional<int> mode;
    std::string elevationTitle, speedTitle, elevation, speed, neverComputed;
  };
  const Case cases[] = {
      {1, "Elevation (ft)", "Speed (mph)", "100", "1", "-0.6213711922"},
      {2, "Elevation (ft)", "Speed (knots)", "100", "0.8689762419", "-0.5399568035"},
      {0, "Elevation (m)", "Speed (km/h)", "30.48", "1.609344", "-1"},
      {7, "Elevation (m)", "Speed (km/h)", "30.48", "1.609344", "-1"},
  };
  auto track = Track::track();
  addPoint(*track, 48.5, 11.25, {}, 30.48)->setSpeed(1.609344);
  addPoint(*track, 48.5, 11.25, {}, 30.48);
  for (const Case& c : cases) {
    SCOPED_TRACE(c.mode.value_or(-1));
    KvPreferences::singleton().setUnitMode(c.mode);
    const Rows rows = exportAndRead(track);
    ASSERT_EQ(rows.size(), 3u);
    EXPECT_EQ(rows[0][4], c.elevationTitle);
    EXPECT_EQ(rows[0][5], c.speedTitle);
    EXPECT_EQ(rows[1], (Row{"1", "", "48.5", "11.25", c.elevation, c.speed, "", ""}));
    EXPECT_EQ(rows[2][5], c.neverComputed);
  }
}

TEST_F(TrackCSVTest, EmptyTrackGivesTheHeaderInTheInstalledTranslation) {
  EXPECT_EQ(exportAndRead(Track::track()), Rows{kMetricHeader});
  setLocalizer([](std::string_view english) -> std::optional<std::string> {
    if (english == "Latitude") return "Breite";
    if (english == "Elevation") return "H\xC3\xB6he";
    return std::nullopt;
  });
  Row translated = kMetricHeader;
  translated[2] = "Breite";
  translated[4] = "H\xC3\xB6he (m)";
  EXPECT_EQ(exportAndRead(Track::track()), Rows{translated});
  setLocalizer(nullptr);
  EXPECT_EQ(exportAndRead(Track::track()), Rows{kMetricHeader});
}

TEST_F(TrackCSVTest, FailedWritesLeaveNothingBehindAndRewritesReplaceWholeFiles) {
  auto track = Track::track();
  addPoint(*track, 48.5, 11.25);
  TrackCSV csv(track);
  const std::string missingFolder = folder_.file("missing/track.csv");
  EXPECT_NE(csv.exportTo(missingFolder).reason().find(missingFolder), std::string::npos);
  // A directory in the way fails only at the final rename, after the temporary file was written.
  const std::string inTheWay = folder_.file("in-the-way");
  std::filesystem::create_directories(inTheWay + "/child");
  EXPECT_FALSE(csv.exportTo(inTheWay));
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(folder_.path()), {}), 1);

  const std::string existing = folder_.write("track.csv", std::string(100000, 'z'));
  EXPECT_EQ(exportAndRead(track).size(), 2u);
  EXPECT_EQ(ScratchFolder::read(existing).find('z'), std::string::npos);
}

}  // namespace
}  // namespace kvtrack
