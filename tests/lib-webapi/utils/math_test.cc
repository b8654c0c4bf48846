#include <gmock/gmock.h>

#include <velamailserver/utils/math.h>

#include "recording_platform/world_test.h"

namespace velamailserver::utils {
namespace {

using recording::LogRecord;
using testing::ElementsAre;
using testing::IsEmpty;

class UnitFactorTest : public recording::WorldTest {
 protected:
  void ExpectUnknown(const std::string& unit) {
    world_.log.clear();
    try {
      UnitFactor(unit);
      ADD_FAILURE() << "no exception for [" << unit << "]";
    } catch (const LogException& exception) {
      EXPECT_EQ(exception.code(), ERR_INTERNAL);
      EXPECT_EQ(exception.what(), "error unit: " + unit);
      EXPECT_EQ(exception.file(), "include/velamailserver/utils/math");
      EXPECT_EQ(exception.line(), 29);
    }
    EXPECT_THAT(world_.log,
                ElementsAre(LogRecord{3, "%s:%d (%d) %s: %s",
                                      "include/velamailserver/utils/math:29 (1001) internal "
                                      "error: error unit: " +
                                          unit}));
  }
};

TEST_F(UnitFactorTest, CountsTheBytesOfAUnit) {
  EXPECT_EQ(UnitFactor("B"), 1.0);
  EXPECT_EQ(UnitFactor("K"), 1024.0);
  EXPECT_EQ(UnitFactor("M"), 1048576.0);
  EXPECT_EQ(UnitFactor("G"), 1073741824.0);
  EXPECT_THAT(world_.transcript, IsEmpty());
}

TEST_F(UnitFactorTest, FactorsConvertBetweenUnitsExactly) {
  EXPECT_EQ(UnitFactor("M") / UnitFactor("B"), 1048576.0);
  EXPECT_EQ(UnitFactor("G") / UnitFactor("K"), 1048576.0);
}

TEST_F(UnitFactorTest, KnowsNoOtherUnit) {
  for (const char* unit :
       {"", "b", "k", "m", "g", "T", "P", "KB", "GB", "MM", " K", "K ", "1", "%d"}) {
    ExpectUnknown(unit);
  }
}

TEST_F(UnitFactorTest, AnUnknownUnitLeavesTheOthersKnown) {
  ExpectUnknown("T");
  EXPECT_EQ(UnitFactor("G"), 1073741824.0);
  ExpectUnknown("T");
}

}  // namespace
}  // namespace velamailserver::utils
