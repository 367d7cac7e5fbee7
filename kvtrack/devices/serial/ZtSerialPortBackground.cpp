// The background reader and writer of a serial port, reporting to its delegate.

#include "kvtrack/devices/serial/ZtSerialPort.h"

#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "kvtrack/devices/serial/ZtSerialWake.h"
#include "kvtrack/support/Log.h"

namespace kvtrack {

namespace {

// Small pieces, so that progress reports come often and a stop request is
// seen soon even on a slow line.
constexpr std::size_t kWritePiece = 64;

// A background thread taken out of the port so that it can be joined without
// holding the lock; nothing when the caller is that thread itself (a delegate
// that stops or restarts its own reader or writer): it then ends by itself
// and is joined when the next one starts, or left to end when the port goes.
std::thread takeForJoin(std::thread& thread) {
  if (!thread.joinable() || thread.get_id() == std::this_thread::get_id()) return {};
  return std::move(thread);
}

void join(std::thread thread) {
  if (thread.joinable()) thread.join();
}

}  // namespace

bool ZtSerialPort::readDataInBackground() {
  {
    std::lock_guard lock(backgroundLock_);
    if (!isOpen() || reading_) return false;
    join(takeForJoin(reader_));  // the last reader has ended by itself
  }
  std::lock_guard lock(backgroundLock_);
  if (!isOpen() || reading_ || reader_.joinable()) return false;
  if (!detail::makeWakePipe(readerStop_[0], readerStop_[1])) return false;
  reading_ = true;
  reader_ = std::thread([this, stop = readerStop_[0].get()] { backgroundReadLoop(stop); });
  return true;
}

void ZtSerialPort::stopReadInBackground() {
  std::thread reader;
  {
    std::lock_guard lock(backgroundLock_);
    reading_ = false;
    detail::signalWake(readerStop_[1]);
    reader = takeForJoin(reader_);
  }
  join(std::move(reader));
}

void ZtSerialPort::backgroundReadLoop(int stopFd) {
  ZtSerialError ended;
  for (;;) {
    const int fd = fileDescriptor_;
    const int ready = waitForBackgroundRead(fd, stopFd);
    if (ready == 0) break;  // asked to stop
    if (ready < 0) {
      ended.code = ZtSerialErrorFatal;
      break;
    }
    Data data(kBufferSize);
    ssize_t got;
    {
      std::lock_guard lock(readLock_);
      do {
        got = calls_.read(fd, data.data(), data.size());
      } while (got < 0 && errno == EINTR);
    }
    if (got <= 0) {
      ended.code = ZtSerialErrorFatal;
      if (got < 0) ended.posixError = errno;
      logf("serial port: {} stopped answering the background reader", bsdPath_);
      break;
    }
    data.resize(static_cast<std::size_t>(got));
    ended.bytesRead += data.size();
    if (auto listener = delegate()) listener->serialPortReadData(*this, data);
  }
  reading_ = false;
  if (auto listener = delegate()) listener->serialPortReadEnded(*this, ended);
}

// 1 when the port has something, 0 when asked to stop, -1 when the port
// failed, closed or was cancelled.
int ZtSerialPort::waitForBackgroundRead(int fd, int stopFd) {
  for (;;) {
    if (!reading_) return 0;
    if (fd < 0 || cancelled_) return -1;
    struct pollfd watch[3] = {{stopFd, POLLIN, 0}, {wakeRead_.get(), POLLIN, 0}, {fd, POLLIN, 0}};
    const int ready = ::poll(watch, 3, -1);
    if (ready < 0 && errno == EINTR) continue;
    if (ready < 0) {
      logf("serial port: waiting on {} failed: {}", bsdPath_, std::strerror(errno));
      return -1;
    }
    if (watch[0].revents != 0 || !reading_) return 0;
    if (watch[1].revents != 0) return fileDescriptor_ < 0 ? 0 : -1;  // closed: a stop; else cancelled
    // A hang-up shows as POLLHUP; the read then tells the failure.
    if (watch[2].revents != 0) return 1;
  }
}

bool ZtSerialPort::writeDataInBackground(Data data) {
  {
    std::lock_guard lock(backgroundLock_);
    if (!isOpen() || writing_ || data.empty()) return false;
    join(takeForJoin(writer_));  // the last writer has ended by itself
  }
  std::lock_guard lock(backgroundLock_);
  if (!isOpen() || writing_ || writer_.joinable()) return false;
  if (!detail::makeWakePipe(writerStop_[0], writerStop_[1])) return false;
  writing_ = true;
  writer_ = std::thread([this, bytes = std::move(data), stop = writerStop_[0].get()]() mutable {
    backgroundWriteLoop(std::move(bytes), stop);
  });
  return true;
}

void ZtSerialPort::stopWriteInBackground() {
  std::thread writer;
  {
    std::lock_guard lock(backgroundLock_);
    writing_ = false;
    detail::signalWake(writerStop_[1]);
    writer = takeForJoin(writer_);
  }
  join(std::move(writer));
}

void ZtSerialPort::backgroundWriteLoop(Data data, int stopFd) {
  ZtSerialError outcome;
  std::uint64_t written = 0;
  while (written < data.size()) {
    const int fd = fileDescriptor_;
    if (!writing_ || fd < 0) {
      outcome.code = fd < 0 ? ZtSerialErrorFatal : ZtSerialErrorShortWrite;
      break;
    }
    struct pollfd watch[2] = {{stopFd, POLLIN, 0}, {fd, POLLOUT, 0}};
    const int ready = ::poll(watch, 2, -1);
    if (ready < 0 && errno == EINTR) continue;
    if (ready < 0 || (watch[1].revents & (POLLERR | POLLHUP | POLLNVAL)) != 0) {
      outcome.code = ZtSerialErrorFatal;
      break;
    }
    if (watch[0].revents != 0) continue;  // seen at the top of the loop
    if (!writePiece(data, written, outcome)) break;
    if (auto listener = delegate()) listener->serialPortWriteProgress(*this, written, data.size());
  }
  outcome.bytesWritten = written;
  writing_ = false;
  if (auto listener = delegate()) listener->serialPortWriteEnded(*this, outcome);
}

// Writes the next piece; false (and the outcome) when the line failed.
bool ZtSerialPort::writePiece(const Data& data, std::uint64_t& written, ZtSerialError& outcome) {
  const std::size_t length = std::min<std::size_t>(kWritePiece, data.size() - written);
  std::lock_guard lock(writeLock_);
  const int fd = fileDescriptor_;
  if (fd < 0) {
    outcome.code = ZtSerialErrorFatal;
    return false;
  }
  ssize_t done;
  do {
    done = calls_.write(fd, data.data() + written, length);
  } while (done < 0 && errno == EINTR);
  if (done <= 0) {
    outcome.code = ZtSerialErrorFatal;
    if (done < 0) outcome.posixError = errno;
    logf("serial port: background write to {} failed", bsdPath_);
    return false;
  }
  written += static_cast<std::uint64_t>(done);
  return true;
}

}  // namespace kvtrack
