#include "accounts/account_lines.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>

#include "utils/decimal.h"

namespace quillon::platform {

namespace {

using velamailserver::velasdk::AccountEntry;

// What some editors write in front of UTF-8; it is not part of the first name.
constexpr std::string_view kByteOrderMark = "\xef\xbb\xbf";

// Millions of accounts; what is larger is something else, and would not fit into the memory.
constexpr std::size_t kLargestFile = 256U << 20U;  // bytes

bool IsEntry(std::string_view line) {
  const auto start = line.find_first_not_of(" \t\r");
  return start != std::string_view::npos && line[start] != '#' && line[0] != '+' && line[0] != '-';
}

std::optional<AccountEntry> ParseLine(std::string_view line, AccountLines::Format format) {
  const auto separators = std::count(line.begin(), line.end(), ':');
  if (separators != (format == AccountLines::kPasswd ? 6 : 3)) {
    return std::nullopt;
  }
  const std::string_view name = CutField(line, ':');
  CutField(line, ':');  // the password
  const auto id = ParseDecimal<std::uint32_t>(CutField(line, ':'));
  if (name.empty() || name.find('\0') != std::string_view::npos || !id) {
    return std::nullopt;
  }
  if (format == AccountLines::kGroup) {
    return AccountEntry{.name = name, .id = *id, .members = line};
  }
  const auto primary_gid = ParseDecimal<std::uint32_t>(CutField(line, ':'));
  if (!primary_gid) {
    return std::nullopt;
  }
  return AccountEntry{.name = name, .id = *id, .primary_gid = *primary_gid};
}

}  // namespace

std::string_view CutField(std::string_view& rest, char separator) {
  const auto end = std::min(rest.find(separator), rest.size());
  const std::string_view field = rest.substr(0, end);
  rest.remove_prefix(std::min(end + 1, rest.size()));
  return field;
}

AccountLines::AccountLines(std::string_view text, Format format) : rest_(text), format_(format) {
  if (rest_.starts_with(kByteOrderMark)) {
    rest_.remove_prefix(kByteOrderMark.size());
  }
}

bool AccountLines::Next() {
  while (!rest_.empty()) {
    ++number_;
    const std::string_view line = CutField(rest_, '\n');
    if (IsEntry(line)) {
      entry_ = ParseLine(line, format_);
      return true;
    }
  }
  return false;
}

FileText ReadAccountFile(const std::string& path) {
  FileText file = ReadFileText(path, kLargestFile);
  if (file.text.empty()) {
    throw FileError(EINVAL, path, "is empty (a comment in it says that there are no accounts)");
  }
  return file;
}

}  // namespace quillon::platform
