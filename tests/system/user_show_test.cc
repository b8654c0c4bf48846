#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "system/world.h"

namespace quillon::test {
namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;

// Alice has mail, a limit of her own and an entry in the usage store. Bob has mail, his group's
// limit, and must not use the mail client. Of carol nothing is known.
class UserShowTest : public testing::Test {
 protected:
  UserShowTest() {
    world_.AddGroup("staff", 200, {"alice", "bob"});
    for (const auto& [name, uid] : {std::pair("alice", 1001U), std::pair("bob", 1002U)}) {
      world_.Deliver(name, "cur", 700);
      world_.Give(name, uid);
    }
    world_.SetUsage("alice", "1536");
    world_.Quillonctl({"user", "set-quota", "--limit", "10G", "--warning", "9G", "alice"});
    world_.Quillonctl({"group", "set-quota", "--limit", "2560", "--warning", "1K", "staff"});
    world_.Quillonctl({"privilege", "revoke", "bob"});
  }

  Outcome Show(std::vector<std::string> arguments = {}, const std::string& input = "") const {
    arguments.insert(arguments.begin(), {"user", "show"});
    return world_.Quillonctl(arguments, input);
  }

  World world_;
};

TEST_F(UserShowTest, ShowsAUserFromEverySideOnOneLine) {
  const Outcome outcome = Show();
  EXPECT_EQ(outcome.exit_code, 0);
  EXPECT_EQ(outcome.error, "");
  EXPECT_EQ(outcome.output,
            "NAME   MAIL CLIENT  LIMIT  SHARE QUOTA  USAGE  MAILDIR\n"
            "alice  yes            10G            -   1.5K  " +
                world_.Maildir("alice") +
                "\n"
                "bob    no            2.5K            -      -  " +
                world_.Maildir("bob") +
                "\n"
                "carol  yes              -            -      -  -\n"
                "3 users, 1.5K used\n");
}

TEST_F(UserShowTest, ShowsExactBytesOfTheUsersInTheOrderOfTheirNames) {
  EXPECT_EQ(Show({"--bytes", "carol", "-"}, "ALICE\ncarol\n").output,
            "NAME   MAIL CLIENT        LIMIT  SHARE QUOTA  USAGE  MAILDIR\n"
            "carol  yes                    -            -      -  -\n"
            "alice  yes          10737418240            -   1536  " +
                world_.Maildir("alice") +
                "\n"
                "2 users, 1536 used\n");
}

TEST_F(UserShowTest, PrintsTheDocument) {
  const Json::Value data = world_.QuillonctlJson({"user", "show"});
  EXPECT_THAT(Column(data, "name"), ElementsAre("alice", "bob", "carol"));
  EXPECT_THAT(Column(data, "has_app_privilege"), ElementsAre("true", "false", "true"));
  EXPECT_THAT(Column(data, "quota_limit"), ElementsAre("10737418240", "2560", "0"));
  EXPECT_THAT(Column(data, "share_quota"), ElementsAre("null", "null", "null"));
  EXPECT_THAT(Column(data, "usage"), ElementsAre("1536", "null", "null"));
  EXPECT_THAT(Column(data, "maildir"),
              ElementsAre(world_.Maildir("alice"), world_.Maildir("bob"), "null"));
}

TEST_F(UserShowTest, TakesAnUnlimitedUserForOneWithoutALimit) {
  world_.Quillonctl({"user", "set-quota", "--limit", "0", "--warning", "0", "bob"});
  EXPECT_THAT(Show({"bob"}).output, HasSubstr("\nbob   no               -            -      -  "));
}

TEST_F(UserShowTest, TellsAUsageOf0FromNone) {
  world_.SetUsage("bob", "0");
  EXPECT_THAT(Show({"bob"}).output, HasSubstr("  0B  "));
}

TEST_F(UserShowTest, FailsForOneUnknownName) {
  const Outcome outcome = Show({"alice", "eve"});
  EXPECT_EQ(outcome.exit_code, 1);
  EXPECT_EQ(outcome.output, "");
  EXPECT_EQ(outcome.error, "quillonctl: no such user: [eve] (error 2107)\n");
}

TEST_F(UserShowTest, FailsWhenTheUsageStoreIsDown) {
  world_.redis().Stop();
  const Outcome outcome = Show();
  EXPECT_EQ(outcome.exit_code, 1);
  EXPECT_EQ(outcome.output, "");
  EXPECT_THAT(outcome.error, HasSubstr("usage store " + world_.redis().socket()));
}

TEST_F(UserShowTest, KeepsControlCharactersFromTheTerminal) {
  world_.AddAccount("ev\x1b[2Jil", 1004);
  world_.Deliver("ev\x1b[2Jil", "cur", 5);
  world_.Give("ev\x1b[2Jil", 1004);
  EXPECT_THAT(Show().output, AllOf(HasSubstr("\nev\\x1b[2Jil "), HasSubstr("local/ev\\x1b[2Jil\n"),
                                   Not(HasSubstr("\x1b"))));
}

}  // namespace
}  // namespace quillon::test
