#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "system/world.h"

namespace quillon::test {
namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;
namespace fs = std::filesystem;

class ExportTest : public testing::Test {
 protected:
  ExportTest() { fs::create_directories(world_.folder() / "spool/local"); }

  // In the place of the table.
  void SetUsage(const std::string& settings) {
    std::string text = world_.folder().Read("mailserver.toml");
    const auto begin = text.find("[usage]\n") + 8;
    text.replace(begin, text.find("[log]") - begin, settings + "\n");
    world_.folder().Write("mailserver.toml", text);
  }

  Outcome Export() const { return world_.Quillonctl({"export", "dovecot"}); }

  World world_;
};

TEST_F(ExportTest, PrintsTheSettings) {
  SetUsage(
      "host = \"192.0.2.1\"\nport = 6380\ndatabase = 2\nkey_template = "
      "\"m/{name}/quota/storage\"");
  const Outcome outcome = Export();
  EXPECT_EQ(outcome.exit_code, 0) << outcome.error;
  EXPECT_THAT(outcome.output,
              AllOf(StartsWith("### /etc/dovecot/conf.d/99-quillon.conf\n"),
                    HasSubstr(world_.configuration_file()),
                    HasSubstr("args = \"/etc/dovecot/quillon-sql.conf.ext\"\n"),
                    HasSubstr("first_valid_uid = 1000\nlast_valid_uid = 59999\n"),
                    HasSubstr("quota_clone_dict = "
                              "\"redis:host=192.0.2.1:port=6380:prefix=m/:db=2\"\n"),
                    HasSubstr("\n### /etc/dovecot/quillon-sql.conf.ext\n"),
                    HasSubstr("driver = sqlite\nconnect = " + world_.quota_database() + "\n")));
}

TEST_F(ExportTest, WritesIntoAFolder) {
  const std::string folder = world_.folder() / "dovecot";
  const Outcome outcome = world_.Quillonctl({"export", "dovecot", "--output", folder});
  EXPECT_EQ(outcome.exit_code, 0) << outcome.error;
  EXPECT_EQ(outcome.output, fmt::format("{0}/conf.d/99-quillon.conf\n{0}/quillon-sql.conf.ext\n"
                                        "{0}/quillon-quota-warning\n",
                                        folder));
  EXPECT_THAT(world_.folder().Read("dovecot/conf.d/99-quillon.conf"),
              HasSubstr("args = \"" + folder + "/quillon-sql.conf.ext\""));
  struct stat status {};
  ASSERT_EQ(::stat((folder + "/quillon-sql.conf.ext").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777U, 0600U);  // it may hold a password
  ASSERT_EQ(::stat((folder + "/quillon-quota-warning").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777U, 0755U);
}

TEST_F(ExportTest, HasTheStoreInPostgresql) {
  world_.UseStore("postgresql://quillon:p%40ss@db/quillon?sslmode=verify-full");
  EXPECT_THAT(Export().output,
              HasSubstr("driver = pgsql\n"
                        "connect = postgresql://quillon:p%40ss@db/quillon?sslmode=verify-full\n"));
}

TEST_F(ExportTest, HasTheGroupThatMayMakeMailDirectories) {
  const std::string folder = world_.folder() / "spool/local";
  struct Case {
    gid_t group;
    mode_t mode;
  };
  // Nobody's, without the sticky bit, root's, and without a name.
  for (const auto& [group, mode] : {Case{World::kMailGroup, 0755}, Case{World::kMailGroup, 0771},
                                    Case{0, 01771}, Case{123456, 01771}}) {
    ASSERT_EQ(::chown(folder.c_str(), static_cast<uid_t>(-1), group), 0);
    ASSERT_EQ(::chmod(folder.c_str(), mode), 0);
    EXPECT_THAT(Export().output,
                AllOf(HasSubstr("# " + folder + " has no group of its own"),
                      HasSubstr("    mode = 0600\n"), Not(HasSubstr("mail_access_groups ="))));
  }
  ASSERT_EQ(::chown(folder.c_str(), static_cast<uid_t>(-1), World::kMailGroup), 0);
  EXPECT_THAT(Export().output, AllOf(HasSubstr("\nmail_access_groups = mail\n"),
                                     HasSubstr("    group = mail\n    mode = 0660\n")));
}

TEST_F(ExportTest, QuotesWhatDovecotWouldTakeForItsOwn) {
  SetUsage("socket = \"/run/a \\\"b\\\" #%u.sock\"");
  EXPECT_THAT(Export().output,
              HasSubstr(R"(quota_clone_dict = "redis:path=/run/a \"b\" #%%u.sock")"));
}

TEST_F(ExportTest, RefusesAFolderInWhichDovecotRunsNothing) {
  const Outcome outcome =
      world_.Quillonctl({"export", "dovecot", "--output", world_.folder() / "a b"});
  EXPECT_EQ(outcome.exit_code, 1);
  EXPECT_THAT(outcome.error, HasSubstr("a b: Dovecot runs no script in a folder with a space"));
  EXPECT_FALSE(fs::exists(world_.folder() / "a b"));
}

TEST_F(ExportTest, RefusesWhatDovecotHasNoSettingFor) {
  for (const auto& [settings, problem] : std::vector<std::pair<std::string, std::string>>{
           {"password = \"x\"", "usage.password: Dovecot cannot give Redis a password"},
           {"sentinels = [\"127.0.0.1:26379\"]", "usage.sentinels: Dovecot cannot ask"},
           {"key_template = \"{name}/usage\"", "usage.key_template is {name}/usage, and"},
           {"key_template = \"a:{name}/quota/storage\"", "usage.key_template holds a colon"},
           {"host = \"::1\"", "usage.host is ::1, and Dovecot's Redis client takes"},
           {"host = \"localhost\"", "usage.host is localhost, and Dovecot's"},
           {"socket = \"/run/a:b\"", "usage.socket holds a colon"}}) {
    SetUsage(settings);
    const Outcome outcome = Export();
    EXPECT_EQ(outcome.exit_code, 1) << settings;
    EXPECT_THAT(outcome.error, StartsWith("quillonctl: " + problem)) << settings;
    EXPECT_EQ(outcome.output, "");
  }
}

TEST_F(ExportTest, SaysWhenThereIsNoFolderForMail) {
  fs::remove_all(world_.folder() / "spool");
  const Outcome outcome = Export();
  EXPECT_EQ(outcome.exit_code, 1);
  EXPECT_THAT(outcome.error, HasSubstr((world_.folder() / "spool/local") + ": No such file"));
}

TEST_F(ExportTest, IsOfThisHostOnly) {
  const Outcome outcome =
      world_.Quillonctl({"--host", "mail2", "--account", "boss", "export", "dovecot"});
  EXPECT_EQ(outcome.exit_code, 2);
  EXPECT_THAT(outcome.error, HasSubstr("settings are those of the host itself"));
}

}  // namespace
}  // namespace quillon::test
