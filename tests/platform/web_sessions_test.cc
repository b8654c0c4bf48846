#include <chrono>
#include <set>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <quillon/platform/web_sessions.h>

namespace quillon::platform {
namespace {

using namespace std::chrono_literals;

class Sessions : public testing::Test {
 protected:
  std::string Create(const std::string& account, std::chrono::seconds lifetime = 1800s,
                     WebRole role = WebRole::kAdmin) {
    return sessions_.Create(account, role, lifetime, now_).token.Get();
  }

  bool IsAlive(const std::string& token) { return sessions_.Find(token, now_).has_value(); }

  WebSessions::Time now_{1h};
  WebSessions sessions_{3};
};

TEST_F(Sessions, KnowWhoseTokenItIs) {
  const std::string alice = Create("alice", 1800s, WebRole::kAdmin);
  const std::string bob = Create("bob", 1800s, WebRole::kMonitor);

  EXPECT_EQ(sessions_.Find(alice, now_)->account, "alice");
  EXPECT_EQ(sessions_.Find(alice, now_)->role, WebRole::kAdmin);
  EXPECT_EQ(sessions_.Find(bob, now_)->account, "bob");
  EXPECT_EQ(sessions_.Find(bob, now_)->role, WebRole::kMonitor);
}

TEST_F(Sessions, HaveTokensThatNobodyGuesses) {
  std::set<std::string> tokens;
  for (int i = 0; i < 100; ++i) {
    const std::string token = Create("account" + std::to_string(i));
    EXPECT_THAT(token, testing::MatchesRegex("[A-Za-z0-9_-]+"));
    EXPECT_EQ(token.size(), 43U);
    tokens.insert(token);
  }
  EXPECT_EQ(tokens.size(), 100U);
}

TEST_F(Sessions, AreFoundByTheWholeTokenOnly) {
  const std::string token = Create("alice");
  EXPECT_FALSE(IsAlive(""));
  EXPECT_FALSE(IsAlive(token.substr(1)));
  EXPECT_FALSE(IsAlive(token + "="));
  EXPECT_FALSE(IsAlive(token.substr(0, 42) + '\0'));
  EXPECT_FALSE(IsAlive(std::string(1000000, 'A')));
  EXPECT_TRUE(IsAlive(token));
}

TEST_F(Sessions, EndAfterTheirLifetimeAlthoughUsed) {
  const std::string token = Create("alice");
  now_ += 1799s;
  EXPECT_TRUE(IsAlive(token));
  now_ += 1s;
  EXPECT_FALSE(IsAlive(token));

  Create("bob");
  EXPECT_EQ(sessions_.size(), 1U);
}

TEST_F(Sessions, EndWhenAsked) {
  const std::string token = Create("alice");
  const std::string other = Create("alice");
  EXPECT_TRUE(sessions_.End(token));
  EXPECT_FALSE(IsAlive(token));
  EXPECT_FALSE(sessions_.End(token));
  EXPECT_TRUE(IsAlive(other));
}

TEST_F(Sessions, EndWithTheirAccount) {
  const std::string first = Create("alice");
  const std::string second = Create("alice");
  const std::string other = Create("bob");
  sessions_.DropAccount("alice");
  EXPECT_FALSE(IsAlive(first));
  EXPECT_FALSE(IsAlive(second));
  EXPECT_TRUE(IsAlive(other));
}

TEST_F(Sessions, MakeRoomByTheOneThatWouldEndFirst) {
  const std::string other = Create("bob", 100s);
  const std::string first = Create("alice", 1000s);
  const std::string second = Create("alice", 900s);
  EXPECT_FALSE(sessions_.Create("alice", WebRole::kAdmin, 1800s, now_).has_ended_another);
  now_ += 10s;
  EXPECT_TRUE(IsAlive(second));  // that it is used makes no difference

  const auto created = sessions_.Create("alice", WebRole::kAdmin, 300s, now_);

  EXPECT_TRUE(created.has_ended_another);
  EXPECT_FALSE(IsAlive(second));
  EXPECT_TRUE(IsAlive(first));
  EXPECT_TRUE(IsAlive(created.token.Get()));
  EXPECT_TRUE(IsAlive(other));
  EXPECT_EQ(sessions_.size(), 4U);
}

TEST_F(Sessions, OutliveAnyNumberOfShorterOnes) {
  const std::string idle = Create("alice", 1800s);
  for (int i = 0; i < 1400; ++i) {
    now_ += 1s;
    EXPECT_TRUE(IsAlive(Create("alice", 300s)));
  }
  EXPECT_TRUE(IsAlive(idle));
}

TEST_F(Sessions, ThatHaveExpiredNeedNoRoom) {
  const std::string first = Create("alice");
  Create("alice");
  Create("alice");
  now_ += 1800s;
  EXPECT_FALSE(sessions_.Create("alice", WebRole::kAdmin, 1800s, now_).has_ended_another);
  EXPECT_EQ(sessions_.size(), 1U);
}

}  // namespace
}  // namespace quillon::platform
