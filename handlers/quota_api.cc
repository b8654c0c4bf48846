#include "quota_api.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <map>
#include <optional>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

#include <json/value.h>

#include <quillon/platform/mail_users.h>
#include <vela/api_runner.h>
#include <velamailserver/account/user.h>
#include <velamailserver/conf/smtp_ext.h>
#include <velamailserver/log_exception.h>
#include <velamailserver/utils/text.h>

#include "parameters.h"
#include "quota_file.h"

namespace quillon::handlers {

namespace {

using velamailserver::LogException;
using velamailserver::utils::ToLowerCase;
using velamailserver::velasdk::VelaUser;
using velamailserver::webapi::User;

constexpr char kAPI[] = "Quillon.MailServer.Quota";
constexpr int kVersion = 1;

// Finds users by name. A name that is unknown is asked of the whole host, and logged: that is done
// for so many only. Of the others that are left, users are those on the list of the mail users.
class UserFinder {
 public:
  std::optional<VelaUser> Find(const std::string& name) {
    if (unknown_ >= kMostAsked && !mail_users_.contains(ToLowerCase(name))) {
      return std::nullopt;
    }
    try {
      return VelaUser(name);
    } catch (const LogException&) {
      if (unknown_++ == 0) {
        ListMailUsers();
      }
      return std::nullopt;
    }
  }

 private:
  static constexpr int kMostAsked = 100;

  // A lookup fails in the same way while the accounts cannot be read; then nobody may be called
  // unknown, and this throws.
  void ListMailUsers() {
    for (const VelaUser& user : velamailserver::conf::SmtpExt().EnumUsers()) {
      mail_users_.insert(ToLowerCase(user.RealName()));
    }
  }

  int unknown_ = 0;
  std::unordered_set<std::string> mail_users_;
};

// Where something was seen first in a file.
template <typename Key>
using FirstLines = std::unordered_map<Key, std::size_t>;

// Notes a key of a row. One that another row has already is a problem of this one; answers whether
// it is not.
template <typename Key>
bool NoteKey(const Key& key, QuotaRow& row, FirstLines<Key>& lines) {
  const auto [first, is_new] = lines.emplace(key, row.line);
  if (!is_new) {
    row.AddProblem("the same user as in row " + std::to_string(first->second));
  }
  return is_new;
}

// The users of the rows, in their order. What is wrong with a row's name becomes a problem of the
// row, which has no user then.
std::vector<VelaUser> FindUsers(std::vector<QuotaRow>& rows) {
  UserFinder finder;
  FirstLines<std::string> names;
  FirstLines<std::uint32_t> uids;
  std::vector<VelaUser> users;
  users.reserve(rows.size());
  for (QuotaRow& row : rows) {
    if (!row.name || !NoteKey(ToLowerCase(*row.name), row, names)) {
      continue;
    }
    const auto user = finder.Find(*row.name);
    if (!user) {
      row.AddProblem("no such user");
    } else if (NoteKey<std::uint32_t>(user->Uid(), row, uids)) {
      users.push_back(*user);
    }
  }
  return users;
}

Json::Value EntryOf(const QuotaRow& row) {
  Json::Value entry;
  entry["row"] = Json::UInt64{row.line};
  entry["name"] = row.name ? Json::Value(*row.name) : Json::Value();
  return entry;
}

void RefuseBadRows(const std::vector<QuotaRow>& rows) {
  Json::Value data;
  Json::Value& bad = data["bad"] = Json::Value(Json::arrayValue);
  for (const QuotaRow& row : rows) {
    if (!row.problems.empty()) {
      bad.append(EntryOf(row))["reason"] = row.problems;
    }
  }
  if (bad.empty()) {
    return;
  }
  const Json::Value& first = bad[0];
  const std::string name = first["name"].isNull() ? "" : " [" + first["name"].asString() + "]";
  const std::string message = std::to_string(bad.size()) + " of " + std::to_string(rows.size()) +
                              " rows are bad, nothing was written; the first is row " +
                              first["row"].asString() + name + ": " + first["reason"].asString();
  throw VELA::APIError(VELA::APIRunner::kBadParameters, message, std::move(data));
}

// Rows of the same limit and warning, which are written together.
struct Group {
  std::vector<const QuotaRow*> rows;
  std::vector<VelaUser> users;

  unsigned long long limit() const { return rows.front()->limit; }
  unsigned long long warning() const { return rows.front()->warning; }
};

// In the order of their first rows.
std::vector<Group> GroupRows(const std::vector<QuotaRow>& rows,
                             const std::vector<VelaUser>& users) {
  std::map<std::pair<unsigned long long, unsigned long long>, std::size_t> places;
  std::vector<Group> groups;
  for (std::size_t i = 0; i < rows.size(); ++i) {
    const auto [place, is_new] =
        places.emplace(std::pair(rows[i].limit, rows[i].warning), groups.size());
    if (is_new) {
      groups.emplace_back();
    }
    groups[place->second].rows.push_back(&rows[i]);
    groups[place->second].users.push_back(users[i]);
  }
  return groups;
}

Json::Value EntriesOf(const std::vector<Group>& groups, std::size_t begin, std::size_t end) {
  Json::Value entries(Json::arrayValue);
  for (std::size_t i = begin; i < end; ++i) {
    for (const QuotaRow* row : groups[i].rows) {
      entries.append(EntryOf(*row));
    }
  }
  return entries;
}

[[noreturn]] void ReportFailure(const std::vector<Group>& groups, std::size_t failed, int code,
                                const char* what) {
  Json::Value data;
  data["written"] = EntriesOf(groups, 0, failed);
  data["failed"] = EntriesOf(groups, failed, failed + 1);
  data["left"] = EntriesOf(groups, failed + 1, groups.size());
  const auto count = data["written"].size() + data["failed"].size() + data["left"].size();
  const std::string message = std::string(what) + "; " + std::to_string(data["written"].size()) +
                              " of " + std::to_string(count) +
                              " rows were written, import the file again";
  throw VELA::APIError(code, message, std::move(data));
}

void Write(const std::vector<Group>& groups) {
  std::size_t written = 0;
  try {
    User store;
    for (; written < groups.size(); ++written) {
      const Group& group = groups[written];
      store.SetQuota(group.users, group.limit(), group.warning());
    }
  } catch (const LogException& error) {
    ReportFailure(groups, written, error.code(), error.what());
  } catch (const std::exception& error) {
    ReportFailure(groups, written, VELA::APIRunner::kHandlerFailed, error.what());
  }
}

Json::Value Import(const Json::Value& params) {
  const Parameters parameters(params, {"file", "dry_run"});
  const bool is_dry_run = parameters.Has("dry_run") && parameters.Flag("dry_run");
  std::vector<QuotaRow> rows = ParseQuotaFile(parameters.Bytes("file"));
  const std::vector<VelaUser> users = FindUsers(rows);
  RefuseBadRows(rows);

  const std::vector<Group> groups = GroupRows(rows, users);
  if (!is_dry_run) {
    Write(groups);
  }
  Json::Value answer;
  answer["rows"] = Json::UInt64{rows.size()};
  answer["groups"] = Json::UInt64{groups.size()};
  return answer;
}

Json::Value Sync(const Json::Value& params) {
  const Parameters parameters(params, {"dry_run"});
  const auto changes =
      platform::SyncMailUsers(parameters.Has("dry_run") && parameters.Flag("dry_run"));
  Json::Value answer;
  answer["added"] = Json::UInt64{changes.added};
  answer["changed"] = Json::UInt64{changes.changed};
  answer["removed"] = Json::UInt64{changes.removed};
  answer["unchanged"] = Json::UInt64{changes.unchanged};
  return answer;
}

}  // namespace

void RegisterQuotaAPI() {
  VELA::APIRunner::Register(kAPI, kVersion, "import", Import);
  VELA::APIRunner::Register(kAPI, kVersion, "sync", Sync);
}

}  // namespace quillon::handlers
