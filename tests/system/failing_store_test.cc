#include <algorithm>
#include <chrono>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <soci/soci.h>
#include <soci/sqlite3/soci-sqlite3.h>

#include "system/world.h"

namespace quillon::test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

// Exit code 1, one line on standard error that holds `text`, within a few seconds.
void ExpectFailure(const World& world, const std::vector<std::string>& arguments,
                   const std::string& text) {
  const auto start = std::chrono::steady_clock::now();
  const Outcome outcome = world.Quillonctl(arguments);
  const auto duration = std::chrono::steady_clock::now() - start;
  EXPECT_EQ(outcome.exit_code, 1);
  EXPECT_EQ(outcome.output, "");
  EXPECT_THAT(outcome.error, testing::StartsWith("quillonctl: "));
  EXPECT_THAT(outcome.error, HasSubstr(text));
  EXPECT_EQ(std::count(outcome.error.begin(), outcome.error.end(), '\n'), 1);
  EXPECT_LT(duration, std::chrono::seconds(10));
}

TEST(FailingStoreTest, KilledRedis) {
  World world;
  world.redis().Stop();
  ExpectFailure(world, {"user", "list"}, "usage store " + world.redis().socket());
}

TEST(FailingStoreTest, FrozenRedis) {
  World world;
  world.redis().Freeze();
  ExpectFailure(world, {"user", "list"}, "usage store " + world.redis().socket());
  world.redis().Thaw();
  EXPECT_EQ(world.Quillonctl({"user", "list"}).exit_code, 0);
}

TEST(FailingStoreTest, ChangesNeedNoRedis) {
  World world;
  world.redis().Stop();
  EXPECT_EQ(world.Quillonctl({"user", "clear-quota", "alice"}).exit_code, 0);
}

TEST(FailingStoreTest, UsageThatIsNoNumberIsLoggedAndAbsent) {
  const World world;
  world.SetUsage("alice", "many");
  world.SetUsage("bob", "5");
  EXPECT_THAT(Column(world.QuillonctlJson({"user", "list"}), "usage"), ElementsAre("0", "5", "0"));
  EXPECT_THAT(world.folder().Read("mail.log"),
              HasSubstr("the entry of [alice] is no number of bytes: [many], taken as absent"));
}

class LockedDatabaseTest : public testing::Test {
 protected:
  LockedDatabaseTest() {
    world_.Quillonctl({"user", "set-quota", "--limit", "2K", "--warning", "1K", "alice"});
    other_.open(soci::sqlite3, world_.quota_database());
    other_ << "BEGIN EXCLUSIVE";
  }

  World world_;
  soci::session other_;
};

TEST_F(LockedDatabaseTest, ChangesFailAndChangeNothing) {
  const std::vector<std::string> set = {"user",      "set-quota", "--limit", "8K",
                                        "--warning", "4K",        "alice"};
  ExpectFailure(world_, set, "locked");
  ExpectFailure(world_, {"user", "clear-quota", "alice"}, "locked");
  other_ << "ROLLBACK";
  EXPECT_THAT(Column(world_.QuillonctlJson({"user", "list", "alice"}), "quota"),
              ElementsAre("2048"));
  EXPECT_EQ(world_.Quillonctl(set).exit_code, 0);
}

TEST_F(LockedDatabaseTest, ReportsAreMadeAllTheSame) {
  EXPECT_THAT(Column(world_.QuillonctlJson({"user", "list", "alice"}), "quota"),
              ElementsAre("2048"));
}

TEST(FailingStoreTest, CorruptDatabase) {
  const World world;
  world.folder().Write("quota.db", std::string(20000, '?'));
  ExpectFailure(world, {"user", "list"}, world.quota_database());
  ExpectFailure(world, {"user", "clear-quota", "alice"}, world.quota_database());
}

TEST(FailingStoreTest, FolderInPlaceOfTheDatabase) {
  const World world;
  std::filesystem::create_directory(world.quota_database());
  ExpectFailure(world, {"user", "list"}, world.quota_database());
}

}  // namespace
}  // namespace quillon::test
