#include "kvtrack/support/SystemCalls.h"

#include <fcntl.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>

namespace kvtrack {

namespace {

SystemCalls plainSystem;
std::atomic<SystemCalls*> inForce{&plainSystem};

}  // namespace

void UniqueFd::reset(int descriptor) {
  if (descriptor_ >= 0 && descriptor_ != descriptor) SystemCalls::current().close(descriptor_);
  descriptor_ = descriptor;
}

int SystemCalls::open(const char* path, int flags, mode_t mode) {
  return ::open(path, flags, mode);
}
ssize_t SystemCalls::read(int descriptor, void* buffer, size_t size) {
  return ::read(descriptor, buffer, size);
}
ssize_t SystemCalls::write(int descriptor, const void* buffer, size_t size) {
  return ::write(descriptor, buffer, size);
}
int SystemCalls::fsync(int descriptor) { return ::fsync(descriptor); }
int SystemCalls::close(int descriptor) { return ::close(descriptor); }
int SystemCalls::rename(const char* from, const char* to) { return std::rename(from, to); }
int SystemCalls::link(const char* existing, const char* created) {
  return ::link(existing, created);
}
int SystemCalls::unlink(const char* path) { return ::unlink(path); }
int SystemCalls::mkstemp(char* pathTemplate) { return ::mkostemp(pathTemplate, O_CLOEXEC); }
int SystemCalls::pipe(int ends[2]) { return ::pipe2(ends, O_CLOEXEC); }
int SystemCalls::spawn(pid_t* processId, const char* program, const posix_spawn_file_actions_t* actions,
                       const posix_spawnattr_t* attributes, char* const arguments[],
                       char* const environment[]) {
  return ::posix_spawnp(processId, program, actions, attributes, arguments, environment);
}
pid_t SystemCalls::waitpid(pid_t processId, int* status, int options) {
  return ::waitpid(processId, status, options);
}
int SystemCalls::poll(pollfd* descriptors, nfds_t count, int timeout) {
  return ::poll(descriptors, count, timeout);
}

SystemCalls& SystemCalls::current() { return *inForce.load(std::memory_order_acquire); }

ScopedSystemCalls::ScopedSystemCalls(SystemCalls& calls)
    : previous_(inForce.exchange(&calls, std::memory_order_acq_rel)) {}

ScopedSystemCalls::~ScopedSystemCalls() { inForce.store(previous_, std::memory_order_release); }

UniqueFd openFile(const std::string& path, int flags, mode_t mode) {
  for (;;) {
    const int descriptor = SystemCalls::current().open(path.c_str(), flags | O_CLOEXEC, mode);
    if (descriptor >= 0 || errno != EINTR) return UniqueFd(descriptor);
  }
}

Status writeAll(int descriptor, std::string_view bytes, const std::string& path) {
  while (!bytes.empty()) {
    const ssize_t n = SystemCalls::current().write(descriptor, bytes.data(), bytes.size());
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return systemFailure("write", path);
    if (n == 0) {
      errno = EIO;
      return systemFailure("write", path);
    }
    bytes.remove_prefix(static_cast<size_t>(n));
  }
  return {};
}

ssize_t readSome(int descriptor, void* buffer, size_t size) {
  for (;;) {
    const ssize_t n = SystemCalls::current().read(descriptor, buffer, size);
    if (n >= 0 || errno != EINTR) return n;
  }
}

Result<std::string> readWholeFile(const std::string& path) {
  const UniqueFd file = openFile(path, O_RDONLY);
  if (!file) return systemFailure("read", path);
  std::string content;
  char buffer[65536];
  for (;;) {
    const ssize_t n = readSome(file.get(), buffer, sizeof buffer);
    if (n < 0) return systemFailure("read", path);
    if (n == 0) return content;
    content.append(buffer, static_cast<size_t>(n));
  }
}

Status systemFailure(std::string_view verb, const std::string& path) {
  const int error = errno;
  return Status::failure("cannot " + std::string(verb) + " " + path + ": " + std::strerror(error));
}

}  // namespace kvtrack
