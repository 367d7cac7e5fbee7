#include "tools/wayfolio/ManualPage.h"

#include <fmt/format.h>

#include <algorithm>
#include <cctype>

namespace wayfolio {

namespace {

bool isOptionGroup(const CLI::App* sub) { return sub->get_name().empty(); }

// The options a command (or an option group) defines itself, without the
// help flags CLI11 gives every one of them and without hidden ones.
std::vector<const CLI::Option*> ownOptions(const CLI::App& app) {
  return app.get_options([&](const CLI::Option* o) {
    return o != app.get_help_ptr() && o != app.get_help_all_ptr() && !o->get_group().empty();
  });
}

bool startsWord(std::string_view text, size_t at) {
  if (at == 0) return true;
  const char before = text[at - 1];
  return std::isspace(static_cast<unsigned char>(before)) || before == '(' || before == '[' ||
         before == '"' || before == '-' || before == '|' || before == ',';
}

// "-r" or "--by", or "-5": a dash that a reader will type.
bool isTypedDash(std::string_view text, size_t at) {
  if (!startsWord(text, at)) return false;
  if (at > 0 && text[at - 1] == '-' && !startsWord(text, at - 1)) return false;
  const size_t next = at + 1;
  return next < text.size() && (std::isalnum(static_cast<unsigned char>(text[next])) ||
                                text[next] == '-');
}

// "-v,--verbose" as "\fB\-v\fR, \fB\-\-verbose\fR".
std::string optionNames(const CLI::Option& option) {
  std::string names;
  for (const std::string& name : option.get_snames()) {
    if (!names.empty()) names += ", ";
    names += "\\fB" + roffText("-" + name) + "\\fR";
  }
  for (const std::string& name : option.get_lnames()) {
    if (!names.empty()) names += ", ";
    names += "\\fB" + roffText("--" + name) + "\\fR";
  }
  return names;
}

bool takesValue(const CLI::Option& option) { return option.get_expected_max() > 0; }
bool takesMany(const CLI::Option& option) { return option.get_items_expected_max() > 1; }

// The value as --help names it ("TEXT", "TEXT:{name,date}").
std::string valueName(const CLI::Option& option) {
  return takesValue(option) ? " \\fI" + roffText(option.get_type_name()) + "\\fR" : std::string();
}

std::string positionalName(const CLI::Option& option) {
  return "\\fI" + roffText(option.get_name(true)) + "\\fR" + (takesMany(option) ? "..." : "");
}

// One command's arguments on its synopsis line: positionals, then options.
std::string commandUsage(const CLI::App& command) {
  std::string usage = "\\fBwayfolio " + roffText(command.get_name()) + "\\fR";
  for (const CLI::Option* option : visibleOptions(command)) {
    if (!option->get_positional()) continue;
    const std::string name = positionalName(*option);
    usage += option->get_required() ? " " + name : " [" + name + "]";
  }
  for (const CLI::Option* option : visibleOptions(command)) {
    if (option->get_positional()) continue;
    const std::string first = option->get_lnames().empty() ? "-" + option->get_snames().front()
                                                            : "--" + option->get_lnames().front();
    const std::string text = "\\fB" + roffText(first) + "\\fR" + valueName(*option);
    usage += option->get_required() ? " " + text : " [" + text + "]";
  }
  return usage;
}

std::string optionNotes(const CLI::Option& option) {
  std::vector<std::string> notes;
  if (option.get_required()) notes.emplace_back("required");
  if (!option.get_default_str().empty()) notes.push_back("default: " + option.get_default_str());
  for (const CLI::Option* needed : option.get_needs()) notes.push_back("needs " + needed->get_name());
  for (const CLI::Option* excluded : option.get_excludes()) {
    notes.push_back("not with " + excluded->get_name());
  }
  if (notes.empty()) return {};
  std::string joined;
  for (const std::string& note : notes) joined += (joined.empty() ? "" : "; ") + note;
  return " (" + joined + ")";
}

// ".TP" paragraph per option: its names and value, then its description.
std::string optionParagraph(const CLI::Option& option) {
  const std::string head =
      option.get_positional() ? positionalName(option) : optionNames(option) + valueName(option);
  return fmt::format(".TP\n{}\n{}\n", head,
                     roffText(option.get_description() + optionNotes(option)));
}

// The paragraph before the options of a group ("The file to write, exactly one of:").
std::string groupParagraph(const CLI::App& group) {
  std::string text = group.get_description().empty() ? group.get_group() : group.get_description();
  const auto least = group.get_require_option_min();
  const auto most = group.get_require_option_max();
  if (least == 1 && most == 1) text += ", exactly one of";
  else if (least > 0) text += fmt::format(", at least {} of", least);
  else if (most > 0) text += fmt::format(", at most {} of", most);
  return fmt::format(".PP\n{}:\n", roffText(text));
}

std::string commandSection(const CLI::App& command) {
  std::string section = fmt::format(".SS {}\n{}\n.PP\n{}\n", roffText(command.get_name()),
                                    commandUsage(command), roffText(command.get_description()));
  for (const CLI::Option* option : ownOptions(command)) section += optionParagraph(*option);
  for (const CLI::App* group : command.get_subcommands(isOptionGroup)) {
    section += groupParagraph(*group);
    for (const CLI::Option* option : ownOptions(*group)) section += optionParagraph(*option);
  }
  if (!command.get_footer().empty()) section += ".PP\n" + roffText(command.get_footer()) + "\n";
  return section;
}

void replaceAll(std::string& text, std::string_view what, std::string_view with) {
  for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + with.size())) {
    text.replace(at, what.size(), with);
  }
}

}  // namespace

std::vector<const CLI::App*> visibleCommands(const CLI::App& app) {
  return app.get_subcommands(
      [](const CLI::App* sub) { return !sub->get_name().empty() && !sub->get_group().empty(); });
}

std::vector<const CLI::Option*> visibleOptions(const CLI::App& command) {
  std::vector<const CLI::Option*> options = ownOptions(command);
  for (const CLI::App* group : command.get_subcommands(isOptionGroup)) {
    for (const CLI::Option* option : ownOptions(*group)) options.push_back(option);
  }
  return options;
}

std::string roffText(std::string_view text) {
  std::string out;
  for (size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    const bool lineStart = i == 0 || text[i - 1] == '\n';
    if (lineStart && (c == '.' || c == '\'')) out += "\\&";
    if (c == '\\') out += "\\e";
    else if (c == '-' && isTypedDash(text, i)) out += "\\-";
    else out += c;
  }
  return out;
}

std::string manualSynopsis(const CLI::App& app) {
  std::string synopsis = "\\fBwayfolio\\fR";
  for (const CLI::Option* option : visibleOptions(app)) {
    if (option == app.get_version_ptr()) continue;
    synopsis += " [" + optionNames(*option) + valueName(*option) + "]";
  }
  synopsis += " \\fIcommand\\fR [\\fIarguments\\fR]\n.br\n";
  synopsis += "\\fBwayfolio\\fR \\fIcommand\\fR \\fB\\-\\-help\\fR\n.br\n";
  synopsis += "\\fBwayfolio \\-\\-version\\fR\n";
  return synopsis;
}

std::string manualCommands(const CLI::App& app) {
  std::string text = ".SH OPTIONS\nThese options go before or after the command.\n";
  if (const CLI::Option* help = app.get_help_ptr()) text += optionParagraph(*help);
  for (const CLI::Option* option : visibleOptions(app)) text += optionParagraph(*option);
  text += ".SH COMMANDS\n";
  for (const CLI::App* command : visibleCommands(app)) text += commandSection(*command);
  return text;
}

std::string manualPage(const CLI::App& app, std::string_view pageTemplate,
                       std::string_view version, std::string_view date) {
  std::string page(pageTemplate);
  replaceAll(page, "@SYNOPSIS@\n", manualSynopsis(app));
  replaceAll(page, "@COMMANDS@\n", manualCommands(app));
  replaceAll(page, "@VERSION@", version);
  replaceAll(page, "@DATE@", date);
  return page;
}

}  // namespace wayfolio
