#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "system/world.h"

namespace quillon::test {
namespace {

using testing::HasSubstr;

class WrongUsageTest : public testing::TestWithParam<std::vector<std::string>> {};

TEST_P(WrongUsageTest, EndsWith2) {
  const World world;
  const Outcome outcome = world.Quillonctl(GetParam());
  EXPECT_EQ(outcome.exit_code, 2);
  EXPECT_EQ(outcome.output, "");
  EXPECT_THAT(outcome.error, testing::StartsWith("quillonctl: "));
}

INSTANTIATE_TEST_SUITE_P(
    CommandLines, WrongUsageTest,
    testing::Values(
        std::vector<std::string>{}, std::vector<std::string>{"user"},
        std::vector<std::string>{"usage"}, std::vector<std::string>{"team", "list"},
        std::vector<std::string>{"group"}, std::vector<std::string>{"group", "show"},
        std::vector<std::string>{"group", "list", "--sort", "usage"},
        std::vector<std::string>{"group", "list", "--above", "80"},
        std::vector<std::string>{"group", "list", "--limit", "-1"},
        std::vector<std::string>{"group", "list", "[staff,users]"},
        std::vector<std::string>{"group", "set-quota", "--limit", "1K", "users"},
        std::vector<std::string>{"group", "set-quota", "--limit", "1K", "--warning", "1K"},
        std::vector<std::string>{"group", "clear-quota"},
        std::vector<std::string>{"group", "share-quota"},
        std::vector<std::string>{"group", "share-quota", "users", "staff"},
        std::vector<std::string>{"privilege"}, std::vector<std::string>{"privilege", "grant"},
        std::vector<std::string>{"privilege", "revoke", "-"},
        std::vector<std::string>{"privilege", "revoke", "alice", "--app"},
        std::vector<std::string>{"privilege", "list", "alice"},
        std::vector<std::string>{"user", "show", "-"},
        std::vector<std::string>{"user", "show", "--sort", "name"},
        std::vector<std::string>{"user", "clear-storage", "--yes"},
        std::vector<std::string>{"user", "clear-storage", "--yes", "-"},
        std::vector<std::string>{"user", "clear-storage", "alice"},
        std::vector<std::string>{"user", "remove"},
        std::vector<std::string>{"user", "list", "--sort", "colour"},
        std::vector<std::string>{"user", "list", "--above", "much"},
        std::vector<std::string>{"user", "list", "--above", ""},
        std::vector<std::string>{"user", "list", "--above", "nan"},
        std::vector<std::string>{"user", "list", "--above", "inf"},
        std::vector<std::string>{"user", "list", "--above", "1e400"},
        std::vector<std::string>{"user", "list", "--above", "80%"},
        std::vector<std::string>{"user", "list", "--offset", ""},
        std::vector<std::string>{"user", "list", "--offset", "-1"},
        std::vector<std::string>{"user", "list", "--offset", "1.0"},
        std::vector<std::string>{"user", "list", "--offset", "18446744073709551616"},
        std::vector<std::string>{"user", "list", "--limit", ""},
        std::vector<std::string>{"user", "list", "--limit", "-1"},
        std::vector<std::string>{"user", "list", "--limit", "0x1"},
        std::vector<std::string>{"user", "list", "--limit", "9223372036854775808"},
        std::vector<std::string>{"user", "list", "--limit", "1", "--limit", "2"},
        std::vector<std::string>{"user", "list", "--no-such-option"},
        std::vector<std::string>{"user", "list", "[alice,bob]"},
        std::vector<std::string>{"user", "set-quota", "--limit", "1K", "alice"},
        std::vector<std::string>{"user", "set-quota", "--warning", "1K", "alice"},
        std::vector<std::string>{"user", "set-quota", "--limit", "1K", "--warning", "1K"},
        std::vector<std::string>{"user", "set-quota", "--limit", "", "--warning", "1K", "alice"},
        std::vector<std::string>{"user", "clear-quota"},
        std::vector<std::string>{"user", "clear-quota", "-"},
        std::vector<std::string>{"user", "import-quota"},
        std::vector<std::string>{"user", "import-quota", "a.csv", "b.csv"},
        std::vector<std::string>{"usage", "count", "-"}, std::vector<std::string>{"no-owner"},
        std::vector<std::string>{"no-owner", "list", "dora"},
        std::vector<std::string>{"no-owner", "list", "--sort", "uid"},
        std::vector<std::string>{"no-owner", "list", "--offset", "-1"},
        std::vector<std::string>{"no-owner", "list", "--limit", "9223372036854775808"},
        std::vector<std::string>{"no-owner", "refresh", "3000001"},
        std::vector<std::string>{"no-owner", "remove", "--yes"},
        std::vector<std::string>{"no-owner", "remove", "--yes", "-"},
        std::vector<std::string>{"no-owner", "remove", "--yes", ""},
        std::vector<std::string>{"no-owner", "remove", "--yes", "dora"},
        std::vector<std::string>{"no-owner", "remove", "--yes", "0x5"},
        std::vector<std::string>{"no-owner", "remove", "--yes", "--", "-1"},
        std::vector<std::string>{"no-owner", "remove", "--yes", "4294967296"},
        std::vector<std::string>{"no-owner", "remove", "3000001"},
        std::vector<std::string>{"account"}, std::vector<std::string>{"account", "add"},
        std::vector<std::string>{"account", "add", "alice", "--role", "root"},
        std::vector<std::string>{"account", "add", "alice", "a password"},
        std::vector<std::string>{"account", "list", "alice"},
        std::vector<std::string>{"account", "role", "alice"},
        std::vector<std::string>{"account", "role", "alice", "root"},
        std::vector<std::string>{"--host", "mail2", "user", "list"},
        std::vector<std::string>{"--account", "boss", "user", "list"},
        std::vector<std::string>{"--protocol", "https", "user", "list"},
        std::vector<std::string>{"--host", "", "--account", "boss", "user", "list"},
        std::vector<std::string>{"--host", "a b", "--account", "boss", "user", "list"},
        std::vector<std::string>{"--host", "a/b", "--account", "boss", "user", "list"},
        std::vector<std::string>{"--host", "::x", "--account", "boss", "user", "list"},
        std::vector<std::string>{"--host", "[::1]x", "--account", "boss", "user", "list"},
        std::vector<std::string>{"--host", "mail2:0", "--account", "boss", "user", "list"},
        std::vector<std::string>{"--host", "mail2:", "--account", "boss", "user", "list"},
        std::vector<std::string>{"--host", "mail2:65536", "--account", "boss", "user", "list"},
        std::vector<std::string>{"--host", "mail2", "--account", "boss", "account", "list"},
        std::vector<std::string>{"--host", "mail2", "--account", "boss", "host", "status"},
        std::vector<std::string>{"--host", "mail2", "--account", "boss", "token", "mail2"},
        std::vector<std::string>{"--protocol", "ftp", "host", "probe", "mail2"},
        std::vector<std::string>{"--password-fd", "-1", "host", "status"},
        std::vector<std::string>{"host"}, std::vector<std::string>{"host", "probe"},
        std::vector<std::string>{"host", "status", "mail2"},
        std::vector<std::string>{"host", "status", "mail2:5001", "--account", "boss"},
        std::vector<std::string>{"host", "status", "--watch", "0"},
        std::vector<std::string>{"host", "call", "mail2", "An.API", "get"},
        std::vector<std::string>{"host", "call", "mail2", "An.API", "--account", "boss"},
        std::vector<std::string>{"host", "call", "mail2", "An.API", "get", "--account", "boss",
                                 "--params", "5"},
        std::vector<std::string>{"host", "call", "mail2", "An.API", "get", "--account", "boss",
                                 "--upload", "=file"},
        std::vector<std::string>{"host", "batch"}, std::vector<std::string>{"host", "trust"},
        std::vector<std::string>{"host", "trust", "mail2"},
        std::vector<std::string>{"host", "trust", "mail2", "--list"},
        std::vector<std::string>{"host", "trust", "--list", "--remove"},
        std::vector<std::string>{"token"}, std::vector<std::string>{"token", "mail2"}));

class HelpTest : public testing::TestWithParam<std::vector<std::string>> {};

TEST_P(HelpTest, GivesAnExample) {
  std::vector<std::string> command = GetParam();
  command.insert(command.begin(), QuillonctlPath());
  command.emplace_back("--help");
  const Outcome outcome = test::Run(command);
  EXPECT_EQ(outcome.exit_code, 0);
  EXPECT_EQ(outcome.error, "");
  EXPECT_THAT(outcome.output, HasSubstr("\nExample: quillonctl "));
}

INSTANTIATE_TEST_SUITE_P(
    Commands, HelpTest,
    testing::Values(
        std::vector<std::string>{}, std::vector<std::string>{"user"},
        std::vector<std::string>{"user", "list"}, std::vector<std::string>{"user", "set-quota"},
        std::vector<std::string>{"user", "clear-quota"},
        std::vector<std::string>{"user", "import-quota"}, std::vector<std::string>{"user", "show"},
        std::vector<std::string>{"user", "clear-storage"}, std::vector<std::string>{"group"},
        std::vector<std::string>{"group", "list"}, std::vector<std::string>{"group", "set-quota"},
        std::vector<std::string>{"group", "clear-quota"},
        std::vector<std::string>{"group", "share-quota"}, std::vector<std::string>{"privilege"},
        std::vector<std::string>{"privilege", "grant"},
        std::vector<std::string>{"privilege", "revoke"},
        std::vector<std::string>{"privilege", "list"}, std::vector<std::string>{"usage"},
        std::vector<std::string>{"usage", "count"}, std::vector<std::string>{"no-owner"},
        std::vector<std::string>{"no-owner", "list"},
        std::vector<std::string>{"no-owner", "refresh"},
        std::vector<std::string>{"no-owner", "remove"}, std::vector<std::string>{"account"},
        std::vector<std::string>{"account", "add"}, std::vector<std::string>{"account", "list"},
        std::vector<std::string>{"account", "remove"},
        std::vector<std::string>{"account", "passwd"}, std::vector<std::string>{"account", "role"},
        std::vector<std::string>{"host"}, std::vector<std::string>{"host", "status"},
        std::vector<std::string>{"host", "probe"}, std::vector<std::string>{"host", "call"},
        std::vector<std::string>{"host", "batch"}, std::vector<std::string>{"host", "trust"},
        std::vector<std::string>{"token"}));

TEST(CommandLineTest, TellsItsVersion) {
  const Outcome outcome = test::Run({QuillonctlPath(), "--version"});
  EXPECT_EQ(outcome.exit_code, 0);
  EXPECT_THAT(outcome.output, testing::MatchesRegex("quillonctl [0-9]+\\.[0-9]+\\.[0-9]+\n"));
}

class ConfigurationOptionTest : public testing::TestWithParam<std::vector<std::string>> {};

TEST_P(ConfigurationOptionTest, MayStandAnywhere) {
  World world;
  world.AddAccount("--config", 1004);  // behind --, it is a name like any other
  std::vector<std::string> command = {QuillonctlPath()};
  for (const std::string& word : GetParam()) {
    command.push_back(word == "FILE" ? world.configuration_file() : word);
  }
  const Outcome outcome = test::Run(command);
  EXPECT_EQ(outcome.exit_code, 0);
  EXPECT_EQ(outcome.error, "");
  EXPECT_THAT(outcome.output, HasSubstr("\n2 users, 0B used\n"));
}

INSTANTIATE_TEST_SUITE_P(
    CommandLines, ConfigurationOptionTest,
    testing::Values(std::vector<std::string>{"--config", "FILE", "user", "list", "alice", "bob"},
                    std::vector<std::string>{"user", "--config", "FILE", "list", "alice", "bob"},
                    std::vector<std::string>{"user", "list", "--config", "FILE", "alice", "bob"},
                    std::vector<std::string>{"user", "list", "alice", "--config", "FILE", "bob"},
                    std::vector<std::string>{"user", "list", "alice", "bob", "--config", "FILE"}));

class OutputTest : public testing::TestWithParam<std::string> {
 protected:
  Outcome InShell(const std::string& redirection) const {
    const World world;
    std::string command;
    for (const std::string& word : world.CommandLine({})) {
      command += word + " ";
    }
    return test::Run({"sh", "-c", command + GetParam() + redirection});
  }
};

TEST_P(OutputTest, FailsWhenItCannotBeWritten) {
  const Outcome outcome = InShell(" > /dev/full");
  EXPECT_EQ(outcome.exit_code, 1);
  EXPECT_THAT(outcome.error, HasSubstr("quillonctl: cannot write to standard output: No space"));
}

TEST_P(OutputTest, FailsWhenItIsClosed) {
  const Outcome outcome = InShell(" >&-");
  EXPECT_EQ(outcome.exit_code, 1);
  EXPECT_THAT(outcome.error, HasSubstr("quillonctl: cannot write to standard output: Bad file"));
}

INSTANTIATE_TEST_SUITE_P(Commands, OutputTest,
                         testing::Values<std::string>("user list", "user list --json",
                                                      "user clear-quota alice", "--help",
                                                      "--version"));

TEST(CommandLineTest, RefusesToGoByHalfOfTheNames) {
  const World world;
  std::string command;
  for (const std::string& word : world.CommandLine({"user", "clear-quota", "alice", "-"})) {
    command += word + " ";
  }
  const Outcome outcome = test::Run({"sh", "-c", command + "< /"});
  EXPECT_EQ(outcome.exit_code, 1);
  EXPECT_EQ(outcome.error, "quillonctl: cannot read standard input: Is a directory\n");
}

}  // namespace
}  // namespace quillon::test
