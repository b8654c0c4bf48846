#include <limits>
#include <map>
#include <memory>
#include <type_traits>

#include <gmock/gmock.h>

#include <velamailserver/log_exception.h>

#include "recording_platform/world_test.h"

namespace velamailserver {
namespace {

using recording::LogRecord;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr char kFormat[] = "%s:%d (%d) %s: %s";

struct KnownCode {
  ErrorCode code;
  int number;
  const char* message;
};

constexpr KnownCode kKnownCodes[] = {
    {ERR_INTERNAL, 1001, "internal error"},
    {ERR_INVALID_JSON_VALUE, 1002, "invalid json value"},
    {ERR_LSTAT_FILE, 1003, "failed to lstat file"},
    {ERR_POPEN, 1004, "failed to popen"},
    {ERR_OPEN_FILE, 1005, "failed to open file"},
    {ERR_RENAME_FILE, 1006, "failed to rename file"},
    {ERR_REDIS_DELETE_KEY, 1007, "failed to delete key on redis"},
    {ERR_SDK_FILE_CHECK_DIR, 2002, "SDK VLIBCFileCheckDir failed"},
    {ERR_SDK_FILE_SET_KEY_VALUE, 2003, "SDK VLIBCFileSetKeyValue failed"},
    {ERR_SDK_FILE_UNLOCK_BY_FILE, 2004, "SDK VLIBCFileUnlockByFile failed"},
    {ERR_SDK_FILE_GET_KEYS, 2005, "SDK VLIBCFileGetKeys failed"},
    {ERR_SDK_FILE_ENUM_DIR, 2006, "SDK VLIBCFileEnumDir failed"},
    {ERR_SDK_OUT_OF_MEMORY, 2007, "SDK out of memory"},
    {ERR_SDK_PID_FILE_CREATE, 2008, "SDK VLIBCProcPidFileCreate failed"},
    {ERR_SDK_RUN_AS, 2009, "SDK failed to run as"},
    {ERR_SDK_SZLIST_PUSH, 2010, "SDK failed to VLIBCSzListPush"},
    {ERR_SDK_FORK_CHILD, 2011, "SDK failed to VLIBCProcForkChildNoWait"},
    {ERR_SDK_EXECL, 2012, "SDK failed to VLIBCExecl"},
    {ERR_SDK_USER_ALLOC, 2101, "SDK VELAUserAlloc failed"},
    {ERR_SDK_USER_ENUM, 2102, "SDK VLIBUserEnum failed"},
    {ERR_SDK_USER_INFO_ENUM, 2103, "SDK VLIBUserInfoEnum failed"},
    {ERR_SDK_USER_INFO_ENUM_BY_SUBSTR, 2104, "SDK VLIBUserInfoEnumBySubstr failed"},
    {ERR_SDK_USER_GET_UGID, 2105, "SDK VELAUserGetUGID failed"},
    {ERR_SDK_USER_GET_BY_UID, 2106, "SDK failed to VELAUserGetByUID"},
    {ERR_SDK_USER_GET, 2107, "SDK failed to VELAUserGet"},
    {ERR_SDK_USER_REAL_NAME_GET, 2108, "SDK failed to VLIBUserRealNameGet"},
    {ERR_SDK_GET_SERVER_USER, 2109, "SDK failed to get Quillon Server user"},
    {ERR_SDK_GROUP_ALLOC, 2201, "SDK VELAGroupAlloc failed"},
    {ERR_SDK_GROUP_INFO_ENUM_BY_SUBSTR, 2202, "SDK VLIBGroupInfoEnumBySubstr failed"},
    {ERR_SDK_GROUP_IS_ADMIN_MEMBER, 2203, "SDK VLIBGroupIsAdminGroupMem failed"},
    {ERR_SDK_GROUP_GET, 2204, "SDK failed to VELAGroupGet"},
    {ERR_SDK_GROUP_GET_BY_GID, 2205, "SDK failed to VELAGroupGetByGID"},
    {ERR_SDK_GROUP_LIST_MEMBER, 2206, "SDK failed to VELAGroupListMember"},
    {ERR_DOMAIN_DB_UPGRADING, 3001, "upgrading domain db"},
    {ERR_DUPLICATE_DOMAIN_NAME, 3002, "duplicate domain name"},
    {ERR_INVALID_DOMAIN_NAME, 3003, "invalid domain name"},
    {ERR_LOAD_IMAP_POP3_SETTINGS, 3004, "failed to load imap_pop3 settings"},
    {ERR_LOAD_SMTP_SETTINGS, 3005, "failed to load smtp settings"},
    {ERR_LOAD_SECURITY_SETTINGS, 3006, "failed to load security settings"},
    {ERR_LOAD_MIMEDEFANG_SETTINGS, 3007, "failed to load mimedefang settings"},
    {ERR_RUN_WEBAPI, 3008, "failed to run webapi"},
    {ERR_CLUSTER_NOT_INITED, 3101, "Quillon Server cluster is not inited"},
    {ERR_BAD_DB_SESSION, 4001, "bad db session"},
    {ERR_DB_INSERT, 4002, "failed to execute insert query"},
    {ERR_DB_REPLACE, 4003, "failed to execute replace query"},
    {ERR_DB_DELETE, 4004, "failed to execute delete query"},
    {ERR_DB_UPDATE, 4005, "failed to execute update query"},
    {ERR_DB_MULTIPLE_QUERY, 4006, "failed to execute multiple query"},
    {ERR_DB_CREATE, 4007, "failed to create db"},
    {ERR_DB_UPGRADE, 4008, "failed to upgrade db"},
    {ERR_DB_SELECT, 4009, "failed to execute select query"},
};

static_assert(std::is_same_v<std::underlying_type_t<ErrorCode>, std::int32_t>);
static_assert(std::is_convertible_v<ErrorCode, int>, "a plain enumeration");
static_assert(std::is_convertible_v<LogException*, std::runtime_error*>, "a public base");
static_assert(std::is_copy_constructible_v<LogException>);
static_assert(!std::is_default_constructible_v<LogException>);

class LogExceptionTest : public recording::WorldTest {
 protected:
  // The one record that the construction writes, told apart from anything else it might write.
  LogRecord RecordOf(ErrorCode code) {
    world_.log.clear();
    const LogException exception(code, "detail", 3, "file", 7);
    EXPECT_EQ(exception.code(), code);
    EXPECT_STREQ(exception.what(), "detail");
    EXPECT_EQ(world_.log.size(), 1U);
    return world_.log.empty() ? LogRecord{} : world_.log.front();
  }
};

TEST_F(LogExceptionTest, EveryCodeHasItsNumberAndMessage) {
  for (const KnownCode& known : kKnownCodes) {
    EXPECT_EQ(known.code, known.number);
    EXPECT_EQ(RecordOf(known.code), (LogRecord{3, kFormat,
                                               "file:7 (" + std::to_string(known.number) + ") " +
                                                   known.message + ": detail"}));
  }
}

TEST_F(LogExceptionTest, EveryOtherValueIsAnUnknownErrorWithItsNumber) {
  std::map<int, const char*> known;
  for (const KnownCode& code : kKnownCodes) {
    known[code.number] = code.message;
  }
  std::vector<int> values = {std::numeric_limits<std::int32_t>::min(), 65536 + 1001, 1000000,
                             std::numeric_limits<std::int32_t>::max()};
  for (int value = -10; value <= 5100; ++value) {
    values.push_back(value);
  }
  int unknown = 0;
  for (const int value : values) {
    if (!known.contains(value)) {
      ++unknown;
      EXPECT_EQ(
          RecordOf(static_cast<ErrorCode>(value)),
          (LogRecord{3, kFormat, "file:7 (" + std::to_string(value) + ") unknown error: detail"}));
    }
  }
  EXPECT_EQ(unknown, 4 + 5111 - 51);
}

TEST_F(LogExceptionTest, ConstructionAloneWritesExactlyOneRecord) {
  const LogException exception(ERR_RUN_WEBAPI, "detail", 3, "/src/run_api", 23);
  EXPECT_THAT(world_.transcript,
              ElementsAre("maillog(3, \"/src/run_api:23 (3008) failed to run webapi: detail\")"));
  EXPECT_THAT(world_.log, ElementsAre(LogRecord{3, kFormat,
                                                "/src/run_api:23 (3008) failed to run webapi: "
                                                "detail"}));
}

TEST_F(LogExceptionTest, ThrowingCatchingAndCopyingWriteNothingFurther) {
  try {
    throw LogException(ERR_INTERNAL, "detail", 3, "file", 7);
  } catch (const LogException& exception) {
    LogException copy = exception;
    const LogException other(ERR_POPEN, "other", 3, "other", 8);
    world_.transcript.clear();
    copy = other;
    EXPECT_EQ(copy.code(), ERR_POPEN);
    EXPECT_EQ(exception.code(), ERR_INTERNAL);
  }
  EXPECT_THAT(world_.transcript, IsEmpty());
  EXPECT_EQ(world_.log.size(), 2U);
}

TEST_F(LogExceptionTest, ACopyOutlivesItsOriginal) {
  const std::string long_text(5000, 'x');
  auto original = std::make_unique<LogException>(ERR_DB_SELECT, long_text, 3, long_text + ".cc", 9);
  const LogException copy = *original;
  original.reset();
  EXPECT_EQ(copy.code(), ERR_DB_SELECT);
  EXPECT_EQ(copy.what(), long_text);
  EXPECT_EQ(copy.file(), long_text + ".cc");
  EXPECT_EQ(copy.line(), 9);
}

TEST_F(LogExceptionTest, KeepsWhatItWasGiven) {
  const LogException exception(ERR_LSTAT_FILE, "", 3, "", -1);
  EXPECT_EQ(exception.code(), ERR_LSTAT_FILE);
  EXPECT_STREQ(exception.what(), "");
  EXPECT_EQ(exception.file(), "");
  EXPECT_EQ(exception.line(), -1);
  EXPECT_THAT(world_.log, ElementsAre(LogRecord{3, kFormat, ":-1 (1003) failed to lstat file: "}));
}

TEST_F(LogExceptionTest, LogsAtThePriorityOfTheThrower) {
  for (const int priority : {0, 1, 7, 8, -1}) {
    world_.log.clear();
    const LogException exception(ERR_INTERNAL, "detail", priority, "file", 7);
    EXPECT_THAT(world_.log,
                ElementsAre(LogRecord{priority, kFormat, "file:7 (1001) internal error: detail"}));
  }
}

TEST_F(LogExceptionTest, NarrowsThePriorityToInt) {
  const LogException exception(ERR_INTERNAL, "detail", (1L << 32) + 4, "file", 7);
  EXPECT_THAT(world_.log,
              ElementsAre(LogRecord{4, kFormat, "file:7 (1001) internal error: detail"}));
}

TEST_F(LogExceptionTest, TextsAreNoFormats) {
  const LogException exception(ERR_INTERNAL, "100%d", 3, "a%sb", 7);
  EXPECT_THAT(world_.log,
              ElementsAre(LogRecord{3, kFormat, "a%sb:7 (1001) internal error: 100%d"}));
}

TEST_F(LogExceptionTest, LongDetailsAreLoggedWhole) {
  const std::string detail(5000, 'x');
  const LogException exception(ERR_INTERNAL, detail, 3, "file", 7);
  EXPECT_THAT(world_.log,
              ElementsAre(LogRecord{3, kFormat, "file:7 (1001) internal error: " + detail}));
}

TEST_F(LogExceptionTest, IsCaughtAsRuntimeError) {
  try {
    throw LogException(ERR_INTERNAL, "detail", 3, "file", 7);
  } catch (const std::runtime_error& error) {
    EXPECT_STREQ(error.what(), "detail");
  }
}

}  // namespace
}  // namespace velamailserver
