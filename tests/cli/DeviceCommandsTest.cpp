// wayfolio devices, download and erase, with the device folder pointed at a
// scratch folder. gpsbabel reads NMEA from a plain file used as the "port".

#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "tests/cli/WayfolioFixture.h"
#include "tests/devices/PtyPair.h"
#include "tests/common/ScopedEnvironment.h"

namespace kvtrack::testing {
namespace {

// Five fixes 10 s apart, each as RMC and GGA with correct checksums.
std::string nmeaTrack() {
  std::string out;
  auto sentence = [&](const std::string& body) {
    unsigned sum = 0;
    for (char c : body) sum ^= static_cast<unsigned char>(c);
    out += fmt::format("${}*{:02X}\r\n", body, sum);
  };
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

TEST_F(DeviceCommandsTest, DownloadImportsTheTracksIntoTheLibrary) {
  scratch.write("dev/ttyUSB0", nmeaTrack());
  const std::string out = ok("download --type nmea --device ttyUSB0 --into Logger");
  EXPECT_NE(out.find("Downloaded from ttyUSB0: 1 tracks added"), std::string::npos) << out;
  EXPECT_NE(lineWith(out, "(5 points)").find("Logger/"), std::string::npos) << out;
  EXPECT_NE(lineWith(ok("tree"), "Logger"), "");
}

TEST_F(DeviceCommandsTest, FailedDownloadSaysSoAndAddsNothing) {
  const WayfolioRun result = run("download --type nmea --device ttyUSB7");
  EXPECT_EQ(result.status, 1);
  EXPECT_NE(result.err.find("wayfolio: error: the download from ttyUSB7 failed (status 1): gpsbabel: "),
            std::string::npos)
      << result.err;
  EXPECT_EQ(lineWith(ok("ls"), "Track"), "");
}

TEST_F(DeviceCommandsTest, EraseAsksFirstAndNoLeavesTheLoggerAlone) {
  const std::string logger = scratch.write("dev/ttyUSB0", nmeaTrack());
  const std::string answer = scratch.write("answer.txt", "n\n");
  const WayfolioRun result = run("erase --type nmea --device ttyUSB0 < " + word(answer));
  EXPECT_EQ(result.status, 0);
  EXPECT_NE(result.err.find("Erase all tracks on ttyUSB0? [y/N] "), std::string::npos);
  EXPECT_NE(result.out.find("Nothing erased"), std::string::npos);
  EXPECT_EQ(ScratchFolder::read(logger), nmeaTrack());

  // No answer at all counts as no.
  const WayfolioRun silent = run("erase --type nmea --device ttyUSB0 < /dev/null");
  EXPECT_NE(silent.out.find("Nothing erased"), std::string::npos);
}

TEST_F(DeviceCommandsTest, EraseWithYesReachesTheBridge) {
  scratch.write("dev/ttyUSB0", nmeaTrack());
  // gpsbabel cannot erase an NMEA stream: the bridge's refusal comes back.
  const WayfolioRun result = run("erase --yes --type nmea --device ttyUSB0 < /dev/null");
  EXPECT_EQ(result.err.find("[y/N]"), std::string::npos);
  EXPECT_EQ(result.status, 1);
  EXPECT_NE(result.err.find("the erase of ttyUSB0 failed (status 254): gpsbabel cannot erase loggers of format nmea"),
            std::string::npos)
      << result.err;
}

// A logger that never answers: Ctrl-C must end the download at once, with
// nothing imported. The pty is held here so the port never hangs up by itself.
TEST_F(DeviceCommandsTest, InterruptCancelsADownloadAndImportsNothing) {
  kvtrack::test::PtyPair logger;
  ASSERT_TRUE(logger.valid());
  std::filesystem::create_symlink(logger.slavePath(), devices() + "ttyUSB0");
  const std::string errors = scratch.file("stderr.txt");
  const std::string command =
      "WAYFOLIO_SETTINGS=" + word(scratch.file("settings.toml")) + " " + word(WAYFOLIO_BINARY) +
      " --library " + word(library()) + " download --type '*BG728' --device ttyUSB0 2>" +
      word(errors) + " & pid=$!; sleep 0.5; while kill -INT $pid 2>/dev/null; do sleep 0.2; done; wait $pid";
  const ShellOutput result = runShellCommandReadingOutput(command);
  const std::string err = ScratchFolder::read(errors);
  EXPECT_EQ(result.status, 1) << err;
  EXPECT_NE(err.find("wayfolio: error: the download from ttyUSB0 was cancelled"), std::string::npos)
      << err;
  EXPECT_EQ(lineWith(ok("ls"), "Track"), "");
}

}  // namespace
}  // namespace kvtrack::testing
