// Files in passwd and group format, held against a reader that goes through them field by field.
#include <algorithm>
#include <charconv>
#include <optional>
#include <string>
#include <vector>

#include "accounts/account_table.h"
#include "fuzz/fuzz.h"

namespace quillon::fuzz {
namespace {

using platform::AccountTable;

struct Account {
  std::string name;
  std::uint32_t id;
  std::vector<std::string> members;
};

char LowerLetter(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

bool IsSameName(std::string_view a, std::string_view b) {
  return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                    [](char x, char y) { return LowerLetter(x) == LowerLetter(y); });
}

std::vector<std::string> Split(std::string_view text, char separator) {
  std::vector<std::string> fields(1);
  for (const char c : text) {
    if (c == separator) {
      fields.emplace_back();
    } else {
      fields.back() += c;
    }
  }
  return fields;
}

std::optional<std::uint32_t> IdIn(const std::string& text) {
  std::uint32_t id = 0;
  const char* const end = text.data() + text.size();
  const auto [rest, error] = std::from_chars(text.data(), end, id);
  return error == std::errc() && rest == end ? std::optional(id) : std::nullopt;
}

std::vector<std::string> MembersIn(const std::string& field) {
  std::vector<std::string> members;
  for (const std::string& member : Split(field, ',')) {
    const auto begin = member.find_first_not_of(" \t\r");
    if (begin != std::string::npos) {
      members.push_back(member.substr(begin, member.find_last_not_of(" \t\r") + 1 - begin));
    }
  }
  return members;
}

std::vector<Account> AccountsIn(std::string_view text, bool is_passwd) {
  if (text.starts_with("\xef\xbb\xbf")) {
    text.remove_prefix(3);
  }
  std::vector<Account> accounts;
  for (const std::string& line : Split(text, '\n')) {
    const std::vector<std::string> fields = Split(line, ':');
    const auto start = line.find_first_not_of(" \t\r");
    if (start == std::string::npos || line[start] == '#' || line[0] == '+' || line[0] == '-' ||
        fields.size() != (is_passwd ? 7 : 4)) {
      continue;
    }
    const auto id = IdIn(fields[2]);
    if (fields[0].empty() || fields[0].find('\0') != std::string::npos || !id ||
        (is_passwd && !IdIn(fields[3]))) {
      continue;
    }
    accounts.push_back(
        {fields[0], *id, is_passwd ? std::vector<std::string>() : MembersIn(fields[3])});
  }
  return accounts;
}

void CompareNames(const AccountTable& table, const std::vector<Account>& accounts) {
  for (const Account& account : accounts) {
    const auto exact = std::find_if(accounts.begin(), accounts.end(), [&](const Account& other) {
      return other.name == account.name;
    });
    const auto* found = table.Find(account.name);
    Require(found != nullptr && found->name == exact->name && found->id == exact->id,
            "a name is found by its exact spelling, the first of them");
    std::string upper = account.name;
    std::transform(upper.begin(), upper.end(), upper.begin(),
                   [](char c) { return c >= 'a' && c <= 'z' ? static_cast<char>(c - 32) : c; });
    const auto* by_other_case = table.Find(upper);
    Require(by_other_case != nullptr && IsSameName(by_other_case->name, account.name),
            "a name is found in any letter case");
  }
}

void CompareIds(const AccountTable& table, const std::vector<Account>& accounts) {
  for (const Account& account : accounts) {
    const auto first = std::find_if(accounts.begin(), accounts.end(),
                                    [&](const Account& other) { return other.id == account.id; });
    const auto* found = table.Find(account.id);
    Require(found != nullptr && found->name == first->name, "an id is the first entry's");
  }
}

void CompareMembers(const AccountTable& table, const std::vector<Account>& accounts) {
  for (const Account& asked : accounts) {
    for (const std::string& member : asked.members) {
      std::vector<std::uint32_t> expected;
      for (const Account& group : accounts) {
        for (const std::string& other : group.members) {
          if (IsSameName(other, member)) {
            expected.push_back(group.id);
          }
        }
      }
      std::vector<std::uint32_t> found;
      for (const AccountTable::Membership& membership : table.Memberships(member)) {
        Require(IsSameName(membership.member, member), "a membership is of who was asked for");
        found.push_back(membership.gid);
      }
      Require(found == expected, "memberships are in the order of the file");
    }
  }
}

void Compare(std::string_view text, platform::AccountLines::Format format) {
  constexpr std::size_t kMostToCompare = 40;  // each with each
  const AccountTable table(text, format);
  const auto accounts = AccountsIn(text, format == platform::AccountLines::kPasswd);
  std::size_t parsed = 0;
  platform::AccountLines lines(text, format);
  while (lines.Next()) {
    if (lines.entry()) {
      Require(parsed < accounts.size() && lines.entry()->name == accounts[parsed].name &&
                  lines.entry()->id == accounts[parsed].id,
              "the entries are those of the file");
      ++parsed;
    }
  }
  Require(parsed == accounts.size(), "no entry is lost");
  if (accounts.size() <= kMostToCompare) {
    CompareNames(table, accounts);
    CompareIds(table, accounts);
    CompareMembers(table, accounts);
  }
}

}  // namespace
}  // namespace quillon::fuzz

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace quillon;
  // A copy of the very size: the sanitizer sees whoever reads on behind it.
  const std::vector<char> copy(data, data + size);
  const std::string_view text(copy.data(), copy.size());
  fuzz::Compare(text, platform::AccountLines::kPasswd);
  fuzz::Compare(text, platform::AccountLines::kGroup);
  return 0;
}
