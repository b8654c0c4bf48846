#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "system/world.h"

namespace quillon::test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

class UserQuotaTest : public testing::Test {
 protected:
  Outcome Set(const std::string& limit, const std::string& warning,
              const std::vector<std::string>& names, const std::string& input = "") {
    std::vector<std::string> arguments = {"user", "set-quota", "--limit",
                                          limit,  "--warning", warning};
    arguments.insert(arguments.end(), names.begin(), names.end());
    return world_.Quillonctl(arguments, input);
  }
  std::vector<std::string> Limits() {
    return Column(world_.QuillonctlJson({"user", "list"}), "quota");
  }
  std::vector<std::string> Warnings() {
    return Column(world_.QuillonctlJson({"user", "list"}), "warning");
  }

  World world_;
};

TEST_F(UserQuotaTest, SetsAndClears) {
  Outcome outcome = Set("10G", "9G", {"alice", "carol"});
  EXPECT_EQ(outcome.exit_code, 0);
  EXPECT_EQ(outcome.output, "quota of 2 users set: limit 10G, warning 9G\n");
  EXPECT_EQ(outcome.error, "");
  EXPECT_THAT(Limits(), ElementsAre("10737418240", "0", "10737418240"));
  EXPECT_THAT(Warnings(), ElementsAre("9663676416", "null", "9663676416"));

  outcome = world_.Quillonctl({"user", "clear-quota", "ALICE"});
  EXPECT_EQ(outcome.exit_code, 0);
  EXPECT_EQ(outcome.output, "quota of 1 user cleared\n");
  EXPECT_THAT(Limits(), ElementsAre("0", "0", "10737418240"));
  EXPECT_THAT(Warnings(), ElementsAre("null", "null", "9663676416"));
}

TEST_F(UserQuotaTest, KeepsAll64Bits) {
  EXPECT_EQ(Set("18446744073709551615", "18446744073709551615B", {"bob"}).exit_code, 0);
  EXPECT_THAT(Limits(), ElementsAre("0", "18446744073709551615", "0"));
  EXPECT_THAT(Warnings(), ElementsAre("null", "18446744073709551615", "null"));
}

TEST_F(UserQuotaTest, KnowsTheUnits) {
  Set("7B", "07", {"alice"});
  Set("7K", "7K", {"bob"});
  Set("7M", "7M", {"carol"});
  EXPECT_THAT(Limits(), ElementsAre("7", "7168", "7340032"));
}

TEST_F(UserQuotaTest, AnswersWithRealNames) {
  const Json::Value data = world_.QuillonctlJson(
      {"user", "set-quota", "--limit", "2", "--warning", "1", "BOB", "alice", "bob"});
  ASSERT_EQ(data["users"].size(), 2U);
  EXPECT_EQ(data["users"][0].asString(), "bob");
  EXPECT_EQ(data["users"][1].asString(), "alice");
}

TEST_F(UserQuotaTest, ReadsNamesFromStandardInput) {
  EXPECT_EQ(Set("1K", "1K", {"-"}, "alice\n\nbob\n").output,
            "quota of 2 users set: limit 1K, warning 1K\n");
  EXPECT_THAT(Limits(), ElementsAre("1024", "1024", "0"));
  EXPECT_EQ(world_.Quillonctl({"user", "clear-quota", "-", "carol"}, "bob").output,
            "quota of 2 users cleared\n");
  EXPECT_THAT(Limits(), ElementsAre("1024", "0", "0"));
}

TEST_F(UserQuotaTest, RefusesEverythingForOneUnknownName) {
  Set("2K", "1K", {"alice"});
  const Outcome outcome = Set("5K", "4K", {"alice", "eve", "bob", "mallory"});
  EXPECT_EQ(outcome.exit_code, 1);
  EXPECT_EQ(outcome.output, "");
  EXPECT_EQ(outcome.error, "quillonctl: no such user: [eve], [mallory] (error 2107)\n");
  EXPECT_THAT(Limits(), ElementsAre("2048", "0", "0"));

  EXPECT_EQ(world_.Quillonctl({"user", "clear-quota", "alice", "eve"}).error,
            "quillonctl: no such user: [eve] (error 2107)\n");
  EXPECT_THAT(Limits(), ElementsAre("2048", "0", "0"));
  EXPECT_THAT(Warnings(), ElementsAre("1024", "null", "null"));
}

// A name is not cut at its NUL.
TEST_F(UserQuotaTest, RefusesNamesThatOnlyBeginLikeAUser) {
  EXPECT_EQ(Set("1K", "1K", {"-"}, std::string("alice\0x\n", 8)).error,
            "quillonctl: parameter [names] must be without NUL characters (error 400)\n");
}

TEST_F(UserQuotaTest, RefusesAWarningAboveTheLimit) {
  Set("4K", "3K", {"alice"});
  const Outcome outcome = Set("1K", "2K", {"alice"});
  EXPECT_EQ(outcome.exit_code, 1);
  EXPECT_EQ(outcome.output, "");
  EXPECT_EQ(
      outcome.error,
      "quillonctl: warning byte [2048] can't be larger than limit byte [1024] (error 1001)\n");
  EXPECT_THAT(Limits(), ElementsAre("4096", "0", "0"));
  EXPECT_THAT(Warnings(), ElementsAre("3072", "null", "null"));
}

TEST_F(UserQuotaTest, DoesNotCallUsersUnknownWhileTheAccountsCannotBeRead) {
  std::filesystem::remove(world_.folder() / "passwd");
  const Outcome outcome = Set("1K", "1K", {"alice"});
  EXPECT_EQ(outcome.exit_code, 1);
  EXPECT_THAT(outcome.error, testing::AllOf(HasSubstr("/passwd"), HasSubstr("(error 2102)"),
                                            testing::Not(HasSubstr("no such user"))));
}

class BadSizeTest : public testing::TestWithParam<std::string> {};

TEST_P(BadSizeTest, IsWrongUsage) {
  const World world;
  const Outcome outcome =
      world.Quillonctl({"user", "set-quota", "--limit=" + GetParam(), "--warning", "1", "alice"});
  EXPECT_EQ(outcome.exit_code, 2);
  EXPECT_EQ(outcome.output, "");
  EXPECT_THAT(outcome.error, testing::AllOf(HasSubstr("quillonctl: --limit: "),
                                            HasSubstr("[" + GetParam() + "]")));
}

INSTANTIATE_TEST_SUITE_P(Sizes, BadSizeTest,
                         testing::Values<std::string>("K", "-1", "+1", "1.5G", "1k", "1KB", "1T",
                                                      "1 K", " 1", "0x10", "1e3", "G1",
                                                      "18446744073709551616", "17179869184G",
                                                      "99999999999999999999K"));

}  // namespace
}  // namespace quillon::test
