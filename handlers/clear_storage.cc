#include "clear_storage.h"

#include <set>
#include <string>
#include <utility>
#include <vector>

#include <vela/api_runner.h>
#include <velamailserver/account/maildir.h>
#include <velamailserver/account/user.h>
#include <velamailserver/log_exception.h>
#include <velamailserver/velasdk/run_as_root.h>

#include "parameters.h"
#include "removal.h"
#include "resolve_accounts.h"

namespace quillon::handlers {

namespace {

using velamailserver::LogException;
using velamailserver::account::Maildir;
using velamailserver::velasdk::RunAsRoot;
using velamailserver::velasdk::VelaUser;

// Users who share a uid share a mail directory: it is there once, as the first one's.
struct UserMaildirs {
  std::vector<DoomedMaildir> found;
  Json::Value without = Json::Value(Json::arrayValue);  ///< names of the users whose none is
};

// Only root may look into everybody's mail directory.
UserMaildirs Find(const std::vector<VelaUser>& users) {
  UserMaildirs maildirs;
  std::set<std::string> paths;
  RunAsRoot("find user maildirs", [&] {
    for (const VelaUser& user : users) {
      const Maildir maildir(user.Uid());
      if (maildir.flag && paths.insert(maildir.path).second) {
        maildirs.found.push_back({maildir.path, Json::Value()});
        maildirs.found.back().entry["name"] = NameOf(user);
      } else {
        maildirs.without.append(NameOf(user));
      }
    }
  });
  return maildirs;
}

// The mail is gone all the same: the error's data tells what has become of it.
[[noreturn]] void ReportUsageLeft(const std::vector<VelaUser>& users, const LogException& error,
                                  Json::Value answer) {
  std::vector<std::string> names;
  names.reserve(users.size());
  for (const VelaUser& user : users) {
    names.push_back(NameOf(user));
  }
  const std::string removed = std::to_string(answer["removed"].size());
  const std::string left = std::to_string(answer["left"].size());
  throw VELA::APIError(error.code(),
                       "cannot delete the usage entries of " + NameSome(names) +
                           " (mail directories removed: " + removed + ", left: " + left +
                           "); call again once the usage store can be reached",
                       std::move(answer));
}

void Clear(const std::vector<VelaUser>& users) {
  // The library looks the directories up again as whoever calls it.
  RunAsRoot("clear storage of users", [&] { velamailserver::webapi::User().ClearStorage(users); });
}

}  // namespace

Json::Value ClearStorage(const Json::Value& params) {
  const Parameters parameters(params, {"names", "dry_run"});
  const bool is_dry_run = parameters.Has("dry_run") && parameters.Flag("dry_run");
  const std::vector<VelaUser> users = ReadUsers(parameters);
  const UserMaildirs maildirs = Find(users);
  Json::Value before = MeasureMaildirs(maildirs.found);
  Json::Value answer;
  answer["without"] = maildirs.without;
  if (is_dry_run) {
    answer["maildirs"] = std::move(before);
    return answer;
  }
  try {
    Clear(users);
  } catch (const LogException& error) {
    if (error.code() != velamailserver::ERR_REDIS_DELETE_KEY) {
      throw;
    }
    AddOutcome(maildirs.found, before, answer);
    ReportUsageLeft(users, error, std::move(answer));
  }
  AddOutcome(maildirs.found, before, answer);
  return answer;
}

}  // namespace quillon::handlers
