#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <json/value.h>

#include <velamailserver/account/group.h>
#include <velamailserver/account/user.h>

#include "lib-webapi/allocations.h"
#include "recording_platform/world_test.h"
#include "support/parse_json.h"

namespace velamailserver::webapi {
namespace {

using quillon::test::IsEnough;
using quillon::test::LiveBytes;
using quillon::test::Parse;
using recording::Pause;
using velasdk::VelaUser;

// Longer than what a string keeps within itself.
constexpr char kBob[] = "bob-with-a-name-that-is-too-long-for-a-string-itself";
constexpr char kStaff[] = "staff-with-a-name-that-is-too-long-for-a-string-itself";

class QuotaMemoryTest : public recording::WorldTest {
 protected:
  QuotaMemoryTest() {
    world_.AddUser(kBob, 1001);
    world_.AddGroup(kStaff, 501);
    world_.group_limits = {{501, "10"}};
    world_.group_warnings = {{501, "4"}};
    world_.usage = {{kBob, "7"}};
    world_.api_response = Parse(R"({"success": true, "data": {"user_quota":
        [{"support_share_quota": true, "shares": [{"name": "Quillon", "quota": 2}]}]}})");
    account::BaseMaildir& maildir = world_.maildirs.emplace_back();
    maildir.uid = 1001;
    maildir.path = "/maildir/local/a-directory-with-a-long-name";
    maildir.flag = true;
  }

  // With ever more memory the operation fails until it succeeds, and never keeps any of it.
  template <typename Operation>
  static void ExpectKeepsNothing(Operation operation) {
    const Pause pause;  // the stand-in records nothing, which would take memory, too
    operation();        // what is made once is made
    int failures = 0;
    bool is_enough = false;
    while (!is_enough) {
      const std::size_t before = LiveBytes();
      is_enough = IsEnough(failures, operation);
      ASSERT_EQ(LiveBytes(), before) << failures;
      failures += is_enough ? 0 : 1;
    }
    EXPECT_GT(failures, 10);
  }

  static std::vector<VelaUser> Bob() {
    const Pause pause;
    return {VelaUser(std::string(kBob))};
  }
};

TEST_F(QuotaMemoryTest, AReportOfGroupsThatRunsOutOfItKeepsNothing) {
  const Json::Value list = Parse(std::string(R"([{"name": ")") + kStaff + R"("}])");
  ExpectKeepsNothing([&] {
    Json::Value document = list;
    Group().UpdateQuotaInfo(document);
  });
}

TEST_F(QuotaMemoryTest, DetailsThatRunOutOfItKeepNothing) {
  const std::vector<VelaUser> users = Bob();
  ExpectKeepsNothing([&] { User().MoreInfos(users); });
  ExpectKeepsNothing([] { User().MoreInfos({}); });
}

TEST_F(QuotaMemoryTest, AClearingThatRunsOutOfItKeepsNothing) {
  const std::vector<VelaUser> users = Bob();
  ExpectKeepsNothing([&] { User().ClearStorage(users); });
}

}  // namespace
}  // namespace velamailserver::webapi
