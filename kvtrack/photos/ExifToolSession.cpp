#include "kvtrack/photos/ExifToolSession.h"

#include "kvtrack/support/ExternalProgram.h"

#include "kvtrack/support/FileHandling.h"
#include "kvtrack/support/Log.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <thread>

extern char** environ;

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
bool readAvailable(int descriptor, std::string& into) {
  char buffer[65536];
  while (true) {
    ssize_t count = ::read(descriptor, buffer, sizeof buffer);
    if (count > 0) {
      into.append(buffer, static_cast<size_t>(count));
      return true;
    }
    if (count < 0 && errno == EINTR) continue;
    return false;
  }
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
  int in[2] = {-1, -1}, out[2] = {-1, -1}, err[2] = {-1, -1};
  if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0) {
    logf("exiftool session: cannot create pipes: {}", std::strerror(errno));
    for (int fd : {in[0], in[1], out[0], out[1], err[0], err[1]}) {
      if (fd >= 0) ::close(fd);
    }
    return false;
  }
  std::vector<std::string> environment = childEnvironment();
  std::vector<char*> envp;
  for (std::string& entry : environment) envp.push_back(entry.data());
  envp.push_back(nullptr);
  std::string program = program_, stayOpen = "-stay_open", yes = "True", argfile = "-@", dash = "-";
  char* argv[] = {program.data(), stayOpen.data(), yes.data(), argfile.data(), dash.data(), nullptr};

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, in[0], STDIN_FILENO);
  posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&actions, err[1], STDERR_FILENO);
  const CleanChildAttributes attributes;  // default SIGPIPE, no blocked signals
  pid_t pid = -1;
  const int error = posix_spawnp(&pid, program_.c_str(), &actions, attributes.get(), argv, envp.data());
  posix_spawn_file_actions_destroy(&actions);
  ::close(in[0]);
  ::close(out[1]);
  ::close(err[1]);
  if (error != 0) {
    ::close(in[1]);
    ::close(out[0]);
    ::close(err[0]);
    if (error != ENOENT && error != EACCES) {
      logf("exiftool session: cannot start {}: {}", program_, std::strerror(error));
    }
    return false;
  }
  // Written only when poll() says there is room, so a full pipe never blocks us.
  fcntl(in[1], F_SETFL, fcntl(in[1], F_GETFL) | O_NONBLOCK);
  pid_ = pid;
  input_ = in[1];
  output_ = out[0];
  errors_ = err[0];
  workingFolder_ = currentFolder();
  return true;
}

std::optional<ExifToolResult> ExifToolSession::run(const std::vector<std::string>& arguments) {
  if (!isRunning()) return std::nullopt;
  const unsigned id = nextCommandId++;
  std::string input;
  for (const std::string& argument : arguments) {
    std::optional<std::string> line = argumentLine(argument);
    if (!line) return std::nullopt;  // callers check exiftoolArgumentsSuitForSession
    input += *line;
    input += '\n';
  }
  const std::string statusMarker = fmt::format("{{ready{}:", id);
  const std::string readyMarker = fmt::format("{{ready{}}}\n", id);
  input += fmt::format("-echo4\n{}${{status}}}}\n-execute{}\n", statusMarker, id);

  ExifToolResult result;
  size_t written = 0;
  bool outputDone = false, errorsDone = false;
  while (!outputDone || !errorsDone) {
    pollfd fds[3] = {{output_, POLLIN, 0}, {errors_, POLLIN, 0}, {input_, POLLOUT, 0}};
    if (outputDone) fds[0].fd = -1;
    if (errorsDone) fds[1].fd = -1;
    const nfds_t count = written < input.size() ? 3 : 2;
    if (::poll(fds, count, -1) < 0) {
      if (errno == EINTR) continue;
      break;
    }
    if (count == 3 && fds[2].revents != 0) {
      ssize_t n = ::write(input_, input.data() + written, input.size() - written);
      if (n > 0) {
        written += static_cast<size_t>(n);
      } else if (n < 0 && errno != EAGAIN && errno != EINTR) {
        break;  // EPIPE: exiftool is gone
      }
    }
    if (fds[0].revents != 0) {
      if (!readAvailable(output_, result.output)) break;
      outputDone = result.output.ends_with(readyMarker);
    }
    if (fds[1].revents != 0) {
      if (!readAvailable(errors_, result.errors)) break;
      const size_t marker = result.errors.rfind(statusMarker);
      errorsDone = marker != std::string::npos && result.errors.ends_with("}\n") &&
                   (marker == 0 || result.errors[marker - 1] == '\n');
    }
  }
  if (!outputDone || !errorsDone) {
    reap(true);
    return std::nullopt;
  }
  result.output.resize(result.output.size() - readyMarker.size());
  const size_t marker = result.errors.rfind(statusMarker);
  result.status = std::atoi(result.errors.c_str() + marker + statusMarker.size());
  result.errors.resize(marker);
  return result;
}

void ExifToolSession::stop() {
  if (!isRunning()) return;
  static const char farewell[] = "-stay_open\nFalse\n";
  (void)!::write(input_, farewell, sizeof farewell - 1);
  ::close(input_);
  input_ = -1;
  // Drain both pipes until exiftool closes them, for at most a few seconds.
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(3);
  std::string ignored;
  bool outputOpen = true, errorsOpen = true;
  while ((outputOpen || errorsOpen) && std::chrono::steady_clock::now() < deadline) {
    pollfd fds[2] = {{outputOpen ? output_ : -1, POLLIN, 0}, {errorsOpen ? errors_ : -1, POLLIN, 0}};
    if (::poll(fds, 2, 100) < 0 && errno != EINTR) break;
    if (fds[0].revents != 0) outputOpen = readAvailable(output_, ignored);
    if (fds[1].revents != 0) errorsOpen = readAvailable(errors_, ignored);
    ignored.clear();
  }
  reap(outputOpen || errorsOpen);
}

void ExifToolSession::closePipes() {
  for (int* fd : {&input_, &output_, &errors_}) {
    if (*fd >= 0) ::close(*fd);
    *fd = -1;
  }
}

void ExifToolSession::reap(bool kill) {
  closePipes();
  if (pid_ <= 0) return;
  if (kill) ::kill(pid_, SIGKILL);
  int status = 0;
  while (::waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
  }
  pid_ = -1;
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
  if (!exiftoolArgumentsSuitForSession(arguments)) return std::nullopt;
  std::unique_ptr<ExifToolSession> session = acquire(program);
  std::optional<ExifToolResult> result;
  for (int attempt = 0; attempt < 2 && !result; ++attempt) {
    const bool wasRunning = session->isRunning();
    const pid_t previous = session->processId();
    if (!session->start()) break;
    if (attempt == 0 && beforeRun) beforeRun();
    result = session->run(arguments);
    if (!result && attempt == 0) {
      if (wasRunning) {
        logf("exiftool session: exiftool (process {}) ended; restarting it", previous);
      } else {
        logLine("exiftool session: exiftool ended at start; trying once more");
      }
    }
  }
  release(std::move(session));
  return result;
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
