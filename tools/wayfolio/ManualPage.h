#pragma once
// The manual page wayfolio(1), written from the same command definitions
// that --help prints: every visible command with its arguments and options
// and their descriptions. The prose around them (naming, where data lives,
// exit status, examples) is a roff template kept beside the sources; its
// lines "@SYNOPSIS@" and "@COMMANDS@" take the generated parts, and the
// words "@VERSION@" and "@DATE@" are replaced wherever they stand.

#include <CLI/CLI.hpp>

#include <string>
#include <string_view>
#include <vector>

namespace wayfolio {

/// Commands shown to users: named, and not hidden (CLI11 hides a command
/// by giving it the empty group).
std::vector<const CLI::App*> visibleCommands(const CLI::App& app);
/// Options shown to users, those of option groups included; without the
/// help flag, which every command has.
std::vector<const CLI::Option*> visibleOptions(const CLI::App& command);

/// Text made safe for roff: backslashes escaped, a leading "." or "'"
/// defused, and the dashes of option names and negative numbers turned
/// into minus signs, so that a copied option still works.
std::string roffText(std::string_view text);

/// The roff of the synopsis, and of the OPTIONS and COMMANDS sections.
std::string manualSynopsis(const CLI::App& app);
std::string manualCommands(const CLI::App& app);

/// The whole page from its template.
std::string manualPage(const CLI::App& app, std::string_view pageTemplate,
                       std::string_view version, std::string_view date);

}  // namespace wayfolio
