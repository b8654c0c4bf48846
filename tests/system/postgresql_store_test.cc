#include <filesystem>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/postgres_server.h"
#include "system/world.h"

namespace quillon::test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

TEST(PostgresqlStoreTest, KeepsTheQuotasWhenTheConfigurationSaysSo) {
  PostgresServer server;
  World world;
  world.UseStore(server.Url(server.CreateDatabase(), "secret"));

  EXPECT_EQ(
      world.Quillonctl({"user", "set-quota", "--limit", "2K", "--warning", "1K", "bob"}).error, "");
  const Json::Value report = world.QuillonctlJson({"user", "list"});
  EXPECT_THAT(Column(report, "quota"), ElementsAre("0", "2048", "0"));
  EXPECT_THAT(Column(report, "warning"), ElementsAre("null", "1024", "null"));

  server.Stop();
  const Outcome outcome = world.Quillonctl({"user", "list"});
  EXPECT_EQ(outcome.exit_code, 1);
  EXPECT_THAT(outcome.error, HasSubstr("quota store [postgresql://"));
  EXPECT_THAT(outcome.error, Not(HasSubstr("secret")));
}

TEST(PostgresqlStoreTest, KeepsTheQuotasOfGroupsToo) {
  PostgresServer server;
  World world;
  world.AddGroup("staff", 200, {"alice", "carol"});
  world.AddGroup("sales", 300, {"carol"});
  world.Deliver("alice", "cur", 1);
  world.UseStore(server.Url(server.CreateDatabase(), "secret"));
  const auto set = [&world](const std::string& owners, const std::string& limit,
                            const std::string& name) {
    EXPECT_EQ(
        world.Quillonctl({owners, "set-quota", "--limit", limit, "--warning", "1K", name}).error,
        "");
  };

  set("group", "2K", "staff");
  set("group", "5K", "sales");
  set("user", "3K", "alice");
  const Json::Value report = world.QuillonctlJson({"group", "list"});
  EXPECT_THAT(Column(report, "name"), ElementsAre("sales", "staff", "users"));
  EXPECT_THAT(Column(report, "limit"), ElementsAre("5120", "2048", "null"));
  EXPECT_THAT(Column(report, "warning"), ElementsAre("1024", "1024", "null"));
  EXPECT_THAT(Column(world.QuillonctlJson({"user", "show"}), "quota_limit"),
              ElementsAre("3072", "0", "5120"));

  EXPECT_EQ(world.Quillonctl({"group", "clear-quota", "sales"}).error, "");
  EXPECT_EQ(world.Quillonctl({"user", "clear-quota", "alice"}).error, "");
  EXPECT_THAT(Column(world.QuillonctlJson({"user", "show"}), "quota_limit"),
              ElementsAre("2048", "0", "2048"));
}

// A host without the module, and an environment that would load the library from elsewhere.
TEST(PostgresqlStoreTest, NeedsItsModuleBesideThePlatformsLibrary) {
  World world;
  world.UseStore("postgresql://nobody@127.0.0.1:1/quota");
  const TemporaryFolder elsewhere;
  std::filesystem::copy(PlatformLibraryPath(), elsewhere.path());

  const Outcome outcome =
      world.Quillonctl({"user", "list"}, "", {"LD_LIBRARY_PATH=" + elsewhere.path().string()});

  EXPECT_EQ(outcome.exit_code, 1);
  EXPECT_THAT(outcome.error,
              HasSubstr("quota.store is in PostgreSQL, whose module cannot be loaded"));
  EXPECT_THAT(outcome.error, HasSubstr(elsewhere / "libquillon-quota-postgresql.so"));
}

}  // namespace
}  // namespace quillon::test
