// The web server's accounts file: what is taken can be written again and is taken the same way;
// what is refused is refused in one line without what may be a key.
#include <algorithm>
#include <set>
#include <string>
#include <vector>

#include <quillon/platform/web_accounts.h>

#include "fuzz/platform.h"

namespace quillon::fuzz {
namespace {

using platform::WebAccount;

bool IsPlain(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
}

bool IsName(const std::string& name) {
  return !name.empty() && name.size() <= 64 && IsPlain(name.front()) &&
         std::all_of(name.begin(), name.end(),
                     [](char c) { return IsPlain(c) || c == '.' || c == '_' || c == '-'; });
}

void RequireAccounts(const std::vector<WebAccount>& accounts) {
  std::string text;
  std::set<std::string> names;
  for (const WebAccount& account : accounts) {
    Require(IsName(account.name), "a name is made of plain characters");
    Require(names.insert(account.name).second, "no name is there twice");
    Require(account.iterations >= 4096 && account.iterations <= 1000000,
            "the iterations are within their bounds");
    text += account.name + ":" + platform::WebRoleName(account.role) +
            ":SCRAM-SHA-256:" + std::to_string(account.iterations) + ":" + account.salt + ":" +
            account.stored_key.Get() + ":" + account.server_key.Get() + "\n";
  }
  Require(platform::ParseWebAccounts(text, "again") == accounts,
          "what is written again is read the same way");
}

// As long as one, and of its characters.
bool IsLikeKey(std::string_view field) {
  return field.size() >= 40 && std::all_of(field.begin(), field.end(), [](char c) {
           return IsPlain(c) || c == '+' || c == '/' || c == '=';
         });
}

void RequireDiscreet(std::string_view text, const std::string& what) {
  Require(what.find('\n') == std::string::npos, "the message is one line");
  while (!text.empty()) {
    std::string_view line = Cut(text, "\n");
    while (!line.empty()) {
      const std::string_view field = Cut(line, ":");
      Require(!IsLikeKey(field) || what.find(field) == std::string::npos,
              "the message quotes no key");
    }
  }
}

}  // namespace
}  // namespace quillon::fuzz

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace quillon;
  const std::vector<char> copy(data, data + size);
  const std::string_view text(copy.data(), copy.size());
  try {
    fuzz::RequireAccounts(platform::ParseWebAccounts(text, "accounts"));
  } catch (const platform::WebAccountsError& error) {
    fuzz::RequireDiscreet(text, error.what());
  }
  return 0;
}
