#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include <fmt/color.h>
#include <fmt/format.h>

/// Rows of text in columns that line up on a terminal, under a line of titles.
class Table {
 public:
  enum class Align { kLeft, kRight };

  struct Column {
    std::string title;
    Align align;
  };

  struct Cell {
    std::string text;            ///< UTF-8 on one line, without control characters
    fmt::text_style style = {};  ///< a colour of the text, or none
  };

  explicit Table(const std::vector<Column>& columns);

  /// As many cells as there are columns.
  void AddRow(std::vector<Cell> cells);
  void AppendTo(fmt::memory_buffer& out) const;

 private:
  std::vector<Align> aligns_;
  std::vector<std::size_t> widths_;
  std::vector<std::vector<Cell>> rows_;
};

/// Writes a table to standard output, and a line below it.
void WriteTable(const Table& table, const std::string& summary);
