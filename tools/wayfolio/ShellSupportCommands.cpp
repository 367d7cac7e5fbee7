// wayfolio __complete and __manpage: hidden commands for the shells' Tab
// completion and for the build, which writes the manual page with them.
// Both walk the command line as it is defined when they run, so commands
// and options added later appear without further work.
#include "tools/wayfolio/Commands.h"
#include "tools/wayfolio/Completion.h"
#include "tools/wayfolio/ManualPage.h"

#include <fmt/format.h>

#include <fstream>
#include <memory>
#include <sstream>

namespace wayfolio {

namespace {

std::string completionReport(const CLI::App& app, std::vector<std::string> words,
                             const std::string& library) {
  if (words.empty()) words.emplace_back();
  const Completion completion = completeWords(app, words, library);
  std::string report = std::string(modeName(completion.mode)) + "\n";
  for (const std::string& candidate : completion.candidates) report += candidate + "\n";
  return report;
}

struct ManualOptions {
  std::string pageTemplate;
  std::string date;
};

Outcome reporting(std::string text) {
  Outcome outcome;
  outcome.report = std::move(text);
  return outcome;
}

std::string manualReport(const CLI::App& app, const ManualOptions& options) {
  std::ifstream file(options.pageTemplate, std::ios::binary);
  std::ostringstream text;
  text << file.rdbuf();
  if (!file || text.str().empty()) {
    throw CommandError(fmt::format("cannot read the page template {}", options.pageTemplate));
  }
  return manualPage(app, text.str(), WAYFOLIO_VERSION, options.date);
}

}  // namespace

void addShellSupportCommands(CLI::App& app, Invocation& invocation) {
  auto words = std::make_shared<std::vector<std::string>>();
  CLI::App* complete = app.add_subcommand(
      "__complete", "Candidates for the last word: a mode line, then one candidate a line");
  complete->group("");  // hidden from --help and the manual
  complete->add_option("words", *words, "The words after 'wayfolio', the last one being typed");
  complete->callback([&invocation, &app, words] {
    invocation.usesLibrary = false;  // reads the index itself, without lock or folder
    invocation.action = [&app, &invocation, words] {
      return reporting(completionReport(app, *words, invocation.library));
    };
  });

  auto manual = std::make_shared<ManualOptions>();
  CLI::App* manpage = app.add_subcommand("__manpage", "The manual page in roff, from its template");
  manpage->group("");
  manpage->add_option("template", manual->pageTemplate, "The page template")->required();
  manpage->add_option("--date", manual->date, "The date the page shows");
  manpage->callback([&invocation, &app, manual] {
    invocation.usesLibrary = false;
    invocation.action = [&app, manual] { return reporting(manualReport(app, *manual)); };
  });
}

}  // namespace wayfolio
