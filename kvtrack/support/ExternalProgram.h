#pragma once
// ExternalProgram: the one way kvtrack runs other programs (gpsbabel,
// exiftool, ...): a command line handed to /bin/sh -c. Quote every file name
// with FileHandling::filenameForShell. The command line is logged before it
// runs. Safe to call from any thread; the child reads /dev/null. Built on
// ChildProcess, which programs that need a conversation use directly.

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

}  // namespace kvtrack
