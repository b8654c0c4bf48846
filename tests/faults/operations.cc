#include "faults/operations.h"

#include <algorithm>
#include <filesystem>
#include <map>
#include <ostream>
#include <stdexcept>

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace quillon::test {

namespace {

using Arguments = std::vector<std::string>;

Arguments With(Arguments arguments, const std::vector<std::string>& more) {
  arguments.insert(arguments.end(), more.begin(), more.end());
  return arguments;
}

std::function<Arguments(Host&)> Always(const Arguments& arguments) {
  return [arguments](Host&) { return arguments; };
}

void MustSucceed(Host& host, const Arguments& arguments, const std::string& input = "") {
  const Outcome outcome = host.Run(arguments, input);
  if (outcome.exit_code != 0) {
    throw std::runtime_error(outcome.error);
  }
}

Arguments SetQuota(Host& host) {
  return With({"user", "set-quota", "--limit", "8K", "--warning", "4K"}, host.Users());
}

void HaveQuotas(Host& host) {
  MustSucceed(host, With({"user", "set-quota", "--limit", "2K", "--warning", "1K"}, host.Users()));
}

// Of whom one is new, one has another group, and one is gone.
void HaveOldMailUsers(Host& host) {
  host.world().AddAccount("frank", 1004);
  MustSucceed(host, {"quota", "sync"});
  const std::string passwd = host.world().folder().Read("passwd");
  host.world().folder().Write("passwd", passwd.substr(0, passwd.find("frank:")));
  host.world().AddAccount("grace", 1005);
  host.world().AddGroup("readers", 300, {"user03"});
}

void HaveCache(Host& host) { MustSucceed(host, {"no-owner", "refresh", "--wait"}); }

void HaveWebAccount(Host& host) {
  MustSucceed(host, {"account", "add", "bob", "--password-stdin"}, "correct horse\n");
}

void HaveTrust(Host& host) {
  const std::string key = "sha256//" + std::string(43, 'A') + "=\n";
  host.world().folder().Write("trusted-hosts", "one:5001 " + key + "two:5001 " + key);
}

Arguments RemoveOwnerless(Host& /*host*/) {
  return {"no-owner", "remove", "--yes", std::to_string(Host::kUidOfDora)};
}

}  // namespace

std::ostream& operator<<(std::ostream& out, const Operation& operation) {
  return out << operation.name;
}

std::vector<Operation> MainOperations() {
  return {
      {.name = "SetQuota", .arguments = SetQuota, .before = HaveQuotas},
      {.name = "ImportQuota",
       .arguments = [](Host& host) -> Arguments {
         return {"user", "import-quota", host.QuotaFile()};
       },
       .before =
           [](Host& host) {
             HaveQuotas(host);
             host.QuotaFile();
           },
       .is_one_batch = false},
      {.name = "SyncMailUsers", .arguments = Always({"quota", "sync"}), .before = HaveOldMailUsers},
      {.name = "CountUsage", .arguments = Always({"usage", "count"})},
      {.name = "RefreshOwnerless",
       .arguments = Always({"no-owner", "refresh"}),
       .before = HaveCache,
       .is_in_background = true},
      {.name = "RemoveOwnerless",
       .arguments = RemoveOwnerless,
       .before = HaveCache,
       .doomed = {Host::kDora},
       .fails_when_done = true,
       .clearing_up = {"no-owner", "refresh", "--wait"}},
  };
}

std::vector<Operation> Operations() {
  std::vector<Operation> operations = MainOperations();
  const std::vector<Operation> others = {
      {.name = "SetQuotaInNewStore", .arguments = SetQuota},
      {.name = "SyncMailUsersOfNewStore", .arguments = Always({"quota", "sync"})},
      {.name = "ClearQuota",
       .arguments =
           [](Host& host) {
             return With({"user", "clear-quota"}, host.Users());
           },
       .before = HaveQuotas},
      {.name = "SetGroupQuota",
       .arguments = Always({"group", "set-quota", "--limit", "8K", "--warning", "4K", "users"}),
       .before = HaveQuotas},
      {.name = "RefreshOwnerlessIntoNewCache",
       .arguments = Always({"no-owner", "refresh"}),
       .is_in_background = true},
      {.name = "ClearStorage",
       .arguments = Always({"user", "clear-storage", "--yes", "bob"}),
       .doomed = {"bob"}},
      {.name = "RevokePrivilege", .arguments = Always({"privilege", "revoke", "alice", "bob"})},
      {.name = "GrantPrivilege",
       .arguments = Always({"privilege", "grant", "alice"}),
       .before =
           [](Host& host) {
             MustSucceed(host, {"privilege", "revoke", "alice", "bob"});
           }},
      {.name = "AddWebAccount",
       .arguments = Always({"account", "add", "alice", "--password-stdin"}),
       .input = "correct horse\n",
       .before = HaveWebAccount,
       .fails_when_done = true},
      {.name = "ChangeWebRole",
       .arguments = Always({"account", "role", "bob", "admin"}),
       .before = HaveWebAccount},
      {.name = "ForgetHost",
       .arguments = Always({"host", "trust", "--remove", "one"}),
       .before = HaveTrust,
       .fails_when_done = true},
  };
  operations.insert(operations.end(), others.begin(), others.end());
  return operations;
}

Trial::Trial(const Operation& operation) : operation_(operation) {
  if (operation_.before) {
    operation_.before(host_);
  }
  host_.Keep(operation_.doomed);
  begun_ = host_.Look();
  MustSucceed(host_, arguments(), operation_.input);
  ClearUp();
  done_ = host_.Look();
  files_ = host_.Files();
}

void Trial::ClearUp() {
  if (!operation_.clearing_up.empty()) {
    MustSucceed(host_, operation_.clearing_up);
  }
}

namespace {

std::string ValueIn(const State& state, const std::string& unit) {
  const auto found = state.find(unit);
  return found == state.end() ? "" : found->second;
}

std::set<std::string> UnitsOf(const State& a, const State& b, const State& c) {
  std::set<std::string> units;
  for (const State* state : {&a, &b, &c}) {
    for (const auto& [unit, value] : *state) {
      units.insert(unit);
    }
  }
  return units;
}

}  // namespace

void Trial::ExpectSoundness(bool has_succeeded) {
  const bool is_done = has_succeeded && !operation_.is_in_background;
  const State now = host_.Look();
  std::map<std::string, std::set<bool>> changed;  // by table
  for (const std::string& unit : UnitsOf(begun_, done_, now)) {
    const std::string value = ValueIn(now, unit);
    const std::string before = ValueIn(begun_, unit);
    const std::string after = ValueIn(done_, unit);
    // The figure of a directory that is gone is never found again, so that it may stay.
    if (is_done && (operation_.doomed.empty() || !unit.starts_with("cached"))) {
      EXPECT_EQ(value, after) << unit << ": not done, in spite of the success";
    } else {
      EXPECT_THAT(value, testing::AnyOf(before, after)) << unit << ": in part";
    }
    if (before != after && unit.find(" of ") != std::string::npos) {
      changed[unit.substr(0, unit.find(' '))].insert(value == after);
    }
  }
  for (const auto& [table, outcomes] : changed) {
    EXPECT_TRUE(outcomes.size() == 1 || !operation_.is_one_batch) << table << ": in part";
  }
  ExpectMail(is_done);
}

void Trial::ExpectMail(bool is_done) {
  for (const auto& maildir :
       std::filesystem::directory_iterator(host_.world().folder() / "spool/local")) {
    EXPECT_TRUE(host_.mail().contains(maildir.path().filename()))
        << maildir.path() << ": from nowhere";
  }
  for (const auto& [account, before] : host_.mail()) {
    Mail now = host_.MailOf(account);
    if (!operation_.doomed.contains(account)) {
      EXPECT_EQ(now, before) << "mail of " << account << " has changed";
    } else if (is_done) {
      EXPECT_EQ(now, Mail()) << "mail of " << account << " is left";
    } else {
      for (const auto& [path, what] : now) {
        EXPECT_TRUE(before.contains(path)) << path << ": from nowhere in the mail of " << account;
      }
    }
  }
}

// Whether there is nothing to do for it any more.
bool Trial::IsDone() {
  if (operation_.doomed.empty()) {
    return host_.Look() == done_;
  }
  return std::all_of(operation_.doomed.begin(), operation_.doomed.end(),
                     [&](const std::string& account) { return host_.MailOf(account).empty(); });
}

void Trial::ExpectSuccessAtLast() {
  const bool was_done = IsDone();
  const Outcome outcome = host_.Run(
      operation_.is_in_background ? With(arguments(), {"--wait"}) : arguments(), operation_.input);
  if (outcome.exit_code != 0) {
    EXPECT_TRUE(operation_.fails_when_done && was_done) << "a second run fails: " << outcome.error;
  }
  ClearUp();
  EXPECT_EQ(host_.Look(), done_) << "after a second run";
  ExpectMail(true);
  EXPECT_EQ(host_.Files(), files_) << "after a second run";
}

}  // namespace quillon::test
