// The BlueZ layer against a private D-Bus daemon (dbus-daemon) with a
// stand-in for bluetoothd: its object manager lists an adapter and devices
// as bluetoothd does, answers the Connected property and Disconnect.
#include "kvtrack/devices/bluetooth/BlueZ.h"
#include "kvtrack/devices/gns2000/GNS2000.h"
#include "tests/common/ScopedEnvironment.h"
#include "tests/common/ScratchFolder.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

extern char** environ;

namespace kvtrack {
namespace {

using namespace std::chrono_literals;

struct FakeDevice {
  std::string path, address, name;
  bool paired = true;
  bool connected = false;
};

// bluetoothd's part: GetManagedObjects, Properties.Get of Connected, Disconnect.
class FakeBluetoothd {
 public:
  FakeBluetoothd(const std::string& address, bool withAdapter, std::vector<FakeDevice> devices)
      : withAdapter_(withAdapter), devices_(std::move(devices)) {
    sd_bus_new(&bus_);
    sd_bus_set_address(bus_, address.c_str());
    sd_bus_set_bus_client(bus_, 1);
    started_ = sd_bus_start(bus_) >= 0 && sd_bus_request_name(bus_, "org.bluez", 0) >= 0 &&
               sd_bus_add_fallback(bus_, nullptr, "/", &FakeBluetoothd::handle, this) >= 0;
    thread_ = std::thread([this] {
      while (!stopping_) {
        if (sd_bus_process(bus_, nullptr) > 0) continue;
        sd_bus_wait(bus_, 20000);
      }
    });
  }
  ~FakeBluetoothd() {
    stopping_ = true;
    thread_.join();
    sd_bus_flush_close_unref(bus_);
  }
  bool started() const { return started_; }
  std::vector<std::string> disconnected() {
    std::lock_guard lock(mutex_);
    return disconnected_;
  }

 private:
  static int handle(sd_bus_message* m, void* self, sd_bus_error*) {
    return static_cast<FakeBluetoothd*>(self)->answer(m);
  }
  int answer(sd_bus_message* m) {
    std::lock_guard lock(mutex_);
    if (sd_bus_message_is_method_call(m, "org.freedesktop.DBus.ObjectManager", "GetManagedObjects")) {
      return managedObjects(m);
    }
    FakeDevice* device = nullptr;
    for (FakeDevice& d : devices_) device = d.path == sd_bus_message_get_path(m) ? &d : device;
    if (device && sd_bus_message_is_method_call(m, "org.freedesktop.DBus.Properties", "Get")) {
      return sd_bus_reply_method_return(m, "v", "b", device->connected ? 1 : 0);
    }
    if (device && sd_bus_message_is_method_call(m, "org.bluez.Device1", "Disconnect")) {
      device->connected = false;
      disconnected_.push_back(device->address);
      return sd_bus_reply_method_return(m, "");
    }
    return 0;
  }
  int managedObjects(sd_bus_message* call) {
    sd_bus_message* reply = nullptr;
    sd_bus_message_new_method_return(call, &reply);
    sd_bus_message_open_container(reply, 'a', "{oa{sa{sv}}}");
    if (withAdapter_) {
      sd_bus_message_append(reply, "{oa{sa{sv}}}", "/org/bluez/hci0", 1, "org.bluez.Adapter1", 1,
                            "Powered", "b", 1);
    }
    for (const FakeDevice& d : devices_) {
      // Properties of other types come first, as bluetoothd sends them.
      sd_bus_message_append(reply, "{oa{sa{sv}}}", d.path.c_str(), 2, "org.freedesktop.DBus.Introspectable", 0,
                            "org.bluez.Device1", 7, "Address", "s", d.address.c_str(), "UUIDs", "as", 1,
                            "00001101-0000-1000-8000-00805f9b34fb", "RSSI", "n", -60, "Name", "s",
                            d.name.c_str(), "Alias", "s", "alias", "Paired", "b", d.paired ? 1 : 0,
                            "Connected", "b", d.connected ? 1 : 0);
    }
    sd_bus_message_close_container(reply);
    const int r = sd_bus_send(nullptr, reply, nullptr);
    sd_bus_message_unref(reply);
    return r < 0 ? r : 1;
  }

  sd_bus* bus_ = nullptr;
  bool started_ = false;
  bool withAdapter_;
  std::mutex mutex_;
  std::vector<FakeDevice> devices_;
  std::vector<std::string> disconnected_;
  std::atomic<bool> stopping_{false};
  std::thread thread_;
};

// A private system bus for the test's life.
class PrivateBus {
 public:
  explicit PrivateBus(const std::string& folder) : socket_(folder + "/system_bus_socket") {
    const std::string config = folder + "/bus.conf";
    std::ofstream(config) << "<busconfig><type>system</type><listen>unix:path=" << socket_
                          << "</listen><auth>EXTERNAL</auth><policy context=\"default\">"
                             "<allow user=\"*\"/><allow own=\"*\"/><allow send_destination=\"*\" eavesdrop=\"true\"/>"
                             "<allow eavesdrop=\"true\"/></policy></busconfig>\n";
    const std::string option = "--config-file=" + config;
    char* arguments[] = {const_cast<char*>("dbus-daemon"), const_cast<char*>("--nofork"),
                         const_cast<char*>(option.c_str()), nullptr};
    if (::posix_spawnp(&pid_, "dbus-daemon", nullptr, nullptr, arguments, environ) != 0) pid_ = -1;
    // The socket appears before the daemon listens on it: ready once a client gets in.
    for (int i = 0; i < 500 && pid_ > 0 && !(ready_ = accepts()); ++i) std::this_thread::sleep_for(10ms);
  }
  ~PrivateBus() {
    if (pid_ <= 0) return;
    ::kill(pid_, SIGTERM);
    ::waitpid(pid_, nullptr, 0);
  }
  bool running() const { return ready_; }
  std::string address() const { return "unix:path=" + socket_; }

 private:
  bool accepts() const {
    if (!std::filesystem::exists(socket_)) return false;
    sd_bus* client = nullptr;
    sd_bus_new(&client);
    sd_bus_set_address(client, address().c_str());
    sd_bus_set_bus_client(client, 1);
    const bool connected = sd_bus_start(client) >= 0;
    sd_bus_flush_close_unref(client);
    return connected;
  }

  std::string socket_;
  pid_t pid_ = -1;
  bool ready_ = false;
};

class BlueZTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!bus.running()) GTEST_SKIP() << "dbus-daemon cannot be started here";
  }
  kvtrack::testing::ScratchFolder scratch;
  PrivateBus bus{scratch.file("")};
  kvtrack::testing::ScopedEnvironment systemBus{"DBUS_SYSTEM_BUS_ADDRESS", bus.address()};
  RunLoop loop;
};

TEST_F(BlueZTest, PairedDevicesComeFromBluetoothd) {
  BlueZStack stack(loop);
  EXPECT_EQ(stack.pairedDevices().reason(), "BlueZ is not running (no bluetoothd on the system D-Bus)");

  FakeBluetoothd daemon(bus.address(), true,
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
  EXPECT_TRUE(receiver.closeConnection());
  EXPECT_EQ(daemon.disconnected(), std::vector<std::string>{"00:1B:C1:0A:0B:0C"});
  EXPECT_FALSE(receiver.isConnected());

  auto receivers = GNS2000::pairedReceivers(stack);
  ASSERT_TRUE(receivers);
  ASSERT_EQ(receivers->size(), 2u);
  EXPECT_EQ(receivers->back().name, "GNS 2000 Plus");
  EXPECT_FALSE(receivers->back().connected);
}

TEST_F(BlueZTest, WithoutAnAdapterNothingIsPaired) {
  FakeBluetoothd daemon(bus.address(), false, {});
  ASSERT_TRUE(daemon.started());
  BlueZStack stack(loop);
  EXPECT_EQ(stack.pairedDevices().reason(), "this machine has no Bluetooth adapter");
}

// The driver finds the receiver through bluetoothd and drops its old
// connection first; this machine's kernel then cannot page it.
TEST_F(BlueZTest, DriverFindsTheReceiverAndReportsWhyItCannotConnect) {
  FakeBluetoothd daemon(bus.address(), true,
                        {{"/org/bluez/hci0/dev_00_1B_C1_0A_0B_0C", "00:1B:C1:0A:0B:0C", "GNS 2000", true, true}});
  ASSERT_TRUE(daemon.started());
  std::thread looping([this] { loop.run(); });
  GNS2000 driver(std::make_shared<BlueZStack>(loop), loop);
  driver.setConnectionSettleTime(0ms);
  EXPECT_FALSE(driver.importTracksFromDevice("", {}));
  loop.stop();
  looping.join();
  EXPECT_EQ(driver.protocolCommand(), GNS2000::kStateFailed);
  EXPECT_EQ(driver.lastStatus().reason().rfind("cannot connect to 00:1B:C1:0A:0B:0C: ", 0), 0u)
      << driver.lastStatus().reason();
  EXPECT_EQ(daemon.disconnected(), std::vector<std::string>{"00:1B:C1:0A:0B:0C"});
}

}  // namespace
}  // namespace kvtrack
