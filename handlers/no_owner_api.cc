#include "no_owner_api.h"

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <set>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include <json/value.h>

#include <quillon/platform/no_owner_usage.h>
#include <vela/api_runner.h>
#include <vela/process.h>
#include <velamailserver/account/no_owner.h>
#include <velamailserver/conf/smtp_ext.h>
#include <velamailserver/log_exception.h>
#include <velamailserver/velasdk/run_as_root.h>

#include "parameters.h"
#include "removal.h"

namespace quillon::handlers {

namespace {

using velamailserver::LogException;
using velamailserver::account::NoOwnerMaildir;
using velamailserver::velasdk::RunAsRoot;
using velamailserver::webapi::NoOwner;

constexpr char kAPI[] = "Quillon.MailServer.NoOwner";
constexpr int kVersion = 1;

constexpr char kSourceFile[] = "handlers/no_owner_api";
constexpr int kNoRootLine = 41;

// The scan takes a root that is not there for one without directories, and finds none when it
// cannot tell whose they are: everything would seem to be in order.
void RequireUsableScan() {
  const std::string root = velamailserver::conf::SmtpExt().MaildirPath();
  std::error_code error;
  RunAsRoot("prepare no owner scan", [&] {
    if (!std::filesystem::is_directory(root, error) && !error) {
      error = std::make_error_code(std::errc::not_a_directory);
    }
    platform::RequireKnownOwners();
  });
  if (error) {
    throw LogException(velamailserver::ERR_LSTAT_FILE, root + " (maildir.root): " + error.message(),
                       3, kSourceFile, kNoRootLine);
  }
}

using UidAndName = std::pair<unsigned int, std::string>;

// Those of a page that have no usage; an entry with a usage of 0 may have been counted all the
// same.
std::set<UidAndName> Uncounted(const Json::Value& page, NoOwner& no_owner) {
  std::vector<unsigned int> uids;
  for (const Json::Value& entry : page) {
    if (entry["usage"].asUInt64() == 0) {
      uids.push_back(entry["uid"].asUInt());
    }
  }
  std::set<UidAndName> uncounted;
  if (uids.empty()) {
    return uncounted;  // no uids would be all
  }
  for (const NoOwnerMaildir& maildir : no_owner.List(uids)) {
    if (!maildir.usage) {
      uncounted.emplace(maildir.uid, maildir.name.value_or(""));
    }
  }
  return uncounted;
}

Json::Value List(const Json::Value& params) {
  const Parameters parameters(params, {"offset", "limit", "keyword", "sort_by", "sort_direction"});
  const auto offset = parameters.Has("offset") ? parameters.Unsigned("offset") : 0;
  const auto limit = parameters.Has("limit") ? parameters.Signed("limit") : -1;
  const std::string keyword = parameters.Has("keyword") ? parameters.Text("keyword") : "";
  const std::string sort_by =
      parameters.Has("sort_by") ? parameters.Choice("sort_by", {"name", "usage"}) : "name";
  const std::string sort_direction = parameters.Has("sort_direction")
                                         ? parameters.Choice("sort_direction", {"ASC", "DESC"})
                                         : "ASC";
  RequireUsableScan();

  NoOwner no_owner;
  Json::Value answer = no_owner.List(offset, limit, keyword, sort_by, sort_direction);
  Json::Value& page = answer["no_owner_list"];
  const std::set<UidAndName> uncounted = Uncounted(page, no_owner);
  for (Json::Value& entry : page) {
    entry["counted"] = !uncounted.contains({entry["uid"].asUInt(), entry["name"].asString()});
  }
  return answer;
}

Json::Value Status() {
  Json::Value status;
  RunAsRoot("read no owner usage", [&status] {
    // First, so that the generation is that of a recount that is not running any more.
    status["running"] = platform::IsUsageCountRunning();
    status["generation"] = Json::UInt64{platform::NoOwnerUsageGeneration()};
  });
  return status;
}

Json::Value ReadStatus(const Json::Value& params) {
  const Parameters parameters(params, {});
  return Status();
}

Json::Value Refresh(const Json::Value& params) {
  const Parameters parameters(params, {});
  RequireUsableScan();

  NoOwner no_owner;
  const Json::Value status = Status();
  Json::Value answer;
  answer["generation"] = status["generation"];
  answer["maildirs"] = Json::UInt64{no_owner.List(std::vector<unsigned int>()).size()};
  answer["skipped"] = status["running"];
  if (status["running"].asBool()) {
    answer["reason"] = "another usage count is running";
  }
  VELA::EndChildAfter([&no_owner] { no_owner.Refresh(); });
  return answer;
}

std::vector<std::uint32_t> ReadUids(const Parameters& parameters) {
  std::vector<std::uint32_t> uids = parameters.Ids("uids");
  if (uids.empty()) {
    throw VELA::APIError(VELA::APIRunner::kBadParameters,
                         "parameter [uids] must hold at least one uid");
  }
  return uids;
}

// Each once, which the scan does not promise, in the order of their paths.
std::vector<NoOwnerMaildir> Find(const std::vector<std::uint32_t>& uids, NoOwner& no_owner) {
  std::vector<NoOwnerMaildir> maildirs = no_owner.List(uids);
  std::sort(maildirs.begin(), maildirs.end(),
            [](const auto& left, const auto& right) { return left.path < right.path; });
  maildirs.erase(
      std::unique(maildirs.begin(), maildirs.end(),
                  [](const auto& left, const auto& right) { return left.path == right.path; }),
      maildirs.end());
  return maildirs;
}

std::vector<DoomedMaildir> Doom(const std::vector<NoOwnerMaildir>& maildirs) {
  std::vector<DoomedMaildir> doomed;
  doomed.reserve(maildirs.size());
  for (const NoOwnerMaildir& maildir : maildirs) {
    DoomedMaildir& entry = doomed.emplace_back(DoomedMaildir{maildir.path, Json::Value()});
    entry.entry["uid"] = Json::UInt{maildir.uid};
    entry.entry["name"] = maildir.name.value_or("");
  }
  return doomed;
}

// The uids, each once, that none of the entries has.
Json::Value Unknown(const std::vector<std::uint32_t>& uids, const Json::Value& entries) {
  std::set<std::uint32_t> seen;
  for (const Json::Value& entry : entries) {
    seen.insert(entry["uid"].asUInt());
  }
  Json::Value unknown(Json::arrayValue);
  for (const std::uint32_t uid : uids) {
    if (seen.insert(uid).second) {
      unknown.append(Json::UInt{uid});
    }
  }
  return unknown;
}

Json::Value Remove(const Json::Value& params) {
  const Parameters parameters(params, {"uids", "dry_run"});
  const std::vector<std::uint32_t> uids = ReadUids(parameters);
  const bool is_dry_run = parameters.Has("dry_run") && parameters.Flag("dry_run");
  RequireUsableScan();

  NoOwner no_owner;
  const std::vector<DoomedMaildir> maildirs = Doom(Find(uids, no_owner));
  Json::Value before = MeasureMaildirs(maildirs);
  Json::Value answer;
  answer["unknown"] = Unknown(uids, before);
  if (is_dry_run) {
    answer["maildirs"] = std::move(before);
    return answer;
  }
  no_owner.RemoveStorage(uids);
  AddOutcome(maildirs, before, answer);
  return answer;
}

}  // namespace

void RegisterNoOwnerAPI() {
  VELA::APIRunner::Register(kAPI, kVersion, "list", List);
  VELA::APIRunner::Register(kAPI, kVersion, "refresh", Refresh);
  VELA::APIRunner::Register(kAPI, kVersion, "status", ReadStatus);
  VELA::APIRunner::Register(kAPI, kVersion, "remove", Remove);
}

}  // namespace quillon::handlers
