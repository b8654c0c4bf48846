#include "webapi/utilization.h"

#include <chrono>
#include <stdexcept>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <quillon/platform/configuration.h>
#include <quillon/platform/utilization.h>
#include <vela/api_runner.h>
#include <velamailserver/log_exception.h>

#include "support/typed_json.h"

namespace quillon::platform {
namespace {

using test::Compact;
using testing::HasSubstr;
using namespace std::chrono_literals;

constexpr char kMemory[] =
    "MemTotal:       1000 kB\nMemFree:         100 kB\nMemAvailable:    600 kB\n"
    "Buffers:          50 kB\nCached:          300 kB\nSwapCached:        7 kB\n"
    "SwapTotal:       400 kB\nSwapFree:        390 kB\n";
constexpr char kTitles[] =
    "Inter-|   Receive                                                |  Transmit\n"
    " face |bytes    packets errs drop fifo frame compressed multicast|bytes    packets errs drop "
    "fifo colls carrier compressed\n";

// A line of /proc/net/dev; the other counters must not matter.
std::string Interface(const std::string& name, const std::string& rx, const std::string& tx) {
  return "  " + name + ": " + rx + " 1 2 3 4 5 6 7 " + tx + " 8 9 10 11 12 13 14\n";
}

// A host whose texts and clock the test sets.
class UtilizationTest : public testing::Test {
 protected:
  void SetProcessors(const std::string& ticks) {
    texts_.stat = "cpu  " + ticks + "\ncpu0 1 2 3 4 5 6 7 8 9 10\nintr 5\n";
  }
  void SetInterfaces(const std::string& lines) { texts_.net_dev = kTitles + lines; }

  void SampleAt(std::chrono::nanoseconds time) {
    now_ = time;
    utilization_.Sample();
  }

  std::string Figures(const std::string& resource) {
    return Compact(utilization_.Figures({resource})[resource]);
  }

  ProcTexts texts_ = {"cpu 0 0 0 0 0 0 0 0\n", kMemory, kTitles};
  std::chrono::nanoseconds now_{};
  int reads_ = 0;
  Utilization utilization_{[this] {
                             ++reads_;
                             return texts_;
                           },
                           [this] { return now_; }};
};

TEST_F(UtilizationTest, TellsWhatTheProcessorsDidBetweenTheSamples) {
  SetProcessors("1000 1000 1000 1000 1000 1000 1000 1000 1000 1000");
  SampleAt(100s);
  SetProcessors("1020 1010 1005 1050 1002 1001 1004 1008 1999 1999");
  SampleAt(101s);
  // user 30, system 10, other 10, idle 50; guests are in the user's time already
  EXPECT_EQ(Figures("cpu"), R"({"other_load":10,"system_load":10,"user_load":30})");
}

TEST_F(UtilizationTest, TellsAveragesSinceTheStartOfTheHostAtFirst) {
  SetProcessors("10 0 20 70 0 0 0 0 0 0");
  SetInterfaces(Interface("eth0", "5000", "700"));
  now_ = 100s;
  EXPECT_EQ(Figures("cpu"), R"({"other_load":0,"system_load":20,"user_load":10})");
  EXPECT_EQ(Figures("network"),
            R"([{"device":"total","rx":50,"tx":7},{"device":"eth0","rx":50,"tx":7}])");
  EXPECT_EQ(reads_, 1);
}

TEST_F(UtilizationTest, LoadsAreNeverTogetherAbove100) {
  SampleAt(1s);
  SetProcessors("505 0 495 0 0 0 0 0");
  SampleAt(2s);
  EXPECT_EQ(Figures("cpu"), R"({"other_load":0,"system_load":49,"user_load":51})");
  SetProcessors("838 0 829 0 333 0 0 0");
  SampleAt(3s);
  EXPECT_EQ(Figures("cpu"), R"({"other_load":33,"system_load":34,"user_load":33})");
}

TEST_F(UtilizationTest, ProcessorTimeThatGoesBackwardsCountsAsNone) {
  SetProcessors("100 0 100 100 500 0 0 0");
  SampleAt(1s);
  SetProcessors("110 0 100 190 400 0 0 0");
  SampleAt(2s);
  EXPECT_EQ(Figures("cpu"), R"({"other_load":0,"system_load":0,"user_load":10})");
  SetProcessors("0 0 0 0 0 0 0 0");
  SampleAt(3s);
  EXPECT_EQ(Figures("cpu"), R"({"other_load":0,"system_load":0,"user_load":0})");
}

TEST_F(UtilizationTest, BearsTheLargestNumbers) {
  const std::string most = "18446744073709551615";
  SetProcessors(most + " " + most + " " + most + " 0 " + most + " 0 0 " + most);
  texts_.meminfo = "MemTotal: " + most + " kB\nMemFree: 0 kB\nMemAvailable: 0 kB\nCached: 0 kB\n" +
                   "SwapTotal: 0 kB\nSwapFree: 0 kB\n";
  SetInterfaces(Interface("eth0", most, most) + Interface("eth1", most, "0"));
  SampleAt(1ns);
  EXPECT_EQ(Figures("cpu"), R"({"other_load":33,"system_load":34,"user_load":33})");
  EXPECT_THAT(Figures("memory"), HasSubstr(R"("real_usage":100)"));
  EXPECT_THAT(Figures("memory"), HasSubstr(R"("total_bytes":18446744073709550592)"));
  EXPECT_EQ(Figures("network"), R"([{"device":"total","rx":2147483647,"tx":2147483647},)"
                                R"({"device":"eth0","rx":2147483647,"tx":2147483647},)"
                                R"({"device":"eth1","rx":2147483647,"tx":0}])");
}

TEST_F(UtilizationTest, TellsTheMemoryOfNow) {
  SampleAt(1s);
  EXPECT_EQ(Figures("memory"), R"({"available_bytes":614400,"cached_bytes":307200,)"
                               R"("free_bytes":102400,"real_usage":40,)"
                               R"("swap_free_bytes":399360,"swap_total_bytes":409600,)"
                               R"("total_bytes":1024000})");
}

TEST_F(UtilizationTest, MoreMemoryAvailableThanThereIsMeansNoneIsUsed) {
  texts_.meminfo.replace(texts_.meminfo.find("1000"), 4, " 500");
  SampleAt(1s);
  EXPECT_THAT(Figures("memory"), HasSubstr(R"("real_usage":0)"));
}

TEST_F(UtilizationTest, TellsRatesPerSecondAndLeavesTheLoopbackOutOfTheTotal) {
  SetInterfaces(Interface("lo", "0", "0") + Interface("eth0", "1000", "100") +
                Interface("eth1", "10", "20"));
  SampleAt(10s);
  SetInterfaces(Interface("lo", "9000", "9000") + Interface("eth0", "4000", "400") +
                Interface("eth1", "40", "80"));
  SampleAt(12s);
  EXPECT_EQ(Figures("network"),
            R"([{"device":"total","rx":1515,"tx":180},{"device":"eth0","rx":1500,"tx":150},)"
            R"({"device":"eth1","rx":15,"tx":30},{"device":"lo","rx":4500,"tx":4500}])");
}

TEST_F(UtilizationTest, ReadsCountersThatTouchTheName) {
  SetInterfaces("eth0:600 1 2 3 4 5 6 7 60 8 9 10 11 12 13 14\n");
  SampleAt(1s);
  EXPECT_THAT(Figures("network"), HasSubstr(R"({"device":"eth0","rx":600,"tx":60})"));
}

TEST_F(UtilizationTest, AnInterfaceThatHasComeBringsNoOldTraffic) {
  SetInterfaces(Interface("eth0", "0", "0"));
  SampleAt(1s);
  SetInterfaces(Interface("eth0", "5", "6") + Interface("veth1", "999999999", "999999999"));
  SampleAt(2s);
  EXPECT_EQ(Figures("network"), R"([{"device":"total","rx":5,"tx":6},)"
                                R"({"device":"eth0","rx":5,"tx":6},)"
                                R"({"device":"veth1","rx":0,"tx":0}])");
}

TEST_F(UtilizationTest, AnInterfaceThatHasGoneTakesNothingFromTheTotal) {
  SetInterfaces(Interface("eth0", "0", "0") + Interface("veth1", "999999999", "999999999"));
  SampleAt(1s);
  SetInterfaces(Interface("eth0", "5", "6"));
  SampleAt(2s);
  EXPECT_EQ(Figures("network"),
            R"([{"device":"total","rx":5,"tx":6},{"device":"eth0","rx":5,"tx":6}])");
}

TEST_F(UtilizationTest, ACounterThatBeganAnewCountsAsNothing) {
  SetInterfaces(Interface("eth0", "3000000000", "99999999999"));
  SampleAt(1s);
  SetInterfaces(Interface("eth0", "10", "20"));
  SampleAt(2s);
  EXPECT_THAT(Figures("network"), HasSubstr(R"({"device":"eth0","rx":0,"tx":0})"));
}

TEST_F(UtilizationTest, ACounterOf32BitsMayPassItsEnd) {
  SetInterfaces(Interface("eth0", "4294967000", "4026531840"));
  SampleAt(1s);
  SetInterfaces(Interface("eth0", "704", "268435455"));
  SampleAt(2s);
  EXPECT_THAT(Figures("network"), HasSubstr(R"({"device":"eth0","rx":1000,"tx":536870911})"));
  SetInterfaces(Interface("eth0", "4294967295", "4294967295"));
  SampleAt(3s);
  SetInterfaces(Interface("eth0", "268435456", "0"));
  SampleAt(4s);
  EXPECT_THAT(Figures("network"), HasSubstr(R"({"device":"eth0","rx":0,"tx":1})"));
}

TEST_F(UtilizationTest, TakesNoSampleWithinHalfASecondOfTheLast) {
  SampleAt(1s);
  SampleAt(1499ms);
  EXPECT_EQ(reads_, 1);
  SetInterfaces(Interface("eth0", "0", "0"));
  SampleAt(1500ms);
  EXPECT_EQ(reads_, 2);
  SetInterfaces(Interface("eth0", "1000", "500"));
  SampleAt(2s);
  EXPECT_EQ(reads_, 3);
  EXPECT_THAT(Figures("network"), HasSubstr(R"({"device":"total","rx":2000,"tx":1000})"));
}

TEST_F(UtilizationTest, FiguresTakeNoFurtherSample) {
  SampleAt(1s);
  now_ = 100s;
  Figures("cpu");
  Figures("network");
  EXPECT_EQ(reads_, 1);
}

TEST_F(UtilizationTest, AnswersOnlyWhatItIsAskedFor) {
  EXPECT_EQ(Compact(utilization_.Figures({})), "{}");
  EXPECT_THAT(utilization_.Figures({"cpu", "network", "cpu"}).getMemberNames(),
              testing::ElementsAre("cpu", "network"));
}

std::string FailureOf(Utilization& utilization) {
  try {
    utilization.Figures({"cpu"});
  } catch (const std::runtime_error& error) {
    return error.what();
  }
  return "no failure";
}

TEST_F(UtilizationTest, NamesTheFileThatIsNotAsItShouldBe) {
  texts_.stat = "cpu0 1 2 3 4 5 6 7 8\n";
  EXPECT_EQ(FailureOf(utilization_), "/proc/stat: no line of all processors");
  for (const char* line : {"cpu", "cpu 1 2 3", "cpu 1 2 x 4 5 6 7 8", "cpu 1 2 -3 4 5 6 7 8",
                           "cpu 1 2 18446744073709551616 4 5 6 7 8"}) {
    texts_.stat = line;
    EXPECT_EQ(FailureOf(utilization_), "/proc/stat: a number is missing") << line;
  }
  SetProcessors("1 2 3 4 5 6 7 8");
  texts_.meminfo = "MemTotal: 5 kB\n";
  EXPECT_THAT(FailureOf(utilization_), HasSubstr("/proc/meminfo: no line "));
  texts_.meminfo = "MemTotal:\n";
  EXPECT_EQ(FailureOf(utilization_), "/proc/meminfo: a number is missing");
  texts_.meminfo = kMemory;
  SetInterfaces("eth0: 1 2 3 4 5 6 7 8\n");
  EXPECT_EQ(FailureOf(utilization_), "/proc/net/dev: a number is missing");
  SetInterfaces(" : 1 2\n\n \n");
  EXPECT_EQ(FailureOf(utilization_), "no failure");
}

TEST_F(UtilizationTest, BeginsAnewAfterASampleThatFailed) {
  SetProcessors("10 0 0 90 0 0 0 0");
  SampleAt(1s);
  texts_.meminfo.clear();
  EXPECT_THROW(SampleAt(2s), std::runtime_error);
  EXPECT_THROW(Figures("cpu"), std::runtime_error);
  texts_.meminfo = kMemory;
  SetProcessors("60 0 0 140 0 0 0 0");
  EXPECT_EQ(Figures("cpu"), R"({"other_load":0,"system_load":0,"user_load":30})");
}

// The API on the host that runs the tests.
class UtilizationAPITest : public testing::Test {
 protected:
  UtilizationAPITest() {
    Configuration quiet;
    quiet.log = {"file", "/dev/null"};
    UseConfiguration(quiet);
  }

  static Json::Value Exec(const Json::Value& params) {
    Json::Value response;
    VELA::APIRunner::Exec(response, "VELA.Core.System.Utilization", 1, "get", params, "monitor");
    return response;
  }
};

TEST_F(UtilizationAPITest, TellsTheFiguresOfThisHost) {
  SampleUtilization();
  Json::Value params;
  params["type"] = "current";
  params["resource"].append("cpu");
  params["resource"].append("memory");
  params["resource"].append("network");
  const Json::Value response = Exec(params);
  ASSERT_TRUE(response["success"].asBool()) << response;
  const Json::Value& data = response["data"];

  const int load = data["cpu"]["user_load"].asInt() + data["cpu"]["system_load"].asInt() +
                   data["cpu"]["other_load"].asInt();
  EXPECT_GE(load, 0);
  EXPECT_LE(load, 100);
  EXPECT_GT(data["memory"]["real_usage"].asInt(), 0);
  EXPECT_LE(data["memory"]["available_bytes"].asUInt64(), data["memory"]["total_bytes"].asUInt64());
  ASSERT_GE(data["network"].size(), 1U);
  EXPECT_EQ(data["network"][0]["device"], "total");
  for (const Json::Value& entry : data["network"]) {
    EXPECT_GE(entry["rx"].asInt(), 0);
    EXPECT_GE(entry["tx"].asInt(), 0);
  }
  EXPECT_THAT(Exec(Json::Value())["data"].getMemberNames(),
              testing::ElementsAre("cpu", "memory", "network"));
}

TEST_F(UtilizationAPITest, TellsOnlyTheResourcesThatAreAskedFor) {
  Json::Value params;
  params["resource"].append("memory");
  EXPECT_THAT(Exec(params)["data"].getMemberNames(), testing::ElementsAre("memory"));
  params["resource"] = Json::Value(Json::arrayValue);
  EXPECT_EQ(Exec(params)["data"], Json::Value(Json::objectValue));
}

struct BadParameters {
  const char* name;
  Json::Value value;
  const char* message;
};

class UtilizationParametersTest : public UtilizationAPITest,
                                  public testing::WithParamInterface<BadParameters> {};

TEST_P(UtilizationParametersTest, AreRefused) {
  Json::Value params;
  params[GetParam().name] = GetParam().value;
  const Json::Value response = Exec(params);
  EXPECT_FALSE(response["success"].asBool());
  EXPECT_EQ(response["error"]["code"].asInt(), VELA::APIRunner::kBadParameters);
  EXPECT_EQ(response["error"]["message"].asString(), GetParam().message);
}

Json::Value ArrayOf(const Json::Value& item) {
  Json::Value array(Json::arrayValue);
  array.append("cpu");
  array.append(item);
  return array;
}

constexpr char kNoResource[] = "parameter [resource] must be an array of cpu, memory, network";

INSTANTIATE_TEST_SUITE_P(
    Utilization, UtilizationParametersTest,
    testing::Values(BadParameters{"type", "history", "parameter [type] must be current"},
                    BadParameters{"type", Json::Value(), "parameter [type] must be current"},
                    BadParameters{"resource", "cpu", kNoResource},
                    BadParameters{"resource", Json::Value(), kNoResource},
                    BadParameters{"resource", ArrayOf("disk"), kNoResource},
                    BadParameters{"resource", ArrayOf(5), kNoResource},
                    BadParameters{"resource", ArrayOf("CPU"), kNoResource},
                    BadParameters{"resources", ArrayOf("cpu"), "unknown parameter [resources]"}));

TEST_F(UtilizationAPITest, TakesNothingButAnObject) {
  EXPECT_EQ(Exec("cpu")["error"]["message"].asString(), "the parameters must be an object");
}

}  // namespace
}  // namespace quillon::platform
