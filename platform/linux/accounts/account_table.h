#pragma once

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "accounts/account_entry.h"
#include "accounts/account_lines.h"

namespace quillon::platform {

/// Hash and equality of names without regard to the case of the letters A to Z.
struct NameHash {
  using is_transparent = void;
  std::size_t operator()(std::string_view name) const;
};
struct NameEqual {
  using is_transparent = void;
  bool operator()(std::string_view a, std::string_view b) const;
};

/// The content of a file in passwd or group format, indexed. Never changes; safe for use from
/// several threads.
class AccountTable {
 public:
  using AccountEntry = velamailserver::velasdk::AccountEntry;

  /// A name in a group's list of members.
  struct Membership {
    std::string_view member;  ///< as the list spells it, without the blanks around it
    std::uint32_t gid;
  };

  using enum AccountLines::Format;

  /// A line that does not parse is left out, besides what `AccountLines` leaves out.
  AccountTable(std::string_view text, AccountLines::Format format);
  AccountTable(const AccountTable&) = delete;
  AccountTable& operator=(const AccountTable&) = delete;

  /// The entry of a name in any letter case: the one that spells it exactly so, else the first in
  /// the file. Null when there is none.
  const AccountEntry* Find(std::string_view name) const;
  /// The first entry in the file with this id; null when there is none.
  const AccountEntry* Find(std::uint32_t id) const;

  /// Of a name in any letter case, in the order of the file. The first call indexes all members.
  const std::vector<Membership>& Memberships(std::string_view name) const;

  const std::vector<AccountEntry>& entries() const { return entries_; }
  /// Number of the first line that does not parse, 0 when all do.
  std::size_t broken_line() const { return broken_line_; }

 private:
  void IndexMembers() const;

  std::string texts_;  // of all entries
  std::vector<AccountEntry> entries_;
  std::unordered_map<std::string_view, const AccountEntry*, NameHash, NameEqual> by_name_;
  // Names that differ from an earlier entry's in nothing but letter case.
  std::unordered_map<std::string_view, const AccountEntry*> by_exact_name_;
  std::unordered_map<std::uint32_t, const AccountEntry*> by_id_;
  std::size_t broken_line_ = 0;

  // Made when they are first asked for: most programs never do.
  mutable std::once_flag members_indexed_;
  mutable std::unordered_map<std::string_view, std::vector<Membership>, NameHash, NameEqual>
      memberships_;
};

}  // namespace quillon::platform
