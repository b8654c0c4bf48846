#include "table.h"

#include <algorithm>
#include <cwchar>
#include <iterator>
#include <string_view>
#include <utility>

#include "output.h"

namespace {

constexpr std::size_t kGap = 2;

bool IsASCII(std::string_view text) {
  return std::all_of(text.begin(), text.end(), [](char c) { return (c & 0x80) == 0; });
}

// Columns on a terminal. A byte that is no UTF-8 is shown as one replacement character.
std::size_t DisplayWidth(std::string_view text) {
  if (IsASCII(text)) {
    return text.size();
  }
  std::size_t width = 0;
  while (!text.empty()) {
    wchar_t character = 0;
    std::mbstate_t state{};
    const std::size_t length = std::mbrtowc(&character, text.data(), text.size(), &state);
    const bool is_valid = length > 0 && length <= text.size();
    width += is_valid ? static_cast<std::size_t>(std::max(::wcwidth(character), 0)) : 1;
    text.remove_prefix(is_valid ? length : 1);
  }
  return width;
}

// Formatting each cell would take longer than all else that a table takes.
void AppendBlanks(std::size_t count, fmt::memory_buffer& out) {
  for (; count > 0; --count) {
    out.push_back(' ');
  }
}

void AppendText(const Table::Cell& cell, fmt::memory_buffer& out) {
  if (cell.style.has_foreground()) {
    fmt::format_to(std::back_inserter(out), cell.style, "{}", cell.text);
  } else {
    out.append(cell.text);
  }
}

}  // namespace

Table::Table(const std::vector<Column>& columns) : widths_(columns.size()) {
  std::vector<Cell> titles;
  for (const Column& column : columns) {
    aligns_.push_back(column.align);
    titles.push_back({column.title});
  }
  AddRow(std::move(titles));
}

void Table::AddRow(std::vector<Cell> cells) {
  for (std::size_t i = 0; i < cells.size(); ++i) {
    widths_[i] = std::max(widths_[i], DisplayWidth(cells[i].text));
  }
  rows_.push_back(std::move(cells));
}

void Table::AppendTo(fmt::memory_buffer& out) const {
  for (const std::vector<Cell>& row : rows_) {
    std::size_t blanks = 0;  // owed to the next text, so that no line ends in blanks
    for (std::size_t i = 0; i < row.size(); ++i) {
      const Cell& cell = row[i];
      const std::size_t padding = widths_[i] - DisplayWidth(cell.text);
      if (!cell.text.empty()) {
        AppendBlanks(blanks + (aligns_[i] == Align::kRight ? padding : 0), out);
        AppendText(cell, out);
        blanks = 0;
      }
      const bool is_padded_after = cell.text.empty() || aligns_[i] == Align::kLeft;
      blanks += kGap + (is_padded_after ? padding : 0);
    }
    out.push_back('\n');
  }
}

void WriteTable(const Table& table, const std::string& summary) {
  fmt::memory_buffer out;
  table.AppendTo(out);
  fmt::format_to(std::back_inserter(out), "{}\n", summary);
  WriteOutput({out.data(), out.size()});
}
