// A file of quotas: its good rows can be written again and are read the same way.
#include "quota_file.h"

#include <string>
#include <vector>

#include <quillon/handlers/size.h>
#include <vela/api_runner.h>

#include "fuzz/fuzz.h"

namespace quillon::fuzz {
namespace {

using handlers::QuotaRow;

// In the plainest way: a decoder of its own.
bool IsUtf8(std::string_view text) {
  for (std::size_t i = 0; i < text.size();) {
    const auto first = static_cast<unsigned char>(text[i]);
    const std::size_t length = first < 0x80   ? 1
                               : first < 0xc2 ? 0
                               : first < 0xe0 ? 2
                               : first < 0xf0 ? 3
                               : first < 0xf5 ? 4
                                              : 0;
    if (length == 0 || i + length > text.size()) {
      return false;
    }
    unsigned long code = length == 1 ? first : first & (0xffU >> (length + 1));
    for (std::size_t k = 1; k < length; ++k) {
      const auto next = static_cast<unsigned char>(text[i + k]);
      if ((next & 0xc0) != 0x80) {
        return false;
      }
      code = code << 6U | (next & 0x3fU);
    }
    if ((length == 3 && code < 0x800) || (length == 4 && (code < 0x10000 || code > 0x10ffff)) ||
        (code >= 0xd800 && code <= 0xdfff)) {
      return false;
    }
    i += length;
  }
  return true;
}

std::string Quoted(const std::string& name) { return '"' + Replaced(name, "\"", "\"\"") + '"'; }

std::vector<QuotaRow> Good(const std::vector<QuotaRow>& rows) {
  std::vector<QuotaRow> good;
  for (const QuotaRow& row : rows) {
    if (row.problems.empty()) {
      good.push_back(row);
    }
  }
  return good;
}

void RequireRows(const std::vector<QuotaRow>& rows) {
  std::size_t line = 0;
  for (const QuotaRow& row : rows) {
    Require(row.line > line, "the rows are in the order of the file");
    line = row.line;
    Require(row.problems.find('\n') == std::string::npos, "problems are one line");
    if (row.problems.empty()) {
      Require(row.name.has_value(), "a good row has a name");
      Require(row.warning <= row.limit, "the warning of a good row is within its limit");
    }
    Require(!row.name || (IsUtf8(*row.name) && row.name->find('\0') == std::string::npos &&
                          row.name->find('\n') == std::string::npos),
            "a name is text of one line");
  }
}

void RequireReadsBack(const std::vector<QuotaRow>& rows) {
  const std::vector<QuotaRow> good = Good(rows);
  if (good.empty()) {
    return;
  }
  std::string text = "name,limit,warning\n";
  for (const QuotaRow& row : good) {
    text += Quoted(*row.name) + "," + std::to_string(row.limit) + "," +
            std::to_string(row.warning) + "\n";
  }
  const std::vector<QuotaRow> again = handlers::ParseQuotaFile(text);
  Require(again.size() == good.size(), "as many rows come back");
  for (std::size_t i = 0; i < good.size(); ++i) {
    Require(again[i].problems.empty() && again[i].name == good[i].name &&
                again[i].limit == good[i].limit && again[i].warning == good[i].warning,
            "a row comes back as it was");
  }
}

}  // namespace
}  // namespace quillon::fuzz

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace quillon;
  const std::vector<char> copy(data, data + size);
  try {
    const auto rows = handlers::ParseQuotaFile({copy.data(), copy.size()});
    fuzz::Require(!rows.empty(), "a file without rows is refused");
    fuzz::RequireRows(rows);
    fuzz::RequireReadsBack(rows);
  } catch (const VELA::APIError& error) {
    fuzz::Require(error.code() == VELA::APIRunner::kBadParameters, "it is the parameter's fault");
  }
  return 0;
}
