// The serial port on real pseudo-terminal pairs: the test plays the logger on
// the master side, the port under test opens the slave.

#include "kvtrack/devices/serial/ZtSerialPort.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>

#include "kvtrack/devices/serial/DownloadCancel.h"
#include "kvtrack/devices/serial/ZtSerialPortList.h"
#include "kvtrack/support/FileHandling.h"
#include "kvtrack/support/NotificationCenter.h"
#include "kvtrack/support/UniqueFd.h"
#include "tests/common/ScratchFolder.h"
#include "tests/devices/PtyPair.h"

namespace kvtrack {
namespace {

using test::PtyPair;
using namespace std::chrono_literals;

std::string text(const std::optional<ZtSerialPort::Data>& data) {
  return data ? std::string(data->begin(), data->end()) : std::string("<nothing>");
}

// Waits up to 10 s for the condition, checked under the lock.
bool eventually(std::mutex& lock, const std::function<bool()>& condition) {
  for (auto end = std::chrono::steady_clock::now() + 10s; std::chrono::steady_clock::now() < end;) {
    if (std::lock_guard guard(lock); condition()) return true;
    std::this_thread::sleep_for(5ms);
  }
  return false;
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
  ZtSerialError error;
};

TEST_F(ZtSerialPortTest, OneOpenerAndOneOwnerAtATime) {
  ZtSerialPort second(pty.slavePath(), "second", "tty");
  EXPECT_FALSE(second.open());  // busy
  port.close();
  port.close();  // harmless twice
  EXPECT_FALSE(port.readBytes(1, &error));
  EXPECT_EQ(error.code, ZtSerialErrorFatal);
  EXPECT_TRUE(second.open());  // free again once the first lets go
  EXPECT_FALSE(ZtSerialPort("/nonexistent/ttyUSB9", "ttyUSB9", "tty").open());

  EXPECT_TRUE(second.obtainBy("download"));
  EXPECT_FALSE(second.available());
  EXPECT_FALSE(second.obtainBy("erase"));
  EXPECT_TRUE(second.obtainBy("download"));  // the holder asking again
  second.free();
  EXPECT_TRUE(second.obtainBy("erase"));
  EXPECT_EQ(second.owner(), "erase");
}

TEST_F(ZtSerialPortTest, ReadsEndOnCountStopCharacterFullBufferOrTimeOut) {
  // Pieces that come apart are collected into one read.
  std::thread logger([&] {
    pty.send("abc");
    std::this_thread::sleep_for(30ms);
    pty.send("def$GPGGA,1");
    std::this_thread::sleep_for(30ms);
    pty.send("23*00\r\n");
  });
  port.setReadTimeout(5.0);
  EXPECT_EQ(text(port.readBytes(6, &error)), "abcdef");
  EXPECT_EQ(error.code, ZtSerialErrorNone);
  EXPECT_EQ(error.endCode, ZtSerialEndExactCount);
  EXPECT_EQ(error.bytesRead, 6u);
  EXPECT_EQ(port.readUpToChar('\n', ZtStringEncoding::ASCII, &error), "$GPGGA,123*00\r\n");
  EXPECT_EQ(error.endCode, ZtSerialEndStopChar);
  logger.join();

  pty.send("abcdef\n0123");
  EXPECT_EQ(text(port.readBytesUpToChar(3, '\n', &error)), "abc");  // the count comes first
  EXPECT_EQ(error.endCode, ZtSerialEndExactCount);
  EXPECT_EQ(text(port.readBytes(4, &error)), "def\n");  // the rest is kept
  port.setReadTimeout(0.2);
  EXPECT_EQ(text(port.readBytes(6, &error)), "0123");
  EXPECT_EQ(error.code, ZtSerialErrorTimeout);
  EXPECT_EQ(error.bytesRead, 4u);
  EXPECT_EQ(error.endCode, ZtSerialEndNone);

  pty.send("abcd");
  port.setReadTimeout(0);
  EXPECT_FALSE(port.readBytes(2, &error));
  EXPECT_EQ(error.code, ZtSerialErrorTimeout);
  EXPECT_EQ(error.bytesRead, 0u);

  std::string block(ZtSerialPort::kBufferSize + 100, 'x');
  std::thread flood([&] { pty.send(block); });
  port.setReadTimeout(5.0);
  auto data = port.readUpToChar('\n', &error);
  flood.join();
  ASSERT_TRUE(data);
  EXPECT_EQ(data->size(), ZtSerialPort::kBufferSize);
  EXPECT_EQ(error.code, ZtSerialErrorBufferFull);
}

TEST_F(ZtSerialPortTest, TextInTheEncodingAskedWritesAndHangUp) {
  pty.send("Z\xfcrich\n");
  EXPECT_EQ(port.readUpToChar('\n', ZtStringEncoding::ISOLatin1, &error), "Z\xc3\xbcrich\n");
  // Not ASCII: no text, but the read itself went as usual.
  pty.send("Z\xfcrich");
  EXPECT_FALSE(port.readBytes(6, ZtStringEncoding::ASCII, &error));
  EXPECT_EQ(error.code, ZtSerialErrorNone);
  EXPECT_EQ(error.bytesRead, 6u);
  pty.send("\x8a");  // a-umlaut in Mac OS Roman
  EXPECT_EQ(port.readBytesUpToChar(1, '\n', ZtStringEncoding::MacRoman, &error), "\xc3\xa4");
  pty.send("$PMTK\r\n");
  port.setReadTimeout(0.2);
  EXPECT_EQ(port.readString(&error), "$PMTK\r\n");

  EXPECT_TRUE(port.writeString("K\xc3\xb6ln", ZtStringEncoding::ISOLatin1, &error));
  EXPECT_EQ(error.bytesWritten, 4u);
  EXPECT_EQ(pty.receive(), "K\xf6ln");
  EXPECT_FALSE(port.writeString("K\xc3\xb6ln", ZtStringEncoding::ASCII, &error));
  EXPECT_EQ(error.code, ZtSerialErrorNothingToWrite);
  EXPECT_FALSE(port.writeString("\xff\xfe", ZtStringEncoding::UTF8, &error));  // not UTF-8 to begin with
  EXPECT_FALSE(port.writeData({}, &error));
  EXPECT_EQ(error.code, ZtSerialErrorNothingToWrite);
  EXPECT_EQ(pty.receive(100), "");

  pty.closeSlave();
  pty.closeMaster();
  port.setReadTimeout(2.0);
  EXPECT_FALSE(port.readBytes(4, &error));
  EXPECT_EQ(error.code, ZtSerialErrorFatal);
}

// The speed applies at once; the rest waits for a commit. A pseudo-terminal
// forces 8 data bits and no parity, so the device side is checked through
// the stop bits, which it keeps. What was found at open comes back at close.
TEST(ZtSerialPortSettings, ReachTheDeviceWhenCommittedAndComeBackAtClose) {
  PtyPair pty;
  ASSERT_TRUE(pty.valid());
  UniqueFd watcher(::open(pty.slavePath().c_str(), O_RDWR | O_NOCTTY));
  ASSERT_TRUE(watcher);
  struct termios before {
  }, device{};
  ASSERT_EQ(::tcgetattr(watcher.get(), &before), 0);
  {
    ZtSerialPort port(pty.slavePath(), "pty", "tty");
    ASSERT_TRUE(port.open());
    ASSERT_TRUE(port.setSpeed(115200));
    EXPECT_EQ(port.getSpeed(), 115200u);
    port.setParityOdd();
    port.setStopBits(2);
    port.setCanonicalMode(true);
    ASSERT_EQ(::tcgetattr(watcher.get(), &device), 0);
    EXPECT_FALSE(device.c_cflag & CSTOPB);
    ASSERT_TRUE(port.commitChanges());
    ASSERT_EQ(::tcgetattr(watcher.get(), &device), 0);
    EXPECT_TRUE(device.c_cflag & CSTOPB);
    EXPECT_EQ(port.options().at("ZtSerialOptionStopBits"), "2");
    EXPECT_EQ(port.options().at("ZtSerialOptionParity"), "Odd");
    if (port.setSpeed(250000)) {
      ASSERT_TRUE(port.commitChanges());
      EXPECT_EQ(port.getSpeed(), 250000u);
      EXPECT_EQ(port.options().at("ZtSerialOptionSpeed"), "250000");
    } else {
      EXPECT_EQ(port.getSpeed(), 115200u);  // this pseudo-terminal refuses 250000 bit/s
    }
  }
  struct termios after {};
  ASSERT_EQ(::tcgetattr(watcher.get(), &after), 0);
  EXPECT_EQ(after.c_cflag, before.c_cflag);
  EXPECT_EQ(after.c_lflag, before.c_lflag);
}

// The seam: each call is interrupted once; reads then return short pieces
// and writes come out one byte short.
int selectCalls = 0, readCalls = 0, writeCalls = 0;
bool interruptedOnce(int& calls) {
  if (calls++ > 0) return false;
  errno = EINTR;
  return true;
}

TEST_F(ZtSerialPortTest, InterruptedCallsAreRetriedAndShortReadsCollected) {
  selectCalls = readCalls = writeCalls = 0;
  ZtSerialSystemCalls calls;
  calls.select = [](int n, fd_set* r, fd_set* w, fd_set* e, struct timeval* t) {
    return interruptedOnce(selectCalls) ? -1 : ::select(n, r, w, e, t);
  };
  calls.read = [](int fd, void* buffer, size_t count) -> ssize_t {
    return interruptedOnce(readCalls) ? -1 : ::read(fd, buffer, std::min<size_t>(count, 2));
  };
  calls.write = [](int fd, const void* buffer, size_t count) -> ssize_t {
    return interruptedOnce(writeCalls) ? -1 : ::write(fd, buffer, count - 1);
  };
  port.setSystemCalls(calls);
  pty.send("abcdef");
  port.setReadTimeout(5.0);
  EXPECT_EQ(text(port.readBytes(6, &error)), "abcdef");
  EXPECT_EQ(error.code, ZtSerialErrorNone);
  EXPECT_GE(readCalls, 4);

  EXPECT_FALSE(port.writeString("xyz", &error));
  EXPECT_EQ(error.code, ZtSerialErrorShortWrite);
  EXPECT_EQ(error.bytesWritten, 2u);
}

// A read blocked on a long time-out ends at once however another thread stops it.
TEST_F(ZtSerialPortTest, BlockedReadEndsOnCancelOrCloseFromAnotherThread) {
  const std::vector<std::pair<const char*, std::function<void()>>> stoppers{
      {"cancel", [&] { port.cancel(); }},
      {"cancel downloads", [] { cancelRunningDownloads(); }},
      {"close", [&] { port.close(); }},
  };
  for (const auto& [how, stop] : stoppers) {
    SCOPED_TRACE(how);
    port.setReadTimeout(30.0);
    std::thread host([&] {
      std::this_thread::sleep_for(50ms);
      stop();
    });
    EXPECT_FALSE(port.readBytes(10, &error));
    host.join();
    EXPECT_EQ(error.code, ZtSerialErrorFatal);
    if (port.isOpen()) {
      // Later reads end at once too, until the port is opened again.
      pty.send("ab");
      EXPECT_FALSE(port.readBytes(2, &error));
      EXPECT_EQ(error.code, ZtSerialErrorFatal);
      if (downloadsCancelled()) {
        PtyPair other;  // a port opened while cancelled starts cancelled
        ZtSerialPort late(other.slavePath(), "pty", "tty");
        EXPECT_TRUE(late.open());
        EXPECT_FALSE(late.readBytes(1, &error));
        resumeDownloads();
        EXPECT_FALSE(downloadsCancelled());
      }
      port.close();
    } else {
      pty.send("ab");
    }
    ASSERT_TRUE(port.open());
    EXPECT_EQ(text(port.readBytes(2, &error)), "ab");
  }
}

// Keeps what a port's background threads report, for a test to wait on.
struct RecordingDelegate : ZtSerialPortDelegate {
  void serialPortReadData(ZtSerialPort&, const std::vector<std::uint8_t>& data) override {
    std::lock_guard guard(lock);
    received.append(data.begin(), data.end());
  }
  void serialPortReadEnded(ZtSerialPort&, const ZtSerialError& error) override {
    std::lock_guard guard(lock);
    readEnd = error;
  }
  void serialPortWriteProgress(ZtSerialPort& port, std::uint64_t written, std::uint64_t all) override {
    {
      std::lock_guard guard(lock);
      progress.push_back(written);
      total = all;
    }
    if (written >= stopWritingAfter) port.stopWriteInBackground();
  }
  void serialPortWriteEnded(ZtSerialPort&, const ZtSerialError& error) override {
    std::lock_guard guard(lock);
    writeEnd = error;
  }
  /// The end once reported, taken so that the next can come.
  ZtSerialError take(std::optional<ZtSerialError>& end) {
    EXPECT_TRUE(eventually(lock, [&] { return end.has_value(); }));
    std::lock_guard guard(lock);
    return std::exchange(end, std::nullopt).value_or(ZtSerialError{});
  }

  std::mutex lock;
  std::string received;
  std::optional<ZtSerialError> readEnd, writeEnd;
  std::vector<std::uint64_t> progress;
  std::uint64_t total = 0;
  std::atomic<std::uint64_t> stopWritingAfter = UINT64_MAX;
};

TEST_F(ZtSerialPortTest, BackgroundReaderDeliversEveryArrivalToTheDelegate) {
  auto delegate = std::make_shared<RecordingDelegate>();
  port.setDelegate(delegate);
  ASSERT_TRUE(port.readDataInBackground());
  EXPECT_FALSE(port.readDataInBackground());  // one reader at a time
  pty.send("$GPRMC,1");
  std::this_thread::sleep_for(30ms);
  pty.send("23*00\r\n");
  EXPECT_TRUE(eventually(delegate->lock, [&] { return delegate->received == "$GPRMC,123*00\r\n"; }));
  port.stopReadInBackground();
  EXPECT_FALSE(port.isReadingInBackground());
  ZtSerialError ended = delegate->take(delegate->readEnd);
  EXPECT_EQ(ended.code, ZtSerialErrorNone);
  EXPECT_EQ(ended.bytesRead, 15u);

  // Bytes that come while no reader runs wait for a plain read.
  pty.send("xy");
  EXPECT_EQ(text(port.readBytes(2, &error)), "xy");

  // A close ends the reader without an error; a closed port starts none.
  ASSERT_TRUE(port.readDataInBackground());
  port.close();
  EXPECT_EQ(delegate->take(delegate->readEnd).code, ZtSerialErrorNone);
  EXPECT_FALSE(port.readDataInBackground());

  // A hang-up of the far side ends it with code 99.
  ASSERT_TRUE(port.open());
  ASSERT_TRUE(port.readDataInBackground());
  pty.closeSlave();
  pty.closeMaster();
  EXPECT_EQ(delegate->take(delegate->readEnd).code, ZtSerialErrorFatal);
  EXPECT_FALSE(port.isReadingInBackground());
}

TEST_F(ZtSerialPortTest, BackgroundWriterReportsProgressAndHowFarAStopCame) {
  const auto receiveAtLeast = [&](std::size_t count) {
    std::string arrived;
    for (std::string more = "-"; arrived.size() < count && !more.empty(); arrived += more)
      more = pty.receive();
    return arrived;
  };
  auto delegate = std::make_shared<RecordingDelegate>();
  port.setDelegate(delegate);
  // More than the pty holds: the writer is still busy until we read.
  std::string block(1 << 18, 'x');
  for (std::size_t i = 0; i < block.size(); ++i) block[i] = static_cast<char>('a' + i % 26);
  ASSERT_TRUE(port.writeDataInBackground(ZtSerialPort::Data(block.begin(), block.end())));
  EXPECT_FALSE(port.writeDataInBackground({1, 2, 3}));  // one writer at a time
  EXPECT_EQ(receiveAtLeast(block.size()), block);
  ZtSerialError ended = delegate->take(delegate->writeEnd);
  EXPECT_EQ(ended.code, ZtSerialErrorNone);
  EXPECT_EQ(ended.bytesWritten, block.size());
  {
    std::lock_guard guard(delegate->lock);
    ASSERT_GE(delegate->progress.size(), 2u);  // it went out piece by piece
    EXPECT_TRUE(std::is_sorted(delegate->progress.begin(), delegate->progress.end()));
    EXPECT_EQ(delegate->progress.back(), block.size());
    EXPECT_EQ(delegate->total, block.size());
  }
  EXPECT_FALSE(port.writeDataInBackground({}));  // nothing to write

  delegate->stopWritingAfter = 100;
  ASSERT_TRUE(port.writeDataInBackground(ZtSerialPort::Data(1000, 'z')));
  ended = delegate->take(delegate->writeEnd);
  EXPECT_EQ(ended.code, ZtSerialErrorShortWrite);
  EXPECT_GE(ended.bytesWritten, 100u);
  EXPECT_LT(ended.bytesWritten, 1000u);
  EXPECT_FALSE(port.isWritingInBackground());
  EXPECT_EQ(receiveAtLeast(ended.bytesWritten), std::string(ended.bytesWritten, 'z'));
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
  void link(const std::string& name) { std::filesystem::create_symlink(pty.slavePath(), devices.file(name)); }
  kvtrack::testing::ScratchFolder devices;
  PtyPair pty;
  std::string savedFolder;
  ZtSerialPortList& list = ZtSerialPortList::sharedPortList();
};

TEST_F(ZtSerialPortListTest, ListsOnlyCalloutNodesAndEnumeratesThem) {
  for (const char* name : {"ttyUSB0", "ttyACM3", "ttyS0"}) link(name);
  devices.write("console", "");
  list.refresh();
  ASSERT_EQ(list.count(), 2u);
  EXPECT_EQ(list.objectAtIndex(0)->bsdPath(), devices.file("ttyACM3"));
  EXPECT_EQ(list.objectAtIndex(1)->name(), "ttyUSB0");
  EXPECT_FALSE(list.objectAtIndex(2));
  EXPECT_TRUE(list.objectWithName("ttyACM3"));
  EXPECT_FALSE(list.objectWithName("ttyS0"));
  auto port = list.portByPath(devices.file("ttyUSB0"));
  ASSERT_TRUE(port);
  EXPECT_TRUE(port->open());  // a listed port opens like any other
  port->close();

  auto all = list.portEnumerator();
  auto first = all.nextObject();
  ASSERT_TRUE(first);
  EXPECT_EQ(first->name(), "ttyACM3");
  EXPECT_EQ(all.allObjects(), std::vector{port});
  EXPECT_FALSE(all.nextObject());

  // The live enumerator sees the list shrink under it; the typed one keeps its ports.
  auto live = list.portEnumerator();
  auto typed = list.portEnumeratorForSerialPortsOfType("tty");
  EXPECT_TRUE(list.portEnumeratorForSerialPortsOfType("IOModemSerialStream").allObjects().empty());
  for (const char* name : {"ttyUSB0", "ttyACM3"}) std::filesystem::remove(devices.file(name));
  list.refresh();
  EXPECT_FALSE(live.nextObject());
  EXPECT_EQ(typed.allObjects().size(), 2u);
}

TEST_F(ZtSerialPortListTest, AnnouncesPortsThatComeAndGo) {
  list.refresh();
  EXPECT_EQ(list.count(), 0u);
  std::mutex lock;
  std::map<std::string, ZtSerialPortListChange> heard;  // by notification
  const auto keep = [&](const Notification& n) {
    std::lock_guard guard(lock);
    if (auto change = n.objectAs<ZtSerialPortListChange>()) heard[n.name] = *change;
  };
  auto& center = NotificationCenter::defaultCenter();
  const ObserverToken added = center.addObserver(ZtSerialPortListDidAddPortsNotification, keep);
  const ObserverToken removed = center.addObserver(ZtSerialPortListDidRemovePortsNotification, keep);
  ASSERT_TRUE(list.startMonitoring());
  link("ttyUSB1");
  ASSERT_TRUE(eventually(lock, [&] { return heard.contains(ZtSerialPortListDidAddPortsNotification); }));
  const ZtSerialPortListChange change = heard[ZtSerialPortListDidAddPortsNotification];
  ASSERT_EQ(change.size(), 1u);
  const auto& ports = change.at(ZtSerialPortListAddedPorts);
  ASSERT_EQ(ports.size(), 1u);
  EXPECT_EQ(ports[0]->bsdPath(), devices.file("ttyUSB1"));
  EXPECT_EQ(ports[0], list.portByPath(devices.file("ttyUSB1")));  // the list's own object
  EXPECT_TRUE(ports[0]->open());                                  // and a port like any other
  ports[0]->close();

  std::filesystem::remove(devices.file("ttyUSB1"));
  ASSERT_TRUE(eventually(lock, [&] { return heard.contains(ZtSerialPortListDidRemovePortsNotification); }));
  EXPECT_EQ(heard[ZtSerialPortListDidRemovePortsNotification],
            (ZtSerialPortListChange{{ZtSerialPortListRemovedPorts, ports}}));
  EXPECT_EQ(list.count(), 0u);
  list.stopMonitoring();
  EXPECT_FALSE(list.isMonitoring());
  list.stopMonitoring();  // harmless twice
}

}  // namespace
}  // namespace kvtrack
