#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/immutable.h"
#include "support/parse_json.h"
#include "system/terminal.h"
#include "system/world.h"

namespace quillon::test {
namespace {

using testing::AllOf;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

// Alice and bob have mail, carol has none; all three have an entry in the usage store.
class UserStorageTest : public testing::Test {
 protected:
  UserStorageTest() {
    world_.Deliver("alice", "cur", 1000);
    world_.Deliver("alice", "new", 200);
    world_.Deliver("alice", ".Sent/cur", 30);
    world_.folder().Write("spool/local/alice/.Sent/index.cache", std::string(4000, 'i'));
    world_.Give("alice", 1001);
    world_.Deliver("bob", "new", 2048);
    world_.Give("bob", 1002);
    for (const char* name : {"alice", "bob", "carol"}) {
      world_.SetUsage(name, "77");
    }
  }

  static std::vector<std::string> ClearStorage(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), {"user", "clear-storage"});
    return arguments;
  }
  Outcome Clear(const std::vector<std::string>& arguments, const std::string& input = "") const {
    return world_.Quillonctl(ClearStorage(arguments), input);
  }
  Outcome ClearOnTerminal(const std::vector<std::string>& arguments, const std::string& typed,
                          const std::function<void()>& when_asked = nullptr) const {
    return Converse(world_.CommandLine(ClearStorage(arguments)), {{"? [y/N] ", typed, when_asked}});
  }

  bool Exists(const std::string& account) const {
    return std::filesystem::exists(world_.Maildir(account));
  }
  std::string Usage(const std::string& name) {
    return world_.redis().Command({"GET", name + "/quota/storage"});
  }
  std::string Log() const { return world_.folder().Read("mail.log"); }

  // What is shown of alice and bob before anything is removed.
  std::string Preview() const {
    const std::string gap(world_.Maildir("alice").size() - 4, ' ');
    return "NAME   PATH" + gap + "  SIZE  MESSAGES\n" +  //
           "alice  " + world_.Maildir("alice") + "  5.1K         3\n" + "bob    " +
           world_.Maildir("bob") + "      2K         1\n" +
           "2 mail directories, 7.1K in 4 messages\n";
  }

  World world_;
};

TEST_F(UserStorageTest, RemovesTheMailOfOneUserAndOfNobodyElse) {
  const std::string bob = world_.Image("bob");
  ASSERT_THAT(bob, HasSubstr("./new/"));

  const Outcome outcome = Clear({"--yes", "ALICE"});

  EXPECT_EQ(outcome.exit_code, 0);
  EXPECT_THAT(outcome.output, EndsWith("\n1 mail directory, 5.1K in 3 messages\n"
                                       "1 mail directory removed, 5.1K in 3 messages\n"));
  EXPECT_EQ(outcome.error, "");
  EXPECT_FALSE(Exists("alice"));
  EXPECT_EQ(world_.Image("bob"), bob);
  EXPECT_EQ(Usage("alice"), "(nil)");
  EXPECT_EQ(Usage("bob"), "77");
  EXPECT_EQ(Usage("carol"), "77");
}

TEST_F(UserStorageTest, ADryRunChangesNothing) {
  const std::string alice = world_.Image("alice");
  const std::string bob = world_.Image("bob");
  const Outcome outcome = Clear({"--dry-run", "alice", "bob"});
  EXPECT_EQ(outcome.exit_code, 0);
  EXPECT_EQ(outcome.output, Preview());
  EXPECT_EQ(outcome.error, "");
  EXPECT_EQ(Clear({"--dry-run", "--yes", "carol"}).output, "no mail directory: carol\n");
  EXPECT_EQ(world_.Image("alice"), alice);
  EXPECT_EQ(world_.Image("bob"), bob);
  EXPECT_EQ(Usage("alice"), "77");
  EXPECT_EQ(Usage("carol"), "77");
}

TEST_F(UserStorageTest, AsksOnATerminal) {
  const Outcome outcome = ClearOnTerminal({"alice", "bob"}, "y\n");
  EXPECT_EQ(outcome.exit_code, 0);
  EXPECT_EQ(outcome.output,
            AsOnTerminal(Preview() + "Remove these 2 directories with 7.1K for good? [y/N] y\n" +
                         "2 mail directories removed, 7.1K in 4 messages\n"));
  EXPECT_FALSE(Exists("alice"));
  EXPECT_FALSE(Exists("bob"));
}

TEST_F(UserStorageTest, TakesEverythingElseForNo) {
  for (const std::string answer : {"n\n", "\n", "yes please\n", "\x04"}) {
    const Outcome outcome = ClearOnTerminal({"alice"}, answer);
    EXPECT_EQ(outcome.exit_code, 1);
    EXPECT_THAT(outcome.output,
                AllOf(HasSubstr("Remove this directory with 5.1K for good? [y/N] "),
                      EndsWith("quillonctl: nothing was removed\r\n"), Not(HasSubstr("removed, "))))
        << answer;
  }
  EXPECT_TRUE(Exists("alice"));
  EXPECT_EQ(Usage("alice"), "77");
}

TEST_F(UserStorageTest, RemovesNothingWhenItIsInterruptedAtTheQuestion) {
  const Outcome outcome = ClearOnTerminal({"alice"}, "\x03");
  EXPECT_EQ(outcome.exit_code, 130);  // ended by SIGINT
  EXPECT_THAT(outcome.output, HasSubstr("Remove this directory with 5.1K for good? [y/N] "));
  EXPECT_TRUE(Exists("alice"));
  EXPECT_EQ(Usage("alice"), "77");
}

TEST_F(UserStorageTest, NeedsAgreementWhereItCannotAsk) {
  for (const std::string input : {"y\n", "alice\ny\n"}) {
    const Outcome outcome = Clear({input == "y\n" ? "alice" : "-"}, input);
    EXPECT_EQ(outcome.exit_code, 2);
    EXPECT_EQ(outcome.output, "");
    EXPECT_THAT(outcome.error, StartsWith("quillonctl: --yes is required where nobody can be"));
  }
  EXPECT_EQ(
      RunOnTerminal(world_.CommandLine(ClearStorage({"--json", "alice"})), {}, "y\n").exit_code, 2);
  EXPECT_TRUE(Exists("alice"));
}

TEST_F(UserStorageTest, NamesThoseWithoutAMailDirectoryAndDeletesTheirUsage) {
  Outcome outcome = Clear({"--yes", "carol", "bob"});
  EXPECT_EQ(outcome.exit_code, 0);
  EXPECT_EQ(outcome.error, "");
  EXPECT_THAT(outcome.output, AllOf(StartsWith("no mail directory: carol\nNAME  PATH"),
                                    EndsWith("\n1 mail directory removed, 2K in 1 message\n")));
  EXPECT_EQ(Usage("bob"), "(nil)");
  EXPECT_EQ(Usage("carol"), "(nil)");

  world_.SetUsage("carol", "77");
  outcome = ClearOnTerminal({"carol"}, "y\n");
  EXPECT_EQ(outcome.exit_code, 0);
  EXPECT_EQ(outcome.output,
            "no mail directory: carol\r\n"
            "Remove the usage figures for good? [y/N] y\r\n"
            "usage figures removed\r\n");
  EXPECT_EQ(Usage("carol"), "(nil)");
  EXPECT_EQ(Usage("alice"), "77");
}

// The directory is shown once, for the first of them.
TEST_F(UserStorageTest, DeletesTheUsageOfAllWhoShareAMailDirectory) {
  world_.AddAccount("alias", 1001);
  world_.SetUsage("alias", "77");
  const Outcome outcome = Clear({"--yes", "alice", "alias"});
  EXPECT_EQ(outcome.exit_code, 0);
  EXPECT_THAT(outcome.output, AllOf(StartsWith("no mail directory: alias\nNAME   PATH"),
                                    EndsWith("\n1 mail directory removed, 5.1K in 3 messages\n")));
  EXPECT_FALSE(Exists("alice"));
  EXPECT_EQ(Usage("alice"), "(nil)");
  EXPECT_EQ(Usage("alias"), "(nil)");
}

TEST_F(UserStorageTest, ReadsNamesFromStandardInput) {
  const Outcome outcome = Clear({"--yes", "-"}, "alice\n\nbob");
  EXPECT_EQ(outcome.exit_code, 0);
  EXPECT_THAT(outcome.output, HasSubstr("\n2 mail directories removed, 7.1K in 4 messages\n"));
  EXPECT_FALSE(Exists("alice"));
  EXPECT_FALSE(Exists("bob"));
}

TEST_F(UserStorageTest, RefusesEverythingForOneUnknownName) {
  const Outcome outcome = Clear({"--yes", "alice", "eve"});
  EXPECT_EQ(outcome.exit_code, 1);
  EXPECT_EQ(outcome.output, "");
  EXPECT_EQ(outcome.error, "quillonctl: no such user: [eve] (error 2107)\n");
  EXPECT_TRUE(Exists("alice"));
  EXPECT_EQ(Usage("alice"), "77");
}

TEST_F(UserStorageTest, FollowsNoLink) {
  std::filesystem::create_directory_symlink(world_.Maildir("bob"), world_.Maildir("carol"));
  const std::string bob = world_.Image("bob");
  const Outcome outcome = Clear({"--yes", "carol"});
  EXPECT_EQ(outcome.exit_code, 0);
  EXPECT_EQ(outcome.output, "no mail directory: carol\nusage figures removed\n");
  EXPECT_EQ(world_.Image("bob"), bob);
  EXPECT_TRUE(std::filesystem::is_symlink(world_.Maildir("carol")));
}

TEST_F(UserStorageTest, LeavesWhatBelongsToSomebodyElse) {
  world_.Give("alice", 1002);
  const std::string alice = world_.Image("alice");
  const Outcome outcome = Clear({"--yes", "alice", "bob"});
  EXPECT_EQ(outcome.exit_code, 1);
  EXPECT_THAT(outcome.output, HasSubstr("\n1 mail directory removed, 2K in 1 message\n"));
  EXPECT_EQ(outcome.error, "quillonctl: 1 mail directory left; the mail log tells why\n");
  EXPECT_THAT(Log(), HasSubstr(world_.Maildir("alice")));
  EXPECT_EQ(world_.Image("alice"), alice);
  EXPECT_FALSE(Exists("bob"));
}

TEST_F(UserStorageTest, SaysWhatHasChangedSinceItWasShown) {
  const std::string away = world_.Maildir("alice") + ".away";
  const Outcome outcome = ClearOnTerminal({"alice", "bob"}, "y\n", [&] {
    std::filesystem::rename(world_.Maildir("alice"), away);
    std::filesystem::create_directory_symlink(away, world_.Maildir("alice"));
  });
  EXPECT_EQ(outcome.exit_code, 1);
  EXPECT_THAT(outcome.output,
              EndsWith("1 mail directory removed, 2K in 1 message\r\n"
                       "quillonctl: not removed, it has changed since it was shown: " +
                       world_.Maildir("alice") + "\r\n"));
  EXPECT_TRUE(std::filesystem::exists(away + "/cur"));
  EXPECT_FALSE(Exists("bob"));
}

TEST_F(UserStorageTest, ReportsWhatIsLeft) {
  const std::string file = world_.Maildir("alice") + "/.Sent/index.cache";
  const Immutable immutable(file);
  if (!immutable.IsSet()) {
    GTEST_SKIP() << "the file system has no immutable files";
  }
  const Outcome outcome = Clear({"--yes", "alice", "bob"});
  const Outcome json = Clear({"--yes", "--json", "alice"});

  EXPECT_EQ(outcome.exit_code, 1);
  EXPECT_THAT(outcome.output, AllOf(HasSubstr("\n1 mail directory removed, 2K in 1 message\n"),
                                    EndsWith("\nalice  " + world_.Maildir("alice") +
                                             "  3.9K         0\n"
                                             "1 mail directory, 3.9K in 0 messages\n")));
  EXPECT_EQ(outcome.error, "quillonctl: 1 mail directory left; the mail log tells why\n");
  EXPECT_THAT(Log(), HasSubstr(file));
  EXPECT_EQ(json.exit_code, 1);
  EXPECT_EQ(Parse(json.output)["left"][0]["usage"].asUInt64(), 4000U);
}

TEST_F(UserStorageTest, PrintsTheDocument) {
  const Json::Value preview =
      world_.QuillonctlJson({"user", "clear-storage", "--dry-run", "Alice", "carol"});
  ASSERT_EQ(preview["maildirs"].size(), 1U);
  EXPECT_EQ(preview["maildirs"][0]["name"], "alice");
  EXPECT_EQ(preview["maildirs"][0]["path"], world_.Maildir("alice"));
  EXPECT_EQ(preview["maildirs"][0]["usage"].asUInt64(), 5230U);
  EXPECT_EQ(preview["maildirs"][0]["messages"].asUInt64(), 3U);
  ASSERT_EQ(preview["without"].size(), 1U);
  EXPECT_EQ(preview["without"][0], "carol");
  EXPECT_TRUE(Exists("alice"));

  const Json::Value data =
      world_.QuillonctlJson({"user", "clear-storage", "--yes", "alice", "carol"});
  EXPECT_EQ(data["removed"], preview["maildirs"]);
  EXPECT_EQ(data["left"], Json::Value(Json::arrayValue));
  EXPECT_EQ(data["without"], preview["without"]);
  EXPECT_FALSE(Exists("alice"));
}

TEST_F(UserStorageTest, FailsWithoutAMaildirRoot) {
  const std::string root = world_.folder() / "spool";
  std::filesystem::rename(root, root + ".away");
  const Outcome outcome = Clear({"--yes", "alice"});
  EXPECT_EQ(outcome.exit_code, 1);
  EXPECT_EQ(outcome.output, "");
  EXPECT_THAT(outcome.error, HasSubstr(root));
  EXPECT_EQ(Usage("alice"), "77");
}

// The mail goes first: when its usage cannot be deleted, a second call finishes the job.
class FailingUsageTest : public UserStorageTest {
 protected:
  FailingUsageTest() { world_.redis().Stop(); }

  void ExpectError(const Outcome& outcome, const std::string& names) const {
    EXPECT_EQ(outcome.exit_code, 1);
    EXPECT_THAT(outcome.error, AllOf(StartsWith("quillonctl: "), HasSubstr(names),
                                     HasSubstr("call again"), EndsWith("(error 1007)\n")));
    EXPECT_THAT(Log(), HasSubstr("lib-webapi/account/user:59 (1007) failed to delete key on redis: "
                                 "alice,bob"));
  }
};

TEST_F(FailingUsageTest, ASecondCallFinishesTheJob) {
  const Outcome outcome = Clear({"--yes", "alice", "bob"});
  ExpectError(outcome, "[alice], [bob]");
  EXPECT_EQ(outcome.output, Preview() + "2 mail directories removed, 7.1K in 4 messages\n");
  EXPECT_FALSE(Exists("alice"));
  EXPECT_FALSE(Exists("bob"));

  world_.redis().Start();
  world_.SetUsage("alice", "77");
  world_.SetUsage("bob", "77");
  const Outcome again = Clear({"--yes", "alice", "bob"});
  EXPECT_EQ(again.exit_code, 0);
  EXPECT_EQ(again.error, "");
  EXPECT_EQ(again.output, "no mail directory: alice, bob\nusage figures removed\n");
  EXPECT_EQ(Usage("alice"), "(nil)");
  EXPECT_EQ(Usage("bob"), "(nil)");
}

TEST_F(FailingUsageTest, PrintsTheDocumentAllTheSame) {
  const Outcome outcome = Clear({"--yes", "--json", "alice", "bob"});
  ExpectError(outcome, "[alice], [bob]");
  const Json::Value data = Parse(outcome.output);
  ASSERT_EQ(data["removed"].size(), 2U);
  EXPECT_EQ(data["removed"][1]["name"], "bob");
  EXPECT_EQ(data["left"].size(), 0U);
}

TEST_F(FailingUsageTest, DoesNotSayThatFiguresAreRemoved) {
  const Outcome outcome = Clear({"--yes", "carol"});
  EXPECT_EQ(outcome.exit_code, 1);
  EXPECT_EQ(outcome.output, "no mail directory: carol\n");
  EXPECT_THAT(outcome.error, AllOf(HasSubstr("[carol]"), EndsWith("(error 1007)\n")));
}

}  // namespace
}  // namespace quillon::test
