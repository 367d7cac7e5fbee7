#pragma once
// The system calls under kvtrack's files and descriptors, in one place, so
// that tests can make them fail the way real disks and devices do: a full
// disk at the tenth write, a short write, an I/O error, a rename that does
// not happen. Production code calls SystemCalls::current(); the plain
// system's calls are in force unless a test installed others with
// ScopedSystemCalls.
//
// Every call behaves as its POSIX namesake: -1 and errno on failure.

#include "kvtrack/support/Status.h"
#include "kvtrack/support/UniqueFd.h"

#include <poll.h>
#include <spawn.h>
#include <sys/types.h>

#include <string>
#include <string_view>

namespace kvtrack {

class SystemCalls {
 public:
  virtual ~SystemCalls() = default;

  virtual int open(const char* path, int flags, mode_t mode);
  virtual ssize_t read(int descriptor, void* buffer, size_t size);
  virtual ssize_t write(int descriptor, const void* buffer, size_t size);
  virtual int fsync(int descriptor);
  virtual int close(int descriptor);
  virtual int rename(const char* from, const char* to);
  virtual int link(const char* existing, const char* created);
  virtual int unlink(const char* path);
  virtual int mkstemp(char* pathTemplate);
  /// pipe2(2) with O_CLOEXEC on both ends.
  virtual int pipe(int ends[2]);
  /// posix_spawnp(3): 0, or the error number (errno is not set).
  virtual int spawn(pid_t* processId, const char* program, const posix_spawn_file_actions_t* actions,
                    const posix_spawnattr_t* attributes, char* const arguments[],
                    char* const environment[]);
  virtual pid_t waitpid(pid_t processId, int* status, int options);
  virtual int poll(pollfd* descriptors, nfds_t count, int timeout);

  /// The calls in force.
  static SystemCalls& current();
};

/// Puts other calls in force while it lives (tests). Not nested across
/// threads: one test at a time installs its calls.
class ScopedSystemCalls {
 public:
  explicit ScopedSystemCalls(SystemCalls& calls);
  ~ScopedSystemCalls();
  ScopedSystemCalls(const ScopedSystemCalls&) = delete;
  ScopedSystemCalls& operator=(const ScopedSystemCalls&) = delete;

 private:
  SystemCalls* previous_;
};

// --- the calls as programs use them -------------------------------------------

/// open(2), retried after signals; an invalid descriptor on failure (errno set).
UniqueFd openFile(const std::string& path, int flags, mode_t mode = 0644);
/// Writes every byte, retrying after signals and short writes. The failure
/// names the path and the system's reason.
Status writeAll(int descriptor, std::string_view bytes, const std::string& path);
/// Reads up to size bytes, retrying after signals: the count, 0 at the end,
/// -1 on failure (errno set).
ssize_t readSome(int descriptor, void* buffer, size_t size);
/// The whole file, or why it cannot be read.
Result<std::string> readWholeFile(const std::string& path);
/// "cannot <verb> <path>: <strerror(errno)>", read off errno now.
Status systemFailure(std::string_view verb, const std::string& path);

}  // namespace kvtrack
