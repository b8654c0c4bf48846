#include <filesystem>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <json/value.h>

#include <velamailserver/log_exception.h>

#include "handlers/api_test.h"
#include "support/as_nobody.h"
#include "support/immutable.h"
#include "support/typed_json.h"

namespace quillon::handlers {
namespace {

using test::Compact;
using test::Typed;
using testing::HasSubstr;
using testing::Not;

// alice has 1,200 bytes in three messages, bob one message of 30, carol no mail directory.
class ClearStorageAPITest : public APITest {
 protected:
  ClearStorageAPITest() : APITest("Quillon.MailServer.User") {
    for (const std::size_t size : {1000, 199, 1}) {
      world_.Deliver("alice", "cur", size);
    }
    world_.Deliver("bob", "new", 30);
    world_.Give("alice", 1001);
    world_.Give("bob", 1002);
    SetUsages();
  }

  void SetUsages() const {
    for (const char* name : {"alice", "bob", "carol"}) {
      world_.SetUsage(name, "77");
    }
  }

  Json::Value Clear(const std::vector<std::string>& names) const {
    return Data("clear_storage", Selection(names));
  }

  static Json::Value DryRun(const std::vector<std::string>& names) {
    Json::Value params = Selection(names);
    params["dry_run"] = true;
    return params;
  }

  std::string Entry(const std::string& name, unsigned int bytes, unsigned int messages) const {
    return R"({"messages":)" + std::to_string(messages) + R"(u,"name":")" + name + R"(","path":")" +
           world_.Maildir(name) + R"(","usage":)" + std::to_string(bytes) + "u}";
  }

  bool HasMail(const std::string& account) const {
    return std::filesystem::exists(world_.Maildir(account));
  }

  // "(nil)" when the usage store has no entry.
  std::string Usage(const std::string& name) {
    return world_.redis().Command({"GET", name + "/quota/storage"});
  }

  void ExpectNothingChanged() {
    EXPECT_EQ(Typed(Data("clear_storage", DryRun({"alice", "bob", "carol"}))),
              R"({"maildirs":[)" + Entry("alice", 1200, 3) + "," + Entry("bob", 30, 1) +
                  R"(],"without":["carol"]})");
    EXPECT_EQ(Usage("alice") + Usage("bob") + Usage("carol"), "777777");
  }
};

TEST_F(ClearStorageAPITest, RemovesTheMailAndTheUsageOfWhoIsNamedAndOfNobodyElse) {
  EXPECT_EQ(Typed(Clear({"alice"})),
            R"({"left":[],"removed":[)" + Entry("alice", 1200, 3) + R"(],"without":[]})");
  EXPECT_FALSE(HasMail("alice"));
  EXPECT_TRUE(HasMail("bob"));
  EXPECT_EQ(Usage("alice"), "(nil)");
  EXPECT_EQ(Usage("bob"), "77");
  EXPECT_EQ(Usage("carol"), "77");
}

TEST_F(ClearStorageAPITest, ADryRunMeasuresAndChangesNothing) {
  ExpectNothingChanged();
  ExpectNothingChanged();
}

TEST_F(ClearStorageAPITest, DryRunMayBeSaidToBeNone) {
  Json::Value params = DryRun({"alice"});
  params["dry_run"] = false;
  EXPECT_EQ(Data("clear_storage", params)["removed"][0]["name"].asString(), "alice");
  EXPECT_FALSE(HasMail("alice"));
}

TEST_F(ClearStorageAPITest, DeletesTheUsageOfAUserWithoutAMailDirectory) {
  EXPECT_EQ(Typed(Clear({"carol"})), R"({"left":[],"removed":[],"without":["carol"]})");
  EXPECT_EQ(Usage("carol"), "(nil)");
  EXPECT_EQ(Usage("alice"), "77");
}

TEST_F(ClearStorageAPITest, AUserWhoIsNamedTwiceCountsOnce) {
  EXPECT_EQ(Typed(Clear({"BOB", "Carol", "bob", "alice", "carol"})),
            R"({"left":[],"removed":[)" + Entry("bob", 30, 1) + "," + Entry("alice", 1200, 3) +
                R"(],"without":["carol"]})");
}

TEST_F(ClearStorageAPITest, UsersOfOneUidHaveOneMailDirectory) {
  world_.AddAccount("alias", 1001);
  world_.SetUsage("alias", "77");
  const Json::Value data = Clear({"alias", "alice"});
  ASSERT_EQ(data["removed"].size(), 1U);
  EXPECT_EQ(data["removed"][0]["name"].asString(), "alias");
  EXPECT_EQ(data["removed"][0]["path"].asString(), world_.Maildir("alice"));
  EXPECT_EQ(Typed(data["without"]), R"(["alice"])");
  EXPECT_EQ(Usage("alias") + Usage("alice"), "(nil)(nil)");
}

TEST_F(ClearStorageAPITest, ASecondCallFindsNothing) {
  Clear({"alice"});
  EXPECT_EQ(Typed(Clear({"alice"})), R"({"left":[],"removed":[],"without":["alice"]})");
}

TEST_F(ClearStorageAPITest, ALinkIsNoMailDirectoryAndWhatItPointsToStays) {
  std::filesystem::create_directory_symlink(world_.Maildir("alice"), world_.Maildir("carol"));
  EXPECT_EQ(Typed(Clear({"carol"})), R"({"left":[],"removed":[],"without":["carol"]})");
  EXPECT_TRUE(std::filesystem::is_symlink(world_.Maildir("carol")));
  EXPECT_EQ(Usage("carol"), "(nil)");
  SetUsages();
  std::filesystem::remove(world_.Maildir("carol"));
  ExpectNothingChanged();
}

TEST_F(ClearStorageAPITest, SomebodyElsesDirectoryIsLeft) {
  world_.Give("alice", 1003);
  EXPECT_EQ(Typed(Clear({"alice", "bob"})), R"({"left":[)" + Entry("alice", 1200, 3) +
                                                R"(],"removed":[)" + Entry("bob", 30, 1) +
                                                R"(],"without":[]})");
  EXPECT_EQ(Usage("alice"), "(nil)");
  EXPECT_THAT(world_.folder().Read("mail.log"),
              HasSubstr("not removed: " + world_.Maildir("alice") +
                        ": it belongs to uid 1003, not 1001\n"));
}

TEST_F(ClearStorageAPITest, AnswersWhatIsLeftWithWhatIsStillInIt) {
  const test::Immutable file(world_.Maildir("alice") + "/cur/2.M1P1.host");
  if (!file.IsSet()) {
    GTEST_SKIP() << "the file system has no immutable files";
  }
  EXPECT_EQ(Typed(Clear({"alice", "bob"})), R"({"left":[)" + Entry("alice", 199, 1) +
                                                R"(],"removed":[)" + Entry("bob", 30, 1) +
                                                R"(],"without":[]})");
}

TEST_F(ClearStorageAPITest, UnknownNamesKeepEverybodysMail) {
  for (const bool is_dry_run : {false, true}) {
    Json::Value params = DryRun({"alice", "eve", "bob"});
    params["dry_run"] = is_dry_run;
    const Json::Value error = Error("clear_storage", params);
    EXPECT_EQ(error["code"].asInt(), velamailserver::ERR_SDK_USER_GET);
    EXPECT_EQ(error["message"].asString(), "no such user: [eve]");
  }
  ExpectNothingChanged();
}

TEST_F(ClearStorageAPITest, NoNamesAreNotEverybody) {
  EXPECT_EQ(Error("clear_storage", Selection({}))["code"].asInt(), VELA::APIRunner::kBadParameters);
  ExpectNothingChanged();
}

TEST_F(ClearStorageAPITest, AMissingMaildirRootIsNotAnEmptyOne) {
  const std::string root = world_.folder() / "spool";
  std::filesystem::rename(root, root + ".away");
  for (const Json::Value& params : {Selection({"alice", "bob"}), DryRun({"alice", "bob"})}) {
    const Json::Value error = Error("clear_storage", params);
    EXPECT_EQ(error["code"].asInt(), velamailserver::ERR_LSTAT_FILE);
    EXPECT_EQ(error["message"].asString(), root + " (maildir.root): No such file or directory");
    EXPECT_FALSE(error.isMember("data"));
  }
  std::filesystem::rename(root + ".away", root);
  ExpectNothingChanged();
}

TEST_F(ClearStorageAPITest, ADirectoryThatCannotBeLookedUpKeepsTheOthersMail) {
  const std::string domain = world_.folder() / "spool/local";
  std::filesystem::rename(domain, domain + ".away");
  std::filesystem::create_directory_symlink(domain + ".away", domain);
  EXPECT_EQ(Error("clear_storage", Selection({"alice"}))["code"].asInt(),
            velamailserver::ERR_LSTAT_FILE);
  std::filesystem::remove(domain);
  std::filesystem::rename(domain + ".away", domain);
  ExpectNothingChanged();
}

TEST_F(ClearStorageAPITest, TellsWhatHasGoneWhenTheUsageStoreFailsAndASecondCallFinishesTheJob) {
  world_.Give("bob", 1003);
  world_.redis().Stop();
  const Json::Value error = Error("clear_storage", Selection({"alice", "bob", "carol"}));
  EXPECT_EQ(error["code"].asInt(), velamailserver::ERR_REDIS_DELETE_KEY);
  EXPECT_EQ(error["message"].asString(),
            "cannot delete the usage entries of [alice], [bob], [carol] (mail directories removed: "
            "1, left: 1); call again once the usage store can be reached");
  EXPECT_EQ(Typed(error["data"]), R"({"left":[)" + Entry("bob", 30, 1) + R"(],"removed":[)" +
                                      Entry("alice", 1200, 3) + R"(],"without":["carol"]})");
  EXPECT_FALSE(HasMail("alice"));
  EXPECT_THAT(world_.folder().Read("mail.log"),
              HasSubstr(" lib-webapi/account/user:59 (1007) failed to delete key on redis: "
                        "alice,bob,carol\n"));

  world_.redis().Start();
  SetUsages();
  world_.Give("bob", 1002);
  EXPECT_EQ(
      Typed(Clear({"alice", "bob", "carol"})),
      R"({"left":[],"removed":[)" + Entry("bob", 30, 1) + R"(],"without":["alice","carol"]})");
  EXPECT_EQ(Usage("alice") + Usage("bob") + Usage("carol"), "(nil)(nil)(nil)");
}

TEST_F(ClearStorageAPITest, NamesTheFirstOfManyWhoseUsageIsLeft) {
  std::vector<std::string> names;
  for (unsigned int i = 1; i <= 12; ++i) {
    names.push_back("n" + std::to_string(i));
    world_.AddAccount(names.back(), 2000 + i);
  }
  world_.redis().Stop();
  EXPECT_THAT(
      Error("clear_storage", Selection(names))["message"].asString(),
      HasSubstr("[n1], [n2], [n3], [n4], [n5], [n6], [n7], [n8], [n9], [n10] and 2 more ("));
}

TEST_F(ClearStorageAPITest, ADryRunNeedsNoUsageStore) {
  world_.redis().Stop();
  EXPECT_EQ(Compact(Data("clear_storage", DryRun({"carol"}))),
            R"({"maildirs":[],"without":["carol"]})");
  EXPECT_THAT(world_.folder().Read("mail.log"), Not(HasSubstr("redis")));
}

TEST_F(ClearStorageAPITest, BecomesRootForWhatOnlyRootMay) {
  LetEverybodyIn();
  {
    const test::AsNobody nobody;
    EXPECT_EQ(Data("clear_storage", DryRun({"alice"}))["maildirs"].size(), 1U);
    EXPECT_EQ(Clear({"alice"})["removed"].size(), 1U);
  }
  EXPECT_FALSE(HasMail("alice"));
}

}  // namespace
}  // namespace quillon::handlers
