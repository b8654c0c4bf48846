#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "system/world.h"

namespace quillon::test {
namespace {

using testing::HasSubstr;

class QuotaSyncTest : public testing::Test {
 protected:
  World world_;
};

TEST_F(QuotaSyncTest, TellsWhatHasChanged) {
  EXPECT_EQ(world_.Quillonctl({"quota", "sync"}).output,
            "mail users: 3 added, 0 changed, 0 removed, 0 unchanged\n");
  world_.AddAccount("dora", 1004);
  EXPECT_EQ(world_.Quillonctl({"quota", "sync", "--dry-run"}).output,
            "mail users: 1 to be added, 0 to be changed, 0 to be removed, 3 unchanged\n");
  world_.AddGroup("sales", 200, {"alice", "bob"});
  const Outcome outcome = world_.Quillonctl({"quota", "sync"});
  EXPECT_EQ(outcome.exit_code, 0);
  EXPECT_EQ(outcome.output, "mail users: 1 added, 2 changed, 0 removed, 1 unchanged\n");
  EXPECT_EQ(outcome.error, "");
}

TEST_F(QuotaSyncTest, PrintsTheDocument) {
  const Json::Value data = world_.QuillonctlJson({"quota", "sync"});
  EXPECT_EQ(data["added"].asUInt(), 3U);
  EXPECT_EQ(data["changed"].asUInt(), 0U);
  EXPECT_EQ(data["removed"].asUInt(), 0U);
  EXPECT_EQ(data["unchanged"].asUInt(), 0U);
}

TEST_F(QuotaSyncTest, SaysWhyItFails) {
  world_.folder().Write("passwd", "alice:x:1001:100:::\nbob:x:10");
  const Outcome outcome = world_.Quillonctl({"quota", "sync"});
  EXPECT_EQ(outcome.exit_code, 1);
  EXPECT_THAT(outcome.error, HasSubstr("line 2 is not an account entry (error 2102)"));
}

}  // namespace
}  // namespace quillon::test
