#include <stdexcept>
#include <string>
#include <type_traits>

#include <gmock/gmock.h>

#include <velamailserver/utils.h>

#include "lib-webapi/remote_call.h"
#include "recording_platform/world_test.h"
#include "support/parse_json.h"
#include "support/typed_json.h"

namespace {

using quillon::test::Alloc;
using quillon::test::Exchange;
using quillon::test::FailedProbe;
using quillon::test::Joined;
using quillon::test::Lines;
using quillon::test::LogCall;
using quillon::test::Logged;
using quillon::test::Parse;
using quillon::test::Probe;
using quillon::test::Release;
using quillon::test::ReleaseBeforeCreated;
using quillon::test::SetAccount;
using quillon::test::SetPort;
using quillon::test::Typed;
using recording::Throw;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;

static_assert(std::is_same_v<decltype(&resourceInfoGetByWebAPI),
                             int (*)(const std::string&, const std::string&, const std::string&,
                                     Json::Value&)>);

constexpr char kUtilization[] = "VELA.Core.System.Utilization";
constexpr char kWebServer[] = "VELA.Core.Web.TARN";
constexpr char kUtilizationArguments[] =
    R"("VELA.Core.System.Utilization", 1, "get", )"
    R"({"resource":["cpu","memory","network"],"type":"current"})";
constexpr char kWebServerArguments[] = R"("VELA.Core.Web.TARN", 1, "get", null)";
constexpr char kNoUtilization[] = "Send WebAPI for get resource info error";
constexpr char kNoWebServer[] = "Send WebAPI for get http_port fail, port set to default 5000.";

// The calls of one of the two requests.
Lines Answered(const std::string& arguments) {
  return Joined({Alloc(), SetAccount("h", "a", "p"), Probe("http://h:5000"),
                 Probe("https://h:5001"), SetPort("http", 5000), Exchange(arguments), Release()});
}

class ResourceInfoTest : public recording::WorldTest {
 protected:
  ResourceInfoTest() { SetWorld(R"({"cpu": {"system_load": 12, "user_load": 30}})"); }

  void SetWorld(const std::string& utilization) {
    world_ = recording::World();
    world_.bodies[kUtilization] = R"({"success": true, "data": )" + utilization + "}";
    world_.bodies[kWebServer] = R"({"success": true, "data": {"http_port": 80}})";
  }

  static int Get(Json::Value& out) { return resourceInfoGetByWebAPI("h", "a", "p", out); }

  // What comes of a successful answer about the host's utilisation.
  std::string Figures(const std::string& utilization) {
    SetWorld(utilization);
    Json::Value out;
    EXPECT_EQ(Get(out), 0);
    EXPECT_THAT(world_.log, IsEmpty());
    return Typed(out);
  }

  std::string NetworkFigures(const std::string& network) {
    return Figures(R"({"network": )" + network + "}");
  }

  Json::Value out_ = Parse(R"({"before": 1, "cpu": 99, "network_upload": 98})");
};

// The figures

TEST_F(ResourceInfoTest, AsksForTheLoadAndThenForThePort) {
  SetWorld(R"({"cpu": {"system_load": 12, "user_load": 30, "other_load": 40},
               "memory": {"real_usage": 25, "total_real": 5},
               "network": [{"device": "total", "rx": 7, "tx": 9}]})");
  Json::Value out;
  EXPECT_EQ(Get(out), 0);
  EXPECT_THAT(
      world_.transcript,
      ElementsAreArray(Joined({Answered(kUtilizationArguments), Answered(kWebServerArguments)})));
  EXPECT_EQ(Typed(out),
            R"({"cpu":42,"http_port":80,"network_download":7,"network_upload":9,"ram":25})");
  EXPECT_THAT(world_.log, IsEmpty());
}

TEST_F(ResourceInfoTest, ProbesAfreshForEachRequest) {
  world_.unreachable_urls = {"http://h:5000"};
  Json::Value out;
  EXPECT_EQ(Get(out), 0);
  const auto answered = [](const char* arguments) {
    return Joined({Alloc(), SetAccount("h", "a", "p"), FailedProbe("http://h:5000"),
                   Probe("https://h:5001"), SetPort("https", 5001), Exchange(arguments),
                   Release()});
  };
  EXPECT_THAT(
      world_.transcript,
      ElementsAreArray(Joined({answered(kUtilizationArguments), answered(kWebServerArguments)})));
}

TEST_F(ResourceInfoTest, WithoutAccountAndPasswordAsksThisHost) {
  world_.api_responses[kUtilization] =
      Parse(R"({"success": true, "data": {"cpu": {"user_load": 3}}})");
  world_.api_responses[kWebServer] = Parse(R"({"success": true, "data": {"http_port": 81}})");
  Json::Value out;
  EXPECT_EQ(resourceInfoGetByWebAPI("another", "", "", out), 0);
  EXPECT_THAT(world_.transcript,
              ElementsAre("CredRequestMgr()",
                          R"(Exec(null, "VELA.Core.System.Utilization", 1, "get", )"
                          R"({"resource":["cpu","memory","network"],"type":"current"}, "admin"))",
                          "~CredRequestMgr()", "CredRequestMgr()",
                          R"(Exec(null, "VELA.Core.Web.TARN", 1, "get", null, "admin"))",
                          "~CredRequestMgr()"));
  EXPECT_EQ(Typed(out), R"({"cpu":3,"http_port":81,"ram":0})");
}

TEST_F(ResourceInfoTest, SetsItsMembersAndLeavesTheOthers) {
  EXPECT_EQ(Get(out_), 0);
  EXPECT_EQ(Typed(out_), R"({"before":1,"cpu":42,"http_port":80,"network_upload":98,"ram":0})");
}

TEST_F(ResourceInfoTest, MissingMembersAreZeroAndNoNetwork) {
  for (const char* utilization :
       {"null", "{}", R"({"cpu": null, "memory": null, "network": null})",
        R"({"cpu": {}, "memory": {}, "network": []})", R"({"network": {}})",
        R"({"cpu": {"system_load": null, "user_load": false}, "memory": {"real_usage": 0.9}})"}) {
    EXPECT_EQ(Figures(utilization), R"({"cpu":0,"http_port":80,"ram":0})") << utilization;
  }
  world_.bodies[kUtilization] = R"({"success": true})";
  Json::Value out;
  EXPECT_EQ(Get(out), 0);
  EXPECT_EQ(Typed(out), R"({"cpu":0,"http_port":80,"ram":0})");
}

TEST_F(ResourceInfoTest, FiguresAreWholeNumbers) {
  EXPECT_EQ(
      Figures(R"({"cpu": {"system_load": 1.9, "user_load": 2.9},
                        "memory": {"real_usage": -1.9},
                        "network": [{"device": "total", "rx": 2147483647, "tx": true}]})"),
      R"({"cpu":3,"http_port":80,"network_download":2147483647,"network_upload":1,"ram":-1})");
}

TEST_F(ResourceInfoTest, ALoadThatIsTooLargeWrapsAround) {
  EXPECT_EQ(Figures(R"({"cpu": {"system_load": 2147483647, "user_load": 1}})"),
            R"({"cpu":-2147483648,"http_port":80,"ram":0})");
  EXPECT_EQ(Figures(R"({"cpu": {"system_load": -2147483648, "user_load": -1}})"),
            R"({"cpu":2147483647,"http_port":80,"ram":0})");
  EXPECT_EQ(Figures(R"({"cpu": {"system_load": -5, "user_load": 3}})"),
            R"({"cpu":-2,"http_port":80,"ram":0})");
}

TEST_F(ResourceInfoTest, OnlyTheTotalOfTheNetworkCounts) {
  EXPECT_EQ(NetworkFigures(R"([{"device": "eth0", "rx": 1, "tx": 2},
                               {"device": "total", "rx": 3, "tx": 4},
                               {"device": "eth1", "rx": 5, "tx": 6}])"),
            R"({"cpu":0,"http_port":80,"network_download":3,"network_upload":4,"ram":0})");
}

TEST_F(ResourceInfoTest, OnlyTheFirstTotalCounts) {
  EXPECT_EQ(NetworkFigures(R"([{"device": "total", "rx": 3},
                               {"device": "total", "rx": 5, "tx": 6}, 5])"),
            R"({"cpu":0,"http_port":80,"network_download":3,"network_upload":0,"ram":0})");
}

TEST_F(ResourceInfoTest, WithoutATotalThereAreNoNetworkFigures) {
  for (const char* network :
       {R"([{"device": "eth0", "rx": 1, "tx": 2}])", R"([{"device": "Total", "rx": 1, "tx": 2}])",
        R"([{"rx": 1, "tx": 2}])",
        R"([{"device": null}, {"device": 5}, {"device": true}, null])"}) {
    EXPECT_EQ(NetworkFigures(network), R"({"cpu":0,"http_port":80,"ram":0})") << network;
  }
}

TEST_F(ResourceInfoTest, CopiesThePortAsItIs) {
  for (const char* port :
       {"0", "8080", "\"80\"", "null", "[80]", "{}", "18446744073709551615", "true", "1.5"}) {
    world_.bodies[kWebServer] =
        std::string(R"({"success": true, "data": {"http_port": )") + port + "}}";
    Json::Value out;
    EXPECT_EQ(Get(out), 0);
    EXPECT_EQ(Typed(out["http_port"]), Typed(Parse(port)));
  }
}

TEST_F(ResourceInfoTest, AMissingPortIsNull) {
  for (const char* body : {R"({"success": true})", R"({"success": true, "data": null})",
                           R"({"success": true, "data": {"https_port": 1}})"}) {
    world_.bodies[kWebServer] = body;
    Json::Value out = Parse(R"({"http_port": 1})");
    EXPECT_EQ(Get(out), 0);
    EXPECT_TRUE(out.isMember("http_port"));
    EXPECT_TRUE(out["http_port"].isNull());
    EXPECT_THAT(world_.log, IsEmpty());
  }
}

// Failures

TEST_F(ResourceInfoTest, WithoutTheLoadNothingIsTouched) {
  for (const char* body : {R"({"success": false, "error": {"code": 105}})", R"({"success": false})",
                           "{}", "null", R"({"data": {"cpu": {"user_load": 1}}})"}) {
    SCOPED_TRACE(body);
    world_ = recording::World();
    world_.bodies[kUtilization] = body;
    EXPECT_EQ(Get(out_), -1);
    EXPECT_EQ(Typed(out_), R"({"before":1,"cpu":99,"network_upload":98})");
    EXPECT_THAT(world_.transcript, ElementsAreArray(Joined({Answered(kUtilizationArguments),
                                                            {LogCall(247, kNoUtilization)}})));
    EXPECT_THAT(world_.log, ElementsAre(Logged(247, kNoUtilization)));
  }
}

TEST_F(ResourceInfoTest, AnUnreachableHostIsAskedOnce) {
  world_.unreachable_urls = {"http://h:5000", "https://h:5001"};
  EXPECT_EQ(Get(out_), -1);
  EXPECT_EQ(Typed(out_), R"({"before":1,"cpu":99,"network_upload":98})");
  EXPECT_THAT(world_.transcript,
              ElementsAreArray(Joined({Alloc(),
                                       SetAccount("h", "a", "p"),
                                       FailedProbe("http://h:5000"),
                                       FailedProbe("https://h:5001"),
                                       {LogCall(87, "host: h doesn't open http port -1"),
                                        LogCall(151, "prepare login fail")},
                                       ReleaseBeforeCreated(),
                                       {LogCall(247, kNoUtilization)}})));
}

TEST_F(ResourceInfoTest, WithoutThePortItIsTheUsualOne) {
  for (const char* body : {R"({"success": false, "error": {"code": 105}})", R"({"success": false})",
                           "{}", R"({"data": {"http_port": 80}})"}) {
    SCOPED_TRACE(body);
    SetWorld(R"({"cpu": {"system_load": 12, "user_load": 30}})");
    world_.bodies[kWebServer] = body;
    Json::Value out = Parse(R"({"http_port": 1})");
    EXPECT_EQ(Get(out), 0);
    EXPECT_EQ(Typed(out), R"({"cpu":42,"http_port":5000,"ram":0})");
    EXPECT_THAT(world_.transcript, ElementsAreArray(Joined({Answered(kUtilizationArguments),
                                                            Answered(kWebServerArguments),
                                                            {LogCall(272, kNoWebServer)}})));
    EXPECT_THAT(world_.log, ElementsAre(Logged(272, kNoWebServer)));
  }
}

TEST_F(ResourceInfoTest, ABodyThatIsNoJSONIsAFailure) {
  world_.bodies[kWebServer] = "<html>";
  Json::Value out;
  EXPECT_EQ(Get(out), 0);
  EXPECT_EQ(Typed(out), R"({"cpu":42,"http_port":5000,"ram":0})");
  EXPECT_THAT(world_.log, testing::SizeIs(2));
  EXPECT_EQ(world_.log.back(), Logged(272, kNoWebServer));
}

TEST_F(ResourceInfoTest, ALoadThatIsNoNumberThrowsBeforeAnythingIsTouched) {
  for (const char* utilization :
       {"5", "[]", R"({"cpu": 5})", R"({"cpu": {"system_load": "12"}})",
        R"({"cpu": {"user_load": []}})", R"({"cpu": {"user_load": 2147483648}})"}) {
    SCOPED_TRACE(utilization);
    SetWorld(utilization);
    EXPECT_THROW(Get(out_), Json::LogicError);
    EXPECT_EQ(Typed(out_), R"({"before":1,"cpu":99,"network_upload":98})");
    EXPECT_THAT(world_.transcript, ElementsAreArray(Answered(kUtilizationArguments)));
    EXPECT_THAT(world_.log, IsEmpty());
  }
}

TEST_F(ResourceInfoTest, ThrowsWhereTheAnswerDoesNotHoldWhatItShould) {
  for (const char* utilization :
       {R"({"memory": {"real_usage": "25"}})", R"({"network": {"total": {"rx": 1}}})",
        R"({"network": [5]})", R"({"network": [{"device": []}]})", R"({"network": [["total"]]})",
        R"({"network": [{"device": "total", "tx": "1"}]})",
        R"({"network": [{"device": "total", "rx": 3000000000}]})"}) {
    SCOPED_TRACE(utilization);
    SetWorld(utilization);
    Json::Value out;
    EXPECT_THROW(Get(out), Json::LogicError);
    EXPECT_FALSE(out.isMember("http_port"));
    EXPECT_THAT(world_.transcript, ElementsAreArray(Answered(kUtilizationArguments)));
  }
}

TEST_F(ResourceInfoTest, KeepsTheFiguresBeforeTheOneThatThrows) {
  const auto kept = [this](const std::string& total) {
    SetWorld(R"({"memory": {"real_usage": 25}, "network": [{"device": "total", )" + total + "}]}");
    Json::Value out;
    EXPECT_THROW(Get(out), Json::LogicError);
    return Typed(out);
  };
  EXPECT_EQ(kept(R"("tx": "1", "rx": 2)"), R"({"cpu":0,"ram":25})");
  EXPECT_EQ(kept(R"("tx": 1, "rx": "2")"), R"({"cpu":0,"network_upload":1,"ram":25})");
}

TEST_F(ResourceInfoTest, KeepsTheLoadWhenThePortThrows) {
  for (const char* body : {"5", R"({"success": "true"})", R"({"success": true, "data": 5})"}) {
    SCOPED_TRACE(body);
    world_.bodies[kWebServer] = body;
    Json::Value out;
    EXPECT_THROW(Get(out), Json::LogicError);
    EXPECT_EQ(Typed(out), R"({"cpu":42,"ram":0})");
    EXPECT_THAT(world_.log, IsEmpty());
  }
}

TEST_F(ResourceInfoTest, AnExceptionOfThePlatformPassesThrough) {
  world_.FailCallsStartingWith("Run()", Throw<std::runtime_error>("broken"));
  EXPECT_THROW(Get(out_), std::runtime_error);
  EXPECT_EQ(Typed(out_), R"({"before":1,"cpu":99,"network_upload":98})");
  EXPECT_THAT(world_.log, IsEmpty());
}

}  // namespace
