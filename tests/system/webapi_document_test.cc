// An ordinary HTTP client, on a host of its own, that does what docs/webapi.md says, word for word.
#include "system/webapi_document.h"

#include <map>
#include <memory>
#include <regex>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <json/value.h>

#include "support/parse_json.h"
#include "system/terminal.h"
#include "system/two_hosts.h"
#include "system/web_server.h"

namespace quillon::test {
namespace {

using testing::MatchesRegex;
using testing::SizeIs;
using testing::StartsWith;

// What somebody puts in the place of the document's words in capitals.
const std::map<std::string, std::string> kWords = {{"HOST", "hostb"}, {"FILE", "quotas.csv"}};

constexpr char kHome[] = "/etc/quillon";  // where the client keeps its files

// A block with all placeholders filled in. Names of the shell's own variables are none.
std::string Filled(const std::string& block, const std::map<std::string, std::string>& words) {
  static const std::regex word(R"((\$?)\b([A-Z]{2,}(?:-[A-Z]+)*)\b(=\$\()?)");
  std::string filled;
  auto rest = block.cbegin();
  for (std::sregex_iterator match(block.begin(), block.end(), word), end; match != end; ++match) {
    filled.append(rest, (*match)[0].first);
    rest = (*match)[0].second;
    if ((*match)[1].length() > 0 || (*match)[3].matched) {
      filled += (*match)[0];
    } else if (words.contains((*match)[2])) {
      filled += words.at((*match)[2]);
    } else {
      throw std::runtime_error("nobody knows what to put for " + (*match)[2].str());
    }
  }
  return filled.append(rest, block.cend());
}

// The one block of commands that begins with this one.
std::string Commands(const std::string& program) {
  for (const std::string& block : WebapiDocumentBlocks("sh")) {
    if (block.starts_with(program)) {
      return Filled(block, kWords);
    }
  }
  throw std::runtime_error("the document has no command " + program);
}

TEST(WebapiDocumentTextTest, HasCommandsThatAreKnownHere) {
  EXPECT_THAT(WebapiDocumentBlocks("sh"), SizeIs(5));
  EXPECT_THAT(WebapiDocumentBlocks("http"), SizeIs(1));
  EXPECT_THROW(Filled("curl https://HOST/UNKNOWN", kWords), std::runtime_error);
  std::istringstream envelopes(WebapiDocumentBlocks("json").at(0));
  for (std::string line; std::getline(envelopes, line);) {
    EXPECT_TRUE(Parse(line)["success"].isBool()) << line;
  }
}

// The client is on hosta; hostb's web server was started as the document says.
class WebapiDocumentTest : public TwoHostsTest {
 protected:
  void SetUp() override {
    TwoHostsTest::SetUp();
    if (IsSkipped()) {
      return;
    }
    hosts_ = std::make_unique<TwoHosts>();
    hosts_->b.StopWebServer();
    std::string command = Commands("quillon-webapid");
    command.pop_back();
    hosts_->b.StartWebServer(command);
    const NamespaceHost& client = hosts_->a.machine();
    client.Write(InHome("host.pem"), client.Read(kCertificateOfB));
    client.Write(InHome("quotas.csv"), "alice,4096,2048\nhostb-user,1G,900M\n");
  }

  static std::string InHome(const std::string& name) { return fmt::format("{}/{}", kHome, name); }

  // Carries lines out in the client's shell.
  Outcome Shell(const std::string& lines, const std::string& input = "") const {
    return hosts_->a.Shell(fmt::format("cd {}\nTOKEN={}\n{}", kHome, token_, lines), input);
  }

  // Trusts the host and gets a token from it, as somebody at a terminal.
  void LogIn() {
    const Outcome outcome =
        Converse(hosts_->a.ShellCommand(
                     fmt::format("cd {}\n{}echo \"$TOKEN\" >token", kHome, Commands("quillonctl"))),
                 {{"Trust it? [y/N] ", "y\n"}});
    ASSERT_EQ(outcome.exit_code, 0) << outcome.output;
    token_ = hosts_->a.machine().Read(InHome("token"));
    ASSERT_THAT(token_, MatchesRegex("[A-Za-z0-9_-]{43}\n"));
    token_.pop_back();
  }

  // Only a call that is answered is an outcome.
  Json::Value Answer(const std::string& lines) const {
    const Outcome outcome = Shell(lines);
    EXPECT_EQ(outcome.exit_code, 0) << outcome.error;
    return Parse(outcome.output);
  }

  // The answer to curl with these arguments, in the form of the document's calls.
  WebAnswer Curl(const std::string& arguments, const std::string& input = "") const {
    const Outcome outcome = Shell(
        "curl --silent --cacert host.pem --output answer --write-out '%{http_code}' " + arguments,
        input);
    EXPECT_EQ(outcome.exit_code, 0) << outcome.error;
    WebAnswer answer;
    answer.status = std::stoi("0" + outcome.output);
    answer.text = hosts_->a.machine().Read(InHome("answer"));
    answer.envelope = Parse(answer.text);
    return answer;
  }

  // A login by nothing but the section "Logging in" and Python's own library.
  Outcome ForeignLogin(const std::string& password) const {
    return Shell(fmt::format("python3 {} https://hostb:5001/webapi host.pem boss", LOGIN_SCRIPT),
                 password + "\n");
  }

  std::unique_ptr<TwoHosts> hosts_;
  std::string token_;
};

TEST_F(WebapiDocumentTest, CallsWithAToken) {
  LogIn();
  const Json::Value names = Answer(Commands("curl --cacert host.pem -H 'Content-Type"));
  EXPECT_EQ(names, Parse(R"({"success": true, "data": {"names": ["alice", "hostb-user"]}})"));

  // The request as it is written out, by whatever client.
  const std::string request =
      Filled(WebapiDocumentBlocks("http").at(0),
             {{"HOST", "hostb"}, {"TOKEN", token_}, {"POST", "POST"}, {"HTTP", "HTTP"}});
  const std::size_t body = request.find("\n\n") + 2;
  std::istringstream head(request.substr(0, body - 1));
  std::string line;
  std::getline(head, line);
  EXPECT_EQ(line, "POST /webapi HTTP/1.1");
  std::string arguments;
  while (std::getline(head, line)) {
    arguments += fmt::format("--header '{}' ", line);
  }
  const WebAnswer list =
      Curl(arguments + "--data-binary @- https://hostb:5001/webapi", request.substr(body));
  EXPECT_EQ(list.status, 200);
  EXPECT_EQ(list.envelope["success"], true);
  EXPECT_EQ(list.envelope["data"]["users"][1]["name"], "hostb-user");
}

TEST_F(WebapiDocumentTest, SendsAFile) {
  LogIn();
  const Json::Value answer = Answer(Commands("curl --cacert host.pem -H \"Authorization"));
  EXPECT_EQ(answer["success"], true);
  EXPECT_EQ(answer["data"]["rows"], 2);
  const Outcome report = hosts_->b.Quillonctl({"user", "list", "--json", "alice"});
  EXPECT_EQ(Parse(report.output)["users"][0]["limit"], 4096);
}

TEST_F(WebapiDocumentTest, LogsInByItself) {
  const Outcome login = ForeignLogin(kWebPassword);
  ASSERT_EQ(login.exit_code, 0) << login.output << login.error;
  const Json::Value answer = Parse(login.output)["answer"];
  EXPECT_EQ(answer.getMemberNames(),
            (std::vector<std::string>{"expires_in", "message", "role", "token"}));
  EXPECT_EQ(answer["role"], "admin");
  EXPECT_EQ(answer["expires_in"], 1800);
  token_ = answer["token"].asString();
  const std::string call = Commands("curl --cacert host.pem -H 'Content-Type");
  EXPECT_EQ(Answer(call)["success"], true);

  std::smatch end;
  const std::string document = WebapiDocument();
  ASSERT_TRUE(std::regex_search(document, end, std::regex(R"(`(\{[^`]*"end"\})`)")));
  const std::string post =
      "--header 'Content-Type: application/json' --header \"Authorization: Bearer $TOKEN\" "
      "--data-binary @- https://hostb:5001/webapi";
  EXPECT_EQ(Curl(post, end[1]).status, 200);
  EXPECT_EQ(Answer(call)["error"]["code"], 401);

  const Outcome refused = ForeignLogin("wrong horse");
  EXPECT_EQ(refused.exit_code, 1);
  EXPECT_THAT(refused.output, StartsWith("401 {"));
}

TEST_F(WebapiDocumentTest, AnswersAProbe) {
  const WebAnswer answer = Curl("https://hostb:5001/");
  EXPECT_EQ(answer.status, 200);
  EXPECT_EQ(answer.envelope["success"], true);
}

TEST_F(WebapiDocumentTest, HasTheStatusesOfItsTable) {
  LogIn();
  const std::string watcher =
      hosts_->a.As("watcher", {"token", "hostb"}).output.substr(0, token_.size());
  const std::string url = " https://hostb:5001/webapi";
  const std::string json = " --header 'Content-Type: application/json' ";
  const std::string token = " --header \"Authorization: Bearer $TOKEN\" ";
  const std::string names = fmt::format(" --data '{}' ", kNames);
  hosts_->a.machine().Write(InHome("large"), std::string(9000000, ' '));
  const std::map<int, std::vector<std::string>> calls = {
      {400,
       {json + token + "--data '[]'" + url, json + token + "--data '{'" + url,
        token + "--header 'Content-Type: multipart/form-data; boundary=b' --data x" + url}},
      {401, {json + names + url, json + names + "--header 'Authorization: Bearer unknown'" + url}},
      {403,
       {json + "--header 'Authorization: Bearer " + watcher +
        R"(' --data '{"api":"Quillon.MailServer.User","version":1,"method":"clear_quota",)"
        R"("params":{"names":["alice"]}}')" +
        url}},
      {404, {json + token + names + url + "/other"}},
      {405, {url, "--request PUT" + url}},
      {413, {json + token + "--data-binary @large" + url}},
      {415, {token + "--header 'Content-Type: text/plain'" + names + url}},
      {431, {json + token + names + "--header 'X-Long: " + std::string(17000, 'x') + "'" + url}},
  };
  std::set<int> documented;
  const std::string document = WebapiDocument();
  const std::regex row(R"(\n\| ([0-9, ]+) \|)");
  for (std::sregex_iterator match(document.begin(), document.end(), row), end; match != end;
       ++match) {
    std::istringstream statuses(std::regex_replace((*match)[1].str(), std::regex(","), " "));
    for (int status = 0; statuses >> status;) {
      documented.insert(status);
    }
  }
  for (const auto& [status, requests] : calls) {
    EXPECT_TRUE(documented.contains(status)) << status;
    for (const std::string& request : requests) {
      SCOPED_TRACE(request.substr(0, 300));
      ExpectRefusal(Curl(request), status);
    }
  }
  EXPECT_EQ(Curl(json + token + names + url).status, 200);
}

}  // namespace
}  // namespace quillon::test
