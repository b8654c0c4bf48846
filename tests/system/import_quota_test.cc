#include <string>
#include <vector>

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <soci/soci.h>
#include <soci/sqlite3/soci-sqlite3.h>

#include "system/world.h"

namespace quillon::test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

class ImportQuotaTest : public testing::Test {
 protected:
  // Imports a file of this content.
  Outcome Import(const std::string& content, std::vector<std::string> options = {}) {
    const std::string file = world_.folder().Write("quotas.csv", content);
    options.insert(options.begin(), {"user", "import-quota", file});
    return world_.Quillonctl(options);
  }

  std::vector<std::string> Limits() {
    return Column(world_.QuillonctlJson({"user", "list"}), "limit");
  }
  std::vector<std::string> Warnings() {
    return Column(world_.QuillonctlJson({"user", "list"}), "warning");
  }

  // What standard error says of a row of the file.
  std::string Line(int row, const std::string& text) {
    return fmt::format("quillonctl: {}:{}: {}\n", world_.folder() / "quotas.csv", row, text);
  }

  World world_;
};

TEST_F(ImportQuotaTest, SetsWhatTheFileHas) {
  const Outcome outcome = Import("name,limit,warning\r\nalice,10G,9G\r\nBob,7,7\r\n");
  EXPECT_EQ(outcome.exit_code, 0);
  EXPECT_EQ(outcome.output, "quota of 2 users set\n");
  EXPECT_EQ(outcome.error, "");
  EXPECT_THAT(Limits(), ElementsAre("10737418240", "7", "null"));
  EXPECT_THAT(Warnings(), ElementsAre("9663676416", "7", "null"));
}

TEST_F(ImportQuotaTest, ReadsStandardInput) {
  EXPECT_EQ(world_.Quillonctl({"user", "import-quota", "-"}, "carol,2K,1K").output,
            "quota of 1 user set\n");
  EXPECT_THAT(Limits(), ElementsAre("null", "null", "2048"));
  EXPECT_THAT(world_.Quillonctl({"user", "import-quota", "-"}, "eve,2K,1K").error,
              testing::StartsWith("quillonctl: -:1: [eve]: no such user\n"));
}

TEST_F(ImportQuotaTest, DryRunChangesNothing) {
  EXPECT_EQ(Import("alice,2,1\n", {"--dry-run"}).output,
            "the file is good, quota of 1 user would be set\n");
  EXPECT_EQ(Import("eve,2,1\n", {"--dry-run"}).exit_code, 1);
  EXPECT_THAT(Limits(), ElementsAre("null", "null", "null"));
}

TEST_F(ImportQuotaTest, OneBadRowRefusesTheFile) {
  const Outcome outcome = Import("alice,2,1\nbob,1,2\neve,2,1\n\nALICE,2,1\n");
  EXPECT_EQ(outcome.exit_code, 1);
  EXPECT_EQ(outcome.output, "");
  EXPECT_EQ(outcome.error,
            Line(2, "[bob]: the warning is above the limit") + Line(3, "[eve]: no such user") +
                Line(5, "[ALICE]: the same user as in row 1") +
                "quillonctl: 3 of 4 rows are bad, nothing was written; the first is row 2 [bob]: "
                "the warning is above the limit (error 400)\n");
  EXPECT_THAT(Limits(), ElementsAre("null", "null", "null"));
}

TEST_F(ImportQuotaTest, ARowWithoutColumnsHasNoName) {
  EXPECT_EQ(Import("alice 2 1\n").error,
            Line(1, "there must be three columns: name, limit, warning") +
                "quillonctl: 1 of 1 rows are bad, nothing was written; the first is row 1: there "
                "must be three columns: name, limit, warning (error 400)\n");
}

TEST_F(ImportQuotaTest, PrintsJson) {
  Outcome outcome = Import("alice,2,1\n", {"--json"});
  EXPECT_EQ(outcome.output, "{\n  \"groups\" : 1,\n  \"rows\" : 1\n}\n");

  outcome = Import("alice,2,3\n", {"--json"});
  EXPECT_EQ(outcome.exit_code, 1);
  EXPECT_THAT(outcome.output, HasSubstr(R"("reason" : "the warning is above the limit")"));
  EXPECT_EQ(outcome.error,
            "quillonctl: 1 of 1 rows are bad, nothing was written; the first is row 1 [alice]: the "
            "warning is above the limit (error 400)\n");
}

// The store takes the first row and fails at the second.
TEST_F(ImportQuotaTest, TellsWhereTheRowsStandWhenTheStoreFailsOnTheWay) {
  Import("alice,1,1\nbob,1,1\ncarol,1,1\n");
  soci::session(soci::sqlite3, world_.quota_database())
      << "CREATE TRIGGER refuse BEFORE INSERT ON user_limit WHEN NEW.bytes = '3000' "
         "BEGIN SELECT RAISE(ABORT, 'the disk is full'); END";

  const Outcome outcome = Import("alice,2000,1\nbob,3000,1\ncarol,4000,1\n");
  EXPECT_EQ(outcome.exit_code, 1);
  EXPECT_THAT(outcome.error,
              testing::StartsWith(Line(2, "[bob]: the limit may be set without its warning") +
                                  Line(3, "[carol]: not written") + "quillonctl: "));
  EXPECT_THAT(outcome.error, HasSubstr("the disk is full"));
  EXPECT_THAT(outcome.error, HasSubstr("; 1 of 3 rows were written, import the file again (error"));
  EXPECT_THAT(Limits(), ElementsAre("2000", "1", "1"));
}

TEST_F(ImportQuotaTest, TakesAHundredThousandRows) {
  constexpr int kUsers = 100000;
  std::string passwd;
  std::string content;
  for (int i = 0; i < kUsers; ++i) {
    passwd += fmt::format("u{}:x:{}:100::/:/bin/false\n", i, 10000 + i);
    content += fmt::format("U{},{}M,1K\n", i, 1 + i % 10);
  }
  world_.folder().Write("passwd", passwd);
  const Outcome outcome = Import(content);
  EXPECT_EQ(outcome.output, "quota of 100000 users set\n");
  EXPECT_EQ(outcome.error, "");
  EXPECT_THAT(Column(world_.QuillonctlJson({"user", "list", "u0", "u99999"}), "limit"),
              ElementsAre("1048576", "10485760"));
}

TEST_F(ImportQuotaTest, MustBeAbleToReadTheFile) {
  Outcome outcome = world_.Quillonctl({"user", "import-quota", world_.folder() / "none"});
  EXPECT_EQ(outcome.exit_code, 1);
  EXPECT_EQ(outcome.error, fmt::format("quillonctl: cannot read {}: No such file or directory\n",
                                       world_.folder() / "none"));
  outcome = world_.Quillonctl({"user", "import-quota", world_.folder().path()});
  EXPECT_THAT(outcome.error, HasSubstr("Is a directory"));
  outcome = world_.Quillonctl({"user", "import-quota", "/dev/zero"});
  EXPECT_EQ(outcome.error, "quillonctl: cannot read /dev/zero: File too large\n");
}

TEST_F(ImportQuotaTest, FailsWithoutRows) {
  EXPECT_EQ(Import("").error, "quillonctl: the file has no rows (error 400)\n");
}

}  // namespace
}  // namespace quillon::test
