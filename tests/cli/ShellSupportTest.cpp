// The manual page against --help, and Tab completion: the answers of
// "wayfolio __complete" and the bash and zsh scripts that ask for them.
#include "tests/cli/WayfolioFixture.h"

#include <map>
#include <regex>

namespace kvtrack::testing {
namespace {

namespace fs = std::filesystem;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsSupersetOf;
using ::testing::Not;

std::string collapsed(const std::string& text) { return std::regex_replace(text, std::regex("\\s+"), " "); }

std::string completionScript(const std::string& name) {
  return (fs::path(KVTRACK_SOURCE_DIR) / "tools/wayfolio/completion" / name).string();
}

// Every file below the folder with its size and modification time.
std::map<std::string, std::pair<uintmax_t, fs::file_time_type>> snapshot(const std::string& folder) {
  std::map<std::string, std::pair<uintmax_t, fs::file_time_type>> files;
  for (const auto& entry : fs::recursive_directory_iterator(folder)) {
    files[entry.path().string()] = {entry.is_regular_file() ? entry.file_size() : 0, entry.last_write_time()};
  }
  return files;
}

class ShellSupportTest : public WayfolioTest {
 protected:
  /// The mode line, then the candidates.
  std::vector<std::string> complete(const std::string& words) const {
    return lines(ok("__complete -- " + words));
  }

  /// The commands --help lists, and the option names in a command's --help.
  std::vector<std::string> helpCommands() const {
    std::vector<std::string> commands;
    bool listing = false;
    for (const std::string& line : lines(ok("--help"))) {
      if (line == "Subcommands:")
        listing = true;
      else if (listing && line.size() > 2 && line[2] != ' ')
        commands.push_back(line.substr(2, line.find(' ', 2) - 2));
    }
    return commands;
  }
  static std::vector<std::string> helpOptions(const std::string& help) {
    std::vector<std::string> options;
    const std::regex option("^ +(-[a-z],)?(--[a-z-]+)");
    for (const std::string& line : lines(help)) {
      std::smatch match;
      if (std::regex_search(line, match, option) && match[2] != "--help") options.push_back(match[2]);
    }
    return options;
  }
};

TEST_F(ShellSupportTest, TheManualPageDescribesEveryCommandAndOptionThatHelpLists) {
  const std::string rendered = collapsed(
      runShellCommandReadingOutput("LC_ALL=C MANWIDTH=100 man --nh --nj -l " + word(WAYFOLIO_MANUAL)).output);
  const std::vector<std::string> commands = helpCommands();
  ASSERT_THAT(commands, IsSupersetOf({"import", "ls", "geotag", "download", "check"}));
  EXPECT_THAT(commands, Not(Contains("__complete")));
  for (const std::string& command : commands) {
    // Each command's part runs from its usage line to the next command's.
    const size_t start = rendered.find(" wayfolio " + command + " ");
    ASSERT_NE(start, std::string::npos) << command;
    const std::string part = rendered.substr(start, rendered.find(" wayfolio ", start + 10) - start);
    const std::string help = ok(command + " --help");
    for (const std::string& option : helpOptions(help)) {
      EXPECT_NE(part.find(option), std::string::npos) << command << " " << option;
    }
    const std::string description = lines(help).front();
    EXPECT_NE(part.find(collapsed(description)), std::string::npos) << description;
  }
  for (const char* section : {"EXIT STATUS", "FILES", "ENVIRONMENT", "EXAMPLES", "GPS LOGGERS"}) {
    EXPECT_NE(rendered.find(section), std::string::npos) << section;
  }
  EXPECT_NE(rendered.find(collapsed(ok("--version"))), std::string::npos);
  // groff finds nothing to complain about.
  const ShellOutput warnings = runShellCommandReadingOutput("LC_ALL=C MANWIDTH=80 man --warnings -l " +
                                                            word(WAYFOLIO_MANUAL) + " 2>&1 >/dev/null");
  EXPECT_EQ(warnings.output, "");
}

TEST_F(ShellSupportTest, CommandsOptionsAndChoicesComplete) {
  const std::vector<std::string> commands = complete("''");
  ASSERT_FALSE(commands.empty());
  EXPECT_EQ(commands.front(), "words");
  EXPECT_EQ(std::vector<std::string>(commands.begin() + 1, commands.end()), helpCommands());
  EXPECT_THAT(complete("s"), ElementsAre("words", "show", "sort", "split", "sync"));
  EXPECT_THAT(complete("export --k"), ElementsAre("words", "--kml", "--kmz"));
  EXPECT_THAT(complete("--li"), ElementsAre("words", "--library"));
  EXPECT_THAT(complete("rm -r --rec"), ElementsAre("words", "--recursive"));
  EXPECT_THAT(complete("sort --by ''"), ElementsAre("words", "name", "date", "length", "duration"));
  EXPECT_THAT(complete("--verbose sort --descending --by=d"),
              ElementsAre("words", "--by=date", "--by=duration"));
  EXPECT_THAT(complete("download --type '*'"), IsSupersetOf({"*i-gotU", "*i-gotUGT800", "*BG728"}));
  EXPECT_THAT(complete("import ''"), ElementsAre("files"));
  EXPECT_THAT(complete("--library ''"), ElementsAre("directories"));
  EXPECT_THAT(complete("sync --folder ''"), ElementsAre("directories"));
  EXPECT_THAT(complete("split Walk 3 ''"), ElementsAre("nothing"));
  // After "--" nothing is an option any more.
  EXPECT_THAT(complete("import -- --"), ElementsAre("files"));
}

TEST_F(ShellSupportTest, TrackAndFolderNamesCompleteFromTheLibraryInBashAndZsh) {
  importExamples();
  ok("mkdir 2024/Alps " + word("Bern walks"));
  ok("mv " + word("Bachalpsee hike") + " 2024/Alps");
  const auto before = snapshot(library());
  EXPECT_THAT(complete("show ''"),
              ElementsAre("names", "2024/", "Bachalpsee hike", "Bern walks/", "Lake walk", "Rhine ride"));
  EXPECT_THAT(complete("show Ba"), ElementsAre("names", "Bachalpsee hike"));
  EXPECT_THAT(complete("show 2024/"), ElementsAre("names", "2024/Alps/"));
  EXPECT_THAT(complete("show /2024/Alps/"), ElementsAre("names", "/2024/Alps/Bachalpsee hike"));
  // Folders only where a folder is wanted; bare names of deeper folders too.
  EXPECT_THAT(complete("ls ''"), ElementsAre("names", "2024/", "Alps", "Bern walks/"));
  EXPECT_THAT(complete("download --into=2"), ElementsAre("names", "--into=2024/"));
  EXPECT_THAT(complete("mv Rhine 2024/A"), ElementsAre("names", "2024/Alps/"));
  EXPECT_THAT(complete("zip out.zip --track R"), ElementsAre("names", "Rhine ride"));
  EXPECT_THAT(complete("zip R"), ElementsAre("files"));
  EXPECT_EQ(snapshot(library()), before);  // completion only reads
  // A library named on the command line is the one read, and none is made.
  const std::string other = scratch.file("other library");
  EXPECT_THAT(complete("--library " + word(other) + " show ''"), ElementsAre("names"));
  EXPECT_FALSE(fs::exists(other));
  EXPECT_THAT(complete("--library=" + word(library()) + " tree B"), ElementsAre("names", "Bern walks/"));
  // While another wayfolio holds the library's lock, completion still answers.
  const WayfolioRun held =
      runProgram("flock -x " + word(library() + "/.wayfolio.lock") + " timeout 20 " + word(WAYFOLIO_BINARY),
                 library(), "__complete -- show R");
  EXPECT_THAT(lines(held.out), Contains("Rhine ride"));

  // Runs bash's completion function on the line as typed, cursor at its end.
  const auto tab = [&](const std::string& typed) {
    const std::string line = word(WAYFOLIO_BINARY) + " --library " + word(library()) + " " + typed;
    const std::string script = "compopt() { printf 'compopt %s\\n' \"$*\"; }; source " +
                               word(completionScript("wayfolio.bash")) + "; COMP_LINE=" + word(line) +
                               "; COMP_POINT=${#COMP_LINE}; _wayfolio; " +
                               "[[ ${#COMPREPLY[@]} -eq 0 ]] || printf '%s\\n' \"${COMPREPLY[@]}\"";
    return lines(runShellCommandReadingOutput("bash -c " + word(script)).output);
  };
  EXPECT_THAT(tab("show 'Bachalpsee h"), ElementsAre("compopt -o filenames", "Bachalpsee hike"));
  EXPECT_THAT(tab("show Bachalpsee\\ h"), ElementsAre("compopt -o filenames", "Bachalpsee hike"));
  EXPECT_THAT(tab("ls \"2024/A"), ElementsAre("compopt -o filenames", "compopt -o nospace", "2024/Alps/"));
  EXPECT_THAT(tab("download --into=Be"),
              ElementsAre("compopt -o filenames", "compopt -o nospace", "Bern walks/"));
  EXPECT_THAT(tab("ex"), ElementsAre("export"));
  EXPECT_THAT(tab("import "), ElementsAre("compopt -o default"));

  // compadd and _files stand in for zsh's own, which work only inside the line editor.
  const auto zsh = [&](const std::string& wordsArray, int current, const std::string& prefix) {
    const std::string script =
        "compadd() { print -r -- \"compadd $*\"; }; _files() { print -r -- \"_files $*\"; }; words=(" +
        word(WAYFOLIO_BINARY) + " --library " + word(word(library())) + " " + wordsArray +
        "); CURRENT=" + std::to_string(current) + "; PREFIX=" + word(prefix) + "; source " +
        word(completionScript("_wayfolio"));
    return lines(runShellCommandReadingOutput("zsh -f -c " + word(script)).output);
  };
  EXPECT_THAT(zsh("show ''", 5, ""), ElementsAre("compadd -S  -- 2024/ Bern walks/",
                                                 "compadd -- Bachalpsee hike Lake walk Rhine ride"));
  EXPECT_THAT(zsh("show 'Rh'", 5, "'Rh'"), ElementsAre("compadd -- Rhine ride"));
  EXPECT_THAT(zsh("sort --by ''", 6, ""), ElementsAre("compadd -- name date length duration"));
  EXPECT_THAT(zsh("sync --from ''", 6, ""), ElementsAre("_files -/"));
}

}  // namespace
}  // namespace kvtrack::testing
