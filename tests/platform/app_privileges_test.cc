#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <quillon/platform/app_privileges.h>
#include <quillon/platform/configuration.h>
#include <vela/app_privilege.h>
#include <velamailserver/log_exception.h>

#include "support/as_nobody.h"
#include "support/own_process.h"
#include "support/temporary_folder.h"
#include "utils/indexed_file.h"

namespace quillon::platform {

static void PrintTo(const RevokedPrivilege& privilege, std::ostream* out) {
  *out << privilege.app << ":" << privilege.user;
}

namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;
using velamailserver::ErrorCode;
using velamailserver::LogException;
namespace fs = std::filesystem;

const std::string kMail = "VELA.WUI.MailClient.Application";

class AppPrivileges : public testing::Test {
 protected:
  AppPrivileges() {
    configuration_.accounts.privileges_file = path_;
    configuration_.log = {"file", folder_ / "log"};
    UseConfiguration(configuration_);
  }

  // As an administrator does with an editor, more than a moment before anybody asks.
  void Write(const std::string& text) const {
    folder_.Write("draft", text);
    fs::rename(folder_ / "draft", path_);
    std::this_thread::sleep_for(std::chrono::milliseconds(60));
  }
  std::string Read() const { return folder_.Read("privileges"); }

  static bool Has(const std::string& user, const std::string& app = kMail) {
    const int answer = VLIBAppPrivUserHas(user.c_str(), app.c_str(), "ignore");
    EXPECT_TRUE(answer == 0 || answer == 1) << answer;
    return answer == 1;
  }

  template <typename Work>
  static LogException FailureOf(const Work& work) {
    try {
      work();
    } catch (const LogException& error) {
      return error;
    }
    ADD_FAILURE() << "it succeeded";
    return {velamailserver::ERR_INTERNAL, "", 3, "", 0};
  }

  // Nobody may use anything, and every operation says what is the matter.
  void ExpectUnusable(const std::string& problem) const {
    EXPECT_FALSE(Has("alice"));
    EXPECT_FALSE(Has("alice", "Other"));
    for (const auto& failure : {FailureOf([] { ListRevokedPrivileges(); }),
                                FailureOf([] { GrantPrivilege({"alice"}, kMail); }),
                                FailureOf([] { RevokePrivilege({"alice"}, kMail); })}) {
      EXPECT_EQ(failure.code(), velamailserver::ERR_OPEN_FILE);
      EXPECT_EQ(failure.what(), path_ + ": " + problem);
    }
  }

  std::string Log() const { return fs::exists(folder_ / "log") ? folder_.Read("log") : ""; }

  test::TemporaryFolder folder_;
  std::string path_ = folder_ / "privileges";
  Configuration configuration_;
};

TEST_F(AppPrivileges, AreEverybodysWithoutAFile) {
  EXPECT_TRUE(Has("alice"));
  EXPECT_TRUE(Has("alice", "Other"));
  EXPECT_THAT(ListRevokedPrivileges(), IsEmpty());
  GrantPrivilege({"alice"}, kMail);
  EXPECT_FALSE(fs::exists(path_)) << "nothing has changed";
  EXPECT_EQ(Log(), "");
}

TEST_F(AppPrivileges, AreTakenAwayPerUserAndApplication) {
  RevokePrivilege({"alice", "Bob"}, kMail);
  RevokePrivilege({"alice"}, "Other_app-2");
  EXPECT_FALSE(Has("alice"));
  EXPECT_FALSE(Has("Bob"));
  EXPECT_TRUE(Has("carol"));
  EXPECT_FALSE(Has("alice", "Other_app-2"));
  EXPECT_TRUE(Has("Bob", "Other_app-2"));
  EXPECT_TRUE(Has("alice", "other_app-2")) << "applications are named exactly";
  EXPECT_EQ(Read(), kMail + ":alice\n" + kMail + ":Bob\nOther_app-2:alice\n");

  GrantPrivilege({"alice", "carol"}, kMail);
  EXPECT_TRUE(Has("alice"));
  EXPECT_FALSE(Has("Bob"));
  EXPECT_FALSE(Has("alice", "Other_app-2"));
  EXPECT_EQ(Read(), kMail + ":Bob\nOther_app-2:alice\n");
}

TEST_F(AppPrivileges, AreOfUsersInAnyLetterCase) {
  RevokePrivilege({"Alice"}, kMail);
  EXPECT_FALSE(Has("alice"));
  EXPECT_FALSE(Has("ALICE"));
  RevokePrivilege({"aLICE", "bob", "BOB"}, kMail);
  EXPECT_EQ(Read(), kMail + ":Alice\n" + kMail + ":bob\n");

  Write(kMail + ":alice\n" + kMail + ":ALICE\n");
  GrantPrivilege({"Alice"}, kMail);
  EXPECT_TRUE(Has("alice"));
  EXPECT_EQ(Read(), "");
}

TEST_F(AppPrivileges, AreListedByApplicationAndThenByUser) {
  Write("B:bob\nB:alice\nA:zoe\nB:Bob\nA:adam\n");
  EXPECT_THAT(ListRevokedPrivileges(),
              ElementsAre(RevokedPrivilege{"adam", "A"}, RevokedPrivilege{"zoe", "A"},
                          RevokedPrivilege{"alice", "B"}, RevokedPrivilege{"bob", "B"}));
}

TEST_F(AppPrivileges, KeepWhatPeopleWriteBesideThem) {
  Write("# who left\n\n" + kMail + ":alice\n  \n#" + kMail + ":carol\n" + kMail + ":bob");
  EXPECT_TRUE(Has("carol"));
  EXPECT_FALSE(Has("bob"));
  GrantPrivilege({"alice"}, kMail);
  RevokePrivilege({"dave"}, kMail);
  EXPECT_EQ(Read(),
            "# who left\n\n  \n#" + kMail + ":carol\n" + kMail + ":bob\n" + kMail + ":dave\n");
}

TEST_F(AppPrivileges, StayAsTheyAreWhenNothingChanges) {
  Write("#\n" + kMail + ":alice\n");
  struct stat before {};
  struct stat after {};
  ASSERT_EQ(::stat(path_.c_str(), &before), 0);
  RevokePrivilege({"ALICE"}, kMail);
  GrantPrivilege({"bob"}, kMail);
  RevokePrivilege({}, kMail);
  ASSERT_EQ(::stat(path_.c_str(), &after), 0);
  EXPECT_EQ(before.st_ino, after.st_ino);
}

TEST_F(AppPrivileges, AreInAFileThatOnlyRootMayChange) {
  const mode_t umask = ::umask(0);
  RevokePrivilege({"alice"}, kMail);
  ::umask(umask);
  struct stat status {};
  ASSERT_EQ(::stat(path_.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777U, 0644U);

  fs::permissions(path_, fs::perms(0600));
  RevokePrivilege({"bob"}, kMail);
  ASSERT_EQ(::stat(path_.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777U, 0600U);
}

TEST_F(AppPrivileges, FollowAChangeOfThisProcessAtOnceAndOfOthersSoon) {
  for (int i = 0; i < 20; ++i) {
    RevokePrivilege({"alice"}, kMail);
    EXPECT_FALSE(Has("alice"));
    GrantPrivilege({"alice"}, kMail);
    EXPECT_TRUE(Has("alice"));
  }
  test::InOwnProcess([] { RevokePrivilege({"alice"}, kMail); });
  EXPECT_THAT(ListRevokedPrivileges(), ElementsAre(RevokedPrivilege{"alice", kMail}));
  std::this_thread::sleep_for(std::chrono::milliseconds(60));
  EXPECT_FALSE(Has("alice"));
  fs::remove(path_);
  std::this_thread::sleep_for(std::chrono::milliseconds(60));
  EXPECT_TRUE(Has("alice"));
}

TEST_F(AppPrivileges, LoseNoChangeOfSeveralProcesses) {
  std::vector<pid_t> children;
  for (int child = 0; child < 4; ++child) {
    const pid_t pid = ::fork();
    if (pid == 0) {
      for (int n = 0; n < 5; ++n) {
        RevokePrivilege({"user" + std::to_string(5 * child + n)}, kMail);
      }
      ::_exit(0);
    }
    children.push_back(pid);
  }
  for (const pid_t child : children) {
    int status = -1;
    ::waitpid(child, &status, 0);
    EXPECT_EQ(status, 0) << Log();
  }
  EXPECT_EQ(ListRevokedPrivileges().size(), 20U);
}

TEST_F(AppPrivileges, AreNobodysWhenALineDoesNotParse) {
  for (const std::string& line : std::vector<std::string>{
           kMail, kMail + ":", ":alice", "a b:alice", " " + kMail + ":alice", kMail + ":alice ",
           kMail + ": alice", kMail + ":alice\r", kMail + ":a:b", kMail + ":al\tice",
           std::string(256, 'a') + ":alice", std::string("\xef\xbb\xbf") + kMail + ":alice"}) {
    Write("# one\nOther:bob\n" + line + "\nnonsense\n");
    ExpectUnusable("line 3 is not \"APP:USER\"");
  }
  EXPECT_FALSE(fs::exists(path_ + ".new"));
}

TEST_F(AppPrivileges, AreNobodysWhenTheFileIsNotRootsAlone) {
  Write(kMail + ":bob\n");
  EXPECT_TRUE(Has("alice"));
  for (const unsigned mode : {0664U, 0646U, 0666U}) {
    ASSERT_EQ(::chmod(path_.c_str(), mode), 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(60));
    ExpectUnusable("others than root may write to it, it is not used");
  }
  ASSERT_EQ(::chmod(path_.c_str(), 0644), 0);
  ASSERT_EQ(::chown(path_.c_str(), test::AsNobody::kUid, 0), 0);
  std::this_thread::sleep_for(std::chrono::milliseconds(60));
  ExpectUnusable("does not belong to root, it is not used");
  ASSERT_EQ(::chown(path_.c_str(), 0, 0), 0);
  std::this_thread::sleep_for(std::chrono::milliseconds(60));
  EXPECT_TRUE(Has("alice"));
}

TEST_F(AppPrivileges, AreNobodysWhenTheFileIsNone) {
  fs::create_directory(path_);
  ExpectUnusable("Is a directory");
  fs::remove(path_);
  ASSERT_EQ(::mkfifo(path_.c_str(), 0600), 0);
  ExpectUnusable("is not a regular file");
  fs::remove(path_);
  fs::create_symlink(folder_.Write("elsewhere", ""), path_);
  ExpectUnusable("is a link");
  fs::remove(path_);
  folder_.Write("privileges", "");
  fs::resize_file(path_, 1ULL << 36U);
  ExpectUnusable("is larger than 16384 KiB");
}

TEST_F(AppPrivileges, AreNobodysForWhoMayNotReadTheFile) {
  Write(kMail + ":bob\n");
  fs::permissions(path_, fs::perms(0600));
  fs::permissions(folder_.path(), fs::perms(0755));
  std::this_thread::sleep_for(std::chrono::milliseconds(60));
  {
    const test::AsNobody nobody;
    EXPECT_FALSE(Has("alice"));
  }
  EXPECT_TRUE(Has("alice")) << "at once for who may";
}

// A report asks for thousands of users in a row.
TEST_F(AppPrivileges, AreNotReadForEveryUserFromAFileThatCannotBeUsed) {
  using Clock = std::chrono::steady_clock;
  std::string text;
  for (int i = 0; i < 10'000; ++i) {
    text += kMail + ":user" + std::to_string(i) + "\n";
  }
  Write(text + "nonsense\n");
  auto begin = Clock::now();
  EXPECT_FALSE(Has("alice"));
  const auto once = Clock::now() - begin;
  begin = Clock::now();
  for (int i = 0; i < 1000; ++i) {
    EXPECT_FALSE(Has("alice"));
  }
  EXPECT_LT(Clock::now() - begin, 200 * once);
}

int slow_readings = 0;

IndexedFile<int>::Reading FailSlowly(const std::string&) {
  ++slow_readings;
  std::this_thread::sleep_for(std::chrono::milliseconds(80));
  throw std::runtime_error("not an index");
}

TEST_F(AppPrivileges, AreNotReadForEveryUserFromAFileThatTakesLongToFail) {
  Write("nonsense\n");
  IndexedFile<int> file(
      [](const Configuration::Accounts& settings) -> const std::string& {
        return settings.privileges_file;
      },
      FailSlowly);
  for (int i = 0; i < 3; ++i) {
    EXPECT_THROW(file.Get(IndexedFile<int>::kRecent), std::runtime_error);
  }
  EXPECT_LT(slow_readings, 3);
}

TEST_F(AppPrivileges, AreReadByEverybodyAndChangedByRoot) {
  Write(kMail + ":bob\n");
  fs::permissions(folder_.path(), fs::perms(0755));
  const test::AsNobody nobody;
  EXPECT_TRUE(Has("alice"));
  EXPECT_FALSE(Has("bob"));
  EXPECT_EQ(FailureOf([] { RevokePrivilege({"alice"}, kMail); }).code(),
            velamailserver::ERR_OPEN_FILE);
  EXPECT_TRUE(Has("alice"));
}

// In processes of their own, because what was logged is not logged again for a minute.
TEST_F(AppPrivileges, HaveTheReasonAgainstThemLoggedOnce) {
  test::InOwnProcess([&] {
    Write("nonsense\n");
    for (int i = 0; i < 1000; ++i) {
      EXPECT_FALSE(Has("alice"));
    }
    const std::string log = Log();
    EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 1) << log;
    EXPECT_THAT(log, AllOf(HasSubstr("nobody may: " + path_ + ": line 1 is not \"APP:USER\""),
                           HasSubstr("platform/linux/accounts/app_privileges:")));
    Write("# fine\nnonsense\n");
    EXPECT_FALSE(Has("alice"));
    EXPECT_THAT(Log(), HasSubstr(path_ + ": line 2 is not"));
  });
}

TEST_F(AppPrivileges, AreOfNoNullName) {
  EXPECT_EQ(VLIBAppPrivUserHas(nullptr, kMail.c_str(), "ignore"), 0);
  EXPECT_EQ(VLIBAppPrivUserHas("alice", nullptr, "ignore"), 0);
  EXPECT_EQ(VLIBAppPrivUserHas("alice", kMail.c_str(), nullptr), 1);
}

TEST_F(AppPrivileges, AreNotOfNamesThatTheFileCannotHold) {
  for (const std::string& app :
       {std::string(), std::string("a b"), std::string("a:b"), std::string("#a"),
        std::string("a\n"), std::string("a/b"), std::string(256, 'a')}) {
    for (const auto& failure : {FailureOf([&] { RevokePrivilege({"alice"}, app); }),
                                FailureOf([&] { GrantPrivilege({"alice"}, app); })}) {
      EXPECT_EQ(failure.code(), velamailserver::ERR_INTERNAL) << app;
      EXPECT_EQ(failure.what(), "[" + app + "] cannot be the name of an application");
    }
  }
  for (const std::string& user : {std::string(), std::string("a:b"), std::string("a\nb"),
                                  std::string(" a"), std::string("a ")}) {
    const auto failure = FailureOf([&] { RevokePrivilege({"alice", user}, kMail); });
    EXPECT_EQ(failure.code(), velamailserver::ERR_INTERNAL) << user;
    EXPECT_EQ(failure.what(), "[" + user + "] cannot be the name of a user");
  }
  const std::string with_nul("a\0b", 3);
  EXPECT_EQ(FailureOf([&] { RevokePrivilege({with_nul}, kMail); }).code(),
            velamailserver::ERR_INTERNAL);
  EXPECT_FALSE(fs::exists(path_));
  RevokePrivilege({"zo\xc3\xab b"}, std::string(255, 'a'));
  EXPECT_FALSE(Has("zo\xc3\xab b", std::string(255, 'a')));
}

TEST_F(AppPrivileges, FollowTheConfiguration) {
  RevokePrivilege({"alice"}, kMail);
  EXPECT_FALSE(Has("alice"));
  configuration_.accounts.privileges_file = folder_ / "other";
  UseConfiguration(configuration_);
  EXPECT_TRUE(Has("alice"));
}

TEST_F(AppPrivileges, AreKnownToSeveralThreads) {
  RevokePrivilege({"alice"}, kMail);
  std::vector<std::thread> readers;
  for (int i = 0; i < 4; ++i) {
    readers.emplace_back([] {
      for (int n = 0; n < 2000; ++n) {
        EXPECT_FALSE(Has("alice"));
      }
    });
  }
  for (int n = 0; n < 20; ++n) {
    RevokePrivilege({"bob"}, kMail);
    GrantPrivilege({"bob"}, kMail);
  }
  for (std::thread& reader : readers) {
    reader.join();
  }
}

}  // namespace
}  // namespace quillon::platform
