#include "refusal_log.h"

#include <chrono>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <quillon/platform/configuration.h>

#include "support/temporary_folder.h"

namespace quillon::webapid {
namespace {

using testing::HasSubstr;
using namespace std::chrono_literals;

class RefusalLogTest : public testing::Test {
 protected:
  RefusalLogTest() {
    platform::Configuration configuration;
    configuration.log.target = "file";
    configuration.log.file = folder_ / "log";
    platform::UseConfiguration(std::move(configuration));
    folder_.Write("log", "");
  }

  int Admitted(int lines, RefusalLog::Time now) {
    int admitted = 0;
    for (int i = 0; i < lines; ++i) {
      admitted += log_.MayWrite(now) ? 1 : 0;
    }
    return admitted;
  }
  std::string Text() const { return folder_.Read("log"); }

  test::TemporaryFolder folder_;
  RefusalLog log_;
  const RefusalLog::Time now_ = RefusalLog::Time() + 1000s;
};

TEST_F(RefusalLogTest, SaysHowManyLinesWereLeftOut) {
  EXPECT_EQ(Admitted(RefusalLog::kMostLinesPerSecond + 5, now_), RefusalLog::kMostLinesPerSecond);
  EXPECT_EQ(Admitted(2, now_ + 900ms), 0);
  log_.Report(now_ + 999ms);
  EXPECT_EQ(Text(), "");
  log_.Report(now_ + 1s);
  EXPECT_THAT(Text(),
              HasSubstr("refusal_log:23 7 more lines about refused clients were left out\n"));
  const std::string once = Text();
  log_.Report(now_ + 3s);
  EXPECT_EQ(Text(), once);
}

TEST_F(RefusalLogTest, HasRoomAgainInTheNextSecond) {
  EXPECT_EQ(Admitted(100, now_), RefusalLog::kMostLinesPerSecond);
  EXPECT_EQ(Admitted(100, now_ + 1s), RefusalLog::kMostLinesPerSecond);
  EXPECT_THAT(Text(), HasSubstr(" 80 more lines"));
}

TEST_F(RefusalLogTest, SaysNothingWhenNothingWasLeftOut) {
  EXPECT_EQ(Admitted(RefusalLog::kMostLinesPerSecond, now_), RefusalLog::kMostLinesPerSecond);
  log_.Report(now_ + 2s);
  EXPECT_EQ(Text(), "");
}

}  // namespace
}  // namespace quillon::webapid
