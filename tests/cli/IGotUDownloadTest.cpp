// wayfolio download, devices and erase with the i-gotU: through an emulated
// logger (wayfolio-with-igotu) and against this machine's real USB bus.

#include <string>

#include "kvtrack/devices/igotu/IGotU.h"
#include "tests/cli/WayfolioFixture.h"

namespace kvtrack::testing {
namespace {

class IGotUDownloadTest : public WayfolioTest {
 protected:
  WayfolioRun runWithLogger(int records, const std::string& arguments) const {
    return runProgram("WAYFOLIO_TEST_IGOTU_RECORDS=" + std::to_string(records) + " " +
                          word(WAYFOLIO_WITH_IGOTU),
                      library(), arguments);
  }
};

TEST_F(IGotUDownloadTest, DownloadFindsTheLoggerWithoutADevice) {
  const WayfolioRun result = runWithLogger(200, "download --type '*i-gotU' --into Loggers");
  ASSERT_EQ(result.status, 0) << result.err;
  EXPECT_NE(result.out.find("Downloaded from the i-gotU: 1 tracks added"), std::string::npos)
      << result.out;
  EXPECT_NE(lineWith(result.out, "(199 points)"), "") << result.out;
  EXPECT_NE(lineWith(result.out, "1 points with invalid coordinates skipped"), "") << result.out;
  EXPECT_NE(lineWith(ok("ls Loggers"), "May 1, "), "");
}

// A logger that stops answering is waited for until Ctrl-C; then nothing is imported.
TEST_F(IGotUDownloadTest, InterruptEndsTheWaitAndImportsNothing) {
  const std::string errors = scratch.file("stderr.txt");
  const std::string command =
      "WAYFOLIO_TEST_IGOTU_RECORDS=400 WAYFOLIO_TEST_IGOTU_SILENT_BLOCK=2 WAYFOLIO_SETTINGS=" +
      word(scratch.file("settings.toml")) + " " + word(WAYFOLIO_WITH_IGOTU) + " --library " +
      word(library()) + " download --type '*i-gotU' 2>" + word(errors) +
      " & pid=$!; sleep 1; while kill -INT $pid 2>/dev/null; do sleep 0.2; done; wait $pid";
  const ShellOutput result = runShellCommandReadingOutput(command);
  const std::string err = ScratchFolder::read(errors);
  EXPECT_EQ(result.status, 1) << err;
  EXPECT_NE(err.find("wayfolio: error: the download from the i-gotU was cancelled"),
            std::string::npos)
      << err;
  EXPECT_EQ(lineWith(ok("ls"), "May 1, "), "");
}

TEST_F(IGotUDownloadTest, EraseLeavesTheLoggerAlone) {
  const WayfolioRun result = runWithLogger(10, "erase --type '*i-gotU'");
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(result.out, "Nothing erased: wayfolio does not erase i-gotU loggers\n");
  const WayfolioRun serial = run("erase --type '*BG728' --yes");
  EXPECT_EQ(serial.status, 1);
  EXPECT_NE(serial.err.find("--device is required for logger type *BG728"), std::string::npos)
      << serial.err;
}

// This machine's bus, with no i-gotU on it (or no USB at all).
TEST_F(IGotUDownloadTest, NoLoggerOnTheBusIsSaidPlainly) {
  const auto loggers = IGotU::connectedLoggers();
  if (loggers && !loggers->empty()) GTEST_SKIP() << "an i-gotU is connected";
  const WayfolioRun result = run("download --type '*i-gotU'");
  EXPECT_EQ(result.status, 1);
  const std::string reason = loggers ? "no USB device 0df7:0b80 is connected" : "USB cannot be used here";
  EXPECT_NE(result.err.find("wayfolio: error: the download from the i-gotU failed: " + reason),
            std::string::npos)
      << result.err;
  EXPECT_EQ(lineWith(ok("ls"), "Track"), "");

  const std::string devices = ok("devices");
  if (!loggers) {
    EXPECT_NE(lineWith(devices, "i-gotU loggers on USB cannot be looked for: USB cannot be used here"),
              "")
        << devices;
  } else {
    EXPECT_EQ(lineWith(devices, "i-gotU"), "") << devices;
  }
}

}  // namespace
}  // namespace kvtrack::testing
