#pragma once
// ChildProcess: a program started by kvtrack, with the pipes to it. The one
// place where processes are spawned, piped and reaped; every step goes
// through SystemCalls, so tests can make spawning fail or reads come short.
//
// The child starts with no blocked signals and a default SIGPIPE, sees our
// environment (TMPDIR pointed at the private sandbox when we have none of
// our own), and inherits no descriptor of ours besides the three standard
// ones it is given.

#include "kvtrack/support/Status.h"
#include "kvtrack/support/UniqueFd.h"

#include <sys/types.h>

#include <string>
#include <vector>

namespace kvtrack {

/// Where one of the child's standard streams goes.
enum class ChildStream {
  inherit,  // ours
  null,     // /dev/null
  pipe,     // a pipe whose other end the ChildProcess holds
};

struct ChildStreams {
  ChildStream input = ChildStream::null;
  ChildStream output = ChildStream::inherit;
  ChildStream errors = ChildStream::inherit;
};

class ChildProcess {
 public:
  /// Starts arguments[0] (looked up on PATH unless it holds a '/') with the
  /// arguments. The failure says which program could not be started and why.
  static Result<ChildProcess> start(const std::vector<std::string>& arguments, ChildStreams streams = {});

  ChildProcess(ChildProcess&& other) noexcept;
  ChildProcess& operator=(ChildProcess&& other) noexcept;
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;
  /// Closes the pipes, kills a child still running and reaps it.
  ~ChildProcess();

  pid_t processId() const { return processId_; }
  bool isRunning() const { return processId_ > 0; }
  /// Our ends of the pipes asked for (invalid otherwise): writing to the
  /// child's standard input, reading its standard output and error.
  UniqueFd& input() { return input_; }
  UniqueFd& output() { return output_; }
  UniqueFd& errors() { return errors_; }

  /// Waits for the child to end: its exit status 0..255, 128 + the signal
  /// number when it was killed, -1 when it could not be waited for.
  int wait();
  /// SIGKILL, then wait().
  int kill();

 private:
  ChildProcess() = default;
  void closePipes();

  pid_t processId_ = -1;
  UniqueFd input_, output_, errors_;
};

/// Reads the descriptor to its end, retrying after signals and short reads.
Result<std::string> readToEnd(int descriptor);

/// Whether a process of this id still runs: one of another user's does, one
/// that has ended and waits to be reaped (a zombie) does not.
bool processIsRunning(pid_t processId);

/// The environment every child process gets.
std::vector<std::string> childEnvironment();

}  // namespace kvtrack
