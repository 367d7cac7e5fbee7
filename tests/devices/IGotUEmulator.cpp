#include "tests/devices/IGotUEmulator.h"

#include <algorithm>

namespace kvtrack::test {

class IGotUEmulator::Link : public HidTransport {
 public:
  explicit Link(IGotUEmulator& logger) : logger_(logger) {
    std::lock_guard lock(logger_.mutex_);
    ++logger_.linksOpened_;
    ++logger_.linksOpen_;
  }
  ~Link() override {
    std::lock_guard lock(logger_.mutex_);
    --logger_.linksOpen_;
  }
  Status sendOutputReport(std::span<const std::uint8_t> report) override { return logger_.receive(report); }
  Result<size_t> readInput(std::span<std::uint8_t> into, std::chrono::milliseconds timeout) override {
    return logger_.transmit(into, timeout);
  }

 private:
  IGotUEmulator& logger_;
};

std::vector<std::uint8_t> IGotUEmulator::record(const IGotUFix& fix) {
  std::vector<std::uint8_t> r = packedRecord(fix, 8);
  r[30] = 0x21;
  return r;
}

void IGotUEmulator::setRecords(const std::vector<std::vector<std::uint8_t>>& records) {
  std::lock_guard lock(mutex_);
  flash_.assign(kRecordStart + records.size() * kRecordSize, 0xFF);
  for (std::size_t i = 0; i < records.size(); ++i) {
    std::copy(records[i].begin(), records[i].end(), flash_.begin() + kRecordStart + i * kRecordSize);
  }
  recordCount_ = static_cast<std::uint16_t>(records.size());
}

void IGotUEmulator::setIdentity(std::uint32_t serialNumber, std::uint8_t modelByte) {
  std::lock_guard lock(mutex_);
  serialNumber_ = serialNumber;
  modelByte_ = modelByte;
}

void IGotUEmulator::setFault(Fault fault, std::uint8_t command, int occurrence, int repeat) {
  std::lock_guard lock(mutex_);
  fault_ = fault;
  faultCommand_ = command;
  faultOccurrence_ = occurrence;
  faultRepeat_ = repeat;
  seen_.clear();
}

HidTransportOpener IGotUEmulator::opener() {
  return [this]() -> Result<std::unique_ptr<HidTransport>> {
    {
      std::lock_guard lock(mutex_);
      if (unplugged_) return Status::failure("no USB device 0df7:0b80 is connected");
    }
    return std::unique_ptr<HidTransport>(std::make_unique<Link>(*this));
  };
}

bool IGotUEmulator::faultStartsAt(std::uint8_t command) {
  const int seen = seen_[command]++;
  return fault_ != Fault::kNone && command == faultCommand_ && seen == faultOccurrence_;
}

void IGotUEmulator::queue(std::initializer_list<std::uint8_t> bytes) {
  outgoing_.insert(outgoing_.end(), bytes);
}

void IGotUEmulator::queueStrays() {
  if (!faultActive_ || fault_ != Fault::kStrayAnswers) return;
  // Repeats of one answer that is not an acknowledgement.
  for (int i = 0; i < faultRepeat_; ++i) queue({0x00, 0x93, 0x93});
}

Status IGotUEmulator::receive(std::span<const std::uint8_t> report) {
  std::lock_guard lock(mutex_);
  if (unplugged_ || report.size() != 8) return Status::failure("no such device");
  if (firstHalf_.empty()) {
    faultActive_ = faultStartsAt(report[1]);
    if (faultActive_) {
      faultReached_ = true;
      if (fault_ == Fault::kSilence) silent_ = true;
      if (fault_ == Fault::kUnplug) unplugged_ = true;
      changed_.notify_all();
      if (unplugged_) return Status::failure("no such device");
    }
    firstHalf_.assign(report.begin(), report.end());
    if (!silent_) {
      queueStrays();
      queue({0x93, 0x00, 0x00});
    }
  } else {
    Frame frame{};
    std::copy(firstHalf_.begin(), firstHalf_.end(), frame.begin());
    std::copy(report.begin(), report.end(), frame.begin() + 8);
    firstHalf_.clear();
    frames_.push_back(frame);
    handleFrame(frame);
  }
  changed_.notify_all();
  return {};
}

void IGotUEmulator::handleFrame(const Frame& frame) {
  if (frameSum(frame, frame.size()) != 0 || frame[0] != 0x93) {
    ++badFrames_;
    return;
  }
  const std::vector<std::uint8_t> data = answerTo(frame);
  if (silent_) return;
  queueStrays();
  queue({0x93, static_cast<std::uint8_t>(data.size() >> 8), static_cast<std::uint8_t>(data.size())});
  outgoing_.insert(outgoing_.end(), data.begin(), data.end());
}

std::vector<std::uint8_t> IGotUEmulator::answerTo(const Frame& f) {
  switch (f[1]) {
    case 0x0A: {  // identification
      std::vector<std::uint8_t> id(10, 0);
      for (int i = 0; i < 4; ++i) id[i] = static_cast<std::uint8_t>(serialNumber_ >> (8 * i));
      id[7] = modelByte_;
      return id;
    }
    case 0x0B:  // record count
      return {0x00, static_cast<std::uint8_t>(recordCount_ >> 8), static_cast<std::uint8_t>(recordCount_)};
    case 0x05: {  // read flash
      const std::size_t size = (std::size_t{f[3]} << 8) | f[4];
      const std::size_t at = (std::size_t{f[7]} << 16) | (std::size_t{f[8]} << 8) | f[9];
      std::vector<std::uint8_t> data(size, 0xFF);
      for (std::size_t i = 0; i < size && at + i < flash_.size(); ++i) data[i] = flash_[at + i];
      return data;
    }
    default:
      return {};
  }
}

Result<size_t> IGotUEmulator::transmit(std::span<std::uint8_t> into, std::chrono::milliseconds timeout) {
  std::unique_lock lock(mutex_);
  changed_.wait_for(lock, timeout, [this] { return !outgoing_.empty() || unplugged_; });
  if (unplugged_) return Status::failure("no such device (it may have been disconnected)");
  const std::size_t count = std::min({into.size(), kPacketSize, outgoing_.size()});
  std::copy_n(outgoing_.begin(), count, into.begin());
  outgoing_.erase(outgoing_.begin(), outgoing_.begin() + static_cast<std::ptrdiff_t>(count));
  return count;
}

bool IGotUEmulator::waitForFault(std::chrono::milliseconds timeout) const {
  std::unique_lock lock(mutex_);
  return changed_.wait_for(lock, timeout, [this] { return faultReached_; });
}

}  // namespace kvtrack::test
