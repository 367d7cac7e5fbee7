#pragma once
// Rows of text in aligned columns, two blanks apart, for ls, tree and
// points. Widths count characters, not bytes, so names in any script line up.

#include <string>
#include <vector>

namespace wayfolio {

class TextTable {
 public:
  enum class Align { kLeft, kRight };
  struct Column {
    std::string title;
    Align align = Align::kLeft;
  };

  explicit TextTable(std::vector<Column> columns) : columns_(std::move(columns)) {}
  /// Missing cells are blank.
  void addRow(std::vector<std::string> cells) { rows_.push_back(std::move(cells)); }
  /// The title row, then every row; each line ends with a newline.
  std::string render() const;

 private:
  std::vector<Column> columns_;
  std::vector<std::vector<std::string>> rows_;
};

}  // namespace wayfolio
