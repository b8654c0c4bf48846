#include "webapi/share_quota.h"

#include <unistd.h>

#include <algorithm>
#include <string>
#include <system_error>

#include <fmt/format.h>

#include <vela/api_runner.h>
#include <velamailserver/log_exception.h>
#include <velamailserver/velasdk/run_as_root.h>
#include <velamailserver/velasdk/vela_group.h>

#include "accounts/account_database.h"
#include "accounts/resolve_account.h"
#include "maildir/maildir.h"
#include "webapi/host_apis.h"
#include "webapi/known_members.h"

namespace quillon::platform {

namespace {

using velamailserver::LogException;
using velamailserver::velasdk::VelaGroup;
using velamailserver::velasdk::VelaUser;

constexpr char kSourceFile[] = "platform/linux/webapi/share_quota";
constexpr int kGroupsLine = 44;
constexpr int kReadLine = 62;

constexpr char kShare[] = "Quillon";

struct Question {
  std::string name;
  QuotaSubject subject = QuotaSubject::kUser;
  bool supports_share_quota = false;
};

[[noreturn]] void Refuse(const std::string& message) {
  throw VELA::APIError(VELA::APIRunner::kBadParameters, message);
}

Question ReadQuestion(const Json::Value& params) {
  RefuseUnknownMembers(params, {"name", "support_share_quota", "subject_type"});
  Question question;
  if (!params.isMember("name")) {
    Refuse("parameter [name] is missing");
  }
  if (!params["name"].isString()) {
    Refuse("parameter [name] must be a string");
  }
  question.name = params["name"].asString();
  if (params.isMember("support_share_quota")) {
    if (!params["support_share_quota"].isBool()) {
      Refuse("parameter [support_share_quota] must be true or false");
    }
    question.supports_share_quota = params["support_share_quota"].asBool();
  }
  if (params.isMember("subject_type")) {
    if (params["subject_type"] != "user" && params["subject_type"] != "group") {
      Refuse("parameter [subject_type] must be one of user, group");
    }
    question.subject =
        params["subject_type"] == "group" ? QuotaSubject::kGroup : QuotaSubject::kUser;
  }
  return question;
}

// Whose quotas the kernel is asked for.
struct Ids {
  std::uint32_t own = 0;
  std::vector<std::uint32_t> groups;  // of a user
};

Ids Resolve(const Question& question, const ShareQuotaSources& sources) {
  if (question.subject == QuotaSubject::kGroup) {
    return {.own = VelaGroup(question.name).Gid(), .groups = {}};
  }
  const VelaUser user(question.name);
  return {.own = user.Uid(), .groups = sources.gids_of(user)};
}

// What a subject can use in the long run, in megabytes; less than one is still a limit.
std::uint64_t Megabytes(const KernelQuota& quota) {
  constexpr std::uint64_t kUnits = 1024;
  const std::uint64_t limit = quota.hard != 0 ? quota.hard : quota.soft;
  return limit / kUnits + (limit % kUnits != 0 ? 1 : 0);
}

// In megabytes; 0 is no limit, none that the file system keeps no quotas of this kind.
struct Limits {
  std::optional<std::uint64_t> own;
  std::optional<std::uint64_t> largest_of_groups;
};

Limits ReadLimits(QuotaSubject subject, const Ids& ids, const ShareQuotaSources& sources) {
  const FileDescriptor root = OpenMaildirRoot();
  Limits limits;
  if (const auto quota = sources.read_quota(root.Get(), subject, ids.own)) {
    limits.own = Megabytes(*quota);
  }
  for (const std::uint32_t gid : ids.groups) {
    if (const auto quota = sources.read_quota(root.Get(), QuotaSubject::kGroup, gid)) {
      limits.largest_of_groups = std::max(limits.largest_of_groups.value_or(0), Megabytes(*quota));
    }
  }
  return limits;
}

Limits ReadLimitsAsRoot(const Question& question, const Ids& ids,
                        const ShareQuotaSources& sources) {
  Limits limits;
  const auto read = [&] { limits = ReadLimits(question.subject, ids, sources); };
  try {
    // Whoever asks for a list of users is root already, and the log would get a line for each.
    if (::geteuid() == 0) {
      read();
    } else {
      velamailserver::velasdk::RunAsRoot("read share quota", read);
    }
  } catch (const std::system_error& error) {
    const char* const kind = question.subject == QuotaSubject::kGroup ? "group" : "user";
    throw LogException(velamailserver::ERR_INTERNAL,
                       fmt::format("cannot read the quota of {} [{}] on {} (maildir.root): {}",
                                   kind, question.name, MaildirRoot(), error.what()),
                       3, kSourceFile, kReadLine);
  }
  return limits;
}

Json::Value Entry(QuotaSubject subject, const Limits& limits) {
  Json::Value share;
  share["name"] = kShare;
  share["quota"] = Json::UInt64{limits.own.value_or(0)};
  if (subject == QuotaSubject::kUser) {
    share["group_limit"] = Json::UInt64{limits.largest_of_groups.value_or(0)};
  }
  Json::Value entry;
  entry["support_share_quota"] = true;
  entry["shares"].append(share);
  return entry;
}

// An array of one entry, or of none.
Json::Value Entries(const Question& question, const ShareQuotaSources& sources) {
  Json::Value entries(Json::arrayValue);
  const Ids ids = Resolve(question, sources);
  if (question.supports_share_quota) {
    const Limits limits = ReadLimitsAsRoot(question, ids, sources);
    if (limits.own || limits.largest_of_groups) {
      entries.append(Entry(question.subject, limits));
    }
  }
  return entries;
}

// None of a user who has gone meanwhile.
std::vector<std::uint32_t> GidsOf(const VelaUser& user) {
  return AskAccounts(velamailserver::ERR_SDK_GROUP_LIST_MEMBER,
                     fmt::format("list the groups of user [{}]", user.Name()), kSourceFile,
                     kGroupsLine, [&] {
                       const auto entry = FindUser(user.Name());
                       return entry == nullptr ? std::vector<std::uint32_t>() : GroupsOf(*entry);
                     });
}

}  // namespace

Json::Value GetShareQuota(const Json::Value& params, const ShareQuotaSources& sources) {
  const Question question = ReadQuestion(params);
  Json::Value answer;
  answer[question.subject == QuotaSubject::kGroup ? "group_quota" : "user_quota"] =
      Entries(question, sources);
  return answer;
}

Json::Value GetShareQuota(const Json::Value& params) {
  return GetShareQuota(params, {.read_quota = ReadKernelQuota, .gids_of = GidsOf});
}

}  // namespace quillon::platform
