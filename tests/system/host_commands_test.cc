#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/parse_json.h"
#include "support/program.h"
#include "support/redis_server.h"
#include "support/temporary_folder.h"
#include "system/terminal.h"
#include "system/web_server.h"
#include "system/world.h"

namespace quillon::test {
namespace {

using testing::EndsWith;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::Not;
using testing::StartsWith;

// A host that calls another, whose web server is on loopback.
class HostCommandsTest : public testing::Test {
 protected:
  HostCommandsTest()
      : server_(
            fmt::format("max_sessions_per_account = 2\n[usage]\nsocket = \"{}\"", redis_.socket())),
        host_(fmt::format("127.0.0.1:{}", server_.https_port())) {
    folder_.Write("mailserver.toml",
                  fmt::format("[quota]\nstore = \"sqlite://{0}/quota.db\"\n"
                              "[cluster]\ntrusted_hosts = \"{0}/trusted-hosts\"\n"
                              "[web]\nhttp_port = 5080\n"
                              "[log]\ntarget = \"file\"\nfile = \"{0}/log\"\n",
                              folder_.path().string()));
    SetPassword(kWebPassword);
  }

  void SetPassword(const std::string& password) {
    const std::string file = folder_.Write("password", password + "\n");
    std::filesystem::permissions(file, std::filesystem::perms(0600));
  }

  std::vector<std::string> CommandLine(const std::vector<std::string>& arguments) const {
    std::vector<std::string> command = {QuillonctlPath(), "--config", folder_ / "mailserver.toml"};
    command.insert(command.end(), arguments.begin(), arguments.end());
    return command;
  }
  Outcome Ctl(const std::vector<std::string>& arguments, const std::string& input = "") const {
    return test::Run(CommandLine(arguments), input);
  }
  // With the password of an account.
  Outcome As(const std::string& account, std::vector<std::string> arguments,
             const std::string& input = "") const {
    arguments.insert(arguments.end(),
                     {"--account", account, "--password-file", folder_ / "password"});
    return Ctl(arguments, input);
  }
  // On the other host.
  Outcome There(std::vector<std::string> arguments, const std::string& input = "") const {
    arguments.insert(arguments.begin(), {"--host", host_});
    return As("boss", arguments, input);
  }
  void Trust() const { ASSERT_EQ(Ctl({"host", "trust", host_, "--yes"}).exit_code, 0); }
  std::string Log() const { return folder_.Read("log"); }
  // Alice's, with one message of 5 bytes.
  std::string AddMaildirThere() const {
    const std::string maildir = server_.folder() / "spool/local/alice";
    for (const char* part : {"/cur", "/new", "/tmp"}) {
      std::filesystem::create_directories(maildir + part);
    }
    server_.folder().Write("spool/local/alice/new/1.M1P1.host", "mail\n");
    EXPECT_EQ(test::Run({"chown", "-R", "1001", maildir}).exit_code, 0);
    return maildir;
  }

  TemporaryFolder folder_;
  RedisServer redis_;
  WebServer server_;
  const std::string host_;
};

TEST_F(HostCommandsTest, SetsAQuotaOnAnotherHostAndReportsIt) {
  Trust();
  Outcome outcome =
      There({"user", "set-quota", "--limit", "2K", "--warning", "1K", "--json", "alice"});
  EXPECT_EQ(outcome.error, "");
  EXPECT_EQ(outcome.exit_code, 0);
  outcome = There({"user", "list", "--json", "alice"});
  EXPECT_EQ(outcome.error, "");
  EXPECT_EQ(Column(Parse(outcome.output), "limit"), std::vector<std::string>{"2048"});
  EXPECT_EQ(Column(Parse(outcome.output), "warning"), std::vector<std::string>{"1024"});
  EXPECT_FALSE(std::filesystem::exists(folder_ / "quota.db"));  // nothing was done here
}

TEST_F(HostCommandsTest, AdministersGroupsPrivilegesAndMailThere) {
  Trust();
  const std::string maildir = AddMaildirThere();
  EXPECT_EQ(There({"group", "set-quota", "--limit", "2K", "--warning", "1K", "users"}).output,
            "quota of 1 group set: limit 2K, warning 1K\n");
  EXPECT_THAT(There({"group", "list", "users"}).output, HasSubstr("\nusers     2K       1K\n"));
  EXPECT_EQ(There({"group", "share-quota", "users"}).output, "share quota of users: -\n");
  EXPECT_EQ(There({"privilege", "revoke", "alice"}).exit_code, 0);
  EXPECT_THAT(There({"privilege", "list"}).output, HasSubstr("\nalice  VELA.WUI.MailClient."));
  EXPECT_EQ(There({"user", "show", "alice"}).output,
            "NAME   MAIL CLIENT  LIMIT  SHARE QUOTA  USAGE  MAILDIR\n"
            "alice  no              2K            -      -  " +
                maildir + "\n1 user, 0B used\n");
  const Outcome outcome = There({"user", "clear-storage", "--yes", "alice"});
  EXPECT_EQ(outcome.error, "");
  EXPECT_THAT(outcome.output, EndsWith("\n1 mail directory removed, 5B in 1 message\n"));
  EXPECT_FALSE(std::filesystem::exists(maildir));
  EXPECT_FALSE(std::filesystem::exists(folder_ / "quota.db"));  // nothing was done here
}

TEST_F(HostCommandsTest, AMonitorSeesGroupsAndPrivilegesAndChangesNone) {
  Trust();
  const std::string maildir = AddMaildirThere();
  const auto watch = [this](std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), {"--host", host_});
    return As("watcher", arguments);
  };
  for (const std::vector<std::string>& seen : {std::vector<std::string>{"user", "show", "alice"},
                                               {"group", "list", "users"},
                                               {"group", "share-quota", "users"},
                                               {"privilege", "list"}}) {
    EXPECT_EQ(watch(seen).error, "");
  }
  for (const std::vector<std::string>& refused :
       {std::vector<std::string>{"user", "clear-storage", "--yes", "alice"},
        {"user", "clear-storage", "--dry-run", "alice"},
        {"group", "clear-quota", "users"},
        {"privilege", "revoke", "alice"}}) {
    const Outcome outcome = watch(refused);
    EXPECT_EQ(outcome.exit_code, 1);
    EXPECT_THAT(outcome.error, EndsWith("(error 403)\n"));
  }
  EXPECT_TRUE(std::filesystem::exists(maildir));
}

TEST_F(HostCommandsTest, ImportsAFileThereByteForByte) {
  Trust();
  EXPECT_EQ(There({"user", "import-quota", "-"}, "name,limit,warning\nalice,2K,1K\n").output,
            "quota of 1 user set\n");
  // A JSON document would have carried a replacement character, which is UTF-8.
  const Outcome outcome = There({"user", "import-quota", "-"}, "al\xff,2K,1K\n");
  EXPECT_EQ(outcome.exit_code, 1);
  EXPECT_THAT(outcome.error, StartsWith("quillonctl: -:1: the text is not UTF-8\n"));
}

TEST_F(HostCommandsTest, AWrongPasswordAndAnUnknownAccountAreRefused) {
  Trust();
  SetPassword("wrong horse");
  for (const char* account : {"boss", "nobody-known"}) {
    const Outcome outcome = As(account, {"--host", host_, "user", "clear-quota", "alice"});
    EXPECT_EQ(outcome.exit_code, 1);
    EXPECT_EQ(outcome.output, "");
    EXPECT_EQ(outcome.error,
              "quillonctl: 127.0.0.1 could not be called or refused the login; the mail log has "
              "the reason\n");
    EXPECT_THAT(Log(), HasSubstr(fmt::format("login as {} at 127.0.0.1 failed", account)));
  }
  EXPECT_THAT(Log(), Not(HasSubstr("wrong horse")));
}

TEST_F(HostCommandsTest, AMonitorMayNotChangeAnything) {
  Trust();
  const Outcome outcome = As("watcher", {"--host", host_, "user", "clear-quota", "alice"});
  EXPECT_EQ(outcome.exit_code, 1);
  EXPECT_THAT(outcome.error, EndsWith("(error 403)\n"));
}

TEST_F(HostCommandsTest, TakesThePasswordFromADescriptorAndLeavesTheRest) {
  Trust();
  const Outcome outcome = Ctl({"--host", host_, "--account", "boss", "--password-fd", "0", "user",
                               "clear-quota", "--json", "-"},
                              std::string(kWebPassword) + "\nalice\n");
  EXPECT_EQ(outcome.error, "");
  EXPECT_EQ(outcome.exit_code, 0);
  EXPECT_THAT(outcome.output, HasSubstr("alice"));
}

TEST_F(HostCommandsTest, APasswordFileOfOthersIsNotUsed) {
  Trust();
  const std::string file = folder_ / "password";
  EXPECT_EQ(There({"user", "list"}).exit_code, 0);
  for (const auto mode : {0640, 0620, 0604, 0602}) {
    std::filesystem::permissions(file, std::filesystem::perms(mode));
    const Outcome outcome = There({"user", "list"});
    EXPECT_EQ(outcome.exit_code, 1);
    EXPECT_EQ(outcome.output, "");
    EXPECT_EQ(outcome.error,
              "quillonctl: " + file + ": others may read or write this file, it is not used\n");
  }
  std::filesystem::permissions(file, std::filesystem::perms(0600));
  ASSERT_EQ(::chown(file.c_str(), 1001, 0), 0);
  EXPECT_EQ(There({"user", "list"}).error,
            "quillonctl: " + file + ": belongs to another user, it is not used\n");
}

TEST_F(HostCommandsTest, AsksForThePasswordOnceAndShowsNothingOfIt) {
  Trust();
  const Outcome outcome = Converse(
      CommandLine({"host", "call", host_, "Quillon.MailServer.User", "names", "--account", "boss"}),
      {{"Password of boss: ", std::string(kWebPassword) + "\n"}});
  EXPECT_EQ(outcome.exit_code, 0);
  EXPECT_THAT(outcome.output, HasSubstr("alice"));
  EXPECT_THAT(outcome.output, Not(HasSubstr(kWebPassword)));
}

TEST_F(HostCommandsTest, AHostMustBeTrustedAndKeepItsKey) {
  EXPECT_EQ(There({"user", "list"}).exit_code, 1);

  const Outcome asked =
      Converse(CommandLine({"host", "trust", host_}), {{"Trust it? [y/N] ", "y\n"}});
  EXPECT_EQ(asked.exit_code, 0);
  EXPECT_THAT(asked.output, HasSubstr(host_ + " has the key sha256//"));
  EXPECT_THAT(Ctl({"host", "trust", host_, "--yes"}).output,
              EndsWith("this key is trusted already\n"));
  EXPECT_THAT(Ctl({"host", "trust", "--list"}).output, HasSubstr(host_ + "  sha256//"));
  const Json::Value list = Parse(Ctl({"host", "trust", "--list", "--json"}).output)["hosts"];
  ASSERT_EQ(list.size(), 1U);
  EXPECT_EQ(list[0]["host"], "127.0.0.1");
  EXPECT_EQ(list[0]["port"], server_.https_port());
  EXPECT_THAT(list[0]["key"].asString(), StartsWith("sha256//"));
  EXPECT_EQ(As("boss", {"host", "call", host_, "VELA.Core.Web.TARN", "get"}).exit_code, 0);

  // The host has another key now.
  const std::string file = folder_ / "trusted-hosts";
  const std::string other(43, 'A');
  folder_.Write("trusted-hosts", host_ + " sha256//" + other + "=\n");
  EXPECT_EQ(As("boss", {"host", "call", host_, "VELA.Core.Web.TARN", "get"}).exit_code, 1);
  const Outcome refused =
      Converse(CommandLine({"host", "trust", host_}), {{"Trust it? [y/N] ", "n\n"}});
  EXPECT_EQ(refused.exit_code, 1);
  EXPECT_THAT(refused.output, HasSubstr("which is NOT the key that is trusted: sha256//" + other));
  EXPECT_THAT(folder_.Read("trusted-hosts"), HasSubstr(other));

  EXPECT_EQ(Ctl({"host", "trust", host_, "--remove"}).exit_code, 0);
  EXPECT_EQ(Ctl({"host", "trust", host_, "--remove"}).error,
            fmt::format("quillonctl: no key of {} is known\n", host_));
}

TEST_F(HostCommandsTest, ProbesAWebServer) {
  Trust();
  Outcome outcome = Ctl({"host", "probe", host_});
  EXPECT_EQ(outcome.exit_code, 0);
  EXPECT_EQ(outcome.output, fmt::format("https://{} answers\n", host_));
  outcome = Ctl({"host", "probe", "127.0.0.1:1", "--protocol", "http"});
  EXPECT_EQ(outcome.exit_code, 1);
  EXPECT_EQ(outcome.output, "http://127.0.0.1:1 does not answer\n");
  outcome = Ctl({"host", "probe", "127.0.0.1:1", "--json"});
  EXPECT_EQ(outcome.exit_code, 1);
  const Json::Value servers = Parse(outcome.output)["servers"];
  ASSERT_EQ(servers.size(), 1U);
  EXPECT_EQ(servers[0]["protocol"], "https");
  EXPECT_EQ(servers[0]["port"], 1);
  EXPECT_EQ(servers[0]["answers"], false);
  outcome = Ctl({"host", "probe", "127.255.255.254"});
  EXPECT_EQ(outcome.exit_code, 1);
  EXPECT_EQ(outcome.output,
            "http://127.255.255.254:5000 does not answer\n"
            "https://127.255.255.254:5001 does not answer\n");
}

TEST_F(HostCommandsTest, CallsAnyAPI) {
  Trust();
  Outcome outcome = As("boss",
                       {"host", "call", host_, "Quillon.MailServer.Quota", "import", "--upload",
                        "file=-", "--params", R"({"dry_run":true})"},
                       "alice,2K,1K\n");
  EXPECT_EQ(outcome.exit_code, 0) << outcome.error;
  EXPECT_EQ(Parse(outcome.output)["data"]["rows"].asInt(), 1);

  outcome = As("boss", {"host", "call", host_, "No.Such", "get", "--version", "2"});
  EXPECT_EQ(outcome.exit_code, 1);
  EXPECT_EQ(Parse(outcome.output)["error"]["code"].asInt(), 404);
  EXPECT_THAT(outcome.error, EndsWith("(error 404)\n"));
}

TEST_F(HostCommandsTest, ABatchMarksJustTheCallThatFailed) {
  Trust();
  const auto entry = [](const std::string& host) {
    return fmt::format(R"({{"host":"{}","protocol":"https","request":{{"api":"VELA.Core.Web.TARN",)"
                       R"("version":1,"method":"get"}}}})",
                       host);
  };
  const std::string list =
      fmt::format("[{},{},{}]", entry(host_), entry("127.0.0.1:1"), entry(host_));
  const Outcome outcome = As("boss", {"host", "batch", "-"}, list);
  EXPECT_EQ(outcome.exit_code, 1);
  EXPECT_EQ(outcome.error, "quillonctl: 1 of 3 calls failed\n");
  const Json::Value responses = Parse(outcome.output);
  ASSERT_EQ(responses.size(), 3U);
  EXPECT_EQ(responses[0]["data"]["https_port"].asInt(), server_.https_port());
  EXPECT_EQ(responses[1]["success"], false);
  EXPECT_EQ(responses[2]["success"], true);

  EXPECT_EQ(As("boss", {"host", "batch", "-"}, "[" + entry(host_) + "]").exit_code, 0);
}

TEST_F(HostCommandsTest, ABadBatchIsRefusedBeforeItsFirstCall) {
  const auto failure = [this](const std::string& list) {
    const Outcome outcome = Ctl({"host", "batch", "-"}, list);
    EXPECT_EQ(outcome.exit_code, 1);
    EXPECT_EQ(outcome.output, "");
    return outcome.error;
  };
  const std::string request = R"("request":{"api":"A","version":1,"method":"m"})";
  EXPECT_EQ(failure("{}"), "quillonctl: -: is not a JSON list of calls\n");
  EXPECT_EQ(failure("[5]"), "quillonctl: -: entry 1: is not an object\n");
  EXPECT_EQ(failure(R"([{"host":"h",)" + request + "}]"),
            "quillonctl: -: entry 1: has no account, and there is no --account\n");
  EXPECT_EQ(failure(R"([{"hots":"h"}])"), "quillonctl: -: entry 1: \"hots\" is not known\n");
  EXPECT_THAT(failure(R"([{"host":"h","account":"a","request":[]}])"),
              StartsWith("quillonctl: -: entry 1: \"request\" needs"));
}

TEST_F(HostCommandsTest, ShowsTheStatusOfThisHost) {
  const Outcome outcome = Ctl({"host", "status"});
  EXPECT_EQ(outcome.exit_code, 0);
  EXPECT_THAT(outcome.output,
              MatchesRegex("HOST +CPU +MEMORY +UPLOAD +DOWNLOAD +PORT\n"
                           "this host +[0-9]+% +[0-9]+% +[^ ]+/s +[^ ]+/s +5080\n"));
}

// A second web server with the same key, on the port where one is looked for, on an address of this
// process's own.
TEST_F(HostCommandsTest, ShowsTheStatusOfHostsAndWhichIsUnreachable) {
  const std::string address =
      fmt::format("127.{}.{}.1", 1 + (::getpid() >> 8) % 250, ::getpid() % 256);
  std::string settings = server_.folder().Read("mailserver.toml");
  settings.replace(settings.find("[web]"), settings.find("state_folder") - settings.find("[web]"),
                   fmt::format("[web]\naddress = \"{}\"\nhttps_port = 5001\n", address));
  const std::string file = folder_.Write("second.toml", settings);
  const BackgroundProgram second({QUILLON_WEBAPID, "--config", file}, folder_ / "output");
  ASSERT_TRUE(Eventually([&] {
    return Ctl({"host", "trust", address, "--yes"}).exit_code == 0;
  })) << folder_.Read("output");

  Outcome outcome = As("watcher", {"host", "status", address, address});
  EXPECT_EQ(outcome.exit_code, 0) << Log();
  const std::string row = address + " +[0-9]+% +[0-9]+% +[^ ]+/s +[^ ]+/s +off\n";
  EXPECT_THAT(outcome.output, MatchesRegex("HOST [^\n]*PORT\n" + row + row));

  outcome = As("watcher", {"host", "status", address, "127.255.255.254"});
  EXPECT_EQ(outcome.exit_code, 1);
  EXPECT_THAT(outcome.output, MatchesRegex("HOST [^\n]*PORT\n" + row +
                                           "127.255.255.254 +unreachable +- +- +- +-\n"));
  EXPECT_THAT(outcome.error, StartsWith("quillonctl: 1 of 2 hosts did not give their figures"));

  outcome = As("watcher", {"host", "status", address, "127.255.255.254", "--json"});
  const Json::Value hosts = Parse(outcome.output)["hosts"];
  EXPECT_EQ(hosts[0]["host"], address);
  EXPECT_TRUE(hosts[0]["cpu"].isInt());
  EXPECT_EQ(hosts[1]["reachable"], false);
}

TEST_F(HostCommandsTest, TheStatusOfAnIPv6AddressNeedsNoBrackets) {
  const Outcome outcome = As("watcher", {"host", "status", "::2"});
  EXPECT_EQ(outcome.exit_code, 1);
  EXPECT_THAT(outcome.output, HasSubstr("\n::2 "));
  EXPECT_THAT(Log(), HasSubstr("Cred Error:[http://[::2]:5000]"));
}

TEST_F(HostCommandsTest, TheStatusIsNotAskedForOverAnotherProtocolThanIsSaid) {
  const Outcome outcome = As("watcher", {"--protocol", "https", "host", "status", "127.0.0.1"});
  EXPECT_EQ(outcome.exit_code, 2);
  EXPECT_EQ(outcome.output, "");
  EXPECT_THAT(outcome.error, StartsWith("quillonctl: --protocol: "));
}

TEST_F(HostCommandsTest, TheStatusTellsOnATerminalWhoIsBeingAsked) {
  const Outcome outcome =
      RunOnTerminal(CommandLine({"host", "status", "127.255.255.254", "127.255.255.253",
                                 "--account", "watcher", "--password-file", folder_ / "password"}),
                    {}, "");
  EXPECT_THAT(outcome.output, HasSubstr("\rasking 127.255.255.254 (1 of 2)"));
  EXPECT_THAT(outcome.output, HasSubstr("\rasking 127.255.255.253 (2 of 2)"));
}

// The keys of its connections stay its own, whatever file the environment names for them.
TEST_F(HostCommandsTest, KeysAreNotWrittenToAFile) {
  Trust();
  std::vector<std::string> command = CommandLine({"host", "probe", host_});
  command.insert(command.begin(), {"env", "SSLKEYLOGFILE=" + (folder_ / "keys")});
  EXPECT_EQ(test::Run(command).exit_code, 0);
  EXPECT_FALSE(std::filesystem::exists(folder_ / "keys"));
}

TEST_F(HostCommandsTest, ShowsTheStatusAgainAndAgain) {
  std::vector<std::string> command = CommandLine({"host", "status", "--watch", "1"});
  command.insert(command.begin(), {"timeout", "3"});
  const Outcome outcome = test::Run(command);
  EXPECT_EQ(outcome.exit_code, 124);
  EXPECT_THAT(outcome.output, MatchesRegex("HOST.*\nthis host.*\nHOST.*\nthis host.*\n"));
  EXPECT_THAT(outcome.output, Not(HasSubstr("\x1b")));
}

TEST_F(HostCommandsTest, PrintsATokenForOtherPrograms) {
  Trust();
  const Outcome outcome = As("boss", {"token", host_});
  EXPECT_EQ(outcome.error, "");
  ASSERT_THAT(outcome.output, MatchesRegex("[A-Za-z0-9_-]{43}\n"));
  const std::string token = outcome.output.substr(0, outcome.output.size() - 1);
  const WebAnswer answer = server_.Call(token, kNames);
  EXPECT_EQ(answer.status, 200);
  EXPECT_EQ(answer.envelope["data"]["names"][0], "alice");

  // The calls of the library itself end no session but each other's.
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(As("boss", {"host", "call", host_, "VELA.Core.Web.TARN", "get"}).exit_code, 0);
  }
  EXPECT_EQ(server_.Call(token, kNames).status, 200);

  SetPassword("wrong horse");
  const Outcome refused = As("boss", {"token", host_});
  EXPECT_EQ(refused.exit_code, 1);
  EXPECT_EQ(refused.output, "");
}

}  // namespace
}  // namespace quillon::test
