// The serial port on real pseudo-terminal pairs: the test plays the logger on
// the master side, the port under test opens the slave.

#include "kvtrack/devices/serial/ZtSerialPort.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <filesystem>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

#include "kvtrack/devices/serial/DownloadCancel.h"
#include "kvtrack/devices/serial/ZtSerialPortList.h"
#include "kvtrack/support/FileHandling.h"
#include "kvtrack/support/NotificationCenter.h"
#include "tests/common/ScratchFolder.h"
#include "kvtrack/support/UniqueFd.h"
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

TEST_F(ZtSerialPortTest, OpenAndCloseOneOwnerAtATime) {
  EXPECT_EQ(port.bsdPath(), pty.slavePath());
  ZtSerialPort second(pty.slavePath(), "second", "tty");
  EXPECT_FALSE(second.open());  // busy
  port.close();
  EXPECT_FALSE(port.isOpen());
  port.close();  // harmless twice
  ZtSerialError error;
  EXPECT_FALSE(port.readBytes(1, &error));
  EXPECT_EQ(error.code, ZtSerialErrorFatal);
  EXPECT_TRUE(second.open());  // free again once the first lets go
  ZtSerialPort missing("/nonexistent/ttyUSB9", "ttyUSB9", "tty");
  EXPECT_FALSE(missing.open());
  EXPECT_FALSE(missing.isOpen());
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
  ZtSerialError error;
  EXPECT_EQ(text(port.readBytes(6, &error)), "abcdef");
  EXPECT_EQ(error.code, ZtSerialErrorNone);
  EXPECT_EQ(error.endCode, ZtSerialEndExactCount);
  EXPECT_EQ(error.bytesRead, 6u);
  EXPECT_EQ(error.domain, "org.wayfolio.Serial.ErrorDomain");
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

TEST_F(ZtSerialPortTest, WritesReachTheFarSideAndHangUpIsFatal) {
  ZtSerialError error;
  EXPECT_TRUE(port.writeString("PMTK000*32\r\n", &error));
  EXPECT_EQ(error.code, ZtSerialErrorNone);
  EXPECT_EQ(error.bytesWritten, 12u);
  EXPECT_EQ(pty.receive(), "PMTK000*32\r\n");
  EXPECT_FALSE(port.writeData({}, &error));
  EXPECT_EQ(error.code, ZtSerialErrorNothingToWrite);

  pty.closeSlave();
  pty.closeMaster();
  port.setReadTimeout(2.0);
  EXPECT_FALSE(port.readBytes(4, &error));
  EXPECT_EQ(error.code, ZtSerialErrorFatal);
}

// The speed applies at once; the rest waits for a commit. A pseudo-terminal
// forces 8 data bits and no parity, so the device side is checked through
// the stop bits, which it keeps.
TEST_F(ZtSerialPortTest, SettingsReachTheDeviceWhenCommitted) {
  ASSERT_TRUE(port.setSpeed(115200));
  EXPECT_EQ(port.getSpeed(), 115200u);
  port.setParityOdd();
  port.setDataBits(7);
  port.setStopBits(2);
  struct termios device {};
  ASSERT_EQ(::tcgetattr(port.fileDescriptor(), &device), 0);
  EXPECT_FALSE(device.c_cflag & CSTOPB);
  ASSERT_TRUE(port.commitChanges());
  ASSERT_EQ(::tcgetattr(port.fileDescriptor(), &device), 0);
  EXPECT_TRUE(device.c_cflag & CSTOPB);
  EXPECT_EQ(port.options().at("ZtSerialOptionStopBits"), "2");
  EXPECT_EQ(port.getSpeed(), 115200u);

  port.setParity(7);  // unknown: nothing changes
  port.setStopBits(3);
  port.setDataBits(9);  // anything unknown is 5
  EXPECT_TRUE(port.testParityOdd());
  EXPECT_EQ(port.stopBits(), 2);
  EXPECT_EQ(port.dataBits(), 5);
  port.setParityEven();
  ASSERT_TRUE(port.commitChanges());
  EXPECT_EQ(port.options().at("ZtSerialOptionParity"), "Even");

  if (!port.setSpeed(250000)) {
    EXPECT_EQ(port.getSpeed(), 115200u);
    GTEST_SKIP() << "this pseudo-terminal refuses 250000 bit/s";
  }
  ASSERT_TRUE(port.commitChanges());
  EXPECT_EQ(port.getSpeed(), 250000u);
  EXPECT_EQ(port.options().at("ZtSerialOptionSpeed"), "250000");
}

TEST(ZtSerialPortSettings, SettingsFoundAtOpenComeBackAtClose) {
  PtyPair pty;
  ASSERT_TRUE(pty.valid());
  struct termios before {};
  UniqueFd watcher(::open(pty.slavePath().c_str(), O_RDWR | O_NOCTTY));
  ASSERT_TRUE(watcher);
  ASSERT_EQ(::tcgetattr(watcher.get(), &before), 0);
  {
    ZtSerialPort port(pty.slavePath(), "pty", "tty");
    ASSERT_TRUE(port.open());
    port.setParityOdd();
    port.setCanonicalMode(true);
    ASSERT_TRUE(port.commitChanges());
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
int interruptedSelect(int n, fd_set* r, fd_set* w, fd_set* e, struct timeval* t) {
  return interruptedOnce(selectCalls) ? -1 : ::select(n, r, w, e, t);
}
ssize_t interruptedShortRead(int fd, void* buffer, size_t count) {
  return interruptedOnce(readCalls) ? -1 : ::read(fd, buffer, std::min<size_t>(count, 2));
}
ssize_t interruptedWrite(int fd, const void* buffer, size_t count) {
  return interruptedOnce(writeCalls) ? -1 : ::write(fd, buffer, count - 1);
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
    ZtSerialError error;
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

TEST_F(ZtSerialPortTest, TextIsReadAndWrittenInTheEncodingAsked) {
  ZtSerialError error;
  pty.send("Z\xfcrich\n");
  EXPECT_EQ(port.readUpToChar('\n', ZtStringEncoding::ISOLatin1, &error), "Z\xc3\xbcrich\n");
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
  EXPECT_TRUE(port.obtainBy("download"));
  EXPECT_FALSE(port.available());
  EXPECT_FALSE(port.obtainBy("erase"));
  EXPECT_TRUE(port.obtainBy("download"));  // the holder asking again
  port.free();
  EXPECT_TRUE(port.obtainBy("erase"));
  EXPECT_EQ(port.owner(), "erase");
}

// Keeps what a port's background threads report, for a test to wait on.
struct RecordingDelegate : ZtSerialPortDelegate {
  void serialPortReadData(ZtSerialPort&, const std::vector<std::uint8_t>& data) override {
    update([&] { received.append(data.begin(), data.end()); });
  }
  void serialPortReadEnded(ZtSerialPort&, const ZtSerialError& error) override { update([&] { readEnd = error; }); }
  void serialPortWriteProgress(ZtSerialPort& port, std::uint64_t written, std::uint64_t all) override {
    update([&] { progress.push_back(written); total = all; });
    if (written >= stopWritingAfter) port.stopWriteInBackground();
  }
  void serialPortWriteEnded(ZtSerialPort&, const ZtSerialError& error) override { update([&] { writeEnd = error; }); }
  void update(const std::function<void()>& change) {
    std::lock_guard guard(lock);
    change();
    changed.notify_all();
  }
  /// The end once reported (waiting up to 10 s), taken so that the next can come.
  std::optional<ZtSerialError> take(std::optional<ZtSerialError>& end) {
    std::unique_lock guard(lock);
    changed.wait_for(guard, 10s, [&] { return end.has_value(); });
    return std::exchange(end, std::nullopt);
  }

  std::mutex lock;
  std::condition_variable changed;
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
  {
    std::unique_lock guard(delegate->lock);
    delegate->changed.wait_for(guard, 10s, [&] { return delegate->received.size() >= 15; });
    EXPECT_EQ(delegate->received, "$GPRMC,123*00\r\n");
  }
  port.stopReadInBackground();
  EXPECT_FALSE(port.isReadingInBackground());
  auto ended = delegate->take(delegate->readEnd);
  ASSERT_TRUE(ended);
  EXPECT_EQ(ended->code, ZtSerialErrorNone);
  EXPECT_EQ(ended->bytesRead, 15u);

  // Bytes that come while no reader runs wait for a plain read.
  pty.send("xy");
  ZtSerialError error;
  EXPECT_EQ(text(port.readBytes(2, &error)), "xy");

  // A close ends the reader without an error; a closed port starts none.
  ASSERT_TRUE(port.readDataInBackground());
  port.close();
  ended = delegate->take(delegate->readEnd);
  ASSERT_TRUE(ended);
  EXPECT_EQ(ended->code, ZtSerialErrorNone);
  EXPECT_FALSE(port.readDataInBackground());

  // A hang-up of the far side ends it with code 99.
  ASSERT_TRUE(port.open());
  ASSERT_TRUE(port.readDataInBackground());
  pty.closeSlave();
  pty.closeMaster();
  ended = delegate->take(delegate->readEnd);
  ASSERT_TRUE(ended);
  EXPECT_EQ(ended->code, ZtSerialErrorFatal);
  EXPECT_FALSE(port.isReadingInBackground());
}

std::string receiveAtLeast(const PtyPair& pty, std::size_t count) {
  std::string arrived;
  for (std::string more = "-"; arrived.size() < count && !more.empty(); arrived += more) more = pty.receive();
  return arrived;
}

TEST_F(ZtSerialPortTest, BackgroundWriterReportsProgressAndHowFarAStopCame) {
  auto delegate = std::make_shared<RecordingDelegate>();
  port.setDelegate(delegate);
  std::string block(1000, 'x');
  for (std::size_t i = 0; i < block.size(); ++i) block[i] = static_cast<char>('a' + i % 26);
  ASSERT_TRUE(port.writeDataInBackground(ZtSerialPort::Data(block.begin(), block.end())));
  EXPECT_FALSE(port.writeDataInBackground({1, 2, 3}));  // one writer at a time
  auto ended = delegate->take(delegate->writeEnd);
  ASSERT_TRUE(ended);
  EXPECT_EQ(ended->code, ZtSerialErrorNone);
  EXPECT_EQ(ended->bytesWritten, 1000u);
  EXPECT_EQ(receiveAtLeast(pty, block.size()), block);
  {
    std::lock_guard guard(delegate->lock);
    ASSERT_GE(delegate->progress.size(), 2u);  // it went out piece by piece
    EXPECT_TRUE(std::is_sorted(delegate->progress.begin(), delegate->progress.end()));
    EXPECT_EQ(delegate->progress.back(), 1000u);
    EXPECT_EQ(delegate->total, 1000u);
  }
  EXPECT_FALSE(port.writeDataInBackground({}));  // nothing to write

  delegate->stopWritingAfter = 100;
  ASSERT_TRUE(port.writeDataInBackground(ZtSerialPort::Data(1000, 'z')));
  ended = delegate->take(delegate->writeEnd);
  ASSERT_TRUE(ended);
  EXPECT_EQ(ended->code, ZtSerialErrorShortWrite);
  EXPECT_GE(ended->bytesWritten, 100u);
  EXPECT_LT(ended->bytesWritten, 1000u);
  EXPECT_FALSE(port.isWritingInBackground());
  EXPECT_EQ(receiveAtLeast(pty, ended->bytesWritten), std::string(ended->bytesWritten, 'z'));
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

TEST_F(ZtSerialPortListTest, ListsOnlyCalloutNodesAndEnumeratesThem) {
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
  link("ttyUSB1");
  const auto added = observer.added();
  ASSERT_TRUE(added);
  ASSERT_EQ(added->size(), 1u);
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
  EXPECT_EQ(removed->at(ZtSerialPortListRemovedPorts), ports);
  EXPECT_EQ(list.count(), 0u);
  list.stopMonitoring();
  EXPECT_FALSE(list.isMonitoring());
  list.stopMonitoring();  // harmless twice
}

}  // namespace
}  // namespace kvtrack
