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
