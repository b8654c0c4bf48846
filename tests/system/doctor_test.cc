// One break at a time in a mail server that is set up as the guide says.
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <memory>
#include <utility>

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/parse_json.h"
#include "support/redis_relay.h"
#include "system/dovecot.h"
#include "system/world.h"

namespace quillon::test {
namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;
namespace fs = std::filesystem;

constexpr gid_t kMailGroup = 8;  // "mail", which every Debian has

void Give(const std::string& path, gid_t group, mode_t mode) {
  EXPECT_EQ(::chown(path.c_str(), 0, group), 0) << path;
  EXPECT_EQ(::chmod(path.c_str(), mode), 0) << path;
}

class DoctorTest : public testing::Test {
 protected:
  void SetUp() override {
    if (::geteuid() != 0) {
      GTEST_SKIP() << "Dovecot becomes its users: run as root";
    }
    world_.AddAccount("Dora", 1004);
    fs::create_directories(Folder());
    Give(Folder(), kMailGroup, 01771);
    Give(world_.folder().path(), 0, 0755);
    const fs::path socket = world_.redis().socket();
    Give(socket.parent_path(), kMailGroup, 0750);
    Give(socket, kMailGroup, 0770);
    Do({"user", "set-quota", "--limit", "10K", "--warning", "9K", "Dora"});
    Do({"quota", "sync"});
    Do({"export", "dovecot", "--output", Settings()});
    dovecot_ = std::make_unique<Dovecot>(Settings());
    EXPECT_THAT(dovecot_->Deliver("alice", 100), StartsWith("250"));
  }

  std::string Folder() const { return world_.folder() / "spool/local"; }
  std::string Settings() const { return world_.folder() / "dovecot"; }

  void Do(const std::vector<std::string>& arguments) const {
    const Outcome outcome = world_.Quillonctl(arguments);
    EXPECT_EQ(outcome.exit_code, 0) << outcome.error;
  }

  Outcome Examine() const { return world_.Quillonctl({"doctor", "--dovecot", Settings()}); }

  // The names of the checks that fail.
  std::vector<std::string> Failed() const {
    const Outcome outcome = world_.Quillonctl({"doctor", "--json", "--dovecot", Settings()});
    const Json::Value document = Parse(outcome.output);
    std::vector<std::string> failed;
    for (const Json::Value& check : document["checks"]) {
      if (check["state"] == "failed") {
        failed.push_back(check["check"].asString());
        EXPECT_FALSE(check["remedy"].asString().empty()) << check["check"].asString();
      }
    }
    EXPECT_EQ(document["failed"].asUInt(), failed.size());
    EXPECT_EQ(outcome.exit_code, failed.empty() ? 0 : 1);
    return failed;
  }

  // That this check alone fails, with such a text and such a remedy.
  void ExpectFailure(const std::string& check, const std::string& text, const std::string& remedy) {
    EXPECT_THAT(Failed(), ElementsAre(check));
    EXPECT_THAT(Examine().output,
                AllOf(HasSubstr("failed  " + check + ": "), HasSubstr(text), HasSubstr("  -> "),
                      HasSubstr(remedy), HasSubstr("\n1 check has failed\n")));
  }

  // Lines at the end of Dovecot's settings, after ours.
  void Configure(const std::string& lines) const {
    world_.folder().Write("dovecot/dovecot.conf",
                          world_.folder().Read("dovecot/dovecot.conf") + lines);
  }

  // In our own.
  void ReplaceInSettings(const std::string& text, const std::string& other) const {
    std::string settings = world_.folder().Read("mailserver.toml");
    settings.replace(settings.find(text), text.size(), other);
    world_.folder().Write("mailserver.toml", settings);
  }

  World world_;
  std::unique_ptr<Dovecot> dovecot_;
};

TEST_F(DoctorTest, FindsNothingWrongWhereNothingIs) {
  const Outcome outcome = Examine();
  EXPECT_EQ(outcome.exit_code, 0);
  EXPECT_THAT(outcome.output, AllOf(HasSubstr("\nok      dovecot userdb: Dora is found, with the"),
                                    HasSubstr("nothing is wrong\n")));
  EXPECT_THAT(Failed(), IsEmpty());
}

TEST_F(DoctorTest, FindsAUsageStoreThatIsDown) {
  world_.redis().Stop();
  EXPECT_THAT(Failed(), ElementsAre("usage store", "mail processes"));
  EXPECT_THAT(Examine().output,
              AllOf(HasSubstr("note    clock: "), HasSubstr("failed  usage store: "),
                    HasSubstr(world_.redis().socket()), HasSubstr("systemctl start redis-server"),
                    HasSubstr("\n2 checks have failed\n")));
}

TEST_F(DoctorTest, FindsAUsageStoreThatTakesNothing) {
  world_.redis().Command({"REPLICAOF", "127.0.0.1", "1"});
  EXPECT_THAT(Failed(), ElementsAre("usage store", "mail processes"));
  EXPECT_THAT(Examine().output, HasSubstr("can't write against a read only replica"));
}

TEST_F(DoctorTest, FindsAUsageStoreThatMailProcessesMayNotUse) {
  Give(world_.redis().socket(), 0, 0700);
  ExpectFailure("mail processes", "Permission denied",
                "the usage store's socket the group of mail_");
}

TEST_F(DoctorTest, FindsAClockThatIsWrong) {
  const RedisRelay relay(world_.redis().socket(), [](std::string& piece) {
    if (HasCommand(piece, "TIME")) {
      piece = "EVAL \"return {tostring(redis.call('TIME')[1] + 3600), '0'}\" 0\r\n";
    }
  });
  fs::permissions(fs::path(relay.socket()).parent_path(), fs::perms(0755));
  fs::permissions(relay.socket(), fs::perms(0777));
  ReplaceInSettings(world_.redis().socket(), relay.socket());
  Do({"export", "dovecot", "--output", Settings()});
  EXPECT_THAT(Failed(), ElementsAre("clock"));
  EXPECT_THAT(Examine().output,
              AllOf(testing::ContainsRegex("the clock of the usage store's host is 3(599|600) "
                                           "seconds ahead"),
                    HasSubstr("keep time by NTP")));
}

TEST_F(DoctorTest, FindsALockFolderThatOthersMayChange) {
  std::vector<std::string> command = {
      "unshare",
      "--mount",
      "--propagation",
      "private",
      "sh",
      "-c",
      "mount -t tmpfs tmpfs /run/lock && mkdir -m 0777 /run/lock/quillon_server && exec \"$@\"",
      "sh"};
  const auto doctor = world_.CommandLine({"doctor", "--dovecot", Settings()});
  command.insert(command.end(), doctor.begin(), doctor.end());
  const Outcome outcome = test::Run(command);
  EXPECT_EQ(outcome.exit_code, 1) << outcome.error;
  EXPECT_THAT(outcome.output, AllOf(HasSubstr("failed  lock folder: /var/lock/quillon_server"),
                                    HasSubstr("  -> systemd-tmpfiles --create"),
                                    HasSubstr("\n1 check has failed")));
}

TEST_F(DoctorTest, FindsALogThatCannotBeWritten) {
  ReplaceInSettings(world_.folder() / "mail.log", world_.folder() / "gone/mail.log");
  ExpectFailure("mail log", (world_.folder() / "gone") + ": No such file or directory",
                "make the file's folder");
}

TEST_F(DoctorTest, FindsAUsageCacheThatOthersMayChange) {
  const std::string folder = world_.folder() / "cache";
  fs::create_directory(folder);
  fs::permissions(folder, fs::perms(0777));
  const std::string cache = "usage_cache = \"";
  std::string settings = world_.folder().Read("mailserver.toml");
  const auto begin = settings.find(cache) + cache.size();
  ReplaceInSettings(settings.substr(begin, settings.find('"', begin) - begin), folder + "/c.db");
  ExpectFailure("usage cache", "anybody may write to " + folder, "chmod o-w " + folder);
}

TEST_F(DoctorTest, FindsAQuotaStoreThatIsNone) {
  world_.folder().Write("quota.db", std::string(4096, 'x'));
  EXPECT_THAT(Failed(), ElementsAre("quota store", "accounts", "mail users", "dovecot userdb",
                                    "mail processes", "mail directories"));
  EXPECT_THAT(Examine().output,
              AllOf(HasSubstr("failed  quota store: "), HasSubstr("file is not a database"),
                    HasSubstr("correct quota.store")));
}

TEST_F(DoctorTest, FindsAQuotaStoreThatAnybodyMayChange) {
  fs::permissions(world_.quota_database(), fs::perms(0666));
  ExpectFailure("quota store", "anybody may write to " + world_.quota_database(),
                "chmod o-w " + world_.quota_database());
}

TEST_F(DoctorTest, FindsAccountsThatDoNotParse) {
  world_.folder().Write("passwd", world_.folder().Read("passwd") + "dora:x\n");
  EXPECT_THAT(Failed(), ElementsAre("accounts", "mail users"));
  EXPECT_THAT(Examine().output, AllOf(HasSubstr("passwd"), HasSubstr("mend the line of the")));
}

TEST_F(DoctorTest, FindsMailUsersOutOfDate) {
  world_.AddAccount("emil", 1005);
  ExpectFailure("mail users", "of the mail users 1 are not", "quillonctl quota sync");
}

TEST_F(DoctorTest, FindsAMailFolderThatAnybodyMayChange) {
  fs::permissions(Folder(), fs::perms(01777));
  ExpectFailure("mail folders", "anybody may write to " + Folder(), "chmod o-w " + Folder());
}

TEST_F(DoctorTest, FindsAMailFolderWhereAUserMayRemoveAnother) {
  fs::permissions(Folder(), fs::perms(0771));
  ExpectFailure("mail folders", "the group 8 may change what is in " + Folder(),
                "chmod +t " + Folder());
}

TEST_F(DoctorTest, FindsAMailFolderInWhichNobodyMayMakeADirectory) {
  Give(Folder(), 0, 0755);
  ExpectFailure("mail processes", "may make no mail directory in " + Folder(),
                "give the folder of the mail directories");
}

TEST_F(DoctorTest, FindsAMailDirectoryOfSomebodyElse) {
  EXPECT_EQ(::chown(world_.Maildir("alice").c_str(), 1002, World::kUsers), 0);
  ExpectFailure("mail directories", "belongs to uid 1002, and alice has uid 1001",
                "chown -R 1001:100 " + world_.Maildir("alice"));
}

TEST_F(DoctorTest, FindsAMailDirectoryThatOthersMayChange) {
  fs::permissions(world_.Maildir("alice"), fs::perms(0777));
  ExpectFailure("mail directories", "may be changed by others than alice", "chmod go-w ");
}

TEST_F(DoctorTest, FindsAPluginThatIsNotLoaded) {
  Configure("protocol lmtp {\n  mail_plugins = quota\n}\n");
  ExpectFailure("dovecot plugins", "the plugin quota_clone is not loaded for lmtp",
                "begin it with $mail_plugins");
}

TEST_F(DoctorTest, FindsAnotherKey) {
  ReplaceInSettings("[usage]\n", "[usage]\nkey_template = \"mail/{name}/quota/storage\"\n");
  ExpectFailure("dovecot usage store", ":prefix=mail/", "export anew");
}

TEST_F(DoctorTest, FindsNamesThatAreChanged) {
  Configure("auth_username_format = %Lu\n");
  ExpectFailure("dovecot names", "auth_username_format is \"%Lu\", and has to be \"%u\"",
                "grep -rn auth_username_format " + Settings());
}

TEST_F(DoctorTest, FindsALimitThatIsNotHeldToTheByte) {
  Configure("plugin {\n  quota_grace = 10%%\n}\n");
  ExpectFailure("dovecot quota", "quota_grace is \"10%%\", and has to be \"0\"",
                "grep -rn quota_grace");
}

TEST_F(DoctorTest, FindsSettingsThatDovecotDoesNotUnderstand) {
  Configure("quota_what = 1\n");
  EXPECT_THAT(Examine().output, AllOf(HasSubstr("failed  dovecot settings: "),
                                      HasSubstr("Unknown setting: quota_what"),
                                      HasSubstr("doveconf -c " + Settings() + "/dovecot.conf -n")));
}

TEST_F(DoctorTest, FindsAPasswordThatOthersMayRead) {
  fs::permissions(Settings() + "/quillon-sql.conf.ext", fs::perms(0644));
  ExpectFailure("dovecot export", "quillon-sql.conf.ext has mode 0644", "chmod 0600 ");
}

TEST_F(DoctorTest, FindsAScriptThatOthersMayChange) {
  EXPECT_EQ(::chown((Settings() + "/quillon-quota-warning").c_str(), 1001, 0), 0);
  ExpectFailure("dovecot export", "quillon-quota-warning belongs to uid 1001", "chown root ");
}

TEST_F(DoctorTest, FindsAMissingFile) {
  fs::remove(Settings() + "/quillon-quota-warning");
  ExpectFailure("dovecot export", "quillon-quota-warning: No such file or directory",
                "quillonctl export dovecot --output " + Settings());
}

TEST_F(DoctorTest, FindsADovecotThatIsNotThere) {
  dovecot_.reset();
  ExpectFailure("dovecot userdb", "connect(", "start Dovecot");
}

TEST_F(DoctorTest, FindsAnotherUserdbThatKnowsTheUsers) {
  dovecot_.reset();
  const std::string settings = Settings() + "/conf.d/90-quillon.conf";
  std::string text = world_.folder().Read("dovecot/conf.d/90-quillon.conf");
  text = "userdb {\n  driver = static\n  args = uid=1001 gid=100 home=/nonexistent\n}\n" + text;
  world_.folder().Write("dovecot/conf.d/90-quillon.conf", text);
  dovecot_ = std::make_unique<Dovecot>(Settings());
  ExpectFailure("dovecot userdb", "of Dora is \"", "comment out \"!include auth-system");
}

TEST_F(DoctorTest, SaysWhenWhatWasExportedIsOld) {
  world_.folder().Write("dovecot/conf.d/90-quillon.conf",
                        world_.folder().Read("dovecot/conf.d/90-quillon.conf") + "# mine\n");
  const Outcome outcome = Examine();
  EXPECT_EQ(outcome.exit_code, 0);
  EXPECT_THAT(outcome.output, HasSubstr("note    dovecot export: " + Settings() +
                                        "/conf.d/90-quillon.conf is not as it would be exported"));
}

TEST_F(DoctorTest, LooksAtADovecotThatIsSetUpOnly) {
  fs::remove(Settings() + "/conf.d/90-quillon.conf");
  EXPECT_THAT(Failed(), ElementsAre("dovecot settings", "dovecot export", "dovecot userdb"));
  const Outcome outcome = world_.Quillonctl({"doctor"});  // that of the host, which is not ours
  EXPECT_EQ(outcome.exit_code, 0) << outcome.output;
  EXPECT_THAT(outcome.output,
              HasSubstr("note    dovecot: has no settings of ours in /etc/dovecot"));
}

TEST_F(DoctorTest, NeedsRootOfThisHost) {
  const auto doctor = world_.CommandLine({"doctor"});
  std::vector<std::string> command = {"setpriv", "--reuid=1001", "--clear-groups"};
  command.insert(command.end(), doctor.begin(), doctor.end());
  Outcome outcome = test::Run(command);
  EXPECT_EQ(outcome.exit_code, 1);
  EXPECT_THAT(outcome.error, HasSubstr("run it as root"));
  outcome = world_.Quillonctl({"--host", "mail2", "--account", "boss", "doctor"});
  EXPECT_EQ(outcome.exit_code, 2);
}

}  // namespace
}  // namespace quillon::test
