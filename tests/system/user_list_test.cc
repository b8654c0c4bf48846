#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "system/terminal.h"
#include "system/world.h"

namespace quillon::test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

constexpr char kEscape[] = "\x1b";

class UserListTest : public testing::Test {
 protected:
  UserListTest() {
    world_.SetUsage("alice", "600");
    world_.SetUsage("bob", "1536");
    world_.Quillonctl({"user", "set-quota", "--limit", "1K", "--warning", "512", "alice"});
  }

  World world_;
};

TEST_F(UserListTest, ShowsATable) {
  const Outcome outcome = world_.Quillonctl({"user", "list"});
  EXPECT_EQ(outcome.exit_code, 0);
  EXPECT_EQ(outcome.error, "");
  EXPECT_EQ(outcome.output,
            "NAME   LIMIT  WARNING  USAGE  PERCENT\n"
            "alice     1K     512B   600B    58.6%  [#####.....]\n"
            "bob        -        -   1.5K        -\n"
            "carol      -        -     0B        -\n"
            "3 users, 2.1K used\n");
}

TEST_F(UserListTest, ShowsExactBytes) {
  EXPECT_EQ(world_.Quillonctl({"user", "list", "--bytes", "alice", "bob"}).output,
            "NAME   LIMIT  WARNING  USAGE  PERCENT\n"
            "alice   1024      512    600    58.6%  [#####.....]\n"
            "bob        -        -   1536        -\n"
            "2 users, 2136 used\n");
}

TEST_F(UserListTest, PrintsTheDocument) {
  const Json::Value data = world_.QuillonctlJson({"user", "list"});
  EXPECT_EQ(data["total"].asUInt(), 3U);
  EXPECT_THAT(Column(data, "name"), ElementsAre("alice", "bob", "carol"));
  EXPECT_THAT(Column(data, "quota"), ElementsAre("1024", "0", "0"));
  EXPECT_THAT(Column(data, "limit"), ElementsAre("1024", "null", "null"));
  EXPECT_THAT(Column(data, "remaining_usage_notification"), ElementsAre("512", "0", "0"));
  EXPECT_THAT(Column(data, "warning"), ElementsAre("512", "null", "null"));
  EXPECT_THAT(Column(data, "usage"), ElementsAre("600", "1536", "0"));
  EXPECT_THAT(Column(data, "percent"), ElementsAre("58.59375", "null", "null"));
}

TEST_F(UserListTest, ShowsAWarningThatEqualsTheLimit) {
  world_.Quillonctl({"user", "set-quota", "--limit", "1K", "--warning", "1K", "bob"});
  EXPECT_THAT(world_.Quillonctl({"user", "list", "bob"}).output,
              HasSubstr("bob      1K       1K   1.5K   150.0%  [##########]\n"));
}

TEST_F(UserListTest, TakesALimitOf0AsUnlimited) {
  world_.Quillonctl({"user", "set-quota", "--limit", "0", "--warning", "0", "bob"});
  const Json::Value data = world_.QuillonctlJson({"user", "list", "bob", "carol"});
  EXPECT_THAT(Column(data, "quota"), ElementsAre("0", "0"));
  EXPECT_THAT(Column(data, "limit"), ElementsAre("0", "null"));
  EXPECT_THAT(Column(data, "percent"), ElementsAre("null", "null"));
  EXPECT_THAT(Column(data, "warning"), ElementsAre("0", "null"));
  EXPECT_EQ(world_.Quillonctl({"user", "list", "bob", "carol"}).output,
            "NAME       LIMIT  WARNING  USAGE  PERCENT\n"
            "bob    unlimited       0B   1.5K        -\n"
            "carol          -        -     0B        -\n"
            "2 users, 1.5K used\n");
}

TEST_F(UserListTest, AddsUpToTheLargestNumber) {
  world_.SetUsage("alice", "18446744073709551614");
  EXPECT_THAT(world_.Quillonctl({"user", "list", "--bytes"}).output,
              HasSubstr("\n3 users, 18446744073709551615 used\n"));
}

TEST_F(UserListTest, ReadsNumbersAsDecimals) {
  for (unsigned int i = 0; i < 9; ++i) {
    world_.AddAccount("user" + std::to_string(i), 2000 + i);
  }
  EXPECT_THAT(Column(world_.QuillonctlJson({"user", "list", "--limit", "010"}), "name").size(), 10);
  EXPECT_THAT(Column(world_.QuillonctlJson({"user", "list", "--offset", "010"}), "name"),
              ElementsAre("user7", "user8"));
  EXPECT_THAT(Column(world_.QuillonctlJson({"user", "list", "--above", "1e1"}), "name"),
              ElementsAre("alice"));
}

TEST_F(UserListTest, FindsNamesInAnyLetterCase) {
  EXPECT_THAT(
      world_.Quillonctl({"user", "list", "ALICE", "alice", "Alice"}).output,
      HasSubstr("alice     1K     512B   600B    58.6%  [#####.....]\n1 user, 600B used\n"));
}

TEST_F(UserListTest, Sorts) {
  EXPECT_THAT(Column(world_.QuillonctlJson({"user", "list", "--sort", "usage"}), "name"),
              ElementsAre("carol", "alice", "bob"));
  EXPECT_THAT(
      Column(world_.QuillonctlJson({"user", "list", "--sort", "usage", "--reverse"}), "name"),
      ElementsAre("bob", "alice", "carol"));
  EXPECT_THAT(Column(world_.QuillonctlJson({"user", "list", "--reverse"}), "name"),
              ElementsAre("carol", "bob", "alice"));
}

TEST_F(UserListTest, ShowsOnlyWhoIsAboveAPercentage) {
  world_.Quillonctl({"user", "set-quota", "--limit", "1K", "--warning", "1K", "bob", "carol"});
  EXPECT_THAT(Column(world_.QuillonctlJson({"user", "list", "--above", "58.5"}), "name"),
              ElementsAre("alice", "bob"));
  EXPECT_THAT(Column(world_.QuillonctlJson({"user", "list", "--above", "100"}), "name"),
              ElementsAre("bob"));
}

TEST_F(UserListTest, ShowsAPage) {
  EXPECT_THAT(world_.Quillonctl({"user", "list", "--offset", "1", "--limit", "1"}).output,
              testing::AllOf(HasSubstr("bob "), Not(HasSubstr("alice")), Not(HasSubstr("carol")),
                             HasSubstr("\n1 of 3 users, 1.5K used\n")));
}

TEST_F(UserListTest, ReadsNamesFromStandardInput) {
  EXPECT_EQ(world_.Quillonctl({"user", "list", "-"}, "bob\n\ncarol").output,
            "NAME   LIMIT  WARNING  USAGE  PERCENT\n"
            "bob        -        -   1.5K        -\n"
            "carol      -        -     0B        -\n"
            "2 users, 1.5K used\n");
}

TEST_F(UserListTest, LinesUpNamesOfAnyLetters) {
  world_.AddAccount("\u00e9mile", 1004);
  world_.AddAccount("\u6f22\u5b57", 1005);  // two columns each
  world_.AddAccount("50%", 1006);
  world_.AddAccount("\xff\xfe", 1007);  // no UTF-8
  const Outcome outcome = world_.Quillonctl(
      {"user", "list", "\u00e9mile", "\u6f22\u5b57", "50%", "\xff\xfe"}, "", {"LC_ALL=C"});
  EXPECT_EQ(outcome.output,
            "NAME   LIMIT  WARNING  USAGE  PERCENT\n"
            "50%        -        -     0B        -\n"
            "\u00e9mile      -        -     0B        -\n"
            "\u6f22\u5b57       -        -     0B        -\n"
            "\xff\xfe         -        -     0B        -\n"
            "4 users, 0B used\n");
}

TEST_F(UserListTest, KeepsControlCharactersFromTheTerminal) {
  world_.AddAccount("ev\x1b[2Jil", 1004);
  EXPECT_THAT(world_.Quillonctl({"user", "list"}).output,
              testing::AllOf(HasSubstr("\nev\\x1b[2Jil "), Not(HasSubstr(kEscape))));
}

TEST_F(UserListTest, TakesNamesThatAreCommandsForNames) {
  for (const char* name : {"user", "usage", "list", "set-quota"}) {
    world_.AddAccount(name, 2001);
    EXPECT_THAT(Column(world_.QuillonctlJson({"user", "list", name}), "name"), ElementsAre(name));
  }
}

TEST_F(UserListTest, NamesAllUnknownUsers) {
  const Outcome outcome = world_.Quillonctl({"user", "list", "alice", "no'body", "e\"v e", "%s%n"});
  EXPECT_EQ(outcome.exit_code, 1);
  EXPECT_EQ(outcome.output, "");
  EXPECT_EQ(outcome.error, "quillonctl: no such user: [no'body], [e\"v e], [%s%n] (error 2107)\n");
}

TEST_F(UserListTest, ReportsNamesOnOneLine) {
  EXPECT_EQ(world_.Quillonctl({"user", "list", "a\nb\x1b"}).error,
            "quillonctl: no such user: [a\\nb\\x1b] (error 2107)\n");
}

TEST_F(UserListTest, TakesAnEmptyNameForUnknown) {
  EXPECT_EQ(world_.Quillonctl({"user", "list", ""}).error,
            "quillonctl: no such user: [] (error 2107)\n");
}

TEST_F(UserListTest, NamesTheUserWhoseWarningIsAboveTheLimit) {
  world_.SetWarning("bob", 5);
  const Outcome outcome = world_.Quillonctl({"user", "list"});
  EXPECT_EQ(outcome.exit_code, 1);
  EXPECT_EQ(
      outcome.error,
      "quillonctl: user [bob]: warning byte [5] can't be larger than limit byte [0]; set both "
      "again or clear them (error 1001)\n");
  EXPECT_EQ(world_.Quillonctl({"user", "list", "alice"}).exit_code, 0);
}

TEST_F(UserListTest, UsesNoColourInAFile) {
  EXPECT_THAT(world_.Quillonctl({"user", "list"}).output, Not(HasSubstr(kEscape)));
}

TEST_F(UserListTest, ColoursByLevelOnATerminal) {
  const auto show = [this](const std::string& usage) {
    world_.SetUsage("alice", usage);
    return RunOnTerminal(world_.CommandLine({"user", "list", "alice"}), {"NO_COLOR="}).output;
  };
  EXPECT_THAT(show("511"), HasSubstr("\x1b[32m49.9%"));
  EXPECT_THAT(show("512"), HasSubstr("\x1b[33m50.0%"));
  EXPECT_THAT(show("1024"), HasSubstr("\x1b[31m100.0%"));
}

TEST_F(UserListTest, HonoursNoColourOnATerminal) {
  EXPECT_THAT(RunOnTerminal(world_.CommandLine({"user", "list", "alice"}), {"NO_COLOR=1"}).output,
              testing::AllOf(HasSubstr("58.6%"), Not(HasSubstr(kEscape))));
}

TEST_F(UserListTest, ShowsNobody) {
  EXPECT_EQ(world_.Quillonctl({"user", "list", "--above", "99"}).output,
            "NAME  LIMIT  WARNING  USAGE  PERCENT\n"
            "0 users, 0B used\n");
  EXPECT_THAT(Column(world_.QuillonctlJson({"user", "list", "--above", "99"}), "name"), IsEmpty());
}

}  // namespace
}  // namespace quillon::test
