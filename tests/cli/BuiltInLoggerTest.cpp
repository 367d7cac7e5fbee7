// wayfolio download, erase and devices with the loggers found without a
// serial port: the i-gotU on USB and the GNS 2000 on Bluetooth. Each runs
// against an emulated logger (wayfolio-with-igotu, wayfolio-with-gns2000)
// and against this machine's own bus, which here has no such logger.

#include <string>

#include "kvtrack/devices/gns2000/GNS2000.h"
#include "kvtrack/devices/igotu/IGotU.h"
#include "tests/cli/WayfolioFixture.h"
#include "tests/devices/BluetoothdEmulator.h"

namespace kvtrack::testing {
namespace {

using BuiltInLoggerTest = WayfolioTest;

size_t occurrences(const std::string& text, const std::string& what) {
  size_t count = 0;
  for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++count;
  return count;
}

TEST_F(BuiltInLoggerTest, DownloadFindsTheLoggerWithoutADeviceAndEraseAsksIt) {
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
  EXPECT_EQ(occurrences(result.out, "(20 points)"), 2u) << result.out;
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
TEST_F(BuiltInLoggerTest, NoLoggerOnThisMachineIsSaidPlainly) {
  const auto loggers = IGotU::connectedLoggers();
  const auto receivers = GNS2000::pairedReceivers();
  if ((loggers && !loggers->empty()) || (receivers && !receivers->empty()))
    GTEST_SKIP() << "a logger is connected here";
  WayfolioRun result = run("download --type '*i-gotU'");
  EXPECT_EQ(result.status, 1);
  const std::string usb = loggers ? "no USB device 0df7:0b80 is connected" : "USB cannot be used here";
  EXPECT_NE(result.err.find("wayfolio: error: the download from the i-gotU failed: " + usb), std::string::npos)
      << result.err;

  result = run("download --type '*GNS2000'");
  EXPECT_EQ(result.status, 1);
  const std::string bluez =
      receivers ? std::string("no paired Bluetooth device is called \"GNS 2000\"") : receivers.reason();
  EXPECT_NE(result.err.find("wayfolio: error: the download from the GNS 2000 failed: No GNS 2000 found: " + bluez),
            std::string::npos)
      << result.err;
  EXPECT_EQ(lineCount(result.err), 2u) << result.err;  // what it does, and why it failed
  EXPECT_EQ(lineWith(ok("ls"), "Track"), "");

  result = run("erase --type '*GNS2000' --device 'My GNS' --yes");
  EXPECT_EQ(result.status, 1);
  EXPECT_NE(result.err.find("wayfolio: error: the erase of My GNS failed: No GNS 2000 found"), std::string::npos)
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
TEST_F(BuiltInLoggerTest, PairedReceiverIsListedAndLookedFor) {
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

  const WayfolioRun download = runProgram(onBus, library(), "download --type '*GNS2000' --device 00:1b:c1:0a:0b:0c");
  EXPECT_EQ(download.status, 1);
  EXPECT_NE(download.err.find("wayfolio: error: the download from 00:1b:c1:0a:0b:0c failed: cannot connect to "
                              "00:1B:C1:0A:0B:0C: "),
            std::string::npos)
      << download.err;
  EXPECT_EQ(bluetoothd.disconnected(), std::vector<std::string>{"00:1B:C1:0A:0B:0C"});
}

}  // namespace
}  // namespace kvtrack::testing
