#include <filesystem>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "system/world.h"

namespace quillon::test {
namespace {

using testing::AllOf;
using testing::EndsWith;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::Not;
using testing::StartsWith;

class QuotaWarningTest : public testing::Test {
 protected:
  Outcome Warn(const std::vector<std::string>& arguments) const {
    std::vector<std::string> all = {"quota", "warning"};
    all.insert(all.end(), arguments.begin(), arguments.end());
    return world_.Quillonctl(all);
  }

  void UseMessage(const std::string& text) {
    const std::string path = world_.folder().Write("message", text);
    std::string settings = world_.folder().Read("mailserver.toml");
    settings.replace(settings.find("[quota]\n"), 8,
                     "[quota]\nwarning_message = \"" + path + "\"\n");
    world_.folder().Write("mailserver.toml", settings);
  }

  World world_;
};

TEST_F(QuotaWarningTest, IsAMessageAndALineInTheLog) {
  const Outcome outcome = Warn({"--level", "9G", "--limit", "10G", "zo\xc3\xab"});
  EXPECT_EQ(outcome.exit_code, 0) << outcome.error;
  EXPECT_THAT(outcome.output,
              MatchesRegex("Date: [A-Z][a-z]{2}, [0-9]{2} [A-Z][a-z]{2} 20[0-9]{2} "
                           "[0-9]{2}:[0-9]{2}:[0-9]{2} \\+0000\n"
                           "Message-ID: <quota-warning.[0-9]+.[0-9]+@[^>]+>\n"
                           "MIME-Version: 1.0\n"
                           "Auto-Submitted: auto-generated\n"
                           "From: Mail server <postmaster@[^>]+>\n"
                           "Subject: Your mailbox is filling up\n"
                           "Content-Type: text/plain; charset=utf-8\n"
                           "Content-Transfer-Encoding: 8bit\n"
                           "\n"
                           "There are more than 9G of mail in the mailbox of zo\xc3\xab now.\n"
                           "New mail is refused when there are 10G.\n"
                           "\n"
                           "Please remove .*\n"));
  EXPECT_THAT(
      world_.folder().Read("mail.log"),
      EndsWith(" warning: apps/quillonctl/warning:41 the mail of zo\xc3\xab has grown beyond "
               "the warning level of 9663676416 bytes\n"));
}

TEST_F(QuotaWarningTest, SpeaksOfNoLimitWhereThereIsNone) {
  const Outcome outcome = Warn({"--level", "5120", "alice"});
  EXPECT_THAT(outcome.output,
              AllOf(HasSubstr("more than 5K of mail in the mailbox of alice now.\n\n"),
                    Not(HasSubstr("refused"))));
}

TEST_F(QuotaWarningTest, MayBeTheAdministrators) {
  UseMessage("Subject: {level}\n\n{name}: {level} {limit} {other} {host} 100%\n");
  EXPECT_THAT(Warn({"--level", "1K", "--limit", "2K", "{limit}"}).output,
              EndsWith("\nSubject: 1K\n\n{limit}: 1K 2K {other} {host} 100%\n"));
  EXPECT_THAT(Warn({"--level", "1K", "alice"}).output, HasSubstr("\nalice: 1K unlimited "));
}

TEST_F(QuotaWarningTest, FailsForAFileThatIsNoMessage) {
  UseMessage("Dear {name}!\n");
  Outcome outcome = Warn({"--level", "1K", "alice"});
  EXPECT_EQ(outcome.exit_code, 1);
  EXPECT_EQ(outcome.output, "");
  EXPECT_EQ(outcome.error,
            "quillonctl: quota.warning_message: no empty line between headers and text"
            " in " +
                (world_.folder() / "message") + "\n");
  EXPECT_THAT(world_.folder().Read("mail.log"), HasSubstr("the mail of alice has grown"));
  std::filesystem::remove(world_.folder() / "message");
  outcome = Warn({"--level", "1K", "alice"});
  EXPECT_EQ(outcome.exit_code, 1);
  EXPECT_THAT(outcome.error, HasSubstr("message: No such file or directory"));
}

TEST_F(QuotaWarningTest, IsWrongWithoutALevelAndForAnotherHost) {
  EXPECT_EQ(Warn({"alice"}).exit_code, 2);
  const Outcome outcome = Warn({"--host", "mail2", "--account", "boss", "--level", "1K", "alice"});
  EXPECT_EQ(outcome.exit_code, 2);
  EXPECT_THAT(outcome.error,
              StartsWith("quillonctl: --host: the message is for a mailbox of this"));
}

}  // namespace
}  // namespace quillon::test
