// wayfolio with an emulated GNS 2000 paired in place of BlueZ, for tests of
// the download and erase commands: WAYFOLIO_TEST_GNS_RECORDS is the number of
// records in its log (one fix a minute on 1 May last year from 08:00, and
// from the middle on again from 07:00: two recordings), WAYFOLIO_TEST_GNS_SILENT
// makes the receiver send nothing at all.
#include "kvtrack/devices/gns2000/GNS2000.h"
#include "kvtrack/devices/gpsbabel/GPSBabel.h"
#include "kvtrack/support/RunLoop.h"
#include "tests/cli/EmulatedLoggerSettings.h"
#include "tests/devices/GNS2000Emulator.h"
#include "tools/wayfolio/CommandLine.h"

#include <chrono>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <vector>

using kvtrack::test::GNS2000Emulator;
using kvtrack::testing::environmentNumber;

// The driver keeps its channel to the receiver for the program's life, as
// with a real one; the channel's reader and the emulator's thread end with
// the program and are not joined. ThreadSanitizer reads its defaults here.
extern "C" const char* __tsan_default_options() { return "report_thread_leaks=0"; }

int main(int argc, char** argv) {
  static GNS2000Emulator receiver;  // outlives the bridge's use of it
  std::tm may{};
  may.tm_year = kvtrack::testing::lastYear() - 1900;
  may.tm_mon = 4;
  may.tm_mday = 1;
  may.tm_hour = 8;
  const auto firstOfMayLastYear = static_cast<int32_t>(timegm(&may));
  const int count = environmentNumber("WAYFOLIO_TEST_GNS_RECORDS", 0);
  std::vector<GNS2000Emulator::Record> records;
  for (int i = 0; i < count; ++i) {
    const int minute = i < count / 2 ? i : i - count / 2 - 60;
    records.push_back(GNS2000Emulator::record({.time = firstOfMayLastYear + 60 * minute,
                                               .fixType = 3,
                                               .latitude = 47.0f + static_cast<float>(i) * 1e-3f,
                                               .longitude = 8.5f,
                                               .height = 420}));
  }
  receiver.setRecords(records);
  receiver.setMisbehaviour({.silent = environmentNumber("WAYFOLIO_TEST_GNS_SILENT", 0) != 0});

  auto stack = std::make_shared<kvtrack::test::EmulatedBluetooth>();
  auto device = std::make_shared<kvtrack::test::EmulatedBluetoothDevice>("GNS 2000", "00:1B:C1:0A:0B:0C",
                                                                         kvtrack::RunLoop::main(), &receiver);
  device->setServices({{"GNS GPS", 3}});
  stack->add(device);
  auto driver = std::make_shared<kvtrack::GNS2000>(stack, kvtrack::RunLoop::main());
  driver->setConnectionSettleTime(std::chrono::milliseconds(0));
  kvtrack::GPSBabel::singleton().registerDriver(driver);
  return wayfolio::runCommandLine(argc, argv);
}
