#include "kvtrack/support/KvPreferences.h"
#include "kvtrack/support/Log.h"
#include "kvtrack/support/SettingsFile.h"
#include "kvtrack/support/UserDefaults.h"
#include "tests/common/ScopedEnvironment.h"
#include "tests/common/ScratchFolder.h"

#include <gtest/gtest.h>

#include <filesystem>

namespace kvtrack {
namespace {

namespace fs = std::filesystem;
using testing::ScopedEnvironment;
using testing::ScratchFolder;

TEST(Settings, MissingFilesAreQuietMalformedOnesLoggedAndBothEmpty) {
  ScratchFolder folder;
  SettingsFile settings;
  settings.setInteger("preferences", "unitMode", 2);
  LogCapture log;
  EXPECT_TRUE(settings.load(folder.file("absent.toml")));
  EXPECT_EQ(settings.path(), folder.file("absent.toml"));
  EXPECT_FALSE(settings.integer("preferences", "unitMode"));
  EXPECT_FALSE(fs::exists(folder.file("absent.toml")));
  EXPECT_TRUE(settings.load(folder.write("empty.toml", "")));
  EXPECT_TRUE(log.lines().empty());

  settings.setInteger("preferences", "unitMode", 2);
  const std::string broken =
      folder.write("broken.toml", "[preferences]\nunitMode = 1\nthis is = = not toml\n");
  EXPECT_FALSE(settings.load(broken));
  EXPECT_TRUE(log.contains("settings: cannot read " + broken + ": "));
  EXPECT_FALSE(settings.integer("preferences", "unitMode"));
  fs::create_directories(folder.file("folder.toml"));
  EXPECT_FALSE(settings.load(folder.file("folder.toml")));
  EXPECT_TRUE(log.contains("settings: cannot read " + folder.file("folder.toml") + ": "));
}

TEST(Settings, ValuesSurviveSaveAndLoadAndSaveReplacesTheFileOrReportsFailure) {
  ScratchFolder folder;
  const std::string path = folder.file("deeper/folder/settings.toml");
  const std::string text = "quote \" backslash \\ newline \n tab \t Zürich";
  {
    SettingsFile settings;
    settings.load(path);
    settings.setInteger("preferences", "big", -9000000000LL);
    settings.setNumber("preferences", "ratio", 0.1);
    settings.setBoolean("defaults", "flag", true);
    settings.setString("defaults", "text", text);
    settings.setString("defaults", "odd key.with dots", "x");
    settings.setString("defaults", "gone", "soon");
    ASSERT_TRUE(settings.save());
    settings.erase("defaults", "gone");
    settings.erase("defaults", "neverThere");
    settings.erase("noSuchTable", "key");
    ASSERT_TRUE(settings.save());
  }
  SettingsFile settings;
  ASSERT_TRUE(settings.load(path));
  EXPECT_EQ(settings.integer("preferences", "big"), -9000000000LL);
  EXPECT_EQ(settings.number("preferences", "ratio"), 0.1);
  EXPECT_EQ(settings.boolean("defaults", "flag"), true);
  EXPECT_EQ(settings.string("defaults", "text"), text);
  EXPECT_EQ(settings.string("defaults", "odd key.with dots"), "x");
  EXPECT_FALSE(settings.string("defaults", "gone"));
  // Nothing but the file itself is left behind.
  EXPECT_EQ(std::distance(fs::directory_iterator(fs::path(path).parent_path()), {}), 1);

  LogCapture log;  // failures are reported
  SettingsFile unnamed;
  EXPECT_FALSE(unnamed.save());
  EXPECT_TRUE(log.contains("settings: cannot save"));
  folder.write("blocker", "a file where a folder should be");
  SettingsFile blocked;
  blocked.load(folder.file("blocker/settings.toml"));
  blocked.setInteger("preferences", "unitMode", 1);
  EXPECT_FALSE(blocked.save());
  EXPECT_TRUE(log.contains("settings: cannot save " + folder.file("blocker/settings.toml")));
}

TEST(Settings, TypesAreCheckedAndTextThatIsNotUtf8IsRefused) {
  SettingsFile settings;
  ASSERT_TRUE(settings.setString("preferences", "device", "/dev/ttyUSB0"));
  LogCapture log;
  EXPECT_FALSE(settings.setString("preferences", "device", "/dev/tty\xff"));
  EXPECT_TRUE(log.contains("preferences.device"));
  EXPECT_EQ(settings.string("preferences", "device"), "/dev/ttyUSB0");
  KvPreferences preferences(settings);
  preferences.setDevice("\xc3(");
  EXPECT_EQ(preferences.device(), "/dev/ttyUSB0");

  // Reading checks the type; whole floating-point numbers count as integers.
  ScratchFolder folder;
  ASSERT_TRUE(settings.load(folder.write(
      "typed.toml", "[preferences]\nwhole = 2.0\nfraction = 2.5\nhuge = 1e30\ncount = 7\n"
                    "word = \"7\"\nflag = true\nnested = { a = 1 }\n")));
  EXPECT_EQ(settings.integer("preferences", "whole"), 2);
  EXPECT_EQ(settings.number("preferences", "count"), 7.0);
  EXPECT_EQ(settings.number("preferences", "fraction"), 2.5);
  for (const char* key : {"fraction", "huge", "word", "flag", "missing"}) {
    EXPECT_FALSE(settings.integer("preferences", key)) << key;
  }
  EXPECT_FALSE(settings.string("preferences", "nested"));

  ASSERT_TRUE(settings.load(folder.write("odd.toml", "preferences = 3\n")));
  EXPECT_FALSE(settings.integer("preferences", "unitMode"));
  settings.setInteger("preferences", "unitMode", 1);
  EXPECT_EQ(settings.integer("preferences", "unitMode"), 1);
}

TEST(Settings, DefaultPathPrecedence) {
  ScratchFolder folder;
  ScopedEnvironment home("HOME", folder.file("home"));
  using Variable = std::optional<std::string>;
  for (const auto& [chosen, config, expected] : std::vector<std::tuple<Variable, Variable, std::string>>{
           {folder.file("chosen.toml"), folder.file("config"), folder.file("chosen.toml")},
           {"", folder.file("config"), folder.file("config") + "/wayfolio/settings.toml"},
           {std::nullopt, std::nullopt, folder.file("home") + "/.config/wayfolio/settings.toml"}}) {
    ScopedEnvironment settings("WAYFOLIO_SETTINGS", chosen), configHome("XDG_CONFIG_HOME", config);
    EXPECT_EQ(SettingsFile::defaultPath(), expected);
  }
}

// The keys are the getter names, one macro for all; one key per kind and those with limits.
TEST(Preferences, FilesWrittenByHandAreReadUnderTheGetterNamesWithTheirLimits) {
  ScratchFolder folder;
  SettingsFile settings;
  ASSERT_TRUE(settings.load(folder.write("settings.toml", R"([preferences]
minIntervalSpeedCalculation = 3.0
unitMode = 1
kmlExportIncludePhotos = true
kmlExportMaxWidth = 99999999999
kmlExportJPEGQuality = 11
device = "/dev/ttyUSB0"
)")));
  KvPreferences p(settings);
  EXPECT_EQ(p.minIntervalSpeedCalculation(), 3);
  EXPECT_EQ(p.unitMode(), KvPreferences::kUnitModeFeetAndMph);
  EXPECT_EQ(p.kmlExportIncludePhotos(), true);
  EXPECT_FALSE(p.kmlExportMaxWidth());     // does not fit an int
  EXPECT_FALSE(p.kmlExportJPEGQuality());  // beyond 0...10
  EXPECT_EQ(p.device(), "/dev/ttyUSB0");
  p.setKmlExportJPEGQuality(42);
  EXPECT_EQ(p.kmlExportJPEGQuality(), 10);
  p.setKmlExportJPEGQuality(-1);
  EXPECT_EQ(p.kmlExportJPEGQuality(), 0);
  p.setDevice(std::nullopt);  // clearing one key leaves the rest
  EXPECT_FALSE(p.device());
  EXPECT_EQ(p.unitMode(), 1);
}

TEST(Preferences, PreferencesAndDefaultsShareOneFileInTheirOwnTables) {
  ScratchFolder folder;
  SettingsFile settings;
  settings.load(folder.file("settings.toml"));
  KvPreferences preferences(settings);
  UserDefaults defaults(settings);
  // The same key in both tables stays apart, and both land in the one file.
  preferences.setDevice("preference");
  defaults.setStringForKey("device", "default");
  defaults.setIntegerForKey("Counter", 12);
  ASSERT_TRUE(defaults.save());
  EXPECT_EQ(preferences.settingsPath(), folder.file("settings.toml"));
  SettingsFile reloaded;
  reloaded.load(folder.file("settings.toml"));
  EXPECT_EQ(KvPreferences(reloaded).device(), "preference");
  EXPECT_EQ(UserDefaults(reloaded).stringForKey("device"), "default");
  EXPECT_EQ(UserDefaults(reloaded).integerForKey("Counter"), 12);

  // Loading through the preferences changes what the defaults see.
  ASSERT_TRUE(preferences.load(folder.write("other.toml", "[defaults]\nGeoNamesLocale = \"de\"\n")));
  EXPECT_EQ(defaults.stringForKey(UserDefaults::kGeoNamesLocale), "de");
  EXPECT_FALSE(preferences.device());

  // A reset drops only its own table (and the synchroniser).
  preferences.setUnitMode(2);
  int owner = 0;
  std::shared_ptr<ICloudSynchronizer> synchronizer(
      std::shared_ptr<int>(), reinterpret_cast<ICloudSynchronizer*>(&owner));
  preferences.setICloudSynchronizer(synchronizer);
  preferences.reset();
  EXPECT_FALSE(preferences.unitMode());
  EXPECT_FALSE(preferences.iCloudSynchronizer());
  EXPECT_EQ(defaults.stringForKey(UserDefaults::kGeoNamesLocale), "de");
  defaults.reset();
  EXPECT_FALSE(defaults.stringForKey(UserDefaults::kGeoNamesLocale));
}

}  // namespace
}  // namespace kvtrack
