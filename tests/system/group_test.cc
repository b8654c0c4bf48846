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
using testing::Not;

// The groups users, sales and staff; of the last two, alice and carol are members.
class GroupTest : public testing::Test {
 protected:
  GroupTest() {
    world_.AddGroup("staff", 200, {"alice", "carol"});
    world_.AddGroup("sales", 300, {"carol"});
    world_.AddGroup("wheel", 10);  // below the range of groups
  }

  Outcome Set(const std::string& limit, const std::string& warning,
              const std::vector<std::string>& names, const std::string& input = "") const {
    std::vector<std::string> arguments = {"group", "set-quota", "--limit",
                                          limit,   "--warning", warning};
    arguments.insert(arguments.end(), names.begin(), names.end());
    return world_.Quillonctl(arguments, input);
  }
  Json::Value List(std::vector<std::string> options = {}) const {
    options.insert(options.begin(), {"group", "list"});
    return world_.QuillonctlJson(options);
  }

  World world_;
};

TEST_F(GroupTest, ListsTheGroupsOfMailUsers) {
  Set("10G", "9G", {"staff"});
  const Outcome outcome = world_.Quillonctl({"group", "list"});
  EXPECT_EQ(outcome.exit_code, 0);
  EXPECT_EQ(outcome.error, "");
  EXPECT_EQ(outcome.output,
            "NAME   LIMIT  WARNING\n"
            "sales      -        -\n"
            "staff    10G       9G\n"
            "users      -        -\n"
            "3 groups\n");
}

TEST_F(GroupTest, ShowsExactBytesAndWhatIsUnlimited) {
  Set("1536", "1K", {"staff"});
  Set("0", "0", {"sales"});
  EXPECT_EQ(world_.Quillonctl({"group", "list", "--bytes", "STAFF", "sales"}).output,
            "NAME       LIMIT  WARNING\n"
            "sales  unlimited        0\n"
            "staff       1536     1024\n"
            "2 groups\n");
}

TEST_F(GroupTest, SaysThatALimitOf0IsUnlimited) {
  EXPECT_EQ(Set("0", "0", {"staff"}).output, "quota of 1 group set: limit unlimited, warning 0B\n");
}

TEST_F(GroupTest, PrintsTheDocument) {
  Set("1K", "512", {"staff"});
  const Json::Value data = List();
  EXPECT_EQ(data["total"].asUInt(), 3U);
  EXPECT_THAT(Column(data, "name"), ElementsAre("sales", "staff", "users"));
  EXPECT_THAT(Column(data, "quota"), ElementsAre("0", "1024", "0"));
  EXPECT_THAT(Column(data, "remaining_usage_notification"), ElementsAre("0", "512", "0"));
  EXPECT_THAT(Column(data, "limit"), ElementsAre("null", "1024", "null"));
  EXPECT_THAT(Column(data, "warning"), ElementsAre("null", "512", "null"));
}

TEST_F(GroupTest, SortsAndShowsAPage) {
  Set("4K", "1K", {"staff"});
  Set("2K", "2K", {"users"});
  EXPECT_THAT(Column(List({"--reverse"}), "name"), ElementsAre("users", "staff", "sales"));
  EXPECT_THAT(Column(List({"--sort", "limit"}), "name"), ElementsAre("sales", "users", "staff"));
  EXPECT_THAT(Column(List({"--sort", "warning", "--reverse"}), "name"),
              ElementsAre("users", "staff", "sales"));
  EXPECT_EQ(world_.Quillonctl({"group", "list", "--offset", "1", "--limit", "1"}).output,
            "NAME   LIMIT  WARNING\n"
            "staff     4K       1K\n"
            "1 of 3 groups\n");
}

TEST_F(GroupTest, SetsAndClears) {
  Outcome outcome = Set("10G", "9G", {"STAFF", "sales", "staff"});
  EXPECT_EQ(outcome.exit_code, 0);
  EXPECT_EQ(outcome.output, "quota of 2 groups set: limit 10G, warning 9G\n");
  EXPECT_EQ(outcome.error, "");
  EXPECT_THAT(Column(List(), "limit"), ElementsAre("10737418240", "10737418240", "null"));
  EXPECT_THAT(Column(List(), "warning"), ElementsAre("9663676416", "9663676416", "null"));

  outcome = world_.Quillonctl({"group", "clear-quota", "-"}, "Sales\n");
  EXPECT_EQ(outcome.exit_code, 0);
  EXPECT_EQ(outcome.output, "quota of 1 group cleared\n");
  EXPECT_THAT(Column(List(), "limit"), ElementsAre("null", "10737418240", "null"));
  EXPECT_THAT(Column(List(), "warning"), ElementsAre("null", "9663676416", "null"));

  const Json::Value data = world_.QuillonctlJson({"group", "clear-quota", "STAFF"});
  ASSERT_EQ(data["groups"].size(), 1U);
  EXPECT_EQ(data["groups"][0], "staff");
}

TEST_F(GroupTest, DoesNotTakeAUserOfTheSameNumberForAGroup) {
  world_.AddGroup("a-thousand-one", 1001);  // alice's uid
  Set("1K", "1K", {"a-thousand-one"});
  EXPECT_THAT(Column(world_.QuillonctlJson({"user", "list", "alice"}), "limit"),
              ElementsAre("null"));
  EXPECT_EQ(world_.Quillonctl({"user", "set-quota", "--limit", "7", "--warning", "7", "bob"}).error,
            "");
  EXPECT_THAT(Column(List({"a-thousand-one"}), "limit"), ElementsAre("1024"));
}

TEST_F(GroupTest, RefusesEverythingForOneUnknownName) {
  Set("2K", "1K", {"staff"});
  const Outcome outcome = Set("5K", "4K", {"staff", "alice", "sales", "nobodies"});
  EXPECT_EQ(outcome.exit_code, 1);
  EXPECT_EQ(outcome.output, "");
  EXPECT_EQ(outcome.error, "quillonctl: no such group: [alice], [nobodies] (error 2204)\n");
  EXPECT_THAT(Column(List(), "limit"), ElementsAre("null", "2048", "null"));
  EXPECT_EQ(world_.Quillonctl({"group", "clear-quota", "staff", "nobodies"}).exit_code, 1);
  EXPECT_THAT(Column(List(), "limit"), ElementsAre("null", "2048", "null"));
  EXPECT_THAT(world_.Quillonctl({"group", "list", "staff", "e\x1bve"}).error,
              AllOf(HasSubstr("[e\\x1bve]"), Not(HasSubstr("\x1b"))));
}

TEST_F(GroupTest, RefusesAWarningAboveTheLimit) {
  Set("4K", "3K", {"staff"});
  const Outcome outcome = Set("1K", "2K", {"staff"});
  EXPECT_EQ(outcome.exit_code, 1);
  EXPECT_EQ(
      outcome.error,
      "quillonctl: warning byte [2048] can't be larger than limit byte [1024] (error 1001)\n");
  EXPECT_THAT(Column(List({"staff"}), "limit"), ElementsAre("4096"));
  EXPECT_THAT(Column(List({"staff"}), "warning"), ElementsAre("3072"));
}

TEST_F(GroupTest, LimitsItsMembersUnlessTheyHaveALimitOfTheirOwn) {
  world_.Deliver("alice", "cur", 1);
  world_.Quillonctl({"user", "set-quota", "--limit", "3K", "--warning", "1K", "alice"});
  Set("2K", "1K", {"staff"});
  Set("5K", "1K", {"sales"});
  const auto limits = [this] {
    return Column(world_.QuillonctlJson({"user", "show"}), "quota_limit");
  };
  EXPECT_THAT(limits(), ElementsAre("3072", "0", "5120"));  // of its own, from nobody, the largest
  world_.Quillonctl({"user", "clear-quota", "alice"});
  EXPECT_THAT(limits(), ElementsAre("2048", "0", "5120"));
  Set("9K", "1K", {"users"});  // everybody's primary group
  EXPECT_THAT(limits(), ElementsAre("9216", "9216", "9216"));
  Set("0", "0", {"sales"});  // unlimited is the largest
  EXPECT_THAT(limits(), ElementsAre("9216", "9216", "0"));
}

TEST_F(GroupTest, SaysWhereTheReasonIsWhenTheShareQuotaCannotBeRead) {
  const Outcome outcome = world_.Quillonctl({"group", "share-quota", "staff"});  // no maildir root
  EXPECT_EQ(outcome.exit_code, 1);
  EXPECT_EQ(outcome.output, "");
  EXPECT_EQ(outcome.error,
            "quillonctl: api: [VELA.Core.Quota], method: [get] (error 3008); the mail log has the "
            "reason\n");
  EXPECT_THAT(world_.folder().Read("mail.log"), HasSubstr("spool (maildir.root): No such file"));
}

// The folder of this test lies on a file system without quotas for these groups.
TEST_F(GroupTest, ShowsTheShareQuotaOfAGroup) {
  world_.Deliver("alice", "cur", 1);
  const Outcome outcome = world_.Quillonctl({"group", "share-quota", "STAFF"});
  EXPECT_EQ(outcome.exit_code, 0) << outcome.error;
  EXPECT_EQ(outcome.output, "share quota of staff: -\n");
  EXPECT_EQ(world_.Quillonctl({"group", "share-quota", "--bytes", "staff"}).output,
            "share quota of staff: -\n");
  const Json::Value data = world_.QuillonctlJson({"group", "share-quota", "staff"});
  EXPECT_EQ(data["name"], "staff");
  ASSERT_TRUE(data.isMember("share_quota"));
  EXPECT_TRUE(data["share_quota"].isNull());

  const Outcome unknown = world_.Quillonctl({"group", "share-quota", "alice"});
  EXPECT_EQ(unknown.exit_code, 1);
  EXPECT_EQ(unknown.output, "");
  EXPECT_THAT(unknown.error, AllOf(HasSubstr("[alice]"), EndsWith("(error 2204)\n")));
}

}  // namespace
}  // namespace quillon::test
