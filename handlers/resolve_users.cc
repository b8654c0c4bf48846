#include "resolve_users.h"

#include <unordered_set>

#include <vela/api_runner.h>
#include <velamailserver/conf/smtp_ext.h>
#include <velamailserver/log_exception.h>
#include <velamailserver/utils/text.h>

namespace quillon::handlers {

namespace {

using velamailserver::LogException;
using velamailserver::velasdk::VelaUser;

[[noreturn]] void RefuseUnknown(const std::vector<std::string>& names) {
  // A lookup fails in the same way while the accounts cannot be read; then nobody may be called
  // unknown, and this throws first.
  velamailserver::conf::SmtpExt().EnumUsers();

  throw VELA::APIError(velamailserver::ERR_SDK_USER_GET,
                       "no such user: [" + velamailserver::Join(names, "], [") + "]");
}

}  // namespace

std::vector<VelaUser> ResolveUsers(const std::vector<std::string>& names) {
  std::vector<VelaUser> users;
  std::unordered_set<std::string> mentioned;
  std::vector<std::string> unknown;
  for (const std::string& name : names) {
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
    RefuseUnknown(unknown);
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
