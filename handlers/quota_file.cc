#include "quota_file.h"

#include <algorithm>
#include <array>
#include <stdexcept>
#include <utility>

#include <quillon/handlers/size.h>
#include <quillon/platform/utf8.h>
#include <vela/api_runner.h>

namespace quillon::handlers {

namespace {

// Keeps the answer to a file of nothing but short, bad rows within bounds.
constexpr std::size_t kMostRows = 200000;
constexpr std::size_t kColumns = 3;
constexpr std::string_view kByteOrderMark = "\xef\xbb\xbf";  // what some editors write in front

[[noreturn]] void Refuse(const std::string& message) {
  throw VELA::APIError(VELA::APIRunner::kBadParameters, message);
}

std::string_view TakeLine(std::string_view& text) {
  const auto end = text.find('\n');
  std::string_view line = text.substr(0, end);
  text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
  if (line.ends_with('\r')) {
    line.remove_suffix(1);
  }
  return line;
}

bool HasRow(std::string_view line) {
  return line.find_first_not_of(" \t") != std::string_view::npos && !line.starts_with('#');
}

std::string TakeQuotedField(std::string_view& line) {
  std::string field;
  for (line.remove_prefix(1);; line.remove_prefix(1)) {
    const auto quote = line.find('"');
    if (quote == std::string_view::npos) {
      throw std::invalid_argument("a quoted field does not end");
    }
    field += line.substr(0, quote);
    line.remove_prefix(quote + 1);
    if (!line.starts_with('"')) {
      break;
    }
    field += '"';  // a doubled one
  }
  if (!line.empty() && !line.starts_with(',')) {
    throw std::invalid_argument("there is text behind the end of a quoted field");
  }
  return field;
}

std::string TakePlainField(std::string_view& line) {
  const std::string_view field = line.substr(0, line.find(','));
  if (field.find('"') != std::string_view::npos) {
    throw std::invalid_argument("there is a quote in a field that does not begin with one");
  }
  line.remove_prefix(field.size());
  return std::string(field);
}

using Fields = std::array<std::string, kColumns>;

Fields SplitFields(std::string_view line) {
  constexpr char kOther[] = "there must be three columns: name, limit, warning";
  Fields fields;
  for (std::string& field : fields) {
    field = line.starts_with('"') ? TakeQuotedField(line) : TakePlainField(line);
    if (line.empty() != (&field == &fields.back())) {
      throw std::invalid_argument(kOther);
    }
    if (!line.empty()) {
      line.remove_prefix(1);
    }
  }
  return fields;
}

void ReadSize(const char* column, const std::string& text, unsigned long long& bytes,
              QuotaRow& row) {
  try {
    bytes = ParseSize(text);
  } catch (const std::invalid_argument& error) {
    row.AddProblem(std::string(column) + ": " + error.what());
  }
}

void ReadFields(Fields fields, QuotaRow& row) {
  row.name = std::move(fields[0]);
  ReadSize("limit", fields[1], row.limit, row);
  ReadSize("warning", fields[2], row.warning, row);
  if (row.problems.empty() && row.warning > row.limit) {
    row.AddProblem("the warning is above the limit");
  }
}

// Whether a line is the titles, which are not a row.
bool IsHeader(std::string_view line) {
  try {
    return SplitFields(line) == Fields{"name", "limit", "warning"};
  } catch (const std::invalid_argument&) {
    return false;
  }
}

QuotaRow ParseRow(std::size_t number, std::string_view line) {
  QuotaRow row;
  row.line = number;
  if (line.find('\0') != std::string_view::npos) {
    row.AddProblem("there is a NUL character");
  } else if (!platform::IsUtf8(line)) {
    row.AddProblem("the text is not UTF-8");
  } else {
    try {
      ReadFields(SplitFields(line), row);
    } catch (const std::invalid_argument& error) {
      row.AddProblem(error.what());
    }
  }
  return row;
}

}  // namespace

std::vector<QuotaRow> ParseQuotaFile(std::string_view text) {
  if (text.starts_with(kByteOrderMark)) {
    text.remove_prefix(kByteOrderMark.size());
  }
  std::vector<QuotaRow> rows;
  bool is_first = true;
  for (std::size_t number = 1; !text.empty(); ++number) {
    const std::string_view line = TakeLine(text);
    if (!HasRow(line) || (std::exchange(is_first, false) && IsHeader(line))) {
      continue;
    }
    if (rows.size() == kMostRows) {
      Refuse("the file has more than " + std::to_string(kMostRows) + " rows");
    }
    rows.push_back(ParseRow(number, line));
  }
  if (rows.empty()) {
    Refuse("the file has no rows");
  }
  return rows;
}

}  // namespace quillon::handlers
