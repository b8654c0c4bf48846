// The three programs among themselves: what each may do, and what becomes of it.
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <future>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "system/web_server.h"

namespace quillon::test {
namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::Not;
using testing::SizeIs;
using testing::StartsWith;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

std::string StatusOf(int pid) {
  std::ifstream file("/proc/" + std::to_string(pid) + "/status");
  return {std::istreambuf_iterator<char>(file), {}};
}

bool Runs(int pid) { return std::filesystem::exists("/proc/" + std::to_string(pid)); }

// With one worker that has been stopped, and a call that waits for it.
class Busy {
 public:
  explicit Busy(WebServer& server) : server_(server), token_(server.Token("boss")) {
    EXPECT_TRUE(Eventually([&] { return server_.Children(kWebWorker).size() == 1; }));
    EXPECT_EQ(server_.Call(token_, kNames).status, 200);
    worker_ = server_.Children(kWebWorker).at(0);
    ::kill(worker_, SIGSTOP);
    call_ = std::async(std::launch::async, [this] { return server_.Call(token_, kNames); });
    std::this_thread::sleep_for(300ms);
  }

  int worker() const { return worker_; }
  const std::string& token() const { return token_; }
  void GoOn() const { ::kill(worker_, SIGCONT); }
  WebAnswer Answer() { return call_.get(); }

 private:
  WebServer& server_;
  std::string token_;
  int worker_ = 0;
  std::future<WebAnswer> call_;
};

// The exit code of a server that has been told to stop, which it has to do soon.
int ExitCode(const WebServer& server, pid_t program) {
  const auto begin = Clock::now();
  siginfo_t end{};
  EXPECT_EQ(::waitid(P_PID, static_cast<id_t>(program), &end, WEXITED | WNOWAIT), 0);
  EXPECT_EQ(end.si_code, CLD_EXITED) << server.Log();
  EXPECT_LT(Clock::now() - begin, 10s);
  return end.si_status;
}

TEST(WebapidProcessTest, ConfinesTheFront) {
  const WebServer server;
  EXPECT_EQ(server.Call(server.Token("boss"), kNames).status, 200);
  const std::string status = StatusOf(server.Children(kWebFront).at(0));
  EXPECT_THAT(status, AllOf(HasSubstr("Uid:\t65534\t65534\t65534\t65534"),
                            HasSubstr("Gid:\t65534\t65534\t65534\t65534"),
                            HasSubstr("Groups:\t \n"), HasSubstr("NoNewPrivs:\t1\n")));
  for (const char* capabilities : {"CapInh", "CapPrm", "CapEff", "CapBnd", "CapAmb"}) {
    EXPECT_THAT(status, HasSubstr(std::string(capabilities) + ":\t0000000000000000\n"));
  }
#ifdef QUILLON_SANITIZED
  GTEST_SKIP() << "skipped: a build with sanitizers has no filter of system calls";
#else
  if (status.find("Seccomp:") == std::string::npos) {
    GTEST_SKIP() << "this kernel has no filters of system calls";
  }
  EXPECT_THAT(status, HasSubstr("Seccomp:\t2\n"));
#endif
}

TEST(WebapidProcessTest, FinishesACallThoughItIsReloaded) {
  WebServer server("workers = 1");
  Busy busy(server);
  ::kill(server.program().pid(), SIGHUP);
  EXPECT_TRUE(Eventually([&] { return server.Log().find(" reloaded\n") != std::string::npos; }));
  busy.GoOn();
  EXPECT_EQ(busy.Answer().status, 200);
  EXPECT_EQ(server.Call(busy.token(), kNames).status, 200);
  EXPECT_THAT(server.Children(kWebWorker), testing::ElementsAre(busy.worker()));
}

// A terminal and a service manager send signals to all processes of a service.
TEST(WebapidProcessTest, TakesSignalsInTheSupervisorOnly) {
  WebServer server("workers = 1");
  Busy busy(server);
  const std::vector<int> fronts = server.Children(kWebFront);
  for (const int signal : {SIGTERM, SIGINT, SIGHUP}) {
    ::kill(fronts.at(0), signal);
    ::kill(busy.worker(), signal);
  }
  busy.GoOn();
  EXPECT_EQ(busy.Answer().status, 200);
  EXPECT_EQ(server.Call(busy.token(), kNames).status, 200);
  EXPECT_EQ(server.Children(kWebFront), fronts);
}

TEST(WebapidProcessTest, StopsOnceWhenItIsToldTwice) {
  WebServer server("workers = 1");
  const pid_t program = server.program().pid();
  Busy busy(server);
  ::kill(program, SIGTERM);
  std::this_thread::sleep_for(200ms);
  ::kill(program, SIGTERM);
  ::kill(program, SIGINT);
  std::this_thread::sleep_for(200ms);
  busy.GoOn();
  EXPECT_EQ(busy.Answer().status, 200);
  EXPECT_EQ(ExitCode(server, program), 0);
}

TEST(WebapidProcessTest, AnswersARequestWhoseBodyArrivesWhileItStops) {
  WebServer server;
  const pid_t program = server.program().pid();
  const std::string token = server.Token("boss");
  ASSERT_EQ(server.Call(token, kNames).status, 200);
  const std::string body = kNames;
  const std::string head =
      "POST /webapi HTTP/1.1\r\nHost: x\r\nContent-Type: application/json\r\nAuthorization: "
      "Bearer " +
      token + "\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n";
  const int socket = server.Connect();
  ASSERT_EQ(::send(socket, head.data(), head.size(), MSG_NOSIGNAL),
            static_cast<ssize_t>(head.size()));
  std::this_thread::sleep_for(200ms);
  ::kill(program, SIGTERM);
  std::this_thread::sleep_for(300ms);
  EXPECT_EQ(server.Get("/").status, 0) << "nobody else is let in";
  EXPECT_THAT(Converse(socket, body),
              AllOf(StartsWith("HTTP/1.1 200 "), HasSubstr("Connection: close")));
  EXPECT_EQ(ExitCode(server, program), 0);
}

TEST(WebapidProcessTest, EndsAWorkerThatHangsAfterItsFrontHasDied) {
  WebServer server("workers = 1\nrequest_timeout = 2");
  Busy busy(server);
  ::kill(server.Children(kWebFront).at(0), SIGKILL);
  EXPECT_EQ(busy.Answer().status, 0);
  // The next front does not wait for it.
  EXPECT_TRUE(Eventually([&] { return server.Get("/").status == 200; }));
  EXPECT_EQ(server.Call(server.Token("boss"), kNames).status, 200);
  EXPECT_TRUE(Runs(busy.worker())) << "it has its time";
  EXPECT_TRUE(Eventually([&] { return !Runs(busy.worker()); }));
  EXPECT_THAT(server.Log(), HasSubstr("supervisor:67 a worker whose front has ended hangs\n"));
  EXPECT_THAT(server.Children(kWebWorker), SizeIs(1));
}

TEST(WebapidProcessTest, LetsAWorkerFinishAfterItsFrontHasDied) {
  WebServer server("workers = 1");
  Busy busy(server);
  ::kill(server.Children(kWebFront).at(0), SIGKILL);
  EXPECT_EQ(busy.Answer().status, 0);
  EXPECT_TRUE(Eventually([&] { return server.Get("/").status == 200; }));
  EXPECT_TRUE(Runs(busy.worker()));
  busy.GoOn();
  EXPECT_TRUE(Eventually([&] { return !Runs(busy.worker()); }));
  EXPECT_THAT(server.Log(), Not(HasSubstr("hangs")));
}

TEST(WebapidProcessTest, LogsToANewFileAfterAReload) {
  WebServer server;
  server.Login("boss", "wrong password");
  ASSERT_THAT(server.Log(), HasSubstr("front["));
  std::filesystem::rename(server.folder() / "mail.log", server.folder() / "mail.log.1");
  ::kill(server.program().pid(), SIGHUP);
  EXPECT_TRUE(Eventually([&] {
    return std::filesystem::exists(server.folder() / "mail.log") &&
           server.Log().find(" reloaded\n") != std::string::npos;
  }));
  EXPECT_TRUE(Eventually([&] {
    server.Login("boss", "wrong password");
    return server.Log().find("front[") != std::string::npos;
  }));
  const std::string former = server.folder().Read("mail.log.1");
  server.Login("nobody", "wrong password");
  EXPECT_EQ(server.folder().Read("mail.log.1"), former);
}

}  // namespace
}  // namespace quillon::test
