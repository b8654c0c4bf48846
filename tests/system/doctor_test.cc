// One break at a time in a mail server that is set up as the guide says.
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
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
    Give(Folder(), World::kMailGroup, 01771);
    Give(world_.folder().path(), 0, 0755);
    const fs::path socket = world_.redis().socket();
    Give(socket.parent_path(), World::kMailGroup, 0750);
    Give(socket, World::kMailGroup, 0770);
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

  Outcome Examine() const {
    LetChangesBeOld();
    return world_.Quillonctl({"doctor", "--dovecot", Settings()});
  }

  // As if Dovecot had been started after them.
  void LetChangesBeOld() const {
    const auto time = fs::file_time_type::clock::now() - std::chrono::hours(1);
    for (const auto& entry : fs::recursive_directory_iterator(Settings())) {
      if (fs::last_write_time(entry) < fs::file_time_type::clock::now()) {
        fs::last_write_time(entry, time);
      }
    }
  }

  // The names of the checks that fail.
  std::vector<std::string> Failed() const {
    LetChangesBeOld();
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
  ExpectFailure("usage store", world_.redis().socket(), "systemctl start redis-server");
  EXPECT_THAT(Examine().output,
              AllOf(HasSubstr("\n-       clock: mend first: usage store\n"),
                    HasSubstr("\n-       mail processes: mend first: usage store")));
}

TEST_F(DoctorTest, FindsAUsageStoreThatTakesNothing) {
  world_.redis().Command({"REPLICAOF", "127.0.0.1", "1"});
  ExpectFailure("usage store", "can't write against a read only replica", "the table usage");
}

TEST_F(DoctorTest, FindsAUsageStoreThatMailProcessesMayNotUse) {
  Give(world_.redis().socket(), 0, 0700);
  ExpectFailure("mail processes", "Permission denied", "let the group of mail_access_groups use");
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
                    HasSubstr("see that a service keeps the time")));
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
  ExpectFailure("quota store", "file is not a database", "correct quota.store");
  EXPECT_THAT(Examine().output, AllOf(HasSubstr("-       accounts: mend first: quota store\n"),
                                      HasSubstr("-       mail users: mend first: accounts\n"),
                                      HasSubstr("-       mail directories: mend first: quota ")));
}

TEST_F(DoctorTest, MakesNoQuotaStore) {
  fs::rename(world_.quota_database(), world_.folder() / "other.db");
  ExpectFailure("quota store", world_.quota_database() + " is not there", "correct quota.store;");
  EXPECT_FALSE(fs::exists(world_.quota_database()));
}

TEST_F(DoctorTest, FindsAQuotaStoreThatAnybodyMayChange) {
  fs::permissions(world_.quota_database(), fs::perms(0666));
  ExpectFailure("quota store", "anybody may write to " + world_.quota_database(),
                "chmod o-w " + world_.quota_database());
}

TEST_F(DoctorTest, FindsAccountsThatDoNotParse) {
  world_.folder().Write("passwd", world_.folder().Read("passwd") + "dora:x\n");
  ExpectFailure("accounts", "passwd", "mend the line of the accounts file");
}

TEST_F(DoctorTest, FindsMailUsersOutOfDate) {
  world_.AddAccount("emil", 1005);
  ExpectFailure("mail users", "of the mail users 1 are not", "quillonctl quota sync");
}

TEST_F(DoctorTest, TakesALinkToTheMailDisk) {
  fs::create_directory_symlink(world_.folder() / "spool", world_.folder() / "link");
  ReplaceInSettings("/spool\"", "/link\"");
  EXPECT_THAT(Failed(), IsEmpty());
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
  EXPECT_THAT(Failed(), ElementsAre("dovecot warnings", "mail processes"));
  EXPECT_THAT(
      Examine().output,
      AllOf(HasSubstr("no group may make mail directories in " + Folder()),
            HasSubstr("  -> chgrp quillon-mail " + Folder() + " && chmod 1771 " + Folder())));
}

TEST_F(DoctorTest, FindsAMailDirectoryOfSomebodyElse) {
  EXPECT_EQ(::chown(world_.Maildir("alice").c_str(), 1002, World::kUsers), 0);
  ExpectFailure("mail directories", "belongs to uid 1002, and alice has uid 1001",
                "chown -R 1001:100 " + world_.Maildir("alice") + " && chmod");
}

TEST_F(DoctorTest, FindsAMailDirectoryThatOthersMayChange) {
  fs::permissions(world_.Maildir("alice"), fs::perms(0777));
  ExpectFailure("mail directories", "may be changed by others than alice", "chmod -R u+rwX,go-w ");
}

TEST_F(DoctorTest, FindsFilesInAMailDirectoryThatItsUserCannotUse) {
  const std::string folder = world_.Maildir("alice") + "/tmp";
  EXPECT_EQ(::chown(folder.c_str(), 0, 0), 0);
  ExpectFailure("mail directories", folder + " belongs to uid 0, and alice has uid 1001",
                "chown -R 1001:100 ");
  EXPECT_EQ(::chown(folder.c_str(), 1001, 0), 0);
  fs::permissions(world_.Maildir("alice"), fs::perms(0500));
  ExpectFailure("mail directories", world_.Maildir("alice") + " has mode 0500", "chmod -R u+rwX");
}

TEST_F(DoctorTest, QuotesPathsInCommands) {
  world_.AddAccount("x; touch y", 1005);
  Do({"quota", "sync"});
  EXPECT_THAT(dovecot_->Append("x; touch y", 100), StartsWith("c OK"));
  fs::permissions(world_.Maildir("x; touch y"), fs::perms(0777));
  ExpectFailure("mail directories", "may be changed by others than x; touch y",
                "chmod -R u+rwX,go-w '" + world_.Maildir("x; touch y") + "'\n");
}

TEST_F(DoctorTest, FindsTheFolderThatMailProcessesMayNotEnter) {
  fs::permissions(world_.folder() / "spool", fs::perms(0750));
  ExpectFailure("mail processes", (world_.folder() / "spool") + ": Permission denied",
                "let the group of mail_access_groups use this folder");
}

TEST_F(DoctorTest, FindsAnExportFromBeforeTheFolderHadItsGroup) {
  Give(Folder(), 0, 0755);
  Do({"export", "dovecot", "--output", Settings()});
  Give(Folder(), World::kMailGroup, 01771);
  EXPECT_THAT(Failed(), ElementsAre("dovecot warnings", "mail processes"));
  EXPECT_THAT(Examine().output,
              AllOf(HasSubstr("mail is not in mail_access_groups, and is the group of " + Folder()),
                    HasSubstr("  -> quillonctl export dovecot --output " + Settings() +
                              " && doveadm reload\n")));
}

TEST_F(DoctorTest, IsNotLedAstrayByWarningsOfDovecot) {
  Configure("ssl_protocols = !SSLv3\n");
  EXPECT_THAT(Failed(), IsEmpty());
}

TEST_F(DoctorTest, FindsAPluginThatIsNotLoaded) {
  Configure("protocol lmtp {\n  mail_plugins = quota\n}\n");
  ExpectFailure("dovecot plugins", "the plugin quota_clone is not loaded for lmtp",
                "add quota and quota_clone: $mail_plugins stands only for");
}

TEST_F(DoctorTest, FindsWhatASingleProtocolHasOtherwise) {
  Configure("protocol lmtp {\n  recipient_delimiter = +\n}\n");
  ExpectFailure("dovecot names", "recipient_delimiter for lmtp is \"+\", and has to be \"\"",
                "grep -rn recipient_delimiter");
}

TEST_F(DoctorTest, FindsOtherRulesAndPlaces) {
  const std::string settings = world_.folder().Read("dovecot/dovecot.conf");
  for (const auto& [line, key] : std::vector<std::pair<std::string, std::string>>{
           {"plugin {\n  quota_rule2 = Trash:storage=+100M\n}\n", "plugin/quota_rule2"},
           {"plugin {\n  quota_vsizes = yes\n}\n", "plugin/quota_vsizes"},
           {"plugin {\n  quota_warning = storage=95%% quota-warning 95 %u\n}\n",
            "plugin/quota_warning"},
           {"namespace inbox {\n  inbox = yes\n  location = maildir:/srv/%u\n}\n",
            "namespace/inbox/location"},
           {"auth_cache_size = 10M\n", "auth_cache_size"}}) {
    world_.folder().Write("dovecot/dovecot.conf", settings + line);
    ExpectFailure("dovecot quota", key + " for lmtp is \"", "take it out where it is set so");
  }
}

TEST_F(DoctorTest, FindsWarningsThatAreNotLeft) {
  const std::string settings = world_.folder().Read("dovecot/dovecot.conf");
  for (const auto& [line, key] : std::vector<std::pair<std::string, std::string>>{
           {"executable = script /bin/true", "executable"},
           {"user = nobody", "user"},
           {"unix_listener quota-warning {\n mode = 0600\n}", "mode"},
           {"unix_listener quota-warning {\n group = root\n}", "group"}}) {
    world_.folder().Write("dovecot/dovecot.conf",
                          settings + "service quota-warning {\n  " + line + "\n}\n");
    ExpectFailure("dovecot warnings", key + " is \"", "grep -rn " + key);
  }
  world_.folder().Write("dovecot/dovecot.conf", settings);
  ReplaceInSettings("[quota]\n", "[quota]\nwarning_message = \"/nonexistent/message\"\n");
  ExpectFailure("dovecot warnings", "/nonexistent/message", "correct quota.warning_message");
}

TEST_F(DoctorTest, FindsAScriptThatCannotBeRun) {
  fs::permissions(Settings() + "/quillon-quota-warning", fs::perms(0644));
  ExpectFailure("dovecot export", "quillon-quota-warning has mode 0644", "chmod 0755 ");
}

TEST_F(DoctorTest, FindsAFolderOfSettingsThatAnybodyMayChange) {
  fs::permissions(Settings() + "/conf.d", fs::perms(0777));
  ExpectFailure("dovecot export", "anybody may write to " + Settings() + "/conf.d", "chmod o-w ");
}

TEST_F(DoctorTest, FindsSettingsThatAreNotIncluded) {
  std::string settings = world_.folder().Read("dovecot/dovecot.conf");
  settings.replace(settings.find("!include"), 0, "#");
  world_.folder().Write("dovecot/dovecot.conf", settings);
  ExpectFailure("dovecot settings", "does not include " + Settings() + "/conf.d/99-quillon.conf",
                "!include conf.d/*.conf");
}

TEST_F(DoctorTest, TakesTheFolderAsItIsWritten) {
  const Outcome outcome = world_.Quillonctl({"doctor", "--dovecot", Settings() + "/./"});
  EXPECT_EQ(outcome.exit_code, 0);
  EXPECT_THAT(outcome.output, HasSubstr("ok      dovecot export: as it would be exported now"));
}

TEST_F(DoctorTest, FindsAnotherKey) {
  ReplaceInSettings("[usage]\n", "[usage]\nkey_template = \"mail/{name}/quota/storage\"\n");
  ExpectFailure("dovecot usage store", ":prefix=mail/",
                "export dovecot --output " + Settings() + " && doveadm reload");
}

TEST_F(DoctorTest, FindsNamesThatAreChanged) {
  Configure("auth_username_format = %Lu\n");
  ExpectFailure("dovecot names", "auth_username_format for lmtp is \"%Lu\", and has to be \"%u\"",
                "grep -rn auth_username_format " + Settings());
}

TEST_F(DoctorTest, FindsALimitThatIsNotHeldToTheByte) {
  Configure("plugin {\n  quota_grace = 10%%\n}\n");
  ExpectFailure("dovecot quota", "quota_grace for lmtp is \"10%%\", and has to be \"0\"",
                "grep -rn quota_grace");
}

TEST_F(DoctorTest, FindsSettingsThatDovecotDoesNotUnderstand) {
  Configure("quota_what = 1\n");
  EXPECT_THAT(Examine().output, AllOf(HasSubstr("failed  dovecot settings: "),
                                      HasSubstr("Unknown setting: quota_what"),
                                      HasSubstr("doveconf -n -c " + Settings() + "/dovecot.conf")));
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
  ExpectFailure("dovecot server", "failed: ", "start Dovecot");
}

TEST_F(DoctorTest, FindsADovecotWithOldSettings) {
  const fs::path settings = Settings() + "/conf.d/99-quillon.conf";
  fs::last_write_time(settings, fs::file_time_type::clock::now() + std::chrono::hours(1));
  ExpectFailure("dovecot server", settings.string() + " has changed since Dovecot has read it",
                "doveadm reload");
}

TEST_F(DoctorTest, FindsAnotherUserdbThatKnowsTheUsers) {
  dovecot_.reset();
  const std::string settings = Settings() + "/conf.d/99-quillon.conf";
  std::string text = world_.folder().Read("dovecot/conf.d/99-quillon.conf");
  text = "userdb {\n  driver = static\n  args = uid=1001 gid=100 home=/nonexistent\n}\n" + text;
  world_.folder().Write("dovecot/conf.d/99-quillon.conf", text);
  dovecot_ = std::make_unique<Dovecot>(Settings());
  ExpectFailure("dovecot userdb", "of Dora is \"", "in the place of \"!include auth-system");
}

TEST_F(DoctorTest, SaysWhenWhatWasExportedIsOld) {
  world_.folder().Write("dovecot/conf.d/99-quillon.conf",
                        world_.folder().Read("dovecot/conf.d/99-quillon.conf") + "# mine\n");
  const Outcome outcome = Examine();
  EXPECT_EQ(outcome.exit_code, 0);
  EXPECT_THAT(outcome.output, HasSubstr("note    dovecot export: " + Settings() +
                                        "/conf.d/99-quillon.conf is not as it would be exported"));
}

TEST_F(DoctorTest, LooksAtADovecotThatIsSetUpOnly) {
  fs::remove(Settings() + "/conf.d/99-quillon.conf");
  EXPECT_THAT(Failed(), ElementsAre("dovecot settings", "dovecot export"));
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
