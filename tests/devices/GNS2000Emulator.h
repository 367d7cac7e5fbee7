#pragma once
// An emulated GNS 2000 receiver, and an emulated Bluetooth stack around it.
//
// The receiver speaks on one end of a socket pair, byte for byte as the
// real one: it streams NMEA fix sentences ($GPGGA, $GPRMC) every interval,
// answers "$PGNS,R*74" with its log as MediaTek LOCUS sentences
// ($PMTKLOX,0,<count> / $PMTKLOX,1,<n>,<24 words> / $PMTKLOX,2) made from
// its 16-byte records, and "$PGNS,C*65" by clearing them and sending
// "$PMTK001,184,3". Misbehaviours are chosen before the channel opens.
//
// EmulatedBluetooth lists paired devices; the receiver's RFCOMM channel is
// the driver's real DescriptorChannel on the other end of the socket pair.

#include "kvtrack/devices/bluetooth/BluetoothDevice.h"
#include "kvtrack/support/RunLoop.h"
#include "kvtrack/support/UniqueFd.h"
#include "tests/devices/LoggerWire.h"

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace kvtrack::test {

struct LocusFix {
  int32_t time = 0;  // seconds since 1970
  uint8_t fixType = 1;
  float latitude = 0, longitude = 0;
  int16_t height = 0;  // metres
};

class GNS2000Emulator {
 public:
  using Record = std::array<uint8_t, 16>;

  struct Misbehaviour {
    int badFirstSentences = 0;          // streamed sentences with a wrong checksum, first of all
    int badDumpSentence = -1;           // this data sentence (0-based) with a wrong checksum
    int splitDumpSentence = -1;         // this data sentence in two writes, 30 ms apart
    bool endWithLastData = false;       // last data sentence and end in one write, then silence
    int hangUpAfterDumpSentences = -1;  // close the channel after this many data sentences
    int ignoredEraseRequests = 0;       // erase requests passed over before one is obeyed
    bool silent = false;                // never sends anything
    size_t noiseFirst = 0;              // bytes of noise without a line end before the stream
  };

  static Record record(const LocusFix& fix);
  static Record emptyRecord();
  /// "$" body "*" checksum (upper-case hex, as the receiver writes it) CR LF.
  static std::string sentence(const std::string& body) { return nmeaSentence(body, true); }

  GNS2000Emulator() = default;
  ~GNS2000Emulator();
  GNS2000Emulator(const GNS2000Emulator&) = delete;
  GNS2000Emulator& operator=(const GNS2000Emulator&) = delete;

  void setRecords(std::vector<Record> records) { lockedSet(mutex_, records_, std::move(records)); }
  void setRecordsPerSentence(size_t count) { recordsPerSentence_ = count; }
  void setMisbehaviour(const Misbehaviour& misbehaviour) { lockedSet(mutex_, misbehaviour_, misbehaviour); }

  /// Starts talking on the descriptor (a new channel replaces the old one).
  void attach(UniqueFd descriptor);
  /// Streams again after an end-with-last-data silence.
  void resumeStreaming() { streaming_ = true; }
  /// Stops talking and closes its end.
  void detach();

  /// Every request line received (without CR LF), in order.
  std::vector<std::string> requests() const { return lockedCopy(mutex_, requests_); }
  /// How many sentences the receiver had sent when each request arrived.
  std::vector<int> sentencesBeforeRequests() const { return lockedCopy(mutex_, sentencesBefore_); }
  size_t storedRecordCount() const { return lockedCopy(mutex_, records_).size(); }
  /// True once the driver's end of the channel has gone.
  bool channelEnded() const { return ended_.load(); }

 private:
  void run(int descriptor);
  void handleRequest(const std::string& line, int descriptor);
  void sendDump(int descriptor);
  bool send(int descriptor, const std::string& bytes);
  std::string nextFix();

  mutable std::mutex mutex_;
  std::vector<Record> records_;
  std::vector<std::string> requests_;
  std::vector<int> sentencesBefore_;
  Misbehaviour misbehaviour_;
  size_t recordsPerSentence_ = 6;
  std::chrono::milliseconds interval_{3};
  int sentCount_ = 0;
  int ignoredErases_ = 0;

  UniqueFd descriptor_;
  std::atomic<bool> stopping_{false};
  std::atomic<bool> streaming_{true};
  std::atomic<bool> ended_{false};
  bool hungUp_ = false;
  std::thread thread_;
};

/// A paired device; channel 3 of a receiver device leads to its emulator.
class EmulatedBluetoothDevice final : public BluetoothDevice {
 public:
  EmulatedBluetoothDevice(std::string name, std::string address, RunLoop& loop,
                          GNS2000Emulator* receiver = nullptr);

  void setServices(std::vector<BluetoothServiceRecord> services) { services_ = std::move(services); }
  void setRefusesConnections(bool refuses) { refuses_ = refuses; }
  int connectionsOpened() const { return opened_; }

  std::string name() const override { return name_; }
  std::string addressString() const override { return address_; }
  bool isConnected() override { return connected_; }
  Status openConnection() override;
  Status closeConnection() override;
  Status performSDPQuery(std::function<void(const Status&)> completion) override;
  std::vector<BluetoothServiceRecord> services() const override { return services_; }
  Result<std::shared_ptr<RfcommChannel>> openRFCOMMChannelSync(
      uint8_t channelID, std::weak_ptr<RfcommChannelDelegate> delegate) override;

 private:
  std::string name_, address_;
  RunLoop& loop_;
  GNS2000Emulator* receiver_;
  std::vector<BluetoothServiceRecord> services_;
  std::atomic<bool> connected_{false};
  std::atomic<bool> refuses_{false};
  std::atomic<int> opened_{0};
};

class EmulatedBluetooth final : public BluetoothStack {
 public:
  void add(std::shared_ptr<BluetoothDevice> device) { devices_.push_back(std::move(device)); }
  /// Every later question fails so (no Bluetooth service running).
  void setFailure(std::string reason) { failure_ = std::move(reason); }
  Result<std::vector<std::shared_ptr<BluetoothDevice>>> pairedDevices() override;

 private:
  std::vector<std::shared_ptr<BluetoothDevice>> devices_;
  std::optional<std::string> failure_;
};

}  // namespace kvtrack::test
