#pragma once
// Persistent exiftool processes (`exiftool -stay_open True -@ -`). Starting
// exiftool (Perl) costs far more than reading one photo, so batches hand the
// same arguments a shell command would get to a running process instead.
//
// Protocol per command: the arguments one per line, then "-echo4"
// "{ready<id>:${status}}" and "-execute<id>". exiftool answers "{ready<id>}"
// on standard output and the echo on standard error, where ${status} is the
// exit status the same command would have had in a process of its own.
//
// The first session started sets SIGPIPE to SIG_IGN for the whole process:
// a write to an exiftool that died must come back as EPIPE, not end us.

#include "kvtrack/support/ChildProcess.h"

#include <sys/types.h>

#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace kvtrack {

struct ExifToolResult {
  int status = -1;     // exiftool's exit status for the command
  std::string output;  // standard output without the ready marker
  std::string errors;  // standard error without the status marker
};

/// One exiftool process. Used by one thread at a time.
class ExifToolSession {
 public:
  explicit ExifToolSession(std::string program);
  /// Ends the process (as stop()).
  ~ExifToolSession();
  ExifToolSession(const ExifToolSession&) = delete;
  ExifToolSession& operator=(const ExifToolSession&) = delete;

  /// Starts the process unless it runs. False (and logged) when it cannot
  /// be started.
  bool start();
  bool isRunning() const { return child_.has_value(); }
  /// Runs one command (arguments without the program). Nothing when the
  /// process is gone or goes away during the command; it is reaped then.
  std::optional<ExifToolResult> run(const std::vector<std::string>& arguments);
  /// Runs the commands in order, sent all at once (one round trip instead
  /// of one per command). The results of the commands answered, in order:
  /// fewer than commands when the process went away (it is reaped then).
  std::vector<ExifToolResult> runBatch(const std::vector<std::vector<std::string>>& commands);
  /// Asks exiftool to finish ("-stay_open False"), waits a few seconds, then
  /// kills it. Never logs, so it is safe at process exit.
  void stop();

  const std::string& program() const { return program_; }
  const std::string& workingFolder() const { return workingFolder_; }
  pid_t processId() const { return child_ ? child_->processId() : -1; }

  /// One line of exiftool's argument file for the argument: as it is, or in
  /// the "#[CSTR]" C-string form when a plain line would change it (newline,
  /// leading or trailing white space, leading '#', empty, blanks around a tag
  /// assignment's '='). Nothing when neither form carries it: exiftool 12
  /// reads '$' and '@' in C strings as "\$" and "\@".
  static std::optional<std::string> argumentLine(const std::string& argument);

 private:
  void reap(bool kill);

  std::string program_;
  std::string workingFolder_;
  std::optional<ChildProcess> child_;
};

/// A fixed number of sessions (one per core), handed out to callers, plus
/// the rule that two writes of one file never run at once.
class ExifToolSessionPool {
 public:
  static ExifToolSessionPool& shared();

  explicit ExifToolSessionPool(size_t capacity);
  ~ExifToolSessionPool();
  ExifToolSessionPool(const ExifToolSessionPool&) = delete;
  ExifToolSessionPool& operator=(const ExifToolSessionPool&) = delete;

  /// Runs the command on a free session of this program, waiting for one
  /// when all are busy. A session whose exiftool died is restarted and the
  /// command retried once. Nothing when no session can run it; the caller
  /// then runs the command on its own. beforeRun is called once, just
  /// before the command first goes to a running exiftool.
  std::optional<ExifToolResult> run(const std::string& program,
                                    const std::vector<std::string>& arguments,
                                    const std::function<void()>& beforeRun = {});
  /// The same for commands sent at once to one session, in order. When
  /// exiftool dies, it is restarted once and the unanswered commands go
  /// again. The results of the commands answered, in order; the caller runs
  /// the rest (all of them when a command does not suit a session) on its own.
  std::vector<ExifToolResult> runBatch(const std::string& program,
                                       const std::vector<std::vector<std::string>>& commands,
                                       const std::function<void()>& beforeRun = {});
  /// Ends every session (waiting for busy ones to come back). Later calls
  /// start new ones.
  void shutdown();

  size_t capacity() const { return capacity_; }
  /// Process ids of the running idle sessions (for tests).
  std::vector<pid_t> processIds();

 private:
  std::unique_ptr<ExifToolSession> acquire(const std::string& program);
  void release(std::unique_ptr<ExifToolSession> session);

  const size_t capacity_;
  std::mutex mutex_;
  std::condition_variable available_;
  std::vector<std::unique_ptr<ExifToolSession>> idle_;
  size_t handedOut_ = 0;
};

/// Held while a command writes files: no other writer of any of those paths
/// gets its lock until this one is gone. Paths are compared as absolute,
/// lexically normal paths.
class ExifToolWriteLock {
 public:
  explicit ExifToolWriteLock(const std::vector<std::string>& paths);
  ~ExifToolWriteLock();
  ExifToolWriteLock(const ExifToolWriteLock&) = delete;
  ExifToolWriteLock& operator=(const ExifToolWriteLock&) = delete;

 private:
  std::set<std::string> paths_;
};

/// Whether the arguments change files: -overwrite_original*, -tagsFromFile,
/// tag assignments ("-TAG=…", "-TAG<…"), and the options that write or move
/// files (-geotag, -o, -w, -delete_original, -restore_original).
bool exiftoolArgumentsWrite(const std::vector<std::string>& arguments);

/// Whether a session can run the arguments like a process of its own would:
/// no options that steer the argument file or the session itself (-@,
/// -stay_open, -execute, -common_args, -config, -k), no "-" for standard
/// input, every argument expressible as an argument-file line.
bool exiftoolArgumentsSuitForSession(const std::vector<std::string>& arguments);

}  // namespace kvtrack
