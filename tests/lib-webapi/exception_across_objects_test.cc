#include <gmock/gmock.h>

#include <velamailserver/log_exception.h>
#include <velamailserver/run_api.h>

#include "lib-webapi/exception_thrower.h"
#include "recording_platform/world_test.h"

namespace velamailserver {
namespace {

using testing::ElementsAre;

using ExceptionAcrossObjectsTest = recording::WorldTest;

TEST_F(ExceptionAcrossObjectsTest, IsCaughtWithAllItCarries) {
  try {
    exception_thrower::ThrowLogException("detail");
    ADD_FAILURE() << "no exception";
  } catch (const LogException& exception) {
    EXPECT_EQ(exception.code(), ERR_POPEN);
    EXPECT_STREQ(exception.what(), "detail");
    EXPECT_EQ(exception.file(), "exception_thrower");
    EXPECT_EQ(exception.line(), 11);
  }
  EXPECT_THAT(world_.transcript,
              ElementsAre("maillog(3, \"exception_thrower:11 (1004) failed to popen: detail\")"));
}

TEST_F(ExceptionAcrossObjectsTest, IsCaughtAsItsBase) {
  EXPECT_THROW(exception_thrower::ThrowLogException("detail"), std::runtime_error);
}

TEST_F(ExceptionAcrossObjectsTest, OfTheLibraryIsCaughtByTheProgram) {
  world_.api_response = Json::Value(Json::objectValue);
  EXPECT_THROW(webapi::RunWebapi("A", "M", Json::Value(), 1), LogException);
}

// Names alone would do for a catch, but not for every standard library.
TEST_F(ExceptionAcrossObjectsTest, AllObjectsShareOneTypeInformation) {
  EXPECT_EQ(&exception_thrower::TypeOfLogException(), &typeid(LogException));
}

}  // namespace
}  // namespace velamailserver
