// Two hosts of a cluster, each with its own network, files, stores and web server: what one of them
// does on the other, and who is kept out.
#include "system/two_hosts.h"

#include <sys/types.h>

#include <csignal>
#include <cstddef>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <json/value.h>
#include <json/writer.h>

#include "support/child_processes.h"
#include "support/parse_json.h"
#include "system/web_server.h"
#include "system/world.h"

namespace quillon::test {
namespace {

using testing::AllOf;
using testing::ContainsRegex;
using testing::EndsWith;
using testing::Ge;
using testing::HasSubstr;
using testing::Le;
using testing::MatchesRegex;
using testing::Not;
using testing::StartsWith;

// On the network of the two, and nobody's.
constexpr char kNobodysAddress[] = "10.99.0.77";

const std::vector<std::string> kListAlice = {"user", "list", "--json", "alice"};

std::vector<std::string> SetQuotaOfAlice(const std::string& limit, const std::string& warning) {
  return {"user", "set-quota", "--limit", limit, "--warning", warning, "alice"};
}

std::vector<std::string> OnB(std::vector<std::string> command) {
  command.insert(command.begin(), {"--host", "hostb"});
  return command;
}

// hosta trusts the key that hostb has now.
void Trust(const TwoHosts& hosts) {
  const Outcome outcome = hosts.a.Quillonctl({"host", "trust", "hostb", "--yes"});
  ASSERT_EQ(outcome.exit_code, 0) << outcome.error;
}

// For hosta, which trusts it.
void ExpectThatBServes(const TwoHosts& hosts) {
  const Outcome outcome = hosts.a.As("boss", OnB(kListAlice));
  EXPECT_EQ(outcome.exit_code, 0) << outcome.error << hosts.a.Log();
}

// hosta is told no more than that, and its log has the reason.
void ExpectThatBIsNotCalled(const TwoHosts& hosts, const std::string& reason) {
  const Outcome outcome = hosts.a.As("boss", OnB(kListAlice));
  EXPECT_EQ(outcome.exit_code, 1);
  EXPECT_EQ(outcome.output, "");
  EXPECT_EQ(
      outcome.error,
      "quillonctl: hostb could not be called or refused the login; the mail log has the reason\n");
  EXPECT_THAT(hosts.a.Log(), HasSubstr(reason));
}

// A call of any HTTP client on hosta, which has hostb's certificate.
WebAnswer Post(const TwoHosts& hosts, const std::string& body, const std::string& token = "") {
  const std::string authorization =
      token.empty() ? "" : fmt::format("--header 'Authorization: Bearer {}'", token);
  const Outcome outcome = hosts.a.Shell(
      fmt::format("curl --silent --cacert {} --header 'Content-Type: application/json' {} "
                  "--data-binary @- --write-out '%{{http_code}}' https://hostb:5001/webapi",
                  kCertificateOfB, authorization),
      body);
  EXPECT_EQ(outcome.exit_code, 0) << outcome.error;
  WebAnswer answer;
  answer.text = outcome.output;
  if (answer.text.size() > 3) {
    answer.status = std::stoi(answer.text.substr(answer.text.size() - 3));
    answer.envelope = Parse(answer.text.substr(0, answer.text.size() - 3));
  }
  return answer;
}

// A login on hostb by a client on hosta that shares no code with this system.
Outcome ForeignLogin(const TwoHosts& hosts, const std::string& account,
                     const std::string& password) {
  return hosts.a.machine().Run(
      {"python3", LOGIN_SCRIPT, "https://hostb:5001/webapi", kCertificateOfB, account},
      password + "\n");
}

Json::Value StatusOfB(const TwoHosts& hosts) {
  const Outcome outcome = hosts.a.As("watcher", {"host", "status", "--json", "hostb"});
  EXPECT_EQ(outcome.exit_code, 0) << outcome.error;
  return Parse(outcome.output)["hosts"][0];
}

TEST_F(TwoHostsTest, ShowTheLoadOfBoth) {
  const TwoHosts hosts;
  const std::vector<std::string> status = {"host", "status", "hosta", "hostb"};
  const std::string row_of_a = "hosta +[0-9]+% +[0-9]+% +[^ ]+/s +[^ ]+/s +5000\n";
  Outcome outcome = hosts.a.As("watcher", status);
  EXPECT_EQ(outcome.exit_code, 1);
  EXPECT_THAT(outcome.output,
              MatchesRegex("HOST [^\n]*PORT\n" + row_of_a + "hostb +unreachable +- +- +- +-\n"));
  EXPECT_THAT(hosts.a.Log(), HasSubstr("to trust the key of this host without an authority, run: "
                                       "quillonctl host trust hostb"));

  Trust(hosts);
  outcome = hosts.a.As("watcher", status);
  EXPECT_EQ(outcome.exit_code, 0) << outcome.error;
  EXPECT_THAT(outcome.output, MatchesRegex("HOST [^\n]*PORT\n" + row_of_a +
                                           "hostb +[0-9]+% +[0-9]+% +[^ ]+/s +[^ ]+/s +off\n"));

  outcome = hosts.a.As("watcher", {"host", "status", "--json", "hosta", "hostb"});
  const Json::Value figures = Parse(outcome.output)["hosts"];
  ASSERT_EQ(figures.size(), 2U);
  for (const Json::Value& host : figures) {
    EXPECT_TRUE(host["reachable"].asBool());
    EXPECT_THAT(host["cpu"].asInt(), AllOf(Ge(0), Le(100)));
    EXPECT_THAT(host["ram"].asInt(), AllOf(Ge(1), Le(100)));
    EXPECT_GE(host["network_upload"].asInt(), 0);
    EXPECT_GE(host["network_download"].asInt(), 0);
  }
  EXPECT_EQ(figures[0]["http_port"], 5000);
  EXPECT_EQ(figures[1]["http_port"], 0);
}

TEST_F(TwoHostsTest, FollowTheTrafficBetweenThem) {
  const TwoHosts hosts;
  Trust(hosts);
  constexpr int kMuch = 500000;  // bytes per second
  const auto download = [&] { return StatusOfB(hosts)["network_download"].asInt(); };
  EXPECT_LT(download(), kMuch);
  EXPECT_TRUE(Eventually([&] {
    EXPECT_EQ(Post(hosts, std::string(6000000, 'x')).status, 401);
    return download() > kMuch;
  }));
  EXPECT_TRUE(Eventually([&] { return download() < kMuch; }));
}

TEST_F(TwoHostsTest, SetAQuotaOnTheOtherOnly) {
  const TwoHosts hosts;
  Trust(hosts);
  ASSERT_EQ(hosts.a.Quillonctl(SetQuotaOfAlice("9K", "8K")).exit_code, 0);

  const Outcome outcome = hosts.a.As("boss", OnB(SetQuotaOfAlice("2K", "1K")));
  EXPECT_EQ(outcome.error, "");
  EXPECT_EQ(outcome.output, "quota of 1 user set: limit 2K, warning 1K\n");

  const auto limit_and_warning = [](const Outcome& report) {
    const Json::Value user = Parse(report.output)["users"][0];
    return user["limit"].asString() + " " + user["warning"].asString();
  };
  EXPECT_EQ(limit_and_warning(hosts.a.As("boss", OnB(kListAlice))), "2048 1024");
  EXPECT_EQ(limit_and_warning(hosts.b.Quillonctl(kListAlice)), "2048 1024");
  EXPECT_EQ(limit_and_warning(hosts.a.Quillonctl(kListAlice)), "9216 8192");
  const Outcome users = hosts.a.As("boss", OnB({"user", "list", "--json"}));
  EXPECT_EQ(Column(Parse(users.output), "name"), (std::vector<std::string>{"alice", "hostb-user"}));
}

TEST_F(TwoHostsTest, MarkTheOneCallOfABatchWhoseHostIsUnreachable) {
  const TwoHosts hosts;
  Trust(hosts);
  const auto entry = [](const char* host, const char* protocol) {
    return fmt::format(R"({{"host":"{}","protocol":"{}","request":{{"api":"VELA.Core.Web.TARN",)"
                       R"("version":1,"method":"get"}}}})",
                       host, protocol);
  };
  hosts.a.machine().Write("/etc/batch.json",
                          fmt::format("[{},{},{}]", entry("hostb", "https"),
                                      entry(kNobodysAddress, "https"), entry("hosta", "http")));

  const Outcome outcome = hosts.a.As("watcher", {"host", "batch", "/etc/batch.json"});
  EXPECT_EQ(outcome.exit_code, 1);
  EXPECT_EQ(outcome.error, "quillonctl: 1 of 3 calls failed\n");
  const Json::Value answers = Parse(outcome.output);
  ASSERT_EQ(answers.size(), 3U);
  EXPECT_EQ(answers[0]["success"], true);
  EXPECT_EQ(answers[0]["data"]["http_port"], 0);
  EXPECT_EQ(answers[1], Parse(R"({"success": false})"));
  EXPECT_EQ(answers[2]["success"], true);
  EXPECT_EQ(answers[2]["data"]["http_port"], 5000);
  EXPECT_THAT(hosts.a.Log(), HasSubstr("Failed to call webapi api [VELA.Core.Web.TARN] method "
                                       "[get] to host[10.99.0.77], error code [117]\n"));
}

TEST_F(TwoHostsTest, ProbeEachOther) {
  const TwoHosts hosts;
  const auto probe = [](const ClusterHost& from, const std::string& host) {
    return from.Quillonctl({"host", "probe", host}).output;
  };
  EXPECT_EQ(probe(hosts.a, "hostb"),
            "http://hostb:5000 does not answer\nhttps://hostb:5001 does not answer\n");
  Trust(hosts);
  EXPECT_EQ(probe(hosts.a, "hostb"),
            "http://hostb:5000 does not answer\nhttps://hostb:5001 answers\n");
  EXPECT_EQ(probe(hosts.b, "hosta"),
            "http://hosta:5000 answers\nhttps://hosta:5001 does not answer\n");
  EXPECT_EQ(probe(hosts.a, std::string(kNobodysAddress) + ":5001"),
            "https://10.99.0.77:5001 does not answer\n");
}

TEST_F(TwoHostsTest, DoNotSpeakPlainHttpWhereThatIsForbidden) {
  const TwoHosts hosts;
  const std::vector<std::string> list = {"--host", "hosta", "--protocol", "http", "user", "list"};
  EXPECT_EQ(hosts.b.As("boss", list).exit_code, 0);

  hosts.b.Configure("[cluster]\nallow_http = false");
  EXPECT_EQ(hosts.b.As("boss", list).exit_code, 1);
  EXPECT_EQ(hosts.b.Quillonctl({"host", "probe", "hosta"}).output,
            "http://hosta:5000 does not answer\nhttps://hosta:5001 does not answer\n");
  EXPECT_THAT(hosts.b.Log(), HasSubstr("plain HTTP is forbidden by cluster.allow_http"));

  ASSERT_EQ(hosts.b.Quillonctl({"host", "trust", "hosta", "--yes"}).exit_code, 0);
  // The status finds the way over TLS.
  EXPECT_EQ(hosts.b.As("boss", {"host", "status", "hosta"}).exit_code, 0);
}

TEST_F(TwoHostsTest, DoNotTellAWrongPasswordFromAnUnknownAccount) {
  const TwoHosts hosts;
  Trust(hosts);
  hosts.a.SetPassword("wrong horse");
  for (const char* account : {"boss", "nobody-known"}) {
    const Outcome outcome = hosts.a.As(account, OnB(SetQuotaOfAlice("2K", "1K")));
    EXPECT_EQ(outcome.exit_code, 1);
    EXPECT_EQ(outcome.output, "");
    EXPECT_EQ(outcome.error,
              "quillonctl: hostb could not be called or refused the login; the mail log has the "
              "reason\n");
    EXPECT_THAT(hosts.a.Log(), HasSubstr(fmt::format("login as {} at hostb failed: refused by the "
                                                     "host: login refused\n",
                                                     account)));
  }
  const Outcome wrong = ForeignLogin(hosts, "boss", "wrong horse");
  const Outcome unknown = ForeignLogin(hosts, "nobody-known", "wrong horse");
  EXPECT_EQ(wrong.exit_code, 1);
  EXPECT_THAT(wrong.output, StartsWith("401 {"));
  EXPECT_EQ(unknown.output, wrong.output);
  EXPECT_THAT(hosts.a.Log() + hosts.b.Log(), Not(HasSubstr("wrong horse")));

  hosts.a.SetPassword(kWebPassword);
  ExpectThatBServes(hosts);
}

TEST_F(TwoHostsTest, RefuseATokenThatHasExpired) {
  const TwoHosts hosts("session_lifetime = 2");
  Trust(hosts);
  std::string token = hosts.a.As("boss", {"token", "hostb"}).output;
  ASSERT_THAT(token, EndsWith("\n"));
  token.pop_back();
  const WebAnswer fresh = Post(hosts, kNames, token);
  EXPECT_EQ(fresh.status, 200) << fresh.text;
  WebAnswer last;
  EXPECT_TRUE(Eventually([&] {
    last = Post(hosts, kNames, token);
    return last.status != 200;
  }));
  ExpectRefusal(last, 401);
  ExpectThatBServes(hosts);
}

TEST_F(TwoHostsTest, RefuseALoginThatIsPlayedAgain) {
  const TwoHosts hosts;
  Trust(hosts);
  const Outcome login = ForeignLogin(hosts, "boss", kWebPassword);
  ASSERT_EQ(login.exit_code, 0) << login.output << login.error;
  ExpectRefusal(Post(hosts, Json::FastWriter().write(Parse(login.output)["finish"])), 401);
  EXPECT_THAT(hosts.b.Log(), HasSubstr("login from 10.99.0.1 refused: a login that was not "
                                       "started, is over or took too long\n"));
  ExpectThatBServes(hosts);
}

TEST_F(TwoHostsTest, LetAMonitorLookOnly) {
  const TwoHosts hosts;
  Trust(hosts);
  const Outcome outcome = hosts.a.As("watcher", OnB(SetQuotaOfAlice("2K", "1K")));
  EXPECT_EQ(outcome.exit_code, 1);
  EXPECT_EQ(outcome.output, "");
  EXPECT_THAT(outcome.error, EndsWith("(error 403)\n"));
  const Outcome report = hosts.a.As("watcher", OnB(kListAlice));
  EXPECT_EQ(report.exit_code, 0);
  EXPECT_TRUE(Parse(report.output)["users"][0]["limit"].isNull());
}

TEST_F(TwoHostsTest, DoNotGoOnWithAKeyThatHasChanged) {
  TwoHosts hosts;
  Trust(hosts);
  ExpectThatBServes(hosts);
  hosts.b.StopWebServer();
  std::filesystem::remove_all(hosts.b.machine().Outside("/var/lib/quillon/webapid"));
  hosts.b.StartWebServer();

  ExpectThatBIsNotCalled(hosts, "hostb:5001: the key of this host has changed: it is sha256//");
  EXPECT_THAT(hosts.a.Log(), HasSubstr("so nothing was sent; if the change is known to be right, "
                                       "run: quillonctl host trust hostb"));
  EXPECT_EQ(hosts.b.Log().find("login from", hosts.b.Log().rfind(" started")), std::string::npos);
  const Outcome trusted = hosts.a.Quillonctl({"host", "trust", "hostb", "--yes"});
  EXPECT_EQ(trusted.exit_code, 0);
  EXPECT_THAT(trusted.output, HasSubstr("which is NOT the key that is trusted: sha256//"));
  ExpectThatBServes(hosts);
}

TEST_F(TwoHostsTest, DoNotTakeAnotherHostForTheOneThatIsTrusted) {
  const TwoHosts hosts;
  Trust(hosts);
  const std::string names = hosts.a.machine().Read("/etc/hosts");
  // Whoever answers for names says that hosta is hostb, and it knows the same accounts. Nor does it
  // help that it speaks plain HTTP, too.
  hosts.a.machine().Write("/etc/hosts", "10.99.0.1 hostb\n");
  ExpectThatBIsNotCalled(hosts, "hostb:5001: the key of this host has changed");
  EXPECT_THAT(hosts.a.Log(), Not(HasSubstr("boss logged in")));

  hosts.a.machine().Write("/etc/hosts", names);
  ExpectThatBServes(hosts);
}

TEST_F(TwoHostsTest, CheckTheNameInACertificateThatAnAuthorityVouchesFor) {
  const TwoHosts hosts;
  hosts.a.Configure(fmt::format("[cluster]\nca_file = \"{}\"", kCertificateOfB));
  ExpectThatBServes(hosts);
  EXPECT_EQ(hosts.a.As("boss", {"--host", "10.99.0.2", "user", "list"}).exit_code, 1);
  EXPECT_THAT(hosts.a.Log(), ContainsRegex("10.99.0.2:5001: .*to trust the key of this host"));
}

// An upload from hosta to hostb, by a user who cannot read what is sent, held back in the middle.
class UploadTest : public TwoHostsTest {
 protected:
  static constexpr int kUser = 5001;
  static constexpr char kFile[] = "/etc/quillon/quotas.csv";
  static constexpr std::size_t kWorkers = 2;  // as many as there are by default

  void Begin() {
    hosts_ = std::make_unique<TwoHosts>();
    Trust(*hosts_);
    const NamespaceHost& a = hosts_->a.machine();
    a.Write(kFile, "name,limit,warning\nalice,4096,2048\nhostb-user,81985529216486895,1\n");
    std::filesystem::permissions(a.Outside(kFile), std::filesystem::perms(0600));

    SignalWorkers(SIGSTOP);
    upload_ = std::make_unique<BackgroundProgram>(
        a.CommandLine({UPLOAD_AS_USER, std::to_string(kUser), "hostb", kFile}),
        a.Outside("/var/lib/told"));
    ASSERT_TRUE(Eventually([this] { return Told() != ""; }));
    EXPECT_EQ(Told(), Identity("before"));
  }

  void SignalWorkers(int signal) const {
    std::vector<pid_t> workers;
    ASSERT_TRUE(Eventually([&] {
      workers = hosts_->b.WebProcesses(kWebWorker);
      return workers.size() == kWorkers;
    }));
    for (const pid_t worker : workers) {
      ASSERT_EQ(::kill(worker, signal), 0);
    }
  }

  std::string Told() const { return hosts_->a.machine().Read("/var/lib/told"); }

  // That of a user who may become root, and is not.
  static std::string Identity(const char* when) {
    return fmt::format("{0}: uids {1} {1} 0, gids {1} {1} 0, the file is closed to it\n", when,
                       kUser);
  }

  // Real, effective, saved and file system's, as the kernel has them.
  bool IsRootMeanwhile() const {
    const auto programs = ChildrenOf(upload_->pid(), "upload_as_user");
    if (programs.empty()) {
      return false;
    }
    std::ifstream file(fmt::format("/proc/{}/status", programs.front()));
    const std::string status{std::istreambuf_iterator<char>(file), {}};
    return status.find(fmt::format("\nUid:\t{}\t0\t0\t0\n", kUser)) != std::string::npos &&
           status.find(fmt::format("\nGid:\t{}\t0\t0\t0\n", kUser)) != std::string::npos;
  }

  std::unique_ptr<TwoHosts> hosts_;
  std::unique_ptr<BackgroundProgram> upload_;
};

TEST_F(UploadTest, ReadsTheFileAsRootAndIsTheUserAgain) {
  ASSERT_NO_FATAL_FAILURE(Begin());
  EXPECT_TRUE(Eventually([this] { return IsRootMeanwhile(); }));
  EXPECT_EQ(Told(), Identity("before"));

  SignalWorkers(SIGCONT);
  EXPECT_TRUE(Eventually([this] { return !upload_->IsRunning(); }));
  EXPECT_EQ(Told(), Identity("before") + Identity("after") + "code 0, rows 2\n");
  const Json::Value report = Parse(hosts_->b.Quillonctl({"user", "list", "--json"}).output);
  EXPECT_EQ(Column(report, "limit"), (std::vector<std::string>{"4096", "81985529216486895"}));
  EXPECT_EQ(Column(report, "warning"), (std::vector<std::string>{"2048", "1"}));
}

TEST_F(UploadTest, IsTheUserAgainWhenTheHostIsGone) {
  ASSERT_NO_FATAL_FAILURE(Begin());
  EXPECT_TRUE(Eventually([this] { return IsRootMeanwhile(); }));

  hosts_->b.KillWebServer();
  EXPECT_TRUE(Eventually([this] { return !upload_->IsRunning(); }));
  EXPECT_EQ(Told(), Identity("before") + Identity("after") + "code 117, rows 0\n");
  hosts_->b.StartWebServer();
  ExpectThatBServes(*hosts_);
}

}  // namespace
}  // namespace quillon::test
