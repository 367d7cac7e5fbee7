// The BlueZ layer against a private D-Bus daemon (dbus-daemon) with a
// stand-in for bluetoothd.
#include "kvtrack/devices/bluetooth/BlueZ.h"
#include "kvtrack/devices/gns2000/GNS2000.h"
#include "tests/common/ScopedEnvironment.h"
#include "tests/common/ScratchFolder.h"
#include "tests/devices/BluetoothdEmulator.h"

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

namespace kvtrack {
namespace {

using namespace std::chrono_literals;

using test::BluetoothdEmulator;
using test::PrivateBus;

// One fixture for the lot: starting dbus-daemon is the slow part.
TEST(BlueZTest, PairedDevicesComeFromBluetoothdAndTheDriverFindsTheReceiver) {
  kvtrack::testing::ScratchFolder scratch;
  PrivateBus bus{scratch.file("")};
  if (!bus.running()) GTEST_SKIP() << "dbus-daemon cannot be started here";
  kvtrack::testing::ScopedEnvironment systemBus{"DBUS_SYSTEM_BUS_ADDRESS", bus.address()};
  RunLoop loop;
  BlueZStack stack(loop);
  EXPECT_EQ(stack.pairedDevices().reason(), "BlueZ is not running (no bluetoothd on the system D-Bus)");
  {
    BluetoothdEmulator noAdapter(bus.address(), false, {});
    ASSERT_TRUE(noAdapter.started());
    EXPECT_EQ(stack.pairedDevices().reason(), "this machine has no Bluetooth adapter");
  }
  BluetoothdEmulator daemon(
      bus.address(), true,
      {{"/org/bluez/hci0/dev_00_1B_C1_0A_0B_0C", "00:1B:C1:0A:0B:0C", "GNS 2000", true, true},
       {"/org/bluez/hci0/dev_00_11_22_33_44_55", "00:11:22:33:44:55", "Headset", false},
       {"/org/bluez/hci0/dev_00_1B_C1_00_00_07", "00:1B:C1:00:00:07", "GNS 2000 Plus"}});
  ASSERT_TRUE(daemon.started());
  auto devices = stack.pairedDevices();
  ASSERT_TRUE(devices) << devices.reason();
  ASSERT_EQ(devices->size(), 2u);  // the headset is not paired
  auto& receiver = *devices->front();
  EXPECT_EQ(receiver.name(), "GNS 2000");
  EXPECT_EQ(receiver.addressString(), "00:1B:C1:0A:0B:0C");
  EXPECT_TRUE(receiver.isConnected());
  auto receivers = GNS2000::pairedReceivers(stack);
  ASSERT_TRUE(receivers);
  ASSERT_EQ(receivers->size(), 2u);
  EXPECT_EQ(receivers->back().name, "GNS 2000 Plus");
  EXPECT_FALSE(receivers->back().connected);

  // The driver drops the receiver's old connection first; this machine's
  // kernel then cannot page it.
  std::thread looping([&] { loop.run(); });
  GNS2000 driver(std::make_shared<BlueZStack>(loop), loop);
  driver.setConnectionSettleTime(0ms);
  EXPECT_FALSE(driver.importTracksFromDevice("", {}));
  loop.stop();
  looping.join();
  EXPECT_EQ(driver.lastStatus().reason().rfind("cannot connect to 00:1B:C1:0A:0B:0C: ", 0), 0u)
      << driver.lastStatus().reason();
  EXPECT_EQ(daemon.disconnected(), std::vector<std::string>{"00:1B:C1:0A:0B:0C"});
  EXPECT_FALSE(receiver.isConnected());
}

}  // namespace
}  // namespace kvtrack
