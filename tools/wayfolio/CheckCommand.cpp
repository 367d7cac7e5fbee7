// wayfolio check: the library against its folder (index, track files,
// files nobody names), and with --repair the rebuild saved.
#include "kvtrack/library/LibraryRecovery.h"
#include "kvtrack/library/TrackLibrary.h"
#include "tools/wayfolio/Commands.h"
#include "tools/wayfolio/LibrarySession.h"

#include <fmt/format.h>

#include <memory>

namespace wayfolio {

using namespace kvtrack;

namespace {

std::string indexText(const LibraryCheck& check) {
  switch (check.index) {
    case IndexState::kSound: return "sound";
    case IndexState::kMissing: return "missing (the library was rebuilt from its files)";
    case IndexState::kDamaged:
      return fmt::format("cannot be read: {} (the library was rebuilt from its files)",
                         check.indexProblem);
  }
  return {};
}

std::string describe(const LibraryCheck& check, const TrackLibrary& library) {
  std::string text = fmt::format("Library {}: {} tracks\nIndex: {}\n", library.folder(),
                                 check.trackCount, indexText(check));
  text += fmt::format("Missing track files: {}\n", check.missingFiles.size());
  for (const auto& name : check.missingFiles) text += fmt::format("  {}\n", name);
  text += fmt::format("Unreadable track files: {}\n", check.damagedFiles.size());
  for (const auto& file : check.damagedFiles) text += fmt::format("  {}: {}\n", file.filename, file.reason);
  text += fmt::format("Track files no track names: {}\n", check.orphanFiles.size());
  for (const auto& name : check.orphanFiles) text += fmt::format("  {}\n", name);
  return text;
}

Outcome check(const LibrarySession& session, bool repair) {
  const auto library = TrackLibrary::singleton();
  Outcome outcome;
  if (repair) {
    std::vector<UnreadableFile> unreadable;
    const auto adopted = adoptOrphanFiles(*library, kTrackIdPrefix, unreadable);
    outcome.changed = true;  // a rebuilt index is saved even when nothing more was adopted
    outcome.report = fmt::format("Adopted {} track files into the folder Recovered\n", adopted.size());
  }
  const LibraryCheck found = checkLibrary(*library, session.opening());
  outcome.report = describe(found, *library) + outcome.report;
  const size_t unrepaired = found.missingFiles.size() + found.damagedFiles.size();
  if (!repair && !found.sound()) {
    outcome.failure = "the library has problems; 'wayfolio check --repair' rebuilds its index "
                      "and adopts the files no track names";
  } else if (repair && unrepaired > 0) {
    outcome.failure = fmt::format("{} track files are missing or unreadable; their tracks stay "
                                  "in the library, and nothing of a damaged file is deleted",
                                  unrepaired);
  }
  return outcome;
}

}  // namespace

void addCheckCommand(CLI::App& app, Invocation& invocation) {
  auto repair = std::make_shared<bool>(false);
  CLI::App* command = app.add_subcommand(
      "check", "Check the library against its folder; --repair rebuilds the index");
  command->add_flag("--repair", *repair,
                    "Save a rebuilt index and adopt track files no track names into Recovered");
  command->callback([&invocation, repair] {
    invocation.changesLibrary = *repair;
    invocation.action = [&invocation, repair] { return check(*invocation.session, *repair); };
  });
}

}  // namespace wayfolio
