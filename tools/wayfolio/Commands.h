#pragma once
// The pieces every subcommand shares: how it reports failure, what it hands
// back to main, and the functions that register each subcommand.

#include <CLI/CLI.hpp>

#include <functional>
#include <optional>
#include <stdexcept>
#include <string>

namespace wayfolio {

class LibrarySession;

/// A failure the user caused or can fix; main prints "wayfolio: error: <what>".
class CommandError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// What a finished command tells main.
struct Outcome {
  /// The library changed and must be saved.
  bool changed = false;
  /// Set when the command ran but did not fully succeed (exit status 1).
  std::optional<std::string> failure;
  /// What the command did, printed once its changes are saved (never
  /// before: a user told "added" must find the track there).
  std::string report;
};

inline Outcome libraryChanged(bool changed = true, std::string report = {}) {
  return Outcome{changed, std::nullopt, std::move(report)};
}

/// The command ran but did not fully succeed; changed: what it did still
/// needs saving.
inline Outcome commandFailed(std::string why, bool changed = false) {
  return Outcome{changed, std::move(why), {}};
}

/// Global options, and the command chosen on the command line.
struct Invocation {
  std::string library;  // empty: FileHandling's default folder
  bool verbose = false;
  bool noWait = false;
  /// False for commands that never touch the library (no lock, no folder).
  bool usesLibrary = true;
  /// Set by commands that may change the library; all others open it
  /// read-only, so they never write to it.
  bool changesLibrary = false;
  std::function<Outcome()> action;
  /// The library opened for the command, while the action runs.
  const LibrarySession* session = nullptr;
};

void addImportCommand(CLI::App& app, Invocation& invocation);
void addListCommands(CLI::App& app, Invocation& invocation);       // ls, tree
void addTrackInfoCommands(CLI::App& app, Invocation& invocation);  // show, points
void addFolderEditCommands(CLI::App& app, Invocation& invocation); // mkdir, mv, rename, rm, sort
void addTrackEditCommands(CLI::App& app, Invocation& invocation);  // split, tz
void addExportCommands(CLI::App& app, Invocation& invocation);     // export, convert
void addZipCommand(CLI::App& app, Invocation& invocation);
void addSyncCommand(CLI::App& app, Invocation& invocation);
void addCheckCommand(CLI::App& app, Invocation& invocation);
void addViewCommand(CLI::App& app, Invocation& invocation);
/// Hidden: __complete (Tab completion) and __manpage (the manual page).
/// Registered last; they see every command registered before them.
void addShellSupportCommands(CLI::App& app, Invocation& invocation);

}  // namespace wayfolio
