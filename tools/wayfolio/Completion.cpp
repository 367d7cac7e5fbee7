#include "tools/wayfolio/Completion.h"

#include "kvtrack/devices/gpsbabel/GPSBabel.h"
#include "kvtrack/library/TrackLibrary.h"
#include "kvtrack/support/FileHandling.h"
#include "tools/wayfolio/LibraryNames.h"
#include "tools/wayfolio/ManualPage.h"

#include <filesystem>
#include <set>
#include <string_view>

namespace wayfolio {

namespace fs = std::filesystem;
using kvtrack::TrackLibrary;
using kvtrack::TrackLibraryFolder;

namespace {

// What a value or an argument is.
enum class ValueKind { kNothing, kChoices, kFiles, kDirectories, kTracks, kFolders, kItems, kLoggerTypes };

// Arguments and options by name; "" as command stands for every command.
// Anything not listed takes the choices its check allows, else a file name.
struct KindRule {
  std::string_view command;
  std::string_view option;
  ValueKind kind;
};
constexpr KindRule kRules[] = {
    {"sync", "--folder", ValueKind::kDirectories},
    {"sync", "--from", ValueKind::kDirectories},
    {"", "--library", ValueKind::kDirectories},
    {"", "track", ValueKind::kTracks},
    {"", "--track", ValueKind::kTracks},
    {"", "folder", ValueKind::kFolders},
    {"", "--folder", ValueKind::kFolders},
    {"", "--into", ValueKind::kFolders},
    {"", "paths", ValueKind::kFolders},
    {"", "item", ValueKind::kItems},
    {"", "items", ValueKind::kItems},
    {"", "--type", ValueKind::kLoggerTypes},
    {"", "at", ValueKind::kNothing},
    {"", "second", ValueKind::kNothing},
    {"", "offset", ValueKind::kNothing},
    {"", "name", ValueKind::kNothing},
    {"", "what", ValueKind::kNothing},
    {"", "--max-diff", ValueKind::kNothing},
    {"", "--write", ValueKind::kNothing},
    {"", "--service", ValueKind::kNothing},
};

// Where the word being typed stands.
struct Site {
  const CLI::App* command = nullptr;
  const CLI::Option* option = nullptr;  // whose value or argument it is
  bool optionName = false;              // it is the name of an option
  std::string lead;                     // "--into=" before a value
  std::string prefix;                   // what is typed of it
  std::string library;                  // --library, when given
};

bool startsWith(std::string_view text, std::string_view prefix) {
  return text.substr(0, prefix.size()) == prefix;
}

bool takesValue(const CLI::Option& option) { return option.get_expected_max() > 0; }

const CLI::Option* findOption(const CLI::App& app, const CLI::App* command, const std::string& name) {
  if (command) {
    if (const CLI::Option* option = command->get_option_no_throw(name)) return option;
  }
  return app.get_option_no_throw(name);
}

const CLI::App* findCommand(const CLI::App& app, const std::string& name) {
  for (const CLI::App* command : app.get_subcommands({})) {
    if (!command->get_name().empty() && command->check_name(name)) return command;
  }
  return nullptr;
}

// The positional argument that the count of arguments before it reaches.
const CLI::Option* positionalAt(const CLI::App& command, size_t before) {
  for (const CLI::Option* option : command.get_options()) {
    if (!option->get_positional()) continue;
    const auto room = static_cast<size_t>(std::max(option->get_items_expected_max(), 1));
    if (before < room) return option;
    before -= room;
  }
  return nullptr;
}

bool isLibraryOption(const CLI::App& app, const CLI::Option* option) {
  return option != nullptr && option == app.get_option_no_throw("--library");
}

// The typed word when it starts with "-": an option's name, or its value after "=".
void locateOptionWord(const CLI::App& app, Site& site, const std::string& word) {
  const size_t equals = word.find('=');
  if (equals != std::string::npos) {
    const CLI::Option* option = findOption(app, site.command, word.substr(0, equals));
    if (option && takesValue(*option)) {
      site.option = option;
      site.lead = word.substr(0, equals + 1);
      site.prefix = word.substr(equals + 1);
      return;
    }
  }
  site.optionName = true;
  site.prefix = word;
}

Site locate(const CLI::App& app, const std::vector<std::string>& words) {
  Site site;
  const CLI::Option* pending = nullptr;  // an option waiting for its value
  bool onlyArguments = false;            // after "--"
  size_t arguments = 0;
  for (size_t i = 0; i + 1 < words.size(); ++i) {
    const std::string& word = words[i];
    if (pending) {
      if (isLibraryOption(app, pending)) site.library = word;
      pending = nullptr;
    } else if (!onlyArguments && word == "--") {
      onlyArguments = true;
    } else if (!onlyArguments && word.size() > 1 && word[0] == '-') {
      const size_t equals = word.find('=');
      const CLI::Option* option = findOption(app, site.command, word.substr(0, equals));
      if (equals != std::string::npos && isLibraryOption(app, option)) site.library = word.substr(equals + 1);
      if (option && equals == std::string::npos && takesValue(*option)) pending = option;
    } else if (!site.command) {
      site.command = findCommand(app, word);
    } else {
      ++arguments;
    }
  }
  const std::string typed = words.empty() ? std::string() : words.back();
  if (pending) {
    site.option = pending;
    site.prefix = typed;
  } else if (!onlyArguments && startsWith(typed, "-")) {
    locateOptionWord(app, site, typed);
  } else {
    site.prefix = typed;
    if (site.command) site.option = positionalAt(*site.command, arguments);
  }
  return site;
}

ValueKind valueKind(const CLI::App* command, const CLI::Option& option) {
  const std::string name = option.get_positional() ? option.get_name(true) : option.get_name();
  const std::string_view commandName = command ? std::string_view(command->get_name()) : "";
  for (const KindRule& rule : kRules) {
    if (rule.option == name && (rule.command.empty() || rule.command == commandName)) return rule.kind;
  }
  const std::string type = option.get_type_name();
  return type.find('{') != std::string::npos ? ValueKind::kChoices : ValueKind::kFiles;
}

// "{name,date,length}" from the type name CLI11 gives a checked option.
std::vector<std::string> choicesOf(const CLI::Option& option) {
  const std::string type = option.get_type_name();
  const size_t open = type.find('{');
  const size_t close = type.find('}', open);
  std::vector<std::string> choices;
  if (open == std::string::npos || close == std::string::npos) return choices;
  std::string_view list(type.data() + open + 1, close - open - 1);
  while (!list.empty()) {
    const size_t comma = list.find(',');
    choices.emplace_back(list.substr(0, comma));
    list = comma == std::string_view::npos ? std::string_view() : list.substr(comma + 1);
  }
  return choices;
}

std::vector<std::string> matching(const std::vector<std::string>& words, const std::string& prefix) {
  std::vector<std::string> found;
  for (const std::string& word : words) {
    if (startsWith(word, prefix)) found.push_back(word);
  }
  return found;
}

std::vector<std::string> optionNamesOf(const CLI::App& app, const CLI::App* command) {
  std::vector<std::string> names;
  for (const CLI::App* owner : {command, &app}) {
    if (!owner) continue;
    std::vector<const CLI::Option*> options = visibleOptions(*owner);
    if (owner->get_help_ptr()) options.push_back(owner->get_help_ptr());
    for (const CLI::Option* option : options) {
      if (option->get_positional()) continue;
      if (owner == &app && command && option == app.get_version_ptr()) continue;
      if (owner == &app && command && option == app.get_help_ptr()) continue;
      for (const std::string& name : option->get_lnames()) names.push_back("--" + name);
      if (option->get_lnames().empty()) {
        for (const std::string& name : option->get_snames()) names.push_back("-" + name);
      }
    }
  }
  return names;
}

std::vector<std::string> commandNames(const CLI::App& app) {
  std::vector<std::string> names;
  for (const CLI::App* command : visibleCommands(app)) names.push_back(command->get_name());
  return names;
}

std::vector<std::string> loggerTypes() {
  std::vector<std::string> types;
  for (const std::string& name : kvtrack::GPSBabel::singleton().driverNames()) types.push_back("*" + name);
  return types;
}

// A name the command line can take back: one line, no "/" inside.
bool usableName(const std::string& name) {
  return !name.empty() && name.find('\n') == std::string::npos && name.find('/') == std::string::npos;
}

// The folders a path of folder names leads to (several when siblings share a name).
std::vector<const TrackLibraryFolder*> foldersAtPath(const TrackLibrary& library, const std::string& path) {
  std::vector<const TrackLibraryFolder*> level{&library};
  for (const std::string& name : pathComponents(path)) {
    std::vector<const TrackLibraryFolder*> next;
    for (const TrackLibraryFolder* folder : level) {
      for (const auto& child : folder->folders()) {
        if (child->name() == name) next.push_back(child.get());
      }
    }
    level = std::move(next);
  }
  return level;
}

// Names below the folder the typed path leads to; without a "/" typed,
// bare names from anywhere in the library too.
std::set<std::string> namesIn(const TrackLibrary& library, ValueKind kind, const std::string& typed) {
  const size_t slash = typed.rfind('/');
  const std::string path = slash == std::string::npos ? std::string() : typed.substr(0, slash + 1);
  const std::string leaf = slash == std::string::npos ? typed : typed.substr(slash + 1);
  const bool tracks = kind != ValueKind::kFolders;
  std::set<std::string> names;
  for (const TrackLibraryFolder* folder : foldersAtPath(library, path)) {
    for (const auto& child : folder->folders()) {
      if (usableName(child->name()) && startsWith(child->name(), leaf)) names.insert(path + child->name() + "/");
    }
    for (const auto& track : tracks ? folder->tracks() : std::vector<kvtrack::TrackPtr>{}) {
      if (usableName(track->name()) && startsWith(track->name(), leaf)) names.insert(path + track->name());
    }
  }
  if (slash != std::string::npos) return names;
  if (kind != ValueKind::kTracks) {
    for (const auto& folder : foldersBelow(library)) {
      const bool atRoot = folder->parent().get() == &library;
      if (!atRoot && usableName(folder->name()) && startsWith(folder->name(), leaf)) names.insert(folder->name());
    }
  }
  for (const auto& track : tracks ? library.allTracks() : std::vector<kvtrack::TrackPtr>{}) {
    if (usableName(track->name()) && startsWith(track->name(), leaf)) names.insert(track->name());
  }
  return names;
}

// Track and folder names from the library's index; none when there is no index.
std::vector<std::string> libraryNames(const Site& site, ValueKind kind) {
  kvtrack::FileHandling& files = kvtrack::FileHandling::singleton();
  if (!site.library.empty()) files.setUserApplicationSupport(fs::absolute(site.library).string());
  std::error_code error;
  const fs::path index = fs::path(files.userApplicationSupportIfAny()) / TrackLibrary::kIndexName;
  if (!fs::is_regular_file(index, error)) return {};
  const auto library = TrackLibrary::trackLibraryWithFileHandling(files);
  library->setReadOnly(true);
  (void)library->syncFromDisk();  // what a damaged index yields still helps
  const std::set<std::string> names = namesIn(*library, kind, site.prefix);
  TrackLibrary::releaseSingleton();
  return {names.begin(), names.end()};
}

Completion valueCompletion(const Site& site) {
  const ValueKind kind = valueKind(site.command, *site.option);
  switch (kind) {
    case ValueKind::kNothing: return {};
    case ValueKind::kFiles: return {CompletionMode::kFiles, {}};
    case ValueKind::kDirectories: return {CompletionMode::kDirectories, {}};
    case ValueKind::kChoices: return {CompletionMode::kWords, matching(choicesOf(*site.option), site.prefix)};
    case ValueKind::kLoggerTypes: return {CompletionMode::kWords, matching(loggerTypes(), site.prefix)};
    case ValueKind::kTracks:
    case ValueKind::kFolders:
    case ValueKind::kItems: break;
  }
  return {CompletionMode::kNames, libraryNames(site, kind)};
}

}  // namespace

Completion completeWords(const CLI::App& app, const std::vector<std::string>& words,
                         const std::string& library) {
  Site site = locate(app, words);
  if (site.library.empty()) site.library = library;
  Completion completion;
  if (site.optionName) {
    completion = {CompletionMode::kWords, matching(optionNamesOf(app, site.command), site.prefix)};
  } else if (site.option) {
    completion = valueCompletion(site);
  } else if (!site.command) {
    completion = {CompletionMode::kWords, matching(commandNames(app), site.prefix)};
  }
  if (!site.lead.empty()) {
    for (std::string& candidate : completion.candidates) candidate = site.lead + candidate;
  }
  return completion;
}

const char* modeName(CompletionMode mode) {
  switch (mode) {
    case CompletionMode::kWords: return "words";
    case CompletionMode::kNames: return "names";
    case CompletionMode::kFiles: return "files";
    case CompletionMode::kDirectories: return "directories";
    case CompletionMode::kNothing: break;
  }
  return "nothing";
}

}  // namespace wayfolio
