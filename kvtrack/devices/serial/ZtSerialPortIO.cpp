// Reading with a time-out and writing, as bytes and as text.

#include "kvtrack/devices/serial/ZtSerialPort.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>

#include "kvtrack/support/Log.h"

namespace kvtrack {

/// When a read is done besides the time-out.
struct ZtSerialPort::ReadGoal {
  bool stopAfterCount = false;
  std::size_t count = 0;
  bool stopAtChar = false;
  std::uint8_t stopChar = 0;

  std::size_t limit() const { return stopAfterCount ? std::min(count, kBufferSize) : kBufferSize; }
};

/// How far a read has come.
struct ZtSerialPort::ReadState {
  std::size_t have = 0;
  int code = ZtSerialErrorTimeout;
  int endCode = ZtSerialEndNone;
  int posixError = 0;
};

std::optional<ZtSerialPort::Data> ZtSerialPort::readCore(const ReadGoal& goal, ZtSerialError* error) {
  std::lock_guard lock(readLock_);
  ReadState state;
  if (!refuseRead(goal, state)) readLoop(fileDescriptor_, goal, state);
  if (error) {
    *error = ZtSerialError{};
    error->code = state.code;
    error->bytesRead = state.have;
    error->endCode = state.code == ZtSerialErrorNone ? state.endCode : ZtSerialEndNone;
    error->posixError = state.posixError;
  }
  if (state.have == 0 || state.code == ZtSerialErrorFatal) return std::nullopt;
  return Data(buffer_, buffer_ + state.have);
}

// True when the read ends before any waiting; the state says how.
bool ZtSerialPort::refuseRead(const ReadGoal& goal, ReadState& state) const {
  if (fileDescriptor_ < 0) {
    state.code = ZtSerialErrorFatal;
    logf("serial port: read from {} while closed", bsdPath_);
    return true;
  }
  if (cancelled_) {
    state.code = ZtSerialErrorFatal;
    logLine("serial port: read cancelled");
    return true;
  }
  if (goal.stopAfterCount && goal.count == 0) {
    state.code = ZtSerialErrorNone;
    state.endCode = ZtSerialEndExactCount;
    return true;
  }
  return false;
}

void ZtSerialPort::readLoop(int fd, const ReadGoal& goal, ReadState& state) {
  using Clock = std::chrono::steady_clock;
  long long remaining = static_cast<long long>(readTimeout_ * 1000000.0);
  if (remaining < 1) return;  // a time-out of 0 reads nothing
  const auto start = Clock::now();
  for (;;) {
    const int waited = waitReadable(fd, remaining, state);
    if (waited < 0) return;
    if (waited > 0 && readOnce(fd, goal, state)) return;
    // The whole time since the start is subtracted on every pass, so the
    // wait shrinks faster than real time after several partial reads. The
    // drivers' time-outs are tuned to this; keep it.
    remaining -= std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - start).count();
    if (remaining < 1) {
      state.code = ZtSerialErrorTimeout;
      return;
    }
  }
}

// 1 when the port is readable, 0 after a signal (wait again), -1 when the
// read is over (time-out, failure, cancel or close; the state says which).
int ZtSerialPort::waitReadable(int fd, long long microseconds, ReadState& state) {
  fd_set readable;
  FD_ZERO(&readable);
  FD_SET(fd, &readable);
  const int wake = wakeRead_.get();
  if (wake >= 0) FD_SET(wake, &readable);
  const long long wait = std::max(microseconds, 1LL);
  struct timeval tv {};
  tv.tv_sec = static_cast<time_t>(wait / 1000000);
  tv.tv_usec = static_cast<suseconds_t>(wait % 1000000);
  const int ready = calls_.select(std::max(fd, wake) + 1, &readable, nullptr, nullptr, &tv);
  if (ready < 0 && errno == EINTR) return 0;  // a signal is no reason to give up; the clock still runs
  if (ready < 0) {
    state.code = ZtSerialErrorFatal;
    state.posixError = errno;
    logf("serial port: waiting on {} failed: {}", bsdPath_, std::strerror(state.posixError));
    return -1;
  }
  if (ready == 0) return -1;  // time-out: the code is still 100
  if (cancelled_ || fileDescriptor_ < 0 || (wake >= 0 && FD_ISSET(wake, &readable))) {
    state.code = ZtSerialErrorFatal;
    logLine(fileDescriptor_ < 0 ? "serial port: read ended by close" : "serial port: read cancelled");
    return -1;
  }
  return 1;
}

// One read after select said there is something; true when the read is done.
bool ZtSerialPort::readOnce(int fd, const ReadGoal& goal, ReadState& state) {
  const ssize_t got = calls_.read(fd, buffer_ + state.have, goal.limit() - state.have);
  if (got < 0 && errno == EINTR) return false;  // retried on the next pass, within the remaining time
  if (got <= 0) {
    state.code = ZtSerialErrorFatal;
    if (got < 0) state.posixError = errno;
    logf("serial port: {} stopped answering ({})", bsdPath_,
         got < 0 ? std::strerror(state.posixError) : "end of file");
    return true;
  }
  state.have += static_cast<std::size_t>(got);
  if (goal.stopAfterCount && state.have >= goal.count) {
    state.code = ZtSerialErrorNone;
    state.endCode = state.have == goal.count ? ZtSerialEndExactCount : ZtSerialEndMoreThanCount;
    return true;
  }
  if (goal.stopAtChar && buffer_[state.have - 1] == goal.stopChar) {
    state.code = ZtSerialErrorNone;
    state.endCode = ZtSerialEndStopChar;
    return true;
  }
  if (state.have >= kBufferSize) {
    state.code = ZtSerialErrorBufferFull;
    return true;
  }
  return false;
}

std::optional<ZtSerialPort::Data> ZtSerialPort::readBytes(std::size_t count, ZtSerialError* error) {
  return readCore({.stopAfterCount = true, .count = count}, error);
}
std::optional<ZtSerialPort::Data> ZtSerialPort::readUpToChar(std::uint8_t stop, ZtSerialError* error) {
  return readCore({.stopAtChar = true, .stopChar = stop}, error);
}
std::optional<ZtSerialPort::Data> ZtSerialPort::readBytesUpToChar(std::size_t count, std::uint8_t stop,
                                                                  ZtSerialError* error) {
  return readCore({.stopAfterCount = true, .count = count, .stopAtChar = true, .stopChar = stop}, error);
}
std::optional<ZtSerialPort::Data> ZtSerialPort::readData(ZtSerialError* error) {
  return readCore({}, error);
}

namespace {
std::optional<std::string> asText(const std::optional<ZtSerialPort::Data>& data, ZtStringEncoding encoding) {
  if (!data) return std::nullopt;
  return decodeSerialText(*data, encoding);
}
}  // namespace

std::optional<std::string> ZtSerialPort::readStringUsingEncoding(ZtStringEncoding encoding,
                                                                 ZtSerialError* error) {
  return asText(readData(error), encoding);
}
std::optional<std::string> ZtSerialPort::readBytes(std::size_t count, ZtStringEncoding encoding,
                                                   ZtSerialError* error) {
  return asText(readBytes(count, error), encoding);
}
std::optional<std::string> ZtSerialPort::readUpToChar(std::uint8_t stop, ZtStringEncoding encoding,
                                                      ZtSerialError* error) {
  return asText(readUpToChar(stop, error), encoding);
}
std::optional<std::string> ZtSerialPort::readBytesUpToChar(std::size_t count, std::uint8_t stop,
                                                           ZtStringEncoding encoding, ZtSerialError* error) {
  return asText(readBytesUpToChar(count, stop, error), encoding);
}
std::optional<std::string> ZtSerialPort::readString(ZtSerialError* error) {
  return readStringUsingEncoding(ZtStringEncoding::UTF8, error);
}

// --- Writing --------------------------------------------------------------

bool ZtSerialPort::writeBytes(const void* bytes, std::size_t length, ZtSerialError* error) {
  std::lock_guard lock(writeLock_);
  ZtSerialError outcome;
  const int fd = fileDescriptor_;
  if (length == 0) {
    outcome.code = ZtSerialErrorNothingToWrite;
  } else if (fd < 0) {
    outcome.code = ZtSerialErrorFatal;
    logf("serial port: write to {} while closed", bsdPath_);
  } else {
    ssize_t done;
    do {
      done = calls_.write(fd, bytes, length);
    } while (done < 0 && errno == EINTR);
    if (done < 0) {
      outcome.code = ZtSerialErrorFatal;
      outcome.posixError = errno;
      logf("serial port: write to {} failed: {}", bsdPath_, std::strerror(outcome.posixError));
    } else {
      outcome.bytesWritten = static_cast<std::uint64_t>(done);
      outcome.code = outcome.bytesWritten < length ? ZtSerialErrorShortWrite : ZtSerialErrorNone;
    }
  }
  if (error) *error = outcome;
  return outcome.code == ZtSerialErrorNone;
}

bool ZtSerialPort::writeData(const Data& data, ZtSerialError* error) {
  return writeBytes(data.data(), data.size(), error);
}

bool ZtSerialPort::writeString(std::string_view text, ZtStringEncoding encoding, ZtSerialError* error) {
  const std::optional<Data> bytes = encodeSerialText(text, encoding);
  if (!bytes) {
    logf("serial port: the text for {} cannot be written in the encoding asked for", bsdPath_);
    return writeBytes(nullptr, 0, error);  // nothing to write
  }
  return writeData(*bytes, error);
}

bool ZtSerialPort::writeString(std::string_view text, ZtSerialError* error) {
  return writeBytes(text.data(), text.size(), error);
}

}  // namespace kvtrack
