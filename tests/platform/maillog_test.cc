#include <sys/stat.h>

#include <cerrno>
#include <filesystem>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <quillon/platform/configuration.h>
#include <velamailserver/maillog.h>

#include "support/temporary_folder.h"

namespace quillon::platform {
namespace {

using testing::EndsWith;
using testing::HasSubstr;
using testing::MatchesRegex;

class MailLogFile : public testing::Test {
 protected:
  MailLogFile() {
    configuration_.log = {"file", folder_ / "mail.log"};
    UseConfiguration(configuration_);
  }

  test::TemporaryFolder folder_;
  Configuration configuration_;
};

TEST_F(MailLogFile, GetsALineForEveryRecord) {
  maillog(3, "%s:%d %s", "lib-webapi/run_api", 23, "failed");
  maillog(7, "second");

  EXPECT_THAT(folder_.Read("mail.log"),
              MatchesRegex("[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9:]{8}Z maillog_test\\[[0-9]+\\] err: "
                           "lib-webapi/run_api:23 failed\n"
                           "[^\n]* debug: second\n"));
}

TEST_F(MailLogFile, CannotBeForgedByANameWithANewline) {
  maillog(3, "no such user: [%s]", "bob]\n2026-01-01T00:00:00Z forged[1] err: \x1b[2J");

  const std::string log = folder_.Read("mail.log");
  EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 1);
  EXPECT_THAT(log, HasSubstr("[bob]\\n2026-01-01T00:00:00Z forged[1] err: \\x1b[2J]"));
}

TEST_F(MailLogFile, CutsVeryLongRecordsWithAMark) {
  maillog(3, "%s", std::string(8192, 'x').c_str());
  EXPECT_THAT(folder_.Read("mail.log"), EndsWith("xx\n"));

  maillog(3, "%s", std::string(100000, 'x').c_str());
  EXPECT_THAT(folder_.Read("mail.log"), EndsWith("xx [cut]\n"));
  EXPECT_LT(folder_.Read("mail.log").size(), 17000U);
}

TEST_F(MailLogFile, IsNotReadableForEverybody) {
  maillog(6, "hello");

  struct stat status {};
  ASSERT_EQ(::stat((folder_ / "mail.log").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07U, 0U);
}

TEST_F(MailLogFile, MayBeRotatedAtAnyTime) {
  maillog(6, "before");
  std::filesystem::rename(folder_ / "mail.log", folder_ / "mail.log.1");
  maillog(6, "after");

  EXPECT_THAT(folder_.Read("mail.log.1"), EndsWith("info: before\n"));
  EXPECT_THAT(folder_.Read("mail.log"), EndsWith("info: after\n"));
}

TEST_F(MailLogFile, IsNeverWrittenThroughALink) {
  folder_.Write("victim", "untouched");
  std::filesystem::create_symlink(folder_ / "victim", folder_ / "mail.log");

  maillog(3, "text");

  EXPECT_EQ(folder_.Read("victim"), "untouched");
}

TEST_F(MailLogFile, LeavesErrnoAlone) {
  configuration_.log.file = "/no/such/folder/log";
  UseConfiguration(configuration_);
  errno = E2BIG;

  maillog(3, "text");

  EXPECT_EQ(errno, E2BIG);
}

TEST(MailLog, GoesToStandardErrorWhenAsked) {
  Configuration configuration;
  configuration.log.target = "stderr";
  UseConfiguration(configuration);

  testing::internal::CaptureStderr();
  maillog(4, "text with %d%%", 5);

  EXPECT_THAT(testing::internal::GetCapturedStderr(), EndsWith(" warning: text with 5%\n"));
}

}  // namespace
}  // namespace quillon::platform
