#include <string>
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
using testing::StartsWith;

constexpr char kMailClient[] = "VELA.WUI.MailClient.Application";

class PrivilegeTest : public testing::Test {
 protected:
  Outcome Privilege(std::vector<std::string> arguments, const std::string& input = "") const {
    arguments.insert(arguments.begin(), "privilege");
    return world_.Quillonctl(arguments, input);
  }

  World world_;
};

TEST_F(PrivilegeTest, EverybodyHasAllOfThemAtFirst) {
  const Outcome outcome = Privilege({"list"});
  EXPECT_EQ(outcome.exit_code, 0);
  EXPECT_EQ(outcome.error, "");
  EXPECT_EQ(outcome.output,
            "NAME  APPLICATION\n"
            "0 privileges revoked\n");
  EXPECT_EQ(world_.QuillonctlJson({"privilege", "list"})["revoked"], Json::Value(Json::arrayValue));
}

TEST_F(PrivilegeTest, RevokesAndGrants) {
  Outcome outcome = Privilege({"revoke", "CAROL", "alice"});
  EXPECT_EQ(outcome.exit_code, 0);
  EXPECT_EQ(outcome.error, "");
  EXPECT_EQ(outcome.output, "VELA.WUI.MailClient.Application revoked from 2 users\n");
  EXPECT_EQ(Privilege({"revoke", "--app", "Calendar", "bob"}).output,
            "Calendar revoked from 1 user\n");
  EXPECT_EQ(Privilege({"list"}).output,
            "NAME   APPLICATION\n"
            "bob    Calendar\n"
            "alice  VELA.WUI.MailClient.Application\n"
            "carol  VELA.WUI.MailClient.Application\n"
            "3 privileges revoked\n");

  outcome = Privilege({"grant", "-"}, "alice\nbob\n");  // bob has this one
  EXPECT_EQ(outcome.exit_code, 0);
  EXPECT_EQ(outcome.output, "VELA.WUI.MailClient.Application granted to 2 users\n");
  EXPECT_EQ(Privilege({"list"}).output,
            "NAME   APPLICATION\n"
            "bob    Calendar\n"
            "carol  VELA.WUI.MailClient.Application\n"
            "2 privileges revoked\n");
}

TEST_F(PrivilegeTest, PrintsTheDocuments) {
  const Json::Value changed = world_.QuillonctlJson({"privilege", "revoke", "BOB"});
  ASSERT_EQ(changed["users"].size(), 1U);
  EXPECT_EQ(changed["users"][0], "bob");
  EXPECT_EQ(changed["app"], kMailClient);
  const Json::Value list = world_.QuillonctlJson({"privilege", "list"});
  ASSERT_EQ(list["revoked"].size(), 1U);
  EXPECT_EQ(list["revoked"][0]["name"], "bob");
  EXPECT_EQ(list["revoked"][0]["app"], kMailClient);
}

TEST_F(PrivilegeTest, ShowsInTheDetailsOfAUser) {
  world_.Deliver("alice", "cur", 1);
  Privilege({"revoke", "bob"});
  Privilege({"revoke", "--app", "Calendar", "carol"});
  EXPECT_THAT(Column(world_.QuillonctlJson({"user", "show"}), "has_app_privilege"),
              ElementsAre("true", "false", "true"));
}

TEST_F(PrivilegeTest, RefusesEverythingForOneUnknownName) {
  const Outcome outcome = Privilege({"revoke", "alice", "eve"});
  EXPECT_EQ(outcome.exit_code, 1);
  EXPECT_EQ(outcome.output, "");
  EXPECT_EQ(outcome.error, "quillonctl: no such user: [eve] (error 2107)\n");
  EXPECT_THAT(Privilege({"list"}).output, EndsWith("\n0 privileges revoked\n"));
}

TEST_F(PrivilegeTest, RefusesWhatIsNoNameOfAnApplication) {
  for (const std::string app : {"", "a:b", "two words"}) {
    const Outcome outcome = Privilege({"revoke", "--app", app, "alice"});
    EXPECT_EQ(outcome.exit_code, 1) << app;
    EXPECT_EQ(outcome.output, "");
    EXPECT_THAT(outcome.error, StartsWith("quillonctl: ")) << app;
  }
  EXPECT_THAT(Privilege({"list"}).output, EndsWith("\n0 privileges revoked\n"));
}

// Nobody would be forbidden anything otherwise.
TEST_F(PrivilegeTest, FailsWithAFileThatCannotBeUsed) {
  const std::string file = world_.folder().Write("app-privileges", "not a note\n");
  for (const std::vector<std::string>& arguments :
       {std::vector<std::string>{"list"}, std::vector<std::string>{"revoke", "alice"}}) {
    const Outcome outcome = Privilege(arguments);
    EXPECT_EQ(outcome.exit_code, 1);
    EXPECT_EQ(outcome.output, "");
    EXPECT_THAT(outcome.error, AllOf(HasSubstr(file), HasSubstr("line 1")));
  }
  EXPECT_EQ(world_.folder().Read("app-privileges"), "not a note\n");
}

}  // namespace
}  // namespace quillon::test
