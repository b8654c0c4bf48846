#include <algorithm>
#include <climits>
#include <functional>
#include <limits>
#include <optional>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <vector>

#include <gmock/gmock.h>
#include <json/value.h>

#include <velamailserver/account/no_owner.h>
#include <velamailserver/log_exception.h>
#include <velamailserver/velasdk/file_lock_guard.h>

#include "lib-webapi/pass_through.h"
#include "recording_platform/world_test.h"
#include "support/typed_json.h"

namespace velamailserver::webapi {
namespace {

using account::NoOwnerMaildir;
using quillon::test::Concatenated;
using quillon::test::ExpectPassedThrough;
using quillon::test::FailedRun;
using quillon::test::Lines;
using quillon::test::LinesOf;
using quillon::test::Step;
using quillon::test::Thrown;
using quillon::test::ThrownBy;
using quillon::test::Typed;
using quillon::test::WayToFail;
using recording::LogRecord;
using recording::OwnerlessMaildir;
using recording::Pause;
using recording::Throw;
using testing::Contains;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;

using Uids = std::vector<unsigned int>;

constexpr unsigned long long kLargestUsage = std::numeric_limits<unsigned long long>::max();

constexpr char kFind[] =
    R"(Popen(/bin/find, ["/maildir", "-mindepth", "2", "-maxdepth", "2", "-type", "d", "-nouser"]))";
constexpr char kScanAsRoot[] = "RunAsRoot(set no owner) {";
constexpr char kRefreshAsRoot[] = "RunAsRoot(refresh no owner usage) {";
constexpr char kRemoveAsRoot[] = "RunAsRoot(remove user maildir) {";
constexpr char kFork[] = "VLIBCProcForkChildNoWait()";
constexpr char kLock[] = "FileLockGuard(/var/lock/quillon_server/run_count_usage.lock)";
constexpr char kUnlock[] = "~FileLockGuard()";

constexpr char kSkip[] = "lib-webapi/account/no_owner:66 counting usage, skip refresh";
constexpr char kSkipCall[] =
    R"(maillog(1, "lib-webapi/account/no_owner:66 counting usage, skip refresh"))";
constexpr char kNoFork[] =
    "lib-webapi/account/no_owner:53 (2011) SDK failed to VLIBCProcForkChildNoWait: ";
constexpr char kNoFind[] = "lib-webapi/account/no_owner:155 (1004) failed to popen: /bin/find";

static_assert(std::is_copy_constructible_v<NoOwner>);
static_assert(!std::is_polymorphic_v<NoOwner>);

struct NoOwnersData {
  bool need_refresh;
  std::vector<NoOwnerMaildir> maildirs;
};
static_assert(sizeof(NoOwner) == sizeof(NoOwnersData), "no base and no data but these");

std::vector<Step> StepsOfScan(const Lines& paths) {
  std::vector<Step> steps = {
      {kScanAsRoot}, {"SmtpConf()", {"}"}}, {"SmtpExt()", {"}"}}, {kFind, {"}"}}};
  for (const std::string& path : paths) {
    steps.push_back({"GetLine()", {"~Popen()", "}"}});
    steps.push_back({"NoOwnerMaildir(" + path + ")", {"~Popen()", "}"}});
  }
  steps.push_back({"GetLine()", {"~Popen()", "}"}});
  steps.push_back({"~Popen()", {}, false});
  steps.push_back({"}"});
  return steps;
}

Lines LinesOfScan(const Lines& paths) { return LinesOf(StepsOfScan(paths)); }

std::vector<Step> StepsOfRefreshInChild(const Lines& paths) {
  std::vector<Step> steps = {{kFork}, {kLock}, {kRefreshAsRoot, {kUnlock}}};
  for (const std::string& path : paths) {
    steps.push_back({"RefreshCache(" + path + ")", {"}", kUnlock}});
  }
  steps.push_back({"}", {kUnlock}});
  steps.push_back({kUnlock, {}, false});
  return steps;
}

Lines LinesOfRefreshInChild(const Lines& paths) { return LinesOf(StepsOfRefreshInChild(paths)); }

Lines Paths(const std::vector<NoOwnerMaildir>& maildirs) {
  Lines paths;
  for (const NoOwnerMaildir& maildir : maildirs) {
    paths.push_back(maildir.path);
  }
  return paths;
}

Lines Paths(NoOwner& no_owner) { return Paths(no_owner.List(Uids{})); }

// The uids of a page, in its order, and that no page is longer than its total.
Uids UidsOf(const Json::Value& page) {
  Uids uids;
  for (const Json::Value& entry : page["no_owner_list"]) {
    uids.push_back(entry["uid"].asUInt());
  }
  EXPECT_LE(uids.size(), page["total"].asUInt64());
  return uids;
}

Uids UidsOfAll(NoOwner& no_owner, const std::string& keyword, const std::string& sort_by,
               const std::string& sort_direction) {
  const Json::Value page = no_owner.List(0, -1, keyword, sort_by, sort_direction);
  EXPECT_EQ(page["total"].asUInt64(), page["no_owner_list"].size());
  return UidsOf(page);
}

void ExpectLogException(const std::function<void()>& operation, ErrorCode code,
                        const std::string& detail, int line) {
  EXPECT_EQ(Thrown(operation), "LogException " + std::to_string(code) +
                                   " lib-webapi/account/no_owner:" + std::to_string(line) + " " +
                                   detail);
}

class NoOwnerTest : public recording::WorldTest {
 protected:
  static constexpr char kAnna[] = "/maildir/local/anna";
  static constexpr char kBert[] = "/maildir/local/bert";
  static constexpr char kCleo[] = "/maildir/example.org/cleo";

  // Anna was counted, Bert was not.
  void AddAnnaAndBert() {
    world_.AddOwnerless(kAnna, {1001, 4096, "anna"});
    world_.AddOwnerless(kBert, {1002, std::nullopt, "bert"});
  }

  // An object that has scanned before the transcript begins.
  static NoOwner Scanned() {
    const Pause pause;
    return {};
  }

  static void Rescan(NoOwner& no_owner) {
    const Pause pause;
    no_owner.FindNoOwner();
  }

  // How many refreshes a page starts.
  int RefreshesOfAPage(NoOwner& no_owner) {
    world_.transcript.clear();
    no_owner.List(0, -1, "", "", "");
    return static_cast<int>(
        std::count(world_.transcript.begin(), world_.transcript.end(), std::string(kFork)));
  }

  // The same for objects that have scanned in the world as it is now.
  template <typename Operation, typename Check>
  static void FailInTurn(const std::vector<Step>& steps, int skipped, Operation operation,
                         Check check) {
    quillon::test::FailInTurn(steps, skipped, Scanned, operation, check);
  }

  template <typename Operation>
  static void ExpectPassesThrough(const std::vector<Step>& steps, Operation operation) {
    FailInTurn(steps, 0, operation,
               [](NoOwner&, const FailedRun& run) { ExpectPassedThrough(run); });
  }
};

// The scan

using FindNoOwnerTest = NoOwnerTest;

TEST_F(FindNoOwnerTest, IsWhatTheConstructorDoes) {
  AddAnnaAndBert();
  NoOwner no_owner;
  EXPECT_THAT(world_.transcript, ElementsAreArray(LinesOfScan({kAnna, kBert})));
  EXPECT_THAT(world_.log, IsEmpty());
  EXPECT_THAT(Paths(no_owner), ElementsAre(kAnna, kBert));
}

TEST_F(FindNoOwnerTest, FindsNothingInAnEmptyRoot) {
  NoOwner no_owner;
  EXPECT_THAT(world_.transcript, ElementsAreArray(LinesOfScan({})));
  EXPECT_THAT(Paths(no_owner), IsEmpty());
  EXPECT_EQ(RefreshesOfAPage(no_owner), 0);
}

TEST_F(FindNoOwnerTest, PassesTheRootAsOneArgumentUnchanged) {
  world_.maildir_path = "-mail dir/$(x); 'y'/";
  const NoOwner no_owner;
  EXPECT_THAT(world_.transcript,
              Contains(R"(Popen(/bin/find, ["-mail dir/$(x); 'y'/", "-mindepth", "2", )"
                       R"("-maxdepth", "2", "-type", "d", "-nouser"]))"));
}

TEST_F(FindNoOwnerTest, KeepsTheRecordsAsTheyWereBuilt) {
  world_.AddOwnerless(kAnna, {4294967295U, kLargestUsage, "anna"});
  world_.AddOwnerless(kBert, {0, std::nullopt, std::nullopt});
  NoOwner no_owner = Scanned();
  const std::vector<NoOwnerMaildir> maildirs = no_owner.List(Uids{});
  ASSERT_EQ(maildirs.size(), 2U);
  EXPECT_EQ(maildirs[0].uid, 4294967295U);
  EXPECT_EQ(maildirs[0].path, kAnna);
  EXPECT_TRUE(maildirs[0].flag);
  EXPECT_EQ(maildirs[0].account, "");
  EXPECT_EQ(maildirs[0].usage, kLargestUsage);
  EXPECT_EQ(maildirs[0].name, "anna");
  EXPECT_EQ(maildirs[1].uid, 0U);
  EXPECT_EQ(maildirs[1].path, kBert);
  EXPECT_TRUE(maildirs[1].flag);
  EXPECT_EQ(maildirs[1].usage, std::nullopt);
  EXPECT_EQ(maildirs[1].name, std::nullopt);
}

TEST_F(FindNoOwnerTest, KeepsTheOrderOfTheCommand) {
  for (const char* path : {"/maildir/b/z", "/maildir/a/y", "/maildir/c/x"}) {
    world_.AddOwnerless(path, {7, 0, path});
  }
  NoOwner no_owner = Scanned();
  EXPECT_THAT(Paths(no_owner), ElementsAre("/maildir/b/z", "/maildir/a/y", "/maildir/c/x"));
}

TEST_F(FindNoOwnerTest, CutsNewlinesOffTheEndOfALineAndNothingElse) {
  world_.command_output = {"/maildir/a/none",
                           "/maildir/a/one\n",
                           "/maildir/a/two\n\n",
                           "/maildir/a/many\n\n\n",
                           "/maildir/a/cr\r\n",
                           "/maildir/a/crs\r\n\r\n",
                           " /maildir/a/blank\t \n",
                           "/maildir/a/i\nn\n",
                           "\n/maildir/a/before\n",
                           "\n",
                           "\n\n\n",
                           "",
                           "\r\n"};
  const NoOwner no_owner;
  EXPECT_THAT(world_.transcript,
              ElementsAreArray(LinesOfScan(
                  {"/maildir/a/none", "/maildir/a/one", "/maildir/a/two", "/maildir/a/many",
                   "/maildir/a/cr\r", "/maildir/a/crs\r\n\r", " /maildir/a/blank\t ",
                   "/maildir/a/i\nn", "\n/maildir/a/before", "", "", "", "\r"})));
}

TEST_F(FindNoOwnerTest, TakesALineOfAnyBytesAndLength) {
  const std::string bytes("/maildir/a/\0\x01\x80\xff%s%n", 18);
  const std::string path = "/maildir/a/" + std::string(100000, 'p');
  world_.AddOwnerless(bytes, {1, 0, "bytes"});
  world_.AddOwnerless(path, {2, 0, "long"});
  NoOwner no_owner;
  EXPECT_THAT(world_.transcript, ElementsAreArray(LinesOfScan({bytes, path})));
  EXPECT_THAT(Paths(no_owner), ElementsAre(bytes, path));
}

TEST_F(FindNoOwnerTest, DropsWhatIsNoMaildirWithoutAWord) {
  world_.AddOwnerless("/maildir/a/first", {1, std::nullopt, "first", false});
  world_.AddOwnerless(kAnna, {1001, 5, "anna"});
  world_.AddOwnerless("/maildir/a/middle", {2, std::nullopt, "middle", false});
  world_.AddOwnerless(kCleo, {1003, 6, "cleo"});
  world_.AddOwnerless("/maildir/a/last", {3, std::nullopt, "last", false});
  NoOwner no_owner;
  EXPECT_THAT(world_.transcript,
              ElementsAreArray(LinesOfScan(
                  {"/maildir/a/first", kAnna, "/maildir/a/middle", kCleo, "/maildir/a/last"})));
  EXPECT_THAT(world_.log, IsEmpty());
  EXPECT_THAT(Paths(no_owner), ElementsAre(kAnna, kCleo));
  EXPECT_EQ(RefreshesOfAPage(no_owner), 0) << "for want of the usage of what was dropped";
}

TEST_F(FindNoOwnerTest, AppendsToWhatWasFoundBefore) {
  AddAnnaAndBert();
  NoOwner no_owner;
  world_.transcript.clear();
  no_owner.FindNoOwner();
  EXPECT_THAT(world_.transcript, ElementsAreArray(LinesOfScan({kAnna, kBert})));
  EXPECT_THAT(Paths(no_owner), ElementsAre(kAnna, kBert, kAnna, kBert));

  world_.command_output.erase(world_.command_output.begin());
  world_.AddOwnerless(kCleo, {1003, 7, "cleo"});
  no_owner.FindNoOwner();
  EXPECT_THAT(Paths(no_owner), ElementsAre(kAnna, kBert, kAnna, kBert, kBert, kCleo));
}

TEST_F(FindNoOwnerTest, ACommandThatCannotBeStartedEndsTheScan) {
  world_.can_start_commands = false;
  world_.command_output = {"/maildir/local/anna\n"};
  ExpectLogException([] { const NoOwner no_owner; }, ERR_POPEN, "/bin/find", 155);
  EXPECT_THAT(world_.transcript,
              ElementsAre(kScanAsRoot, "SmtpConf()", "SmtpExt()", kFind,
                          std::string("maillog(3, \"") + kNoFind + "\")", "~Popen()", "}"));
  EXPECT_THAT(world_.log, ElementsAre(LogRecord{3, "%s:%d (%d) %s: %s", kNoFind}));
}

TEST_F(FindNoOwnerTest, ACommandThatCannotBeStartedLeavesTheObjectAsItWas) {
  world_.AddOwnerless(kAnna, {1001, 1, "anna"});
  NoOwner no_owner = Scanned();
  world_.can_start_commands = false;
  world_.AddOwnerless(kBert, {1002, std::nullopt, "bert"});
  ExpectLogException([&] { no_owner.FindNoOwner(); }, ERR_POPEN, "/bin/find", 155);
  EXPECT_THAT(Paths(no_owner), ElementsAre(kAnna));
  EXPECT_EQ(RefreshesOfAPage(no_owner), 0);
}

TEST_F(FindNoOwnerTest, EveryFailureOfThePlatformLeavesTheConstructor) {
  AddAnnaAndBert();
  ExpectPassesThrough(StepsOfScan({kAnna, kBert}), [](NoOwner&) { const NoOwner another; });
}

TEST_F(FindNoOwnerTest, EveryFailureOfThePlatformPassesThrough) {
  AddAnnaAndBert();
  FailInTurn(
      StepsOfScan({kAnna, kBert}), 0, [](NoOwner& no_owner) { no_owner.FindNoOwner(); },
      [](NoOwner& no_owner, const FailedRun& run) {
        ExpectPassedThrough(run);
        Lines kept = Paths(no_owner);
        ASSERT_GE(kept.size(), 2U);
        kept.resize(2);
        EXPECT_THAT(kept, ElementsAre(kAnna, kBert));
      });
}

// Whether a scan asks for a refresh

using NeedRefreshTest = NoOwnerTest;

TEST_F(NeedRefreshTest, OneUncountedDirectoryIsEnough) {
  for (const std::size_t uncounted : {0U, 1U, 2U}) {
    world_ = recording::World();
    for (std::size_t i = 0; i < 3; ++i) {
      OwnerlessMaildir maildir{1, 5, "x"};
      if (i == uncounted) {
        maildir.usage.reset();
      }
      world_.AddOwnerless("/maildir/local/" + std::to_string(i), maildir);
    }
    NoOwner no_owner = Scanned();
    EXPECT_EQ(RefreshesOfAPage(no_owner), 1) << uncounted;
  }
}

TEST_F(NeedRefreshTest, AUsageOfNothingWasCounted) {
  world_.AddOwnerless(kAnna, {1001, 0, "anna"});
  world_.AddOwnerless(kBert, {1002, 1, std::nullopt});
  NoOwner no_owner = Scanned();
  EXPECT_EQ(RefreshesOfAPage(no_owner), 0);
}

TEST_F(NeedRefreshTest, EndsWithTheFirstPage) {
  AddAnnaAndBert();
  NoOwner no_owner = Scanned();
  EXPECT_EQ(RefreshesOfAPage(no_owner), 1);
  EXPECT_EQ(RefreshesOfAPage(no_owner), 0);
  EXPECT_EQ(RefreshesOfAPage(no_owner), 0);
}

TEST_F(NeedRefreshTest, BeginsAnewWithTheNextScan) {
  AddAnnaAndBert();
  NoOwner no_owner = Scanned();
  RefreshesOfAPage(no_owner);
  Rescan(no_owner);
  EXPECT_EQ(RefreshesOfAPage(no_owner), 1);
  EXPECT_EQ(RefreshesOfAPage(no_owner), 0);
}

TEST_F(NeedRefreshTest, BeginsAnewWithTheScanThatFollowsARemoval) {
  AddAnnaAndBert();
  NoOwner no_owner = Scanned();
  RefreshesOfAPage(no_owner);
  no_owner.RemoveStorage({1001});
  EXPECT_EQ(RefreshesOfAPage(no_owner), 1);
}

TEST_F(NeedRefreshTest, IsNotEndedByAScanThatMeetsOnlyCountedDirectories) {
  AddAnnaAndBert();
  NoOwner no_owner = Scanned();
  world_.ownerless[kBert].usage = 5;
  Rescan(no_owner);
  EXPECT_EQ(RefreshesOfAPage(no_owner), 1);
  Rescan(no_owner);
  EXPECT_EQ(RefreshesOfAPage(no_owner), 0);
}

TEST_F(NeedRefreshTest, IsNotEndedByARefreshThatThePageDidNotStart) {
  AddAnnaAndBert();
  NoOwner no_owner = Scanned();
  no_owner.Refresh();
  EXPECT_EQ(RefreshesOfAPage(no_owner), 1);
}

TEST_F(NeedRefreshTest, DoesNotDependOnThePage) {
  AddAnnaAndBert();
  for (const auto& list : std::vector<std::function<void(NoOwner&)>>{
           [](NoOwner& no_owner) { no_owner.List(0, 0, "", "name", "ASC"); },
           [](NoOwner& no_owner) { no_owner.List(9, 5, "", "usage", "DESC"); },
           [](NoOwner& no_owner) { no_owner.List(0, -1, "ann", "name", "ASC"); },
           [](NoOwner& no_owner) { no_owner.List(0, -1, "zzz", "usage", "ASC"); }}) {
    NoOwner no_owner = Scanned();
    world_.transcript.clear();
    list(no_owner);
    EXPECT_THAT(world_.transcript, ElementsAre(kFork));
  }
}

TEST_F(NeedRefreshTest, GoesWithACopy) {
  AddAnnaAndBert();
  NoOwner no_owner = Scanned();
  NoOwner copy = no_owner;
  EXPECT_EQ(RefreshesOfAPage(no_owner), 1);
  EXPECT_EQ(RefreshesOfAPage(copy), 1);
}

TEST_F(NeedRefreshTest, StaysWhileThereIsNoFork) {
  AddAnnaAndBert();
  NoOwner no_owner = Scanned();
  world_.fork = [] { return -1; };
  for (int attempt = 0; attempt < 2; ++attempt) {
    world_.transcript.clear();
    world_.log.clear();
    ExpectLogException([&] { no_owner.List(0, -1, "", "name", "ASC"); }, ERR_SDK_FORK_CHILD, "",
                       53);
    EXPECT_THAT(world_.transcript,
                ElementsAre(kFork, std::string("maillog(3, \"") + kNoFork + "\")"));
  }
  world_.fork = [] { return 4711; };
  EXPECT_EQ(RefreshesOfAPage(no_owner), 1);
  EXPECT_EQ(RefreshesOfAPage(no_owner), 0);
}

// The refresh in its caller

using RefreshTest = NoOwnerTest;

TEST_F(RefreshTest, ReturnsAtOnceToTheCaller) {
  AddAnnaAndBert();
  NoOwner no_owner = Scanned();
  for (const int child : {1, 4711, INT_MAX}) {
    world_.transcript.clear();
    world_.fork = [child] { return child; };
    world_.ownerless[kBert].usage = 99;
    no_owner.Refresh();
    EXPECT_THAT(world_.transcript, ElementsAre(kFork));
    EXPECT_THAT(world_.log, IsEmpty());
  }
  const std::vector<NoOwnerMaildir> maildirs = no_owner.List(Uids{});
  EXPECT_THAT(Paths(maildirs), ElementsAre(kAnna, kBert));
  EXPECT_EQ(maildirs[0].usage, 4096U);
  EXPECT_EQ(maildirs[1].usage, std::nullopt);
}

TEST_F(RefreshTest, AForkThatFailsLeavesTheObjectAsItWas) {
  AddAnnaAndBert();
  NoOwner no_owner = Scanned();
  for (const int failure : {-1, -2, INT_MIN}) {
    world_.transcript.clear();
    world_.log.clear();
    world_.fork = [failure] { return failure; };
    ExpectLogException([&] { no_owner.Refresh(); }, ERR_SDK_FORK_CHILD, "", 53);
    EXPECT_THAT(world_.transcript,
                ElementsAre(kFork, std::string("maillog(3, \"") + kNoFork + "\")"));
    EXPECT_THAT(world_.log, ElementsAre(LogRecord{3, "%s:%d (%d) %s: %s", kNoFork}));
  }
  EXPECT_THAT(Paths(no_owner), ElementsAre(kAnna, kBert));
  world_.fork = [] { return 4711; };
  EXPECT_EQ(RefreshesOfAPage(no_owner), 1);
}

// The refresh in its child, which here is the same process

class ChildTest : public NoOwnerTest {
 protected:
  ChildTest() {
    world_.fork = [] { return 0; };
    AddAnnaAndBert();
  }

  // Every failure after the fork. What is a std::runtime_error costs no more than the refresh.
  template <typename Operation>
  void ExpectOnlyRuntimeErrorsStay(Operation operation) {
    FailInTurn(StepsOfRefreshInChild({kAnna, kBert}), 1, operation,
               [this](NoOwner& no_owner, const FailedRun& run) {
                 const WayToFail& way = run.way;
                 Lines due = run.due;
                 if (way.is_runtime_error) {  // which costs no more than the refresh
                   due.emplace_back(kSkipCall);
                   ASSERT_FALSE(world_.log.empty());
                   EXPECT_EQ(world_.log.back(), (LogRecord{1, kSkip, kSkip}));
                 }
                 EXPECT_EQ(run.thrown, way.is_runtime_error ? "nothing" : ThrownBy(way));
                 EXPECT_EQ(world_.log.size(), way.log.size() + (way.is_runtime_error ? 1 : 0));
                 EXPECT_THAT(world_.transcript, ElementsAreArray(due));
                 EXPECT_THAT(Paths(no_owner), ElementsAre(kAnna, kBert));
               });
  }
};

TEST_F(ChildTest, RecountsEveryDirectoryAsRootUnderTheLock) {
  world_.AddOwnerless(kCleo, {1003, 0, std::nullopt});
  NoOwner no_owner = Scanned();
  no_owner.Refresh();
  EXPECT_THAT(world_.transcript, ElementsAreArray(LinesOfRefreshInChild({kAnna, kBert, kCleo})));
  EXPECT_THAT(world_.log, IsEmpty());
}

TEST_F(ChildTest, RecountsADirectoryThatWasFoundTwiceTwice) {
  NoOwner no_owner = Scanned();
  Rescan(no_owner);
  no_owner.Refresh();
  EXPECT_THAT(world_.transcript,
              ElementsAreArray(LinesOfRefreshInChild({kAnna, kBert, kAnna, kBert})));
}

TEST_F(ChildTest, TakesTheLockForNoDirectoryToo) {
  world_.command_output.clear();
  NoOwner no_owner = Scanned();
  no_owner.Refresh();
  EXPECT_THAT(world_.transcript, ElementsAre(kFork, kLock, kRefreshAsRoot, "}", kUnlock));
  EXPECT_THAT(world_.log, IsEmpty());
}

TEST_F(ChildTest, SkipsTheRecountWhileAnotherHoldsTheLock) {
  NoOwner no_owner = Scanned();
  world_.FailCallsStartingWith("FileLockGuard(", Throw<velasdk::FileLockHeld>("held"));
  no_owner.Refresh();
  EXPECT_THAT(world_.transcript, ElementsAre(kFork, kLock, kSkipCall));
  EXPECT_THAT(world_.log, ElementsAre(LogRecord{1, kSkip, kSkip}));
}

TEST_F(ChildTest, OnlyRuntimeErrorsStayInTheRefresh) {
  ExpectOnlyRuntimeErrorsStay([](NoOwner& no_owner) { no_owner.Refresh(); });
}

TEST_F(ChildTest, OnlyRuntimeErrorsStayInThePage) {
  ExpectOnlyRuntimeErrorsStay([](NoOwner& no_owner) { no_owner.List(0, -1, "", "name", "ASC"); });
}

TEST_F(ChildTest, ThePageTriesAgainWhatAnExceptionLeft) {
  FailInTurn(
      StepsOfRefreshInChild({kAnna, kBert}), 1,
      [](NoOwner& no_owner) { no_owner.List(0, -1, "", "name", "ASC"); },
      [this](NoOwner& no_owner, const FailedRun& run) {
        EXPECT_EQ(RefreshesOfAPage(no_owner), run.way.is_runtime_error ? 0 : 1);
      });
}

TEST_F(ChildTest, ThePageIsBuiltBeforeTheRefresh) {
  NoOwner no_owner = Scanned();
  world_.ownerless[kBert].usage = 7;
  EXPECT_THAT(Typed(no_owner.List(1, 1, "", "name", "ASC")),
              R"({"no_owner_list":[{"name":"bert","uid":1002u,"usage":0u}],"total":2u})");
  EXPECT_THAT(world_.transcript, ElementsAreArray(LinesOfRefreshInChild({kAnna, kBert})));
  EXPECT_THAT(Typed(no_owner.List(1, 1, "", "name", "ASC")),
              R"({"no_owner_list":[{"name":"bert","uid":1002u,"usage":7u}],"total":2u})");
}

TEST_F(ChildTest, APageWithoutARefreshCallsNothing) {
  world_.ownerless[kBert].usage = 7;
  NoOwner no_owner = Scanned();
  no_owner.List(0, -1, "a", "name", "DESC");
  EXPECT_THAT(world_.transcript, IsEmpty());
}

// A page: what it shows

class PageTest : public NoOwnerTest {
 protected:
  // Directories with these names and uids from 0 on, all of them counted.
  NoOwner WithNames(const std::vector<std::optional<std::string>>& names) {
    world_ = recording::World();
    for (const auto& name : names) {
      Add({0, 1, name});
    }
    return Scanned();
  }

  NoOwner WithUsage(const std::vector<std::optional<unsigned long long>>& usages) {
    world_ = recording::World();
    for (const auto& usage : usages) {
      Add({0, usage, "name"});
    }
    return Scanned();
  }

 private:
  void Add(OwnerlessMaildir maildir) {
    maildir.uid = static_cast<unsigned int>(world_.ownerless.size());
    world_.AddOwnerless("/maildir/local/" + std::to_string(maildir.uid), maildir);
  }
};

TEST_F(PageTest, ShowsUidNameAndUsage) {
  world_.AddOwnerless(kAnna, {4294967295U, kLargestUsage, "anna"});
  world_.AddOwnerless(kBert, {0, 0, "bert"});
  NoOwner no_owner = Scanned();
  EXPECT_EQ(Typed(no_owner.List(0, -1, "", "name", "ASC")),
            R"({"no_owner_list":[)"
            R"({"name":"anna","uid":4294967295u,"usage":18446744073709551615u},)"
            R"({"name":"bert","uid":0u,"usage":0u}],"total":2u})");
}

TEST_F(PageTest, ShowsWhatIsAbsentAsEmptyAndZero) {
  world_.AddOwnerless(kAnna, {1001, std::nullopt, std::nullopt});
  NoOwner no_owner = Scanned();
  EXPECT_EQ(Typed(no_owner.List(0, -1, "", "name", "ASC")),
            R"({"no_owner_list":[{"name":"","uid":1001u,"usage":0u}],"total":1u})");
}

TEST_F(PageTest, ShowsNothingAsAnEmptyList) {
  NoOwner no_owner = Scanned();
  EXPECT_EQ(Typed(no_owner.List(0, -1, "", "name", "ASC")), R"({"no_owner_list":[],"total":0u})");
}

TEST_F(PageTest, ShowsNamesByteForByte) {
  const std::string name("a\0b\x80\xff\n\"%s", 9);
  NoOwner no_owner = WithNames({name, std::string(1, '\0'), std::string(5000, 'n')});
  const Json::Value page = no_owner.List(0, -1, "", "name", "ASC");
  EXPECT_EQ(page["no_owner_list"][0]["name"].asString(), std::string(1, '\0'));
  EXPECT_EQ(page["no_owner_list"][1]["name"].asString(), name);
  EXPECT_EQ(page["no_owner_list"][2]["name"].asString(), std::string(5000, 'n'));
}

TEST_F(PageTest, OutlivesItsObject) {
  Json::Value page;
  {
    NoOwner no_owner = WithNames({"anna"});
    page = no_owner.List(0, -1, "", "name", "ASC");
  }
  EXPECT_EQ(Typed(page), R"({"no_owner_list":[{"name":"anna","uid":0u,"usage":1u}],"total":1u})");
}

TEST_F(PageTest, LeavesTheOrderOfTheObjectAsItWas) {
  NoOwner no_owner = WithNames({"c", "a", "b"});
  const Lines paths = Paths(no_owner);
  no_owner.List(0, -1, "", "name", "DESC");
  no_owner.List(1, 1, "a", "usage", "ASC");
  EXPECT_EQ(Paths(no_owner), paths);
}

TEST_F(PageTest, ShowsADirectoryThatWasFoundTwiceTwice) {
  NoOwner no_owner = WithNames({"a", "b"});
  Rescan(no_owner);
  EXPECT_THAT(UidsOfAll(no_owner, "", "name", "ASC"), ElementsAre(0, 0, 1, 1));
}

// A page: the filter

TEST_F(PageTest, FiltersInAnyLetterCase) {
  NoOwner no_owner = WithNames({"xaby", "XAB", "aB", "a b", "ba", "xA", std::nullopt, ""});
  for (const char* keyword : {"AB", "ab", "aB", "Ab"}) {
    EXPECT_THAT(UidsOfAll(no_owner, keyword, "usage", "ASC"), ElementsAre(0, 1, 2)) << keyword;
  }
}

TEST_F(PageTest, FiltersByNothingWithoutAKeyword) {
  NoOwner no_owner = WithNames({"a", std::nullopt, ""});
  EXPECT_THAT(UidsOfAll(no_owner, "", "usage", "ASC"), ElementsAre(0, 1, 2));
}

TEST_F(PageTest, FiltersByTheWholeKeyword) {
  NoOwner no_owner = WithNames({"abc", "ab", "bc", "a.c", "abcd", std::string("ab\0c", 4)});
  EXPECT_THAT(UidsOfAll(no_owner, "abc", "usage", "ASC"), ElementsAre(0, 4));
  EXPECT_THAT(UidsOfAll(no_owner, "a.c", "usage", "ASC"), ElementsAre(3));
  EXPECT_THAT(UidsOfAll(no_owner, "abcde", "usage", "ASC"), IsEmpty());
  EXPECT_THAT(UidsOfAll(no_owner, " ", "usage", "ASC"), IsEmpty());
  EXPECT_THAT(UidsOfAll(no_owner, ".*", "usage", "ASC"), IsEmpty());
  EXPECT_THAT(UidsOfAll(no_owner, std::string("b\0C", 3), "usage", "ASC"), ElementsAre(5));
  EXPECT_THAT(UidsOfAll(no_owner, std::string(1, '\0'), "usage", "ASC"), ElementsAre(5));
}

TEST_F(PageTest, FiltersEveryByte) {
  std::vector<std::optional<std::string>> names;
  names.reserve(256);
  for (int byte = 0; byte < 256; ++byte) {
    names.emplace_back(std::string("-") + static_cast<char>(byte));
  }
  NoOwner no_owner = WithNames(names);
  for (unsigned int byte = 0; byte < 256; ++byte) {
    Uids matching = {byte};
    if (byte == '-') {
      matching.clear();
      for (unsigned int all = 0; all < 256; ++all) {
        matching.push_back(all);
      }
    } else if (byte >= 'A' && byte <= 'Z') {
      matching.push_back(byte - 'A' + 'a');
    } else if (byte >= 'a' && byte <= 'z') {
      matching.insert(matching.begin(), byte - 'a' + 'A');
    }
    const std::string keyword(1, static_cast<char>(byte));
    EXPECT_EQ(UidsOfAll(no_owner, keyword, "usage", "ASC"), matching) << byte;
  }
}

TEST_F(PageTest, CountsWhatPassedTheFilter) {
  NoOwner no_owner = WithNames({"ab", "x", "ab", "y", "ab"});
  EXPECT_EQ(Typed(no_owner.List(1, 1, "AB", "usage", "ASC")),
            R"({"no_owner_list":[{"name":"ab","uid":2u,"usage":1u}],"total":3u})");
}

// A page: the order

TEST_F(PageTest, SortsByTheBytesOfTheName) {
  NoOwner no_owner =
      WithNames({"b", "\xc3\xa4", "B", "ab", "a", std::nullopt, std::string("a\0", 2), "\x7f", "_",
                 "10", "9", std::string("a\0\0", 3), "\x80"});
  const Uids ascending = {5, 9, 10, 2, 8, 4, 6, 11, 3, 0, 7, 12, 1};
  EXPECT_EQ(UidsOfAll(no_owner, "", "name", "ASC"), ascending);
  EXPECT_EQ(UidsOfAll(no_owner, "", "name", "DESC"), Uids(ascending.rbegin(), ascending.rend()));
}

TEST_F(PageTest, SortsNamesThatBeginAlike) {
  const std::string common = "a.long.name.that.is.the.same";
  NoOwner no_owner =
      WithNames({common + "2", common + "10", common, common + std::string(1, '\0'), "a.long.n",
                 "a.long.", std::string("a.long.\0", 8), std::string("a.long.\0\0", 9),
                 std::string("a.long.\0x", 9), common + "\xff"});
  EXPECT_THAT(UidsOfAll(no_owner, "", "name", "ASC"), ElementsAre(5, 6, 7, 8, 4, 2, 3, 1, 0, 9));
}

TEST_F(PageTest, SortsByUsageUnsignedWithWhatWasNeverCountedAsZero) {
  NoOwner no_owner = WithUsage({5, kLargestUsage, std::nullopt, 9223372036854775808ULL,
                                9223372036854775807ULL, 4294967296ULL, 10});
  EXPECT_THAT(UidsOfAll(no_owner, "", "usage", "ASC"), ElementsAre(2, 0, 6, 5, 4, 3, 1));
  EXPECT_THAT(UidsOfAll(no_owner, "", "usage", "DESC"), ElementsAre(1, 3, 4, 5, 6, 0, 2));
}

TEST_F(PageTest, SortsByNameUnlessByUsageExactly) {
  world_.AddOwnerless(kAnna, {3, 9, "anna"});
  world_.AddOwnerless(kBert, {2, 1, "bert"});
  world_.AddOwnerless(kCleo, {1, 5, "cleo"});
  NoOwner no_owner = Scanned();
  EXPECT_THAT(UidsOfAll(no_owner, "", "usage", "ASC"), ElementsAre(2, 1, 3));
  for (const std::string sort_by :
       {"name", "uid", "", "USAGE", "Usage", "usage ", " usage", "usag", "usages"}) {
    EXPECT_THAT(UidsOfAll(no_owner, "", sort_by, "ASC"), ElementsAre(3, 2, 1)) << sort_by;
  }
  EXPECT_THAT(UidsOfAll(no_owner, "", std::string("usage\0", 6), "ASC"), ElementsAre(3, 2, 1));
}

TEST_F(PageTest, DescendsWithDescExactly) {
  NoOwner no_owner = WithNames({"b", "c", "a"});
  EXPECT_THAT(UidsOfAll(no_owner, "", "name", "DESC"), ElementsAre(1, 0, 2));
  for (const std::string direction : {"ASC", "asc", "", "desc", "Desc", "DESC ", "DES", "DESCS"}) {
    EXPECT_THAT(UidsOfAll(no_owner, "", "name", direction), ElementsAre(2, 0, 1)) << direction;
  }
  EXPECT_THAT(UidsOfAll(no_owner, "", "name", std::string("DESC\0", 5)), ElementsAre(2, 0, 1));
}

TEST_F(PageTest, TiesAreInTheOrderOfTheScanAndReversedWithTheRest) {
  NoOwner by_name = WithNames({"b", "", "b", std::nullopt, "b", "", "a"});
  EXPECT_THAT(UidsOfAll(by_name, "", "name", "ASC"), ElementsAre(1, 3, 5, 6, 0, 2, 4));
  EXPECT_THAT(UidsOfAll(by_name, "", "name", "DESC"), ElementsAre(4, 2, 0, 6, 5, 3, 1));

  NoOwner by_usage = WithUsage({7, 0, 7, std::nullopt, 7, std::nullopt, 0, 3});
  EXPECT_THAT(UidsOfAll(by_usage, "", "usage", "ASC"), ElementsAre(1, 3, 5, 6, 7, 0, 2, 4));
  by_usage.List(0, 1, "", "name", "ASC");
  EXPECT_THAT(UidsOfAll(by_usage, "", "usage", "DESC"), ElementsAre(4, 2, 0, 7, 6, 5, 3, 1));
}

// A page: where it begins and ends

TEST_F(PageTest, BeginsAtTheOffsetAndHoldsNoMoreThanTheLimit) {
  NoOwner no_owner = WithNames({"a", "b", "c", "d", "e", "f"});
  struct {
    unsigned long offset;
    long limit;
    Uids uids;
  } const pages[] = {
      {0, -1, {0, 1, 2, 3, 4, 5}},
      {0, 6, {0, 1, 2, 3, 4, 5}},
      {0, 7, {0, 1, 2, 3, 4, 5}},
      {0, 5, {0, 1, 2, 3, 4}},
      {0, 1, {0}},
      {0, 0, {}},
      {2, 3, {2, 3, 4}},
      {3, 0, {}},
      {3, 3, {3, 4, 5}},
      {3, 5, {3, 4, 5}},
      {3, -1, {3, 4, 5}},
      {5, 1, {5}},
      {5, 2, {5}},
      {6, 0, {}},
      {6, 1, {}},
      {6, -1, {}},
      {7, 1, {}},
      {7, -1, {}},
      {0, LONG_MAX, {0, 1, 2, 3, 4, 5}},
      {0, LONG_MIN, {0, 1, 2, 3, 4, 5}},
      {1, LONG_MAX, {1, 2, 3, 4, 5}},
      {4, LONG_MIN, {4, 5}},
      {6, LONG_MAX, {}},
      {6, LONG_MIN, {}},
      {ULONG_MAX, 0, {}},
      {ULONG_MAX, 1, {}},
      {ULONG_MAX, 2, {}},
      {ULONG_MAX, -1, {}},
      {ULONG_MAX, LONG_MAX, {}},
      {ULONG_MAX, LONG_MIN, {}},
      {ULONG_MAX - 4, 8, {}},
      {LONG_MAX, LONG_MAX, {}},
      {static_cast<unsigned long>(LONG_MAX) + 1, LONG_MAX, {}},
      {static_cast<unsigned long>(LONG_MAX) + 1, LONG_MIN, {}},
      {1UL << 32U, 6, {}},
      {0, 1L << 32U, {0, 1, 2, 3, 4, 5}},
  };
  for (const auto& page : pages) {
    SCOPED_TRACE(std::to_string(page.offset) + ", " + std::to_string(page.limit));
    const Json::Value ascending = no_owner.List(page.offset, page.limit, "", "name", "ASC");
    EXPECT_EQ(UidsOf(ascending), page.uids);
    EXPECT_TRUE(ascending["no_owner_list"].isArray());
    EXPECT_EQ(ascending["total"], Json::Value(Json::UInt64{6}));

    Uids reversed;
    for (const unsigned int uid : page.uids) {
      reversed.push_back(5 - uid);
    }
    EXPECT_EQ(UidsOf(no_owner.List(page.offset, page.limit, "", "name", "DESC")), reversed);
  }
}

TEST_F(PageTest, OfNothingIsEmptyWhereverItBegins) {
  NoOwner no_owner = WithNames({"a"});
  for (const unsigned long offset : {0UL, 1UL, ULONG_MAX}) {
    for (const long limit : {0L, 1L, -1L, LONG_MAX, LONG_MIN}) {
      for (const char* sort_by : {"usage", "name"}) {
        for (const char* direction : {"ASC", "DESC"}) {
          EXPECT_EQ(Typed(no_owner.List(offset, limit, "zzz", sort_by, direction)),
                    R"({"no_owner_list":[],"total":0u})");
        }
      }
    }
  }
}

// The records of some uids

class RecordsTest : public NoOwnerTest {
 protected:
  RecordsTest() {
    world_.AddOwnerless(kAnna, {1001, 1, "anna"});
    world_.AddOwnerless(kBert, {4294967295U, std::nullopt, "bert"});
    world_.AddOwnerless(kCleo, {0, 3, "cleo"});
  }
};

TEST_F(RecordsTest, AreAllOfThemWithoutUids) {
  NoOwner no_owner = Scanned();
  EXPECT_THAT(Paths(no_owner.List(Uids{})), ElementsAre(kAnna, kBert, kCleo));
}

TEST_F(RecordsTest, AreThoseOfTheUidsInTheOrderOfTheScan) {
  NoOwner no_owner = Scanned();
  EXPECT_THAT(Paths(no_owner.List(Uids{0, 1001})), ElementsAre(kAnna, kCleo));
  EXPECT_THAT(Paths(no_owner.List(Uids{4294967295U})), ElementsAre(kBert));
  EXPECT_THAT(Paths(no_owner.List(Uids{0, 7, 0, 4294967295U, 0})), ElementsAre(kBert, kCleo));
}

TEST_F(RecordsTest, AreNoneOfUidsThatWereNotFound) {
  NoOwner no_owner = Scanned();
  EXPECT_THAT(no_owner.List(Uids{1002}), IsEmpty());
  EXPECT_THAT(no_owner.List(Uids{1, 2147483647U}), IsEmpty());
}

TEST_F(RecordsTest, AreBothOfADirectoryThatWasFoundTwice) {
  NoOwner no_owner = Scanned();
  Rescan(no_owner);
  EXPECT_THAT(Paths(no_owner.List(Uids{0, 1001})), ElementsAre(kAnna, kCleo, kAnna, kCleo));
}

TEST_F(RecordsTest, AreCopies) {
  NoOwner no_owner = Scanned();
  std::vector<NoOwnerMaildir> maildirs = no_owner.List(Uids{1001});
  maildirs.at(0).name = "changed";
  EXPECT_EQ(no_owner.List(Uids{1001}).at(0).name, "anna");
}

TEST_F(RecordsTest, AreReadFromMemoryOnly) {
  NoOwner no_owner = Scanned();
  no_owner.List(Uids{});
  no_owner.List(Uids{1001});
  EXPECT_THAT(world_.transcript, IsEmpty()) << "a refresh among others";
  EXPECT_EQ(RefreshesOfAPage(no_owner), 1) << "which is still due";
}

// The removal

class RemoveStorageTest : public NoOwnerTest {
 protected:
  RemoveStorageTest() {
    AddAnnaAndBert();
    world_.AddOwnerless(kCleo, {1003, 3, "cleo"});
  }

  // The removal of these paths, and the scan.
  static Lines LinesOfRemoval(const Lines& removed, const Lines& found) {
    Lines lines = {kRemoveAsRoot};
    for (const std::string& path : removed) {
      lines.push_back("Delete(" + path + ")");
    }
    lines.emplace_back("}");
    const Lines scan = LinesOfScan(found);
    lines.insert(lines.end(), scan.begin(), scan.end());
    return lines;
  }

  // What is removed is no longer found.
  void RemoveForGood(const std::string& path) {
    world_.FailCallsStartingWith("Delete(" + path + ")",
                                 [this, path] { std::erase(world_.command_output, path + "\n"); });
  }
};

TEST_F(RemoveStorageTest, RemovesAndScansAgain) {
  NoOwner no_owner = Scanned();
  RemoveForGood(kBert);
  no_owner.RemoveStorage({1002});
  EXPECT_THAT(world_.transcript, ElementsAreArray(LinesOfRemoval({kBert}, {kAnna, kCleo})));
  EXPECT_THAT(world_.log, IsEmpty());
  EXPECT_THAT(Paths(no_owner), ElementsAre(kAnna, kBert, kCleo, kAnna, kCleo));
}

TEST_F(RemoveStorageTest, KeepsTheRecordOfTheOnlyDirectory) {
  world_.command_output = {std::string(kAnna) + "\n"};
  NoOwner no_owner = Scanned();
  RemoveForGood(kAnna);
  no_owner.RemoveStorage({1001});
  EXPECT_THAT(world_.transcript, ElementsAreArray(LinesOfRemoval({kAnna}, {})));
  const std::vector<NoOwnerMaildir> maildirs = no_owner.List(Uids{});
  ASSERT_EQ(maildirs.size(), 1U);
  EXPECT_EQ(maildirs[0].uid, 1001U);
  EXPECT_EQ(maildirs[0].path, kAnna);
  EXPECT_TRUE(maildirs[0].flag);
  EXPECT_EQ(maildirs[0].usage, 4096U);
  EXPECT_EQ(maildirs[0].name, "anna");
}

TEST_F(RemoveStorageTest, RemovesInTheOrderOfTheScanAndEachOnce) {
  NoOwner no_owner = Scanned();
  no_owner.RemoveStorage({1003, 1001, 1003, 1001});
  EXPECT_THAT(world_.transcript,
              ElementsAreArray(LinesOfRemoval({kAnna, kCleo}, {kAnna, kBert, kCleo})));
}

TEST_F(RemoveStorageTest, RemovesEveryDirectoryOfAUid) {
  world_.ownerless[kCleo].uid = 1001;
  NoOwner no_owner = Scanned();
  no_owner.RemoveStorage({1001});
  EXPECT_THAT(world_.transcript,
              ElementsAreArray(LinesOfRemoval({kAnna, kCleo}, {kAnna, kBert, kCleo})));
}

TEST_F(RemoveStorageTest, RemovesOncePerRecord) {
  NoOwner no_owner = Scanned();
  Rescan(no_owner);
  no_owner.RemoveStorage({1002});
  EXPECT_THAT(world_.transcript,
              ElementsAreArray(LinesOfRemoval({kBert, kBert}, {kAnna, kBert, kCleo})));
}

TEST_F(RemoveStorageTest, OfNoUidRemovesNothing) {
  NoOwner no_owner = Scanned();
  no_owner.RemoveStorage({});
  EXPECT_THAT(world_.transcript, ElementsAreArray(LinesOfRemoval({}, {kAnna, kBert, kCleo})));
  EXPECT_THAT(Paths(no_owner), ElementsAre(kAnna, kBert, kCleo, kAnna, kBert, kCleo));
}

TEST_F(RemoveStorageTest, OfAUidThatWasNotFoundRemovesNothing) {
  NoOwner no_owner = Scanned();
  no_owner.RemoveStorage({0, 1004, 4294967295U});
  EXPECT_THAT(world_.transcript, ElementsAreArray(LinesOfRemoval({}, {kAnna, kBert, kCleo})));
  EXPECT_THAT(world_.log, IsEmpty());
}

TEST_F(RemoveStorageTest, KnowsOnlyWhatItsOwnScansFound) {
  world_.command_output.clear();
  NoOwner no_owner = Scanned();
  world_.command_output = {std::string(kAnna) + "\n"};
  no_owner.RemoveStorage({1001});
  EXPECT_THAT(world_.transcript, ElementsAreArray(LinesOfRemoval({}, {kAnna})));
}

TEST_F(RemoveStorageTest, GoesOnAfterADirectoryThatCannotBeRemoved) {
  NoOwner no_owner = Scanned();
  world_.delete_maildir = false;
  no_owner.RemoveStorage({1001, 1003});
  EXPECT_THAT(world_.transcript,
              ElementsAreArray(LinesOfRemoval({kAnna, kCleo}, {kAnna, kBert, kCleo})));
  EXPECT_THAT(world_.log, IsEmpty());
}

TEST_F(RemoveStorageTest, EveryFailureOfThePlatformPassesThrough) {
  const std::vector<Step> steps = Concatenated({{kRemoveAsRoot},
                                                {std::string("Delete(") + kAnna + ")", {"}"}},
                                                {std::string("Delete(") + kCleo + ")", {"}"}},
                                                {"}"}},
                                               StepsOfScan({kAnna, kBert, kCleo}));
  ExpectPassesThrough(steps, [](NoOwner& no_owner) { no_owner.RemoveStorage({1001, 1003}); });
}

TEST_F(RemoveStorageTest, AScanThatCannotBeStartedFailsAfterTheRemoval) {
  NoOwner no_owner = Scanned();
  world_.can_start_commands = false;
  ExpectLogException([&] { no_owner.RemoveStorage({1001}); }, ERR_POPEN, "/bin/find", 155);
  EXPECT_THAT(world_.transcript,
              ElementsAre(kRemoveAsRoot, std::string("Delete(") + kAnna + ")", "}", kScanAsRoot,
                          "SmtpConf()", "SmtpExt()", kFind,
                          std::string("maillog(3, \"") + kNoFind + "\")", "~Popen()", "}"));
  EXPECT_THAT(Paths(no_owner), ElementsAre(kAnna, kBert, kCleo));
}

}  // namespace
}  // namespace velamailserver::webapi
