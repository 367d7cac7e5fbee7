#include "kvtrack/support/ChildProcess.h"

#include "kvtrack/support/FileHandling.h"
#include "kvtrack/support/SystemCalls.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <optional>

extern char** environ;

namespace kvtrack {

namespace {

// Spawn attributes for a child that starts with no blocked signals and a
// default SIGPIPE, even when this process blocks or ignores them
// (pipelines and exiftool rely on that).
class CleanChildAttributes {
 public:
  CleanChildAttributes() {
    posix_spawnattr_init(&attributes_);
    sigset_t signals;
    sigemptyset(&signals);
    posix_spawnattr_setsigmask(&attributes_, &signals);
    sigaddset(&signals, SIGPIPE);
    posix_spawnattr_setsigdefault(&attributes_, &signals);
    posix_spawnattr_setflags(&attributes_, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
  }
  ~CleanChildAttributes() { posix_spawnattr_destroy(&attributes_); }
  CleanChildAttributes(const CleanChildAttributes&) = delete;
  CleanChildAttributes& operator=(const CleanChildAttributes&) = delete;
  const posix_spawnattr_t* get() const { return &attributes_; }

 private:
  posix_spawnattr_t attributes_;
};

class FileActions {
 public:
  FileActions() { posix_spawn_file_actions_init(&actions_); }
  ~FileActions() { posix_spawn_file_actions_destroy(&actions_); }
  FileActions(const FileActions&) = delete;
  FileActions& operator=(const FileActions&) = delete;
  posix_spawn_file_actions_t* get() { return &actions_; }

 private:
  posix_spawn_file_actions_t actions_;
};

struct Pipe {
  UniqueFd reading, writing;
};

Result<Pipe> makePipe() {
  int ends[2];
  if (SystemCalls::current().pipe(ends) != 0) {
    return Status::failure(std::string("cannot create a pipe: ") + std::strerror(errno));
  }
  return Pipe{UniqueFd(ends[0]), UniqueFd(ends[1])};
}

// The child's ends of its three streams, and ours.
struct Plumbing {
  std::array<std::optional<Pipe>, 3> pipes;
  Status status;
};

Plumbing plumb(const ChildStreams& streams, FileActions& actions) {
  Plumbing plumbing;
  const ChildStream kinds[3] = {streams.input, streams.output, streams.errors};
  for (int stream = 0; stream < 3; ++stream) {
    if (kinds[stream] == ChildStream::null) {
      posix_spawn_file_actions_addopen(actions.get(), stream, "/dev/null", stream == 0 ? O_RDONLY : O_WRONLY, 0);
    } else if (kinds[stream] == ChildStream::pipe) {
      Result<Pipe> pipe = makePipe();
      if (!pipe) {
        plumbing.status = pipe.status();
        return plumbing;
      }
      const int childEnd = stream == 0 ? pipe->reading.get() : pipe->writing.get();
      posix_spawn_file_actions_adddup2(actions.get(), childEnd, stream);
      plumbing.pipes[stream] = std::move(*pipe);
    }
  }
  return plumbing;
}

int statusOf(int waitStatus) {
  if (WIFEXITED(waitStatus)) return WEXITSTATUS(waitStatus);
  if (WIFSIGNALED(waitStatus)) return 128 + WTERMSIG(waitStatus);
  return -1;
}

}  // namespace

std::vector<std::string> childEnvironment() {
  std::vector<std::string> entries;
  for (char** entry = environ; *entry; ++entry) entries.emplace_back(*entry);
  const char* temporary = std::getenv("TMPDIR");
  if (temporary && *temporary) return entries;
  // Some programs write temporary files under fixed names. In a shared /tmp
  // another user could plant links there or clash with us, so without a
  // TMPDIR of the user's own choosing they get our private folder.
  std::string sandbox = FileHandling::singleton().sandbox();
  if (sandbox.empty()) return entries;
  std::erase_if(entries, [](const std::string& e) { return e.starts_with("TMPDIR="); });
  entries.push_back("TMPDIR=" + sandbox);
  return entries;
}

Result<ChildProcess> ChildProcess::start(const std::vector<std::string>& arguments, ChildStreams streams) {
  if (arguments.empty()) return Status::failure("no program to start");
  for (const std::string& argument : arguments) {
    if (argument.find('\0') != std::string::npos) {
      return Status::failure("cannot start " + arguments.front() + ": an argument holds a NUL byte");
    }
  }
  FileActions actions;
  Plumbing plumbing = plumb(streams, actions);
  if (!plumbing.status) return plumbing.status.prefixed("cannot start " + arguments.front());

  std::vector<std::string> environment = childEnvironment();
  std::vector<char*> envp, argv;
  for (std::string& entry : environment) envp.push_back(entry.data());
  envp.push_back(nullptr);
  std::vector<std::string> words = arguments;
  for (std::string& word : words) argv.push_back(word.data());
  argv.push_back(nullptr);

  const CleanChildAttributes attributes;
  pid_t processId = -1;
  const int error = SystemCalls::current().spawn(&processId, words.front().c_str(), actions.get(),
                                                 attributes.get(), argv.data(), envp.data());
  if (error != 0) return Status::failure("cannot start " + arguments.front() + ": " + std::strerror(error));

  ChildProcess child;
  child.processId_ = processId;
  // Only the child may hold its ends, or reading never sees the end.
  if (plumbing.pipes[0]) child.input_ = std::move(plumbing.pipes[0]->writing);
  if (plumbing.pipes[1]) child.output_ = std::move(plumbing.pipes[1]->reading);
  if (plumbing.pipes[2]) child.errors_ = std::move(plumbing.pipes[2]->reading);
  return child;
}

ChildProcess::ChildProcess(ChildProcess&& other) noexcept
    : processId_(std::exchange(other.processId_, -1)),
      input_(std::move(other.input_)),
      output_(std::move(other.output_)),
      errors_(std::move(other.errors_)) {}

ChildProcess& ChildProcess::operator=(ChildProcess&& other) noexcept {
  if (this != &other) {
    if (isRunning()) kill();
    processId_ = std::exchange(other.processId_, -1);
    input_ = std::move(other.input_);
    output_ = std::move(other.output_);
    errors_ = std::move(other.errors_);
  }
  return *this;
}

ChildProcess::~ChildProcess() {
  if (isRunning()) kill();
}

void ChildProcess::closePipes() {
  input_.reset();
  output_.reset();
  errors_.reset();
}

int ChildProcess::wait() {
  if (!isRunning()) return -1;
  int waitStatus = 0;
  pid_t waited;
  do {
    waited = SystemCalls::current().waitpid(processId_, &waitStatus, 0);
  } while (waited < 0 && errno == EINTR);
  processId_ = -1;
  return waited < 0 ? -1 : statusOf(waitStatus);
}

int ChildProcess::kill() {
  closePipes();
  if (!isRunning()) return -1;
  ::kill(processId_, SIGKILL);
  return wait();
}

Result<std::string> readToEnd(int descriptor) {
  std::string gathered;
  char buffer[65536];
  while (true) {
    const ssize_t count = readSome(descriptor, buffer, sizeof buffer);
    if (count == 0) return gathered;
    if (count < 0) return Status::failure(std::string("cannot read: ") + std::strerror(errno));
    gathered.append(buffer, static_cast<size_t>(count));
  }
}

bool processIsRunning(pid_t processId) {
  if (processId <= 0 || (::kill(processId, 0) != 0 && errno != EPERM)) return false;
  // "PID (NAME) STATE ...": the name may hold spaces and parentheses.
  std::ifstream stat("/proc/" + std::to_string(processId) + "/stat");
  const std::string line((std::istreambuf_iterator<char>(stat)), std::istreambuf_iterator<char>());
  const size_t end = line.rfind(')');
  return end == std::string::npos || end + 2 >= line.size() || (line[end + 2] != 'Z' && line[end + 2] != 'X');
}

}  // namespace kvtrack
