#include <new>
#include <string>
#include <vector>

#include <gmock/gmock.h>

#include <velamailserver/account/user.h>

#include "lib-webapi/account/user_world_test.h"
#include "lib-webapi/pass_through.h"
#include "recording_platform/world_test.h"

namespace velamailserver::webapi {
namespace {

using quillon::test::ExpectPassesThrough;
using quillon::test::Step;
using quillon::test::Thrown;
using recording::LogRecord;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr char kAsRoot[] = "RunAsRoot(clear user storage) {";
constexpr char kNotDeleted[] =
    "lib-webapi/account/user:59 (1007) failed to delete key on redis: alice,bob";

class ClearStorageTest : public UserWorldTest {
 protected:
  ClearStorageTest() {
    AddUser("alice", 1001, "alice", true);
    AddUser("bob", 1002, "bob", true);
    AddUser("carol", 1003, "Carol.Real", false);
    AddUser("dave", 1004, "Dave.Real", true);
  }

  void AddUser(const std::string& name, unsigned int uid, const std::string& real_name,
               bool has_maildir) {
    world_.AddUser(name, uid, real_name);
    SetMaildir(uid, "/maildir/local/" + name, has_maildir);  // a missing one has a path, too
  }

  void Clear(const std::vector<std::string>& names) { user_.ClearStorage(Users(names)); }
};

TEST_F(ClearStorageTest, DeletesTheDirectoriesThenTheUsageAsRoot) {
  Clear({"alice", "bob"});
  EXPECT_THAT(
      world_.transcript,
      ElementsAre("Uid(alice)", "Maildir(uid=1001)", "RealName(alice)", "Uid(bob)",
                  "Maildir(uid=1002)", "RealName(bob)", kAsRoot, "Delete(/maildir/local/alice)",
                  "Delete(/maildir/local/bob)", "RedisClient()", "QuotaRedisClient()",
                  "DeleteUsage([alice, bob])", "~RedisClient()", "}"));
  EXPECT_THAT(world_.log, IsEmpty());
}

TEST_F(ClearStorageTest, GoesInTheOrderOfTheUsersAndOnceForEach) {
  Clear({"bob", "alice", "bob"});
  EXPECT_THAT(
      world_.transcript,
      ElementsAre("Uid(bob)", "Maildir(uid=1002)", "RealName(bob)", "Uid(alice)",
                  "Maildir(uid=1001)", "RealName(alice)", "Uid(bob)", "Maildir(uid=1002)",
                  "RealName(bob)", kAsRoot, "Delete(/maildir/local/bob)",
                  "Delete(/maildir/local/alice)", "Delete(/maildir/local/bob)", "RedisClient()",
                  "QuotaRedisClient()", "DeleteUsage([bob, alice, bob])", "~RedisClient()", "}"));
}

TEST_F(ClearStorageTest, OfAUserWithoutADirectoryDeletesTheUsageByRealName) {
  Clear({"carol"});
  EXPECT_THAT(world_.transcript, ElementsAre("Uid(carol)", "Maildir(uid=1003)", "RealName(carol)",
                                             kAsRoot, "RedisClient()", "QuotaRedisClient()",
                                             "DeleteUsage([Carol.Real])", "~RedisClient()", "}"));
}

TEST_F(ClearStorageTest, AUserWithoutADirectoryContributesOnlyItsName) {
  Clear({"carol", "dave"});
  EXPECT_THAT(world_.transcript,
              ElementsAre("Uid(carol)", "Maildir(uid=1003)", "RealName(carol)", "Uid(dave)",
                          "Maildir(uid=1004)", "RealName(dave)", kAsRoot,
                          "Delete(/maildir/local/dave)", "RedisClient()", "QuotaRedisClient()",
                          "DeleteUsage([Carol.Real, Dave.Real])", "~RedisClient()", "}"));
}

TEST_F(ClearStorageTest, OfNobodyGoesAllTheWayToo) {
  Clear({});
  EXPECT_THAT(world_.transcript, ElementsAre(kAsRoot, "RedisClient()", "QuotaRedisClient()",
                                             "DeleteUsage([])", "~RedisClient()", "}"));
}

TEST_F(ClearStorageTest, GoesOnAfterADirectoryThatCannotBeDeletedAndDoesNotTell) {
  world_.delete_maildir = false;
  Clear({"alice", "bob"});
  EXPECT_THAT(
      world_.transcript,
      ElementsAre("Uid(alice)", "Maildir(uid=1001)", "RealName(alice)", "Uid(bob)",
                  "Maildir(uid=1002)", "RealName(bob)", kAsRoot, "Delete(/maildir/local/alice)",
                  "Delete(/maildir/local/bob)", "RedisClient()", "QuotaRedisClient()",
                  "DeleteUsage([alice, bob])", "~RedisClient()", "}"));
  EXPECT_THAT(world_.log, IsEmpty());
}

// What is thrown is thrown as root, when the mail is gone.
TEST_F(ClearStorageTest, AUsageStoreThatFailsIsToldWithTheNames) {
  world_.delete_usage = false;
  EXPECT_EQ(Thrown([&] {
              Clear({"alice", "bob"});
            }),
            "LogException 1007 lib-webapi/account/user:59 alice,bob");
  EXPECT_THAT(world_.log, ElementsAre(LogRecord{3, "%s:%d (%d) %s: %s", kNotDeleted}));
  EXPECT_THAT(
      world_.transcript,
      ElementsAre("Uid(alice)", "Maildir(uid=1001)", "RealName(alice)", "Uid(bob)",
                  "Maildir(uid=1002)", "RealName(bob)", kAsRoot, "Delete(/maildir/local/alice)",
                  "Delete(/maildir/local/bob)", "RedisClient()", "QuotaRedisClient()",
                  "DeleteUsage([alice, bob])", R"(Join([alice, bob], ","))",
                  std::string("maillog(3, \"") + kNotDeleted + "\")", "~RedisClient()", "}"));
}

TEST_F(ClearStorageTest, AUsageStoreThatFailsIsToldWithRealNamesInTheOrderOfTheUsers) {
  world_.delete_usage = false;
  EXPECT_EQ(Thrown([&] {
              Clear({"dave", "carol", "bob"});
            }),
            "LogException 1007 lib-webapi/account/user:59 Dave.Real,Carol.Real,bob");
  EXPECT_EQ(Thrown([&] { Clear({"carol"}); }),
            "LogException 1007 lib-webapi/account/user:59 Carol.Real");
}

TEST_F(ClearStorageTest, AUsageStoreThatFailsForNobodyIsToldWithoutNames) {
  world_.delete_usage = false;
  EXPECT_EQ(Thrown([&] { Clear({}); }), "LogException 1007 lib-webapi/account/user:59 ");
  EXPECT_THAT(
      world_.log,
      ElementsAre(LogRecord{3, "%s:%d (%d) %s: %s",
                            "lib-webapi/account/user:59 (1007) failed to delete key on redis: "}));
}

TEST_F(ClearStorageTest, AUserWhoCannotBeLookedUpEndsItBeforeAnythingIsDeleted) {
  std::erase_if(world_.maildirs, [](const auto& maildir) { return maildir.uid == 1002; });
  EXPECT_EQ(Thrown([&] {
              Clear({"alice", "bob"});
            }),
            "LogException 2106 recording_platform/mail_directories:11 no user 1002");
  EXPECT_THAT(world_.transcript,
              ElementsAre("Uid(alice)", "Maildir(uid=1001)", "RealName(alice)", "Uid(bob)",
                          "Maildir(uid=1002)",
                          "maillog(3, \"recording_platform/mail_directories:11 (2106) SDK failed "
                          "to VELAUserGetByUID: no user 1002\")"));
}

TEST_F(ClearStorageTest, EveryFailureOfThePlatformPassesThrough) {
  const std::vector<Step> steps = {{"Uid(alice)"},
                                   {"Maildir(uid=1001)"},
                                   {"RealName(alice)"},
                                   {"Uid(dave)"},
                                   {"Maildir(uid=1004)"},
                                   {"RealName(dave)"},
                                   {kAsRoot},
                                   {"Delete(/maildir/local/alice)", {"}"}},
                                   {"Delete(/maildir/local/dave)", {"}"}},
                                   {"RedisClient()", {"}"}},
                                   {"QuotaRedisClient()", {"~RedisClient()", "}"}},
                                   {"DeleteUsage([alice, Dave.Real])", {"~RedisClient()", "}"}},
                                   {"~RedisClient()", {}, false},
                                   {"}"}};
  ExpectPassesThrough(steps, [&] { Clear({"alice", "dave"}); });
}

TEST_F(ClearStorageTest, AFailureToNameTheUsersPassesThroughToo) {
  world_.delete_usage = false;
  world_.FailCallsStartingWith("Join(", recording::Throw<std::bad_alloc>());
  EXPECT_THROW(Clear({"carol"}), std::bad_alloc);
  EXPECT_THAT(world_.transcript,
              ElementsAre("Uid(carol)", "Maildir(uid=1003)", "RealName(carol)", kAsRoot,
                          "RedisClient()", "QuotaRedisClient()", "DeleteUsage([Carol.Real])",
                          R"(Join([Carol.Real], ","))", "~RedisClient()", "}"));
}

}  // namespace
}  // namespace velamailserver::webapi
