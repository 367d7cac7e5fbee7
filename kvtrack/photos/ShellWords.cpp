#include "kvtrack/photos/ShellWords.h"

namespace kvtrack {

namespace {

bool isBlank(char c) { return c == ' ' || c == '\t'; }

// Characters that make sh do more than build words when they stand unquoted.
bool isSpecialUnquoted(char c) {
  switch (c) {
    case '|': case ';': case '&': case '<': case '>': case '(': case ')':
    case '$': case '`': case '*': case '?': case '[': case '\n': case '\r':
      return true;
    default:
      return false;
  }
}

}  // namespace

std::optional<std::vector<std::string>> splitShellWords(std::string_view line) {
  std::vector<std::string> words;
  std::string word;
  bool inWord = false;
  size_t i = 0;
  while (i < line.size()) {
    const char c = line[i];
    if (isBlank(c)) {
      if (inWord) words.push_back(std::move(word));
      word.clear();
      inWord = false;
      ++i;
      continue;
    }
    // At the start of a word these begin a comment or a tilde expansion.
    if (!inWord && (c == '#' || c == '~')) return std::nullopt;
    inWord = true;
    if (c == '\'') {
      const size_t close = line.find('\'', i + 1);
      if (close == std::string_view::npos) return std::nullopt;
      word.append(line.substr(i + 1, close - i - 1));
      i = close + 1;
    } else if (c == '"') {
      ++i;
      while (true) {
        if (i >= line.size()) return std::nullopt;
        const char d = line[i];
        if (d == '"') {
          ++i;
          break;
        }
        if (d == '$' || d == '`') return std::nullopt;
        if (d == '\\' && i + 1 < line.size()) {
          const char next = line[i + 1];
          if (next == '\n') return std::nullopt;
          if (next == '\\' || next == '"' || next == '$' || next == '`') {
            word += next;
            i += 2;
            continue;
          }
        }
        word += d;  // any other backslash stays, as in sh
        ++i;
      }
    } else if (c == '\\') {
      if (i + 1 >= line.size() || line[i + 1] == '\n') return std::nullopt;
      word += line[i + 1];
      i += 2;
    } else if (isSpecialUnquoted(c)) {
      return std::nullopt;
    } else {
      word += c;
      ++i;
    }
  }
  if (inWord) words.push_back(std::move(word));
  return words;
}

}  // namespace kvtrack
