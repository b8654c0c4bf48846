#include "worker.h"

#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <vela/api_runner.h>

namespace quillon::webapid {
namespace {

using testing::HasSubstr;
using testing::StartsWith;

class WorkerTest : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    VELA::APIRunner::Register("Test", 1, "echo", [](const Json::Value& params) { return params; });
    VELA::APIRunner::Register("VELA.Core.Web.TARN", 1, "get",
                              [](const Json::Value&) { return Json::Value("ports"); });
    VELA::APIRunner::Register("Test", 1, "flood", [](const Json::Value&) {
      return Json::Value(std::string(kLargestFrame, 'x'));
    });
  }

  static Frame Ask(Role role, const std::string& text, std::vector<std::string> uploads = {}) {
    uploads.insert(uploads.begin(), text);
    return Answer({5, 6, role, uploads});
  }
};

constexpr char kEcho[] = R"({"api":"Test","version":1,"method":"echo","params":{"a":1}})";

TEST_F(WorkerTest, RunsACall) {
  const Frame answer = Ask(kAdmin, kEcho);
  EXPECT_EQ(answer.index, 5U);
  EXPECT_EQ(answer.generation, 6U);
  EXPECT_EQ(answer.code, 200U);
  EXPECT_THAT(answer.parts, testing::ElementsAre(R"({"data":{"a":1},"success":true})"));
}

TEST_F(WorkerTest, AnswersTheFailureOfAnApiWithStatus200) {
  const Frame answer = Ask(kAdmin, R"({"api":"None","version":1,"method":"get"})");
  EXPECT_EQ(answer.code, 200U);
  EXPECT_THAT(answer.parts.front(), HasSubstr(R"("code":404)"));
}

TEST_F(WorkerTest, PutsUploadsIntoTheParameters) {
  const Frame answer = Ask(kAdmin, kEcho, {"csv", "a,b\n"});
  EXPECT_EQ(answer.parts.front(), R"({"data":{"a":1,"csv":"a,b\n"},"success":true})");
  const Frame refused =
      Ask(kAdmin, R"({"api":"Test","version":1,"method":"echo","params":[1]})", {"csv", "a"});
  EXPECT_EQ(refused.code, 400U);
}

TEST_F(WorkerTest, RefusesWhatIsNotARequestObject) {
  const std::string deep = std::string(300, '[') + std::string(300, ']');
  for (const std::string& text :
       {std::string("5"), std::string(""), std::string("null"), std::string("[1]"),
        std::string("{} junk"), std::string("{}"), std::string(R"({"api":1})"), deep,
        R"({"api":"Test","version":1,"method":"echo","params":)" + deep + "}",
        std::string(R"({"api":"Test","version":"1","method":"echo"})"),
        std::string(R"({"api":"Test","version":99999999999,"method":"echo"})")}) {
    const Frame answer = Ask(kAdmin, text);
    EXPECT_EQ(answer.code, 400U) << text;
    EXPECT_THAT(answer.parts.front(), HasSubstr(R"("success":false)")) << text;
  }
}

TEST_F(WorkerTest, LetsMonitorsReadOnly) {
  EXPECT_EQ(Ask(kMonitor, R"({"api":"VELA.Core.Web.TARN","version":1,"method":"get"})").code, 200U);
  EXPECT_EQ(Ask(kMonitor, kEcho).code, 403U);
  EXPECT_EQ(Ask(static_cast<Role>(0), kEcho).code, 403U);
}

struct Calls {
  const char* api;
  std::vector<const char*> for_monitors;
  std::vector<const char*> for_admins_only;
};

TEST_F(WorkerTest, KnowsWhatMonitorsMayCall) {
  const std::vector<Calls> all = {
      {"VELA.Core.System.Utilization", {"get"}, {}},
      {"VELA.Core.Web.TARN", {"get"}, {}},
      {"VELA.Core.Quota", {}, {"get"}},
      {"Quillon.MailServer.User",
       {"list", "names", "details"},
       {"set_quota", "clear_quota", "clear_storage"}},
      {"Quillon.MailServer.Group", {"list", "share_quota"}, {"set_quota", "clear_quota"}},
      {"Quillon.MailServer.Privilege", {"list"}, {"grant", "revoke"}},
      {"Quillon.MailServer.Usage", {}, {"count"}},
      {"Quillon.MailServer.NoOwner", {"list", "status"}, {"refresh", "remove"}},
      {"Quillon.MailServer.Quota", {}, {"import", "sync"}},
  };
  for (const Calls& calls : all) {
    for (const char* method : calls.for_monitors) {
      EXPECT_TRUE(MayCall(kMonitor, calls.api, method)) << calls.api << " " << method;
      EXPECT_TRUE(MayCall(kAdmin, calls.api, method)) << calls.api << " " << method;
    }
    for (const char* method : calls.for_admins_only) {
      EXPECT_FALSE(MayCall(kMonitor, calls.api, method)) << calls.api << " " << method;
      EXPECT_TRUE(MayCall(kAdmin, calls.api, method)) << calls.api << " " << method;
    }
  }
}

TEST_F(WorkerTest, ServesUntilTheOtherSideCloses) {
  std::array<int, 2> ends{};
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()), 0);
  static int between = 0;
  std::thread worker([&] { Serve(ends[1], -1, [](bool) { ++between; }); });

  const std::string flood = R"({"api":"Test","version":1,"method":"flood"})";
  const std::string bytes = Encode({0, 1, kAdmin, {kEcho}}) + Encode({1, 1, kAdmin, {flood}});
  ASSERT_EQ(::write(ends[0], bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
  FrameReader reader;
  std::vector<Frame> answers;
  while (answers.size() < 2) {
    std::array<char, 4096> piece{};
    const ssize_t got = ::read(ends[0], piece.data(), piece.size());
    ASSERT_GT(got, 0);
    reader.Append({piece.data(), static_cast<std::size_t>(got)});
    while (auto frame = reader.Next()) {
      answers.push_back(std::move(*frame));
    }
  }
  ::close(ends[0]);
  worker.join();
  ::close(ends[1]);

  EXPECT_EQ(answers[0].code, 200U);
  EXPECT_EQ(answers[1].code & ~kLastAnswer, 500U);
  EXPECT_THAT(answers[1].parts.front(), HasSubstr("too large"));
  EXPECT_GT(between, 0);
}

TEST_F(WorkerTest, EndsWhenTheOtherSideSendsNoFrames) {
  std::array<int, 2> ends{};
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()), 0);
  const std::string junk(64, '\xff');
  ASSERT_EQ(::write(ends[0], junk.data(), junk.size()), static_cast<ssize_t>(junk.size()));
  EXPECT_THROW(Serve(ends[1], -1, [](bool) {}), FrameError);
  ::close(ends[0]);
  ::close(ends[1]);
}

}  // namespace
}  // namespace quillon::webapid
