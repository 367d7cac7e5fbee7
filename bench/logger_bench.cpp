// Logger decoding figures against the line speed of a 115,200-baud port.
//
// GT-800: a memory image of N records (100,000 by default) goes through the
// emulated logger on a pty, without byte timing, into
// IGotUGT800::importTracksFromDevice.
//
// BG-728: answer lines taken apart with BG728::splitResponse, the driver's
// public parser. Whole downloads are timed by bg728_bench.
//
// Usage: logger_bench [GT800_RECORDS] [BG728_LINES]

#include "kvtrack/devices/bg728/BG728.h"
#include "kvtrack/devices/gt800/IGotUGT800.h"
#include "kvtrack/support/Log.h"
#include "tests/devices/BG728Emulator.h"
#include "tests/devices/GT800Emulator.h"
#include "tests/devices/PtyPair.h"

#include <fmt/format.h>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
using kvtrack::test::BG728Emulator;
using kvtrack::test::GT800Emulator;
using kvtrack::test::PtyPair;

constexpr double kBaud = 115200.0;
constexpr double kBytesPerSecond = kBaud / 10.0;  // 8N1: ten bits a byte

double seconds(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

std::vector<std::uint8_t> record(std::size_t index) {
  std::vector<std::uint8_t> r(GT800Emulator::kRecordSize, 0);
  auto put32 = [&r](std::size_t at, std::int32_t value) {
    const auto v = static_cast<std::uint32_t>(value);
    r[at] = static_cast<std::uint8_t>(v >> 24);
    r[at + 1] = static_cast<std::uint8_t>(v >> 16);
    r[at + 2] = static_cast<std::uint8_t>(v >> 8);
    r[at + 3] = static_cast<std::uint8_t>(v);
  };
  // One point a second from 1 May, 00:00 on; a new track every 10,000 records.
  const std::size_t second = index;
  const int day = 1 + static_cast<int>(second / 86400);
  const int hour = static_cast<int>(second / 3600 % 24);
  const int minute = static_cast<int>(second / 60 % 60);
  const int milliseconds = static_cast<int>(second % 60) * 1000;
  r[0] = index % 10000 == 0 ? 0x40 : 0x00;
  r[1] = static_cast<std::uint8_t>(((2024 % 16) << 4) | 5);
  r[2] = static_cast<std::uint8_t>((day << 3) | (hour >> 2));
  r[3] = static_cast<std::uint8_t>(((hour & 3) << 6) | minute);
  r[4] = static_cast<std::uint8_t>(milliseconds >> 8);
  r[5] = static_cast<std::uint8_t>(milliseconds & 0xFF);
  put32(12, 470000000 + static_cast<std::int32_t>(index) * 10);
  put32(16, 80000000 + static_cast<std::int32_t>(index) * 10);
  put32(20, 50000 + static_cast<std::int32_t>(index % 1000));
  r[29] = 0x58;
  return r;
}

int benchGT800(std::size_t count) {
  PtyPair pty;
  if (!pty.valid()) {
    fmt::print(stderr, "logger_bench: no pseudo-terminal\n");
    return 1;
  }
  GT800Emulator logger(pty);
  for (std::size_t i = 0; i < count; ++i) logger.putRecord(i, record(i));
  logger.setRecordCount(static_cast<std::uint32_t>(count));
  logger.start();

  kvtrack::IGotUGT800 driver;
  const auto start = Clock::now();
  const auto tracks = driver.importTracksFromDevice(pty.slavePath(), {});
  const double elapsed = seconds(start);
  logger.stop();
  if (!tracks) {
    fmt::print(stderr, "logger_bench: the GT-800 download failed\n");
    return 1;
  }
  std::size_t points = 0;
  for (const auto& track : *tracks) points += track->loadedPointCount();

  const double perSecond = static_cast<double>(count) / elapsed;
  const double lineRate = kBytesPerSecond / static_cast<double>(GT800Emulator::kRecordSize);
  fmt::print("GT-800: {} records ({} tracks, {} points) downloaded and decoded through a pty in {:.3f} s\n",
             count, tracks->size(), points, elapsed);
  fmt::print("GT-800: {:.0f} records/s; 115,200 baud carries {:.0f} records/s ({} bytes each): {:.1f} times line speed\n",
             perSecond, lineRate, GT800Emulator::kRecordSize, perSecond / lineRate);
  return points == count ? 0 : 1;
}

int benchBG728(std::size_t count) {
  std::vector<std::string> lines;
  lines.reserve(count);
  std::size_t bytes = 0;
  for (std::size_t i = 0; i < count; ++i) {
    const std::string body =
        fmt::format("BG728,0,17,{},{:02}:{:02}:{:02},031524,{:.6f},{:.6f},{:.1f}", i, i / 3600 % 24,
                    i / 60 % 60, i % 60, 48.0 + static_cast<double>(i) * 1e-5,
                    11.5 + static_cast<double>(i) * 1e-5, 500.0 + static_cast<double>(i % 100));
    std::string line = BG728Emulator::sentence(body);
    bytes += line.size();
    line.resize(line.size() - 2);  // the driver parses lines without CR LF
    lines.push_back(std::move(line));
  }

  std::size_t parsed = 0;
  const auto start = Clock::now();
  for (const auto& line : lines) {
    const auto response = kvtrack::BG728::splitResponse(line);
    if (response && response->arguments.size() == 6) ++parsed;
  }
  const double elapsed = seconds(start);

  const double perSecond = static_cast<double>(count) / elapsed;
  const double meanLength = static_cast<double>(bytes) / static_cast<double>(count);
  const double lineRate = kBytesPerSecond / meanLength;
  fmt::print("BG-728: {} answer lines (mean {:.1f} bytes) parsed by BG728::splitResponse in {:.4f} s\n",
             count, meanLength, elapsed);
  fmt::print("BG-728: {:.0f} lines/s; 115,200 baud carries {:.0f} lines/s: {:.0f} times line speed\n",
             perSecond, lineRate, perSecond / lineRate);
  return parsed == count ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  const std::size_t records = argc > 1 ? std::strtoul(argv[1], nullptr, 10) : 100000;
  const std::size_t lines = argc > 2 ? std::strtoul(argv[2], nullptr, 10) : 10000;
  kvtrack::setLogToStandardError(false);
  const int gt800 = benchGT800(records);
  const int bg728 = benchBG728(lines);
  return gt800 != 0 || bg728 != 0 ? 1 : 0;
}
