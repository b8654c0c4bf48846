#include <filesystem>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <json/value.h>

#include <quillon/platform/usage_count.h>
#include <vela/api_runner.h>
#include <velamailserver/log_exception.h>
#include <velamailserver/velasdk/file_lock_guard.h>

#include "handlers/api_test.h"
#include "support/as_nobody.h"
#include "support/descendants.h"
#include "support/immutable.h"
#include "support/typed_json.h"

namespace quillon::handlers {
namespace {

using test::Compact;
using test::Typed;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using velamailserver::velasdk::FileLockGuard;

// No accounts of this host or of the tests' world.
constexpr unsigned int kDora = 3000001;
constexpr unsigned int kEmil = 3000002;
constexpr unsigned int kNobodyElse = 3000009;

class NoOwnerAPITest : public APITest {
 protected:
  // alice's, dora's with 1,200 bytes in three messages, and emil's with one of 30 bytes.
  NoOwnerAPITest() : APITest("Quillon.MailServer.NoOwner") {
    Deliver("alice", 1001, {500});
    Deliver("dora", kDora, {1000, 199, 1});
    Deliver("emil", kEmil, {30});
  }

  void Deliver(const std::string& account, unsigned int uid,
               const std::vector<std::size_t>& sizes) {
    for (const std::size_t size : sizes) {
      world_.Deliver(account, "cur", size);
    }
    world_.Give(account, uid);
  }

  Json::Value Remove(const std::vector<unsigned int>& uids, bool is_dry_run = false) const {
    Json::Value params;
    for (const unsigned int uid : uids) {
      params["uids"].append(uid);
    }
    if (is_dry_run) {
      params["dry_run"] = true;
    }
    return Data("remove", params);
  }

  static std::vector<std::string> Names(const Json::Value& entries) {
    std::vector<std::string> names;
    for (const Json::Value& entry : entries) {
      names.push_back(entry["name"].asString());
    }
    return names;
  }

  std::vector<std::string> Listed(const Json::Value& params = Json::Value()) const {
    return Names(Data("list", params)["no_owner_list"]);
  }

  void Count() {
    Data("refresh");
    background_.Wait();
  }

  std::string Entry(const std::string& account, unsigned int uid, unsigned int bytes,
                    unsigned int messages) const {
    return R"({"messages":)" + std::to_string(messages) + R"(u,"name":")" + account +
           R"(","path":")" + world_.Maildir(account) + R"(","uid":)" + std::to_string(uid) +
           R"(u,"usage":)" + std::to_string(bytes) + "u}";
  }

  // Nothing that scans the disk is done.
  void ExpectNoScan(velamailserver::ErrorCode code, const std::string& message) const {
    Json::Value uids;
    uids["uids"].append(kDora);
    for (const char* method : {"list", "refresh", "remove"}) {
      const Json::Value params = method == std::string("remove") ? uids : Json::Value();
      const Json::Value error = Exec(method, params)["error"];
      EXPECT_EQ(error["code"].asInt(), code) << method;
      EXPECT_EQ(error["message"].asString(), message) << method;
    }
  }

  bool Exists(const std::string& account) const {
    return std::filesystem::exists(world_.Maildir(account));
  }

  test::Descendants background_;
};

TEST_F(NoOwnerAPITest, ListsWhatWasNeverCountedAndStartsToCountIt) {
  EXPECT_EQ(Typed(Data("list")),
            R"({"no_owner_list":[{"counted":false,"name":"dora","uid":3000001u,"usage":0u},)"
            R"({"counted":false,"name":"emil","uid":3000002u,"usage":0u}],"total":2u})");
  background_.Wait();
  EXPECT_EQ(Typed(Data("list")),
            R"({"no_owner_list":[{"counted":true,"name":"dora","uid":3000001u,"usage":1200u},)"
            R"({"counted":true,"name":"emil","uid":3000002u,"usage":30u}],"total":2u})");
}

TEST_F(NoOwnerAPITest, TellsAnEmptyDirectoryFromOneThatWasNeverCounted) {
  Deliver("fred", kNobodyElse, {0});
  Count();
  Deliver("gina", kNobodyElse, {0});
  EXPECT_EQ(Compact(Data("list")["no_owner_list"]),
            R"([{"counted":true,"name":"dora","uid":3000001,"usage":1200},)"
            R"({"counted":true,"name":"emil","uid":3000002,"usage":30},)"
            R"({"counted":true,"name":"fred","uid":3000009,"usage":0},)"
            R"({"counted":false,"name":"gina","uid":3000009,"usage":0}])");
}

TEST_F(NoOwnerAPITest, AnswersThePageThatIsAskedFor) {
  Deliver("DORIAN", kNobodyElse, {2000});
  Count();
  Json::Value params;
  params["keyword"] = "dor";
  EXPECT_THAT(Listed(params), ElementsAre("DORIAN", "dora"));
  params["sort_by"] = "usage";
  EXPECT_THAT(Listed(params), ElementsAre("dora", "DORIAN"));
  params["sort_direction"] = "DESC";
  EXPECT_THAT(Listed(params), ElementsAre("DORIAN", "dora"));
  params["offset"] = 1;
  EXPECT_THAT(Listed(params), ElementsAre("dora"));
  params["offset"] = 0;
  params["limit"] = 1;
  EXPECT_THAT(Listed(params), ElementsAre("DORIAN"));
  EXPECT_EQ(Data("list", params)["total"].asUInt(), 2U);
  params["limit"] = 0;
  EXPECT_EQ(Data("list", params)["no_owner_list"], Json::Value(Json::arrayValue));
}

TEST_F(NoOwnerAPITest, ListsNobody) {
  Remove({kDora, kEmil});
  EXPECT_EQ(Typed(Data("list")), R"({"no_owner_list":[],"total":0u})");
}

TEST_F(NoOwnerAPITest, RefreshAnswersAGenerationThatGrows) {
  EXPECT_EQ(Typed(Data("status")), R"({"generation":0u,"running":false})");
  EXPECT_EQ(Typed(Data("refresh")), R"({"generation":0u,"maildirs":2u,"skipped":false})");
  background_.Wait();
  const auto generation = Data("status")["generation"].asUInt64();
  EXPECT_GT(generation, 0U);
  EXPECT_EQ(Data("refresh")["generation"].asUInt64(), generation);
  background_.Wait();
  EXPECT_GT(Data("status")["generation"].asUInt64(), generation);
}

TEST_F(NoOwnerAPITest, RefreshIsSkippedWhileAnotherCountIsRunning) {
  {
    const FileLockGuard lock(platform::kUsageCountLockFile);
    EXPECT_TRUE(Data("status")["running"].asBool());
    EXPECT_EQ(Typed(Data("refresh")),
              R"({"generation":0u,"maildirs":2u,"reason":"another usage count is running",)"
              R"("skipped":true})");
    background_.Wait();
  }
  EXPECT_THAT(world_.folder().Read("mail.log"),
              HasSubstr(" alert: lib-webapi/account/no_owner:66 counting usage, skip refresh\n"));
  EXPECT_EQ(Typed(Data("status")), R"({"generation":0u,"running":false})");
  EXPECT_FALSE(Data("list")["no_owner_list"][0]["counted"].asBool());
}

TEST_F(NoOwnerAPITest, ADryRunMeasuresAndChangesNothing) {
  Count();
  Deliver("dora", kDora, {7});
  EXPECT_EQ(Typed(Remove({kEmil, kDora, kNobodyElse, 1001, kEmil, 1001}, true)),
            R"({"maildirs":[)" + Entry("dora", kDora, 1207, 4) + "," + Entry("emil", kEmil, 30, 1) +
                R"(],"unknown":[3000009u,1001u]})");
  EXPECT_EQ(Compact(Data("list")),
            R"({"no_owner_list":[{"counted":true,"name":"dora","uid":3000001,"usage":1200},)"
            R"({"counted":true,"name":"emil","uid":3000002,"usage":30}],"total":2})");
}

TEST_F(NoOwnerAPITest, RemovesWhatItIsToldTo) {
  EXPECT_EQ(Typed(Remove({kDora})),
            R"({"left":[],"removed":[)" + Entry("dora", kDora, 1200, 3) + R"(],"unknown":[]})");
  EXPECT_FALSE(Exists("dora"));
  EXPECT_TRUE(Exists("emil"));
  EXPECT_THAT(Listed(), ElementsAre("emil"));
}

TEST_F(NoOwnerAPITest, RemovesTheOthersInSpiteOfAnUnknownUid) {
  const Json::Value data = Remove({kNobodyElse, kEmil, 1001, 4294967295U, kNobodyElse});
  EXPECT_EQ(Compact(data["unknown"]), "[3000009,1001,4294967295]");
  EXPECT_THAT(Names(data["removed"]), ElementsAre("emil"));
  EXPECT_FALSE(Exists("emil"));
  EXPECT_TRUE(Exists("alice"));
}

TEST_F(NoOwnerAPITest, NoUidsAreNotAll) {
  Json::Value params;
  params["uids"] = Json::Value(Json::arrayValue);
  EXPECT_EQ(Exec("remove", params)["error"]["code"].asInt(), VELA::APIRunner::kBadParameters);
  EXPECT_THAT(Listed(), ElementsAre("dora", "emil"));
}

TEST_F(NoOwnerAPITest, RemovesEveryDirectoryOfAUid) {
  Deliver("dora2", kDora, {5});
  EXPECT_THAT(Names(Remove({kDora})["removed"]), testing::UnorderedElementsAre("dora", "dora2"));
  EXPECT_FALSE(Exists("dora"));
  EXPECT_FALSE(Exists("dora2"));
}

// find prints the second one as the first one's path and an empty line.
TEST_F(NoOwnerAPITest, AnswersADirectoryThatWasFoundTwiceOnce) {
  Deliver("dora\n", kNobodyElse, {5});
  EXPECT_EQ(Typed(Remove({kDora}, true)),
            R"({"maildirs":[)" + Entry("dora", kDora, 1200, 3) + R"(],"unknown":[]})");
  EXPECT_THAT(Names(Remove({kDora})["removed"]), ElementsAre("dora"));
}

TEST_F(NoOwnerAPITest, AnswersWhatIsLeftWithWhatIsStillInIt) {
  const test::Immutable file(world_.Maildir("dora") + "/cur/2.M1P1.host");
  if (!file.IsSet()) {
    GTEST_SKIP() << "the file system has no immutable files";
  }
  const Json::Value data = Remove({kDora, kEmil});
  EXPECT_THAT(Names(data["removed"]), ElementsAre("emil"));
  EXPECT_EQ(Typed(data["left"]), "[" + Entry("dora", kDora, 1000, 1) + "]");
  EXPECT_EQ(data["unknown"], Json::Value(Json::arrayValue));
  EXPECT_THAT(Listed(), ElementsAre("dora"));
}

TEST_F(NoOwnerAPITest, AMissingMaildirRootIsNotAnEmptyOne) {
  const std::string root = world_.folder() / "spool";
  std::filesystem::rename(root, root + ".away");
  ExpectNoScan(velamailserver::ERR_LSTAT_FILE, root + " (maildir.root): No such file or directory");
  world_.folder().Write("spool", "");
  ExpectNoScan(velamailserver::ERR_LSTAT_FILE, root + " (maildir.root): Not a directory");
}

TEST_F(NoOwnerAPITest, AccountsThatCannotBeUsedAreNotAnEmptyList) {
  const std::string passwd = world_.folder() / "passwd";
  const std::string problem = "cannot find out whose the mail directories are: " + passwd + ": ";
  world_.folder().Write("passwd", world_.folder().Read("passwd") + "torn:x:10\n");
  ExpectNoScan(velamailserver::ERR_SDK_USER_ENUM, problem + "line 4 is not an account entry");
  std::filesystem::remove(passwd);
  ExpectNoScan(velamailserver::ERR_SDK_USER_ENUM, problem + "No such file or directory");
  EXPECT_TRUE(Exists("dora"));
}

TEST_F(NoOwnerAPITest, BecomesRootForWhatOnlyRootMay) {
  Count();
  {
    const test::AsNobody nobody;
    EXPECT_THAT(Listed(), ElementsAre("dora", "emil"));
    EXPECT_GT(Data("status")["generation"].asUInt64(), 0U);
    EXPECT_THAT(Names(Remove({kDora}, true)["maildirs"]), ElementsAre("dora"));
    EXPECT_THAT(Names(Remove({kDora})["removed"]), ElementsAre("dora"));
  }
  EXPECT_FALSE(Exists("dora"));
}

}  // namespace
}  // namespace quillon::handlers
