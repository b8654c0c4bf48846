#include <sys/stat.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <quillon/platform/no_owner_usage.h>
#include <quillon/platform/usage_count.h>
#include <velamailserver/velasdk/file_lock_guard.h>

#include "support/descendants.h"
#include "support/immutable.h"
#include "support/program.h"
#include "system/terminal.h"
#include "system/world.h"

namespace quillon::test {
namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

constexpr char kSkipped[] = " alert: lib-webapi/account/no_owner:66 counting usage, skip refresh\n";

// Another process, which is not one of ours, holds the lock of the usage counts during its life.
class OtherCount {
 public:
  explicit OtherCount(const std::string& log) {
    // It makes the lock's folder.
    { const velamailserver::velasdk::FileLockGuard lock(platform::kUsageCountLockFile); }
    program_ = std::make_unique<BackgroundProgram>(
        std::vector<std::string>{"flock", "--no-fork", platform::kUsageCountLockFile, "sleep",
                                 "60"},
        log);
    while (program_->IsRunning() && !platform::IsUsageCountRunning()) {
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
  }

 private:
  std::unique_ptr<BackgroundProgram> program_;
};

// No count can take the lock during its life, although nobody holds it.
class UnsafeLockFolder {
 public:
  UnsafeLockFolder() {
    // It makes the folder.
    { const velamailserver::velasdk::FileLockGuard lock(platform::kUsageCountLockFile); }
    ::chmod(folder_.c_str(), 0775);
  }
  UnsafeLockFolder(const UnsafeLockFolder&) = delete;
  UnsafeLockFolder& operator=(const UnsafeLockFolder&) = delete;
  ~UnsafeLockFolder() { ::chmod(folder_.c_str(), 0755); }

 private:
  const std::string folder_ =
      std::filesystem::path(platform::kUsageCountLockFile).parent_path().string();
};

// The user alice with her mail, and what dora and emil have left.
class NoOwnerTest : public testing::Test {
 protected:
  NoOwnerTest() {
    world_.Deliver("alice", "cur", 700);
    world_.Deliver("alice", ".Sent/cur", 11);
    world_.Give("alice", 1001);
    world_.Deliver("dora", "cur", 1000);
    world_.Deliver("dora", "new", 200);
    world_.Deliver("dora", ".Sent/cur", 30);
    world_.folder().Write("spool/local/dora/.Sent/index.cache", std::string(4000, 'i'));
    world_.folder().Write("spool/local/dora/subscriptions", "Sent\n");
    world_.Give("dora", 3000001);
    world_.Deliver("emil", "new", 2048);
    world_.Give("emil", 3000002);
  }

  Outcome NoOwner(std::vector<std::string> arguments, const std::string& input = "") const {
    arguments.insert(arguments.begin(), "no-owner");
    return world_.Quillonctl(arguments, input);
  }

  Outcome NoOwnerOnTerminal(std::vector<std::string> arguments, const std::string& typed = "",
                            const std::function<void()>& when_asked = nullptr) const {
    arguments.insert(arguments.begin(), "no-owner");
    if (when_asked) {
      return Converse(world_.CommandLine(arguments), {{"? [y/N] ", typed, when_asked}});
    }
    return RunOnTerminal(world_.CommandLine(arguments), {}, typed);
  }

  bool Exists(const std::string& account) const {
    return std::filesystem::exists(world_.Maildir(account));
  }

  // The bytes of all regular files.
  unsigned long long Sum(const std::string& account) const {
    return std::stoull(
        test::Run({"sh", "-c",
                   "find \"$1\" -type f -printf '%s\\n' | awk '{sum += $1} END {print "
                   "sum}'",
                   "sh", world_.Maildir(account)})
            .output);
  }

  std::string Log() const { return world_.folder().Read("mail.log"); }

  World world_;
  Descendants background_;
};

TEST_F(NoOwnerTest, ListsWhatIsNotCountedYetAndCountsIt) {
  Outcome outcome = NoOwner({"list"});
  EXPECT_EQ(outcome.exit_code, 0);
  EXPECT_EQ(outcome.output,
            "    UID  NAME  USAGE\n"
            "3000001  dora      -\n"
            "3000002  emil      -\n"
            "2 ownerless mail directories, 0B counted so far\n"
            "Those without a usage are being counted now: ask again in a while.\n");
  EXPECT_EQ(outcome.error, "");
  background_.Wait();

  outcome = NoOwner({"list"});
  EXPECT_EQ(outcome.output,
            "    UID  NAME  USAGE\n"
            "3000001  dora   5.1K\n"
            "3000002  emil     2K\n"
            "2 ownerless mail directories, 7.1K\n");
}

TEST_F(NoOwnerTest, RefreshWaitsForSizesThatAreThoseOnDisk) {
  const Outcome outcome = NoOwner({"refresh", "--wait"});
  EXPECT_EQ(outcome.exit_code, 0);
  EXPECT_EQ(outcome.output, "2 ownerless mail directories counted\n");
  EXPECT_EQ(outcome.error, "");
  const Json::Value list = world_.QuillonctlJson({"no-owner", "list"})["no_owner_list"];
  ASSERT_EQ(list.size(), 2U);
  EXPECT_EQ(list[0]["usage"].asUInt64(), 5235U);
  EXPECT_EQ(list[0]["usage"].asUInt64(), Sum("dora"));
  EXPECT_EQ(list[1]["usage"].asUInt64(), Sum("emil"));
  EXPECT_TRUE(list[0]["counted"].asBool());
}

TEST_F(NoOwnerTest, RefreshWithoutWaitingReturnsAtOnce) {
  const Outcome outcome = NoOwner({"refresh"});
  EXPECT_EQ(outcome.exit_code, 0);
  EXPECT_EQ(outcome.output, "2 ownerless mail directories being counted in the background\n");
  background_.Wait();
  EXPECT_THAT(NoOwner({"list"}).output, HasSubstr("3000001  dora   5.1K\n"));
}

TEST_F(NoOwnerTest, RefreshCountsAnew) {
  EXPECT_EQ(NoOwner({"refresh", "--wait"}).error, "");
  world_.Deliver("emil", "cur", 1024);
  world_.Give("emil", 3000002);
  EXPECT_THAT(NoOwner({"list"}).output, HasSubstr("3000002  emil     2K\n"));
  EXPECT_EQ(NoOwner({"refresh", "--wait"}).error, "");
  EXPECT_THAT(NoOwner({"list"}).output, HasSubstr("3000002  emil     3K\n"));
}

TEST_F(NoOwnerTest, RefreshShowsThatItWaitsOnATerminal) {
  EXPECT_EQ(NoOwnerOnTerminal({"refresh", "--wait"}).output,
            "\rcounting 2 ownerless mail directories\x1b[K"
            "\r\x1b[K"
            "2 ownerless mail directories counted\r\n");
}

TEST_F(NoOwnerTest, RefreshSaysWhenAnotherCountHoldsTheLock) {
  {
    const OtherCount other(world_.folder() / "flock.log");
    Descendants recounts;  // not the other count
    for (const auto& arguments :
         {std::vector<std::string>{"refresh", "--wait"}, std::vector<std::string>{"refresh"}}) {
      const Outcome outcome = NoOwner(arguments);
      EXPECT_EQ(outcome.exit_code, 1);
      EXPECT_EQ(outcome.output, "");
      EXPECT_EQ(outcome.error,
                "quillonctl: nothing was recounted: another usage count is running\n");
    }
    const Outcome json = NoOwner({"refresh", "--wait", "--json"});
    EXPECT_EQ(json.exit_code, 1);
    EXPECT_THAT(json.output, HasSubstr("\"skipped\" : true"));
    recounts.Wait();
    EXPECT_THAT(Log(), HasSubstr(kSkipped));
  }
  EXPECT_THAT(NoOwner({"list"}).output, HasSubstr("3000001  dora      -\n"));
}

TEST_F(NoOwnerTest, RefreshDoesNotWaitForARecountThatHasFailed) {
  const UnsafeLockFolder unsafe;
  const Outcome outcome = NoOwner({"refresh", "--wait"});
  const Outcome json = NoOwner({"refresh", "--wait", "--json"});
  background_.Wait();

  EXPECT_EQ(outcome.exit_code, 1);
  EXPECT_EQ(outcome.output, "");
  EXPECT_EQ(outcome.error,
            "quillonctl: nothing was recounted: the recount was skipped or has failed; the mail "
            "log tells why\n");
  EXPECT_EQ(json.exit_code, 1);
  EXPECT_THAT(json.output, HasSubstr("\"finished\" : false"));
  EXPECT_THAT(Log(),
              AllOf(HasSubstr("may be written to by others than root"), HasSubstr(kSkipped)));
}

TEST_F(NoOwnerTest, RefreshHasNothingToCount) {
  EXPECT_EQ(NoOwner({"remove", "--yes", "3000001", "3000002"}).exit_code, 0);
  const Outcome outcome = NoOwner({"refresh", "--wait"});
  EXPECT_EQ(outcome.exit_code, 0);
  EXPECT_EQ(outcome.output, "0 ownerless mail directories counted\n");
  EXPECT_EQ(NoOwner({"list"}).output,
            "UID  NAME  USAGE\n"
            "0 ownerless mail directories, 0B\n");

  background_.Wait();

  // Nor anything to wait for.
  const UnsafeLockFolder unsafe;
  EXPECT_EQ(NoOwner({"refresh", "--wait"}).exit_code, 0);
  background_.Wait();
}

TEST_F(NoOwnerTest, RefreshPrintsTheDocument) {
  const Json::Value begun = world_.QuillonctlJson({"no-owner", "refresh"});
  EXPECT_EQ(begun["generation"].asUInt(), 0U);
  EXPECT_EQ(begun["maildirs"].asUInt(), 2U);
  EXPECT_FALSE(begun["skipped"].asBool());
  EXPECT_FALSE(begun.isMember("finished"));
  background_.Wait();
  const Json::Value finished = world_.QuillonctlJson({"no-owner", "refresh", "--wait"});
  EXPECT_TRUE(finished["finished"].asBool());
  EXPECT_GT(finished["generation"].asUInt(), 0U);
}

TEST_F(NoOwnerTest, ListsPagesInOrder) {
  world_.Deliver("fred.dora", "cur", 9000);
  world_.Give("fred.dora", 3000003);
  EXPECT_EQ(NoOwner({"refresh", "--wait"}).error, "");
  const auto names = [this](std::vector<std::string> options) {
    options.insert(options.begin(), {"no-owner", "list"});
    std::string text;
    const Json::Value data = world_.QuillonctlJson(options);
    for (const Json::Value& entry : data["no_owner_list"]) {
      text += entry["name"].asString() + " ";
    }
    return text;
  };
  EXPECT_EQ(names({}), "dora emil fred.dora ");
  EXPECT_EQ(names({"--desc"}), "fred.dora emil dora ");
  EXPECT_EQ(names({"--sort", "usage"}), "emil dora fred.dora ");
  EXPECT_EQ(names({"--sort", "usage", "--desc"}), "fred.dora dora emil ");
  EXPECT_EQ(names({"--match", "DORA"}), "dora fred.dora ");
  EXPECT_EQ(names({"--match", ""}), "dora emil fred.dora ");
  EXPECT_EQ(names({"--offset", "1"}), "emil fred.dora ");
  EXPECT_EQ(names({"--offset", "18446744073709551615"}), "");
  EXPECT_EQ(names({"--limit", "9223372036854775807", "--offset", "2"}), "fred.dora ");
  EXPECT_EQ(NoOwner({"list", "--match", "dora", "--offset", "1", "--limit", "1"}).output,
            "    UID  NAME       USAGE\n"
            "3000003  fred.dora   8.8K\n"
            "1 of 2 ownerless mail directories, 8.8K\n");
}

// Who has left need not have been a friend.
TEST_F(NoOwnerTest, ShowsNamesThatAreMeantToHarmATerminalAsText) {
  world_.Deliver("ev\x1b[2Jil", "cur", 5);
  world_.Give("ev\x1b[2Jil", 3000003);
  EXPECT_THAT(NoOwner({"list"}).output, HasSubstr("ev\\x1b[2Jil"));
  const Outcome outcome = NoOwnerOnTerminal({"remove", "--yes", "3000003"});
  EXPECT_THAT(outcome.output, AllOf(HasSubstr("ev\\x1b[2Jil"), HasSubstr("local/ev\\x1b[2Jil"),
                                    Not(HasSubstr("\x1b[2J"))));
  EXPECT_FALSE(Exists("ev\x1b[2Jil"));
}

TEST_F(NoOwnerTest, FailsWithoutAMaildirRoot) {
  const std::string root = world_.folder() / "spool";
  std::filesystem::rename(root, root + ".away");
  const Outcome outcome = NoOwner({"list"});
  EXPECT_EQ(outcome.exit_code, 1);
  EXPECT_EQ(outcome.output, "");
  EXPECT_EQ(outcome.error,
            "quillonctl: " + root + " (maildir.root): No such file or directory (error 1003)\n");
}

class RemoveOwnerlessTest : public NoOwnerTest {
 protected:
  // What is shown before anything is removed.
  std::string Preview() const {
    const std::string gap(world_.Maildir("dora").size() - 4, ' ');
    return "    UID  NAME  PATH" + gap + "  SIZE  MESSAGES\n" + "3000001  dora  " +
           world_.Maildir("dora") + "  5.1K         3\n" + "3000002  emil  " +
           world_.Maildir("emil") + "    2K         1\n" +
           "2 ownerless mail directories, 7.1K in 4 messages\n";
  }
};

TEST_F(RemoveOwnerlessTest, RemovesForGoodAndTouchesNothingElse) {
  const std::string alice = world_.Image("alice");
  const std::string emil = world_.Image("emil");
  ASSERT_THAT(alice, HasSubstr("./.Sent/cur/2.M1P1.host"));
  EXPECT_EQ(NoOwner({"refresh", "--wait"}).error, "");

  const Outcome outcome = NoOwner({"remove", "--yes", "3000001"});

  EXPECT_EQ(outcome.exit_code, 0);
  EXPECT_THAT(outcome.output, EndsWith("1 ownerless mail directory, 5.1K in 3 messages\n"
                                       "1 ownerless mail directory removed, 5.1K in 3 messages\n"));
  EXPECT_EQ(outcome.error, "");
  EXPECT_FALSE(Exists("dora"));
  EXPECT_EQ(world_.Image("alice"), alice);
  EXPECT_EQ(world_.Image("emil"), emil);
  EXPECT_EQ(NoOwner({"list"}).output,
            "    UID  NAME  USAGE\n"
            "3000002  emil     2K\n"
            "1 ownerless mail directory, 2K\n");
}

TEST_F(RemoveOwnerlessTest, ADryRunChangesNothing) {
  const std::string dora = world_.Image("dora");
  const Outcome outcome = NoOwner({"remove", "--dry-run", "3000001", "3000002"});
  EXPECT_EQ(outcome.exit_code, 0);
  EXPECT_EQ(outcome.output, Preview());
  EXPECT_EQ(outcome.error, "");
  NoOwner({"remove", "--dry-run", "--yes", "3000001", "3000002"});
  EXPECT_EQ(world_.Image("dora"), dora);
  EXPECT_TRUE(Exists("emil"));
}

TEST_F(RemoveOwnerlessTest, AsksOnATerminal) {
  for (const std::string agreement : {"y\n", "YES\n"}) {
    const Outcome outcome =
        NoOwnerOnTerminal({"remove", agreement == "y\n" ? "3000001" : "3000002"}, agreement);
    EXPECT_EQ(outcome.exit_code, 0);
    EXPECT_THAT(outcome.output, HasSubstr("1 ownerless mail directory removed, "));
  }
  EXPECT_FALSE(Exists("dora"));
  EXPECT_FALSE(Exists("emil"));
}

TEST_F(RemoveOwnerlessTest, TakesEverythingElseForNo) {
  for (const std::string answer : {"n\n", "\n", "yy\n", "yes please\n", "\x04"}) {
    const Outcome outcome = NoOwnerOnTerminal({"remove", "3000002", "3000001"}, answer);
    EXPECT_EQ(outcome.exit_code, 1);
    EXPECT_THAT(
        outcome.output,
        AllOf(HasSubstr(AsOnTerminal(Preview() +
                                     "Remove these 2 directories with 7.1K for good? [y/N] ")),
              EndsWith("quillonctl: nothing was removed\r\n"), Not(HasSubstr(" removed, "))))
        << answer;
  }
  EXPECT_THAT(NoOwnerOnTerminal({"remove", "3000001"}, "n\n").output,
              HasSubstr("Remove this directory with 5.1K for good? [y/N] "));
  EXPECT_THAT(NoOwnerOnTerminal({"remove", "3000001"}, "\x04").output,
              EndsWith("[y/N] \r\nquillonctl: nothing was removed\r\n"));
  EXPECT_TRUE(Exists("dora"));
  EXPECT_TRUE(Exists("emil"));
}

TEST_F(RemoveOwnerlessTest, SaysWhatHasChangedSinceItWasShown) {
  const Outcome outcome = NoOwnerOnTerminal({"remove", "3000001", "3000002"}, "y\n",
                                            [this] { world_.AddAccount("dora", 3000001); });
  EXPECT_EQ(outcome.exit_code, 1);
  EXPECT_THAT(outcome.output,
              EndsWith("1 ownerless mail directory removed, 2K in 1 message\r\n"
                       "quillonctl: not removed, it has changed since it was shown: " +
                       world_.Maildir("dora") + "\r\n"));
  EXPECT_TRUE(Exists("dora"));
  EXPECT_FALSE(Exists("emil"));
}

TEST_F(RemoveOwnerlessTest, NeedsAgreementWhereItCannotAsk) {
  const auto expect_refusal = [this](const Outcome& outcome, const std::string& text) {
    EXPECT_EQ(outcome.exit_code, 2);
    EXPECT_THAT(text, HasSubstr("quillonctl: --yes is required where nobody can be asked"));
    EXPECT_TRUE(Exists("dora"));
  };
  Outcome outcome = NoOwner({"remove", "3000001"}, "y\n");
  expect_refusal(outcome, outcome.error);
  EXPECT_EQ(outcome.output, "");
  outcome = NoOwner({"remove", "-"}, "3000001\ny\n");
  expect_refusal(outcome, outcome.error);
  outcome = NoOwnerOnTerminal({"remove", "--json", "3000001"}, "y\n");
  expect_refusal(outcome, outcome.output);
  outcome = NoOwnerOnTerminal({"remove", "-"}, "3000001\n\x04y\n");
  expect_refusal(outcome, outcome.output);
}

TEST_F(RemoveOwnerlessTest, ReadsUidsFromStandardInput) {
  const Outcome outcome = NoOwner({"remove", "--yes", "-"}, "3000001\n\n3000002");
  EXPECT_EQ(outcome.exit_code, 0);
  EXPECT_THAT(outcome.output, HasSubstr("\n2 ownerless mail directories removed, 7.1K in 4 "));
  EXPECT_FALSE(Exists("dora"));
  EXPECT_FALSE(Exists("emil"));
}

TEST_F(RemoveOwnerlessTest, GoesByNoUidWhenOneIsNone) {
  const Outcome outcome = NoOwner({"remove", "--yes", "-"}, "3000001\ndora\n");
  EXPECT_EQ(outcome.exit_code, 2);
  EXPECT_THAT(outcome.error, StartsWith("quillonctl: UID: [dora] is not a whole number"));
  EXPECT_TRUE(Exists("dora"));
}

TEST_F(RemoveOwnerlessTest, NamesUnknownUidsAndRemovesTheOthers) {
  Outcome outcome = NoOwner({"remove", "--yes", "3000009", "3000002", "1001", "3000009"});
  EXPECT_EQ(outcome.exit_code, 1);
  EXPECT_EQ(outcome.error, "quillonctl: no ownerless mail directory of uid 3000009, 1001\n");
  EXPECT_THAT(outcome.output, HasSubstr("1 ownerless mail directory removed, 2K in 1 message\n"));
  EXPECT_FALSE(Exists("emil"));
  EXPECT_TRUE(Exists("alice"));

  outcome = NoOwner({"remove", "--dry-run", "3000001", "3000002"});
  EXPECT_EQ(outcome.exit_code, 1);
  EXPECT_EQ(outcome.error, "quillonctl: no ownerless mail directory of uid 3000002\n");
  EXPECT_THAT(outcome.output, HasSubstr("1 ownerless mail directory, 5.1K in 3 messages\n"));

  outcome = NoOwner({"remove", "--yes", "--json", "3000002"});
  EXPECT_EQ(outcome.exit_code, 1);
  EXPECT_EQ(outcome.error, "quillonctl: no ownerless mail directory of uid 3000002\n");
  EXPECT_THAT(outcome.output, HasSubstr("\"unknown\" : \n"));

  outcome = NoOwnerOnTerminal({"remove", "3000002"});
  EXPECT_EQ(outcome.exit_code, 1);
  EXPECT_EQ(outcome.output, "quillonctl: no ownerless mail directory of uid 3000002\r\n");
}

TEST_F(RemoveOwnerlessTest, ReportsWhatIsLeft) {
  const std::string file = world_.Maildir("dora") + "/.Sent/index.cache";
  const Immutable immutable(file);
  if (!immutable.IsSet()) {
    GTEST_SKIP() << "the file system has no immutable files";
  }
  const Outcome outcome = NoOwner({"remove", "--yes", "3000001", "3000002"});
  const Outcome json = NoOwner({"remove", "--yes", "--json", "3000001"});

  EXPECT_EQ(outcome.exit_code, 1);
  EXPECT_THAT(outcome.output, AllOf(HasSubstr("\n1 ownerless mail directory removed, 2K in 1 "),
                                    EndsWith("\n3000001  dora  " + world_.Maildir("dora") +
                                             "  3.9K         0\n"
                                             "1 ownerless mail directory, 3.9K in 0 messages\n")));
  EXPECT_EQ(outcome.error, "quillonctl: 1 ownerless mail directory left; the mail log tells why\n");
  EXPECT_THAT(Log(), HasSubstr(file));
  EXPECT_EQ(json.exit_code, 1);
  EXPECT_THAT(json.output, HasSubstr("\"usage\" : 4000"));
}

TEST_F(RemoveOwnerlessTest, PrintsTheDocument) {
  const Json::Value preview = world_.QuillonctlJson({"no-owner", "remove", "--dry-run", "3000001"});
  ASSERT_EQ(preview["maildirs"].size(), 1U);
  EXPECT_EQ(preview["maildirs"][0]["uid"].asUInt(), 3000001U);
  EXPECT_EQ(preview["maildirs"][0]["name"].asString(), "dora");
  EXPECT_EQ(preview["maildirs"][0]["path"].asString(), world_.Maildir("dora"));
  EXPECT_EQ(preview["maildirs"][0]["usage"].asUInt64(), Sum("dora"));
  EXPECT_EQ(preview["maildirs"][0]["messages"].asUInt(), 3U);
  EXPECT_TRUE(Exists("dora"));

  const Json::Value data = world_.QuillonctlJson({"no-owner", "remove", "--yes", "3000001"});
  EXPECT_EQ(data["removed"], preview["maildirs"]);
  EXPECT_EQ(data["left"], Json::Value(Json::arrayValue));
  EXPECT_FALSE(Exists("dora"));
}

}  // namespace
}  // namespace quillon::test
