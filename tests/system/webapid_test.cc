#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <csignal>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <quillon/platform/web_accounts.h>

#include "support/parse_json.h"
#include "system/web_server.h"

namespace quillon::test {
namespace {

using testing::HasSubstr;
using testing::StartsWith;
using namespace std::chrono_literals;

constexpr char kSetQuota[] = R"({"api":"Quillon.MailServer.User","version":1,"method":"set_quota",)"
                             R"("params":{"names":["alice"],"limit":2048,"warning":1024}})";
TEST(WebapidTest, AnswersACallWithAToken) {
  const WebServer server;
  const WebAnswer answer = server.Call(server.Token("boss"), kNames);
  EXPECT_EQ(answer.status, 200);
  EXPECT_EQ(answer.text, "{\"data\":{\"names\":[\"alice\"]},\"success\":true}");
  EXPECT_EQ(server.Call(server.Token("boss"), kSetQuota).status, 200);
}

TEST(WebapidTest, AnswersOverTlsWithACertificateOfItsOwn) {
  const WebServer server;
  const WebAnswer answer = server.Post(
      {kNames, {"Content-Type: application/json", "Authorization: Bearer " + server.Token("boss")}},
      true);
  EXPECT_EQ(answer.status, 200);
  EXPECT_THAT(answer.certificate, HasSubstr("BEGIN CERTIFICATE"));
}

TEST(WebapidTest, RefusesWhoIsNotLoggedIn) {
  const WebServer server;
  ExpectRefusal(server.Post({kNames}), 401);
  ExpectRefusal(server.Call("nonsense", kNames), 401);
  ExpectRefusal(server.Post({std::string(100000, 'x')}), 401);
  ExpectRefusal(server.Login("boss", "wrong password"), 401);
  ExpectRefusal(server.Login("nobody-knows", kWebPassword), 401);
  EXPECT_THAT(server.Log(), HasSubstr("login from 127.0.0.1 refused"));
}

TEST(WebapidTest, ForgetsATokenWhenItEndsOrExpires) {
  const WebServer server("session_lifetime = 2");
  const std::string ended = server.Token("boss");
  const std::string end = R"({"api":"VELA.Core.Login","version":1,"method":"end"})";
  EXPECT_EQ(server.Call(ended, end).status, 200);
  ExpectRefusal(server.Call(ended, kNames), 401);
  const std::string expired = server.Token("boss");
  EXPECT_EQ(server.Call(expired, kNames).status, 200);
  std::this_thread::sleep_for(2100ms);
  ExpectRefusal(server.Call(expired, kNames), 401);
}

TEST(WebapidTest, KeepsASessionNoLongerThanWasAskedFor) {
  const WebServer server("session_lifetime = 100");
  const auto login = [&](const Json::Value& lifetime) {
    return server.Login("boss", kWebPassword, nullptr, lifetime);
  };
  EXPECT_EQ(login(Json::Value()).envelope["data"]["expires_in"], 100);
  EXPECT_EQ(login(99).envelope["data"]["expires_in"], 99);
  EXPECT_EQ(login(101).envelope["data"]["expires_in"], 100);
  EXPECT_EQ(login(Json::Value(~Json::UInt64{0})).envelope["data"]["expires_in"], 100);
  for (const char* none : {"0", "-1", "1.5", "\"60\"", "true", "[]", "{}", "1e300"}) {
    const WebAnswer answer = login(Parse(none));
    ExpectRefusal(answer, 400);
    EXPECT_THAT(answer.text, HasSubstr("lifetime")) << none;
  }

  const std::string token = login(1).envelope["data"]["token"].asString();
  EXPECT_EQ(server.Call(token, kNames).status, 200);
  std::this_thread::sleep_for(1100ms);
  ExpectRefusal(server.Call(token, kNames), 401);
}

TEST(WebapidTest, LetsMonitorsReadOnly) {
  const WebServer server;
  const std::string token = server.Token("watcher");
  EXPECT_EQ(server.Call(token, kNames).status, 200);
  ExpectRefusal(server.Call(token, kSetQuota), 403);
}

TEST(WebapidTest, MakesWhoGuessesPasswordsWait) {
  const WebServer server("max_login_failures = 2");
  ExpectRefusal(server.Login("boss", "wrong password"), 401);
  ExpectRefusal(server.Login("boss", "wrong password"), 401);
  ExpectRefusal(server.Login("boss", "wrong password"), 401);
  ExpectRefusal(server.Login("boss", "wrong password"), 429);
}

TEST(WebapidTest, RefusesWhatIsNotACall) {
  const WebServer server;
  const std::string token = "Authorization: Bearer " + server.Token("boss");
  const std::string json = "Content-Type: application/json";
  ExpectRefusal(server.Get("/other"), 404);
  ExpectRefusal(server.Get("/webapi"), 405);
  ExpectRefusal(server.Post({kNames, {"Content-Type: text/plain", token}}), 415);
  ExpectRefusal(server.Post({"[]", {json, token}}), 400);
  ExpectRefusal(server.Post({"x", {"Content-Type: multipart/form-data; boundary=b", token}}), 400);
  ExpectRefusal(server.Post({kNames, {json, token, "X-Long: " + std::string(17000, 'x')}}), 431);
  EXPECT_EQ(server.Post({kNames, {json, token}}).status, 200);
}

TEST(WebapidTest, RefusesABodyThatIsTooLarge) {
  const WebServer server("max_body = 10000");
  const std::string token = server.Token("boss");
  ExpectRefusal(server.Post({std::string(20000, ' '),
                             {"Content-Type: application/json", "Authorization: Bearer " + token,
                              "Transfer-Encoding: chunked"}}),
                413);
  const std::string head =
      "POST /webapi HTTP/1.1\r\nHost: x\r\nContent-Type: application/json\r\n"
      "Authorization: Bearer " +
      token + "\r\n";
  EXPECT_THAT(Converse(server.Connect(), head + "Content-Length: 99999999\r\n\r\n"),
              StartsWith("HTTP/1.1 413 "));
  EXPECT_EQ(server.Call(token, kNames).status, 200);
}

TEST(WebapidTest, TakesUploads) {
  const WebServer server;
  const std::string body =
      "--frontier\r\nContent-Disposition: form-data; name=\"request\"\r\n\r\n"
      R"({"api":"Quillon.MailServer.Quota","version":1,"method":"import"})"
      "\r\n--frontier\r\nContent-Disposition: form-data; name=\"file\"; filename=\"a\"\r\n\r\n"
      "alice,4096,2048\r\n--frontier--\r\n";
  const WebAnswer answer = server.Post({body,
                                        {"Content-Type: multipart/form-data; boundary=frontier",
                                         "Authorization: Bearer " + server.Token("boss")}});
  EXPECT_EQ(answer.status, 200);
  EXPECT_EQ(answer.envelope["data"]["rows"], 1) << answer.text;
}

TEST(WebapidTest, CutsSlowClientsOff) {
  const WebServer server("receive_timeout = 1");
  const std::string line = "POST /webapi HTTP/1.1\r\nHost: x\r\nContent-Length: 100\r\n";
  EXPECT_THAT(Converse(server.Connect(), line), StartsWith("HTTP/1.1 408 "));
  EXPECT_THAT(Converse(server.Connect(), line + "\r\nbody"), StartsWith("HTTP/1.1 408 "));
  EXPECT_EQ(server.Get("/").status, 200);
}

TEST(WebapidTest, LosesOneCallWhenAWorkerIsKilled) {
  const WebServer server("workers = 1");
  const std::string token = server.Token("boss");
  ASSERT_TRUE(Eventually([&] { return server.Children(kWebWorker).size() == 1; }));
  const int worker = server.Children(kWebWorker).at(0);
  ::kill(worker, SIGSTOP);
  auto call = std::async(std::launch::async, [&] { return server.Call(token, kNames); });
  std::this_thread::sleep_for(300ms);
  ::kill(worker, SIGKILL);
  ExpectRefusal(call.get(), 502);
  EXPECT_EQ(server.Call(token, kNames).status, 200);
}

TEST(WebapidTest, ReplacesAWorkerThatHangs) {
  const WebServer server("workers = 1\nrequest_timeout = 1");
  const std::string token = server.Token("boss");
  ASSERT_TRUE(Eventually([&] { return server.Children(kWebWorker).size() == 1; }));
  const int worker = server.Children(kWebWorker).at(0);
  ::kill(worker, SIGSTOP);
  ExpectRefusal(server.Call(token, kNames), 504);
  EXPECT_TRUE(Eventually([&] {
    const auto workers = server.Children(kWebWorker);
    return workers.size() == 1 && workers[0] != worker;
  }));
  EXPECT_TRUE(Eventually([&] { return server.Call(token, kNames).status == 200; }));
}

TEST(WebapidTest, StartsAFrontThatDiedAgain) {
  const WebServer server;
  ::kill(server.Children(kWebFront).at(0), SIGKILL);
  EXPECT_TRUE(Eventually([&] { return server.Get("/").status == 200; }));
  EXPECT_EQ(server.Call(server.Token("boss"), kNames).status, 200);
}

TEST(WebapidTest, FinishesWhatIsRunningBeforeItStops) {
  WebServer server("workers = 1");
  const std::string token = server.Token("boss");
  ASSERT_TRUE(Eventually([&] { return server.Children(kWebWorker).size() == 1; }));
  const int worker = server.Children(kWebWorker).at(0);
  const pid_t program = server.program().pid();
  ::kill(worker, SIGSTOP);
  auto call = std::async(std::launch::async, [&] { return server.Call(token, kNames); });
  std::this_thread::sleep_for(300ms);
  const auto begin = std::chrono::steady_clock::now();
  ::kill(program, SIGTERM);
  std::this_thread::sleep_for(500ms);
  ::kill(worker, SIGCONT);
  EXPECT_EQ(call.get().status, 200);
  siginfo_t end{};
  ASSERT_EQ(::waitid(P_PID, static_cast<id_t>(program), &end, WEXITED | WNOWAIT), 0);
  EXPECT_EQ(end.si_code, CLD_EXITED);
  EXPECT_EQ(end.si_status, 0);
  EXPECT_LT(std::chrono::steady_clock::now() - begin, 10s);
}

TEST(WebapidTest, StopsAlthoughAWorkerHangs) {
  WebServer server("workers = 1");
  const std::string token = server.Token("boss");
  ASSERT_TRUE(Eventually([&] { return server.Children(kWebWorker).size() == 1; }));
  const pid_t program = server.program().pid();
  ::kill(server.Children(kWebWorker).at(0), SIGSTOP);
  auto call = std::async(std::launch::async, [&] { return server.Call(token, kNames); });
  std::this_thread::sleep_for(300ms);
  const auto begin = std::chrono::steady_clock::now();
  ::kill(program, SIGTERM);
  siginfo_t end{};
  ASSERT_EQ(::waitid(P_PID, static_cast<id_t>(program), &end, WEXITED | WNOWAIT), 0);
  EXPECT_EQ(end.si_status, 0);
  EXPECT_LT(std::chrono::steady_clock::now() - begin, 10s);
  call.get();
}

TEST(WebapidTest, ReloadsWithoutDroppingAConnectionOrASession) {
  WebServer server;
  const std::string token = server.Token("boss");
  const auto certificate = [&] { return server.Post({kNames}, true).certificate; };
  const std::string former = certificate();
  const int kept = server.Connect();

  std::filesystem::remove_all(server.folder() / "state");
  ::kill(server.program().pid(), SIGHUP);

  EXPECT_TRUE(Eventually([&] { return certificate() != former; }));
  EXPECT_EQ(server.Call(token, kNames).status, 200);
  EXPECT_THAT(Converse(kept, "GET / HTTP/1.1\r\nHost: x\r\nConnection: close\r\n\r\n"),
              StartsWith("HTTP/1.1 200 "));
}

TEST(WebapidTest, TellsTheServiceManagerHowItIsDoing) {
  const TemporaryFolder folder;
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const std::string path = folder / "notify";
  path.copy(address.sun_path, sizeof(address.sun_path) - 1);
  const int socket = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  const timeval patience{10, 0};
  ::setsockopt(socket, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof(patience));
  ASSERT_EQ(::bind(socket, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
  const auto state = [socket] {
    std::array<char, 64> text{};
    static_cast<void>(::recv(socket, text.data(), text.size() - 1, 0));
    return std::string(text.data());
  };
  ::setenv("NOTIFY_SOCKET", path.c_str(), 1);
  ::setenv("WATCHDOG_USEC", "1000000", 1);
  WebServer server;
  ::unsetenv("NOTIFY_SOCKET");
  ::unsetenv("WATCHDOG_USEC");

  EXPECT_EQ(state(), "READY=1");
  EXPECT_EQ(state(), "WATCHDOG=1");
  server.program().Stop();
  std::string last = state();
  while (last == "WATCHDOG=1") {
    last = state();
  }
  EXPECT_EQ(last, "STOPPING=1");
  ::close(socket);
}

TEST(WebapidTest, NoticesChangedAccounts) {
  const WebServer server;
  const std::string token = server.Token("watcher");
  platform::AddWebAccount(server.accounts_file(), "new", platform::WebRole::kAdmin,
                          platform::Secret(kWebPassword));
  EXPECT_TRUE(Eventually([&] { return server.Login("new", kWebPassword).status == 200; }));
  platform::RemoveWebAccount(server.accounts_file(), "watcher");
  EXPECT_TRUE(Eventually([&] { return server.Call(token, kNames).status == 401; }));
}

}  // namespace
}  // namespace quillon::test
