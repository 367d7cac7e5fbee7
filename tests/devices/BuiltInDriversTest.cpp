#include "kvtrack/devices/gpsbabel/GPSBabel.h"
#include "kvtrack/support/Log.h"
#include "tests/common/ScratchFolder.h"

#include <gtest/gtest.h>

namespace kvtrack {
namespace {

// The bridge files the built-in drivers under their names: "*NAME" reaches
// the driver (which here finds no device), an unknown name none.
TEST(BuiltInDrivers, AreFiledUnderTheirNames) {
  testing::ScratchFolder folder;
  GPSBabel& bridge = GPSBabel::singleton();
  const auto device = bridge.device();
  const auto type = bridge.deviceType();
  const auto options = bridge.additionalCommandlineOptions();
  bridge.setDevice("ttyWayfolioMissing0");
  bridge.setAdditionalCommandlineOptions("");
  const std::string gpx = folder.file("out.gpx");
  for (const std::string name : {"BG728", "i-gotUGT800"}) {
    LogCapture log;
    bridge.setDeviceType("*" + name);
    EXPECT_EQ(bridge.importTracksAndWaypointToFile(gpx), 1) << name;
    EXPECT_TRUE(log.contains(name)) << ::testing::PrintToString(log.lines());
  }
  LogCapture log;
  bridge.setDeviceType("*NoSuchLogger");
  EXPECT_EQ(bridge.importTracksAndWaypointToFile(gpx), 1);
  bridge.setDevice(device);
  bridge.setDeviceType(type);
  bridge.setAdditionalCommandlineOptions(options);
}

}  // namespace
}  // namespace kvtrack
