// wayfolio devices, download and erase. Serial loggers: gpsbabel reads NMEA
// from a plain file used as the "port" in a scratch device folder, and the
// built-in GT-800 and BG728 drivers talk to emulated loggers running on a
// thread of this program, on the master side of a pty pair. Loggers found
// without a serial port (the i-gotU on USB, the GNS 2000 on Bluetooth) are
// emulated inside wayfolio-with-igotu and wayfolio-with-gns2000, and looked
// for on this machine's own bus, which here has no such logger.
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <filesystem>
#include <string>
#include <vector>

#include <fmt/format.h>

#include "kvtrack/devices/gns2000/GNS2000.h"
#include "kvtrack/devices/igotu/IGotU.h"
#include "tests/cli/EmulatedLoggerSettings.h"
#include "tests/cli/WayfolioFixture.h"
#include "tests/common/ScopedEnvironment.h"
#include "tests/devices/BG728Emulator.h"
#include "tests/devices/BluetoothdEmulator.h"
#include "tests/devices/GT800Emulator.h"
#include "tests/devices/LoggerWire.h"
#include "tests/devices/PtyPair.h"

namespace kvtrack::testing {
namespace {

using kvtrack::test::BG728Emulator;
using kvtrack::test::BG728Point;
using kvtrack::test::GT800Emulator;
using kvtrack::test::PtyPair;

// Five fixes 10 s apart, each as RMC and GGA with correct checksums.
std::string nmeaTrack() {
  std::string out;
  for (int i = 0; i < 5; ++i) {
    const std::string time = fmt::format("1200{:02d}.00", i * 10),
                      latitude = fmt::format("4807.{:03d}", 38 + i * 10);
    out += test::nmeaSentence(fmt::format("GPRMC,{},A,{},N,01131.000,E,2.4,84.4,230324,,,A", time, latitude),
                              true);
    out += test::nmeaSentence(
        fmt::format("GPGGA,{},{},N,01131.000,E,1,08,0.9,545.4,M,46.9,M,,", time, latitude), true);
  }
  return out;
}

class LoggersTest : public WayfolioTest {
 protected:
  std::string devices() const { return scratch.file("dev") + "/"; }
  void SetUp() override { std::filesystem::create_directories(devices()); }
  std::string port() const { return word(pty.slavePath()); }
  static size_t linesWith(const std::string& output, const std::string& text) {
    const auto all = lines(output);
    return std::count_if(all.begin(), all.end(),
                         [&](const std::string& l) { return l.find(text) != l.npos; });
  }

  ScopedEnvironment deviceFolder{"WAYFOLIO_DEVICE_FOLDER", scratch.file("dev") + "/"};
  PtyPair pty;
};

TEST_F(LoggersTest, DevicesListsCalloutPortsAndMissingPermission) {
  EXPECT_NE(ok("devices").find("No serial ports in " + devices()), std::string::npos);
  scratch.write("dev/ttyUSB0", "");
  scratch.write("dev/ttyACM1", "");
  scratch.write("dev/ttyS0", "");
  ::chmod((devices() + "ttyACM1").c_str(), 0);
  const std::string out = ok("devices");
  EXPECT_EQ(lineWith(out, "ttyUSB0"), devices() + "ttyUSB0");
  EXPECT_EQ(lineWith(out, "ttyS0"), "");
  EXPECT_EQ(lineWith(out, "ttyACM1"),
            devices() + "ttyACM1" +  // root may open anything
                (::geteuid() != 0 ? " (no permission: add yourself to the dialout group)" : ""));
}

TEST_F(LoggersTest, GpsbabelDownloadImportsTheTracksAndEraseAsksFirst) {
  const WayfolioRun failed = run("download --type nmea --device ttyUSB7");
  EXPECT_EQ(failed.status, 1);
  EXPECT_NE(failed.err.find("wayfolio: error: the download from ttyUSB7 failed (status 1): gpsbabel: "),
            std::string::npos)
      << failed.err;
  EXPECT_EQ(lineWith(ok("ls"), "Track"), "");

  const std::string logger = scratch.write("dev/ttyUSB0", nmeaTrack());
  const std::string out = ok("download --type nmea --device ttyUSB0 --into Logger");
  EXPECT_NE(out.find("Downloaded from ttyUSB0: 1 tracks added"), std::string::npos) << out;
  EXPECT_NE(lineWith(out, "(5 points)").find("Logger/"), std::string::npos) << out;
  EXPECT_NE(lineWith(ok("tree"), "Logger"), "");

  const std::string answer = scratch.write("answer.txt", "n\n");
  for (const std::string& input :
       {word(answer), std::string("/dev/null")}) {  // no answer at all counts as no
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
  EXPECT_NE(result.err.find(
                "the erase of ttyUSB0 failed (status 254): gpsbabel cannot erase loggers of format nmea"),
            std::string::npos)
      << result.err;
}

// Loggers that never answer: Ctrl-C must end the download at once, with
// nothing imported. The pty is held here so the port never hangs up by itself.
TEST_F(LoggersTest, InterruptCancelsADownloadAndImportsNothing) {
  ASSERT_TRUE(pty.valid());
  std::filesystem::create_symlink(pty.slavePath(), devices() + "ttyUSB0");
  const std::vector<std::array<std::string, 3>> loggers{
      {word(WAYFOLIO_BINARY), "--type '*BG728' --device ttyUSB0", "ttyUSB0"},
      {"WAYFOLIO_TEST_IGOTU_RECORDS=400 WAYFOLIO_TEST_IGOTU_SILENT_BLOCK=2 " + word(WAYFOLIO_WITH_IGOTU),
       "--type '*i-gotU'", "the i-gotU"},
      {"WAYFOLIO_TEST_GNS_RECORDS=10 WAYFOLIO_TEST_GNS_SILENT=1 " + word(WAYFOLIO_WITH_GNS2000),
       "--type '*GNS2000'", "the GNS 2000"}};
  for (const auto& [program, type, name] : loggers) {
    const WayfolioRun result = runInterrupted(program, "download " + type);
    EXPECT_EQ(result.status, 1) << result.err;
    EXPECT_NE(result.err.find("wayfolio: error: the download from " + name + " was cancelled"),
              std::string::npos)
        << result.err;
  }
  const std::string listing = ok("ls");
  EXPECT_EQ(lineWith(listing, "Track"), "") << listing;
  EXPECT_EQ(lineWith(listing, "May 1, "), "") << listing;
}

// Two tracks, each opened by a track-start record: three points on 17 May
// last year, two on 18 May, and one beyond the pole, skipped and counted.
TEST_F(LoggersTest, GT800DownloadAddsBothTracksAndEraseClearsThem) {
  ASSERT_TRUE(pty.valid());
  GT800Emulator logger(pty);
  for (int i = 0; i < 6; ++i) {  // in sector 1
    logger.putRecord(i, GT800Emulator::record({.flags = std::uint8_t(i % 3 == 0 ? 0x40 : 0),
                                               .year = lastYear(),
                                               .day = i < 3 ? 17 : 18,
                                               .minute = i % 3,
                                               .latitude = i == 5 ? 950000000 : 481234567 + i * 1000}));
  }
  logger.setRecordCount(6);
  logger.start();
  WayfolioRun result = run("download --type '*i-gotUGT800' --device " + port());
  ASSERT_EQ(result.status, 0) << result.err;
  EXPECT_NE(result.out.find(": 2 tracks added"), std::string::npos) << result.out;
  EXPECT_NE(lineWith(result.out, "(3 points)"), "") << result.out;
  EXPECT_NE(lineWith(result.out, "(2 points)"), "") << result.out;
  EXPECT_NE(lineWith(result.out, "1 points with invalid coordinates skipped"), "") << result.out;
  const std::string listing = ok("ls");
  EXPECT_EQ(lineCount(listing), 3u) << listing;  // a heading and the two tracks
  EXPECT_NE(lineWith(listing, "May 17, "), "") << listing;
  EXPECT_NE(lineWith(listing, "May 18, "), "") << listing;

  result = run("erase --type '*i-gotUGT800' --yes --device " + port());
  logger.stop();
  ASSERT_EQ(result.status, 0) << result.err;
  EXPECT_NE(result.out.find("Erased the tracks on"), std::string::npos) << result.out;
  EXPECT_EQ(logger.erasedSectors(), std::vector<std::size_t>{1});  // which sectors, in what order: GT800Test
}

TEST_F(LoggersTest, BG728DownloadAddsTheTrackAndEraseClearsIt) {
  ASSERT_TRUE(pty.valid());
  const std::vector<BG728Point> points{
      {"13:05:09", "031524", "48.13715400", "11.5754900", "519.30"},
      {"13:05:14", "031524", "48.13730000", "11.5757000", "520.00"},
      {"13:05:19", "031524", "95.00000000", "11.5759000", "520.50"},  // beyond the pole
  };
  // The driver reads up to a line end or 64 bytes; these point answers are
  // exactly 64 bytes long, so both ends of a read come at once.
  for (std::size_t i = 0; i < points.size(); ++i) {
    const BG728Point& p = points[i];
    EXPECT_EQ(BG728Emulator::sentence(fmt::format("BG728,0,17,{},{},{},{},{},{}", i, p.time, p.date,
                                                  p.latitude, p.longitude, p.elevation))
                  .size(),
              64u);
  }
  BG728Emulator logger(pty);
  logger.setPoints(points);
  logger.setTimezone(1);
  logger.start();
  WayfolioRun result = run("download --type '*BG728' --device " + port());
  ASSERT_EQ(result.status, 0) << result.err;
  EXPECT_NE(result.out.find(": 1 tracks added"), std::string::npos) << result.out;
  EXPECT_NE(lineWith(result.out, "(2 points)"), "") << result.out;
  EXPECT_NE(lineWith(result.out, "1 points with invalid coordinates skipped"), "") << result.out;
  const std::string listing = ok("ls");
  EXPECT_EQ(lineCount(listing), 2u) << listing;  // a heading and the track
  EXPECT_NE(lineWith(listing, "Mar 15, 2024"), "") << listing;
  result = run("erase --type '*BG728' --yes --device " + port());
  logger.stop();
  ASSERT_EQ(result.status, 0) << result.err;
  EXPECT_NE(result.out.find("Erased the tracks on"), std::string::npos) << result.out;
  EXPECT_EQ(logger.storedPointCount(), 0u);  // the exchange on the wire: BG728Test
}

TEST_F(LoggersTest, DownloadFindsABuiltInLoggerWithoutADeviceAndEraseAsksIt) {
  const std::string igotu = "WAYFOLIO_TEST_IGOTU_RECORDS=200 " + word(WAYFOLIO_WITH_IGOTU);
  WayfolioRun result = runProgram(igotu, library(), "download --type '*i-gotU' --into Loggers");
  ASSERT_EQ(result.status, 0) << result.err;
  EXPECT_NE(result.out.find("Downloaded from the i-gotU: 1 tracks added"), std::string::npos) << result.out;
  EXPECT_NE(lineWith(result.out, "(199 points)"), "") << result.out;
  EXPECT_NE(lineWith(result.out, "1 points with invalid coordinates skipped"), "") << result.out;
  EXPECT_NE(lineWith(ok("ls Loggers"), "May 1, "), "");
  result = runProgram(igotu, library(), "erase --type '*i-gotU'");
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(result.out, "Nothing erased: wayfolio does not erase i-gotU loggers\n");

  // The GNS 2000's log holds two recordings.
  const std::string gns = "WAYFOLIO_TEST_GNS_RECORDS=40 " + word(WAYFOLIO_WITH_GNS2000);
  result = runProgram(gns, library(), "download --type '*GNS2000' --into Bluetooth");
  ASSERT_EQ(result.status, 0) << result.err;
  EXPECT_NE(result.out.find("Downloaded from the GNS 2000: 2 tracks added"), std::string::npos) << result.out;
  EXPECT_EQ(linesWith(result.out, "(20 points)"), 2u) << result.out;
  EXPECT_NE(lineWith(ok("ls Bluetooth"), "May 1, "), "");
  result = runProgram(gns, library(), "erase --type '*GNS2000' --yes");
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(result.out, "Erased the tracks on the GNS 2000\n");

  const WayfolioRun serial = run("erase --type '*BG728' --yes");
  EXPECT_EQ(serial.status, 1);
  EXPECT_NE(serial.err.find("--device is required for logger type *BG728"), std::string::npos) << serial.err;
}

// This machine's USB and BlueZ, with no logger (or no USB, no daemon, no
// adapter at all): one clear line each, and nothing imported.
TEST_F(LoggersTest, NoBuiltInLoggerOnThisMachineIsSaidPlainly) {
  const auto loggers = IGotU::connectedLoggers();
  const auto receivers = GNS2000::pairedReceivers();
  if ((loggers && !loggers->empty()) || (receivers && !receivers->empty()))
    GTEST_SKIP() << "a logger is connected here";
  WayfolioRun result = run("download --type '*i-gotU'");
  EXPECT_EQ(result.status, 1);
  const std::string usb = loggers ? "no USB device 0df7:0b80 is connected" : "USB cannot be used here";
  EXPECT_NE(result.err.find("wayfolio: error: the download from the i-gotU failed: " + usb),
            std::string::npos)
      << result.err;

  result = run("download --type '*GNS2000'");
  EXPECT_EQ(result.status, 1);
  const std::string bluez =
      receivers ? std::string("no paired Bluetooth device is called \"GNS 2000\"") : receivers.reason();
  EXPECT_NE(
      result.err.find("wayfolio: error: the download from the GNS 2000 failed: No GNS 2000 found: " + bluez),
      std::string::npos)
      << result.err;
  EXPECT_EQ(lineCount(result.err), 2u) << result.err;  // what it does, and why it failed
  EXPECT_EQ(lineWith(ok("ls"), "Track"), "");

  result = run("erase --type '*GNS2000' --device 'My GNS' --yes");
  EXPECT_EQ(result.status, 1);
  EXPECT_NE(result.err.find("wayfolio: error: the erase of My GNS failed: No GNS 2000 found"),
            std::string::npos)
      << result.err;

  const std::string devices = ok("devices");
  if (loggers) {
    EXPECT_EQ(lineWith(devices, "i-gotU"), "") << devices;
  } else {
    EXPECT_NE(lineWith(devices, "i-gotU loggers on USB cannot be looked for: " + usb), "") << devices;
  }
  EXPECT_EQ(lineWith(devices, "Bluetooth"),
            receivers ? "" : "GNS receivers on Bluetooth cannot be looked for: " + receivers.reason())
      << devices;
}

// BlueZ on a private bus with one receiver paired: devices lists it, and a
// download finds it and says why it cannot reach it without an adapter.
TEST_F(LoggersTest, PairedReceiverIsListedAndLookedFor) {
  test::PrivateBus bus(scratch.file(""));
  if (!bus.running()) GTEST_SKIP() << "dbus-daemon cannot be started here";
  test::BluetoothdEmulator bluetoothd(
      bus.address(), true,
      {{"/org/bluez/hci0/dev_00_1B_C1_0A_0B_0C", "00:1B:C1:0A:0B:0C", "GNS 2000", true, true},
       {"/org/bluez/hci0/dev_00_11_22_33_44_55", "00:11:22:33:44:55", "Headset", true, false}});
  ASSERT_TRUE(bluetoothd.started());
  const std::string onBus = "DBUS_SYSTEM_BUS_ADDRESS=" + word(bus.address()) + " " + word(WAYFOLIO_BINARY);
  const WayfolioRun devices = runProgram(onBus, library(), "devices");
  EXPECT_EQ(devices.status, 0) << devices.err;
  EXPECT_EQ(lineWith(devices.out, "Bluetooth"), "GNS 2000 00:1B:C1:0A:0B:0C (Bluetooth, paired, connected)")
      << devices.out;
  EXPECT_EQ(lineWith(devices.out, "Headset"), "");
  const WayfolioRun download =
      runProgram(onBus, library(), "download --type '*GNS2000' --device 00:1b:c1:0a:0b:0c");
  EXPECT_EQ(download.status, 1);
  EXPECT_NE(
      download.err.find("wayfolio: error: the download from 00:1b:c1:0a:0b:0c failed: cannot connect to "
                        "00:1B:C1:0A:0B:0C: "),
      std::string::npos)
      << download.err;
  EXPECT_EQ(bluetoothd.disconnected(), std::vector<std::string>{"00:1B:C1:0A:0B:0C"});
}

}  // namespace
}  // namespace kvtrack::testing
