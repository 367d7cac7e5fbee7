// wayfolio devices, download and erase, with the device folder pointed at a
// scratch folder. gpsbabel reads NMEA from a plain file used as the "port".

#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <filesystem>
#include <string>

#include "tests/cli/WayfolioFixture.h"
#include "tests/devices/LoggerWire.h"
#include "tests/devices/PtyPair.h"
#include "tests/common/ScopedEnvironment.h"

namespace kvtrack::testing {
namespace {

// Five fixes 10 s apart, each as RMC and GGA with correct checksums.
std::string nmeaTrack() {
  std::string out;
  const auto sentence = [&](const std::string& body) { out += kvtrack::test::nmeaSentence(body, true); };
  for (int i = 0; i < 5; ++i) {
    const std::string time = fmt::format("1200{:02d}.00", i * 10);
    const std::string latitude = fmt::format("4807.{:03d}", 38 + i * 10);
    sentence(fmt::format("GPRMC,{},A,{},N,01131.000,E,2.4,84.4,230324,,,A", time, latitude));
    sentence(fmt::format("GPGGA,{},{},N,01131.000,E,1,08,0.9,545.4,M,46.9,M,,", time, latitude));
  }
  return out;
}

class DeviceCommandsTest : public WayfolioTest {
 protected:
  std::string devices() const { return scratch.file("dev") + "/"; }
  void SetUp() override { std::filesystem::create_directories(devices()); }
  ScopedEnvironment deviceFolder{"WAYFOLIO_DEVICE_FOLDER", scratch.file("dev") + "/"};
};

TEST_F(DeviceCommandsTest, DevicesListsCalloutPortsAndMissingPermission) {
  EXPECT_NE(ok("devices").find("No serial ports in " + devices()), std::string::npos);

  scratch.write("dev/ttyUSB0", "");
  scratch.write("dev/ttyACM1", "");
  scratch.write("dev/ttyS0", "");
  ::chmod((devices() + "ttyACM1").c_str(), 0);
  const std::string out = ok("devices");
  EXPECT_EQ(lineWith(out, "ttyUSB0"), devices() + "ttyUSB0");
  EXPECT_EQ(lineWith(out, "ttyS0"), "");
  if (::geteuid() != 0) {  // root may open anything
    EXPECT_EQ(lineWith(out, "ttyACM1"),
              devices() + "ttyACM1 (no permission: add yourself to the dialout group)");
  } else {
    EXPECT_EQ(lineWith(out, "ttyACM1"), devices() + "ttyACM1");
  }
}

TEST_F(DeviceCommandsTest, DownloadImportsTheTracksAndAFailedOneAddsNothing) {
  const WayfolioRun failed = run("download --type nmea --device ttyUSB7");
  EXPECT_EQ(failed.status, 1);
  EXPECT_NE(failed.err.find("wayfolio: error: the download from ttyUSB7 failed (status 1): gpsbabel: "),
            std::string::npos)
      << failed.err;
  EXPECT_EQ(lineWith(ok("ls"), "Track"), "");

  scratch.write("dev/ttyUSB0", nmeaTrack());
  const std::string out = ok("download --type nmea --device ttyUSB0 --into Logger");
  EXPECT_NE(out.find("Downloaded from ttyUSB0: 1 tracks added"), std::string::npos) << out;
  EXPECT_NE(lineWith(out, "(5 points)").find("Logger/"), std::string::npos) << out;
  EXPECT_NE(lineWith(ok("tree"), "Logger"), "");
}

TEST_F(DeviceCommandsTest, EraseAsksFirstAndOnlyYesReachesTheBridge) {
  const std::string logger = scratch.write("dev/ttyUSB0", nmeaTrack());
  const std::string answer = scratch.write("answer.txt", "n\n");
  for (const std::string& input : {word(answer), std::string("/dev/null")}) {  // no answer at all counts as no
    const WayfolioRun result = run("erase --type nmea --device ttyUSB0 < " + input);
    EXPECT_EQ(result.status, 0);
    EXPECT_NE(result.err.find("Erase all tracks on ttyUSB0? [y/N] "), std::string::npos);
    EXPECT_NE(result.out.find("Nothing erased"), std::string::npos);
  }
  EXPECT_EQ(ScratchFolder::read(logger), nmeaTrack());

  // gpsbabel cannot erase an NMEA stream: the bridge's refusal comes back.
  const WayfolioRun result = run("erase --yes --type nmea --device ttyUSB0 < /dev/null");
  EXPECT_EQ(result.err.find("[y/N]"), std::string::npos);
  EXPECT_EQ(result.status, 1);
  EXPECT_NE(result.err.find("the erase of ttyUSB0 failed (status 254): gpsbabel cannot erase loggers of format nmea"),
            std::string::npos)
      << result.err;
}

// Loggers that never answer: Ctrl-C must end the download at once, with
// nothing imported. The pty is held here so the port never hangs up by itself.
TEST_F(DeviceCommandsTest, InterruptCancelsADownloadAndImportsNothing) {
  kvtrack::test::PtyPair silentPort;
  ASSERT_TRUE(silentPort.valid());
  std::filesystem::create_symlink(silentPort.slavePath(), devices() + "ttyUSB0");
  const std::vector<std::array<std::string, 3>> loggers{
      {word(WAYFOLIO_BINARY), "--type '*BG728' --device ttyUSB0", "ttyUSB0"},
      {"WAYFOLIO_TEST_IGOTU_RECORDS=400 WAYFOLIO_TEST_IGOTU_SILENT_BLOCK=2 " + word(WAYFOLIO_WITH_IGOTU),
       "--type '*i-gotU'", "the i-gotU"},
      {"WAYFOLIO_TEST_GNS_RECORDS=10 WAYFOLIO_TEST_GNS_SILENT=1 " + word(WAYFOLIO_WITH_GNS2000),
       "--type '*GNS2000'", "the GNS 2000"}};
  for (const auto& [program, type, name] : loggers) {
    const WayfolioRun result = runInterrupted(program, "download " + type);
    EXPECT_EQ(result.status, 1) << result.err;
    EXPECT_NE(result.err.find("wayfolio: error: the download from " + name + " was cancelled"), std::string::npos)
        << result.err;
  }
  const std::string listing = ok("ls");
  EXPECT_EQ(lineWith(listing, "Track"), "") << listing;
  EXPECT_EQ(lineWith(listing, "May 1, "), "") << listing;
}

}  // namespace
}  // namespace kvtrack::testing
