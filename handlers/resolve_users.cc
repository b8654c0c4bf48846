#include "resolve_users.h"

#include <algorithm>
#include <cstddef>
#include <unordered_set>
#include <utility>

#include <vela/api_runner.h>
#include <velamailserver/conf/smtp_ext.h>
#include <velamailserver/log_exception.h>
#include <velamailserver/utils/text.h>

namespace quillon::handlers {

namespace {

using velamailserver::LogException;
using velamailserver::velasdk::VelaUser;

constexpr std::size_t kMostNamed = 10;
// More are not looked for: each is asked of the whole host, and logged.
constexpr std::size_t kMostCounted = 100;

// What the message says of those that it does not name.
std::string Remainder(std::size_t count) {
  if (count > kMostCounted) {
    return " and more";
  }
  return count > kMostNamed ? " and " + std::to_string(count - kMostNamed) + " more" : "";
}

[[noreturn]] void RefuseUnknown(std::vector<std::string> names) {
  // A lookup fails in the same way while the accounts cannot be read; then nobody may be called
  // unknown, and this throws first.
  velamailserver::conf::SmtpExt().EnumUsers();

  const std::string remainder = Remainder(names.size());
  names.resize(std::min(names.size(), kMostNamed));
  throw VELA::APIError(velamailserver::ERR_SDK_USER_GET,
                       "no such user: [" + velamailserver::Join(names, "], [") + "]" + remainder);
}

}  // namespace

std::vector<VelaUser> ResolveUsers(const std::vector<std::string>& names) {
  std::vector<VelaUser> users;
  std::unordered_set<std::string> mentioned;
  std::vector<std::string> unknown;
  for (const std::string& name : names) {
    if (unknown.size() > kMostCounted) {
      break;
    }
    try {
      const VelaUser user(name);
      if (mentioned.insert(user.RealName()).second) {
        users.push_back(user);
      }
    } catch (const LogException&) {
      unknown.push_back(name);
    }
  }
  if (!unknown.empty()) {
    RefuseUnknown(std::move(unknown));
  }
  return users;
}

Json::Value RealNames(const std::vector<VelaUser>& users) {
  Json::Value names(Json::arrayValue);
  for (const VelaUser& user : users) {
    names.append(user.RealName());
  }
  return names;
}

}  // namespace quillon::handlers
