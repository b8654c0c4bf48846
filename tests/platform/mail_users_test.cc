#include <algorithm>
#include <array>
#include <filesystem>
#include <iterator>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <soci/soci.h>

#include <quillon/platform/configuration.h>
#include <quillon/platform/mail_users.h>
#include <quillon/platform/store_check.h>
#include <velamailserver/account/effective_limit.h>
#include <velamailserver/account/mailbox_quota.h>
#include <velamailserver/log_exception.h>

#include "support/quota_world.h"
#include "support/temporary_folder.h"

namespace quillon::platform {
namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using velamailserver::LogException;
using velamailserver::account::MailboxQuota;
using velamailserver::velasdk::VelaGroup;
using velamailserver::velasdk::VelaUser;

using Texts = std::vector<std::string>;

// A host with mail users in files of its own, on every kind of store.
class MailUsers : public testing::TestWithParam<const char*> {
 protected:
  MailUsers() {
    configuration_.accounts.passwd_file = folder_ / "passwd";
    configuration_.accounts.group_file = folder_ / "group";
    configuration_.accounts.min_uid = 70000;
    configuration_.accounts.max_uid = 4294967294;
    configuration_.maildir.root = folder_ / "spool";
    configuration_.log = {"file", folder_ / "log"};
    configuration_.quota.store = world_->Url();
    UseConfiguration(configuration_);
    WriteUsers("ann:x:70001:100:::\nbob:x:70002:100:::\nroot:x:0:0:::\n");
    WriteGroups("users:x:100:\nstaff:x:50:ann\nsales:x:60:ann,bob\n");
  }

  // As whoever changes accounts should: whole, and at once.
  void WriteUsers(const std::string& text) { Replace("passwd", text); }
  void WriteGroups(const std::string& text) { Replace("group", text); }

  // The rows of a query, the columns of each with blanks between them, "-" for none.
  Texts Rows(const std::string& query) const {
    const auto session = world_->Connect();
    Texts texts;
    const soci::rowset<std::string> rows = (session->prepare << query);
    std::copy(rows.begin(), rows.end(), std::back_inserter(texts));
    return texts;
  }

  // What a mail server reads.
  Texts Quotas() const {
    return Rows(
        "SELECT name || ' ' || CAST(uid AS TEXT) || ' ' || CAST(gid AS TEXT) || ' ' ||"
        " coalesce(quota_limit, '-') || ' ' || coalesce(quota_warning, '-')"
        " FROM mail_user_quota ORDER BY uid");
  }
  Texts Homes() const { return Rows("SELECT home FROM mail_user_quota ORDER BY uid"); }
  Texts Groups() const {
    return Rows(
        "SELECT CAST(id AS TEXT) || ' ' || CAST(gid AS TEXT) FROM mail_user_group ORDER BY id, "
        "gid");
  }

  // Numbers of added, changed, removed and unchanged users.
  static std::string Sync(bool is_dry_run = false) {
    const MailUserChanges changes = SyncMailUsers(is_dry_run);
    return fmt::format("+{} ~{} -{} ={}", changes.added, changes.changed, changes.removed,
                       changes.unchanged);
  }

  // How often the store's tables of mail users are written to from now on.
  void CountWrites() const {
    const auto session = world_->Connect();
    for (const std::string& statement : world_->CountWrites({"mail_user", "mail_user_group"})) {
      *session << statement;
    }
  }
  int Writes() const {
    int writes = 0;
    *world_->Connect() << "SELECT count(*) FROM writes", soci::into(writes);
    return writes;
  }

  static LogException FailureOfSync() {
    try {
      SyncMailUsers(false);
    } catch (const LogException& error) {
      return error;
    }
    ADD_FAILURE() << "it succeeded";
    return {velamailserver::ERR_INTERNAL, "", 3, "", 0};
  }

  test::TemporaryFolder folder_;
  Configuration configuration_;
  std::unique_ptr<test::QuotaWorld> world_ = test::MakeQuotaWorld(GetParam(), folder_ / "quota.db");

 private:
  void Replace(const std::string& name, const std::string& text) {
    folder_.Write("new", text);
    std::filesystem::rename(folder_ / "new", folder_ / name);
  }
};

INSTANTIATE_TEST_SUITE_P(, MailUsers, testing::Values("Sqlite", "Postgresql"),
                         [](const auto& param) { return std::string(param.param); });

TEST_P(MailUsers, AreThoseOfTheAccounts) {
  EXPECT_EQ(Sync(), "+2 ~0 -0 =0");
  EXPECT_THAT(Quotas(), ElementsAre("ann 70001 100 - -", "bob 70002 100 - -"));
  EXPECT_THAT(Homes(), ElementsAre(folder_ / "spool/local/ann", folder_ / "spool/local/bob"));
  EXPECT_THAT(Groups(), ElementsAre("70001 50", "70001 60", "70001 100", "70002 60", "70002 100"));
}

TEST_P(MailUsers, FollowTheAccounts) {
  Sync();
  WriteUsers("ann:x:70001:50:::\ncarol:x:70003:100:::\nbob:x:70002:100:::\n");
  EXPECT_EQ(Sync(), "+1 ~1 -0 =1");
  EXPECT_THAT(Quotas(),
              ElementsAre("ann 70001 50 - -", "bob 70002 100 - -", "carol 70003 100 - -"));

  WriteUsers("ann:x:70001:50:::\nrobert:x:70002:100:::\n");
  EXPECT_EQ(Sync(), "+0 ~1 -1 =1");
  EXPECT_THAT(Homes(), ElementsAre(folder_ / "spool/local/ann", folder_ / "spool/local/robert"));
  EXPECT_THAT(Groups(), ElementsAre("70001 50", "70001 60", "70002 100"));

  WriteGroups("users:x:100:\nsales:x:60:robert\n");
  EXPECT_EQ(Sync(), "+0 ~2 -0 =0");
  EXPECT_THAT(Groups(), ElementsAre("70001 50", "70002 60", "70002 100"));
}

TEST_P(MailUsers, MayExchangeTheirNames) {
  Sync();
  WriteUsers("bob:x:70001:100:::\nann:x:70002:100:::\n");
  EXPECT_EQ(Sync(), "+0 ~2 -0 =0");
  EXPECT_THAT(Quotas(), ElementsAre("bob 70001 100 - -", "ann 70002 100 - -"));
}

TEST_P(MailUsers, AreWrittenOnlyWhenTheyChange) {
  Sync();
  CountWrites();
  EXPECT_EQ(Sync(), "+0 ~0 -0 =2");
  EXPECT_EQ(Writes(), 0);

  WriteUsers("ann:x:70001:100:::\n");
  EXPECT_EQ(Sync(true), "+0 ~0 -1 =1");
  EXPECT_EQ(Writes(), 0);
  EXPECT_THAT(Quotas(), testing::SizeIs(2));

  EXPECT_EQ(Sync(), "+0 ~0 -1 =1");
  EXPECT_EQ(Writes(), 3);  // bob, and his two groups
}

TEST_P(MailUsers, HaveTheirLimitsAtOnce) {
  Sync();
  MailboxQuota quota;
  quota.SetUserQuotaLimit({VelaUser("ann")}, 18446744073709551615ULL);
  quota.SetUserQuotaWarning({VelaUser("ann")}, 7);
  EXPECT_THAT(Quotas(), ElementsAre("ann 70001 100 18446744073709551615 7", "bob 70002 100 - -"));

  quota.SetGroupQuotaLimit({VelaGroup("sales")}, 9);
  quota.SetGroupQuotaWarning({VelaGroup("sales")}, 8);
  EXPECT_THAT(Quotas(), ElementsAre("ann 70001 100 18446744073709551615 7", "bob 70002 100 9 -"));

  quota.ClearUserQuotaLimit({VelaUser("ann")});
  quota.ClearUserQuotaWarning({VelaUser("ann")});
  EXPECT_THAT(Quotas(), ElementsAre("ann 70001 100 9 -", "bob 70002 100 9 -"));

  quota.SetGroupQuotaLimit({VelaGroup("users")}, 10);  // as texts, 9 is the larger one
  EXPECT_THAT(Quotas(), ElementsAre("ann 70001 100 10 -", "bob 70002 100 10 -"));

  quota.SetGroupQuotaLimit({VelaGroup("staff")}, 0);
  EXPECT_THAT(Quotas(), ElementsAre("ann 70001 100 - -", "bob 70002 100 10 -"));

  quota.SetUserQuotaLimit({VelaUser("bob")}, 0);
  quota.SetUserQuotaWarning({VelaUser("bob")}, 0);
  EXPECT_THAT(Quotas(), ElementsAre("ann 70001 100 - -", "bob 70002 100 - -"));
}

TEST_P(MailUsers, HaveTheLimitsThatTheLibraryTells) {
  std::mt19937 random(20);
  std::string users;
  std::string groups;
  for (int i = 0; i < 40; ++i) {
    users += fmt::format("user{}:x:{}:{}:::\n", i, 70000 + i, 100 + i % 7);
  }
  for (int gid = 100; gid < 112; ++gid) {
    groups += fmt::format("group{0}:x:{0}:", gid);
    for (int i = 0; i < 6; ++i) {
      groups += fmt::format("{}user{}", i == 0 ? "" : ",", random() % 40);
    }
    groups += "\n";
  }
  WriteUsers(users);
  WriteGroups(groups);
  MailboxQuota quota;
  constexpr std::array<unsigned long long, 6> kLimits = {
      0, 1, 99, 100, 9223372036854775808ULL, 18446744073709551615ULL};
  const auto number_below = [&](unsigned end) { return static_cast<unsigned>(random() % end); };
  for (int round = 0; round < 12; ++round) {
    quota.SetUserQuotaLimit({VelaUser(70000 + number_below(40))}, kLimits.at(number_below(6)));
    quota.SetGroupQuotaLimit({VelaGroup(100 + number_below(12))}, kLimits.at(number_below(6)));
  }
  Sync();

  Texts expected;
  for (int i = 0; i < 40; ++i) {
    const auto limit = velamailserver::account::GetResultUserQuotaLimit("user" + std::to_string(i));
    expected.push_back(limit == 0 ? "-" : std::to_string(limit));
  }
  EXPECT_EQ(Rows("SELECT coalesce(quota_limit, '-') FROM mail_user_quota ORDER BY uid"), expected);
  EXPECT_THAT(expected, testing::Contains("-"));
  EXPECT_THAT(expected, testing::Contains("18446744073709551615"));
}

TEST_P(MailUsers, KeepTheirNamesAsTheyAre) {
  WriteUsers(
      "Ann.O'Neil+x:x:70001:100:::\nann.o'neil+x:x:70002:100:::\n"
      "zo\xc3\xab \"q\" \\:x:70003:100:::\nhigh:x:4294967294:4294967294:::\n");
  EXPECT_EQ(Sync(), "+4 ~0 -0 =0");
  EXPECT_THAT(Quotas(),
              ElementsAre("Ann.O'Neil+x 70001 100 - -", "ann.o'neil+x 70002 100 - -",
                          "zo\xc3\xab \"q\" \\ 70003 100 - -", "high 4294967294 4294967294 - -"));
  EXPECT_EQ(Sync(), "+0 ~0 -0 =4");
}

TEST_P(MailUsers, AreWhoCanBeFound) {
  WriteUsers(
      "twice:x:70005:100:::\ntwice:x:70001:100:::\nlatin\xe9:x:70002:100:::\n"
      "a/b:x:70003:100:::\n..:x:70004:100:::\nann:x:70006:100:::\n");
  EXPECT_EQ(Sync(), "+2 ~0 -0 =0");
  EXPECT_THAT(Quotas(), ElementsAre("twice 70005 100 - -", "ann 70006 100 - -"));
  EXPECT_THAT(
      folder_.Read("log"),
      HasSubstr("4 accounts are left out of the mail users, the first is that of uid 70001"));
}

// Mail for whoever is missing would be refused for good.
TEST_P(MailUsers, StayWhenTheAccountsAreBroken) {
  Sync();
  for (const char* users : {"ann:x:70001:100:::\nbob:x:700", ""}) {
    WriteUsers(users);
    EXPECT_EQ(FailureOfSync().code(), velamailserver::ERR_SDK_USER_ENUM) << users;
  }
  WriteUsers("ann:x:70001:100:::\n");
  WriteGroups("users:x:100:\nstaff:x");
  EXPECT_EQ(FailureOfSync().code(), velamailserver::ERR_SDK_USER_ENUM);
  EXPECT_THAT(folder_.Read("log"), HasSubstr("line 2 is not an account entry"));
  EXPECT_THAT(Quotas(), testing::SizeIs(2));
}

TEST_P(MailUsers, ChangeAsAWholeOrNotAtAll) {
  Sync();
  {
    const auto session = world_->Connect();
    for (const std::string& statement : world_->Refuse("INSERT", 70003, "mail_user_group")) {
      *session << statement;
    }
  }
  WriteUsers("carol:x:70003:100:::\nbob:x:70002:60:::\n");
  const LogException failure = FailureOfSync();
  EXPECT_EQ(failure.code(), velamailserver::ERR_DB_REPLACE);
  EXPECT_THAT(failure.what(),
              AllOf(HasSubstr("cannot update mail_user"), HasSubstr("no such luck")));
  EXPECT_THAT(Quotas(), ElementsAre("ann 70001 100 - -", "bob 70002 100 - -"));
  EXPECT_THAT(Groups(), ElementsAre("70001 50", "70001 60", "70001 100", "70002 60", "70002 100"));
}

TEST_P(MailUsers, MayBeSynchronisedByTwoAtOnce) {
  std::string users;
  for (int i = 0; i < 300; ++i) {
    users += fmt::format("user{}:x:{}:100:::\n", i, 70000 + i);
  }
  WriteUsers("ann:x:80000:100:::\n");
  std::vector<std::jthread> threads;
  for (int i = 0; i < 3; ++i) {
    threads.emplace_back([] {
      for (int round = 0; round < 5; ++round) {
        SyncMailUsers(false);
        MailboxQuota().SetUserQuotaLimit({VelaUser("ann")}, 5);
      }
    });
  }
  for (int round = 0; round < 5; ++round) {
    WriteUsers(users + "ann:x:80000:100:::\n");
    WriteUsers("ann:x:80000:100:::\n");
  }
  threads.clear();
  Sync();
  EXPECT_THAT(Quotas(), ElementsAre("ann 80000 100 5 -"));
}

TEST_P(MailUsers, AreManyInSeveralStatements) {
  std::string users;
  for (int i = 0; i < 25'000; ++i) {
    users += fmt::format("user{}:x:{}:100:::\n", i, 100'000 + i);
  }
  WriteUsers(users);
  EXPECT_EQ(Sync(), "+25000 ~0 -0 =0");
  WriteGroups("users:x:100:\nstaff:x:50:user7\n");
  EXPECT_EQ(Sync(), "+0 ~1 -0 =24999");
  WriteUsers("user3:x:100003:100:::\n");
  EXPECT_EQ(Sync(), "+0 ~0 -24999 =1");
}

TEST_P(MailUsers, ComeToAStoreOfTheVersionBefore) {
  MailboxQuota().SetGroupQuotaLimit({VelaGroup("staff")}, 5);
  {
    const auto session = world_->Connect();
    for (const char* statement : {"DROP VIEW mail_user_quota", "DROP TABLE mail_user_group",
                                  "DROP TABLE mail_user", "UPDATE quota_schema SET version = 1"}) {
      *session << statement;
    }
  }
  EXPECT_EQ(Sync(), "+2 ~0 -0 =0");
  EXPECT_THAT(Quotas(), ElementsAre("ann 70001 100 5 -", "bob 70002 100 - -"));
}

TEST_P(MailUsers, AreListedAsAMailServerHasThem) {
  EXPECT_THAT(StoredMailUsers(), testing::IsEmpty());
  Sync();
  MailboxQuota().SetGroupQuotaLimit({VelaGroup("staff")}, 18446744073709551615U);
  MailboxQuota().SetUserQuotaLimit({VelaUser("bob")}, 0);
  const auto users = StoredMailUsers();
  ASSERT_EQ(users.size(), 2U);
  EXPECT_EQ(users[0].name, "ann");
  EXPECT_EQ(users[0].uid, 70001U);
  EXPECT_EQ(users[0].gid, 100U);
  EXPECT_EQ(users[0].home, folder_ / "spool/local/ann");
  EXPECT_EQ(users[0].limit, "18446744073709551615");
  EXPECT_EQ(users[1].name, "bob");
  EXPECT_EQ(users[1].limit, "");
}

TEST_P(MailUsers, AreCheckedByAWrite) {
  Sync();
  const auto session = world_->Connect();
  for (const std::string& statement : world_->CountWrites({"quota_schema"})) {
    *session << statement;
  }
  CheckQuotaStore();
  EXPECT_EQ(Writes(), 1);  // which a full disk would refuse
  *session << (std::string(GetParam()) == "Sqlite"
                   ? "CREATE TRIGGER refusal BEFORE UPDATE ON quota_schema"
                     " BEGIN SELECT RAISE(FAIL, 'no such luck'); END"
                   : "DO $$ BEGIN EXECUTE 'ALTER DATABASE ' || current_database() ||"
                     " ' SET default_transaction_read_only = on'; END $$");
  EXPECT_THROW(CheckQuotaStore(), LogException);
}

}  // namespace
}  // namespace quillon::platform
