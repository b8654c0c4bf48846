#include <limits>
#include <memory>
#include <stdexcept>
#include <string>

#include <gmock/gmock.h>

#include <velamailserver/utils.h>

#include "lib-webapi/remote_call.h"
#include "recording_platform/world_test.h"

namespace {

using quillon::test::CanFail;
using quillon::test::FailedProbe;
using quillon::test::Joined;
using quillon::test::Lines;
using quillon::test::LogCall;
using quillon::test::Logged;
using quillon::test::Probe;
using quillon::test::SetAccount;
using quillon::test::SetPort;
using recording::Pause;
using recording::Throw;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;

constexpr char kHTTP[] = "http://h:5000";
constexpr char kHTTPS[] = "https://h:5001";
constexpr char kClosed[] = "host: %s doesn't open %s port %d";

// IsPortActive

using IsPortActiveTest = recording::WorldTest;

TEST_F(IsPortActiveTest, ProbesTheURLWithoutAPath) {
  EXPECT_TRUE(IsPortActive("h", "https", 443));
  EXPECT_THAT(world_.transcript, ElementsAreArray(Probe("https://h:443")));
  EXPECT_THAT(world_.log, IsEmpty());
}

TEST_F(IsPortActiveTest, LogsTheErrorOfAProbeThatFailed) {
  world_.unreachable_urls = {kHTTP};
  EXPECT_FALSE(IsPortActive("h", "http", 5000));
  EXPECT_THAT(world_.transcript, ElementsAreArray(FailedProbe(kHTTP)));
  EXPECT_THAT(world_.log,
              ElementsAre(Logged(53, "Cred Error:[%s][%d]", "Cred Error:[http://h:5000][7]")));
}

TEST_F(IsPortActiveTest, LogsTheURLAsTheRequestHasIt) {
  world_.unreachable_urls = {kHTTP};
  world_.held_url = "http://h:5000/%d";
  world_.request_error = -2;
  EXPECT_FALSE(IsPortActive("h", "http", 5000));
  EXPECT_THAT(world_.log,
              ElementsAre(Logged(53, "Cred Error:[%s][%d]", "Cred Error:[http://h:5000/%d][-2]")));
}

TEST_F(IsPortActiveTest, TriesNothingWithAURLThatIsRefused) {
  world_.unacceptable_urls = {"http://%d:5000"};
  world_.held_url = "another";
  EXPECT_FALSE(IsPortActive("%d", "http", 5000));
  EXPECT_THAT(world_.transcript,
              ElementsAre("CredRequest()", "SetURL(http://%d:5000)",
                          LogCall(47, "SetURL failed. http://%d:5000"), "~CredRequest()"));
  EXPECT_THAT(world_.log,
              ElementsAre(Logged(47, "SetURL failed. %s", "SetURL failed. http://%d:5000")));
}

TEST_F(IsPortActiveTest, TakesHostAndProtocolAsTheyAre) {
  EXPECT_TRUE(IsPortActive("[fe80::1]", "http", 80));
  EXPECT_TRUE(IsPortActive("fe80::1", "gopher", 80));
  EXPECT_TRUE(IsPortActive("", "", 0));
  EXPECT_TRUE(IsPortActive("a b/%41", "http", -7));
  EXPECT_THAT(world_.transcript,
              ElementsAreArray(Joined({Probe("http://[fe80::1]:80"), Probe("gopher://fe80::1:80"),
                                       Probe("://:0"), Probe("http://a b/%41:-7")})));
}

TEST_F(IsPortActiveTest, WritesEveryPortInDecimal) {
  EXPECT_TRUE(IsPortActive("h", "http", std::numeric_limits<int>::max()));
  EXPECT_TRUE(IsPortActive("h", "http", std::numeric_limits<int>::min()));
  EXPECT_THAT(
      world_.transcript,
      ElementsAreArray(Joined({Probe("http://h:2147483647"), Probe("http://h:-2147483648")})));
}

TEST_F(IsPortActiveTest, ReleasesTheRequestWhateverThrows) {
  const Lines calls = FailedProbe(kHTTP);
  for (int number = 1; number <= 6; ++number) {
    SCOPED_TRACE(calls[static_cast<std::size_t>(number) - 1]);
    world_ = recording::World();
    world_.unreachable_urls = {kHTTP};
    world_.FailCall(number, Throw<std::runtime_error>("broken"));
    EXPECT_THROW(IsPortActive("h", "http", 5000), std::runtime_error);
    Lines expected(calls.begin(), calls.begin() + number);
    if (number > 1) {
      expected.emplace_back("~CredRequest()");
    }
    EXPECT_THAT(world_.transcript, ElementsAreArray(expected));
    EXPECT_THAT(world_.log, IsEmpty());
  }
}

// prepare_login

class PrepareLoginTest : public recording::WorldTest {
 protected:
  ~PrepareLoginTest() override {
    const Pause pause;
    VELACredFree(cred_);
  }

  int Prepare(const std::string& protocol, int port) {
    return prepare_login(cred_, "h", "a", "p", protocol, port);
  }

  _tag_vela_cred_* cred_ = MakeCred();

 private:
  static _tag_vela_cred_* MakeCred() {
    const Pause pause;
    return VELACredAlloc();
  }
};

TEST_F(PrepareLoginTest, ProbesAPortThatIsGivenAndStoresIt) {
  EXPECT_EQ(Prepare("https", 443), 0);
  EXPECT_THAT(world_.transcript,
              ElementsAreArray(Joined(
                  {SetAccount("h", "a", "p"), Probe("https://h:443"), SetPort("https", 443)})));
  EXPECT_THAT(world_.log, IsEmpty());
}

TEST_F(PrepareLoginTest, TakesAnyOtherPortAndProtocolAsGiven) {
  for (const int port : {0, 1, 5000, 5001, 65536, -2, std::numeric_limits<int>::min(),
                         std::numeric_limits<int>::max()}) {
    world_.transcript.clear();
    EXPECT_EQ(Prepare("any", port), 0);
    EXPECT_THAT(
        world_.transcript,
        ElementsAreArray(Joined({SetAccount("h", "a", "p"),
                                 Probe("any://h:" + std::to_string(port)), SetPort("any", port)})));
  }
}

TEST_F(PrepareLoginTest, FailsWithAGivenPortThatDoesNotAnswer) {
  world_.unreachable_urls = {"https://h:443"};
  EXPECT_EQ(Prepare("https", 443), -1);
  EXPECT_THAT(world_.transcript,
              ElementsAreArray(Joined({SetAccount("h", "a", "p"),
                                       FailedProbe("https://h:443"),
                                       {LogCall(94, "host: h doesn't open https port 443")}})));
  EXPECT_EQ(world_.log.back(), Logged(94, kClosed, "host: h doesn't open https port 443"));
}

TEST_F(PrepareLoginTest, FailsWithAURLThatIsRefused) {
  world_.unacceptable_urls = {"https://h:443"};
  EXPECT_EQ(Prepare("https", 443), -1);
  EXPECT_THAT(world_.log,
              ElementsAre(Logged(47, "SetURL failed. %s", "SetURL failed. https://h:443"),
                          Logged(94, kClosed, "host: h doesn't open https port 443")));
}

TEST_F(PrepareLoginTest, PrefersHTTPAndProbesHTTPSNevertheless) {
  EXPECT_EQ(Prepare("https", -1), 0);
  EXPECT_THAT(world_.transcript, ElementsAreArray(Joined({SetAccount("h", "a", "p"), Probe(kHTTP),
                                                          Probe(kHTTPS), SetPort("http", 5000)})));
  EXPECT_THAT(world_.log, IsEmpty());
}

TEST_F(PrepareLoginTest, TakesHTTPWhereOnlyThatAnswers) {
  world_.unreachable_urls = {kHTTPS};
  EXPECT_EQ(Prepare("https", -1), 0);
  EXPECT_THAT(world_.transcript,
              ElementsAreArray(Joined({SetAccount("h", "a", "p"), Probe(kHTTP), FailedProbe(kHTTPS),
                                       SetPort("http", 5000)})));
}

TEST_F(PrepareLoginTest, TakesHTTPSWhereOnlyThatAnswers) {
  world_.unreachable_urls = {kHTTP};
  EXPECT_EQ(Prepare("http", -1), 0);
  EXPECT_THAT(world_.transcript,
              ElementsAreArray(Joined({SetAccount("h", "a", "p"), FailedProbe(kHTTP), Probe(kHTTPS),
                                       SetPort("https", 5001)})));
}

TEST_F(PrepareLoginTest, FailsWhereNothingAnswers) {
  world_.unreachable_urls = {kHTTP, kHTTPS};
  EXPECT_EQ(Prepare("https", -1), -1);
  EXPECT_THAT(world_.transcript,
              ElementsAreArray(Joined({SetAccount("h", "a", "p"),
                                       FailedProbe(kHTTP),
                                       FailedProbe(kHTTPS),
                                       {LogCall(87, "host: h doesn't open https port -1")}})));
  EXPECT_EQ(world_.log.back(), Logged(87, kClosed, "host: h doesn't open https port -1"));
}

TEST_F(PrepareLoginTest, NamesTheCallersProtocolWhereNothingAnswers) {
  world_.unreachable_urls = {kHTTP, kHTTPS};
  EXPECT_EQ(Prepare("%n", -1), -1);
  EXPECT_EQ(world_.log.back(), Logged(87, kClosed, "host: h doesn't open %n port -1"));
}

TEST_F(PrepareLoginTest, StoresEmptyTexts) {
  EXPECT_EQ(prepare_login(cred_, "", "", "", "", 1), 0);
  EXPECT_THAT(world_.transcript,
              ElementsAreArray(Joined({SetAccount("", "", ""), Probe("://:1"), SetPort("", 1)})));
}

TEST_F(PrepareLoginTest, EndsWithWhateverThrows) {
  const Lines calls =
      Joined({SetAccount("h", "a", "p"), Probe(kHTTP), Probe(kHTTPS), SetPort("http", 5000)});
  int number = 0;
  for (std::size_t i = 0; i < calls.size(); ++i) {
    if (!CanFail(calls[i])) {
      continue;
    }
    SCOPED_TRACE(calls[i]);
    world_ = recording::World();
    world_.FailCall(++number, Throw<std::runtime_error>("broken"));
    EXPECT_THROW(Prepare("http", -1), std::runtime_error);
    Lines expected(calls.begin(), calls.begin() + static_cast<Lines::difference_type>(i) + 1);
    const std::string& call = calls[i];
    if (call.starts_with("SetURL") || call.starts_with("SetDefault") ||
        call.starts_with("Process")) {
      expected.emplace_back("~CredRequest()");
    }
    EXPECT_THAT(world_.transcript, ElementsAreArray(expected));
  }
  EXPECT_EQ(number, 13);
}

}  // namespace
