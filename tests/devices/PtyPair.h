#pragma once
// A pseudo-terminal pair for tests: the slave path is what a ZtSerialPort
// opens; the master descriptor is the far side where an emulated logger reads
// and writes. The master is set raw so bytes pass unchanged.

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <termios.h>
#include <unistd.h>

#include <cstddef>
#include <string>
#include <string_view>

namespace kvtrack::test {

class PtyPair {
 public:
  PtyPair() {
    int slave = -1;
    char name[256] = {};
    if (::openpty(&master_, &slave, name, nullptr, nullptr) != 0) return;
    struct termios raw {};
    if (::tcgetattr(slave, &raw) == 0) {
      ::cfmakeraw(&raw);
      ::tcsetattr(slave, TCSANOW, &raw);
    }
    ::fcntl(master_, F_SETFD, FD_CLOEXEC);
    // The slave stays open here so that the far side does not see a hang-up
    // between the test's open and close of the port.
    slave_ = slave;
    slavePath_ = name;
  }
  ~PtyPair() {
    closeMaster();
    if (slave_ >= 0) ::close(slave_);
  }
  PtyPair(const PtyPair&) = delete;
  PtyPair& operator=(const PtyPair&) = delete;

  bool valid() const { return master_ >= 0 && !slavePath_.empty(); }
  int master() const { return master_; }
  const std::string& slavePath() const { return slavePath_; }

  /// Sends bytes from the far side; true when all went out.
  bool send(std::string_view bytes) const {
    return master_ >= 0 && ::write(master_, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size());
  }
  /// What the port side wrote, waiting at most timeoutMs for the first byte.
  std::string receive(int timeoutMs = 1000) const {
    std::string got;
    struct pollfd fd {
      master_, POLLIN, 0
    };
    while (master_ >= 0 && ::poll(&fd, 1, got.empty() ? timeoutMs : 0) > 0 && (fd.revents & POLLIN)) {
      char chunk[512];
      ssize_t n = ::read(master_, chunk, sizeof chunk);
      if (n <= 0) break;
      got.append(chunk, static_cast<std::size_t>(n));
    }
    return got;
  }
  /// Closes the far side: the slave then reads end-of-file or EIO (a hang-up).
  void closeMaster() {
    if (master_ >= 0) ::close(master_);
    master_ = -1;
  }
  /// Closes the slave descriptor kept by the pair (needed before a hang-up test).
  void closeSlave() {
    if (slave_ >= 0) ::close(slave_);
    slave_ = -1;
  }

 private:
  int master_ = -1;
  int slave_ = -1;
  std::string slavePath_;
};

}  // namespace kvtrack::test
