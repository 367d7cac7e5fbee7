// wayfolio: the command line of the kvtrack GPS-track library.
#include "tools/wayfolio/CommandLine.h"

#include "kvtrack/photos/ExifTool.h"
#include "kvtrack/photos/PhotoHooks.h"
#include "kvtrack/support/Log.h"
#include "tools/wayfolio/Commands.h"
#include "tools/wayfolio/DeviceCommands.h"
#include "tools/wayfolio/LibrarySession.h"
#include "tools/wayfolio/PhotoCommands.h"
#include "tools/wayfolio/PlaceCommands.h"
#include "tools/wayfolio/SyncCommand.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdio>
#include <optional>

namespace wayfolio {

namespace {

int fail(const std::string& message) {
  std::fflush(stdout);  // keep what was printed ahead of the message
  std::fprintf(stderr, "wayfolio: error: %s\n", message.c_str());
  return 1;
}

int run(Invocation& invocation) {
  // Users see the program's messages; the library's log joins with -v, and
  // failures quote the line that matters.
  kvtrack::setLogToStandardError(invocation.verbose);
  if (!invocation.action) return 0;  // CLI11 answered already (help, version)
  try {
    std::optional<LibrarySession> session;
    if (invocation.usesLibrary) {
      session.emplace(invocation.library, invocation.noWait, !invocation.changesLibrary);
      invocation.session = &*session;
    }
    const Outcome outcome = invocation.action();
    if (outcome.changed && session) session->save();
    std::fputs(outcome.report.c_str(), stdout);
    if (outcome.failure) return fail(*outcome.failure);
    return 0;
  } catch (const LibraryBusy& busy) {
    std::fprintf(stderr, "wayfolio: %s\n", busy.what());
    return 1;
  } catch (const std::exception& error) {
    return fail(error.what());
  }
}

// An argument that looks like an option and is none: most often a file
// name that starts with "-".
std::optional<std::string> unknownOption(const CLI::App& app, int argc, char** argv) {
  std::vector<const CLI::App*> apps{&app};
  for (const CLI::App* sub : app.get_subcommands({})) apps.push_back(sub);
  for (int i = 1; i < argc; ++i) {
    const std::string argument = argv[i];
    if (argument == "--") break;
    if (argument.size() < 2 || argument[0] != '-') continue;
    const std::string name = argument.substr(0, argument.find('='));
    const bool known = std::any_of(apps.begin(), apps.end(), [&](const CLI::App* a) {
      const auto options = a->get_options([&](const CLI::Option* o) { return o->check_name(name); });
      return !options.empty();
    });
    if (!known) return argument;
  }
  return std::nullopt;
}

// Help and version go out as CLI11 writes them; every other mistake on the
// command line is one "wayfolio: error:" line and status 1.
int commandLineError(const CLI::App& app, const CLI::ParseError& error, int argc, char** argv) {
  if (error.get_exit_code() == 0) return app.exit(error);
  std::string message = error.what();
  if (const auto option = unknownOption(app, argc, argv)) {
    message = fmt::format("{} is not an option of wayfolio ({}); a file name that starts with "
                          "'-' goes after '--', as in: wayfolio import -- {}",
                          *option, message, *option);
  }
  return fail(message + " (--help lists the commands and options)");
}

}  // namespace

int runCommandLine(int argc, char** argv) {
  CLI::App app("Keeps a library of GPS tracks: import, list, edit and export them.", "wayfolio");
  Invocation invocation;
  app.add_option("--library", invocation.library,
                 "Library folder (default: $WAYFOLIO_LIBRARY, else $XDG_DATA_HOME/wayfolio)");
  app.add_flag("-v,--verbose", invocation.verbose, "Show the library's log on standard error");
  app.add_flag("--no-wait", invocation.noWait,
               "Fail at once when another wayfolio works on the library");
  app.set_version_flag("--version", "wayfolio " WAYFOLIO_VERSION);
  app.require_subcommand(1);
  app.fallthrough();  // global options may follow the subcommand

  addImportCommand(app, invocation);
  addListCommands(app, invocation);
  addTrackInfoCommands(app, invocation);
  addFolderEditCommands(app, invocation);
  addTrackEditCommands(app, invocation);
  addExportCommands(app, invocation);
  addZipCommand(app, invocation);
  addSyncCommand(app, invocation);
  addCheckCommand(app, invocation);
  addViewCommand(app, invocation);
  addPhotoCommands(app, invocation);
  addPlaceCommands(app, invocation);
  addDeviceCommands(app, invocation);
  addShellSupportCommands(app, invocation);

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return commandLineError(app, error, argc, argv);
  }
  kvtrack::installPhotoHooks();
  installConfiguredSynchronizer();
  const int status = run(invocation);
  kvtrack::ExifTool::shutdownSessions();  // no exiftool outlives us
  return status;
}

}  // namespace wayfolio
