// GPSBabel against the installed gpsbabel and small helper scripts.

#include "kvtrack/devices/gpsbabel/GPSBabel.h"

#include "kvtrack/formats/gpx/TrackGPX.h"
#include "kvtrack/support/ExternalProgram.h"
#include "kvtrack/support/FileHandling.h"
#include "kvtrack/support/KvPreferences.h"
#include "tests/common/ScopedEnvironment.h"
#include "tests/common/ScratchFolder.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <functional>

namespace kvtrack {
namespace {

namespace fs = std::filesystem;
using testing::ScopedEnvironment;
using testing::ScratchFolder;

// Two waypoints lying on the first and last track point, so reading keeps them.
constexpr const char* kSampleGpx = R"(<?xml version="1.0" encoding="UTF-8"?>
<gpx version="1.1" creator="test" xmlns="http://www.topografix.com/GPX/1/1">
<wpt lat="48.0" lon="11.0"><name>Alpha</name></wpt>
<wpt lat="48.02" lon="11.02"><name>Beta</name></wpt>
<trk><name>Walk</name><trkseg>
<trkpt lat="48.0" lon="11.0"><ele>500</ele><time>2024-05-01T10:00:00Z</time></trkpt>
<trkpt lat="48.01" lon="11.01"><ele>510</ele><time>2024-05-01T10:01:00Z</time></trkpt>
<trkpt lat="48.02" lon="11.02"><ele>520</ele><time>2024-05-01T10:02:00Z</time></trkpt>
</trkseg></trk></gpx>
)";

// Every shell trap at once; the commands would create the marker file.
constexpr const char* kHostileName =
    "-x 'q' \"d\" $(touch $KVTRACK_MARKER) `touch $KVTRACK_MARKER`; touch $KVTRACK_MARKER ";

TrackPtr readGpx(const std::string& path) {
  TrackPtr track = Track::track();
  EXPECT_TRUE(TrackGPX(track).importFrom(path)) << path;
  return track;
}

std::vector<std::string> waypointNames(const TrackPtr& track) {
  std::vector<std::string> names;
  for (const TrackPointPtr& point : track->trackPoints()) {
    if (point->isWayPoint()) names.push_back(point->name().value_or("?"));
  }
  return names;
}

class FakeLogger : public GpsDriver {
 public:
  std::optional<std::vector<TrackPtr>> tracks;
  bool eraseSucceeds = true;
  std::string seenDevice;

  std::string name() const override { return "FakeLogger"; }
  std::optional<std::vector<TrackPtr>> importTracksFromDevice(const std::string& device,
                                                              const Options&) override {
    seenDevice = device;
    return tracks;
  }
  bool deleteTracksFromDevice(const std::string& device, const Options&) override {
    seenDevice = device;
    return eraseSucceeds;
  }
};

class GPSBabelTest : public ::testing::Test {
 protected:
  GPSBabelTest() {
    fs::create_directories(devices_);
    FileHandling::singleton().setDeviceFolder(devices_.string() + "/");
    babel_.setDevice("ttyACM0");
    babel_.setDeviceType("gpx");
    babel_.setAdditionalCommandlineOptions("");
  }
  ~GPSBabelTest() override {
    FileHandling::singleton().setDeviceFolder(previousDeviceFolder_);
    KvPreferences& preferences = KvPreferences::singleton();
    preferences.setGpsbabelPath(std::nullopt);
    preferences.setGpsFileFormat(std::nullopt);
    preferences.setGpsFileAdditionalArguments(std::nullopt);
    preferences.setAdditionalArguments(std::nullopt);
  }

  std::string device(const std::string& name) const { return (devices_ / name).string(); }
  bool injected() const { return fs::exists(scratch_.file("marker")); }
  /// A shell script; "sh <script>" in templates, so it needs no mode bits.
  std::string script(const std::string& name, const std::string& body) const {
    const std::string path = scratch_.write(name, "#!/bin/sh\n" + body + "\n");
    fs::permissions(path, fs::perms::owner_all, fs::perm_options::add);
    return path;
  }
  /// A stand-in gpsbabel that writes its arguments, one a line, to a file.
  std::string recordingProgram(const std::string& name) const {
    return script(name,
                  "printf '%s\\n' \"$@\" > " + FileHandling::filenameForShell(scratch_.file(name + ".args")));
  }

  ScratchFolder scratch_;
  ScopedEnvironment temporary_{"TMPDIR", scratch_.path().string()};
  ScopedEnvironment marker_{"KVTRACK_MARKER", scratch_.file("marker")};
  fs::path devices_ = scratch_.path() / "dev";
  std::string previousDeviceFolder_ = FileHandling::singleton().deviceFolder();
  GPSBabel babel_;
};

// --- file formats ------------------------------------------------------------

TEST_F(GPSBabelTest, DescriptionsAreThoseOfTheInstalledGpsbabel) {
  // A line per format: its name and description.
  const ShellOutput listing = runShellCommandReadingOutput("gpsbabel -^2 | cut -f3,5");
  ASSERT_EQ(listing.status, 0);
  const std::string installed = "\n" + listing.output;
  int compared = 0;
  ASSERT_EQ(babel_.fileDescriptionToName().size(), babel_.fileFormats().size());
  for (const auto& [name, description] : babel_.fileNameToDescription()) {
    EXPECT_EQ(babel_.fileDescriptionToName().at(description), name);  // both directions agree
    if (name == "gpx" || name.find('#') != std::string::npos) continue;
    if (installed.find("\n" + name + "\t") == std::string::npos) continue;
    EXPECT_NE(installed.find("\n" + name + "\t" + description + "\n"), std::string::npos)
        << name << ": " << description;
    ++compared;
  }
  EXPECT_GT(compared, 40);
}

// --- settings and templates ----------------------------------------------------

TEST_F(GPSBabelTest, SplitsOptionsFilterAndEraseCommand) {
  babel_.setAdditionalCommandlineOptions(",erase!FILTER!-x simplify,count=10");
  EXPECT_EQ(babel_.getAdditionalArguments(), ",erase");
  EXPECT_EQ(babel_.getFilterCommand(), "-x simplify,count=10");
  babel_.setAdditionalCommandlineOptions("-s");
  EXPECT_EQ(babel_.getFilterCommand(), "");
  EXPECT_EQ(babel_.getDeleteCommand(), std::nullopt);
  babel_.setDeviceType("!read $DEVICE!DEL!wipe $DEVICE");
  EXPECT_EQ(babel_.getDeleteCommand(), "wipe $DEVICE");
}

TEST_F(GPSBabelTest, ReplaceTemplatesMakesEveryFileOneShellWord) {
  babel_.setDevice("tty'1");
  const std::string app = GPSBabel::applicationFolder();
  const auto word = [](const std::string& s) { return FileHandling::filenameForShell(s); };
  EXPECT_EQ(babel_.replaceTemplates("$APP_BUNDLE|$BUNDLE|$TMPDIR|$DEVICE|$GPX_NO_EXT|$GPX|$INPUTFILE",
                                    "/in put.fit", "/out/a b.gpx"),
            app + "/Contents/Resources|" + app + "|" + word(scratch_.path().string()) + "|" +
                word(device("tty'1")) + "|" + word("/out/a b") + "|" + word("/out/a b.gpx") + "|" +
                word("/in put.fit"));
  // A placeholder inside a file name is text, not a second expansion.
  EXPECT_EQ(babel_.replaceTemplates("$GPX $INPUTFILE", "/i", "/x/$INPUTFILE.gpx"),
            word("/x/$INPUTFILE.gpx") + " " + word("/i"));
  EXPECT_EQ(babel_.replaceTemplates("$DEVICE"), word(device("tty'1")));
  // Without TMPDIR only the application placeholders are expanded.
  ScopedEnvironment noTemporary("TMPDIR", std::nullopt);
  EXPECT_EQ(babel_.replaceTemplates("$BUNDLE $DEVICE $GPX", std::nullopt, "/a.gpx"),
            GPSBabel::applicationFolder() + " $DEVICE $GPX");
}

TEST_F(GPSBabelTest, OldSettingLayoutsAreMovedAndTrackingNamesTheDevice) {
  EXPECT_EQ(GPSBabel::correctSetting("!\"$BUNDLE/x\" $DEVICE"), "!\"$BUNDLE/x\" $DEVICE");
  EXPECT_EQ(GPSBabel::correctSetting("!$APP_BUNDLE/gpsbabel -i mtk"),
            "!$BUNDLE/Contents/MacOS/gpsbabel -i mtk");
  // The drivers rule feeds the igotu rule that follows it.
  EXPECT_EQ(GPSBabel::correctSetting("!$APP_BUNDLE/../Resources/drivers/igotu0.4.0/bin/igotu2gpx"),
            "!$BUNDLE/Contents/MacOS/igotu2gpx0.4.0");
  EXPECT_EQ(babel_.getRealtimeTrackingString(),
            "gpsbabel -T -i NMEA -f \"" + device("ttyACM0") + "\" -o csv -F -");
}

// --- device name repair ----------------------------------------------------------

TEST_F(GPSBabelTest, RepluggedDeviceIsFoundUnderItsNewNumber) {
  scratch_.write("dev/ttyACM1", "");
  scratch_.write("dev/ttyUSB0", "");
  babel_.correctDeviceNameWithDynamicPrefix("ttyUSB");  // another prefix: untouched
  EXPECT_EQ(babel_.device(), "ttyACM0");
  babel_.correctDeviceNameWithDynamicPrefix("ttyACM");
  EXPECT_EQ(babel_.device(), "ttyACM1");

  scratch_.write("dev/ttyACM2", "");
  babel_.correctDeviceNameWithDynamicPrefix("ttyACM");  // present: kept
  EXPECT_EQ(babel_.device(), "ttyACM1");
  babel_.setDevice("ttyACM7");
  babel_.correctDeviceNameWithDynamicPrefix("ttyACM");  // the last by name wins
  EXPECT_EQ(babel_.device(), "ttyACM2");
}

// --- download and erase ------------------------------------------------------------

TEST_F(GPSBabelTest, TemplateHelperDownloadsFromTheRepairedDevice) {
  scratch_.write("dev/ttyACM1", "");
  const std::string sample = scratch_.write("sample.gpx", kSampleGpx);
  const std::string helper = script(
      "read.sh", "echo \"$1\" > \"$2.device\"; cat " + FileHandling::filenameForShell(sample) + " > \"$2\"");
  babel_.setDeviceType("!sh " + FileHandling::filenameForShell(helper) + " $DEVICE $GPX");
  const std::string out = scratch_.file(std::string("dl ") + kHostileName + ".gpx");
  EXPECT_EQ(babel_.importTracksAndWaypointToFile(out), 0);
  EXPECT_EQ(ScratchFolder::read(out + ".device"), device("ttyACM1") + "\n");
  EXPECT_EQ(waypointNames(readGpx(out)), (std::vector<std::string>{"Alpha", "Beta"}));
  EXPECT_FALSE(injected());
}

TEST_F(GPSBabelTest, TemplateHelperWithoutUsefulOutputFails) {
  const std::string out = scratch_.write("out.gpx", "an old download, long enough");
  babel_.setDeviceType("!sh " + FileHandling::filenameForShell(script("short.sh", "printf 12345 > \"$1\"")) +
                       " $GPX");
  EXPECT_EQ(babel_.importTracksAndWaypointToFile(out), -2);
  babel_.setDeviceType("!sh " + FileHandling::filenameForShell(script("none.sh", "exit 0")) + " $GPX");
  EXPECT_EQ(babel_.importTracksAndWaypointToFile(out), -1);  // the old file was removed first
  babel_.setDeviceType("!");
  EXPECT_EQ(babel_.importTracksAndWaypointToFile(out), 1);
  GPSBabel unset;  // no device or type
  EXPECT_EQ(unset.importTracksAndWaypointToFile(out), -1);
  EXPECT_EQ(unset.deleteTracksAndWaypointToFile(out), -1);
}

TEST_F(GPSBabelTest, EraseTemplateFollowsDel) {
  const std::string wipe =
      script("wipe.sh", "echo \"$1 $2\" > " + FileHandling::filenameForShell(scratch_.file("wiped")));
  babel_.setDeviceType("!sh read.sh $DEVICE $GPX!DEL!sh " + FileHandling::filenameForShell(wipe) +
                       " $DEVICE $GPX_NO_EXT");
  EXPECT_EQ(babel_.deleteTracksAndWaypointToFile(scratch_.file("track.gpx")), 0);
  EXPECT_EQ(ScratchFolder::read(scratch_.file("wiped")),
            device("ttyACM0") + " " + scratch_.file("track") + "\n");
  babel_.setDeviceType("!sh read.sh $DEVICE $GPX");
  EXPECT_EQ(babel_.deleteTracksAndWaypointToFile(scratch_.file("track.gpx")), 1);
}

TEST_F(GPSBabelTest, BuiltInDriverWritesPlainGpx) {
  auto logger = std::make_shared<FakeLogger>();
  babel_.registerDriver(logger);
  babel_.setDeviceType("*FakeLogger");
  const std::string out = scratch_.file("driver.gpx");

  TrackPtr ride = Track::trackWithName("Ride");
  for (double latitude : {48.5, 48.6}) {
    TrackPointPtr point = TrackPoint::trackPointWithParent(ride.get());
    point->setLatitude(latitude);
    point->setLongitude(11.5);
    ride->addTrackPoint(point);
  }
  logger->tracks = std::vector<TrackPtr>{ride};
  EXPECT_EQ(babel_.importTracksAndWaypointToFile(out), 0);
  EXPECT_EQ(logger->seenDevice, device("ttyACM0"));
  EXPECT_EQ(readGpx(out)->trackPoints().size(), 2u);
  EXPECT_EQ(ScratchFolder::read(out).find("wayfolio:length"), std::string::npos);

  logger->tracks = std::vector<TrackPtr>{};
  EXPECT_EQ(babel_.importTracksAndWaypointToFile(out), 1);
  EXPECT_FALSE(fs::exists(out));
  logger->tracks.reset();
  EXPECT_EQ(babel_.importTracksAndWaypointToFile(out), 1);
  EXPECT_EQ(babel_.deleteTracksAndWaypointToFile(out), 0);
  logger->eraseSucceeds = false;
  EXPECT_EQ(babel_.deleteTracksAndWaypointToFile(out), 1);
  for (const char* unknown : {"*Nobody", "*"}) {
    babel_.setDeviceType(unknown);
    EXPECT_EQ(babel_.importTracksAndWaypointToFile(out), 1) << unknown;
    EXPECT_EQ(babel_.deleteTracksAndWaypointToFile(out), 1) << unknown;
  }
}

// The command line gpsbabel gets, through a stand-in that records it.
TEST_F(GPSBabelTest, GpsbabelIsAskedForTheFormatWithItsOptions) {
  const std::string fake = recordingProgram("fakebabel");
  KvPreferences::singleton().setGpsbabelPath(fake);
  const auto args = [&](const std::string& name) {
    return ScratchFolder::read(scratch_.file(name + ".args"));
  };
  const std::string out = scratch_.file("out.gpx");

  // A format suffix runs the matching gpsbabel.
  recordingProgram("fakebabel1.4.4wsg2000");
  babel_.setDeviceType("wsg2000#1.4.4wsg2000");
  EXPECT_EQ(babel_.importTracksAndWaypointToFile(out), 0);
  EXPECT_NE(args("fakebabel1.4.4wsg2000").find("-i\nwsg2000\n"), std::string::npos);
  EXPECT_FALSE(fs::exists(scratch_.file("fakebabel.args")));

  // Options starting with a comma belong to the format.
  babel_.setDeviceType("mtk");
  babel_.setAdditionalCommandlineOptions(",erase");
  EXPECT_EQ(babel_.importTracksAndWaypointToFile(out), 0);
  EXPECT_NE(args("fakebabel").find("-i\nmtk,erase\n-f\n" + device("ttyACM0") + "\n"), std::string::npos);

  // Erasing only for the loggers gpsbabel can erase.
  babel_.setAdditionalCommandlineOptions("");
  fs::remove(scratch_.file("fakebabel.args"));
  babel_.setDeviceType("garmin");
  EXPECT_EQ(babel_.deleteTracksAndWaypointToFile(out), 254);
  EXPECT_FALSE(fs::exists(scratch_.file("fakebabel.args")));
  KvPreferences::singleton().setAdditionalArguments(",baud=115200");
  babel_.setDeviceType("skytraq");
  EXPECT_EQ(babel_.deleteTracksAndWaypointToFile(out), 0);
  EXPECT_NE(args("fakebabel").find("skytraq,erase,no-output,baud=115200"), std::string::npos);
  babel_.setDeviceType("mtk");
  EXPECT_EQ(babel_.deleteTracksAndWaypointToFile(out), 0);
  EXPECT_NE(args("fakebabel").find("-i\nmtk,erase,baud=115200\n"), std::string::npos);
}

TEST_F(GPSBabelTest, GpsbabelRunsNeedTmpdir) {
  ScopedEnvironment noTemporary("TMPDIR", std::nullopt);
  EXPECT_EQ(babel_.importTracksAndWaypointToFile(scratch_.file("out.gpx")), 2);
  babel_.setDeviceType("mtk");
  EXPECT_EQ(babel_.deleteTracksAndWaypointToFile(scratch_.file("out.gpx")), 2);
  babel_.setDeviceType("!true!DEL!true");
  EXPECT_EQ(babel_.deleteTracksAndWaypointToFile(scratch_.file("out.gpx")), 2);
}

// --- files through the real gpsbabel -------------------------------------------------

// Works inside the scratch folder so the hostile names can start with a dash.
class GPSBabelFileTest : public GPSBabelTest {
 protected:
  GPSBabelFileTest() : previousFolder_(fs::current_path()) { fs::current_path(scratch_.path()); }
  ~GPSBabelFileTest() override { fs::current_path(previousFolder_); }
  static std::string name(const std::string& extension) { return kHostileName + extension; }

  fs::path previousFolder_;
  std::string sample_ = scratch_.write(name(".gpx"), kSampleGpx);
};

// KML holds the track too; the other formats only the waypoints.
TEST_F(GPSBabelFileTest, ForeignFormatsBecomeGpx) {
  struct Case {
    const char* gpsbabelFormat;
    std::function<Status(const std::string&, const std::string&)> convert;
    size_t points;
  };
  const std::vector<Case> cases{
      {"kml", [&](auto& in, auto& out) { return babel_.convertKML(in, out); }, 3},
      {"geo", [&](auto& in, auto& out) { return babel_.convertLOC(in, out); }, 2},
      {"garmin_gpi", [&](auto& in, auto& out) { return babel_.convertGPI(in, out); }, 2},
      {"tomtom", [&](auto& in, auto& out) { return babel_.convert(in, out, "tomtom"); }, 2},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.gpsbabelFormat);
    const std::string foreign = name(std::string(".") + c.gpsbabelFormat);
    if (c.points == 3) {
      ASSERT_TRUE(babel_.convertGPX(name(".gpx"), foreign));
    } else {
      ASSERT_EQ(runShellCommand(fmt::format("gpsbabel -i gpx -f {} -o {} -F {}",
                                            FileHandling::filenameForShell(sample_), c.gpsbabelFormat,
                                            FileHandling::filenameForShell(foreign))),
                0);
    }
    ASSERT_TRUE(c.convert(foreign, name(".out.gpx")));
    const TrackPtr places = readGpx(name(".out.gpx"));
    ASSERT_EQ(places->trackPoints().size(), c.points);
    EXPECT_NEAR(places->trackPoints().back()->latitude(), 48.02, 1e-4);
    EXPECT_NEAR(places->trackPoints().back()->longitude(), 11.02, 1e-4);
    EXPECT_EQ(waypointNames(places), (std::vector<std::string>{"Alpha", "Beta"}));
  }
  EXPECT_FALSE(injected());
}

TEST_F(GPSBabelFileTest, ImportUsesThePreferredFormat) {
  std::string errors;
  EXPECT_EQ(babel_.importTracksAndWaypointFromFile(name(".gpx"), name(".in.gpx"), &errors), 0);
  EXPECT_EQ(readGpx(name(".in.gpx"))->trackPoints().size(), 3u);

  KvPreferences::singleton().setGpsFileFormat("kml");
  EXPECT_NE(babel_.importTracksAndWaypointFromFile(name(".missing"), name(".in.gpx"), &errors), 0);
  EXPECT_FALSE(errors.empty());

  KvPreferences::singleton().setGpsFileAdditionalArguments("!cp $INPUTFILE $GPX");
  EXPECT_EQ(babel_.importTracksAndWaypointFromFile(name(".gpx"), name(".copy.gpx"), nullptr), 0);
  EXPECT_EQ(ScratchFolder::read(name(".copy.gpx")), kSampleGpx);
  EXPECT_FALSE(injected());
}

TEST_F(GPSBabelFileTest, WaypointsBecomeATrackAndTracksGetThinner) {
  std::string errors;
  ASSERT_EQ(babel_.convertToTrackFromFile(name(".gpx"), name(".trk.gpx"), &errors), 0);
  // Beside the walk, a new track runs through the two waypoints.
  const TrackPtr converted = readGpx(name(".trk.gpx"));
  EXPECT_EQ(converted->trackPoints().size(), 5u);
  EXPECT_NE(babel_.convertToTrackFromFile("missing.gpx", name(".x.gpx"), &errors), 0);
  EXPECT_FALSE(errors.empty());
  EXPECT_EQ(errors.find('\n'), std::string::npos);  // one line only

  std::string long_track = R"(<?xml version="1.0"?><gpx version="1.1" creator="t"
      xmlns="http://www.topografix.com/GPX/1/1"><trk><trkseg>)";
  for (int i = 0; i < 50; ++i) {
    long_track += fmt::format(R"(<trkpt lat="{}" lon="{}"/>)", 48.0 + i * 0.001, 11.0 + (i % 7) * 0.001);
  }
  scratch_.write(name(".long.gpx"), long_track + "</trkseg></trk></gpx>");
  ASSERT_TRUE(babel_.simplifyFile(name(".long.gpx"), name(".short.gpx"), 5));
  EXPECT_EQ(readGpx(name(".short.gpx"))->trackPoints().size(), 5u);
  EXPECT_FALSE(injected());
}

}  // namespace
}  // namespace kvtrack
