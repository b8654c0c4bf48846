#include <optional>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <json/value.h>

#include <velamailserver/account/no_owner.h>

#include "lib-webapi/allocations.h"
#include "recording_platform/world_test.h"

namespace velamailserver::webapi {
namespace {

using quillon::test::IsEnough;
using quillon::test::LiveBytes;
using quillon::test::TakePeakBytes;
using recording::OwnerlessMaildir;
using recording::Pause;

class NoOwnerMemoryTest : public recording::WorldTest {
 protected:
  void AddDirectories(std::size_t count, const OwnerlessMaildir& maildir) {
    for (std::size_t i = 0; i < count; ++i) {
      world_.AddOwnerless("/maildir/local/" + std::to_string(i), maildir);
    }
  }

  static NoOwner Scanned() {
    const Pause pause;
    return {};
  }

  static std::size_t Count(NoOwner& no_owner) {
    return no_owner.List(std::vector<unsigned int>{}).size();
  }
};

TEST_F(NoOwnerMemoryTest, APageThatRunsOutOfItStartsOneRefreshWithTheNextOne) {
  int refreshes = 0;
  world_.fork = [&refreshes] {
    ++refreshes;
    return 4711;
  };
  AddDirectories(3, {1001, std::nullopt, "a name that is too long to be kept within a string"});
  const std::string keyword = "TOO LONG TO BE KEPT";

  bool is_enough = false;
  int refreshes_of_failed_pages = 0;
  for (int allocations = 0; !is_enough; ++allocations) {
    NoOwner no_owner = Scanned();
    refreshes = 0;
    const auto list = [&] { no_owner.List(0, -1, keyword, "name", "DESC"); };
    is_enough = IsEnough(allocations, list);
    refreshes_of_failed_pages += is_enough ? 0 : refreshes;
    EXPECT_EQ(Count(no_owner), 3U);
    list();
    EXPECT_EQ(refreshes, 1) << allocations;
  }
  EXPECT_GT(refreshes_of_failed_pages, 0) << "of pages that failed after it";
}

TEST_F(NoOwnerMemoryTest, AScanThatRunsOutOfItAsksForARefreshOfWhatItKept) {
  world_.transcript.reserve(1000);  // the ends of sections are written without memory
  int refreshes = 0;
  world_.fork = [&refreshes] {
    ++refreshes;
    return 4711;
  };
  bool is_enough = false;
  int failures_with_a_record = 0;
  for (int allocations = 0; !is_enough; ++allocations) {
    world_.command_output.clear();
    NoOwner no_owner = Scanned();
    AddDirectories(2, {1001, std::nullopt, "a name that is too long to be kept within a string"});
    world_.transcript.clear();
    is_enough = IsEnough(allocations, [&] { no_owner.FindNoOwner(); });
    refreshes = 0;
    no_owner.List(0, 0, "", "name", "ASC");
    EXPECT_EQ(refreshes, Count(no_owner) > 0 ? 1 : 0) << allocations;
    failures_with_a_record += !is_enough && Count(no_owner) > 0 ? 1 : 0;
  }
  EXPECT_GT(failures_with_a_record, 0);
}

TEST_F(NoOwnerMemoryTest, APageTakesLittleOfItForEachRecord) {
  constexpr std::size_t kRecords = 20000;
  constexpr std::size_t kBytesPerRecord = 32;
  constexpr std::size_t kBytesOfThePageItself = 65536;
  AddDirectories(kRecords, {1001, 5, std::string(60, 'n')});
  NoOwner no_owner = Scanned();
  for (const char* keyword : {"", "NNN"}) {
    for (const char* sort_by : {"name", "usage"}) {
      for (const char* direction : {"ASC", "DESC"}) {
        TakePeakBytes();
        const std::size_t before = LiveBytes();
        const Json::Value page = no_owner.List(100, 50, keyword, sort_by, direction);
        EXPECT_LE(TakePeakBytes() - before, kRecords * kBytesPerRecord + kBytesOfThePageItself);
        EXPECT_EQ(page["no_owner_list"].size(), 50U);
        EXPECT_EQ(page["total"].asUInt64(), kRecords);
      }
    }
  }
}

TEST_F(NoOwnerMemoryTest, SettingsAndArgumentsAreGoneOnceTheCommandRuns) {
  constexpr std::size_t kLength = 1U << 20U;
  world_.maildir_path = std::string(kLength, 'r');
  const std::size_t before = LiveBytes();
  std::size_t at_start = 0;
  std::size_t at_first_line = 0;
  world_.FailCallsStartingWith("Popen(", [&] {
    at_start = LiveBytes() - before;
    world_.transcript.clear();  // which has the path, too
  });
  world_.FailCallsStartingWith("GetLine(", [&] { at_first_line = LiveBytes() - before; });

  const NoOwner no_owner;

  EXPECT_GE(at_start, 2 * kLength) << "in the settings and the arguments";
  EXPECT_LT(at_first_line, kLength);
}

}  // namespace
}  // namespace velamailserver::webapi
