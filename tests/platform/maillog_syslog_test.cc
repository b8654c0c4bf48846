#include <syslog.h>

#include <cstdarg>
#include <cstdio>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <quillon/platform/configuration.h>
#include <velamailserver/maillog.h>

#include "support/temporary_folder.h"

namespace {

struct Record {
  int priority;
  std::string text;

  bool operator==(const Record&) const = default;
};

std::vector<Record> records;

}  // namespace

// In place of the C library's: what would go to the system's log ends here.
extern "C" __attribute__((visibility("default"))) void syslog(int priority, const char* format,
                                                              ...) {
  char text[20000];
  va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(text, sizeof(text), format, arguments);
  va_end(arguments);
  records.push_back({priority, text});
}

namespace quillon::platform {
namespace {

using testing::ElementsAre;

class MailLogToSyslog : public testing::Test {
 protected:
  MailLogToSyslog() {
    records.clear();
    UseConfiguration(Configuration());
  }
};

TEST_F(MailLogToSyslog, IsTheDefaultUnderTheMailFacility) {
  maillog(LOG_ERR, "%s:%d %s", "file", 7, "100% full");
  maillog(LOG_DEBUG, "second\nline");

  EXPECT_THAT(records, ElementsAre(Record{LOG_MAIL | LOG_ERR, "file:7 100% full"},
                                   Record{LOG_MAIL | LOG_DEBUG, "second\\nline"}));
}

TEST_F(MailLogToSyslog, TakesThePriorityOnlyFromTheCaller) {
  maillog(LOG_AUTH | LOG_CRIT, "text");

  EXPECT_THAT(records, ElementsAre(Record{LOG_MAIL | LOG_CRIT, "text"}));
}

TEST_F(MailLogToSyslog, GetsWhatCannotBeWrittenToTheFile) {
  const test::TemporaryFolder folder;
  Configuration configuration;
  configuration.log = {"file", folder / "no/such/folder/mail.log"};
  UseConfiguration(configuration);

  maillog(LOG_WARNING, "text");

  EXPECT_THAT(records, ElementsAre(Record{LOG_MAIL | LOG_WARNING, "text"}));
}

}  // namespace
}  // namespace quillon::platform
