#pragma once
// ExternalProgram: the one way kvtrack runs other programs (gpsbabel,
// exiftool, ...): a command line handed to /bin/sh -c. Quote every file name
// with FileHandling::filenameForShell. The command line is logged before it
// runs. Safe to call from any thread; the child reads /dev/null.

#include <spawn.h>

#include <string>
#include <vector>

namespace kvtrack {

/// Exit status 0..255, 128 + signal number when the shell was killed, -1
/// when it could not be started or waited for (logged). sh answers 127
/// for a program it cannot find.
int runShellCommand(const std::string& commandLine);

struct ShellOutput {
  int status = -1;     // as from runShellCommand
  std::string output;  // all of standard output, when read
  std::string errors;  // all of standard error, when read
};

/// Standard output is read; standard error passes through.
ShellOutput runShellCommandReadingOutput(const std::string& commandLine);
/// Standard error is read (the program's complaints, for its caller to
/// report); standard output passes through.
ShellOutput runShellCommandReadingErrors(const std::string& commandLine);

/// The environment every child process gets: ours, with TMPDIR pointed at
/// the private sandbox when we have none of our own (programs that write
/// temporary files under fixed names must not do so in a shared /tmp).
std::vector<std::string> childEnvironment();

/// Spawn attributes for a child that starts with no blocked signals and a
/// default SIGPIPE, even when this process blocks or ignores them
/// (pipelines and exiftool rely on that).
class CleanChildAttributes {
 public:
  CleanChildAttributes();
  ~CleanChildAttributes();
  CleanChildAttributes(const CleanChildAttributes&) = delete;
  CleanChildAttributes& operator=(const CleanChildAttributes&) = delete;
  const posix_spawnattr_t* get() const { return &attributes_; }

 private:
  posix_spawnattr_t attributes_;
};

}  // namespace kvtrack
