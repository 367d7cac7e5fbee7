#pragma once
// Splits a command line into the words sh would hand to the program, for the
// quoting kvtrack writes itself: single-quoted words (filenameForShell),
// double-quoted words with \\ \" \$ \` escapes (stringForShell), plain words
// and backslash escapes outside quotes; a word may join several such parts.
// Anything the shell would expand, redirect or chain is refused, so a line
// that splits here means the same when run through sh.

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kvtrack {

/// The words, or nothing when the line holds an unquoted operator
/// (| ; & < > ( ) and newlines), an expansion ($, `, * ? [, a leading ~ or
/// a comment #), a line continuation or an unterminated quote.
std::optional<std::vector<std::string>> splitShellWords(std::string_view line);

}  // namespace kvtrack
