#include "tests/devices/GNS2000Emulator.h"

#include "kvtrack/devices/bluetooth/DescriptorChannel.h"

#include <fmt/format.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>

namespace kvtrack::test {

namespace {

using Clock = std::chrono::steady_clock;

// The same sentence with its checksum off by one.
std::string spoiled(const std::string& body) { return nmeaSentence(body, true, true); }

template <typename T>
void put(GNS2000Emulator::Record& record, size_t offset, T value) {
  std::memcpy(record.data() + offset, &value, sizeof value);  // little-endian host
}

}  // namespace

GNS2000Emulator::Record GNS2000Emulator::record(const LocusFix& fix) {
  Record bytes{};
  put(bytes, 0, fix.time);
  bytes[4] = fix.fixType;
  put(bytes, 5, fix.latitude);
  put(bytes, 9, fix.longitude);
  put(bytes, 13, fix.height);
  uint8_t sum = 0;
  for (size_t i = 0; i < 15; ++i) sum ^= bytes[i];
  bytes[15] = sum;
  return bytes;
}

GNS2000Emulator::Record GNS2000Emulator::emptyRecord() {
  Record bytes;
  bytes.fill(0xFF);
  return bytes;
}

GNS2000Emulator::~GNS2000Emulator() { detach(); }

void GNS2000Emulator::attach(UniqueFd descriptor) {
  detach();
  descriptor_ = std::move(descriptor);
  stopping_ = false;
  ended_ = false;
  hungUp_ = false;
  {
    std::lock_guard lock(mutex_);
    streaming_ = !misbehaviour_.silent;
  }
  thread_ = std::thread([this, fd = descriptor_.get()] { run(fd); });
}

void GNS2000Emulator::detach() {
  stopping_ = true;
  if (thread_.joinable()) thread_.join();
  descriptor_.reset();
}

bool GNS2000Emulator::send(int descriptor, const std::string& bytes) {
  {
    std::lock_guard lock(mutex_);
    for (size_t at = bytes.find('$'); at != std::string::npos; at = bytes.find('$', at + 1)) ++sentCount_;
  }
  return ::send(descriptor, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
}

std::string GNS2000Emulator::nextFix() {
  int count = 0;
  int bad = 0;
  {
    std::lock_guard lock(mutex_);
    count = sentCount_;
    bad = misbehaviour_.badFirstSentences;
  }
  const std::string body = count % 2 == 0
                               ? "GPGGA,120000.000,4807.0380,N,01131.0000,E,1,08,0.9,545.4,M,46.9,M,,0000"
                               : "GPRMC,120000.000,A,4807.0380,N,01131.0000,E,0.13,309.62,120598,,,A";
  return count < bad ? spoiled(body) : sentence(body);
}

void GNS2000Emulator::run(int descriptor) {
  std::string pending;
  size_t noise = 0;
  {
    std::lock_guard lock(mutex_);
    noise = misbehaviour_.silent ? 0 : misbehaviour_.noiseFirst;
  }
  std::string bytes(noise, '\0');
  for (size_t i = 0; i < noise; ++i) bytes[i] = static_cast<char>((i * 37 + 1) % 251 | 0x80);
  if (noise > 0) ::send(descriptor, bytes.data(), bytes.size(), MSG_NOSIGNAL);
  auto nextTick = Clock::now();
  while (!stopping_ && !hungUp_) {
    const auto wait = std::chrono::duration_cast<std::chrono::milliseconds>(nextTick - Clock::now());
    pollfd watch{descriptor, POLLIN, 0};
    if (::poll(&watch, 1, static_cast<int>(std::max<int64_t>(wait.count(), 0))) > 0) {
      char bytes[512];
      const ssize_t count = ::read(descriptor, bytes, sizeof bytes);
      if (count <= 0) {
        ended_ = true;  // the driver closed its end
        return;
      }
      pending.append(bytes, static_cast<size_t>(count));
      for (size_t end; !hungUp_ && (end = pending.find("\r\n")) != std::string::npos;) {
        handleRequest(pending.substr(0, end), descriptor);
        pending.erase(0, end + 2);
      }
    }
    if (Clock::now() >= nextTick) {
      if (streaming_ && !hungUp_) send(descriptor, nextFix());
      nextTick += interval_;
    }
  }
}

void GNS2000Emulator::handleRequest(const std::string& line, int descriptor) {
  bool obeyErase = false;
  {
    std::lock_guard lock(mutex_);
    requests_.push_back(line);
    sentencesBefore_.push_back(sentCount_);
    if (line == "$PGNS,C*65" && ignoredErases_++ >= misbehaviour_.ignoredEraseRequests) {
      records_.clear();
      obeyErase = true;
    }
  }
  if (line == "$PGNS,R*74") sendDump(descriptor);
  if (obeyErase) send(descriptor, sentence("PMTK001,184,3"));
}

void GNS2000Emulator::sendDump(int descriptor) {
  std::vector<Record> records;
  Misbehaviour faults;
  {
    std::lock_guard lock(mutex_);
    records = records_;
    faults = misbehaviour_;
  }
  const size_t count = (records.size() + recordsPerSentence_ - 1) / recordsPerSentence_;
  send(descriptor, sentence(fmt::format("PMTKLOX,0,{}", count)));
  for (size_t i = 0; i < count; ++i) {
    if (static_cast<int>(i) == faults.hangUpAfterDumpSentences) {
      hungUp_ = true;
      ::shutdown(descriptor, SHUT_RDWR);
      return;
    }
    std::string body = fmt::format("PMTKLOX,1,{}", i);
    for (size_t r = i * recordsPerSentence_; r < std::min(records.size(), (i + 1) * recordsPerSentence_);
         ++r) {
      for (size_t word = 0; word < 4; ++word) {
        body += ',';
        for (size_t b = 0; b < 4; ++b) body += fmt::format("{:02X}", records[r][word * 4 + b]);
      }
    }
    const std::string text = static_cast<int>(i) == faults.badDumpSentence ? spoiled(body) : sentence(body);
    if (static_cast<int>(i) == faults.splitDumpSentence) {
      send(descriptor, text.substr(0, text.size() / 2));
      std::this_thread::sleep_for(std::chrono::milliseconds(30));
      send(descriptor, text.substr(text.size() / 2));
    } else if (faults.endWithLastData && i + 1 == count) {
      streaming_ = false;
      send(descriptor, text + sentence("PMTKLOX,2"));
      return;
    } else {
      send(descriptor, text);
    }
  }
  send(descriptor, sentence("PMTKLOX,2"));
}

EmulatedBluetoothDevice::EmulatedBluetoothDevice(std::string name, std::string address, RunLoop& loop,
                                                 GNS2000Emulator* receiver)
    : name_(std::move(name)), address_(std::move(address)), loop_(loop), receiver_(receiver) {}

Status EmulatedBluetoothDevice::openConnection() {
  if (refuses_) return Status::failure("Host is down");
  connected_ = true;
  ++opened_;
  return {};
}

Status EmulatedBluetoothDevice::closeConnection() {
  connected_ = false;
  return {};
}

Status EmulatedBluetoothDevice::performSDPQuery(std::function<void(const Status&)> completion) {
  loop_.post([completion = std::move(completion)] { completion(Status()); });
  return {};
}

Result<std::shared_ptr<RfcommChannel>> EmulatedBluetoothDevice::openRFCOMMChannelSync(
    uint8_t channelID, std::weak_ptr<RfcommChannelDelegate> delegate) {
  bool listening = false;
  for (const auto& service : services_) listening |= service.rfcommChannelID == channelID;
  if (receiver_ == nullptr || !listening) return Status::failure("Connection refused");
  int ends[2] = {-1, -1};
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
    return Status::failure(std::string("socketpair: ") + std::strerror(errno));
  }
  receiver_->attach(UniqueFd(ends[1]));
  auto channel = DescriptorChannel::start(UniqueFd(ends[0]), loop_, std::move(delegate));
  if (!channel) return channel.status();
  return std::shared_ptr<RfcommChannel>(std::move(*channel));
}

Result<std::vector<std::shared_ptr<BluetoothDevice>>> EmulatedBluetooth::pairedDevices() {
  if (failure_) return Status::failure(*failure_);
  return devices_;
}

}  // namespace kvtrack::test
