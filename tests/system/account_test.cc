#include <filesystem>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/program.h"
#include "support/temporary_folder.h"
#include "system/terminal.h"
#include "system/world.h"

namespace quillon::test {
namespace {

using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

constexpr char kFirst[] = "Password of alice: ";
constexpr char kSecond[] = "Password of alice again: ";

class AccountTest : public testing::Test {
 protected:
  AccountTest() {
    folder_.Write("mailserver.toml", "[web]\naccounts_file = \"" + (folder_ / "accounts") +
                                         "\"\n[log]\ntarget = \"file\"\nfile = \"" +
                                         (folder_ / "log") + "\"\n");
  }

  std::vector<std::string> CommandLine(const std::vector<std::string>& arguments) const {
    std::vector<std::string> command = {QuillonctlPath(), "--config", folder_ / "mailserver.toml",
                                        "account"};
    command.insert(command.end(), arguments.begin(), arguments.end());
    return command;
  }

  Outcome Account(const std::vector<std::string>& arguments, const std::string& input = "") const {
    return test::Run(CommandLine(arguments), input);
  }

  std::string List() const { return Account({"list"}).output; }
  std::string File() const { return folder_.Read("accounts"); }
  bool HasFile() const { return std::filesystem::exists(folder_ / "accounts"); }

  // On a terminal, and then whether it shows again what is typed.
  Outcome ConverseAndLook(const std::vector<std::string>& arguments,
                          const std::vector<Exchange>& exchanges) const {
    std::vector<std::string> command = {
        "sh", "-c", "trap : INT; \"$@\"; echo exit $?; stty -a | grep -ow -e '-\\?echo'", "sh"};
    const auto line = CommandLine(arguments);
    command.insert(command.end(), line.begin(), line.end());
    return Converse(command, exchanges);
  }

  TemporaryFolder folder_;
};

TEST_F(AccountTest, IsAddedListedChangedAndRemoved) {
  EXPECT_EQ(List(), "NAME  ROLE\n0 accounts\n");

  Outcome outcome =
      Account({"add", "alice", "--role", "admin", "--password-stdin"}, "correct horse\n");
  EXPECT_EQ(outcome.exit_code, 0);
  EXPECT_EQ(outcome.output, "account alice added with the role admin\n");
  EXPECT_EQ(outcome.error, "");
  EXPECT_EQ(Account({"add", "bob", "--password-stdin"}, "correct horse").output,
            "account bob added with the role monitor\n");
  EXPECT_EQ(List(), "NAME   ROLE\nalice  admin\nbob    monitor\n2 accounts\n");

  EXPECT_EQ(Account({"role", "bob", "admin"}).output, "account bob has the role admin\n");
  const std::string before = File();
  EXPECT_EQ(Account({"passwd", "alice", "--password-stdin"}, "another one\n").output,
            "password of alice changed\n");
  EXPECT_NE(File(), before);
  EXPECT_EQ(Account({"remove", "alice"}).output, "account alice removed\n");
  EXPECT_EQ(List(), "NAME  ROLE\nbob   admin\n1 account\n");

  EXPECT_EQ(Account({"list", "--json"}).output,
            "{\n  \"accounts\" : \n  [\n    {\n      \"name\" : \"bob\",\n      \"role\" : "
            "\"admin\"\n    }\n  ],\n  \"total\" : 1\n}\n");
}

TEST_F(AccountTest, RefusalsSayWhatIsWrong) {
  Account({"add", "alice", "--password-stdin"}, "correct horse\n");
  const std::string before = File();
  const auto failure = [this](const std::vector<std::string>& arguments,
                              const std::string& input = "") {
    const Outcome outcome = Account(arguments, input);
    EXPECT_EQ(outcome.exit_code, 1);
    EXPECT_EQ(outcome.output, "");
    return outcome.error;
  };
  EXPECT_EQ(failure({"add", "alice", "--password-stdin"}, "correct horse\n"),
            "quillonctl: there is already an account alice\n");
  EXPECT_THAT(failure({"add", "a:b", "--password-stdin"}, "correct horse\n"),
              StartsWith("quillonctl: a:b: an account's name is"));
  EXPECT_EQ(failure({"add", "bob", "--password-stdin"}, "1234567\n"),
            "quillonctl: the password must have 8 characters at least\n");
  EXPECT_EQ(failure({"add", "bob", "--password-stdin"}, "\n"),
            "quillonctl: no password was given\n");
  EXPECT_EQ(failure({"add", "bob", "--password-stdin"}, ""), "quillonctl: no password was given\n");
  EXPECT_EQ(failure({"add", "bob", "--password-stdin"}, std::string(1025, 'x')),
            "quillonctl: the password is too long\n");
  EXPECT_EQ(failure({"add", "bob", "--password-stdin"}, std::string("12345678\0x\n", 11)),
            "quillonctl: the password holds a NUL byte\n");
  EXPECT_EQ(failure({"passwd", "bob", "--password-stdin"}, "correct horse\n"),
            "quillonctl: there is no account bob\n");
  EXPECT_THAT(failure({"remove", "bob"}), EndsWith(": there is no account bob\n"));
  EXPECT_THAT(failure({"role", "bob", "admin"}), EndsWith(": there is no account bob\n"));
  EXPECT_EQ(File(), before);
}

TEST_F(AccountTest, AsksTwiceAndShowsNothingOfThePassword) {
  const Outcome outcome = ConverseAndLook(
      {"add", "alice"}, {{kFirst, "correct horse\n"}, {kSecond, "correct horse\n"}});
  EXPECT_EQ(outcome.output,
            "Password of alice: \r\nPassword of alice again: \r\n"
            "account alice added with the role monitor\r\nexit 0\r\necho\r\n");
  EXPECT_EQ(List(), "NAME   ROLE\nalice  monitor\n1 account\n");
}

TEST_F(AccountTest, TwoPasswordsMustBeTheSame) {
  const Outcome outcome = ConverseAndLook(
      {"add", "alice"}, {{kFirst, "correct horse\n"}, {kSecond, "correct house\n"}});
  EXPECT_THAT(outcome.output,
              EndsWith("quillonctl: the two passwords differ\r\nexit 1\r\necho\r\n"));
  EXPECT_FALSE(HasFile());
}

TEST_F(AccountTest, AnInterruptLeavesTheTerminalAsItWas) {
  for (const std::vector<Exchange>& exchanges :
       {std::vector<Exchange>{{kFirst, "half\x03"}},
        std::vector<Exchange>{{kFirst, "correct horse\n"}, {kSecond, "\x03"}}}) {
    const Outcome outcome = ConverseAndLook({"add", "alice"}, exchanges);
    EXPECT_THAT(outcome.output, EndsWith("\r\nexit 130\r\necho\r\n"));
    EXPECT_THAT(outcome.output, Not(HasSubstr("half")));
    EXPECT_FALSE(HasFile());
  }
}

TEST_F(AccountTest, TheEndOfTheInputIsNoPassword) {
  const Outcome outcome = ConverseAndLook({"add", "alice"}, {{kFirst, "\x04"}});
  EXPECT_THAT(outcome.output, EndsWith("quillonctl: no password was given\r\nexit 1\r\necho\r\n"));
}

// The streams may be anything: it is the terminal that asks.
TEST_F(AccountTest, AsksOnTheTerminalWhateverTheStreamsAre) {
  std::vector<std::string> command = {"sh", "-c", "\"$@\" </dev/null >/dev/null 2>&1", "sh"};
  const auto line = CommandLine({"add", "alice"});
  command.insert(command.end(), line.begin(), line.end());
  const Outcome outcome =
      Converse(command, {{kFirst, "correct horse\n"}, {kSecond, "correct horse\n"}});
  EXPECT_EQ(outcome.exit_code, 0);
  EXPECT_EQ(List(), "NAME   ROLE\nalice  monitor\n1 account\n");
}

TEST_F(AccountTest, NobodyIsAskedForAPasswordInVain) {
  Account({"add", "alice", "--password-stdin"}, "correct horse\n");
  EXPECT_THAT(Converse(CommandLine({"add", "alice"}), {}).output,
              StartsWith("quillonctl: there is already an account alice"));
  EXPECT_THAT(Converse(CommandLine({"passwd", "bob"}), {}).output,
              StartsWith("quillonctl: there is no account bob"));
}

TEST_F(AccountTest, WithoutATerminalNobodyIsAsked) {
  std::vector<std::string> command = CommandLine({"add", "alice"});
  command.insert(command.begin(), {"setsid", "--wait"});
  const Outcome outcome = test::Run(command, "correct horse\n");
  EXPECT_EQ(outcome.exit_code, 1);
  EXPECT_EQ(outcome.error, "quillonctl: there is no terminal to ask for a password on\n");
  EXPECT_FALSE(HasFile());
}

TEST_F(AccountTest, IsForRootOnly) {
  std::filesystem::permissions(folder_.path(), std::filesystem::perms(0755));
  for (const std::vector<std::string>& arguments :
       {std::vector<std::string>{"list"}, {"remove", "alice"}, {"add", "alice"}}) {
    std::vector<std::string> command = CommandLine(arguments);
    command.insert(command.begin(), {"setpriv", "--reuid", "65534", "--clear-groups"});
    const Outcome outcome = test::Run(command);
    EXPECT_EQ(outcome.exit_code, 1);
    EXPECT_EQ(outcome.error,
              "quillonctl: only root may see and change the accounts of the web server\n");
  }
}

}  // namespace
}  // namespace quillon::test
