#include "accounts/account_table.h"

#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace quillon::platform {
namespace {

const velamailserver::velasdk::AccountEntry* Find(const AccountTable& table, const char* name) {
  return table.Find(std::string_view(name));
}

TEST(AccountTable, FindsUsersByNameInAnyLetterCaseAndByUid) {
  const AccountTable table("alice:x:1001:100::/home/alice:/bin/sh\nBob:x:1002:100::/:/bin/false\n",
                           AccountTable::kPasswd);

  ASSERT_NE(Find(table, "ALICE"), nullptr);
  EXPECT_EQ(Find(table, "ALICE")->name, "alice");
  EXPECT_EQ(Find(table, "bob")->name, "Bob");
  EXPECT_EQ(Find(table, "bob")->id, 1002U);
  ASSERT_NE(table.Find(1001U), nullptr);
  EXPECT_EQ(table.Find(1001U)->name, "alice");
  EXPECT_EQ(Find(table, "carol"), nullptr);
  EXPECT_EQ(Find(table, ""), nullptr);
  EXPECT_EQ(table.Find(1003U), nullptr);
  EXPECT_EQ(table.broken_line(), 0U);
}

TEST(AccountTable, PrefersTheExactSpellingAndThenTheFirstInTheFile) {
  const AccountTable table("bob:x:1:1:::\nBob:x:2:1:::\nBOB:x:3:1:::\nbob:x:4:1:::\n",
                           AccountTable::kPasswd);

  EXPECT_EQ(Find(table, "bob")->id, 1U);
  EXPECT_EQ(Find(table, "Bob")->id, 2U);
  EXPECT_EQ(Find(table, "BOB")->id, 3U);
  EXPECT_EQ(Find(table, "bOb")->id, 1U);
}

TEST(AccountTable, GivesTheFirstOfSeveralNamesOfOneUid) {
  const AccountTable table("root:x:0:0:::\ntoor:x:0:0:::\n", AccountTable::kPasswd);

  EXPECT_EQ(table.Find(0U)->name, "root");
  EXPECT_EQ(Find(table, "toor")->id, 0U);
}

TEST(AccountTable, LeavesNonAsciiLettersAsTheyAre) {
  const AccountTable table("jörg:x:5:1:::\n", AccountTable::kPasswd);

  EXPECT_NE(Find(table, "JöRG"), nullptr);
  EXPECT_EQ(Find(table, "JÖRG"), nullptr);
}

TEST(AccountTable, HashesEveryByteOfALongName) {
  const std::string beginning(256, 'n');
  const NameHash hash;
  EXPECT_NE(hash(beginning + "a"), hash(beginning + "b"));
  EXPECT_NE(hash(beginning), hash(beginning + "a"));
  EXPECT_NE(hash(beginning + beginning + "a"), hash(beginning + beginning + "b"));
  EXPECT_EQ(hash(beginning + "Ab"), hash(beginning + "aB"));
  EXPECT_EQ(hash("Ab"), hash("aB"));
}

TEST(AccountTable, TellsLongNamesApart) {
  const std::string a = std::string(300, 'n') + "a";
  const std::string b = std::string(300, 'n') + "b";
  const AccountTable table(a + ":x:1:1:::\n" + b + ":x:2:1:::\n", AccountTable::kPasswd);

  EXPECT_EQ(table.Find(a)->id, 1U);
  EXPECT_EQ(table.Find(b)->id, 2U);
}

TEST(AccountTable, ReadsGroups) {
  const AccountTable table("staff:x:50:alice,bob\nusers:x:100:\n", AccountTable::kGroup);

  EXPECT_EQ(Find(table, "STAFF")->id, 50U);
  EXPECT_EQ(table.Find(100U)->name, "users");
}

TEST(AccountTable, TakesTheLargestIdAndALastLineWithoutItsEnd) {
  const AccountTable table("max:x:4294967295:1:::", AccountTable::kPasswd);

  EXPECT_EQ(table.Find(4294967295U)->name, "max");
}

TEST(AccountTable, LeavesOutCommentsBlankLinesAndCompatibilityEntries) {
  const AccountTable table("# comment\n\n   \n+::::::\n-nobody\n+@staff::::::\nbob:x:1:1:::\n",
                           AccountTable::kPasswd);

  EXPECT_EQ(table.entries().size(), 1U);
  EXPECT_EQ(table.broken_line(), 0U);
}

TEST(AccountTable, TakesAFileFromAnotherKindOfEditor) {
  const AccountTable table(
      "\xef\xbb\xbf"
      "alice:x:1:1:::\r\n\r\nbob:x:2:1:::\r\n",
      AccountTable::kPasswd);

  EXPECT_EQ(table.broken_line(), 0U);
  ASSERT_NE(Find(table, "alice"), nullptr);
  EXPECT_EQ(Find(table, "alice")->name, "alice");
  EXPECT_EQ(table.Find(2U)->name, "bob");
  EXPECT_EQ(table.entries().size(), 2U);
}

class BrokenLine : public testing::TestWithParam<std::string> {};

TEST_P(BrokenLine, IsLeftOutAndReported) {
  const AccountTable table(std::string("alice:x:1:1:::\n") + GetParam() + "\nbob:x:2:1:::\n",
                           AccountTable::kPasswd);

  EXPECT_EQ(table.broken_line(), 2U);
  EXPECT_EQ(table.entries().size(), 2U);
  EXPECT_NE(Find(table, "bob"), nullptr);
}

INSTANTIATE_TEST_SUITE_P(
    AccountTable, BrokenLine,
    testing::Values<std::string>("eve", "eve:x:3", "eve:x:3:1::", "eve:x:3:1::::", ":x:3:1:::",
                                 "eve:x::1:::", "eve:x:-3:1:::", "eve:x:3a:1:::", "eve:x: 3:1:::",
                                 "eve:x:4294967296:1:::", "<<<<<<< HEAD"));

}  // namespace
}  // namespace quillon::platform
