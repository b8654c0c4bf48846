#include "origin_log.h"

#include <gmock/gmock.h>

#include "recording_platform/world_test.h"

namespace velamailserver {
namespace {

using recording::LogRecord;
using testing::ElementsAre;

using OriginLogTest = recording::WorldTest;

TEST_F(OriginLogTest, PutsTheOriginBeforeTheMessageAndTheArgumentsIntoIt) {
  LogWithOrigin(2, "some/file", 17, "%s has %d of %s", "alice", 3, "5");
  EXPECT_THAT(world_.log, ElementsAre(LogRecord{2, "some/file:17 %s has %d of %s",
                                                "some/file:17 alice has 3 of 5"}));
}

TEST_F(OriginLogTest, NeedsNoArguments) {
  LogWithOrigin(1, "some/file", 17, "nothing to do");
  EXPECT_THAT(world_.log, ElementsAre(LogRecord{1, "some/file:17 nothing to do",
                                                "some/file:17 nothing to do"}));
}

TEST_F(OriginLogTest, TheMessageIsTheFormatEvenWithoutArguments) {
  LogWithOrigin(1, "some/file", 17, "100%%");
  EXPECT_THAT(world_.log, ElementsAre(LogRecord{1, "some/file:17 100%%", "some/file:17 100%"}));
}

TEST_F(OriginLogTest, ArgumentsAreNoFormats) {
  LogWithOrigin(2, "some/file", 17, "[%s]", "100%d");
  EXPECT_THAT(world_.log, ElementsAre(LogRecord{2, "some/file:17 [%s]", "some/file:17 [100%d]"}));
}

TEST_F(OriginLogTest, AFormatThatFillsTheBufferIsWhole) {
  const std::string origin = "f:1 ";
  const std::string message(2047 - origin.size(), 'm');
  LogWithOrigin(3, "f", 1, message.c_str());
  EXPECT_THAT(world_.log, ElementsAre(LogRecord{3, origin + message, origin + message}));
}

TEST_F(OriginLogTest, ALongerFormatIsCutBeforeItsArgumentsComeIn) {
  const std::string origin = "f:1 ";
  const std::string message = std::string(2047 - origin.size(), 'm') + "!%s";
  LogWithOrigin(3, "f", 1, message.c_str(), "argument");
  const std::string cut = (origin + message).substr(0, 2047);
  EXPECT_THAT(world_.log, ElementsAre(LogRecord{3, cut, cut}));
}

TEST_F(OriginLogTest, LongArgumentsAreNotCut) {
  const std::string name(5000, 'n');
  LogWithOrigin(3, "f", 1, "[%s]", name.c_str());
  EXPECT_THAT(world_.log, ElementsAre(LogRecord{3, "f:1 [%s]", "f:1 [" + name + "]"}));
}

}  // namespace
}  // namespace velamailserver
