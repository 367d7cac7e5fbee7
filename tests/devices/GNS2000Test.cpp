// The GNS 2000 driver against an emulated receiver: its RFCOMM channel is
// the driver's real descriptor channel on one end of a socket pair, and a
// run loop on a thread of its own plays the main thread.
#include "kvtrack/devices/gns2000/GNS2000.h"

#include "kvtrack/devices/serial/DownloadCancel.h"
#include "tests/devices/GNS2000Emulator.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <future>
#include <thread>

namespace kvtrack {
namespace {

using namespace std::chrono_literals;
using test::EmulatedBluetooth;
using test::EmulatedBluetoothDevice;
using test::GNS2000Emulator;
using test::LocusFix;

constexpr int32_t kBase = 1717236000;  // 2024-06-01 10:00:00 UTC

GNS2000Emulator::Record fixAt(int32_t seconds, uint8_t fixType = 1, int16_t height = 500) {
  return GNS2000Emulator::record({.time = kBase + seconds,
                                  .fixType = fixType,
                                  .latitude = 47.5f + static_cast<float>(seconds) * 1e-4f,
                                  .longitude = 8.25f,
                                  .height = height});
}

std::vector<int32_t> secondsOf(const TrackPtr& track) {
  std::vector<int32_t> seconds;
  for (const auto& point : track->trackPoints()) {
    seconds.push_back(static_cast<int32_t>(point->time()->timeIntervalSince1970()) - kBase);
  }
  return seconds;
}

bool eventually(const std::function<bool()>& condition) {
  for (auto end = std::chrono::steady_clock::now() + 5s; std::chrono::steady_clock::now() < end;) {
    if (condition()) return true;
    std::this_thread::sleep_for(5ms);
  }
  return condition();
}

class GNS2000Test : public ::testing::Test {
 protected:
  GNS2000Test() {
    receiverDevice->setServices({{"Serial Port", 1}, {"GNS GPS", 3}});
    stack->add(receiverDevice);
    driver.setConnectionSettleTime(0ms);
  }
  ~GNS2000Test() override {
    loop.stop();
    loopThread.join();
  }

  std::optional<std::vector<TrackPtr>> download() { return driver.importTracksFromDevice("", {}); }

  // Declared first, so it outlives everything that posts to it.
  RunLoop loop;
  std::thread loopThread{[this] { loop.run(); }};
  GNS2000Emulator receiver;
  std::shared_ptr<EmulatedBluetooth> stack = std::make_shared<EmulatedBluetooth>();
  std::shared_ptr<EmulatedBluetoothDevice> receiverDevice =
      std::make_shared<EmulatedBluetoothDevice>("GNS 2000", "00:1B:C1:0A:0B:0C", loop, &receiver);
  GNS2000 driver{stack, loop};
};

// Time running backwards starts a new track; records without a fix, empty
// records and impossible positions are passed over.
TEST_F(GNS2000Test, DumpBecomesTracksSplitWhereTimeRunsBackwards) {
  receiver.setRecords({fixAt(100), fixAt(200, 0), fixAt(110, 3, -10), fixAt(120, 5),
                       GNS2000Emulator::emptyRecord(), fixAt(50, 2), fixAt(60, 4),
                       GNS2000Emulator::record({.time = kBase + 70, .latitude = 91.0f})});
  receiver.setRecordsPerSentence(3);
  const auto tracks = download();
  ASSERT_TRUE(tracks) << driver.lastStatus().reason();
  ASSERT_EQ(tracks->size(), 2u);
  // The fix-less record at 200 did not count as the latest time.
  EXPECT_EQ(secondsOf((*tracks)[0]), (std::vector<int32_t>{100, 110}));
  EXPECT_EQ(secondsOf((*tracks)[1]), (std::vector<int32_t>{50, 60}));
  const auto& point = (*tracks)[0]->trackPoints()[1];
  EXPECT_DOUBLE_EQ(point->latitude(), static_cast<double>(47.5f + 110 * 1e-4f));
  EXPECT_DOUBLE_EQ(point->longitude(), 8.25);
  EXPECT_DOUBLE_EQ(point->elevation(), -10.0);  // height 0xFFF6
  EXPECT_EQ(point->time()->timezoneOffset(), 0);
  EXPECT_EQ((*tracks)[1]->name(), (*tracks)[1]->trackPoints().front()->time()->descriptionForGui());
  EXPECT_EQ(driver.invalidPositionCount(), 1u);
  EXPECT_EQ(driver.protocolCommand(), GNS2000::kStateFinished);
  // The request went out once, and only after the receiver's first sentence.
  EXPECT_EQ(receiver.requests(), std::vector<std::string>{"$PGNS,R*74"});
  EXPECT_GE(receiver.sentencesBeforeRequests().at(0), 1);
  EXPECT_EQ(receiverDevice->connectionsOpened(), 1);

  // The channel is kept: a second download asks again on the same one.
  receiver.setRecords({});
  const auto empty = download();
  ASSERT_TRUE(empty);
  ASSERT_EQ(empty->size(), 1u);
  EXPECT_EQ(empty->front()->loadedPointCount(), 0u);
  EXPECT_EQ(receiverDevice->connectionsOpened(), 1);
}

// Noise and bad checksums drop sentences (they do not count as the first
// one); a sentence split over two deliveries is put together.
TEST_F(GNS2000Test, BadChecksumsAreDroppedAndSplitSentencesJoined) {
  std::vector<GNS2000Emulator::Record> records;
  for (int i = 0; i < 12; ++i) records.push_back(fixAt(i * 10));
  receiver.setRecords(records);
  receiver.setRecordsPerSentence(3);
  receiver.setMisbehaviour(
      {.badFirstSentences = 4, .badDumpSentence = 1, .splitDumpSentence = 2, .noiseFirst = 10000});
  const auto tracks = download();
  ASSERT_TRUE(tracks) << driver.lastStatus().reason();
  ASSERT_EQ(tracks->size(), 1u);
  EXPECT_EQ(secondsOf(tracks->front()), (std::vector<int32_t>{0, 10, 20, 60, 70, 80, 90, 100, 110}));
  EXPECT_GE(receiver.sentencesBeforeRequests().at(0), 5);
}

// One line is handled per delivery: the end of the log, arriving together
// with the last data, waits for the receiver's next sentence.
TEST_F(GNS2000Test, SecondSentenceOfADeliveryWaitsForTheNext) {
  receiver.setRecords({fixAt(0), fixAt(1), fixAt(2), fixAt(3)});
  receiver.setRecordsPerSentence(2);
  receiver.setMisbehaviour({.endWithLastData = true});
  auto pending = std::async(std::launch::async, [this] { return download(); });
  EXPECT_EQ(pending.wait_for(300ms), std::future_status::timeout);
  receiver.resumeStreaming();
  ASSERT_EQ(pending.wait_for(10s), std::future_status::ready);
  const auto tracks = pending.get();
  ASSERT_TRUE(tracks);
  EXPECT_EQ(secondsOf(tracks->front()), (std::vector<int32_t>{0, 1, 2, 3}));
}

// A receiver that answers with its stream only hears the erase request
// again on every line once more than ten lines without "$P" came in a row.
TEST_F(GNS2000Test, EraseIsAskedAgainAfterElevenStreamLines) {
  receiver.setRecords({fixAt(0), fixAt(1)});
  receiver.setMisbehaviour({.ignoredEraseRequests = 2});
  EXPECT_TRUE(driver.deleteTracksFromDevice("", {})) << driver.lastStatus().reason();
  // Requests go on until the acknowledgement's line is handled.
  const std::vector<std::string> requests = receiver.requests();
  ASSERT_GE(requests.size(), 3u);
  EXPECT_EQ(std::count(requests.begin(), requests.end(), "$PGNS,C*65"), static_cast<long>(requests.size()));
  const std::vector<int> before = receiver.sentencesBeforeRequests();
  EXPECT_GE(before.at(0), 1);
  EXPECT_GE(before.at(1), 11);
  EXPECT_GE(before.at(2), before.at(1));  // lines still waiting may bring two at once
  EXPECT_EQ(receiver.storedRecordCount(), 0u);
}

// A channel closed mid-dump yields nothing; so does a silent receiver,
// waited for until the download is cancelled. Each time the channel is
// closed, and the next download connects anew.
TEST_F(GNS2000Test, DownloadsThatBreakOffYieldNothing) {
  std::vector<GNS2000Emulator::Record> records;
  for (int i = 0; i < 20; ++i) records.push_back(fixAt(i));
  receiver.setRecords(records);
  receiver.setMisbehaviour({.hangUpAfterDumpSentences = 2});
  EXPECT_FALSE(download());
  // Lines of the dump may still wait unhandled when the close is heard.
  EXPECT_NE(driver.protocolCommand(), GNS2000::kStateFinished);
  EXPECT_FALSE(driver.lastStatus());

  receiver.setMisbehaviour({.silent = true});
  auto pending = std::async(std::launch::async, [this] { return download(); });
  EXPECT_EQ(pending.wait_for(200ms), std::future_status::timeout);
  cancelRunningDownloads();
  ASSERT_EQ(pending.wait_for(10s), std::future_status::ready);
  EXPECT_FALSE(pending.get());
  EXPECT_FALSE(driver.deleteTracksFromDevice("", {}));  // refused while cancelled
  resumeDownloads();
  EXPECT_TRUE(eventually([&] { return receiver.channelEnded(); }));
  EXPECT_EQ(receiver.requests().size(), 1u);  // only the one before the close

  receiver.setMisbehaviour({});
  const auto tracks = download();
  ASSERT_TRUE(tracks) << driver.lastStatus().reason();
  EXPECT_EQ(tracks->front()->loadedPointCount(), 20u);
  EXPECT_EQ(receiverDevice->connectionsOpened(), 3);
}

TEST_F(GNS2000Test, NoReceiverNoServiceNoConnection) {
  auto other = std::make_shared<EmulatedBluetoothDevice>("Headset", "00:11:22:33:44:55", loop);
  auto noGns = std::make_shared<EmulatedBluetooth>();
  noGns->add(other);
  GNS2000 lonely(noGns, loop);
  EXPECT_FALSE(lonely.importTracksFromDevice("", {}));
  EXPECT_EQ(lonely.protocolCommand(), GNS2000::kStateFailed);
  EXPECT_NE(lonely.lastStatus().reason().find("No GNS 2000 found"), std::string::npos);

  auto down = std::make_shared<EmulatedBluetooth>();
  down->setFailure("BlueZ is not running");
  GNS2000 without(down, loop);
  EXPECT_FALSE(without.deleteTracksFromDevice("", {}));
  EXPECT_EQ(without.lastStatus().reason(), "No GNS 2000 found: BlueZ is not running");

  receiverDevice->setServices({{"GNS GPS", 1}});
  EXPECT_FALSE(download());
  EXPECT_NE(driver.lastStatus().reason().find("no \"GNS GPS\" service on RFCOMM channel 3"),
            std::string::npos);
  receiverDevice->setRefusesConnections(true);
  EXPECT_FALSE(download());
  EXPECT_NE(driver.lastStatus().reason().find("cannot connect to 00:1B:C1:0A:0B:0C: Host is down"),
            std::string::npos);
  EXPECT_TRUE(receiver.requests().empty());
}

// Named by address, a receiver with another name is used; among several
// called "GNS 2000" the last one listed is.
TEST_F(GNS2000Test, ReceiverChosenByAddressOrTheLastOfItsName) {
  GNS2000Emulator second;
  second.setRecords({fixAt(5), fixAt(6)});
  auto renamed = std::make_shared<EmulatedBluetoothDevice>("Bike GPS", "00:1b:c1:00:00:07", loop, &second);
  renamed->setServices({{"GNS GPS", 3}});
  stack->add(renamed);
  driver.setReceiver("00:1B:C1:00:00:07");
  auto tracks = download();
  ASSERT_TRUE(tracks) << driver.lastStatus().reason();
  EXPECT_EQ(tracks->front()->loadedPointCount(), 2u);

  auto twin = std::make_shared<EmulatedBluetoothDevice>("GNS 2000", "00:1B:C1:00:00:08", loop, &second);
  twin->setServices({{"GNS GPS", 3}});
  stack->add(twin);
  driver.setReceiver("");
  tracks = download();
  ASSERT_TRUE(tracks);
  EXPECT_EQ(twin->connectionsOpened(), 1);
  EXPECT_EQ(receiverDevice->connectionsOpened(), 0);
  auto receivers = GNS2000::pairedReceivers(*stack);
  ASSERT_TRUE(receivers);
  ASSERT_EQ(receivers->size(), 2u);
  EXPECT_EQ(receivers->back().address, "00:1B:C1:00:00:08");
  EXPECT_TRUE(receivers->back().connected);
}

// Waiting on the loop that has to do the work would never end.
TEST_F(GNS2000Test, RefusesToWaitOnTheLoopThread) {
  std::promise<bool> result;
  loop.post([&] { result.set_value(driver.importTracksFromDevice("", {}).has_value()); });
  auto answer = result.get_future();
  ASSERT_EQ(answer.wait_for(5s), std::future_status::ready);
  EXPECT_FALSE(answer.get());
  EXPECT_EQ(receiverDevice->connectionsOpened(), 0);
}

// What the receiver's stream never sends: broken sentences and records.
TEST(GNS2000Sentences, BrokenOnesAreRefused) {
  EXPECT_TRUE(GNS2000::splitResponse("$PMTK001,184,3*3d"));  // either case
  for (const char* bad : {"$PMTKLOX,1,0,FFFFFFFF*75", "$PMTKLOX*3D", "$PMTKLOX,1*0*1"}) {
    EXPECT_FALSE(GNS2000::splitResponse(bad)) << bad;
  }
  for (const std::string& bad : {std::string(32, 'F'), std::string("0011223344556677889900112233445G")}) {
    EXPECT_FALSE(GNS2000::decodeLocusRecord(bad)) << bad;
  }
}

}  // namespace
}  // namespace kvtrack
