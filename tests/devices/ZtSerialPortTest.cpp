// The serial port on real pseudo-terminal pairs: the test plays the logger on
// the master side, the port under test opens the slave.

#include "kvtrack/devices/serial/ZtSerialPort.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <mutex>
#include <string>
#include <thread>

#include "kvtrack/devices/serial/DownloadCancel.h"
#include "kvtrack/devices/serial/ZtSerialPortList.h"
#include "kvtrack/support/FileHandling.h"
#include "kvtrack/support/NotificationCenter.h"
#include "tests/common/ScratchFolder.h"
#include "kvtrack/support/Log.h"
#include "tests/devices/PtyPair.h"

namespace kvtrack {
namespace {

using test::PtyPair;
using namespace std::chrono_literals;

std::string text(const std::optional<ZtSerialPort::Data>& data) {
  return data ? std::string(data->begin(), data->end()) : std::string("<nothing>");
}

class ZtSerialPortTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(pty.valid());
    ASSERT_TRUE(port.open());
    ASSERT_TRUE(port.makeRaw());
  }
  PtyPair pty;
  ZtSerialPort port{pty.slavePath(), "pty", "tty"};
};

TEST_F(ZtSerialPortTest, OpensAndClosesAndReportsItsPath) {
  EXPECT_TRUE(port.isOpen());
  EXPECT_EQ(port.bsdPath(), pty.slavePath());
  port.close();
  EXPECT_FALSE(port.isOpen());
  port.close();  // harmless twice
  ZtSerialError error;
  EXPECT_FALSE(port.readBytes(1, &error));
  EXPECT_EQ(error.code, ZtSerialErrorFatal);
}

TEST(ZtSerialPortOpen, MissingNodeFailsWithALogLine) {
  LogCapture log;
  ZtSerialPort port("/nonexistent/ttyUSB9", "ttyUSB9", "tty");
  EXPECT_FALSE(port.open());
  EXPECT_FALSE(port.isOpen());
  EXPECT_TRUE(log.contains("cannot open /nonexistent/ttyUSB9"));
}

TEST_F(ZtSerialPortTest, APortInUseIsReportedBusy) {
  LogCapture log;
  ZtSerialPort second(pty.slavePath(), "second", "tty");
  EXPECT_FALSE(second.open());
  EXPECT_TRUE(log.contains("is busy"));
  port.close();
  EXPECT_TRUE(second.open());  // free again once the first lets go
}

TEST_F(ZtSerialPortTest, ReadsExactCountAcrossSeveralWrites) {
  std::thread logger([&] {
    pty.send("abc");
    std::this_thread::sleep_for(50ms);
    pty.send("def");
  });
  port.setReadTimeout(5.0);
  ZtSerialError error;
  auto data = port.readBytes(6, &error);
  logger.join();
  EXPECT_EQ(text(data), "abcdef");
  EXPECT_EQ(error.code, ZtSerialErrorNone);
  EXPECT_EQ(error.endCode, ZtSerialEndExactCount);
  EXPECT_EQ(error.bytesRead, 6u);
  EXPECT_EQ(error.domain, "org.wayfolio.Serial.ErrorDomain");
}

TEST_F(ZtSerialPortTest, ReadsNoMoreThanAskedAndKeepsTheRest) {
  pty.send("0123456789");
  ZtSerialError error;
  EXPECT_EQ(text(port.readBytes(4, &error)), "0123");
  EXPECT_EQ(error.endCode, ZtSerialEndExactCount);
  EXPECT_EQ(text(port.readBytes(6, &error)), "456789");
}

TEST_F(ZtSerialPortTest, TimeOutReturnsWhatCameWithCode100) {
  pty.send("abcd");
  port.setReadTimeout(0.3);
  ZtSerialError error;
  auto data = port.readBytes(6, &error);
  EXPECT_EQ(text(data), "abcd");
  EXPECT_EQ(error.code, ZtSerialErrorTimeout);
  EXPECT_EQ(error.bytesRead, 4u);
  EXPECT_EQ(error.endCode, ZtSerialEndNone);
}

TEST_F(ZtSerialPortTest, ZeroTimeOutReadsNothing) {
  pty.send("abcd");
  port.setReadTimeout(0);
  ZtSerialError error;
  EXPECT_FALSE(port.readBytes(2, &error));
  EXPECT_EQ(error.code, ZtSerialErrorTimeout);
  EXPECT_EQ(error.bytesRead, 0u);
}

TEST_F(ZtSerialPortTest, ReadsUpToTheStopCharacter) {
  std::thread logger([&] {
    pty.send("$GPGGA,1");
    std::this_thread::sleep_for(30ms);
    pty.send("23*00\r\n");
  });
  port.setReadTimeout(5.0);
  ZtSerialError error;
  auto line = port.readStringUpToChar('\n', &error);
  logger.join();
  ASSERT_TRUE(line);
  EXPECT_EQ(*line, "$GPGGA,123*00\r\n");
  EXPECT_EQ(error.code, ZtSerialErrorNone);
  EXPECT_EQ(error.endCode, ZtSerialEndStopChar);
}

TEST_F(ZtSerialPortTest, CountEndsAReadBeforeTheStopCharacter) {
  pty.send("abcdef\n");
  ZtSerialError error;
  EXPECT_EQ(text(port.readBytesUpToChar(3, '\n', &error)), "abc");
  EXPECT_EQ(error.endCode, ZtSerialEndExactCount);
}

TEST_F(ZtSerialPortTest, FullBufferGivesCode101) {
  std::string block(ZtSerialPort::kBufferSize + 100, 'x');
  std::thread logger([&] { pty.send(block); });
  port.setReadTimeout(5.0);
  ZtSerialError error;
  auto data = port.readUpToChar('\n', &error);
  logger.join();
  ASSERT_TRUE(data);
  EXPECT_EQ(data->size(), ZtSerialPort::kBufferSize);
  EXPECT_EQ(error.code, ZtSerialErrorBufferFull);
}

TEST_F(ZtSerialPortTest, WritesReachTheFarSide) {
  ZtSerialError error;
  EXPECT_TRUE(port.writeString("PMTK000*32\r\n", &error));
  EXPECT_EQ(error.code, ZtSerialErrorNone);
  EXPECT_EQ(error.bytesWritten, 12u);
  EXPECT_EQ(pty.receive(), "PMTK000*32\r\n");
}

TEST_F(ZtSerialPortTest, EmptyWriteGivesCode200) {
  ZtSerialError error;
  EXPECT_FALSE(port.writeData({}, &error));
  EXPECT_EQ(error.code, ZtSerialErrorNothingToWrite);
}

TEST_F(ZtSerialPortTest, HangUpOfTheFarSideGivesCode99) {
  pty.closeSlave();
  pty.closeMaster();
  LogCapture log;
  ZtSerialError error;
  port.setReadTimeout(2.0);
  EXPECT_FALSE(port.readBytes(4, &error));
  EXPECT_EQ(error.code, ZtSerialErrorFatal);
  EXPECT_TRUE(log.contains("stopped answering"));
}

TEST_F(ZtSerialPortTest, SpeedAppliesAtOnceAndSurvivesACommit) {
  ASSERT_TRUE(port.setSpeed(115200));
  EXPECT_EQ(port.getSpeed(), 115200u);
  port.setParityEven();
  port.setStopBits(2);
  ASSERT_TRUE(port.commitChanges());
  EXPECT_EQ(port.getSpeed(), 115200u);
  EXPECT_EQ(port.options().at("ZtSerialOptionParity"), "Even");

  bool odd = port.setSpeed(250000);
  if (!odd) {
    EXPECT_EQ(port.getSpeed(), 115200u);
    GTEST_SKIP() << "this pseudo-terminal refuses 250000 bit/s";
  }
  EXPECT_EQ(port.getSpeed(), 250000u);
  EXPECT_EQ(port.options().at("ZtSerialOptionSpeed"), "250000");
  port.setStopBits(1);
  ASSERT_TRUE(port.commitChanges());
  EXPECT_EQ(port.getSpeed(), 250000u);
}

// A pseudo-terminal forces 8 data bits and no parity, so the device side is
// checked through the stop bits, which it keeps.
TEST_F(ZtSerialPortTest, SettersChangeOnlyTheWorkingSettingsUntilCommitted) {
  port.setParityOdd();
  port.setDataBits(7);
  port.setStopBits(2);
  EXPECT_TRUE(port.testParityOdd());
  EXPECT_EQ(port.dataBits(), 7);
  EXPECT_EQ(port.stopBits(), 2);
  struct termios device {};
  ASSERT_EQ(::tcgetattr(port.fileDescriptor(), &device), 0);
  EXPECT_FALSE(device.c_cflag & CSTOPB);
  ASSERT_TRUE(port.commitChanges());
  ASSERT_EQ(::tcgetattr(port.fileDescriptor(), &device), 0);
  EXPECT_TRUE(device.c_cflag & CSTOPB);
  EXPECT_EQ(port.options().at("ZtSerialOptionStopBits"), "2");

  port.setParity(7);  // unknown: nothing changes
  port.setStopBits(3);
  port.setDataBits(9);  // anything unknown is 5
  EXPECT_TRUE(port.testParityOdd());
  EXPECT_EQ(port.stopBits(), 2);
  EXPECT_EQ(port.dataBits(), 5);
}

TEST(ZtSerialPortSettings, SettingsFoundAtOpenComeBackAtClose) {
  PtyPair pty;
  ASSERT_TRUE(pty.valid());
  struct termios before {};
  int watcher = ::open(pty.slavePath().c_str(), O_RDWR | O_NOCTTY);
  ASSERT_GE(watcher, 0);
  ASSERT_EQ(::tcgetattr(watcher, &before), 0);
  {
    ZtSerialPort port(pty.slavePath(), "pty", "tty");
    ASSERT_TRUE(port.open());
    port.setParityOdd();
    port.setCanonicalMode(true);
    ASSERT_TRUE(port.commitChanges());
  }
  struct termios after {};
  ASSERT_EQ(::tcgetattr(watcher, &after), 0);
  EXPECT_EQ(after.c_cflag, before.c_cflag);
  EXPECT_EQ(after.c_lflag, before.c_lflag);
  ::close(watcher);
}

// The seam: a select that is interrupted once, and a read that is
// interrupted once and then returns short pieces.
int selectCalls = 0;
int readCalls = 0;
int interruptedSelect(int n, fd_set* r, fd_set* w, fd_set* e, struct timeval* t) {
  if (selectCalls++ == 0) {
    errno = EINTR;
    return -1;
  }
  return ::select(n, r, w, e, t);
}
ssize_t interruptedShortRead(int fd, void* buffer, size_t count) {
  if (readCalls++ == 0) {
    errno = EINTR;
    return -1;
  }
  return ::read(fd, buffer, count < 2 ? count : 2);
}
int writeCalls = 0;
ssize_t interruptedWrite(int fd, const void* buffer, size_t count) {
  if (writeCalls++ == 0) {
    errno = EINTR;
    return -1;
  }
  return ::write(fd, buffer, count - 1);  // and then short
}

TEST_F(ZtSerialPortTest, InterruptedCallsAreRetriedAndShortReadsCollected) {
  selectCalls = readCalls = writeCalls = 0;
  ZtSerialSystemCalls calls;
  calls.select = interruptedSelect;
  calls.read = interruptedShortRead;
  calls.write = interruptedWrite;
  port.setSystemCalls(calls);
  pty.send("abcdef");
  port.setReadTimeout(5.0);
  ZtSerialError error;
  EXPECT_EQ(text(port.readBytes(6, &error)), "abcdef");
  EXPECT_EQ(error.code, ZtSerialErrorNone);
  EXPECT_GE(readCalls, 4);

  EXPECT_FALSE(port.writeString("xyz", &error));
  EXPECT_EQ(error.code, ZtSerialErrorShortWrite);
  EXPECT_EQ(error.bytesWritten, 2u);
}

TEST_F(ZtSerialPortTest, CancelUnblocksAReadFromAnotherThread) {
  LogCapture log;
  port.setReadTimeout(30.0);
  std::thread host([&] {
    std::this_thread::sleep_for(50ms);
    port.cancel();
  });
  ZtSerialError error;
  EXPECT_FALSE(port.readBytes(10, &error));
  host.join();
  EXPECT_EQ(error.code, ZtSerialErrorFatal);
  EXPECT_TRUE(log.contains("serial port: read cancelled"));
  // Later reads end at once too, until the port is opened again.
  pty.send("ab");
  EXPECT_FALSE(port.readBytes(2, &error));
  EXPECT_EQ(error.code, ZtSerialErrorFatal);
  port.close();
  ASSERT_TRUE(port.open());
  EXPECT_EQ(text(port.readBytes(2, &error)), "ab");
}

TEST_F(ZtSerialPortTest, CancellingDownloadsReachesEveryOpenPort) {
  port.setReadTimeout(30.0);
  std::thread host([&] {
    std::this_thread::sleep_for(50ms);
    cancelRunningDownloads();
  });
  ZtSerialError error;
  EXPECT_FALSE(port.readBytes(10, &error));
  host.join();
  EXPECT_EQ(error.code, ZtSerialErrorFatal);
  EXPECT_TRUE(downloadsCancelled());
  // A port opened while cancelled starts cancelled.
  PtyPair other;
  ZtSerialPort late(other.slavePath(), "pty", "tty");
  ASSERT_TRUE(late.open());
  EXPECT_FALSE(late.readBytes(1, &error));
  EXPECT_EQ(error.code, ZtSerialErrorFatal);
  resumeDownloads();
  EXPECT_FALSE(downloadsCancelled());
}

// The port list, pointed at a scratch device folder holding links to ptys.
class ZtSerialPortListTest : public ::testing::Test {
 protected:
  void SetUp() override {
    savedFolder = FileHandling::singleton().deviceFolder();
    FileHandling::singleton().setDeviceFolder(devices.path().string() + "/");
  }
  void TearDown() override {
    ZtSerialPortList::sharedPortList().stopMonitoring();
    FileHandling::singleton().setDeviceFolder(savedFolder);
    ZtSerialPortList::sharedPortList().refresh();
  }
  void link(const std::string& name) {
    std::filesystem::create_symlink(pty.slavePath(), devices.file(name));
  }
  kvtrack::testing::ScratchFolder devices;
  PtyPair pty;
  std::string savedFolder;
};

TEST_F(ZtSerialPortListTest, ListsOnlyCalloutNodesOfTheDeviceFolder) {
  link("ttyUSB0");
  link("ttyACM3");
  link("ttyS0");
  devices.write("console", "");
  auto& list = ZtSerialPortList::sharedPortList();
  list.refresh();
  ASSERT_EQ(list.count(), 2u);
  EXPECT_EQ(list.objectAtIndex(0)->bsdPath(), devices.file("ttyACM3"));
  EXPECT_EQ(list.objectAtIndex(1)->name(), "ttyUSB0");
  EXPECT_FALSE(list.objectAtIndex(2));
  ASSERT_TRUE(list.portByPath(devices.file("ttyUSB0")));
  EXPECT_TRUE(list.objectWithName("ttyACM3"));
  EXPECT_FALSE(list.objectWithName("ttyS0"));
  // A listed port opens like any other.
  auto port = list.portByPath(devices.file("ttyUSB0"));
  EXPECT_TRUE(port->open());
  port->close();
}

TEST_F(ZtSerialPortListTest, AnnouncesPortsThatComeAndGo) {
  auto& list = ZtSerialPortList::sharedPortList();
  list.refresh();
  EXPECT_EQ(list.count(), 0u);
  std::mutex lock;
  std::condition_variable changed;
  std::vector<std::string> added, removed;
  auto addToken = NotificationCenter::defaultCenter().addObserver(
      ZtSerialPortListDidAddPortsNotification, [&](const Notification& n) {
        std::lock_guard guard(lock);
        if (auto paths = n.objectAs<std::vector<std::string>>()) added = *paths;
        changed.notify_all();
      });
  auto removeToken = NotificationCenter::defaultCenter().addObserver(
      ZtSerialPortListDidRemovePortsNotification, [&](const Notification& n) {
        std::lock_guard guard(lock);
        if (auto paths = n.objectAs<std::vector<std::string>>()) removed = *paths;
        changed.notify_all();
      });
  ASSERT_TRUE(list.startMonitoring());
  EXPECT_TRUE(list.isMonitoring());
  link("ttyUSB1");
  {
    std::unique_lock guard(lock);
    changed.wait_for(guard, 10s, [&] { return !added.empty(); });
  }
  EXPECT_EQ(added, std::vector<std::string>{devices.file("ttyUSB1")});
  std::filesystem::remove(devices.file("ttyUSB1"));
  {
    std::unique_lock guard(lock);
    changed.wait_for(guard, 10s, [&] { return !removed.empty(); });
  }
  EXPECT_EQ(removed, std::vector<std::string>{devices.file("ttyUSB1")});
  list.stopMonitoring();
  EXPECT_FALSE(list.isMonitoring());
  list.stopMonitoring();  // harmless twice
}

}  // namespace
}  // namespace kvtrack
