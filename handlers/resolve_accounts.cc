#include "resolve_accounts.h"

#include <algorithm>
#include <cstddef>
#include <unordered_set>
#include <utility>

#include <quillon/platform/group_list.h>
#include <vela/api_runner.h>
#include <velamailserver/conf/smtp_ext.h>
#include <velamailserver/log_exception.h>
#include <velamailserver/utils/text.h>

namespace quillon::handlers {

namespace {

using velamailserver::LogException;
using velamailserver::velasdk::VelaGroup;
using velamailserver::velasdk::VelaUser;

constexpr std::size_t kMostNamed = 10;
// More are not looked for: each is asked of the whole host, and logged.
constexpr std::size_t kMostCounted = 100;

struct Kind {
  int unknown_code;
  const char* subject;
  /// Throws while the accounts cannot be read.
  void (*require_accounts)();
};

constexpr Kind kUsers = {velamailserver::ERR_SDK_USER_GET, "user",
                         [] { velamailserver::conf::SmtpExt().EnumUsers(); }};
constexpr Kind kGroups = {velamailserver::ERR_SDK_GROUP_GET, "group",
                          [] { platform::ListGroups(); }};

[[noreturn]] void RefuseUnknown(const Kind& kind, std::vector<std::string> names) {
  // A lookup fails in the same way while the accounts cannot be read; then nobody may be called
  // unknown, and this throws first.
  kind.require_accounts();

  const bool is_all = names.size() <= kMostCounted;
  if (!is_all) {
    names.resize(kMostNamed);
  }
  throw VELA::APIError(kind.unknown_code, std::string("no such ") + kind.subject + ": " +
                                              NameSome(names) + (is_all ? "" : " and more"));
}

template <typename Account>
std::vector<Account> Resolve(const Kind& kind, const std::vector<std::string>& names) {
  std::vector<Account> accounts;
  std::unordered_set<std::string> mentioned;
  std::vector<std::string> unknown;
  for (const std::string& name : names) {
    if (unknown.size() > kMostCounted) {
      break;
    }
    try {
      const Account account(name);
      if (mentioned.insert(NameOf(account)).second) {
        accounts.push_back(account);
      }
    } catch (const LogException&) {
      unknown.push_back(name);
    }
  }
  if (!unknown.empty()) {
    RefuseUnknown(kind, std::move(unknown));
  }
  return accounts;
}

std::vector<std::string> ReadNames(const Parameters& parameters) {
  std::vector<std::string> names = parameters.Texts("names");
  if (names.empty()) {
    throw VELA::APIError(VELA::APIRunner::kBadParameters,
                         "parameter [names] must hold at least one name");
  }
  return names;
}

}  // namespace

std::vector<VelaUser> ResolveUsers(const std::vector<std::string>& names) {
  return Resolve<VelaUser>(kUsers, names);
}

std::vector<VelaGroup> ResolveGroups(const std::vector<std::string>& names) {
  return Resolve<VelaGroup>(kGroups, names);
}

std::vector<VelaUser> ReadUsers(const Parameters& parameters) {
  return ResolveUsers(ReadNames(parameters));
}

std::vector<VelaGroup> ReadGroups(const Parameters& parameters) {
  return ResolveGroups(ReadNames(parameters));
}

std::string NameOf(const VelaUser& user) { return user.RealName(); }

std::string NameOf(const VelaGroup& group) { return group.Name(); }

std::string NameSome(const std::vector<std::string>& names) {
  const std::size_t count = std::min(names.size(), kMostNamed);
  const auto rest = names.size() - count;
  return "[" +
         velamailserver::Join({names.begin(), names.begin() + static_cast<long>(count)}, "], [") +
         "]" + (rest > 0 ? " and " + std::to_string(rest) + " more" : "");
}

}  // namespace quillon::handlers
