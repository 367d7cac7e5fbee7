#include "tests/devices/GT800Emulator.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace kvtrack::test {

namespace {

constexpr std::uint8_t kLead = 0x93;
constexpr std::uint8_t kNmeaSwitch = 0x01;
constexpr std::uint8_t kFlashRead = 0x05;
constexpr std::uint8_t kFlashWrite = 0x06;
constexpr std::uint8_t kCount = 0x0B;
constexpr std::uint8_t kOpReadId = 0x9F;
constexpr std::uint8_t kOpWriteEnable = 0x06;
constexpr std::uint8_t kOpReadStatus = 0x05;
constexpr std::uint8_t kOpSectorErase = 0x20;
constexpr std::uint8_t kOpReadData = 0x03;

std::uint32_t address24(const std::uint8_t* frame) {
  return (std::uint32_t{frame[7]} << 16) | (std::uint32_t{frame[8]} << 8) | frame[9];
}

}  // namespace

GT800Emulator::GT800Emulator(PtyPair& pty) : pty_(pty), flash_(kSectorSize * kSectorCount, 0xFF) {}

GT800Emulator::~GT800Emulator() { stop(); }

void GT800Emulator::start() {
  if (running_.exchange(true)) return;
  // Non-blocking so that a driver that stopped reading never wedges stop().
  if (pty_.master() >= 0) ::fcntl(pty_.master(), F_SETFL, ::fcntl(pty_.master(), F_GETFL) | O_NONBLOCK);
  thread_ = std::thread([this] { run(); });
}

void GT800Emulator::stop() {
  running_ = false;
  if (thread_.joinable()) thread_.join();
}

void GT800Emulator::setFault(Fault fault, std::uint8_t command, int occurrence) {
  std::lock_guard lock(mutex_);
  fault_ = fault;
  faultCommand_ = command;
  faultOccurrence_ = occurrence;
  matchingSeen_ = 0;
}

void GT800Emulator::putRecord(std::size_t index, const std::vector<std::uint8_t>& record) {
  putBytes(kSectorSize + index * kRecordSize, record);
}

void GT800Emulator::putBytes(std::size_t address, const std::vector<std::uint8_t>& bytes) {
  std::lock_guard lock(mutex_);
  for (std::size_t i = 0; i < bytes.size() && address + i < flash_.size(); ++i) {
    flash_[address + i] = bytes[i];
  }
}

void GT800Emulator::run() {
  std::vector<std::uint8_t> pending;
  std::uint8_t chunk[512];
  while (running_) {
    const int fd = pty_.master();
    if (fd < 0) break;  // hung up
    pollfd p{fd, POLLIN, 0};
    if (::poll(&p, 1, 20) <= 0) continue;
    const ssize_t n = ::read(fd, chunk, sizeof chunk);
    if (n <= 0) {
      if (n < 0 && (errno == EAGAIN || errno == EINTR)) continue;
      // No slave open right now (EIO): wait for the driver to open the port.
      ::usleep(10000);
      continue;
    }
    pending.insert(pending.end(), chunk, chunk + n);
    while (pending.size() >= 16 && running_) {
      handle(pending.data());
      pending.erase(pending.begin(), pending.begin() + 16);
    }
  }
}

std::vector<std::uint8_t> GT800Emulator::answer(const std::vector<std::uint8_t>& data) {
  std::vector<std::uint8_t> out(3 + data.size());
  out[0] = kLead;
  out[1] = static_cast<std::uint8_t>(data.size() >> 8);
  out[2] = static_cast<std::uint8_t>(data.size() & 0xFF);
  std::copy(data.begin(), data.end(), out.begin() + 3);
  return out;
}

void GT800Emulator::send(const std::vector<std::uint8_t>& bytes) {
  std::size_t done = 0;
  while (done < bytes.size() && running_) {
    const int fd = pty_.master();
    if (fd < 0) return;
    const ssize_t n = ::write(fd, bytes.data() + done, bytes.size() - done);
    if (n > 0) {
      done += static_cast<std::size_t>(n);
    } else if (n < 0 && errno != EAGAIN && errno != EINTR) {
      return;
    } else {
      pollfd p{fd, POLLOUT, 0};
      ::poll(&p, 1, 20);
    }
  }
}

void GT800Emulator::handle(const std::uint8_t* frame) {
  Writes writes;
  Fault fault = Fault::kNone;
  {
    std::lock_guard lock(mutex_);
    if (frame[0] != kLead || frameSum(frame, 16) != 0) {
      ++badFrames_;
      return;  // the logger ignores a garbled frame
    }
    if (silent_) return;
    fault = faultFor(frame);
    if (fault == Fault::kDropCommand) {
      ++badFrames_;
      return;
    }
    if (fault == Fault::kSilence || fault == Fault::kHangUp) {
      silent_ = true;
      if (fault == Fault::kSilence) return;
    } else if (!answerFrame(frame, fault, writes)) {
      return;  // unknown command: the logger stays quiet
    }
    if (fault == Fault::kGarbageBeforeAnswer && !writes.empty()) {
      std::vector<std::uint8_t> garbage(writes.front().size(), 0x5A);
      writes.insert(writes.begin(), garbage);
    }
    if (fault == Fault::kGarbageInsteadOfAnswer) {
      const std::size_t size = writes.empty() ? 3 : writes.front().size();
      writes.assign(1, std::vector<std::uint8_t>(size, 0xA5));
      silent_ = true;
    }
  }
  if (fault == Fault::kHangUp) {
    pty_.closeMaster();
    return;
  }
  for (const auto& bytes : writes) send(bytes);
}

GT800Emulator::Fault GT800Emulator::faultFor(const std::uint8_t* frame) {
  const bool flash = frame[1] == kFlashRead || frame[1] == kFlashWrite;
  const std::uint8_t key = flash ? frame[6] : frame[1];
  if (fault_ != Fault::kNone && (faultCommand_ == 0 || faultCommand_ == key)) {
    if (matchingSeen_++ == faultOccurrence_) return fault_;
  }
  return Fault::kNone;
}

bool GT800Emulator::answerFrame(const std::uint8_t* frame, Fault fault, Writes& writes) {
  const std::size_t length = (std::size_t{frame[3]} << 8) | frame[4];
  if (frame[1] == kNmeaSwitch) {
    nmeaModes_.push_back(frame[3]);
    writes.push_back(answer({}));
  } else if (frame[1] == kCount) {
    writes.push_back(answer({static_cast<std::uint8_t>((recordCount_ >> 16) & 0xFF),
                             static_cast<std::uint8_t>((recordCount_ >> 8) & 0xFF),
                             static_cast<std::uint8_t>(recordCount_ & 0xFF)}));
  } else if (frame[1] == kFlashRead && frame[6] == kOpReadId) {
    std::vector<std::uint8_t> id{0xC2, 0x20, kCapacityId};
    id.resize(length, 0xFF);
    writes.push_back(answer(id));
  } else if (frame[1] == kFlashRead && frame[6] == kOpReadStatus) {
    std::uint8_t status = writeEnabled_ ? 0x02 : 0x00;
    if (busyPollsLeft_ > 0) {
      --busyPollsLeft_;
      status |= 0x01;  // write in progress
    }
    writes.push_back(answer(std::vector<std::uint8_t>(std::max<std::size_t>(length, 1), status)));
  } else if (frame[1] == kFlashRead && frame[6] == kOpReadData) {
    answerReadData(frame, fault, writes);
  } else if (frame[1] == kFlashWrite && frame[6] == kOpWriteEnable) {
    writeEnabled_ = true;
    writes.push_back(answer({}));
  } else if (frame[1] == kFlashWrite && frame[6] == kOpSectorErase) {
    answerSectorErase(frame, writes);
  } else {
    return false;
  }
  return true;
}

void GT800Emulator::answerReadData(const std::uint8_t* frame, Fault fault, Writes& writes) {
  const std::size_t length = (std::size_t{frame[3]} << 8) | frame[4];
  const std::size_t address = address24(frame);
  std::vector<std::uint8_t> data(length, 0xFF);
  for (std::size_t i = 0; i < length && address + i < flash_.size(); ++i) data[i] = flash_[address + i];
  std::vector<std::uint8_t> ack = answer({});
  ack[1] = frame[3];
  ack[2] = frame[4];
  if (fault == Fault::kTruncatedData) data.resize(length / 2);
  if (fault == Fault::kTwoAnswersInOneWrite) {
    ack.insert(ack.end(), data.begin(), data.end());
    writes.push_back(ack);
  } else {
    writes.push_back(ack);
    writes.push_back(data);
  }
}

void GT800Emulator::answerSectorErase(const std::uint8_t* frame, Writes& writes) {
  const std::size_t sector = address24(frame) / kSectorSize;
  if (!writeEnabled_ || sector >= kSectorCount) {
    ++refusedErases_;
  } else {
    std::fill_n(flash_.begin() + static_cast<std::ptrdiff_t>(sector * kSectorSize), kSectorSize,
                std::uint8_t{0xFF});
    erased_.push_back(sector);
    busyPollsLeft_ = eraseBusyPolls_;
  }
  writeEnabled_ = false;
  writes.push_back(answer({}));
}

}  // namespace kvtrack::test
