#include "kvtrack/photos/ExifToolSession.h"

#include "kvtrack/support/FileHandling.h"
#include "kvtrack/support/Log.h"
#include "kvtrack/support/SystemCalls.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <thread>

namespace kvtrack {

namespace {

namespace fs = std::filesystem;

std::string lowerAscii(std::string_view text) {
  std::string lower(text);
  for (char& c : lower) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return lower;
}

bool isPerlSpace(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f' || c == '\v';
}

// exiftool trims the blanks around '=' of "-TAG = value" in plain lines.
bool assignmentSpacingChanges(std::string_view argument) {
  if (argument.size() < 2 || argument[0] != '-') return false;
  const size_t equals = argument.find('=');
  if (equals == std::string_view::npos) return false;
  const bool blankBefore =
      std::any_of(argument.begin(), argument.begin() + static_cast<std::ptrdiff_t>(equals), isPerlSpace);
  const bool spaceAfter = equals + 1 < argument.size() && argument[equals + 1] == ' ';
  return blankBefore || spaceAfter;
}

std::string currentFolder() {
  std::error_code error;
  fs::path folder = fs::current_path(error);
  return error ? std::string() : folder.string();
}

void ignoreSigpipeOnce() {
  static std::once_flag once;
  std::call_once(once, [] {
    struct sigaction current {};
    // A handler the host installed stays; only the default (terminate) goes.
    if (sigaction(SIGPIPE, nullptr, &current) == 0 && current.sa_handler == SIG_DFL) {
      signal(SIGPIPE, SIG_IGN);
    }
  });
}

std::atomic<unsigned> nextCommandId{1};

// Reads what is there; false at end of file or on an error.
bool readAvailable(const UniqueFd& descriptor, std::string& into) {
  char buffer[65536];
  const ssize_t count = readSome(descriptor.get(), buffer, sizeof buffer);
  if (count <= 0) return false;
  into.append(buffer, static_cast<size_t>(count));
  return true;
}

// What goes to exiftool for one command: the argument lines, then the
// status echo and the numbered -execute.
std::optional<std::string> commandInput(const std::vector<std::string>& arguments, unsigned id) {
  std::string input;
  for (const std::string& argument : arguments) {
    std::optional<std::string> line = ExifToolSession::argumentLine(argument);
    if (!line) return std::nullopt;  // callers check exiftoolArgumentsSuitForSession
    input += *line;
    input += '\n';
  }
  input += fmt::format("-echo4\n{{ready{}:${{status}}}}\n-execute{}\n", id, id);
  return input;
}

// One exchange of one or more commands, sent at once: writes their input
// while reading both answers and cutting each answer at its command's
// marker, until every command is answered or exiftool goes away. exiftool
// runs the commands in order, so the markers arrive in order.
class Exchange {
 public:
  explicit Exchange(std::vector<unsigned> ids) : ids_(std::move(ids)), results_(ids_.size()) {}

  bool run(ChildProcess& exiftool, const std::string& input) {
    size_t written = 0;
    while (outputs_ < ids_.size() || statuses_ < ids_.size()) {
      const bool outputDone = outputs_ == ids_.size(), errorsDone = statuses_ == ids_.size();
      pollfd fds[3] = {{outputDone ? -1 : exiftool.output().get(), POLLIN, 0},
                       {errorsDone ? -1 : exiftool.errors().get(), POLLIN, 0},
                       {exiftool.input().get(), POLLOUT, 0}};
      const nfds_t count = written < input.size() ? 3 : 2;
      if (SystemCalls::current().poll(fds, count, -1) < 0) {
        if (errno == EINTR) continue;
        return false;
      }
      if (count == 3 && fds[2].revents != 0 && !write(exiftool.input(), input, written)) return false;
      if (fds[0].revents != 0 && !readOutput(exiftool.output())) return false;
      if (fds[1].revents != 0 && !readErrors(exiftool.errors())) return false;
    }
    return true;
  }

  /// The commands answered on both streams, in order.
  std::vector<ExifToolResult> results() && {
    results_.resize(std::min(outputs_, statuses_));
    return std::move(results_);
  }

 private:
  static bool write(const UniqueFd& input, const std::string& bytes, size_t& written) {
    const ssize_t n = SystemCalls::current().write(input.get(), bytes.data() + written, bytes.size() - written);
    if (n > 0) written += static_cast<size_t>(n);
    return n >= 0 || errno == EAGAIN || errno == EINTR;  // EPIPE: exiftool is gone
  }
  // Where the marker starts a line of the text; else (output that does not
  // end its last line, as with -b) where it stands anywhere; npos if not.
  static size_t markerIn(const std::string& text, const std::string& marker) {
    for (size_t at = text.find(marker); at != std::string::npos; at = text.find(marker, at + 1)) {
      if (at == 0 || text[at - 1] == '\n') return at;
    }
    return text.find(marker);
  }
  bool readOutput(const UniqueFd& output) {
    if (!readAvailable(output, output_)) return false;
    while (outputs_ < ids_.size()) {
      const std::string marker = fmt::format("{{ready{}}}\n", ids_[outputs_]);
      const size_t at = markerIn(output_, marker);
      if (at == std::string::npos) break;
      results_[outputs_++].output = output_.substr(0, at);
      output_.erase(0, at + marker.size());
    }
    return true;
  }
  bool readErrors(const UniqueFd& errors) {
    if (!readAvailable(errors, errors_)) return false;
    while (statuses_ < ids_.size()) {
      const std::string marker = fmt::format("{{ready{}:", ids_[statuses_]);
      const size_t at = markerIn(errors_, marker);
      const size_t end = at == std::string::npos ? at : errors_.find("}\n", at);
      if (end == std::string::npos) break;
      ExifToolResult& result = results_[statuses_++];
      result.status = std::atoi(errors_.c_str() + at + marker.size());
      result.errors = errors_.substr(0, at);
      errors_.erase(0, end + 2);
    }
    return true;
  }

  const std::vector<unsigned> ids_;
  std::vector<ExifToolResult> results_;
  std::string output_, errors_;  // not yet cut off
  size_t outputs_ = 0, statuses_ = 0;
};

// Reads and drops both answers until exiftool closes them or the deadline
// passes. Whether it closed them.
bool drain(ChildProcess& exiftool, std::chrono::steady_clock::time_point deadline) {
  std::string ignored;
  bool outputOpen = true, errorsOpen = true;
  while ((outputOpen || errorsOpen) && std::chrono::steady_clock::now() < deadline) {
    pollfd fds[2] = {{outputOpen ? exiftool.output().get() : -1, POLLIN, 0},
                     {errorsOpen ? exiftool.errors().get() : -1, POLLIN, 0}};
    if (SystemCalls::current().poll(fds, 2, 100) < 0 && errno != EINTR) break;
    if (fds[0].revents != 0) outputOpen = readAvailable(exiftool.output(), ignored);
    if (fds[1].revents != 0) errorsOpen = readAvailable(exiftool.errors(), ignored);
    ignored.clear();
  }
  return !outputOpen && !errorsOpen;
}

}  // namespace

// --- ExifToolSession -----------------------------------------------------------

ExifToolSession::ExifToolSession(std::string program) : program_(std::move(program)) {}

ExifToolSession::~ExifToolSession() { stop(); }

std::optional<std::string> ExifToolSession::argumentLine(const std::string& argument) {
  if (argument.find('\0') != std::string::npos) return std::nullopt;
  const bool plain = !argument.empty() && argument[0] != '#' && !isPerlSpace(argument.front()) &&
                     !isPerlSpace(argument.back()) &&
                     argument.find_first_of("\n\r") == std::string::npos &&
                     !assignmentSpacingChanges(argument);
  if (plain) return argument;
  if (argument.find_first_of("$@") != std::string::npos) return std::nullopt;
  std::string line = "#[CSTR]";
  for (char c : argument) {
    switch (c) {
      case '\\': line += "\\\\"; break;
      case '\n': line += "\\n"; break;
      case '\r': line += "\\r"; break;
      case '\t': line += "\\t"; break;
      default: line += c;
    }
  }
  return line;
}

bool ExifToolSession::start() {
  if (isRunning()) return true;
  ignoreSigpipeOnce();
  const ChildStreams pipes{ChildStream::pipe, ChildStream::pipe, ChildStream::pipe};
  Result<ChildProcess> exiftool = ChildProcess::start({program_, "-stay_open", "True", "-@", "-"}, pipes);
  if (!exiftool) {
    logf("exiftool session: {}", exiftool.reason());
    return false;
  }
  // Written only when poll() says there is room, so a full pipe never blocks us.
  const int input = exiftool->input().get();
  fcntl(input, F_SETFL, fcntl(input, F_GETFL) | O_NONBLOCK);
  child_ = std::move(*exiftool);
  workingFolder_ = currentFolder();
  return true;
}

std::optional<ExifToolResult> ExifToolSession::run(const std::vector<std::string>& arguments) {
  std::vector<ExifToolResult> results = runBatch({arguments});
  if (results.empty()) return std::nullopt;
  return std::move(results.front());
}

std::vector<ExifToolResult> ExifToolSession::runBatch(const std::vector<std::vector<std::string>>& commands) {
  if (!isRunning() || commands.empty()) return {};
  std::vector<unsigned> ids;
  std::string input;
  for (const auto& arguments : commands) {
    ids.push_back(nextCommandId++);
    const std::optional<std::string> lines = commandInput(arguments, ids.back());
    if (!lines) return {};  // callers check exiftoolArgumentsSuitForSession
    input += *lines;
  }
  Exchange exchange(std::move(ids));
  const bool whole = exchange.run(*child_, input);
  if (!whole) reap(true);
  return std::move(exchange).results();
}

void ExifToolSession::stop() {
  if (!isRunning()) return;
  static const char farewell[] = "-stay_open\nFalse\n";
  (void)!SystemCalls::current().write(child_->input().get(), farewell, sizeof farewell - 1);
  child_->input().reset();
  const bool closed = drain(*child_, std::chrono::steady_clock::now() + std::chrono::seconds(3));
  reap(!closed);
}

void ExifToolSession::reap(bool kill) {
  if (!child_) return;
  if (kill) {
    child_->kill();
  } else {
    child_->output().reset();
    child_->errors().reset();
    child_->wait();
  }
  child_.reset();
}

// --- ExifToolSessionPool -------------------------------------------------------

ExifToolSessionPool& ExifToolSessionPool::shared() {
  static ExifToolSessionPool pool(std::max(1u, std::thread::hardware_concurrency()));
  return pool;
}

ExifToolSessionPool::ExifToolSessionPool(size_t capacity) : capacity_(std::max<size_t>(1, capacity)) {}

ExifToolSessionPool::~ExifToolSessionPool() { shutdown(); }

std::unique_ptr<ExifToolSession> ExifToolSessionPool::acquire(const std::string& program) {
  std::unique_ptr<ExifToolSession> session;
  {
    std::unique_lock lock(mutex_);
    available_.wait(lock, [this] { return !idle_.empty() || handedOut_ < capacity_; });
    ++handedOut_;
    if (!idle_.empty()) {
      session = std::move(idle_.back());
      idle_.pop_back();
    }
  }
  // A session of another program, or started in another working folder
  // (relative paths!), would not do what a fresh process would.
  if (session && (session->program() != program ||
                  (session->isRunning() && session->workingFolder() != currentFolder()))) {
    session.reset();
  }
  if (!session) session = std::make_unique<ExifToolSession>(program);
  return session;
}

void ExifToolSessionPool::release(std::unique_ptr<ExifToolSession> session) {
  {
    std::lock_guard lock(mutex_);
    idle_.push_back(std::move(session));
    --handedOut_;
  }
  available_.notify_one();
}

std::optional<ExifToolResult> ExifToolSessionPool::run(const std::string& program,
                                                       const std::vector<std::string>& arguments,
                                                       const std::function<void()>& beforeRun) {
  std::vector<ExifToolResult> results = runBatch(program, {arguments}, beforeRun);
  if (results.empty()) return std::nullopt;
  return std::move(results.front());
}

std::vector<ExifToolResult> ExifToolSessionPool::runBatch(
    const std::string& program, const std::vector<std::vector<std::string>>& commands,
    const std::function<void()>& beforeRun) {
  if (commands.empty() || !std::all_of(commands.begin(), commands.end(), exiftoolArgumentsSuitForSession)) {
    return {};
  }
  std::unique_ptr<ExifToolSession> session = acquire(program);
  std::vector<ExifToolResult> results;
  for (int attempt = 0; attempt < 2 && results.size() < commands.size(); ++attempt) {
    const bool wasRunning = session->isRunning();
    const pid_t previous = session->processId();
    if (!session->start()) break;
    if (attempt == 0 && beforeRun) beforeRun();
    // After a death, the command exiftool was working on goes again with the rest.
    const std::vector<std::vector<std::string>> rest(commands.begin() + static_cast<std::ptrdiff_t>(results.size()),
                                                     commands.end());
    for (ExifToolResult& result : session->runBatch(rest)) results.push_back(std::move(result));
    if (results.size() < commands.size() && attempt == 0) {
      if (wasRunning) {
        logf("exiftool session: exiftool (process {}) ended; restarting it", previous);
      } else if (!results.empty()) {
        logLine("exiftool session: exiftool ended during a batch; restarting it");
      } else {
        logLine("exiftool session: exiftool ended at start; trying once more");
      }
    }
  }
  release(std::move(session));
  return results;
}

void ExifToolSessionPool::shutdown() {
  std::vector<std::unique_ptr<ExifToolSession>> sessions;
  {
    std::unique_lock lock(mutex_);
    available_.wait(lock, [this] { return handedOut_ == 0; });
    sessions.swap(idle_);
  }
  sessions.clear();  // each destructor ends its exiftool
}

std::vector<pid_t> ExifToolSessionPool::processIds() {
  std::lock_guard lock(mutex_);
  std::vector<pid_t> ids;
  for (const auto& session : idle_) {
    if (session->isRunning()) ids.push_back(session->processId());
  }
  return ids;
}

// --- write locks ----------------------------------------------------------------

namespace {

struct WriteRegistry {
  std::mutex mutex;
  std::condition_variable released;
  std::set<std::string> held;
};

WriteRegistry& writeRegistry() {
  static WriteRegistry registry;
  return registry;
}

std::string lockKey(const std::string& path) {
  fs::path p(path);
  if (p.is_relative()) p = fs::path(currentFolder()) / p;
  return p.lexically_normal().string();
}

}  // namespace

ExifToolWriteLock::ExifToolWriteLock(const std::vector<std::string>& paths) {
  for (const std::string& path : paths) paths_.insert(lockKey(path));
  WriteRegistry& registry = writeRegistry();
  std::unique_lock lock(registry.mutex);
  // All paths at once, so two writers of overlapping sets cannot deadlock.
  registry.released.wait(lock, [&] {
    return std::none_of(paths_.begin(), paths_.end(),
                        [&](const std::string& p) { return registry.held.count(p) != 0; });
  });
  registry.held.insert(paths_.begin(), paths_.end());
}

ExifToolWriteLock::~ExifToolWriteLock() {
  WriteRegistry& registry = writeRegistry();
  {
    std::lock_guard lock(registry.mutex);
    for (const std::string& p : paths_) registry.held.erase(p);
  }
  registry.released.notify_all();
}

// --- argument rules -------------------------------------------------------------

bool exiftoolArgumentsWrite(const std::vector<std::string>& arguments) {
  for (const std::string& argument : arguments) {
    if (argument.size() < 2 || argument[0] != '-') continue;
    const std::string option = lowerAscii(argument);
    if (option.starts_with("-overwrite_original") || option == "-tagsfromfile" ||
        option.starts_with("-geotag") || option == "-geosync" || option == "-o" ||
        option == "-out" || option == "-w" || option == "-w!" || option == "-w+" ||
        option == "-textout" || option == "-tagout" || option == "-delete_original" ||
        option == "-delete_original!" || option == "-restore_original") {
      return true;
    }
    if (argument.find_first_of("=<") != std::string::npos) return true;  // -TAG=… / -TAG<…
  }
  return false;
}

bool exiftoolArgumentsSuitForSession(const std::vector<std::string>& arguments) {
  for (const std::string& argument : arguments) {
    const std::string option = lowerAscii(argument);
    if (option == "-" || option == "-@" || option == "-stay_open" || option.starts_with("-execute") ||
        option == "-common_args" || option == "-config" || option == "-k" || option == "-pause") {
      return false;
    }
    if (!ExifToolSession::argumentLine(argument)) return false;
  }
  return true;
}

}  // namespace kvtrack
