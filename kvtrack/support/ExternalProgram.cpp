#include "kvtrack/support/ExternalProgram.h"

#include "kvtrack/support/FileHandling.h"
#include "kvtrack/support/Log.h"
#include "kvtrack/support/SystemCalls.h"
#include "kvtrack/support/UniqueFd.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <vector>

namespace kvtrack {

namespace {

// Copies of the entries, so a concurrent setenv cannot pull them away.

// Starts /bin/sh -c commandLine with standard output on outputDescriptor
// and standard error on errorDescriptor (-1: ours). The process id, or -1
// (logged).
pid_t startShell(const std::string& commandLine, int outputDescriptor, int errorDescriptor = -1) {
  if (commandLine.find('\0') != std::string::npos) {
    logLine("external program: the command line holds a NUL byte; not started");
    return -1;
  }
  std::vector<std::string> environment = childEnvironment();
  std::vector<char*> envp;
  for (std::string& entry : environment) envp.push_back(entry.data());
  envp.push_back(nullptr);
  std::string shell = "sh", option = "-c", command = commandLine;
  char* argv[] = {shell.data(), option.data(), command.data(), nullptr};

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  if (outputDescriptor >= 0) {
    posix_spawn_file_actions_adddup2(&actions, outputDescriptor, STDOUT_FILENO);
  }
  if (errorDescriptor >= 0) {
    posix_spawn_file_actions_adddup2(&actions, errorDescriptor, STDERR_FILENO);
  }
  const CleanChildAttributes attributes;

  pid_t pid = -1;
  int error = posix_spawn(&pid, "/bin/sh", &actions, attributes.get(), argv, envp.data());
  posix_spawn_file_actions_destroy(&actions);
  if (error != 0) {
    logf("external program: cannot start /bin/sh: {}", std::strerror(error));
    return -1;
  }
  return pid;
}

int waitForShell(pid_t pid) {
  int status = 0;
  while (waitpid(pid, &status, 0) < 0) {
    if (errno == EINTR) continue;
    logf("external program: cannot wait for /bin/sh: {}", std::strerror(errno));
    return -1;
  }
  if (WIFEXITED(status)) return WEXITSTATUS(status);
  if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
  return -1;
}

}  // namespace

CleanChildAttributes::CleanChildAttributes() {
  posix_spawnattr_init(&attributes_);
  sigset_t signals;
  sigemptyset(&signals);
  posix_spawnattr_setsigmask(&attributes_, &signals);
  sigaddset(&signals, SIGPIPE);
  posix_spawnattr_setsigdefault(&attributes_, &signals);
  posix_spawnattr_setflags(&attributes_, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
}

CleanChildAttributes::~CleanChildAttributes() { posix_spawnattr_destroy(&attributes_); }

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

int runShellCommand(const std::string& commandLine) {
  logLine(commandLine);
  pid_t pid = startShell(commandLine, -1);
  return pid < 0 ? -1 : waitForShell(pid);
}

// Runs the command with one of its standard streams (1 or 2) into a pipe
// and gathers what arrives there.
static ShellOutput runGathering(const std::string& commandLine, int stream) {
  logLine(commandLine);
  ShellOutput result;
  int pipeEnds[2];
  if (pipe2(pipeEnds, O_CLOEXEC) != 0) {
    logf("external program: cannot create a pipe: {}", std::strerror(errno));
    return result;
  }
  UniqueFd reading(pipeEnds[0]);
  pid_t pid = stream == STDOUT_FILENO ? startShell(commandLine, pipeEnds[1])
                                      : startShell(commandLine, -1, pipeEnds[1]);
  // Only the child may hold the writing end, or reading never sees the end.
  ::close(pipeEnds[1]);
  if (pid < 0) return result;
  std::string& gathered = stream == STDOUT_FILENO ? result.output : result.errors;
  char buffer[65536];
  while (true) {
    const ssize_t count = readSome(reading.get(), buffer, sizeof buffer);
    if (count <= 0) {
      if (count < 0) logf("external program: cannot read its output: {}", std::strerror(errno));
      break;
    }
    gathered.append(buffer, static_cast<size_t>(count));
  }
  reading.reset();
  result.status = waitForShell(pid);
  return result;
}

ShellOutput runShellCommandReadingOutput(const std::string& commandLine) {
  return runGathering(commandLine, STDOUT_FILENO);
}

ShellOutput runShellCommandReadingErrors(const std::string& commandLine) {
  return runGathering(commandLine, STDERR_FILENO);
}

}  // namespace kvtrack
