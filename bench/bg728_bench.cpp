// BG-728 downloads against the emulated logger on a pseudo-terminal, which
// answers every request with one line as the logger does. The driver keeps
// its real 30 s read time-out.
//
// Peers, in the same run and over a fresh pty each:
//  - raw push: the same request and answer bytes pushed through the pty in
//    bulk, with no protocol at all;
//  - raw round trips: the same lines, one request line answered by one
//    answer line, with nothing parsed.
// The wire time at 115,200 baud (8N1) of those bytes is printed as well: a
// real logger cannot be faster than that. A download that finishes is run
// three times and the fastest counted, as are the peers: the machine may be
// busy with other work meanwhile.
//
// A download that runs longer than the cap (default 120 s) is cancelled and
// its full time extrapolated from the answers it got so far.
//
// Usage: bg728_bench [--cap SECONDS] [POINTS...]   (default: 200 10000)

#include "kvtrack/devices/bg728/BG728.h"
#include "kvtrack/devices/serial/DownloadCancel.h"
#include "kvtrack/support/Log.h"
#include "tests/devices/BG728Emulator.h"
#include "tests/devices/PtyPair.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <fmt/format.h>

#include <chrono>
#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
using kvtrack::test::BG728Emulator;
using kvtrack::test::BG728Point;
using kvtrack::test::PtyPair;

constexpr double kWireBytesPerSecond = 115200.0 / 10.0;

double seconds(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

std::vector<BG728Point> points(std::size_t count) {
  std::vector<BG728Point> all;
  all.reserve(count);
  for (std::size_t i = 0; i < count; ++i) {
    all.push_back({fmt::format("{:02}:{:02}:{:02}", i / 3600 % 24, i / 60 % 60, i % 60), "031524",
                   fmt::format("{:.6f}", 48.0 + static_cast<double>(i) * 1e-5),
                   fmt::format("{:.6f}", 11.5 + static_cast<double>(i) * 1e-5),
                   fmt::format("{:.1f}", 500.0 + static_cast<double>(i % 100))});
  }
  return all;
}

// The lines of a clean download: requests the driver writes, answers the logger writes.
struct Exchange {
  std::vector<std::string> requests;
  std::vector<std::string> answers;
  std::size_t bytes = 0;
};

Exchange exchangeFor(const std::vector<BG728Point>& all) {
  Exchange e;
  e.requests = {std::string(BG728Emulator::kTimezoneRequest) + "\r\n",
                std::string(BG728Emulator::kCountRequest) + "\r\n"};
  e.answers = {BG728Emulator::sentence("BG728,0,3,0"),
               BG728Emulator::sentence(fmt::format("BG728,0,16,{}", all.size()))};
  for (std::size_t i = 0; i < all.size(); ++i) {
    const BG728Point& p = all[i];
    e.requests.push_back(BG728Emulator::pointRequest(static_cast<int>(i)) + "\r\n");
    e.answers.push_back(BG728Emulator::sentence(fmt::format("BG728,0,17,{},{},{},{},{},{}", i, p.time,
                                                            p.date, p.latitude, p.longitude, p.elevation)));
  }
  for (const auto& line : e.requests) e.bytes += line.size();
  for (const auto& line : e.answers) e.bytes += line.size();
  return e;
}

bool writeAllTo(int fd, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t done = ::write(fd, bytes.data(), bytes.size());
    if (done < 0 && errno == EINTR) continue;
    if (done <= 0) return false;
    bytes.remove_prefix(static_cast<std::size_t>(done));
  }
  return true;
}

// Reads until `count` bytes came (or the far side fails).
bool readCount(int fd, std::size_t count) {
  char chunk[4096];
  while (count > 0) {
    const ssize_t got = ::read(fd, chunk, sizeof chunk < count ? sizeof chunk : count);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) return false;
    count -= static_cast<std::size_t>(got);
  }
  return true;
}

// Reads until a chunk ends with a line end (one line is in flight at a time).
bool readLine(int fd) {
  char chunk[512];
  for (;;) {
    const ssize_t got = ::read(fd, chunk, sizeof chunk);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) return false;
    if (chunk[got - 1] == '\n') return true;
  }
}

int openSlave(const PtyPair& pty) { return ::open(pty.slavePath().c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC); }

// Every byte of the exchange through the pty, in bulk, both directions at once.
double rawPush(const Exchange& e) {
  PtyPair pty;
  const int slave = openSlave(pty);
  std::string up, down;
  for (const auto& line : e.requests) up += line;
  for (const auto& line : e.answers) down += line;
  const auto start = Clock::now();
  std::thread logger([&] {
    std::thread drain([&] { readCount(pty.master(), up.size()); });
    writeAllTo(pty.master(), down);
    drain.join();
  });
  std::thread sender([&] { writeAllTo(slave, up); });
  readCount(slave, down.size());
  sender.join();
  logger.join();
  const double elapsed = seconds(start);
  ::close(slave);
  return elapsed;
}

// The same lines as request/answer round trips, with nothing parsed.
double rawRoundTrips(const Exchange& e) {
  PtyPair pty;
  const int slave = openSlave(pty);
  const auto start = Clock::now();
  std::thread logger([&] {
    for (const auto& answer : e.answers) {
      if (!readLine(pty.master()) || !writeAllTo(pty.master(), answer)) return;
    }
  });
  for (const auto& request : e.requests) {
    if (!writeAllTo(slave, request) || !readLine(slave)) break;
  }
  logger.join();
  const double elapsed = seconds(start);
  ::close(slave);
  return elapsed;
}

struct Download {
  bool finished = false;
  std::size_t points = 0;    // points in the track when finished
  std::size_t answered = 0;  // requests answered and taken by the driver
  double seconds = 0;        // the whole run, up to the end or the cancel
  double lastAnswer = 0;     // when the driver last sent a request, i.e. took an answer
};

// Watches the requests arriving at the logger; cancels the download at the cap.
class Watchdog {
 public:
  Watchdog(const BG728Emulator& logger, double cap) : logger_(logger), cap_(cap) {
    thread_ = std::thread([this] { run(); });
  }
  ~Watchdog() { stop(); }
  void stop() {
    over_ = true;
    if (thread_.joinable()) thread_.join();
  }
  std::size_t requests() const { return requests_; }
  double lastRequest() const { return lastRequest_; }

 private:
  void run() {
    while (!over_) {
      const std::size_t now = logger_.requestCount();
      if (now != requests_) {
        requests_ = now;
        lastRequest_ = seconds(start_);
      }
      if (seconds(start_) > cap_) {
        kvtrack::cancelRunningDownloads();
        return;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
  }
  const BG728Emulator& logger_;
  const double cap_;
  const Clock::time_point start_ = Clock::now();
  std::atomic<bool> over_{false};
  std::size_t requests_ = 0;
  double lastRequest_ = 0;
  std::thread thread_;
};

Download download(const std::vector<BG728Point>& all, double cap) {
  PtyPair pty;
  BG728Emulator logger(pty);
  logger.setPoints(all);
  logger.start();
  kvtrack::BG728 driver;
  Download result;
  Watchdog watchdog(logger, cap);
  const auto start = Clock::now();
  const auto tracks = driver.importTracksFromDevice(pty.slavePath(), {});
  result.seconds = seconds(start);
  watchdog.stop();
  kvtrack::resumeDownloads();
  logger.stop();
  result.finished = tracks.has_value();
  if (tracks) result.points = tracks->front()->loadedPointCount();
  // Every request after the first was sent when the driver took an answer.
  const std::size_t asked = watchdog.requests();
  result.answered = result.finished ? logger.requestCount() : (asked > 0 ? asked - 1 : 0);
  result.lastAnswer = watchdog.lastRequest();
  return result;
}

// The best of three, so that a moment of load on the machine does not count.
template <typename Measure>
double best(Measure measure) {
  double fastest = measure();
  for (int i = 0; i < 2; ++i) fastest = std::min(fastest, measure());
  return fastest;
}

void report(std::size_t count, double cap) {
  const auto all = points(count);
  const Exchange exchange = exchangeFor(all);
  Download run = download(all, cap);
  for (int again = 0; again < 2 && run.finished; ++again) {
    const Download next = download(all, cap);
    if (next.finished && next.seconds < run.seconds) run = next;
  }
  const double push = best([&] { return rawPush(exchange); });
  const double trips = best([&] { return rawRoundTrips(exchange); });
  const double wire = static_cast<double>(exchange.bytes) / kWireBytesPerSecond;

  if (run.finished) {
    fmt::print("BG-728 {:>6} points: download {:8.3f} s ({} points, {:.0f} points/s)\n", count, run.seconds,
               run.points, static_cast<double>(run.points) / run.seconds);
  } else if (run.answered > 0) {
    const double perAnswer = run.lastAnswer / static_cast<double>(run.answered);
    const double estimate = perAnswer * static_cast<double>(count + 2);
    fmt::print("BG-728 {:>6} points: cancelled after {:.1f} s; {} of {} answers taken, the last at {:.1f} s: "
               "{:.2f} s per answer, so the whole download would take about {:.0f} s ({:.1f} h)\n",
               count, run.seconds, run.answered, count + 2, run.lastAnswer, perAnswer, estimate,
               estimate / 3600.0);
  } else {
    fmt::print("BG-728 {:>6} points: no answer within {:.1f} s\n", count, run.seconds);
  }
  fmt::print("  same {} bytes through the pty: raw push {:.3f} s, raw round trips {:.3f} s; "
             "115,200 baud wire time {:.1f} s\n",
             exchange.bytes, push, trips, wire);
  if (run.finished) {
    fmt::print("  download / raw round trips: {:.1f}; download / raw push: {:.1f}\n", run.seconds / trips,
               run.seconds / push);
  }
}

}  // namespace

int main(int argc, char** argv) {
  double cap = 120.0;
  std::vector<std::size_t> counts;
  for (int i = 1; i < argc; ++i) {
    const std::string_view arg = argv[i];
    if (arg == "--cap" && i + 1 < argc) {
      cap = std::strtod(argv[++i], nullptr);
    } else {
      counts.push_back(std::strtoul(argv[i], nullptr, 10));
    }
  }
  if (counts.empty()) counts = {200, 10000};
  kvtrack::setLogToStandardError(false);
  for (const std::size_t count : counts) report(count, cap);
  return 0;
}
