#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <quillon/platform/printable.h>
#include <quillon/platform/usage_count.h>
#include <velamailserver/velasdk/file_lock_guard.h>

#include "support/redis_relay.h"
#include "system/terminal.h"
#include "system/world.h"

namespace quillon::test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

class UsageCountTest : public testing::Test {
 protected:
  UsageCountTest() {
    world_.Deliver("alice", "cur", 1000);
    world_.Deliver("alice", "new", 200);
    world_.Deliver("alice", ".Sent/cur", 30);
    world_.Deliver("bob", "new", 4);
  }

  std::vector<std::string> Usage() {
    return Column(world_.QuillonctlJson({"user", "list"}), "usage");
  }

  World world_;
};

TEST_F(UsageCountTest, CountsTheMessagesOfAllUsers) {
  const Outcome outcome = world_.Quillonctl({"usage", "count"});
  EXPECT_EQ(outcome.exit_code, 0);
  EXPECT_EQ(outcome.output, "usage of 3 users counted: 1.2K (1234 bytes)\n");
  EXPECT_EQ(outcome.error, "");
  EXPECT_THAT(Usage(), ElementsAre("1230", "4", "0"));
}

TEST_F(UsageCountTest, CountsTheNamedOnly) {
  EXPECT_EQ(world_.Quillonctl({"usage", "count", "BOB"}).output,
            "usage of 1 user counted: 4B (4 bytes)\n");
  EXPECT_THAT(Usage(), ElementsAre("0", "4", "0"));
  EXPECT_EQ(world_.Quillonctl({"usage", "count", "-"}, "alice\n").output,
            "usage of 1 user counted: 1.2K (1230 bytes)\n");
  EXPECT_THAT(Usage(), ElementsAre("1230", "4", "0"));
}

TEST_F(UsageCountTest, PrintsTheDocument) {
  const Json::Value data = world_.QuillonctlJson({"usage", "count", "bob", "alice"});
  ASSERT_EQ(data["counted"].size(), 2U);
  EXPECT_EQ(data["counted"][0]["name"].asString(), "bob");
  EXPECT_EQ(data["counted"][0]["usage"].asUInt(), 4U);
  EXPECT_EQ(data["counted"][1]["name"].asString(), "alice");
  EXPECT_EQ(data["counted"][1]["usage"].asUInt(), 1230U);
  EXPECT_EQ(data["kept"], Json::Value(Json::arrayValue));
  EXPECT_FALSE(data["skipped"].asBool());
}

TEST_F(UsageCountTest, CountsMoreUsersThanFitIntoOneCall) {
  for (unsigned int i = 0; i < 117; ++i) {
    world_.AddAccount(fmt::format("user{}", i), 2000 + i);
    world_.Deliver(fmt::format("user{}", i), "cur", i);
  }
  EXPECT_EQ(world_.Quillonctl({"usage", "count"}).output,
            "usage of 120 users counted: 7.8K (8020 bytes)\n");
}

TEST_F(UsageCountTest, CountsAUserWhoIsNamedOftenOnce) {
  std::vector<std::string> arguments = {"usage", "count", "bob"};
  for (unsigned int i = 0; i < 60; ++i) {
    world_.AddAccount(fmt::format("user{}", i), 2000 + i);
    arguments.push_back(fmt::format("user{}", i));
  }
  arguments.insert(arguments.end(), {"BOB", "bob"});
  EXPECT_EQ(world_.Quillonctl(arguments).output, "usage of 61 users counted: 4B (4 bytes)\n");
}

TEST_F(UsageCountTest, AddsUpToTheLargestNumber) {
  for (const char* name : {"alice", "bob"}) {
    world_.folder().Write(
        fmt::format("spool/local/{}/new/1.M1P1.host,S=18446744073709551615", name), "");
  }
  EXPECT_EQ(world_.Quillonctl({"usage", "count"}).output,
            "usage of 3 users counted: 17179869184G (18446744073709551615 bytes)\n");
}

TEST_F(UsageCountTest, ShowsItsProgressOnATerminalAndErasesIt) {
  const Outcome outcome = RunOnTerminal(world_.CommandLine({"usage", "count"}));
  EXPECT_EQ(outcome.output,
            "\rcounting: 0 of 3 users\x1b[K"
            "\r\x1b[K"
            "usage of 3 users counted: 1.2K (1234 bytes)\r\n");
}

TEST_F(UsageCountTest, SkipsWhileAnotherCountIsRunning) {
  const velamailserver::velasdk::FileLockGuard lock(platform::kUsageCountLockFile);
  const Outcome outcome = world_.Quillonctl({"usage", "count"});
  EXPECT_EQ(outcome.exit_code, 1);
  EXPECT_EQ(outcome.output, "");
  EXPECT_THAT(outcome.error, HasSubstr("quillonctl: usage of 0 of 3 users counted, then another "
                                       "usage count is running: /var/lock/quillon_server/"));
  EXPECT_THAT(Usage(), ElementsAre("0", "0", "0"));

  const Outcome json = world_.Quillonctl({"usage", "count", "--json"});
  EXPECT_EQ(json.exit_code, 1);
  EXPECT_THAT(json.output, HasSubstr("\"skipped\" : true"));
}

TEST_F(UsageCountTest, RefusesUnknownNames) {
  const Outcome outcome = world_.Quillonctl({"usage", "count", "alice", "eve"});
  EXPECT_EQ(outcome.exit_code, 1);
  EXPECT_EQ(outcome.error, "quillonctl: no such user: [eve] (error 2107)\n");
  EXPECT_THAT(Usage(), ElementsAre("0", "0", "0"));
}

TEST_F(UsageCountTest, RefusesUnknownNamesBeforeItCountsAnything) {
  std::vector<std::string> arguments(100, "alice");
  arguments.insert(arguments.begin(), {"usage", "count"});
  for (unsigned int i = 0; i < 60; ++i) {
    world_.AddAccount(fmt::format("user{}", i), 2000 + i);
    arguments.push_back(fmt::format("user{}", i));
  }
  arguments.emplace_back("eve");
  EXPECT_EQ(world_.Quillonctl(arguments).error, "quillonctl: no such user: [eve] (error 2107)\n");
  EXPECT_THAT(Column(world_.QuillonctlJson({"user", "list", "alice"}), "usage"), ElementsAre("0"));
}

TEST_F(UsageCountTest, FailsWithoutTheUsageStore) {
  world_.redis().Stop();
  const Outcome outcome = world_.Quillonctl({"usage", "count"});
  EXPECT_EQ(outcome.exit_code, 1);
  EXPECT_EQ(outcome.output, "");
  EXPECT_THAT(outcome.error, HasSubstr(world_.redis().socket()));
}

// The mail server delivers to bob, and says so, whenever a count is about to store his usage.
class UsageCountBesideTheMailServerTest : public UsageCountTest {
 protected:
  UsageCountBesideTheMailServerTest() {
    std::string configuration = world_.folder().Read("mailserver.toml");
    const std::string socket = world_.redis().socket();
    configuration.replace(configuration.find(socket), socket.size(), relay_.socket());
    world_.folder().Write("mailserver.toml", configuration);
  }

  unsigned int mails_ = 1;
  RedisRelay relay_{world_.redis().socket(), [this](const std::string& piece) {
                      if (HasCommand(piece, "EVAL")) {
                        world_.Deliver("bob", "new", 4);
                        world_.SetUsage("bob", std::to_string(4 * ++mails_));
                      }
                    }};
};

TEST_F(UsageCountBesideTheMailServerTest, KeepsWhatTheMailServerWrites) {
  const Outcome outcome = world_.Quillonctl({"usage", "count"});
  EXPECT_EQ(outcome.exit_code, 0);
  EXPECT_EQ(outcome.output,
            "usage of 2 users counted: 1.2K (1230 bytes)\n"
            "usage of 1 user kept as the mail server has it, it changed all the time: bob\n");
  EXPECT_EQ(outcome.error, "");
  EXPECT_THAT(Usage(), ElementsAre("1230", "24", "0"));
  EXPECT_THAT(world_.folder().Read("mail.log"), HasSubstr("usage of [bob] kept"));
}

TEST_F(UsageCountBesideTheMailServerTest, PrintsWhoWasKept) {
  for (unsigned int i = 0; i < 60; ++i) {
    world_.AddAccount(fmt::format("user{}", i), 2000 + i);
  }
  const Json::Value data = world_.QuillonctlJson({"usage", "count"});
  ASSERT_EQ(data["counted"].size(), 62U);
  EXPECT_EQ(data["counted"][1]["name"].asString(), "carol");
  ASSERT_EQ(data["kept"].size(), 1U);
  EXPECT_EQ(data["kept"][0].asString(), "bob");
  EXPECT_FALSE(data["skipped"].asBool());
}

class UnusualNameTest : public testing::TestWithParam<std::string> {};

TEST_P(UnusualNameTest, IsAnAccountLikeAnyOther) {
  const std::string& name = GetParam();
  World world;
  world.AddAccount(name, 1004);
  world.Deliver(name, "new", 700);
  world.Deliver(name, ".Sent/cur", 68);
  EXPECT_EQ(
      world.Quillonctl({"user", "set-quota", "--limit", "1K", "--warning", "1K", name}).output,
      "quota of 1 user set: limit 1K, warning 1K\n");
  EXPECT_EQ(world.Quillonctl({"usage", "count", "-"}, name + "\n").output,
            "usage of 1 user counted: 768B (768 bytes)\n");

  const Json::Value data = world.QuillonctlJson({"user", "list", name});
  EXPECT_THAT(Column(data, "name"), ElementsAre(name));
  EXPECT_THAT(Column(data, "quota"), ElementsAre("1024"));
  EXPECT_THAT(Column(data, "warning"), ElementsAre("1024"));
  EXPECT_THAT(Column(data, "usage"), ElementsAre("768"));
  EXPECT_THAT(
      world.Quillonctl({"user", "list"}).output,
      HasSubstr(platform::Printable(name) + "     1K       1K   768B    75.0%  [#######...]\n"));
}

INSTANTIATE_TEST_SUITE_P(Names, UnusualNameTest,
                         testing::Values<std::string>("o'hara", "\"quoted\"", "two words",
                                                      "100%s%n", "DOMAIN\\user", "s\u00f8ren",
                                                      "$(id)", "semi;colon", "{name}", "a*b?c",
                                                      "[a]bc"));

}  // namespace
}  // namespace quillon::test
