#include "accounts/account_table.h"

#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace quillon::platform {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

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

TEST(AccountTable, KnowsThePrimaryGroupOfAUser) {
  const AccountTable table("alice:x:1:100:::\nbob:x:2:4294967295:::\n", AccountTable::kPasswd);

  EXPECT_EQ(Find(table, "alice")->primary_gid, 100U);
  EXPECT_EQ(Find(table, "bob")->primary_gid, 4294967295U);
}

// "member gid" of each membership.
std::vector<std::string> Memberships(const AccountTable& table, std::string_view name) {
  std::vector<std::string> memberships;
  for (const auto& [member, gid] : table.Memberships(name)) {
    memberships.push_back(std::string(member) + " " + std::to_string(gid));
  }
  return memberships;
}

TEST(AccountTable, FindsTheGroupsThatListAMember) {
  const AccountTable table("staff:x:50:alice,bob\nusers:x:100:\nsales:x:60:bob\n",
                           AccountTable::kGroup);

  EXPECT_THAT(Memberships(table, "alice"), ElementsAre("alice 50"));
  EXPECT_THAT(Memberships(table, "bob"), ElementsAre("bob 50", "bob 60"));
  EXPECT_THAT(Memberships(table, "carol"), IsEmpty());
  EXPECT_THAT(Memberships(table, ""), IsEmpty());
}

TEST(AccountTable, TakesMemberNamesInAnyLetterCaseAndTellsTheirSpelling) {
  const AccountTable table("staff:x:50:Bob\nsales:x:60:bob\n", AccountTable::kGroup);

  EXPECT_THAT(Memberships(table, "BOB"), ElementsAre("Bob 50", "bob 60"));
}

TEST(AccountTable, TakesListsOfMembersAsPeopleWriteThem) {
  const AccountTable table(
      "empty:x:1:,,\nblank:x:2: \nspaces:x:3: alice ,\tbob\r\ntwice:x:4:bob,bob\n"
      "inside:x:5:zo\xc3\xab b\nsplit:x:6:alice\nsplit:x:6:bob",
      AccountTable::kGroup);

  EXPECT_EQ(table.broken_line(), 0U);
  EXPECT_THAT(Memberships(table, "alice"), ElementsAre("alice 3", "alice 6"));
  EXPECT_THAT(Memberships(table, "bob"), ElementsAre("bob 3", "bob 4", "bob 4", "bob 6"));
  EXPECT_THAT(Memberships(table, "zo\xc3\xab b"), ElementsAre("zo\xc3\xab b 5"));
  EXPECT_THAT(Memberships(table, ""), IsEmpty());
  EXPECT_THAT(Memberships(table, " "), IsEmpty());
}

TEST(AccountTable, IndexesMembersOnceForAllThreads) {
  std::string text;
  for (int gid = 0; gid < 5000; ++gid) {
    text += "g" + std::to_string(gid) + ":x:" + std::to_string(gid) + ":alice\n";
  }
  const AccountTable table(text, AccountTable::kGroup);
  std::vector<std::thread> readers;
  for (int i = 0; i < 4; ++i) {
    readers.emplace_back([&] { EXPECT_EQ(table.Memberships("alice").size(), 5000U); });
  }
  for (std::thread& reader : readers) {
    reader.join();
  }
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
                                 "eve:x:4294967296:1:::", "eve:x:3::::", "eve:x:3:-1:::",
                                 "eve:x:3:1a:::", "eve:x:3:4294967296:::", "<<<<<<< HEAD"));

}  // namespace
}  // namespace quillon::platform
