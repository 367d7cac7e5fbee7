#pragma once
// Tab completion for bash and zsh: what the word being typed may become,
// worked out from the command definitions (commands, options, the choices
// an option accepts) and, for track and folder names, from the index of
// the library the command line names. The library is only read: without
// its lock (a save replaces the index in one rename), never written, and
// no folder is made where there is none.

#include <CLI/CLI.hpp>

#include <string>
#include <vector>

namespace wayfolio {

/// What the shell does with the candidates: offer them as they are
/// (words), offer them as library names (a folder ends in "/" and takes
/// no space after it), or complete file or directory names itself.
enum class CompletionMode { kNothing, kWords, kNames, kFiles, kDirectories };

struct Completion {
  CompletionMode mode = CompletionMode::kNothing;
  std::vector<std::string> candidates;
};

/// Completes the last of the words: those that follow "wayfolio" on the
/// command line, the last one being the word typed so far (possibly
/// empty). A value typed as "--into=2024/" gets candidates with the
/// "--into=" in front. Names come from the library a --library among the
/// words names, else from `library` (empty: the default library).
Completion completeWords(const CLI::App& app, const std::vector<std::string>& words,
                         const std::string& library = {});

/// The mode as the completion scripts read it: "nothing", "words",
/// "names", "files" or "directories".
const char* modeName(CompletionMode mode);

}  // namespace wayfolio
