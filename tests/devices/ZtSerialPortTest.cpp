// The serial port on real pseudo-terminal pairs: the test plays the logger on
// the master side, the port under test opens the slave.

#include "kvtrack/devices/serial/ZtSerialPort.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <algorithm>
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
  auto line = port.readUpToChar('\n', ZtStringEncoding::ASCII, &error);
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

TEST_F(ZtSerialPortTest, CloseFromAnotherThreadEndsABlockedRead) {
  LogCapture log;
  port.setReadTimeout(30.0);
  std::thread host([&] {
    std::this_thread::sleep_for(50ms);
    port.close();
  });
  ZtSerialError error;
  EXPECT_FALSE(port.readBytes(10, &error));
  host.join();
  EXPECT_EQ(error.code, ZtSerialErrorFatal);
  EXPECT_FALSE(port.isOpen());
  EXPECT_TRUE(log.contains("serial port: read ended by close"));
  // The node is free again and opens as before.
  ASSERT_TRUE(port.open());
  pty.send("ok");
  EXPECT_EQ(text(port.readBytes(2, &error)), "ok");
}

TEST_F(ZtSerialPortTest, TextIsReadAndWrittenInTheEncodingAsked) {
  ZtSerialError error;
  pty.send("Z\xfcrich\n");
  EXPECT_EQ(port.readUpToChar('\n', ZtStringEncoding::ISOLatin1, &error), "Z\xc3\xbcrich\n");
  EXPECT_EQ(error.endCode, ZtSerialEndStopChar);

  // Not ASCII: no text, but the read itself went as usual.
  pty.send("Z\xfcrich");
  EXPECT_FALSE(port.readBytes(6, ZtStringEncoding::ASCII, &error));
  EXPECT_EQ(error.code, ZtSerialErrorNone);
  EXPECT_EQ(error.bytesRead, 6u);
  pty.send("\x8a");  // a-umlaut in Mac OS Roman
  EXPECT_EQ(port.readBytesUpToChar(1, '\n', ZtStringEncoding::MacRoman, &error), "\xc3\xa4");

  EXPECT_TRUE(port.writeString("K\xc3\xb6ln", ZtStringEncoding::ISOLatin1, &error));
  EXPECT_EQ(pty.receive(), "K\xf6ln");
  EXPECT_FALSE(port.writeString("K\xc3\xb6ln", ZtStringEncoding::ASCII, &error));
  EXPECT_EQ(error.code, ZtSerialErrorNothingToWrite);
  EXPECT_FALSE(port.writeString("\xff\xfe", ZtStringEncoding::UTF8, &error));  // not UTF-8 to begin with
  EXPECT_EQ(pty.receive(100), "");
  pty.send("$PMTK\r\n");
  port.setReadTimeout(0.2);
  EXPECT_EQ(port.readString(&error), "$PMTK\r\n");
}

TEST_F(ZtSerialPortTest, OneOwnerAtATime) {
  EXPECT_TRUE(port.available());
  EXPECT_FALSE(port.owner());
  EXPECT_TRUE(port.obtainBy("download"));
  EXPECT_FALSE(port.available());
  EXPECT_FALSE(port.obtainBy("erase"));
  EXPECT_TRUE(port.obtainBy("download"));  // the holder asking again
  EXPECT_EQ(port.owner(), "download");
  port.free();
  EXPECT_TRUE(port.available());
  EXPECT_TRUE(port.obtainBy("erase"));
  EXPECT_EQ(port.owner(), "erase");
}

// Collects what a port's background threads report, for a test to wait on.
class RecordingDelegate : public ZtSerialPortDelegate {
 public:
  void serialPortReadData(ZtSerialPort&, const std::vector<std::uint8_t>& data) override {
    std::lock_guard guard(lock_);
    received_.append(data.begin(), data.end());
    changed_.notify_all();
  }
  void serialPortReadEnded(ZtSerialPort&, const ZtSerialError& error) override {
    std::lock_guard guard(lock_);
    readEnd_ = error;
    changed_.notify_all();
  }
  void serialPortWriteProgress(ZtSerialPort& port, std::uint64_t written, std::uint64_t total) override {
    std::lock_guard guard(lock_);
    progress_.push_back(written);
    total_ = total;
    if (stopWritingAfter_ && written >= *stopWritingAfter_) port.stopWriteInBackground();
  }
  void serialPortWriteEnded(ZtSerialPort&, const ZtSerialError& error) override {
    std::lock_guard guard(lock_);
    writeEnd_ = error;
    changed_.notify_all();
  }

  std::string receivedWhenAtLeast(std::size_t count) {
    std::unique_lock guard(lock_);
    changed_.wait_for(guard, 10s, [&] { return received_.size() >= count; });
    return received_;
  }
  std::optional<ZtSerialError> readEnd() {
    std::unique_lock guard(lock_);
    changed_.wait_for(guard, 10s, [&] { return readEnd_.has_value(); });
    return std::exchange(readEnd_, std::nullopt);
  }
  std::optional<ZtSerialError> writeEnd() {
    std::unique_lock guard(lock_);
    changed_.wait_for(guard, 10s, [&] { return writeEnd_.has_value(); });
    return writeEnd_;
  }
  std::vector<std::uint64_t> progress() {
    std::lock_guard guard(lock_);
    return progress_;
  }
  std::uint64_t total() {
    std::lock_guard guard(lock_);
    return total_;
  }
  void stopWritingAfter(std::uint64_t bytes) {
    std::lock_guard guard(lock_);
    stopWritingAfter_ = bytes;
  }

 private:
  std::mutex lock_;
  std::condition_variable changed_;
  std::string received_;
  std::optional<ZtSerialError> readEnd_;
  std::optional<ZtSerialError> writeEnd_;
  std::vector<std::uint64_t> progress_;
  std::uint64_t total_ = 0;
  std::optional<std::uint64_t> stopWritingAfter_;
};

TEST_F(ZtSerialPortTest, BackgroundReaderDeliversEveryArrivalToTheDelegate) {
  auto delegate = std::make_shared<RecordingDelegate>();
  port.setDelegate(delegate);
  EXPECT_EQ(port.delegate(), delegate);
  ASSERT_TRUE(port.readDataInBackground());
  EXPECT_TRUE(port.isReadingInBackground());
  EXPECT_FALSE(port.readDataInBackground());  // one reader at a time
  pty.send("$GPRMC,1");
  std::this_thread::sleep_for(30ms);
  pty.send("23*00\r\n");
  EXPECT_EQ(delegate->receivedWhenAtLeast(15), "$GPRMC,123*00\r\n");
  port.stopReadInBackground();
  EXPECT_FALSE(port.isReadingInBackground());
  auto stopped = delegate->readEnd();
  ASSERT_TRUE(stopped);
  EXPECT_EQ(stopped->code, ZtSerialErrorNone);
  EXPECT_EQ(stopped->bytesRead, 15u);

  // Bytes that come while no reader runs wait for a plain read.
  pty.send("xy");
  ZtSerialError error;
  EXPECT_EQ(text(port.readBytes(2, &error)), "xy");

  // A hang-up of the far side ends the reader with code 99.
  ASSERT_TRUE(port.readDataInBackground());
  pty.closeSlave();
  pty.closeMaster();
  auto failed = delegate->readEnd();
  ASSERT_TRUE(failed);
  EXPECT_EQ(failed->code, ZtSerialErrorFatal);
  EXPECT_FALSE(port.isReadingInBackground());
}

TEST_F(ZtSerialPortTest, CloseStopsTheBackgroundReader) {
  auto delegate = std::make_shared<RecordingDelegate>();
  port.setDelegate(delegate);
  ASSERT_TRUE(port.readDataInBackground());
  port.close();
  auto ended = delegate->readEnd();
  ASSERT_TRUE(ended);
  EXPECT_EQ(ended->code, ZtSerialErrorNone);
  EXPECT_FALSE(port.isReadingInBackground());
  EXPECT_FALSE(port.readDataInBackground());  // not while closed
}

TEST_F(ZtSerialPortTest, BackgroundWriterReportsProgressUntilEverythingIsOut) {
  auto delegate = std::make_shared<RecordingDelegate>();
  port.setDelegate(delegate);
  std::string block(1000, 'x');
  for (std::size_t i = 0; i < block.size(); ++i) block[i] = static_cast<char>('a' + i % 26);
  ASSERT_TRUE(port.writeDataInBackground(ZtSerialPort::Data(block.begin(), block.end())));
  EXPECT_FALSE(port.writeDataInBackground({1, 2, 3}));  // one writer at a time
  auto ended = delegate->writeEnd();
  ASSERT_TRUE(ended);
  EXPECT_EQ(ended->code, ZtSerialErrorNone);
  EXPECT_EQ(ended->bytesWritten, 1000u);
  std::string arrived;
  while (arrived.size() < block.size()) {
    std::string more = pty.receive();
    if (more.empty()) break;
    arrived += more;
  }
  EXPECT_EQ(arrived, block);
  const auto progress = delegate->progress();
  ASSERT_GE(progress.size(), 2u);  // it went out piece by piece
  EXPECT_TRUE(std::is_sorted(progress.begin(), progress.end()));
  EXPECT_EQ(progress.back(), 1000u);
  EXPECT_EQ(delegate->total(), 1000u);
  EXPECT_FALSE(port.writeDataInBackground({}));  // nothing to write
}

TEST_F(ZtSerialPortTest, StoppedBackgroundWriterSaysHowFarItCame) {
  auto delegate = std::make_shared<RecordingDelegate>();
  port.setDelegate(delegate);
  delegate->stopWritingAfter(100);
  ASSERT_TRUE(port.writeDataInBackground(ZtSerialPort::Data(1000, 'z')));
  auto ended = delegate->writeEnd();
  ASSERT_TRUE(ended);
  EXPECT_EQ(ended->code, ZtSerialErrorShortWrite);
  EXPECT_GE(ended->bytesWritten, 100u);
  EXPECT_LT(ended->bytesWritten, 1000u);
  EXPECT_FALSE(port.isWritingInBackground());
  std::string arrived;
  while (arrived.size() < ended->bytesWritten) {
    std::string more = pty.receive();
    if (more.empty()) break;
    arrived += more;
  }
  EXPECT_EQ(arrived, std::string(ended->bytesWritten, 'z'));
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

TEST_F(ZtSerialPortListTest, EnumeratorsWalkTheListByIndex) {
  link("ttyUSB0");
  link("ttyACM3");
  auto& list = ZtSerialPortList::sharedPortList();
  list.refresh();
  auto all = list.portEnumerator();
  auto first = all.nextObject();
  ASSERT_TRUE(first);
  EXPECT_EQ(first->name(), "ttyACM3");
  const auto rest = all.allObjects();
  ASSERT_EQ(rest.size(), 1u);
  EXPECT_EQ(rest[0], list.portByPath(devices.file("ttyUSB0")));
  EXPECT_FALSE(all.nextObject());

  // The live enumerator sees the list shrink under it; the typed one keeps its ports.
  auto live = list.portEnumerator();
  auto typed = list.portEnumeratorForSerialPortsOfType("tty");
  EXPECT_TRUE(list.portEnumeratorForSerialPortsOfType("IOModemSerialStream").allObjects().empty());
  std::filesystem::remove(devices.file("ttyUSB0"));
  std::filesystem::remove(devices.file("ttyACM3"));
  list.refresh();
  EXPECT_FALSE(live.nextObject());
  EXPECT_EQ(typed.allObjects().size(), 2u);
}

// Waits for the list's announcements and keeps what they carried.
class PortListObserver {
 public:
  PortListObserver() {
    auto& center = NotificationCenter::defaultCenter();
    addToken_ = center.addObserver(ZtSerialPortListDidAddPortsNotification,
                                   [this](const Notification& n) { keep(n, added_); });
    removeToken_ = center.addObserver(ZtSerialPortListDidRemovePortsNotification,
                                      [this](const Notification& n) { keep(n, removed_); });
  }
  std::optional<ZtSerialPortListChange> added() { return await(added_); }
  std::optional<ZtSerialPortListChange> removed() { return await(removed_); }

 private:
  void keep(const Notification& n, std::optional<ZtSerialPortListChange>& into) {
    std::lock_guard guard(lock_);
    if (auto change = n.objectAs<ZtSerialPortListChange>()) into = *change;
    changed_.notify_all();
  }
  std::optional<ZtSerialPortListChange> await(std::optional<ZtSerialPortListChange>& what) {
    std::unique_lock guard(lock_);
    changed_.wait_for(guard, 10s, [&] { return what.has_value(); });
    return what;
  }
  std::mutex lock_;
  std::condition_variable changed_;
  std::optional<ZtSerialPortListChange> added_, removed_;
  ObserverToken addToken_, removeToken_;
};

TEST_F(ZtSerialPortListTest, AnnouncesPortsThatComeAndGo) {
  auto& list = ZtSerialPortList::sharedPortList();
  list.refresh();
  EXPECT_EQ(list.count(), 0u);
  PortListObserver observer;
  ASSERT_TRUE(list.startMonitoring());
  EXPECT_TRUE(list.isMonitoring());
  link("ttyUSB1");
  const auto added = observer.added();
  ASSERT_TRUE(added);
  ASSERT_EQ(added->size(), 1u);
  ASSERT_TRUE(added->count(ZtSerialPortListAddedPorts));
  const auto& ports = added->at(ZtSerialPortListAddedPorts);
  ASSERT_EQ(ports.size(), 1u);
  EXPECT_EQ(ports[0]->bsdPath(), devices.file("ttyUSB1"));
  EXPECT_EQ(ports[0], list.portByPath(devices.file("ttyUSB1")));  // the list's own object
  EXPECT_TRUE(ports[0]->open());  // and a port like any other
  ports[0]->close();

  std::filesystem::remove(devices.file("ttyUSB1"));
  const auto removed = observer.removed();
  ASSERT_TRUE(removed);
  ASSERT_EQ(removed->size(), 1u);
  ASSERT_TRUE(removed->count(ZtSerialPortListRemovedPorts));
  EXPECT_EQ(removed->at(ZtSerialPortListRemovedPorts), ports);
  EXPECT_EQ(list.count(), 0u);
  list.stopMonitoring();
  EXPECT_FALSE(list.isMonitoring());
  list.stopMonitoring();  // harmless twice
}

}  // namespace
}  // namespace kvtrack
