#include "maildir/maildir.h"

#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <utility>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <quillon/platform/configuration.h>
#include <velamailserver/account/maildir.h>
#include <velamailserver/log_exception.h>

#include "support/as_nobody.h"
#include "support/temporary_folder.h"

namespace quillon::platform {
namespace {

using velamailserver::LogException;
using velamailserver::account::Maildir;
namespace fs = std::filesystem;

void MakeMaildir(const std::string& path) {
  for (const char* name : {"/cur", "/new", "/tmp"}) {
    fs::create_directories(path + name);
  }
}

class MaildirLookup : public testing::Test {
 protected:
  MaildirLookup() {
    configuration_.accounts.passwd_file =
        folder_.Write("passwd",
                      "alice:x:2001:2000::/:\n"
                      "Bob Smith:x:2002:2000::/:\n"
                      "..:x:2003:2000::/:\n"
                      ".:x:2004:2000::/:\n"
                      "../alice:x:2005:2000::/:\n"
                      "alice/cur:x:2006:2000::/:\n" +
                          std::string(300, 'x') + ":x:2007:2000::/:\n");
    configuration_.maildir.root = folder_ / "spool";
    configuration_.maildir.domain = "example.org";
    configuration_.log = {"file", folder_ / "mail.log"};
    UseConfiguration(configuration_);
  }

  // What looking for alice's directory fails with.
  static std::string Failure() {
    try {
      static_cast<void>(OpenMaildir("alice"));
    } catch (const LogException& error) {
      EXPECT_EQ(error.code(), velamailserver::ERR_LSTAT_FILE);
      return error.what();
    }
    return "no failure";
  }

  test::TemporaryFolder folder_;
  Configuration configuration_;
  std::string domain_ = folder_ / "spool/example.org";
  std::string alice_ = domain_ + "/alice";
};

TEST_F(MaildirLookup, FindsADirectory) {
  MakeMaildir(alice_);
  MakeMaildir(domain_ + "/Bob Smith");

  const Maildir alice(2001);
  EXPECT_EQ(alice.uid, 2001U);
  EXPECT_EQ(alice.path, alice_);
  EXPECT_TRUE(alice.flag);
  EXPECT_EQ(alice.account, "alice");
  EXPECT_EQ(Maildir(2002).account, "Bob Smith");
  EXPECT_EQ(Maildir(2002).path, domain_ + "/Bob Smith");
  EXPECT_TRUE(Maildir(2002).flag);
}

TEST_F(MaildirLookup, FindsADirectoryWhoseRootIsReachedThroughALink) {
  MakeMaildir(alice_);
  fs::create_symlink(folder_ / "spool", folder_ / "link");
  configuration_.maildir.root = folder_ / "link/";
  UseConfiguration(configuration_);

  EXPECT_TRUE(Maildir(2001).flag);
  EXPECT_EQ(Maildir(2001).path, alice_);
}

TEST_F(MaildirLookup, FindsNothingWhereNothingIs) {
  for (const std::string& present : {folder_ / "spool", domain_}) {
    fs::create_directories(present);
    const Maildir alice(2001);
    EXPECT_FALSE(alice.flag);
    EXPECT_EQ(alice.uid, 2001U);
    EXPECT_EQ(alice.path, alice_);
    EXPECT_EQ(alice.account, "alice");
  }
}

TEST_F(MaildirLookup, NeedsTheThreeFolders) {
  MakeMaildir(alice_);
  std::ofstream(alice_ + "/index").close();
  for (const char* missing : {"/cur", "/new", "/tmp"}) {
    MakeMaildir(alice_);
    fs::remove(alice_ + missing);
    EXPECT_FALSE(Maildir(2001).flag) << missing;
    std::ofstream(alice_ + missing).close();
    EXPECT_FALSE(Maildir(2001).flag) << missing;
    fs::remove(alice_ + missing);
    fs::create_directory_symlink("/tmp", alice_ + missing);
    EXPECT_FALSE(Maildir(2001).flag) << missing;
    fs::remove(alice_ + missing);
  }
  MakeMaildir(alice_);
  EXPECT_TRUE(Maildir(2001).flag);
}

TEST_F(MaildirLookup, FindsWhatARemovalThatWasCutShortHasLeft) {
  MakeMaildir(alice_);
  for (const char* next : {"/tmp", "/new", "/cur"}) {
    fs::remove(alice_ + next);
    EXPECT_TRUE(Maildir(2001).flag) << next;
  }
}

TEST_F(MaildirLookup, FollowsNoLinkBelowTheRoot) {
  MakeMaildir(folder_ / "elsewhere/alice");
  fs::create_directories(domain_);
  fs::create_directory_symlink(folder_ / "elsewhere/alice", alice_);
  EXPECT_FALSE(Maildir(2001).flag);

  fs::remove_all(domain_);
  fs::create_directory_symlink(folder_ / "elsewhere", domain_);
  EXPECT_EQ(Failure(), domain_ + " (maildir.domain): Not a directory");
}

TEST_F(MaildirLookup, TakesNoFileForADirectory) {
  fs::create_directories(domain_);
  std::ofstream(alice_).close();
  EXPECT_FALSE(Maildir(2001).flag);

  fs::remove_all(domain_);
  std::ofstream(domain_).close();
  EXPECT_EQ(Failure(), domain_ + " (maildir.domain): Not a directory");
}

TEST_F(MaildirLookup, GoesNowhereForANameThatIsNoFolder) {
  MakeMaildir(alice_);
  MakeMaildir(domain_);                 // where "." leads to
  MakeMaildir(folder_ / "spool");       // where ".." leads to
  MakeMaildir(domain_ + "/alice/cur");  // where "alice/cur" leads to
  for (const unsigned int uid : {2003U, 2004U, 2005U, 2006U}) {
    const Maildir maildir(uid);
    EXPECT_FALSE(maildir.flag) << uid;
    EXPECT_EQ(maildir.path, "") << uid;
  }
  EXPECT_FALSE(Maildir(2007).flag);
  EXPECT_FALSE(OpenMaildir("").IsOpen());
  EXPECT_FALSE(OpenMaildir(std::string("alice\0x", 7)).IsOpen());
}

TEST_F(MaildirLookup, ThrowsForAUidWithoutUser) {
  EXPECT_THROW(Maildir(3999999999U), LogException);
}

TEST_F(MaildirLookup, ThrowsWhenItCannotTell) {
  MakeMaildir(alice_);
  fs::permissions(folder_.path(), fs::perms(0755));
  for (const auto& [closed, hidden] : {std::pair(folder_ / "spool", domain_ + " (maildir.domain)"),
                                       std::pair(domain_, alice_),
                                       {alice_, alice_ + "/cur"}}) {
    fs::permissions(closed, fs::perms(0700));
    {
      const test::AsNobody nobody;
      EXPECT_EQ(Failure(), hidden + ": Permission denied");
    }
    fs::permissions(closed, fs::perms(0755));
  }
}

// Of a disk that is not mounted, for example.
TEST_F(MaildirLookup, ThrowsWithoutTheRoot) {
  const std::string root = folder_ / "spool (maildir.root)";
  EXPECT_EQ(Failure(), root + ": No such file or directory");

  fs::create_directory_symlink(folder_ / "unmounted", folder_ / "spool");
  EXPECT_EQ(Failure(), root + ": No such file or directory");

  fs::remove(folder_ / "spool");
  folder_.Write("spool", "");
  EXPECT_EQ(Failure(), root + ": Not a directory");
}

}  // namespace
}  // namespace quillon::platform
