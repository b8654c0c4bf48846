#include <chrono>
#include <cstddef>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <quillon/platform/login_server.h>
#include <quillon/platform/login_throttle.h>
#include <quillon/platform/web_accounts.h>

#include "support/scram_client.h"
#include "support/temporary_folder.h"
#include "utils/base64.h"

namespace quillon::platform {
namespace {

using namespace std::chrono_literals;
using std::chrono::seconds;
using Client = test::ScramClient;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr char kHere[] = "192.0.2.1";
constexpr char kElsewhere[] = "192.0.2.2";
constexpr int kAllowedFailures = 5;

// The member "r", "s" or "i" of the server's first message.
std::string Member(const std::string& message, char name) {
  const std::string text = "," + DecodeBase64(message).value();
  const auto begin = text.find(std::string(",") + name + "=") + 3;
  return text.substr(begin, text.find(',', begin) - begin);
}

WebAccount Account(const std::string& name, WebRole role, const std::string& password) {
  const test::TemporaryFolder folder;
  const std::string path = folder / "web-accounts";
  AddWebAccount(path, name, role, Secret(password));
  return ParseWebAccounts(ReadWebAccountsFile(path).Get(), path).at(0);
}

// Alice, an administrator, and bob, who may look.
const std::vector<WebAccount>& Accounts() {
  static const std::vector<WebAccount> accounts = {
      Account("alice", WebRole::kAdmin, "alice's password"),
      Account("bob", WebRole::kMonitor, "bob's password")};
  return accounts;
}

class Login : public testing::Test {
 protected:
  LoginChallenge Start(Client& client, const std::string& address = kHere) {
    auto answer = server_.Start(address, client.Step(""), now_);
    if (const auto* refusal = std::get_if<LoginRefusal>(&answer)) {
      ADD_FAILURE() << refusal->reason;
      return {};
    }
    return std::get<LoginChallenge>(answer);
  }

  LoginRefusal StartRefused(const std::string& message, const std::string& address = kHere) {
    auto answer = server_.Start(address, message, now_);
    if (std::holds_alternative<LoginChallenge>(answer)) {
      ADD_FAILURE() << "started";
      return {};
    }
    return std::get<LoginRefusal>(answer);
  }

  LoginSuccess Finish(const std::string& login, const std::string& message) {
    auto answer = server_.Finish(kHere, login, message, now_);
    if (const auto* refusal = std::get_if<LoginRefusal>(&answer)) {
      ADD_FAILURE() << refusal->reason;
      return {};
    }
    return std::get<LoginSuccess>(answer);
  }

  LoginRefusal FinishRefused(const std::string& login, const std::string& message,
                             const std::string& address = kHere) {
    auto answer = server_.Finish(address, login, message, now_);
    if (std::holds_alternative<LoginSuccess>(answer)) {
      ADD_FAILURE() << "logged in";
      return {};
    }
    return std::get<LoginRefusal>(answer);
  }

  bool LogsIn(const std::string& account, const std::string& password) {
    Client client(account, password);
    const LoginChallenge challenge = Start(client);
    auto answer = server_.Finish(kHere, challenge.login, client.Step(challenge.message), now_);
    return std::holds_alternative<LoginSuccess>(answer);
  }

  // One login with a password that is wrong.
  LoginRefusal Fail(const std::string& account, const std::string& address = kHere) {
    Client client(account, "a wrong password");
    const LoginChallenge challenge = Start(client, address);
    return FinishRefused(challenge.login, client.Step(challenge.message), address);
  }

  LoginServer::Time now_{1h};
  LoginServer server_{Accounts(), kAllowedFailures};
};

TEST_F(Login, ProvesBothSidesToEachOther) {
  Client client("alice", "alice's password");
  const LoginChallenge challenge = Start(client);
  const LoginSuccess success = Finish(challenge.login, client.Step(challenge.message));
  EXPECT_EQ(success.account, "alice");
  EXPECT_EQ(success.role, WebRole::kAdmin);
  EXPECT_EQ(client.result(), GSASL_NEEDS_MORE);
  client.Step(success.message);
  EXPECT_EQ(client.result(), GSASL_OK);
}

TEST_F(Login, HasTheRoleOfItsAccount) {
  Client client("bob", "bob's password");
  const LoginChallenge challenge = Start(client);
  EXPECT_EQ(Finish(challenge.login, client.Step(challenge.message)).role, WebRole::kMonitor);
}

// The same letters, typed on another keyboard; also more of them than fit a small buffer.
TEST_F(Login, TakesAnyFormOfTheSameLetters) {
  server_.UseAccounts({Account("zoe", WebRole::kAdmin, "Zo\xc3\xab has a pass\xc2\xa0phrase")});
  EXPECT_TRUE(LogsIn("zoe", "Zo\xc3\xab has a pass\xc2\xa0phrase"));
  EXPECT_TRUE(LogsIn("zoe", "Zoe\xcc\x88 has a pass phrase"));
  EXPECT_FALSE(LogsIn("zoe", "Zoe has a pass phrase"));
}

TEST_F(Login, IsRefusedWithAWrongPassword) {
  const LoginRefusal refusal = Fail("alice");
  EXPECT_EQ(refusal.reason, "wrong password for \"alice\"");
  EXPECT_EQ(refusal.wait, 0s);
}

TEST_F(Login, MinglesManyAtATime) {
  Client alice("alice", "alice's password");
  Client bob("bob", "bob's password");
  const LoginChallenge first = Start(alice);
  const LoginChallenge second = Start(bob, kElsewhere);
  EXPECT_NE(first.login, second.login);
  EXPECT_EQ(Finish(second.login, bob.Step(second.message)).account, "bob");
  EXPECT_EQ(Finish(first.login, alice.Step(first.message)).account, "alice");
}

TEST_F(Login, CannotBeReplayed) {
  Client client("alice", "alice's password");
  const std::string first = client.Step("");
  const auto challenge = std::get<LoginChallenge>(server_.Start(kHere, first, now_));
  const std::string last = client.Step(challenge.message);
  Finish(challenge.login, last);

  EXPECT_THAT(FinishRefused(challenge.login, last).reason, HasSubstr("is over"));
  // The server's part of the nonce is another one each time.
  const auto again = std::get<LoginChallenge>(server_.Start(kHere, first, now_));
  EXPECT_NE(again.message, challenge.message);
  EXPECT_EQ(FinishRefused(again.login, last).reason, "wrong password for \"alice\"");
}

TEST_F(Login, IsOverAfterOneTry) {
  Client client("alice", "alice's password");
  const LoginChallenge challenge = Start(client);
  const std::string last = client.Step(challenge.message);
  FinishRefused(challenge.login, "Yz1iaXdz");
  EXPECT_THAT(FinishRefused(challenge.login, last).reason, HasSubstr("is over"));
}

TEST_F(Login, ExpiresAfterHalfAMinute) {
  Client slow("alice", "alice's password");
  const LoginChallenge challenge = Start(slow);
  const std::string last = slow.Step(challenge.message);
  now_ += 30s;
  EXPECT_THAT(FinishRefused(challenge.login, last).reason, HasSubstr("took too long"));

  Client just_in_time("alice", "alice's password");
  const LoginChallenge other = Start(just_in_time);
  now_ += 30s - 1ns;
  EXPECT_EQ(Finish(other.login, just_in_time.Step(other.message)).account, "alice");
}

TEST_F(Login, IsNotOneThatWasNeverStarted) {
  for (const std::string& id : {std::string(), std::string("x"), std::string(100000, 'x')}) {
    EXPECT_THAT(FinishRefused(id, "Yz1iaXdz").reason, HasSubstr("was not started"));
  }
}

// Whether there is an account must not show: not in what is asked, not in what is answered.
TEST_F(Login, OfAnUnknownAccountLooksLikeAWrongPassword) {
  for (const std::string name : {"mallory", "Alice", "a b", "alice,x=y"}) {
    Client stranger(name, "a wrong password");
    Client alice("alice", "a wrong password");
    const LoginChallenge unknown = Start(stranger);
    const LoginChallenge known = Start(alice);
    EXPECT_EQ(unknown.login.size(), known.login.size());
    EXPECT_EQ(unknown.message.size(), known.message.size());
    EXPECT_EQ(Member(unknown.message, 'i'), Member(known.message, 'i'));
    EXPECT_EQ(DecodeBase64(Member(unknown.message, 's')).value().size(), kWebSaltBytes);
    EXPECT_NE(Member(unknown.message, 's'), Member(known.message, 's'));
    const std::string last = stranger.Step(unknown.message);
    EXPECT_EQ(stranger.result(), GSASL_NEEDS_MORE);

    const LoginRefusal refusal = FinishRefused(unknown.login, last);
    EXPECT_THAT(refusal.reason, testing::StartsWith("no account \""));
    EXPECT_EQ(refusal.wait, 0s);
  }
}

TEST_F(Login, OfAnUnknownAccountHasTheSameSaltEachTime) {
  const auto salt = [this](const std::string& name) {
    Client client(name, "x");
    return Member(Start(client).message, 's');
  };
  EXPECT_EQ(salt("mallory"), salt("mallory"));
  EXPECT_NE(salt("mallory"), salt("mallorx"));
  EXPECT_EQ(salt("alice"), Accounts()[0].salt);

  LoginServer other_process(Accounts(), kAllowedFailures);
  Client client("mallory", "x");
  const auto answer = other_process.Start(kHere, client.Step(""), now_);
  EXPECT_NE(Member(std::get<LoginChallenge>(answer).message, 's'), salt("mallory"));
}

TEST_F(Login, OfUnknownAccountsHasTheIterationsOfRealOnes) {
  std::vector<WebAccount> accounts = Accounts();
  accounts[0].iterations = 4096;
  accounts[1].iterations = 5000;
  server_.UseAccounts(accounts);
  std::set<std::string> seen;
  for (int i = 0; i < 64; ++i) {
    Client client("stranger" + std::to_string(i), "x");
    seen.insert(Member(Start(client).message, 'i'));
  }
  EXPECT_THAT(seen, ElementsAre("4096", "5000"));

  server_.UseAccounts({});
  Client client("stranger", "x");
  EXPECT_EQ(Member(Start(client).message, 'i'), std::to_string(kWebIterations));
}

TEST_F(Login, AsSomebodyElseIsRefused) {
  Client other("bob", "bob's password", "alice");
  EXPECT_EQ(StartRefused(other.Step("")).reason, "\"bob\" asks to act as \"alice\"");
  Client unknown("mallory", "x", "alice");
  EXPECT_EQ(StartRefused(unknown.Step("")).reason, "\"mallory\" asks to act as \"alice\"");

  Client itself("bob", "bob's password", "bob");
  const LoginChallenge challenge = Start(itself);
  EXPECT_EQ(Finish(challenge.login, itself.Step(challenge.message)).account, "bob");
}

TEST_F(Login, IsNotStartedByGarbage) {
  const auto encode = [](const std::string& text) { return EncodeBase64(text); };
  const std::vector<std::string> messages = {
      "",
      "!",
      "====",
      "\xff\xfe",
      std::string("bixx\0", 5),
      encode(""),
      encode("x"),
      encode("n,,"),
      encode("n,,n=,r=abc"),
      encode("n,,n=alice"),
      encode("n,,n=alice,r="),
      encode("n,,r=abc,n=alice"),
      encode("n,,m=ext,n=alice,r=abc"),
      encode(std::string(500, '\0')),
      std::string(LoginServer::kLongestMessage + 4, 'A'),
      std::string(10000000, 'A'),
      encode("n,,n=alice,r=" + std::string(2000, 'r')),
  };
  for (const std::string& message : messages) {
    EXPECT_THAT(StartRefused(message).reason, HasSubstr("first message")) << message.substr(0, 60);
  }
  EXPECT_TRUE(LogsIn("alice", "alice's password"));
}

TEST_F(Login, IsNotFinishedByGarbage) {
  for (const std::string& message :
       {std::string(), std::string("!"), EncodeBase64("x"), EncodeBase64("c=biws"),
        EncodeBase64("c=biws,r=abc,p=AAAA"), EncodeBase64(std::string(500, '\0')),
        std::string("Yz1iaXdz\0", 9), std::string(5000, 'A'), std::string(10000000, 'A')}) {
    Client client("alice", "alice's password");
    const LoginChallenge challenge = Start(client);
    EXPECT_EQ(FinishRefused(challenge.login, message).reason, "wrong password for \"alice\"");
    server_.UseAccounts({});  // which has no bearing on the count
    server_.UseAccounts(Accounts());
    now_ += 15min;
  }
  EXPECT_TRUE(LogsIn("alice", "alice's password"));
}

TEST_F(Login, PushesOutTheOldestOfItsAddress) {
  Client other("bob", "bob's password");
  const LoginChallenge of_another_address = Start(other, kElsewhere);
  Client first("alice", "alice's password");
  const LoginChallenge oldest = Start(first);
  Client second("alice", "alice's password");
  const LoginChallenge next = Start(second);
  const Client more("alice", "x");
  const std::string message = Client("alice", "x").Step("");
  for (std::size_t i = 1; i < LoginServer::kMostHalfOpenPerAddress; ++i) {
    ASSERT_TRUE(
        std::holds_alternative<LoginChallenge>(server_.Start(kHere, message, now_ + seconds(1))));
  }
  EXPECT_THAT(FinishRefused(oldest.login, first.Step(oldest.message)).reason, HasSubstr("is over"));
  EXPECT_EQ(Finish(next.login, second.Step(next.message)).account, "alice");
  EXPECT_EQ(Finish(of_another_address.login, other.Step(of_another_address.message)).account,
            "bob");
}

TEST_F(Login, PushesOutTheOldestOfAll) {
  Client first("alice", "alice's password");
  const LoginChallenge oldest = Start(first);
  Client second("alice", "alice's password");
  const LoginChallenge next = Start(second);
  const std::string message = Client("alice", "x").Step("");
  for (std::size_t i = 1; i < LoginServer::kMostHalfOpen; ++i) {
    const std::string address = "10.0." + std::to_string(i / 200) + "." + std::to_string(i % 200);
    ASSERT_TRUE(std::holds_alternative<LoginChallenge>(server_.Start(address, message, now_)));
  }
  EXPECT_THAT(FinishRefused(oldest.login, first.Step(oldest.message)).reason, HasSubstr("is over"));
  EXPECT_EQ(Finish(next.login, second.Step(next.message)).account, "alice");
}

TEST_F(Login, HasToWaitAfterTooManyFailures) {
  for (int i = 0; i <= kAllowedFailures; ++i) {
    EXPECT_EQ(Fail("alice").wait, 0s);
  }
  const std::string first = Client("alice", "x").Step("");
  for (const seconds wait : {1s, 2s, 4s, 8s, 16s, 32s, 64s, 128s, 256s, 300s, 300s}) {
    const LoginRefusal refusal = StartRefused(first);
    EXPECT_EQ(refusal.wait, wait);
    EXPECT_EQ(refusal.reason, "too many failed logins as \"alice\", " +
                                  std::to_string(wait.count()) + " seconds to wait");
    now_ += wait - 1ms;
    EXPECT_EQ(StartRefused(first).wait, 1s);
    now_ += 1ms;
    Fail("alice");
  }
  // Others, and she herself from elsewhere, need not.
  EXPECT_TRUE(LogsIn("bob", "bob's password"));
  EXPECT_TRUE(std::holds_alternative<LoginChallenge>(server_.Start(kElsewhere, first, now_)));
}

TEST_F(Login, OfAnUnknownAccountHasToWaitLikeAnyOther) {
  for (int i = 0; i <= kAllowedFailures; ++i) {
    EXPECT_EQ(Fail("mallory").wait, 0s);
  }
  EXPECT_EQ(StartRefused(Client("mallory", "x").Step("")).wait, 1s);
}

TEST_F(Login, MayNotFailMoreOftenByStartingManyAtOnce) {
  std::vector<std::pair<std::string, std::string>> logins;
  for (int i = 0; i < 20; ++i) {
    Client client("alice", "a wrong password");
    const LoginChallenge challenge = Start(client);
    logins.emplace_back(challenge.login, client.Step(challenge.message));
  }
  Client right("alice", "alice's password");
  const LoginChallenge challenge = Start(right);
  int tried = 0;
  for (const auto& [login, message] : logins) {
    tried += FinishRefused(login, message).wait == 0s ? 1 : 0;
  }
  EXPECT_EQ(tried, kAllowedFailures + 1);
  EXPECT_EQ(FinishRefused(challenge.login, right.Step(challenge.message)).wait, 1s);
}

TEST_F(Login, StartsToCountAnewAfterASuccess) {
  for (int i = 0; i < kAllowedFailures; ++i) {
    Fail("alice");
  }
  EXPECT_TRUE(LogsIn("alice", "alice's password"));
  for (int i = 0; i <= kAllowedFailures; ++i) {
    EXPECT_EQ(Fail("alice").wait, 0s);
  }
  EXPECT_EQ(StartRefused(Client("alice", "x").Step("")).wait, 1s);
}

TEST_F(Login, UsesTheAccountsOfNow) {
  Client alice("alice", "alice's password");
  const LoginChallenge of_alice = Start(alice);
  Client bob("bob", "bob's password");
  const LoginChallenge of_bob = Start(bob, kElsewhere);
  EXPECT_THAT(server_.UseAccounts(Accounts()), IsEmpty());

  const WebAccount carol = Account("carol", WebRole::kAdmin, "carol's password");
  EXPECT_THAT(server_.UseAccounts({carol, Accounts()[1]}), ElementsAre("alice"));

  EXPECT_THAT(FinishRefused(of_alice.login, alice.Step(of_alice.message)).reason,
              HasSubstr("is over"));
  EXPECT_EQ(Finish(of_bob.login, bob.Step(of_bob.message)).account, "bob");
  EXPECT_FALSE(LogsIn("alice", "alice's password"));
  EXPECT_TRUE(LogsIn("carol", "carol's password"));
}

TEST_F(Login, TellsWhichAccountsHaveChanged) {
  std::vector<WebAccount> accounts = Accounts();
  accounts[1].role = WebRole::kAdmin;
  EXPECT_THAT(server_.UseAccounts(accounts), ElementsAre("bob"));
  accounts[0].stored_key.Set(accounts[1].stored_key.Get());
  EXPECT_THAT(server_.UseAccounts(accounts), ElementsAre("alice"));
  EXPECT_THAT(server_.UseAccounts({}), ElementsAre("alice", "bob"));
  EXPECT_THAT(server_.UseAccounts(accounts), IsEmpty());
}

class Throttle : public testing::Test {
 protected:
  void Fail(const std::string& account, const std::string& address, int times) {
    for (int i = 0; i < times; ++i) {
      throttle_.CountFailure(account, address, now_);
    }
  }

  seconds Wait(const std::string& account, const std::string& address) const {
    return throttle_.Wait(account, address, now_);
  }

  LoginThrottle::Time now_{1h};
  LoginThrottle throttle_{2};
};

TEST_F(Throttle, ForgetsWhoHasNotFailedForAWhile) {
  Fail("alice", kHere, 3);
  now_ += LoginThrottle::kMemory - 1s;
  Fail("alice", kHere, 1);
  EXPECT_EQ(Wait("alice", kHere), 2s);
  now_ += LoginThrottle::kMemory;
  Fail("alice", kHere, 2);
  EXPECT_EQ(Wait("alice", kHere), 0s);
  Fail("alice", kHere, 1);
  EXPECT_EQ(Wait("alice", kHere), 1s);
}

TEST_F(Throttle, NeverWaitsLongerThanTheLongest) {
  Fail("alice", kHere, 100);
  EXPECT_EQ(Wait("alice", kHere), LoginThrottle::kLongestWait);
}

TEST_F(Throttle, CountsManyAccountsOfOneAddress) {
  for (int i = 0; i < 20; ++i) {
    EXPECT_EQ(Wait("x", kHere), 0s);
    Fail("a" + std::to_string(i), kHere, 1);
  }
  EXPECT_EQ(Wait("x", kHere), 0s);
  Fail("y", kHere, 1);
  EXPECT_EQ(Wait("x", kHere), 1s);
  EXPECT_EQ(Wait("x", kElsewhere), 0s);

  throttle_.CountSuccess("x", kHere);  // somebody's own account frees him of nothing else
  EXPECT_EQ(Wait("x", kHere), 1s);
}

TEST_F(Throttle, DoesNotLockAnAddressOutForOneStubbornScript) {
  Fail("script", kHere, 1000);
  EXPECT_EQ(Wait("script", kHere), 300s);
  EXPECT_EQ(Wait("alice", kHere), 0s);
}

TEST_F(Throttle, TakesANetworkOfIPv6ForOneAddress) {
  Fail("alice", "2001:db8:1:2::1", 3);
  EXPECT_EQ(Wait("alice", "2001:db8:1:2:ffff::9"), 1s);
  EXPECT_EQ(Wait("alice", "2001:db8:1:3::1"), 0s);

  Fail("alice", "::ffff:192.0.2.1", 3);
  EXPECT_EQ(Wait("alice", "::ffff:192.0.2.1"), 1s);
  EXPECT_EQ(Wait("alice", "::ffff:192.0.2.2"), 0s);
}

TEST_F(Throttle, RemembersALimitedNumber) {
  Fail("first", kHere, 3);
  now_ += 1s;
  Fail("second", kElsewhere, 3);
  now_ += 1s;
  for (int i = 0; throttle_.size() < LoginThrottle::kMostEntries; ++i) {
    Fail("x", "host" + std::to_string(i), 1);
  }
  EXPECT_EQ(Wait("second", kElsewhere), 0s);  // it has waited
  Fail("second", kElsewhere, 1);
  Fail("y", "one more", 1);
  EXPECT_EQ(throttle_.size(), LoginThrottle::kMostEntries);
  EXPECT_EQ(Wait("second", kElsewhere), 2s);
  Fail("first", kHere, 1);
  EXPECT_EQ(Wait("first", kHere), 0s);  // it was forgotten

  now_ += LoginThrottle::kMemory;
  Fail("z", kHere, 1);
  EXPECT_EQ(throttle_.size(), 2U);
}

}  // namespace
}  // namespace quillon::platform
