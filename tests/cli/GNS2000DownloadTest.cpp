// wayfolio download, erase and devices with the GNS 2000: through an
// emulated receiver (wayfolio-with-gns2000) and against this machine's own
// Bluetooth, which here has no BlueZ daemon or no adapter.

#include <string>

#include "kvtrack/devices/gns2000/GNS2000.h"
#include "tests/cli/WayfolioFixture.h"
#include "tests/devices/BluetoothdEmulator.h"

namespace kvtrack::testing {
namespace {

class GNS2000DownloadTest : public WayfolioTest {
 protected:
  WayfolioRun runWithReceiver(const std::string& environment, const std::string& arguments) const {
    return runProgram(environment + " " + word(WAYFOLIO_WITH_GNS2000), library(), arguments);
  }
};

TEST_F(GNS2000DownloadTest, DownloadSplitsTheLogIntoItsRecordings) {
  const WayfolioRun result =
      runWithReceiver("WAYFOLIO_TEST_GNS_RECORDS=40", "download --type '*GNS2000' --into Bluetooth");
  ASSERT_EQ(result.status, 0) << result.err;
  EXPECT_NE(result.out.find("Downloaded from the GNS 2000: 2 tracks added"), std::string::npos)
      << result.out;
  size_t halves = 0;
  for (size_t at = result.out.find("(20 points)"); at != std::string::npos;
       at = result.out.find("(20 points)", at + 1)) {
    ++halves;
  }
  EXPECT_EQ(halves, 2u) << result.out;
  EXPECT_NE(lineWith(ok("ls Bluetooth"), "May 1, "), "");

  const WayfolioRun erased = runWithReceiver("WAYFOLIO_TEST_GNS_RECORDS=5", "erase --type '*GNS2000' --yes");
  EXPECT_EQ(erased.status, 0) << erased.err;
  EXPECT_EQ(erased.out, "Erased the tracks on the GNS 2000\n");
}

// A receiver that never speaks is waited for until Ctrl-C; then nothing is imported.
TEST_F(GNS2000DownloadTest, InterruptEndsTheWaitAndImportsNothing) {
  const std::string errors = scratch.file("stderr.txt");
  const std::string command =
      "WAYFOLIO_TEST_GNS_RECORDS=10 WAYFOLIO_TEST_GNS_SILENT=1 WAYFOLIO_SETTINGS=" +
      word(scratch.file("settings.toml")) + " " + word(WAYFOLIO_WITH_GNS2000) + " --library " +
      word(library()) + " download --type '*GNS2000' 2>" + word(errors) +
      " & pid=$!; sleep 1; while kill -INT $pid 2>/dev/null; do sleep 0.2; done; wait $pid";
  const ShellOutput result = runShellCommandReadingOutput(command);
  const std::string err = ScratchFolder::read(errors);
  EXPECT_EQ(result.status, 1) << err;
  EXPECT_NE(err.find("wayfolio: error: the download from the GNS 2000 was cancelled"),
            std::string::npos)
      << err;
  EXPECT_EQ(lineWith(ok("ls"), "May 1, "), "");
}

// This machine's BlueZ: without a daemon or an adapter, one clear line.
TEST_F(GNS2000DownloadTest, NoReceiverIsSaidPlainly) {
  const auto receivers = GNS2000::pairedReceivers();
  if (receivers && !receivers->empty()) GTEST_SKIP() << "a GNS receiver is paired here";
  const WayfolioRun result = run("download --type '*GNS2000'");
  EXPECT_EQ(result.status, 1);
  EXPECT_NE(result.err.find("wayfolio: error: the download from the GNS 2000 failed: No GNS 2000 found: " +
                            (receivers ? std::string("no paired Bluetooth device is called \"GNS 2000\"")
                                       : receivers.reason())),
            std::string::npos)
      << result.err;
  EXPECT_EQ(lineCount(result.err), 2u) << result.err;  // what it does, and why it failed
  EXPECT_EQ(lineWith(ok("ls"), "Track"), "");

  const WayfolioRun erase = run("erase --type '*GNS2000' --device 'My GNS' --yes");
  EXPECT_EQ(erase.status, 1);
  EXPECT_NE(erase.err.find("wayfolio: error: the erase of My GNS failed: No GNS 2000 found"),
            std::string::npos)
      << erase.err;

  const std::string devices = ok("devices");
  if (!receivers) {
    EXPECT_EQ(lineWith(devices, "GNS receivers on Bluetooth cannot be looked for: "),
              "GNS receivers on Bluetooth cannot be looked for: " + receivers.reason())
        << devices;
  } else {
    EXPECT_EQ(lineWith(devices, "Bluetooth"), "") << devices;
  }
}

// BlueZ on a private bus with one receiver paired: devices lists it, and a
// download finds it and says why it cannot reach it without an adapter.
TEST_F(GNS2000DownloadTest, PairedReceiverIsListedAndLookedFor) {
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
