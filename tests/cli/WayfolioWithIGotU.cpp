// wayfolio with an emulated i-gotU in place of the USB bus, for tests of the
// download command: WAYFOLIO_TEST_IGOTU_RECORDS is the number of records in
// the logger (one fix a minute on 1 May last year, the last one beyond the
// pole), WAYFOLIO_TEST_IGOTU_SILENT_BLOCK the 0-based block whose read the
// logger never answers.
#include "kvtrack/devices/gpsbabel/GPSBabel.h"
#include "kvtrack/devices/igotu/IGotU.h"
#include "tests/cli/EmulatedLoggerSettings.h"
#include "tests/devices/IGotUEmulator.h"
#include "tools/wayfolio/CommandLine.h"

#include <cstdlib>
#include <ctime>
#include <memory>
#include <vector>

using kvtrack::test::IGotUEmulator;
using kvtrack::testing::environmentNumber;
using kvtrack::testing::lastYear;

int main(int argc, char** argv) {
  static IGotUEmulator logger;  // outlives the bridge's use of it
  const int count = environmentNumber("WAYFOLIO_TEST_IGOTU_RECORDS", 0);
  std::vector<std::vector<std::uint8_t>> records;
  for (int i = 0; i < count; ++i) {
    records.push_back(IGotUEmulator::record({.year = lastYear(),
                                             .month = 5,
                                             .day = 1,
                                             .hour = 8 + i / 60,
                                             .minute = i % 60,
                                             .latitude = i + 1 < count ? 470000000 + i * 1000 : 950000000,
                                             .longitude = 80000000}));
  }
  logger.setRecords(records);
  if (const int block = environmentNumber("WAYFOLIO_TEST_IGOTU_SILENT_BLOCK", -1); block >= 0) {
    logger.setFault(IGotUEmulator::Fault::kSilence, 0x05, block);
  }
  kvtrack::GPSBabel::singleton().registerDriver(std::make_shared<kvtrack::IGotU>(logger.opener()));
  return wayfolio::runCommandLine(argc, argv);
}
