#include "kvtrack/support/ExternalProgram.h"

#include "kvtrack/support/ChildProcess.h"
#include "kvtrack/support/Log.h"

namespace kvtrack {

namespace {

Result<ChildProcess> startShell(const std::string& commandLine, ChildStreams streams) {
  logLine(commandLine);
  Result<ChildProcess> shell = ChildProcess::start({"/bin/sh", "-c", commandLine}, streams);
  if (!shell) logf("external program: {}", shell.reason());
  return shell;
}

// Runs the command with one of its standard streams into a pipe and
// gathers what arrives there.
ShellOutput runGathering(const std::string& commandLine, ChildStreams streams) {
  ShellOutput result;
  Result<ChildProcess> shell = startShell(commandLine, streams);
  if (!shell) return result;
  const bool readingOutput = streams.output == ChildStream::pipe;
  UniqueFd& pipe = readingOutput ? shell->output() : shell->errors();
  Result<std::string> gathered = readToEnd(pipe.get());
  if (!gathered) logf("external program: reading its output: {}", gathered.reason());
  pipe.reset();
  (readingOutput ? result.output : result.errors) = gathered ? std::move(*gathered) : std::string();
  result.status = shell->wait();
  return result;
}

}  // namespace

int runShellCommand(const std::string& commandLine) {
  Result<ChildProcess> shell = startShell(commandLine, {});
  return shell ? shell->wait() : -1;
}

ShellOutput runShellCommandReadingOutput(const std::string& commandLine) {
  return runGathering(commandLine, {.output = ChildStream::pipe});
}

ShellOutput runShellCommandReadingErrors(const std::string& commandLine) {
  return runGathering(commandLine, {.errors = ChildStream::pipe});
}

}  // namespace kvtrack
