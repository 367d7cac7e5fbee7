#include "tests/devices/BG728Emulator.h"

#include <fmt/format.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <optional>

namespace kvtrack::test {

std::string BG728Emulator::pointRequest(int index) { return fmt::format("$BG728,0,17,{}*00", index); }

BG728Emulator::BG728Emulator(PtyPair& pty) : pty_(pty) {}

BG728Emulator::~BG728Emulator() { stop(); }

void BG728Emulator::addFault(const std::string& request, Fault fault) {
  std::lock_guard lock(mutex_);
  faults_[request] = fault;
}

void BG728Emulator::start() {
  stopping_ = false;
  thread_ = std::thread([this] { run(); });
}

void BG728Emulator::stop() {
  stopping_ = true;
  if (thread_.joinable()) thread_.join();
}

int BG728Emulator::countOf(const std::string& request) const {
  std::lock_guard lock(mutex_);
  return static_cast<int>(std::count(requests_.begin(), requests_.end(), request));
}

void BG728Emulator::run() {
  std::string pending;
  while (!stopping_ && !hungUp_) {
    pollfd watch{pty_.master(), POLLIN, 0};
    // Short polls so that stop() is seen promptly.
    const int ready = ::poll(&watch, 1, 20);
    if (ready <= 0) continue;
    char bytes[256];
    const ssize_t count = ::read(pty_.master(), bytes, sizeof bytes);
    if (count <= 0) {
      // EIO while the driver has the slave closed; wait for it to come back.
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
      continue;
    }
    pending.append(bytes, static_cast<std::size_t>(count));
    std::size_t end;
    while (!hungUp_ && (end = pending.find('\n')) != std::string::npos) {
      std::string line = pending.substr(0, end);
      pending.erase(0, end + 1);
      if (!line.empty() && line.back() == '\r') line.pop_back();
      answer(line);
    }
  }
}

std::string BG728Emulator::answerBody(const std::string& request, bool wrongIndex) {
  std::lock_guard lock(mutex_);
  if (request == kTimezoneRequest) return fmt::format("BG728,0,3,{}", timezone_);
  if (request == kCountRequest) return fmt::format("BG728,0,16,{}", points_.size());
  if (request == kDeleteRequest) {
    points_.clear();
    return "BG728,1,18,0";
  }
  // The logger reads the index of a point request and ignores its checksum.
  constexpr std::string_view prefix = "$BG728,0,17,";
  if (request.rfind(prefix, 0) != 0) return {};
  std::size_t index = 0;
  const char* const end = request.data() + request.size();
  const auto [after, error] = std::from_chars(request.data() + prefix.size(), end, index);
  if (error != std::errc() || after == end || *after != '*') return {};
  if (wrongIndex) ++index;
  if (index >= points_.size()) return {};
  const BG728Point& p = points_[index];
  return fmt::format("BG728,0,17,{},{},{},{},{},{}", index, p.time, p.date, p.latitude, p.longitude,
                     p.elevation);
}

void BG728Emulator::answer(const std::string& request) {
  std::optional<Fault> fault;
  {
    std::lock_guard lock(mutex_);
    requests_.push_back(request);
    if (auto it = faults_.find(request); it != faults_.end()) {
      fault = it->second;
      faults_.erase(it);
    }
  }
  if (fault == Fault::Silence) return;
  if (fault == Fault::HangUp) {
    hungUp_ = true;
    pty_.closeMaster();
    return;
  }
  const std::string body = answerBody(request, fault == Fault::WrongIndex);
  if (body.empty()) return;

  const auto sum =
      static_cast<std::uint8_t>(nmeaChecksum(body) + (alwaysWrongChecksum_ || fault == Fault::WrongChecksum));
  const std::string line = upperCaseChecksums_ ? fmt::format("${}*{:02X}\r\n", body, sum)
                                               : fmt::format("${}*{:02x}\r\n", body, sum);

  if (fault == Fault::TwoAnswersInOneWrite) {
    pty_.send(line + line);
  } else if (fault == Fault::ForeignLineFirst) {
    pty_.send(sentence("GPGGA,123519,4807.038,N,01131.000,E,1,08,0.9,545.4,M,46.9,M,,") + line);
  } else if (fault == Fault::StallMidLine) {
    pty_.send(line.substr(0, line.size() / 2));
  } else if (fault == Fault::SplitAcrossWrites) {
    pty_.send(line.substr(0, line.size() / 2));
    std::this_thread::sleep_for(splitPause_);
    pty_.send(line.substr(line.size() / 2));
  } else {
    pty_.send(line);
  }
}

}  // namespace kvtrack::test
