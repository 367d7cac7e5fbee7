#include "kvtrack/support/KvPreferences.h"
#include "kvtrack/support/Log.h"
#include "kvtrack/support/SettingsFile.h"
#include "kvtrack/support/UserDefaults.h"

#include "tests/common/ScopedEnvironment.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>

namespace kvtrack {
namespace {

namespace fs = std::filesystem;

using testing::ScopedEnvironment;

class SettingsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string pattern = (fs::temp_directory_path() / "kvtrack-settings-XXXXXX").string();
    ASSERT_NE(mkdtemp(pattern.data()), nullptr);
    folder_ = pattern;
  }
  void TearDown() override {
    std::error_code ignored;
    fs::remove_all(folder_, ignored);
  }
  std::string file(std::string_view name) const { return (folder_ / name).string(); }
  static void write(const std::string& path, const std::string& text) {
    std::ofstream(path, std::ios::binary) << text;
  }
  static std::string read(const std::string& path) {
    std::ifstream stream(path, std::ios::binary);
    std::ostringstream text;
    text << stream.rdbuf();
    return text.str();
  }

  fs::path folder_;
};

TEST_F(SettingsTest, MissingFileIsEmptyAndQuiet) {
  LogCapture log;
  SettingsFile settings;
  EXPECT_TRUE(settings.load(file("absent.toml")));
  EXPECT_EQ(settings.path(), file("absent.toml"));
  EXPECT_FALSE(settings.integer("preferences", "unitMode"));
  EXPECT_FALSE(settings.string("defaults", "GeoNamesLocale"));
  EXPECT_TRUE(log.lines().empty());
  EXPECT_FALSE(fs::exists(file("absent.toml")));
}

TEST_F(SettingsTest, MalformedFileIsLoggedAndEmpty) {
  write(file("broken.toml"), "[preferences]\nunitMode = 1\nthis is = = not toml\n");
  SettingsFile settings;
  settings.setInteger("preferences", "unitMode", 2);
  LogCapture log;
  EXPECT_FALSE(settings.load(file("broken.toml")));
  EXPECT_TRUE(log.contains("settings: cannot read " + file("broken.toml") + ": "));
  EXPECT_FALSE(settings.integer("preferences", "unitMode"));

  fs::create_directories(file("folder.toml"));
  log.clear();
  EXPECT_FALSE(settings.load(file("folder.toml")));
  EXPECT_TRUE(log.contains("settings: cannot read " + file("folder.toml") + ": "));
}

TEST_F(SettingsTest, EmptyFileIsEmptySettings) {
  write(file("empty.toml"), "");
  SettingsFile settings;
  EXPECT_TRUE(settings.load(file("empty.toml")));
  EXPECT_FALSE(settings.boolean("defaults", "IgnoreTrackIdDuringImport"));
}

TEST_F(SettingsTest, ValuesSurviveSaveAndLoad) {
  const std::string path = file("deeper/folder/settings.toml");
  {
    SettingsFile settings;
    settings.load(path);
    settings.setInteger("preferences", "unitMode", 2);
    settings.setInteger("preferences", "big", -9000000000LL);
    settings.setNumber("preferences", "ratio", 0.1);
    settings.setBoolean("defaults", "flag", true);
    settings.setString("defaults", "text", "quote \" backslash \\ newline \n tab \t Zürich");
    settings.setString("defaults", "odd key.with dots", "x");
    ASSERT_TRUE(settings.save());
  }
  SettingsFile settings;
  ASSERT_TRUE(settings.load(path));
  EXPECT_EQ(settings.integer("preferences", "unitMode"), 2);
  EXPECT_EQ(settings.integer("preferences", "big"), -9000000000LL);
  EXPECT_EQ(settings.number("preferences", "ratio"), 0.1);
  EXPECT_EQ(settings.boolean("defaults", "flag"), true);
  EXPECT_EQ(settings.string("defaults", "text"),
            "quote \" backslash \\ newline \n tab \t Zürich");
  EXPECT_EQ(settings.string("defaults", "odd key.with dots"), "x");
  // Nothing but the file itself is left behind.
  EXPECT_EQ(std::distance(fs::directory_iterator(fs::path(path).parent_path()),
                          fs::directory_iterator()),
            1);
}

TEST_F(SettingsTest, SaveReplacesTheWholeFile) {
  const std::string path = file("settings.toml");
  write(path, "[preferences]\nunitMode = 1\ndevice = \"/dev/ttyUSB0\"\n");
  SettingsFile settings;
  ASSERT_TRUE(settings.load(path));
  settings.erase("preferences", "device");
  settings.erase("preferences", "neverThere");
  settings.erase("noSuchTable", "key");
  ASSERT_TRUE(settings.save());
  SettingsFile again;
  again.load(path);
  EXPECT_EQ(again.integer("preferences", "unitMode"), 1);
  EXPECT_FALSE(again.string("preferences", "device"));
}

TEST_F(SettingsTest, SaveFailuresAreReported) {
  LogCapture log;
  SettingsFile unnamed;
  EXPECT_FALSE(unnamed.save());
  EXPECT_TRUE(log.contains("settings: cannot save"));

  log.clear();
  write(file("blocker"), "a file where a folder should be");
  SettingsFile blocked;
  blocked.load(file("blocker/settings.toml"));
  blocked.setInteger("preferences", "unitMode", 1);
  EXPECT_FALSE(blocked.save());
  EXPECT_TRUE(log.contains("settings: cannot save " + file("blocker/settings.toml")));
}

TEST_F(SettingsTest, TextThatIsNotUtf8IsRefused) {
  SettingsFile settings;
  settings.load(file("settings.toml"));
  ASSERT_TRUE(settings.setString("preferences", "device", "/dev/ttyUSB0"));
  LogCapture log;
  EXPECT_FALSE(settings.setString("preferences", "device", "/dev/tty\xff"));
  EXPECT_TRUE(log.contains("preferences.device"));
  EXPECT_EQ(settings.string("preferences", "device"), "/dev/ttyUSB0");
  KvPreferences preferences(settings);
  preferences.setDevice("\xc3(");
  EXPECT_EQ(preferences.device(), "/dev/ttyUSB0");
}

TEST_F(SettingsTest, TypesAreCheckedOnReading) {
  write(file("typed.toml"),
        "[preferences]\nwhole = 2.0\nfraction = 2.5\nhuge = 1e30\ncount = 7\n"
        "word = \"7\"\nflag = true\nnested = { a = 1 }\n");
  SettingsFile settings;
  ASSERT_TRUE(settings.load(file("typed.toml")));
  EXPECT_EQ(settings.integer("preferences", "whole"), 2);
  EXPECT_FALSE(settings.integer("preferences", "fraction"));
  EXPECT_FALSE(settings.integer("preferences", "huge"));
  EXPECT_EQ(settings.number("preferences", "count"), 7.0);
  EXPECT_EQ(settings.number("preferences", "fraction"), 2.5);
  EXPECT_FALSE(settings.integer("preferences", "word"));
  EXPECT_FALSE(settings.string("preferences", "count"));
  EXPECT_FALSE(settings.boolean("preferences", "count"));
  EXPECT_FALSE(settings.integer("preferences", "flag"));
  EXPECT_FALSE(settings.string("preferences", "nested"));
  EXPECT_FALSE(settings.integer("preferences", "missing"));
}

TEST_F(SettingsTest, AValueWhereATableShouldBeGivesWay) {
  write(file("odd.toml"), "preferences = 3\n");
  SettingsFile settings;
  ASSERT_TRUE(settings.load(file("odd.toml")));
  EXPECT_FALSE(settings.integer("preferences", "unitMode"));
  settings.setInteger("preferences", "unitMode", 1);
  EXPECT_EQ(settings.integer("preferences", "unitMode"), 1);
}

TEST_F(SettingsTest, DefaultPathPrecedence) {
  ScopedEnvironment home("HOME", file("home"));
  {
    ScopedEnvironment chosen("WAYFOLIO_SETTINGS", file("chosen.toml"));
    ScopedEnvironment config("XDG_CONFIG_HOME", file("config"));
    EXPECT_EQ(SettingsFile::defaultPath(), file("chosen.toml"));
  }
  {
    ScopedEnvironment chosen("WAYFOLIO_SETTINGS", "");
    ScopedEnvironment config("XDG_CONFIG_HOME", file("config"));
    EXPECT_EQ(SettingsFile::defaultPath(), file("config") + "/wayfolio/settings.toml");
  }
  {
    ScopedEnvironment chosen("WAYFOLIO_SETTINGS", std::nullopt);
    ScopedEnvironment config("XDG_CONFIG_HOME", std::nullopt);
    EXPECT_EQ(SettingsFile::defaultPath(), file("home") + "/.config/wayfolio/settings.toml");
  }
}

TEST_F(SettingsTest, EveryPreferenceIsAbsentUntilSet) {
  SettingsFile settings;
  settings.load(file("settings.toml"));
  KvPreferences preferences(settings);
  EXPECT_EQ(KvPreferences::kDefaultMinIntervalSpeedCalculation, 1);
  EXPECT_FALSE(preferences.minIntervalSpeedCalculation());
  EXPECT_FALSE(preferences.unitMode());
  EXPECT_FALSE(preferences.timeZoneInMinutes());
  EXPECT_FALSE(preferences.kmlExportIncludePhotos());
  EXPECT_FALSE(preferences.kmlExportMaxWidth());
  EXPECT_FALSE(preferences.kmlExportMaxHeight());
  EXPECT_FALSE(preferences.kmlExportJPEGQuality());
  EXPECT_FALSE(preferences.rawFileMode());
  EXPECT_FALSE(preferences.iCloudSupported());
  EXPECT_FALSE(preferences.device());
  EXPECT_FALSE(preferences.deviceType());
  EXPECT_FALSE(preferences.additionalArguments());
  EXPECT_FALSE(preferences.gpsFileFormat());
  EXPECT_FALSE(preferences.gpsFileAdditionalArguments());
  EXPECT_FALSE(preferences.exiftoolPath());
  EXPECT_FALSE(preferences.gpsbabelPath());
  EXPECT_FALSE(preferences.iCloudSynchronizer());

  UserDefaults defaults(settings);
  EXPECT_FALSE(defaults.boolForKey(UserDefaults::kIgnoreTrackIdDuringImport));
  EXPECT_FALSE(defaults.stringForKey(UserDefaults::kGeocachingComUserName));
  EXPECT_FALSE(defaults.stringForKey(UserDefaults::kGeoNamesLocale));
  EXPECT_FALSE(defaults.integerForKey("anything"));
}

TEST_F(SettingsTest, EveryPreferenceSurvivesSaveAndLoad) {
  SettingsFile settings;
  settings.load(file("settings.toml"));
  KvPreferences preferences(settings);
  preferences.setMinIntervalSpeedCalculation(5);
  preferences.setUnitMode(KvPreferences::kUnitModeFeetAndKnots);
  preferences.setTimeZoneInMinutes(-570);
  preferences.setKmlExportIncludePhotos(true);
  preferences.setKmlExportMaxWidth(640);
  preferences.setKmlExportMaxHeight(480);
  preferences.setKmlExportJPEGQuality(7);
  preferences.setRawFileMode(2);
  preferences.setICloudSupported(false);
  preferences.setDevice("/dev/ttyUSB0");
  preferences.setDeviceType("garmin");
  preferences.setAdditionalArguments("-D 1");
  preferences.setGpsFileFormat("gpx");
  preferences.setGpsFileAdditionalArguments("-x simplify,count=100");
  preferences.setExiftoolPath("/opt/exiftool/exiftool");
  preferences.setGpsbabelPath("/usr/local/bin/gpsbabel");
  ASSERT_TRUE(preferences.save());
  EXPECT_EQ(preferences.settingsPath(), file("settings.toml"));

  SettingsFile reloaded;
  ASSERT_TRUE(reloaded.load(file("settings.toml")));
  KvPreferences again(reloaded);
  EXPECT_EQ(again.minIntervalSpeedCalculation(), 5);
  EXPECT_EQ(again.unitMode(), 2);
  EXPECT_EQ(again.timeZoneInMinutes(), -570);
  EXPECT_EQ(again.kmlExportIncludePhotos(), true);
  EXPECT_EQ(again.kmlExportMaxWidth(), 640);
  EXPECT_EQ(again.kmlExportMaxHeight(), 480);
  EXPECT_EQ(again.kmlExportJPEGQuality(), 7);
  EXPECT_EQ(again.rawFileMode(), 2);
  EXPECT_EQ(again.iCloudSupported(), false);
  EXPECT_EQ(again.device(), "/dev/ttyUSB0");
  EXPECT_EQ(again.deviceType(), "garmin");
  EXPECT_EQ(again.additionalArguments(), "-D 1");
  EXPECT_EQ(again.gpsFileFormat(), "gpx");
  EXPECT_EQ(again.gpsFileAdditionalArguments(), "-x simplify,count=100");
  EXPECT_EQ(again.exiftoolPath(), "/opt/exiftool/exiftool");
  EXPECT_EQ(again.gpsbabelPath(), "/usr/local/bin/gpsbabel");

  // Every key lands in its own place: clearing one leaves the rest.
  again.setDevice(std::nullopt);
  again.setTimeZoneInMinutes(std::nullopt);
  EXPECT_FALSE(again.device());
  EXPECT_FALSE(again.timeZoneInMinutes());
  EXPECT_EQ(again.deviceType(), "garmin");
  EXPECT_EQ(again.unitMode(), 2);
}

TEST_F(SettingsTest, HandWrittenPreferencesAreReadWithTheirLimits) {
  write(file("settings.toml"),
        "[preferences]\nunitMode = 1\nkmlExportJPEGQuality = 11\n"
        "kmlExportMaxWidth = 99999999999\nminIntervalSpeedCalculation = 3.0\n");
  SettingsFile settings;
  ASSERT_TRUE(settings.load(file("settings.toml")));
  KvPreferences preferences(settings);
  EXPECT_EQ(preferences.unitMode(), KvPreferences::kUnitModeFeetAndMph);
  EXPECT_FALSE(preferences.kmlExportJPEGQuality());
  EXPECT_FALSE(preferences.kmlExportMaxWidth());
  EXPECT_EQ(preferences.minIntervalSpeedCalculation(), 3);
  preferences.setKmlExportJPEGQuality(42);
  EXPECT_EQ(preferences.kmlExportJPEGQuality(), 10);
  preferences.setKmlExportJPEGQuality(-1);
  EXPECT_EQ(preferences.kmlExportJPEGQuality(), 0);
}

TEST_F(SettingsTest, PreferencesAndDefaultsShareOneFile) {
  SettingsFile settings;
  settings.load(file("settings.toml"));
  KvPreferences preferences(settings);
  UserDefaults defaults(settings);
  preferences.setUnitMode(1);
  defaults.setBoolForKey(UserDefaults::kIgnoreTrackIdDuringImport, true);
  defaults.setStringForKey(UserDefaults::kGeocachingComUserName, "explorer");
  defaults.setIntegerForKey("Counter", 12);
  ASSERT_TRUE(defaults.save());

  const std::string text = read(file("settings.toml"));
  EXPECT_NE(text.find("[preferences]"), std::string::npos) << text;
  EXPECT_NE(text.find("[defaults]"), std::string::npos) << text;

  SettingsFile reloaded;
  reloaded.load(file("settings.toml"));
  EXPECT_EQ(KvPreferences(reloaded).unitMode(), 1);
  UserDefaults again(reloaded);
  EXPECT_EQ(again.boolForKey(UserDefaults::kIgnoreTrackIdDuringImport), true);
  EXPECT_EQ(again.stringForKey(UserDefaults::kGeocachingComUserName), "explorer");
  EXPECT_EQ(again.integerForKey("Counter"), 12);
  EXPECT_FALSE(again.stringForKey("Counter"));
  again.removeObjectForKey("Counter");
  EXPECT_FALSE(again.integerForKey("Counter"));

  // The same key in both tables stays apart.
  preferences.setDevice("preference");
  defaults.setStringForKey("device", "default");
  EXPECT_EQ(preferences.device(), "preference");
  EXPECT_EQ(defaults.stringForKey("device"), "default");

  // Loading through the preferences changes what the defaults see.
  write(file("other.toml"), "[defaults]\nGeoNamesLocale = \"de\"\n");
  ASSERT_TRUE(preferences.load(file("other.toml")));
  EXPECT_EQ(defaults.stringForKey(UserDefaults::kGeoNamesLocale), "de");
  EXPECT_FALSE(preferences.unitMode());
}

TEST_F(SettingsTest, ResetDropsOnlyItsOwnTable) {
  SettingsFile settings;
  KvPreferences preferences(settings);
  UserDefaults defaults(settings);
  preferences.setUnitMode(2);
  int owner = 0;
  std::shared_ptr<ICloudSynchronizer> synchronizer(
      std::shared_ptr<int>(), reinterpret_cast<ICloudSynchronizer*>(&owner));
  preferences.setICloudSynchronizer(synchronizer);
  EXPECT_EQ(preferences.iCloudSynchronizer(), synchronizer);
  defaults.setStringForKey(UserDefaults::kGeoNamesLocale, "fr");

  preferences.reset();
  EXPECT_FALSE(preferences.unitMode());
  EXPECT_FALSE(preferences.iCloudSynchronizer());
  EXPECT_EQ(defaults.stringForKey(UserDefaults::kGeoNamesLocale), "fr");
  defaults.reset();
  EXPECT_FALSE(defaults.stringForKey(UserDefaults::kGeoNamesLocale));
}

TEST_F(SettingsTest, SingletonsShareTheSharedFile) {
  const std::string path = file("shared.toml");
  write(path, "[preferences]\nunitMode = 2\n[defaults]\nGeoNamesLocale = \"it\"\n");
  ASSERT_TRUE(KvPreferences::singleton().load(path));
  EXPECT_EQ(SettingsFile::shared().path(), path);
  EXPECT_EQ(UserDefaults::singleton().stringForKey(UserDefaults::kGeoNamesLocale), "it");
  UserDefaults::singleton().setIntegerForKey("Seen", 1);
  EXPECT_EQ(SettingsFile::shared().integer("defaults", "Seen"), 1);
  EXPECT_EQ(KvPreferences::singleton().unitMode(), 2);
  KvPreferences::singleton().reset();
  UserDefaults::singleton().reset();
}

}  // namespace
}  // namespace kvtrack
