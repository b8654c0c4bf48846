#include <dirent.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <quillon/platform/configuration.h>
#include <quillon/platform/no_owner_usage.h>
#include <velamailserver/account/no_owner.h>
#include <velamailserver/account/no_owner_maildir.h>
#include <velamailserver/conf/smtp_ext.h>
#include <velamailserver/log_exception.h>

#include "maildir/usage_cache.h"
#include "nss_quillontest.h"
#include "support/as_nobody.h"
#include "support/directory_entries.h"
#include "support/own_mounts.h"
#include "support/own_process.h"
#include "support/temporary_folder.h"

namespace quillon::platform {
namespace {

using testing::AllOf;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Optional;
using testing::UnorderedElementsAre;
using velamailserver::LogException;
using velamailserver::account::BaseMaildir;
using velamailserver::account::Maildir;
using velamailserver::account::NoOwnerMaildir;
namespace fs = std::filesystem;

constexpr uid_t kAlice = 3000000001;
constexpr uid_t kGone = 3000000003;
constexpr char kMessage[] = "cur/1.host:2,S";

class OwnerlessMaildir : public testing::Test {
 protected:
  OwnerlessMaildir() {
    configuration_.accounts.passwd_file = folder_.Write("passwd", "alice:x:3000000001:100::/:\n");
    configuration_.maildir.root = folder_ / "spool";
    configuration_.maildir.usage_cache = folder_ / "cache.db";
    configuration_.log = {"file", folder_ / "mail.log"};
    UseConfiguration(configuration_);
    MakeMaildir(alice_, kAlice);
    MakeMaildir(gone_, kGone);
  }

  // One of a message of 5 bytes.
  static void MakeMaildir(const std::string& path, uid_t owner) {
    for (const char* name : {"cur", "new", "tmp"}) {
      fs::create_directories(fs::path(path) / name);
    }
    test::TemporaryFolder beside;
    beside.Write("message", "12345");
    fs::copy_file(beside / "message", fs::path(path) / kMessage);
    GiveTo(path, owner);
  }

  static void GiveTo(const std::string& path, uid_t owner) {
    ASSERT_EQ(::lchown(path.c_str(), owner, owner), 0) << path;
  }

  // As above, but whatever is there is gone.
  static void Replace(const std::string& path, uid_t owner) {
    fs::remove_all(path);
    MakeMaildir(path, owner);
  }

  static void ReplaceByLink(const std::string& path, const std::string& target) {
    fs::remove_all(path);
    fs::create_directory_symlink(target, path);
    GiveTo(path, kGone);
  }

  static void ExpectNone(const std::string& path) {
    const NoOwnerMaildir maildir(path);
    EXPECT_FALSE(maildir.flag) << path;
    EXPECT_EQ(maildir.path, path);
    EXPECT_EQ(maildir.name, std::nullopt) << path;
    EXPECT_EQ(maildir.usage, std::nullopt) << path;
    EXPECT_EQ(MeasureIfAny(path), std::nullopt) << path;
  }

  static std::optional<unsigned long long> MeasureIfAny(const std::string& path) {
    // Its owner does not matter to it.
    const auto contents = MeasureMaildir(path);
    return contents ? std::optional(contents->bytes) : std::nullopt;
  }

  std::string Log() const {
    return fs::exists(folder_ / "mail.log") ? folder_.Read("mail.log") : "";
  }

  // On a host whose users come from the test's own service alone.
  template <typename Body>
  void WithService(const std::string& services, const Body& body) {
    folder_.Write("nsswitch.conf", "passwd: " + services + "\n");
    test::InOwnMounts([&] {
      test::BindOver("/etc/nsswitch.conf", folder_ / "nsswitch.conf");
      body();
    });
  }

  test::TemporaryFolder folder_;
  Configuration configuration_;
  std::string spool_ = folder_ / "spool";
  std::string alice_ = folder_ / "spool/local/alice";
  std::string gone_ = folder_ / "spool/local/gone";
};

TEST_F(OwnerlessMaildir, IsFound) {
  const NoOwnerMaildir maildir(gone_);
  EXPECT_TRUE(maildir.flag);
  EXPECT_EQ(maildir.uid, kGone);
  EXPECT_EQ(maildir.path, gone_);
  EXPECT_EQ(maildir.account, "");
  EXPECT_EQ(maildir.name, "gone");
  EXPECT_EQ(maildir.usage, std::nullopt);
  EXPECT_FALSE(fs::exists(folder_ / "cache.db"));
  EXPECT_EQ(Log(), "");
}

TEST_F(OwnerlessMaildir, IsNamedWithAnotherDomain) {
  MakeMaildir(spool_ + "/example.org/g o\xffne", kGone);
  EXPECT_EQ(NoOwnerMaildir(spool_ + "/example.org/g o\xffne").name, "g o\xffne@example.org");
  configuration_.maildir.domain = "example.org";
  UseConfiguration(configuration_);
  EXPECT_EQ(NoOwnerMaildir(spool_ + "/example.org/g o\xffne").name, "g o\xffne");
  EXPECT_EQ(NoOwnerMaildir(gone_).name, "gone@local");
}

TEST_F(OwnerlessMaildir, IsNobodysOnly) {
  for (const uid_t owner : {uid_t{0}, kAlice}) {
    GiveTo(gone_, owner);
    const NoOwnerMaildir maildir(gone_);
    EXPECT_FALSE(maildir.flag);
    EXPECT_EQ(maildir.name, std::nullopt);
    EXPECT_EQ(maildir.usage, std::nullopt);
    EXPECT_THAT(MeasureIfAny(gone_), Optional(5U));
  }
}

TEST_F(OwnerlessMaildir, LiesTwoLevelsBelowTheRoot) {
  const std::string outside = folder_ / "spool2/local/gone";
  MakeMaildir(outside, kGone);
  MakeMaildir(folder_ / "apool/local/gone", kGone);
  MakeMaildir(spool_, kGone);
  MakeMaildir(spool_ + "/gone", kGone);
  MakeMaildir(gone_ + "/deep", kGone);
  MakeMaildir(folder_ / "gone", kGone);
  fs::current_path(folder_.path());
  for (const std::string& path : {std::string(),
                                  std::string("/"),
                                  std::string("spool/local/gone"),
                                  spool_,
                                  spool_ + "/",
                                  spool_ + "//",
                                  spool_ + "/gone",
                                  spool_ + "/gone/",
                                  gone_ + "/",
                                  gone_ + "/.",
                                  gone_ + "/deep",
                                  outside,
                                  folder_ / "apool/local/gone",
                                  spool_ + "/../spool2/local/gone",
                                  spool_ + "/local/..",
                                  spool_ + "/local/.",
                                  spool_ + "/../gone",
                                  spool_ + "/./gone",
                                  spool_ + "//local/gone",
                                  spool_ + "/local//gone",
                                  "/" + gone_,
                                  spool_ + "/local/../local/gone",
                                  spool_ + "/local/gone/../gone",
                                  spool_ + "2/local/gone",
                                  gone_ + "x",
                                  gone_ + std::string("\0x", 2),
                                  gone_ + "\n",
                                  "\n" + gone_}) {
    ExpectNone(path);
  }
  EXPECT_TRUE(NoOwnerMaildir(gone_).flag);
}

TEST_F(OwnerlessMaildir, HasNoNewlineInItsPath) {
  const std::string strange = spool_ + "/local/gone\nx";
  MakeMaildir(strange, kGone);
  ExpectNone(strange);
  MakeMaildir(spool_ + "/lo\ncal/gone", kGone);
  ExpectNone(spool_ + "/lo\ncal/gone");
}

TEST_F(OwnerlessMaildir, IsARealFolder) {
  fs::remove_all(gone_);
  ExpectNone(gone_);
  folder_.Write("spool/local/gone", "");
  GiveTo(gone_, kGone);
  ExpectNone(gone_);
  ExpectNone(spool_ + "/none/gone");
  ExpectNone(spool_ + "/local/" + std::string(300, 'x'));
  EXPECT_EQ(Log(), "");
}

TEST_F(OwnerlessMaildir, HasNoLinkOnItsWay) {
  MakeMaildir(folder_ / "elsewhere/gone", kGone);
  ReplaceByLink(gone_, folder_ / "elsewhere/gone");
  ExpectNone(gone_);

  Replace(gone_, kGone);
  fs::rename(spool_ + "/local", folder_ / "local");
  ReplaceByLink(spool_ + "/local", folder_ / "local");
  ExpectNone(gone_);

  fs::remove(spool_ + "/local");
  fs::rename(folder_ / "local", spool_ + "/local");
  for (const char* name : {"/cur", "/new", "/tmp"}) {
    Replace(gone_, kGone);
    ReplaceByLink(gone_ + name, folder_ / "elsewhere/gone");
    ExpectNone(gone_);
    fs::remove_all(gone_);
    fs::create_directory(gone_);
    ReplaceByLink(gone_ + name, folder_ / "elsewhere/gone");
    ExpectNone(gone_);
  }
}

TEST_F(OwnerlessMaildir, MayBeReachedThroughALinkToTheRoot) {
  fs::create_directory_symlink(spool_, folder_ / "link");
  for (const char* root : {"link", "link/", "spool/", "./spool//"}) {
    configuration_.maildir.root = folder_.path() / root;
    UseConfiguration(configuration_);
    const std::string path = velamailserver::conf::SmtpExt().MaildirPath();
    EXPECT_EQ(path, spool_);
    EXPECT_TRUE(NoOwnerMaildir(path + "/local/gone").flag);
    ExpectNone(folder_ / "link/local/gone");
  }
  configuration_.maildir.root = folder_ / "missing/";
  UseConfiguration(configuration_);
  EXPECT_EQ(velamailserver::conf::SmtpExt().MaildirPath(), folder_ / "missing/");
}

TEST_F(OwnerlessMaildir, LooksLikeOneOrLikeWhatARemovalLeaves) {
  fs::remove_all(gone_);
  fs::create_directory(gone_);
  GiveTo(gone_, kGone);
  EXPECT_TRUE(NoOwnerMaildir(gone_).flag);
  EXPECT_THAT(MeasureIfAny(gone_), Optional(0U));
  for (const char* name : {"/new", "/cur"}) {
    fs::create_directory(gone_ + name);
    EXPECT_TRUE(NoOwnerMaildir(gone_).flag) << name;
  }
  fs::create_directory(gone_ + "/other");
  ExpectNone(gone_);
  fs::remove(gone_ + "/other");
  folder_.Write("spool/local/gone/other", "");
  ExpectNone(gone_);
  fs::create_directory(gone_ + "/tmp");
  EXPECT_TRUE(NoOwnerMaildir(gone_).flag);
  fs::remove(gone_ + "/cur");
  ExpectNone(gone_);
  fs::remove(gone_ + "/other");
  folder_.Write("spool/local/gone/cur", "");
  ExpectNone(gone_);
}

TEST_F(OwnerlessMaildir, IsNoneWhenTheDiskCannotTell) {
  fs::permissions(folder_.path(), fs::perms(0755));
  folder_.Write("mail.log", "");
  fs::permissions(folder_ / "mail.log", fs::perms(0666));
  for (const std::string& closed : {spool_, spool_ + "/local", gone_}) {
    fs::permissions(closed, fs::perms(0700));
    {
      const test::AsNobody nobody;
      EXPECT_FALSE(NoOwnerMaildir(gone_).flag) << closed;
    }
    EXPECT_THAT(Log(), HasSubstr("spool/local/gone")) << closed;
    EXPECT_THAT(Log(), HasSubstr("Permission denied")) << closed;
    folder_.Write("mail.log", "");
    fs::permissions(closed, fs::perms(0755));
  }

  fs::rename(spool_, folder_ / "unmounted");
  EXPECT_FALSE(NoOwnerMaildir(gone_).flag);
  EXPECT_THAT(Log(), HasSubstr(spool_ + " (maildir.root): No such file or directory"));
}

TEST_F(OwnerlessMaildir, IsNoneWhenTheAccountsCannotTell) {
  folder_.Write("passwd", "alice\n");
  EXPECT_FALSE(NoOwnerMaildir(gone_).flag);
  EXPECT_THAT(Log(), HasSubstr("line 1 is not an account entry"));
}

TEST_F(OwnerlessMaildir, IsFoundInSpiteOfABrokenCache) {
  folder_.Write("cache.db", std::string(1000, 'x'));
  EXPECT_TRUE(NoOwnerMaildir(gone_).flag);
  EXPECT_EQ(NoOwnerMaildir(gone_).usage, std::nullopt);
}

// The real command over a real disk.
TEST_F(OwnerlessMaildir, IsWhatAScanFinds) {
  MakeMaildir(spool_ + "/example.org/gone", kGone + 1);
  MakeMaildir(spool_ + "/local/gone\n" + "x", kGone);  // begins with the path of another one
  MakeMaildir(spool_ + "/local\n/alice", kGone);       // prints "…/local" and "/alice"
  MakeMaildir(spool_ + "/gone", kGone);                // too high
  MakeMaildir(spool_ + "/local/alice/deep", kGone);    // too low
  fs::create_directory_symlink(gone_, spool_ + "/local/link");
  GiveTo(spool_ + "/local/link", kGone);
  fs::create_directories(spool_ + "/local/notes/cur");
  folder_.Write("spool/local/notes/text", "");
  GiveTo(spool_ + "/local/notes", kGone);

  std::vector<std::string> names;
  velamailserver::webapi::NoOwner no_owner;
  for (const NoOwnerMaildir& maildir : no_owner.List(std::vector<unsigned int>())) {
    names.push_back(*maildir.name);
  }
  // The first is found twice: by itself, and by the line that another one begins with.
  EXPECT_THAT(names, UnorderedElementsAre("gone", "gone", "gone@example.org"));
}

class RefreshedMaildir : public OwnerlessMaildir {
 protected:
  static std::optional<unsigned long long> UsageOf(const std::string& path) {
    return NoOwnerMaildir(path).usage;
  }

  static CacheKey KeyOf(const std::string& path) {
    struct stat status {};
    EXPECT_EQ(::stat(path.c_str(), &status), 0);
    return {path, status.st_ino, status.st_uid};
  }
};

TEST_F(RefreshedMaildir, HasAUsage) {
  NoOwnerMaildir maildir(gone_);
  maildir.RefreshCache();
  EXPECT_EQ(maildir.usage, std::nullopt);
  EXPECT_THAT(UsageOf(gone_), Optional(5U));

  folder_.Write("spool/local/gone/index.cache", "123");
  maildir.RefreshCache();
  EXPECT_THAT(UsageOf(gone_), Optional(8U));
}

TEST_F(RefreshedMaildir, DoesNotInheritTheFigureOfAnotherAtItsPath) {
  NoOwnerMaildir(gone_).RefreshCache();
  fs::rename(gone_, folder_ / "old");  // keeps its inode
  MakeMaildir(gone_, kGone);
  EXPECT_EQ(UsageOf(gone_), std::nullopt);

  NoOwnerMaildir(gone_).RefreshCache();
  EXPECT_THAT(UsageOf(gone_), Optional(5U));
  GiveTo(gone_, kGone + 1);
  EXPECT_EQ(UsageOf(gone_), std::nullopt);
}

TEST_F(RefreshedMaildir, IsDroppedOnceItIsNoOwnerlessMaildir) {
  const std::vector<std::function<void()>> changes = {
      [&] { fs::remove_all(gone_); },
      [&] { GiveTo(gone_, kAlice); },
      [&] { GiveTo(gone_, kGone + 1); },
      [&] { ReplaceByLink(gone_, alice_); },
      [&] { folder_.Write("passwd", "new:x:3000000003:1:::\n"); },
  };
  for (const auto& change : changes) {
    Replace(gone_, kGone);
    NoOwnerMaildir maildir(gone_);
    maildir.RefreshCache();
    const CacheKey key = KeyOf(gone_);
    EXPECT_THAT(FindCachedUsage(key), Optional(5U));
    change();
    maildir.RefreshCache();
    EXPECT_EQ(FindCachedUsage(key), std::nullopt);
    EXPECT_EQ(UsageOf(gone_), std::nullopt);
  }
}

TEST_F(RefreshedMaildir, FailsWhenItCannotBeReadOrStored) {
  NoOwnerMaildir maildir(gone_);
  configuration_.maildir.usage_cache = folder_ / "missing/cache.db";
  UseConfiguration(configuration_);
  try {
    maildir.RefreshCache();
    FAIL();
  } catch (const LogException& error) {
    EXPECT_THAT(error.what(), HasSubstr("mkdir -p"));
  }

  fs::permissions(folder_.path(), fs::perms(0755));
  fs::permissions(gone_ + "/cur", fs::perms(0700));
  const test::AsNobody nobody;
  try {
    maildir.RefreshCache();
    FAIL();
  } catch (const LogException& error) {
    EXPECT_THAT(error.what(), HasSubstr(gone_ + "/cur: Permission denied"));
  }
}

class RemovedMaildir : public RefreshedMaildir {
 protected:
  // What the refusal says.
  void ExpectRefusal(const BaseMaildir& maildir, const std::string& reason) const {
    fs::remove(folder_ / "mail.log");
    EXPECT_FALSE(maildir.Delete()) << reason;
    EXPECT_THAT(Log(), AllOf(HasSubstr("warning: platform/linux/maildir/delete_maildir:"),
                             HasSubstr(" not removed: " + maildir.path + ": "), HasSubstr(reason)));
  }

  void ExpectUntouched(const std::string& path) const {
    EXPECT_TRUE(fs::exists(fs::path(path) / kMessage)) << path;
  }
};

TEST_F(RemovedMaildir, IsGoneWithItsFigure) {
  MakeMaildir(spool_ + "/local/gone2", kGone);
  NoOwnerMaildir maildir(gone_);
  maildir.RefreshCache();
  const CacheKey key = KeyOf(gone_);
  EXPECT_TRUE(maildir.Delete());
  EXPECT_FALSE(fs::exists(gone_));
  EXPECT_EQ(FindCachedUsage(key), std::nullopt);
  ExpectUntouched(alice_);
  ExpectUntouched(spool_ + "/local/gone2");

  EXPECT_TRUE(maildir.Delete()) << "it is gone";
  const std::string line = "removed: " + gone_ + " of uid " + std::to_string(maildir.uid) + "\n";
  EXPECT_THAT(Log(), EndsWith(line));
  EXPECT_EQ(Log().find('\n'), Log().size() - 1) << "one line, for the first time";
}

TEST_F(RemovedMaildir, HasNoFigureOnceItsRemovalHasBegun) {
  NoOwnerMaildir maildir(gone_);
  maildir.RefreshCache();
  const pid_t removal = ::fork();
  if (removal == 0) {
    test::on_directory_entry = [](dirent64& /*entry*/) { return ::raise(SIGKILL) == 0; };
    maildir.Delete();
    ::_exit(EXIT_SUCCESS);
  }
  int status = 0;
  ASSERT_EQ(::waitpid(removal, &status, 0), removal);
  ASSERT_TRUE(WIFSIGNALED(status));
  EXPECT_TRUE(NoOwnerMaildir(gone_).flag);
  EXPECT_EQ(UsageOf(gone_), std::nullopt);
}

TEST_F(RemovedMaildir, HasNoFigureThatWasCountedMeanwhile) {
  const NoOwnerMaildir maildir(gone_);
  const CacheKey key = KeyOf(gone_);
  bool is_counted = false;
  test::on_directory_entry = [&](dirent64& /*entry*/) {
    StoreCachedUsage(key, 5);
    is_counted = true;
    return true;
  };
  EXPECT_TRUE(maildir.Delete());
  test::on_directory_entry = nullptr;
  EXPECT_TRUE(is_counted);
  EXPECT_EQ(FindCachedUsage(key), std::nullopt);
}

TEST_F(RemovedMaildir, NeedsNoCache) {
  EXPECT_TRUE(NoOwnerMaildir(gone_).Delete());
  EXPECT_FALSE(fs::exists(folder_ / "cache.db"));

  MakeMaildir(gone_, kGone);
  folder_.Write("cache.db", std::string(1000, 'x'));
  EXPECT_TRUE(NoOwnerMaildir(gone_).Delete());
  EXPECT_FALSE(fs::exists(gone_));
}

TEST_F(RemovedMaildir, IsGoneWithWhatAnEarlierRemovalLeft) {
  fs::remove_all(gone_);
  fs::create_directories(gone_ + "/cur");
  GiveTo(gone_, kGone);
  EXPECT_TRUE(NoOwnerMaildir(gone_).Delete());
  EXPECT_FALSE(fs::exists(gone_));
}

TEST_F(RemovedMaildir, WasFoundToBeOne) {
  NoOwnerMaildir maildir(gone_);
  maildir.flag = false;
  ExpectRefusal(maildir, "was not found to be a mail directory");
  ExpectRefusal(NoOwnerMaildir(alice_), "was not found to be a mail directory");
  ExpectRefusal(BaseMaildir(), "was not found to be a mail directory");
  ExpectUntouched(gone_);
  ExpectUntouched(alice_);
}

TEST_F(RemovedMaildir, IsStillTheOneThatWasFound) {
  MakeMaildir(folder_ / "elsewhere/local/gone", kGone);
  const NoOwnerMaildir maildir(gone_);

  for (const std::string& target : {alice_, folder_ / "elsewhere/local/gone"}) {
    ReplaceByLink(gone_, target);
    ExpectRefusal(maildir, "is no mail directory");
    ExpectUntouched(target);
  }
  fs::remove(gone_);

  Replace(gone_, kAlice);
  ExpectRefusal(maildir, "belongs to uid 3000000001, not 3000000003");
  ExpectUntouched(gone_);
  Replace(gone_, kGone + 1);
  ExpectRefusal(maildir, "belongs to uid 3000000004, not 3000000003");
  ExpectUntouched(gone_);

  fs::remove_all(gone_);
  folder_.Write("spool/local/gone/notes", "");
  GiveTo(gone_, kGone);
  ExpectRefusal(maildir, "is no mail directory");
  EXPECT_TRUE(fs::exists(gone_ + "/notes"));

  fs::remove_all(spool_ + "/local");
  ReplaceByLink(spool_ + "/local", folder_ / "elsewhere/local");
  ExpectRefusal(maildir, "is no mail directory");
  ExpectUntouched(folder_ / "elsewhere/local/gone");
}

TEST_F(RemovedMaildir, IsNothingThatIsMountedThere) {
  const std::string other = folder_ / "elsewhere/gone";
  MakeMaildir(other, kGone);
  test::InOwnMounts([&] {
    test::BindOver(gone_, other);
    const NoOwnerMaildir maildir(gone_);
    EXPECT_TRUE(maildir.flag);
    ExpectRefusal(maildir, "something is mounted there");
  });
  ExpectUntouched(other);
  ExpectUntouched(gone_);
}

// Domains may have disks of their own.
TEST_F(RemovedMaildir, MayLieInADomainThatIsMounted) {
  MakeMaildir(folder_ / "disk/gone", kGone);
  test::InOwnMounts([&] {
    test::BindOver(spool_ + "/local", folder_ / "disk");
    EXPECT_TRUE(NoOwnerMaildir(gone_).Delete());
  });
  EXPECT_FALSE(fs::exists(folder_ / "disk/gone"));
  ExpectUntouched(gone_);
}

TEST_F(RemovedMaildir, LiesBelowTheRoot) {
  MakeMaildir(folder_ / "spool2/local/gone", kGone);
  MakeMaildir(spool_ + "/gone", kGone);
  MakeMaildir(gone_ + "/deep", kGone);
  NoOwnerMaildir maildir(gone_);
  for (const std::string& path :
       {folder_ / "spool2/local/gone", spool_ + "/../spool2/local/gone", spool_ + "/gone", spool_,
        spool_ + "/local/.", spool_ + "/local/..", gone_ + "/deep", gone_ + "/../gone", gone_ + "/",
        std::string("/"), std::string()}) {
    maildir.path = path;
    ExpectRefusal(maildir, "is no mail directory");
  }
  ExpectUntouched(folder_ / "spool2/local/gone");
  ExpectUntouched(spool_ + "/gone");
  ExpectUntouched(gone_ + "/deep");
  ExpectUntouched(gone_);
}

TEST_F(RemovedMaildir, IsNotThatOfANewUserOfTheUid) {
  const NoOwnerMaildir maildir(gone_);
  folder_.Write("passwd", "alice:x:3000000001:100::/:\nnew:x:3000000003:1:::\n");
  ExpectRefusal(maildir, "uid 3000000003 has an owner");
  ExpectUntouched(gone_);
}

TEST_F(RemovedMaildir, IsNotOfAnOwnerThatCannotBeFoundOut) {
  const NoOwnerMaildir maildir(gone_);
  for (const char* content : {"", "alice:x:3000000001:100::/:\nbo"}) {
    folder_.Write("passwd", content);
    ExpectRefusal(maildir, "cannot be found out");
  }
  fs::remove(folder_ / "passwd");
  ExpectRefusal(maildir, "cannot be found out");
  ExpectUntouched(gone_);
}

TEST_F(RemovedMaildir, IsNotThatOfAUserWhomAStaleDatabaseDoesNotKnow) {
  folder_.Write("host", "root:x:0:0:::\nnew:x:3000000003:1:::\n");
  WithService("quillontest [NOTFOUND=return] files", [&] {
    const NoOwnerMaildir maildir(gone_);
    EXPECT_TRUE(maildir.flag);
    test::BindOver("/etc/passwd", folder_ / "host");
    ExpectRefusal(maildir, "has an owner");
    ExpectUntouched(gone_);
    EXPECT_FALSE(NoOwnerMaildir(gone_).flag);
  });
}

TEST_F(RemovedMaildir, IsNotOneWhileANameServiceFails) {
  WithService("quillontest files", [&] {
    const NoOwnerMaildir maildir(gone_);
    EXPECT_TRUE(maildir.flag);
    for (const auto answer :
         {test::NameServiceAnswer::kUnavailable, test::NameServiceAnswer::kTryAgain,
          test::NameServiceAnswer::kFound}) {
      test::name_service_answer = answer;
      ExpectRefusal(maildir, "uid 3000000003 has an owner, or that cannot be found out");
    }
    ExpectUntouched(gone_);
    test::name_service_answer = test::NameServiceAnswer::kNotFound;
    EXPECT_TRUE(maildir.Delete());
  });
}

TEST_F(RemovedMaildir, NeedsTheRoot) {
  const NoOwnerMaildir maildir(gone_);
  fs::rename(spool_, folder_ / "unmounted");
  ExpectRefusal(maildir, "(maildir.root): No such file or directory");
  fs::rename(folder_ / "unmounted", spool_);

  fs::permissions(folder_.path(), fs::perms(0755));
  folder_.Write("mail.log", "");
  fs::permissions(spool_ + "/local", fs::perms(0700));
  {
    const test::AsNobody nobody;
    EXPECT_FALSE(maildir.Delete());
  }
  ExpectUntouched(gone_);
}

TEST_F(RemovedMaildir, MayBeAUsers) {
  const Maildir maildir(kAlice);
  EXPECT_EQ(maildir.account, "alice");
  EXPECT_TRUE(maildir.Delete());
  EXPECT_FALSE(fs::exists(alice_));
  ExpectUntouched(gone_);
}

TEST_F(RemovedMaildir, IsOnlyTheUsersOwn) {
  const Maildir maildir(kAlice);
  folder_.Write("passwd", "carol:x:3000000001:100::/:\n");
  ExpectRefusal(maildir, "is not that of account [alice]");
  folder_.Write("passwd", "carol:x:3000000002:100::/:\n");
  ExpectRefusal(maildir, "is not that of account [alice]");
  fs::remove(folder_ / "passwd");
  ExpectRefusal(maildir, "is not that of account [alice]");
  folder_.Write("passwd", "alice:x:3000000001:100::/:\n");

  GiveTo(alice_, kGone);
  ExpectRefusal(maildir, "belongs to uid 3000000003, not 3000000001");
  ExpectUntouched(alice_);
}

}  // namespace
}  // namespace quillon::platform
