#include "tests/view/HeadlessChromium.h"

#include "kvtrack/support/Base64.h"
#include "kvtrack/support/ChildProcess.h"
#include "kvtrack/support/ExternalProgram.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <thread>

namespace kvtrack::testing {

namespace {

using Clock = std::chrono::steady_clock;
constexpr auto kPatience = std::chrono::seconds(30);

// A descriptor above the standard ones and 3 and 4, closed on exec.
int high(int descriptor) {
  const int moved = ::fcntl(descriptor, F_DUPFD_CLOEXEC, 10);
  ::close(descriptor);
  return moved;
}

std::vector<std::string> arguments(const std::string& profile, int width, int height,
                                   bool isolated) {
  std::vector<std::string> args;
  if (isolated) args = {"unshare", "-n"};
  const std::vector<std::string> browser = {
      "chromium", "--headless", "--no-sandbox", "--remote-debugging-pipe",
      "--user-data-dir=" + profile, "--no-first-run", "--no-default-browser-check",
      "--disable-background-networking", "--disable-component-update", "--disable-sync",
      "--host-resolver-rules=MAP * ~NOTFOUND, EXCLUDE 127.0.0.1", "--proxy-server=127.0.0.1:9",
      "--hide-scrollbars", "--window-size=" + std::to_string(width) + "," + std::to_string(height),
      "about:blank"};
  args.insert(args.end(), browser.begin(), browser.end());
  return args;
}

pid_t spawn(const std::vector<std::string>& args, int commands, int replies, const std::string& log) {
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 1, log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  posix_spawn_file_actions_adddup2(&actions, 1, 2);
  posix_spawn_file_actions_adddup2(&actions, commands, 3);
  posix_spawn_file_actions_adddup2(&actions, replies, 4);
  std::vector<char*> argv;
  for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
  argv.push_back(nullptr);
  const auto environment = childEnvironment();
  std::vector<char*> envp;
  for (const auto& e : environment) envp.push_back(const_cast<char*>(e.c_str()));
  envp.push_back(nullptr);
  // No blocked signals and a default SIGPIPE in the browser, whatever the test runner set.
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  sigset_t signals;
  sigemptyset(&signals);
  posix_spawnattr_setsigmask(&attributes, &signals);
  sigaddset(&signals, SIGPIPE);
  posix_spawnattr_setsigdefault(&attributes, &signals);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
  pid_t pid = -1;
  const int failed = posix_spawnp(&pid, argv[0], &actions, &attributes, argv.data(), envp.data());
  posix_spawnattr_destroy(&attributes);
  posix_spawn_file_actions_destroy(&actions);
  return failed == 0 ? pid : -1;
}

}  // namespace

std::unique_ptr<HeadlessChromium> HeadlessChromium::start(const std::string& profileFolder, int width,
                                                          int height, std::string& why, Network network) {
  std::error_code ignored;
  std::filesystem::create_directories(profileFolder, ignored);
  int commands[2], replies[2];
  if (::pipe(commands) != 0 || ::pipe(replies) != 0) {
    why = std::strerror(errno);
    return nullptr;
  }
  for (int* end : {&commands[0], &commands[1], &replies[0], &replies[1]}) *end = high(*end);
  const bool online = network == Network::kLoopbackOnly;
  const bool isolated = !online && runShellCommand("unshare -n true") == 0;
  const pid_t pid = spawn(arguments(profileFolder, width, height, isolated), commands[0], replies[1],
                          profileFolder + "/chromium.log");
  ::close(commands[0]);
  ::close(replies[1]);
  std::unique_ptr<HeadlessChromium> browser(new HeadlessChromium(pid, commands[1], replies[0]));
  if (pid < 0) {
    why = "chromium could not be started (is Debian's chromium installed?)";
    return nullptr;
  }
  if (!browser->attach(online)) {
    why = "chromium did not answer on its debugging pipe; see " + profileFolder + "/chromium.log";
    return nullptr;
  }
  return browser;
}

HeadlessChromium::~HeadlessChromium() {
  if (pid_ > 0 && toBrowser_ >= 0) send("Browser.close", nlohmann::json::object(), false);
  if (toBrowser_ >= 0) ::close(toBrowser_);
  if (fromBrowser_ >= 0) ::close(fromBrowser_);
  if (pid_ <= 0) return;
  // A browser that does not close by itself within ten seconds is ended.
  for (int i = 0; i < 100; ++i) {
    if (::waitpid(pid_, nullptr, WNOHANG) == pid_) return;
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  ::kill(pid_, SIGKILL);
  ::waitpid(pid_, nullptr, 0);
}

bool HeadlessChromium::attach(bool online) {
  const auto target = send("Target.createTarget", {{"url", "about:blank"}}, false);
  if (!target.contains("targetId")) return false;
  const auto attached =
      send("Target.attachToTarget", {{"targetId", target["targetId"]}, {"flatten", true}}, false);
  if (!attached.contains("sessionId")) return false;
  session_ = attached["sessionId"].get<std::string>();
  for (const char* domain : {"Runtime.enable", "Log.enable", "Network.enable", "Page.enable"}) {
    if (call(domain).contains("error")) return false;
  }
  if (online) return true;
  // Pages see navigator.onLine false and every request fails at once.
  return !call("Network.emulateNetworkConditions",
               {{"offline", true}, {"latency", 0}, {"downloadThroughput", -1}, {"uploadThroughput", -1}})
              .contains("error");
}

nlohmann::json HeadlessChromium::call(const std::string& method, const nlohmann::json& params) {
  return send(method, params, true);
}

nlohmann::json HeadlessChromium::send(const std::string& method, const nlohmann::json& params, bool onPage) {
  const int id = ++nextId_;
  nlohmann::json message = {{"id", id}, {"method", method}, {"params", params}};
  if (onPage) message["sessionId"] = session_;
  const std::string text = message.dump() + '\0';
  for (size_t done = 0; done < text.size();) {
    const ssize_t n = ::write(toBrowser_, text.data() + done, text.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return {{"error", "the pipe to chromium is closed"}};
    done += static_cast<size_t>(n);
  }
  const auto deadline = Clock::now() + kPatience;
  while (auto reply = nextMessage(deadline)) {
    if (reply->value("id", -1) != id) {
      note(*reply);
      continue;
    }
    if (reply->contains("error")) return {{"error", (*reply)["error"]}};
    return reply->value("result", nlohmann::json::object());
  }
  return {{"error", "no answer to " + method}};
}

std::optional<nlohmann::json> HeadlessChromium::nextMessage(Clock::time_point deadline) {
  for (;;) {
    if (const size_t end = buffer_.find('\0'); end != std::string::npos) {
      auto message = nlohmann::json::parse(buffer_.substr(0, end), nullptr, false);
      buffer_.erase(0, end + 1);
      return message;
    }
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
    if (left.count() <= 0) return std::nullopt;
    pollfd poller{fromBrowser_, POLLIN, 0};
    const int ready = ::poll(&poller, 1, static_cast<int>(left.count()));
    if (ready < 0 && errno == EINTR) continue;
    if (ready <= 0) return std::nullopt;
    char chunk[65536];
    const ssize_t n = ::read(fromBrowser_, chunk, sizeof chunk);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return std::nullopt;
    buffer_.append(chunk, static_cast<size_t>(n));
  }
}

void HeadlessChromium::note(const nlohmann::json& event) {
  const std::string method = event.value("method", "");
  const auto& params = event.contains("params") ? event["params"] : nlohmann::json::object();
  if (method == "Runtime.exceptionThrown") {
    errors_.push_back("exception: " + params["exceptionDetails"].dump());
  } else if (method == "Runtime.consoleAPICalled") {
    const std::string type = params.value("type", "");
    if (type == "error" || type == "assert") errors_.push_back("console: " + params["args"].dump());
  } else if (method == "Log.entryAdded") {
    if (params["entry"].value("level", "") == "error") {
      errors_.push_back("log: " + params["entry"].value("text", "") + " " + params["entry"].value("url", ""));
    }
  } else if (method == "Network.requestWillBeSent") {
    const std::string url = params["request"].value("url", "");
    if (url.rfind("file:", 0) != 0 && url.rfind("data:", 0) != 0) outsideRequests_.push_back(url);
  } else if (method == "Page.loadEventFired") {
    loaded_ = true;
  }
}

bool HeadlessChromium::navigate(const std::string& url) {
  loaded_ = false;
  if (call("Page.navigate", {{"url", url}}).contains("error")) return false;
  const auto deadline = Clock::now() + kPatience;
  while (!loaded_) {
    const auto message = nextMessage(deadline);
    if (!message) return false;
    note(*message);
  }
  return true;
}

nlohmann::json HeadlessChromium::evaluate(const std::string& expression) {
  const auto result =
      call("Runtime.evaluate", {{"expression", expression}, {"awaitPromise", true}, {"returnByValue", true}});
  if (result.contains("exceptionDetails")) return {{"exception", result["exceptionDetails"]}};
  if (result.contains("error")) return result;
  return result["result"].value("value", nlohmann::json());
}

std::string HeadlessChromium::screenshot() {
  // The whole page, also what lies below the window.
  const auto metrics = call("Page.getLayoutMetrics");
  nlohmann::json params = {{"format", "png"}, {"captureBeyondViewport", true}};
  if (metrics.contains("cssContentSize")) {
    const auto& size = metrics["cssContentSize"];
    params["clip"] = {{"x", 0}, {"y", 0}, {"width", size["width"]}, {"height", size["height"]}, {"scale", 1}};
  }
  const auto result = call("Page.captureScreenshot", params);
  if (!result.contains("data")) return {};
  return base64Decode(result["data"].get<std::string>()).value_or(std::string());
}

}  // namespace kvtrack::testing
