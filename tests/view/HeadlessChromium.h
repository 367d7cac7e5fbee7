#pragma once
// Debian's chromium, headless, driven over the DevTools protocol on a pipe
// (--remote-debugging-pipe: commands go in on descriptor 3, replies and
// events come out on descriptor 4, each message ending in a NUL byte). The
// network is cut off: the browser runs in a network namespace of its own
// when the system allows one, host names never resolve, every proxy
// connection is refused, and pages are told they are offline. Started as
// "loopback only", it keeps the last two and reaches 127.0.0.1 (which no
// proxy serves), so pages believe they are online and can load from a
// server of the test's own.

#include <nlohmann/json.hpp>

#include <sys/types.h>

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace kvtrack::testing {

class HeadlessChromium {
 public:
  enum class Network { kNone, kLoopbackOnly };

  /// Starts the browser with a profile in the folder and opens one page
  /// (viewport width x height). Absent, with the reason, when it cannot.
  static std::unique_ptr<HeadlessChromium> start(const std::string& profileFolder, int width, int height,
                                                 std::string& why, Network network = Network::kNone);
  ~HeadlessChromium();
  HeadlessChromium(const HeadlessChromium&) = delete;
  HeadlessChromium& operator=(const HeadlessChromium&) = delete;

  /// Sends a command to the page and returns its "result"; a protocol
  /// error or a time-out gives an object with "error".
  nlohmann::json call(const std::string& method, const nlohmann::json& params = nlohmann::json::object());
  /// Loads the URL and waits for its load event; false on a time-out.
  bool navigate(const std::string& url);
  /// Evaluates the expression in the page (promises awaited) and returns
  /// its value; an exception gives an object with "exception".
  nlohmann::json evaluate(const std::string& expression);
  /// A PNG of the whole page.
  std::string screenshot();

  /// Console errors, uncaught exceptions and error log entries so far.
  const std::vector<std::string>& errors() const { return errors_; }
  /// URLs the page requested other than file: and data: ones.
  const std::vector<std::string>& outsideRequests() const { return outsideRequests_; }

 private:
  HeadlessChromium(pid_t pid, int toBrowser, int fromBrowser)
      : pid_(pid), toBrowser_(toBrowser), fromBrowser_(fromBrowser) {}
  nlohmann::json send(const std::string& method, const nlohmann::json& params, bool onPage);
  std::optional<nlohmann::json> nextMessage(std::chrono::steady_clock::time_point deadline);
  void note(const nlohmann::json& event);
  bool attach(bool online);

  pid_t pid_ = -1;
  int toBrowser_ = -1, fromBrowser_ = -1;
  std::string session_;
  std::string buffer_;
  int nextId_ = 0;
  bool loaded_ = false;  // the load event of the page being navigated to came
  std::vector<std::string> errors_;
  std::vector<std::string> outsideRequests_;
};

}  // namespace kvtrack::testing
