#include "tools/wayfolio/TextTable.h"

#include <algorithm>

namespace wayfolio {

namespace {

// UTF-8 continuation bytes do not start a character.
size_t characterCount(const std::string& text) {
  return static_cast<size_t>(std::count_if(text.begin(), text.end(), [](char c) {
    return (static_cast<unsigned char>(c) & 0xC0) != 0x80;
  }));
}

}  // namespace

std::string TextTable::render() const {
  std::vector<size_t> widths;
  for (const auto& column : columns_) widths.push_back(characterCount(column.title));
  for (const auto& row : rows_) {
    for (size_t i = 0; i < row.size() && i < widths.size(); ++i) {
      widths[i] = std::max(widths[i], characterCount(row[i]));
    }
  }

  std::string text;
  const auto addLine = [&](const std::vector<std::string>& cells) {
    std::string line;
    for (size_t i = 0; i < columns_.size(); ++i) {
      const std::string cell = i < cells.size() ? cells[i] : std::string();
      const std::string padding(widths[i] - characterCount(cell), ' ');
      if (i > 0) line += "  ";
      line += columns_[i].align == Align::kRight ? padding + cell : cell + padding;
    }
    line.erase(line.find_last_not_of(' ') + 1);
    text += line + "\n";
  };
  std::vector<std::string> titles;
  for (const auto& column : columns_) titles.push_back(column.title);
  addLine(titles);
  for (const auto& row : rows_) addLine(row);
  return text;
}

}  // namespace wayfolio
