// A real mail server, which reads the limits from the quota store and writes the figures into the
// usage store.
#include "system/dovecot.h"

#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <memory>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/quota_world.h"
#include "system/world.h"

namespace quillon::test {
namespace {

using testing::HasSubstr;
using testing::StartsWith;
namespace fs = std::filesystem;

template <typename Condition>
bool Becomes(Condition condition) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (!condition() && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  return condition();
}

class DovecotTest : public testing::TestWithParam<const char*> {
 protected:
  void SetUp() override {
    if (::geteuid() != 0) {
      GTEST_SKIP() << "Dovecot becomes its users: run as root";
    }
    OpenToDovecot(world_.folder(), world_.redis());
    if (std::string(GetParam()) == "Postgresql") {
      store_ = std::make_unique<PostgresqlWorld>();
      world_.UseStore(store_->Url());
    }
  }

  void Start() {
    Do({"quota", "sync"});
    Do({"export", "dovecot", "--output", world_.folder() / "dovecot"});
    dovecot_ = std::make_unique<Dovecot>(world_.folder() / "dovecot");
  }

  // Dovecot asks the store about a user anew once it has forgotten the last answer.
  void Do(const std::vector<std::string>& arguments) {
    const Outcome outcome = world_.Quillonctl(arguments);
    EXPECT_EQ(outcome.exit_code, 0) << outcome.error;
  }

  std::string Deliver(const std::string& user, std::size_t bytes) const {
    return dovecot_->Deliver(user, bytes);
  }

  // As the report has it.
  std::string Usage(const std::string& user) const {
    const Json::Value report = world_.QuillonctlJson({"user", "list"});
    for (const Json::Value& entry : report["users"]) {
      if (entry["name"] == user) {
        return entry["usage"].asString();
      }
    }
    return "no such user";
  }

  // What is on the disk.
  std::string Counted(const std::string& user) const {
    std::uintmax_t bytes = 0;
    for (const char* folder : {"cur", "new"}) {
      for (const auto& file : fs::directory_iterator(world_.Maildir(user) + "/" + folder)) {
        bytes += file.file_size();
      }
    }
    return std::to_string(bytes);
  }

  // Whether the report soon has what is on the disk: the process that changed it goes on for a
  // moment after its client has left.
  bool BecomesRight(const std::string& user) const {
    return Becomes([&] { return Usage(user) == Counted(user); });
  }

  // Whether the user gets a message with such a line in it.
  bool Gets(const std::string& user, const std::string& line) const {
    return Becomes([&] { return MessagesWith(user, line) != 0; });
  }

  int MessagesWith(const std::string& user, const std::string& line) const {
    const fs::path folder = fs::relative(world_.Maildir(user), world_.folder().path()) / "new";
    int count = 0;
    for (const auto& file : fs::directory_iterator(world_.folder() / folder.string())) {
      const std::string message = world_.folder().Read((folder / file.path().filename()).string());
      count += message.find("\n" + line + "\n") != std::string::npos ? 1 : 0;
    }
    return count;
  }

  World world_;
  std::unique_ptr<QuotaWorld> store_;
  std::unique_ptr<Dovecot> dovecot_;
};

INSTANTIATE_TEST_SUITE_P(, DovecotTest, testing::Values("Sqlite", "Postgresql"),
                         [](const auto& param) { return std::string(param.param); });

TEST_P(DovecotTest, RefusesMailBeyondTheLimit) {
  Do({"user", "set-quota", "--limit", "10K", "--warning", "10K", "alice"});
  Start();
  EXPECT_THAT(Deliver("alice", 6000), StartsWith("250 2.0.0"));
  EXPECT_THAT(Deliver("alice", 5000), StartsWith("552 5.2.2 <alice> Quota exceeded"));
  EXPECT_THAT(Deliver("alice", 3000), StartsWith("250 2.0.0"));
  EXPECT_EQ(Usage("alice"), Counted("alice"));
  EXPECT_THAT(Deliver("bob", 50000), StartsWith("250 2.0.0"));
  EXPECT_THAT(Deliver("nobody", 10), StartsWith("550"));
}

TEST_P(DovecotTest, FollowsEveryChangeOfALimit) {
  Start();
  EXPECT_THAT(Deliver("alice", 6000), StartsWith("250 2.0.0"));
  Do({"user", "set-quota", "--limit", "5K", "--warning", "5K", "alice"});  // below the usage
  EXPECT_THAT(Deliver("alice", 100), StartsWith("552"));
  Do({"user", "set-quota", "--limit", "20K", "--warning", "5K", "alice"});
  EXPECT_THAT(Deliver("alice", 6000), StartsWith("250 2.0.0"));
  Do({"user", "clear-quota", "alice"});
  EXPECT_THAT(Deliver("alice", 60000), StartsWith("250 2.0.0"));
  Do({"group", "set-quota", "--limit", "20K", "--warning", "5K", "users"});
  EXPECT_THAT(Deliver("alice", 100), StartsWith("552"));
  Do({"user", "set-quota", "--limit", "0", "--warning", "0", "alice"});
  EXPECT_THAT(Deliver("alice", 60000), StartsWith("250 2.0.0"));
  EXPECT_EQ(Usage("alice"), Counted("alice"));
}

TEST_P(DovecotTest, FollowsTheAccounts) {
  Start();
  EXPECT_THAT(Deliver("dora", 100), StartsWith("550"));
  world_.AddAccount("dora", 1004);
  world_.AddGroup("sales", 200, {"dora"});
  Do({"group", "set-quota", "--limit", "5K", "--warning", "5K", "sales"});
  EXPECT_THAT(Deliver("dora", 100), StartsWith("550"));
  Do({"quota", "sync"});
  EXPECT_THAT(Deliver("dora", 100), StartsWith("250 2.0.0"));
  EXPECT_THAT(Deliver("dora", 6000), StartsWith("552"));
  EXPECT_EQ(Usage("dora"), Counted("dora"));
}

TEST_P(DovecotTest, WarnsAUserOnceWhoGetsBeyondTheLevel) {
  constexpr char kLine[] = "There are more than 5K of mail in the mailbox of alice now.";
  Do({"user", "set-quota", "--limit", "10K", "--warning", "5K", "alice"});
  Start();
  EXPECT_THAT(Deliver("alice", 4000), StartsWith("250 2.0.0"));
  EXPECT_THAT(Deliver("alice", 2000), StartsWith("250 2.0.0"));
  EXPECT_TRUE(Gets("alice", kLine)) << dovecot_->Log();
  EXPECT_TRUE(Gets("alice", "New mail is refused when there are 10K."));
  EXPECT_THAT(Deliver("alice", 500), StartsWith("250 2.0.0"));
  EXPECT_TRUE(BecomesRight("alice"));
  dovecot_.reset();  // and with it all that it has begun
  const std::string log = world_.folder().Read("mail.log");
  const std::string line =
      "warning: apps/quillonctl/warning:41 the mail of alice has grown beyond the warning level of "
      "5120 bytes\n";
  EXPECT_THAT(log, HasSubstr(line));
  EXPECT_EQ(log.find(line), log.rfind(line));
  EXPECT_EQ(MessagesWith("alice", kLine), 1);
}

TEST_P(DovecotTest, WarnsEvenWhereTheWarningExceedsTheLimit) {
  const std::string user = "50%u'x'+\"y\"";
  world_.AddAccount(user, 1005);
  Do({"user", "set-quota", "--limit", "5K", "--warning", "4K", user});
  Start();
  EXPECT_THAT(dovecot_->Append(user, 4900), StartsWith("c OK"));
  EXPECT_TRUE(Gets(user, "There are more than 4K of mail in the mailbox of " + user + " now."))
      << dovecot_->Log();
  EXPECT_TRUE(BecomesRight(user));
}

TEST_P(DovecotTest, WarnsNobodyElse) {
  world_.AddAccount("al*", 1005);
  Do({"user", "set-quota", "--limit", "5K", "--warning", "4K", "al*"});
  Start();
  EXPECT_THAT(Deliver("alice", 100), StartsWith("250 2.0.0"));
  EXPECT_THAT(dovecot_->Append("al*", 4900), StartsWith("c OK"));
  EXPECT_TRUE(Becomes([&] {
    return dovecot_->Log().find("no message for al*: doveadm would take") != std::string::npos;
  })) << dovecot_->Log();
  EXPECT_THAT(world_.folder().Read("mail.log"), HasSubstr("the mail of al* has grown beyond"));
  dovecot_.reset();
  EXPECT_EQ(MessagesWith("alice", "Subject: Your mailbox is filling up"), 0);
}

TEST_P(DovecotTest, LowersTheFigureWhenMailIsRemoved) {
  Start();
  EXPECT_THAT(Deliver("alice", 6000), StartsWith("250 2.0.0"));
  EXPECT_THAT(Deliver("alice", 3000), StartsWith("250 2.0.0"));
  dovecot_->RemoveFirstMessage("alice");
  EXPECT_TRUE(BecomesRight("alice"));
  EXPECT_NE(Counted("alice"), "0");
}

TEST_P(DovecotTest, KnowsUsersByTheirNames) {
  for (const char* name : {"a.b", "a+b", "Ann", "O'Neil", "100%u", "zo\xc3\xab"}) {
    static unsigned int uid = 2000;
    world_.AddAccount(name, ++uid);
  }
  Start();
  for (const char* name : {"a.b", "a+b", "Ann", "O'Neil", "100%u"}) {
    EXPECT_THAT(Deliver(name, 3000), StartsWith("250 2.0.0")) << name;
    EXPECT_EQ(Usage(name), Counted(name)) << name;
  }
  EXPECT_THAT(Deliver("ann", 3000), StartsWith("550"));
  // Its LMTP takes no address with such a letter.
  EXPECT_THAT(dovecot_->Append("zo\xc3\xab", 3000), StartsWith("c OK"));
  EXPECT_TRUE(BecomesRight("zo\xc3\xab"));
}

TEST_P(DovecotTest, KnowsUsersByAddressesOfAnyDomain) {
  world_.AddAccount("ann@example.org", 2101);
  world_.AddAccount("ann", 2102);
  Do({"user", "set-quota", "--limit", "4K", "--warning", "1K", "alice"});
  Start();
  EXPECT_THAT(Deliver("alice@example.org", 3000), StartsWith("250 2.0.0"));
  EXPECT_THAT(Deliver("alice@mail.example.org", 3000), StartsWith("552 5.2.2"));
  EXPECT_TRUE(Gets("alice", "There are more than 1K of mail in the mailbox of alice now."))
      << dovecot_->Log();
  EXPECT_TRUE(BecomesRight("alice"));
  EXPECT_THAT(Deliver("Alice@example.org", 100), StartsWith("550"));
  EXPECT_THAT(Deliver("ann@example.org", 2000), StartsWith("250 2.0.0"));
  EXPECT_THAT(Deliver("ann@example.net", 1000), StartsWith("250 2.0.0"));
  for (const char* user : {"ann", "ann@example.org"}) {
    EXPECT_EQ(Usage(user), Counted(user)) << user;
    EXPECT_EQ(MessagesWith(user, "Subject: test"), 1) << user;
  }
}

TEST_P(DovecotTest, WarnsNobodyForANameOfTheSameWords) {
  for (const char* user : {"a b", "a  b"}) {
    static unsigned int uid = 2200;
    world_.AddAccount(user, ++uid);
  }
  Do({"user", "set-quota", "--limit", "5K", "--warning", "4K", "a b", "a  b"});
  Start();
  EXPECT_THAT(dovecot_->Append("a b", 100), StartsWith("c OK"));
  EXPECT_THAT(dovecot_->Append("a  b", 4900), StartsWith("c OK"));
  EXPECT_THAT(dovecot_->Append("a b", 4500), StartsWith("c OK"));
  EXPECT_TRUE(Gets("a b", "There are more than 4K of mail in the mailbox of a b now."))
      << dovecot_->Log();
  dovecot_.reset();
  EXPECT_EQ(MessagesWith("a b", "Subject: Your mailbox is filling up"), 1);
}

TEST_P(DovecotTest, MayGoOnWhileItsFiguresAreCountedAnew) {
  Start();
  for (const char* user : {"alice", "bob"}) {
    EXPECT_THAT(Deliver(user, 6000), StartsWith("250 2.0.0"));
  }
  world_.redis().Stop();
  EXPECT_THAT(Deliver("bob", 500), StartsWith("250 2.0.0"));  // no mail is lost
  world_.redis().Start();
  OpenToDovecot(world_.folder(), world_.redis());
  EXPECT_EQ(Usage("bob"), "0");
  {
    const std::jthread deliveries([&] {
      for (int i = 0; i < 10; ++i) {
        EXPECT_THAT(Deliver("alice", 500), StartsWith("250 2.0.0"));
      }
    });
    for (int i = 0; i < 3; ++i) {
      Do({"usage", "count"});
    }
  }
  for (const char* user : {"alice", "bob"}) {
    EXPECT_EQ(Usage(user), Counted(user)) << user;
  }
}

TEST_P(DovecotTest, TakesMailFromTwoClientsAtOnce) {
  Start();
  // It counts twice what comes while it makes its file of sizes, at the first message.
  EXPECT_THAT(Deliver("alice", 500), StartsWith("250 2.0.0"));
  {
    std::vector<std::jthread> clients;
    for (int i = 0; i < 2; ++i) {
      clients.emplace_back([this] {
        for (int message = 0; message < 20; ++message) {
          EXPECT_THAT(Deliver("alice", 500), StartsWith("250 2.0.0"));
        }
      });
    }
  }
  // Of two who write at once, the one with the older figure may be the last.
  EXPECT_THAT(Deliver("alice", 500), StartsWith("250 2.0.0"));
  EXPECT_EQ(MessagesWith("alice", "Subject: test"), 42);
  EXPECT_EQ(Usage("alice"), Counted("alice"));
}

TEST_P(DovecotTest, FollowsARenamedAccountAndForgetsADeletedOne) {
  Start();
  EXPECT_THAT(Deliver("bob", 100), StartsWith("250 2.0.0"));
  world_.folder().Write("passwd", "alice:x:1001:100:::\nrobert:x:1002:100:::\n");
  Do({"quota", "sync"});
  EXPECT_THAT(Deliver("robert", 100), StartsWith("250 2.0.0"));
  EXPECT_THAT(Deliver("bob", 100), StartsWith("550"));
  EXPECT_THAT(Deliver("carol", 100), StartsWith("550"));
  EXPECT_EQ(Usage("robert"), Counted("robert"));
}

}  // namespace
}  // namespace quillon::test
