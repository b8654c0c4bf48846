#include "accounts/account_table.h"

#include <algorithm>
#include <array>
#include <functional>
#include <optional>

#include "utils/decimal.h"
#include "utils/letter_case.h"

namespace quillon::platform {

namespace {

using AccountEntry = velamailserver::velasdk::AccountEntry;

// What some editors write in front of UTF-8; it is not part of the first name.
constexpr std::string_view kByteOrderMark = "\xef\xbb\xbf";

// Cuts the text up to the next `separator` off the front of `rest`.
std::string_view CutField(std::string_view& rest, char separator) {
  const auto end = std::min(rest.find(separator), rest.size());
  const std::string_view field = rest.substr(0, end);
  rest.remove_prefix(std::min(end + 1, rest.size()));
  return field;
}

bool IsEntry(std::string_view line) {
  const auto start = line.find_first_not_of(" \t\r");
  return start != std::string_view::npos && line[start] != '#' && line[0] != '+' && line[0] != '-';
}

std::optional<AccountEntry> ParseLine(std::string_view line, AccountTable::Format format) {
  const auto separators = std::count(line.begin(), line.end(), ':');
  if (separators != (format == AccountTable::kPasswd ? 6 : 3)) {
    return std::nullopt;
  }
  const std::string_view name = CutField(line, ':');
  CutField(line, ':');  // the password
  const auto id = ParseDecimal<std::uint32_t>(CutField(line, ':'));
  if (name.empty() || name.find('\0') != std::string_view::npos || !id) {
    return std::nullopt;
  }
  return AccountEntry{name, *id};
}

}  // namespace

std::size_t NameHash::operator()(std::string_view name) const {
  // No name of a real account is longer than the buffer, but every byte of one that is counts.
  std::array<char, 256> lower;  // NOLINT: filled as far as it is read
  std::size_t hash = 0;
  do {
    const std::string_view piece = name.substr(0, lower.size());
    std::transform(piece.begin(), piece.end(), lower.begin(), LowerCase);
    hash = 31 * hash + std::hash<std::string_view>()({lower.data(), piece.size()});
    name.remove_prefix(piece.size());
  } while (!name.empty());
  return hash;
}

bool NameEqual::operator()(std::string_view a, std::string_view b) const {
  return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                    [](char x, char y) { return LowerCase(x) == LowerCase(y); });
}

AccountTable::AccountTable(std::string_view text, Format format) {
  if (text.starts_with(kByteOrderMark)) {
    text.remove_prefix(kByteOrderMark.size());
  }
  std::size_t line_number = 0;
  std::size_t names_length = 0;
  while (!text.empty()) {
    ++line_number;
    const std::string_view line = CutField(text, '\n');
    if (!IsEntry(line)) {
      continue;
    }
    if (const auto entry = ParseLine(line, format)) {
      entries_.push_back(*entry);
      names_length += entry->name.size();
    } else if (broken_line_ == 0) {
      broken_line_ = line_number;
    }
  }

  // From here on nothing may move: the names in their pool, the entries in their vector.
  names_.reserve(names_length);
  entries_.shrink_to_fit();
  by_name_.reserve(entries_.size());
  by_id_.reserve(entries_.size());
  for (AccountEntry& entry : entries_) {
    const std::size_t start = names_.size();
    names_.append(entry.name);
    entry.name = std::string_view(names_).substr(start);
    const auto [same_name, is_new] = by_name_.emplace(entry.name, &entry);
    if (!is_new && same_name->second->name != entry.name) {
      by_exact_name_.emplace(entry.name, &entry);
    }
    by_id_.emplace(entry.id, &entry);
  }
}

const AccountEntry* AccountTable::Find(std::string_view name) const {
  const auto found = by_name_.find(name);
  if (found == by_name_.end()) {
    return nullptr;
  }
  if (found->second->name == name || by_exact_name_.empty()) {
    return found->second;
  }
  const auto exact = by_exact_name_.find(name);
  return exact != by_exact_name_.end() ? exact->second : found->second;
}

const AccountEntry* AccountTable::Find(std::uint32_t id) const {
  const auto found = by_id_.find(id);
  return found != by_id_.end() ? found->second : nullptr;
}

}  // namespace quillon::platform
