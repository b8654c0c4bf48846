#include "accounts/account_table.h"

#include <algorithm>
#include <array>
#include <functional>

#include "utils/letter_case.h"

namespace quillon::platform {

namespace {

using AccountEntry = velamailserver::velasdk::AccountEntry;

std::string_view WithoutBlanksAround(std::string_view text) {
  constexpr char kBlanks[] = " \t\r";
  text.remove_prefix(std::min(text.find_first_not_of(kBlanks), text.size()));
  return text.substr(0, text.find_last_not_of(kBlanks) + 1);
}

}  // namespace

std::size_t NameHash::operator()(std::string_view name) const {
  // No name of a real account is longer than the buffer, but every byte of one that is counts.
  // NOLINTNEXTLINE(cppcoreguidelines-pro-type-member-init): filled as far as it is read
  std::array<char, 256> lower;
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

AccountTable::AccountTable(std::string_view text, AccountLines::Format format) {
  std::size_t length = 0;
  AccountLines lines(text, format);
  while (lines.Next()) {
    if (const auto& entry = lines.entry()) {
      entries_.push_back(*entry);
      length += entry->name.size() + entry->members.size();
    } else if (broken_line_ == 0) {
      broken_line_ = lines.number();
    }
  }

  // From here on nothing may move: the texts in their pool, the entries in their vector.
  texts_.reserve(length);
  const auto keep = [this](std::string_view passing) {
    texts_.append(passing);
    return std::string_view(texts_).substr(texts_.size() - passing.size());
  };
  entries_.shrink_to_fit();
  by_name_.reserve(entries_.size());
  by_id_.reserve(entries_.size());
  for (AccountEntry& entry : entries_) {
    entry.name = keep(entry.name);
    entry.members = keep(entry.members);
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

const std::vector<AccountTable::Membership>& AccountTable::Memberships(
    std::string_view name) const {
  static const std::vector<Membership> none;
  std::call_once(members_indexed_, [this] { IndexMembers(); });
  const auto found = memberships_.find(name);
  return found != memberships_.end() ? found->second : none;
}

void AccountTable::IndexMembers() const {
  for (const AccountEntry& entry : entries_) {
    std::string_view rest = entry.members;
    while (!rest.empty()) {
      const std::string_view member = WithoutBlanksAround(CutField(rest, ','));
      if (!member.empty()) {
        memberships_[member].push_back({member, entry.id});
      }
    }
  }
}

}  // namespace quillon::platform
