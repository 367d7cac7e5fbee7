// wayfolio: the command line of the kvtrack GPS-track library.
#include "kvtrack/photos/ExifTool.h"
#include "kvtrack/photos/PhotoHooks.h"
#include "kvtrack/support/Log.h"
#include "tools/wayfolio/Commands.h"
#include "tools/wayfolio/DeviceCommands.h"
#include "tools/wayfolio/LibrarySession.h"
#include "tools/wayfolio/PhotoCommands.h"
#include "tools/wayfolio/SyncCommand.h"

#include <cstdio>
#include <optional>

using namespace wayfolio;

namespace {

int fail(const std::string& message) {
  std::fflush(stdout);  // keep what was printed ahead of the message
  std::fprintf(stderr, "wayfolio: error: %s\n", message.c_str());
  return 1;
}

int run(const Invocation& invocation) {
  // Users see the program's messages; the library's log joins with -v, and
  // failures quote the line that matters.
  kvtrack::setLogToStandardError(invocation.verbose);
  if (!invocation.action) return 0;  // CLI11 answered already (help, version)
  try {
    std::optional<LibrarySession> session;
    if (invocation.usesLibrary) session.emplace(invocation.library, invocation.noWait);
    const Outcome outcome = invocation.action();
    if (outcome.changed && session) session->save();
    if (outcome.failure) return fail(*outcome.failure);
    return 0;
  } catch (const LibraryBusy& busy) {
    std::fprintf(stderr, "wayfolio: %s\n", busy.what());
    return 1;
  } catch (const std::exception& error) {
    return fail(error.what());
  }
}

}  // namespace

int main(int argc, char** argv) {
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
  addPhotoCommands(app, invocation);
  addDeviceCommands(app, invocation);

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error);
  }
  kvtrack::installPhotoHooks();
  installConfiguredSynchronizer();
  const int status = run(invocation);
  kvtrack::ExifTool::shutdownSessions();  // no exiftool outlives us
  return status;
}
