#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <quillon/platform/web_accounts.h>

#include "support/as_nobody.h"
#include "support/temporary_folder.h"

namespace quillon::platform {
namespace {

using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;
using testing::UnorderedElementsAre;
namespace fs = std::filesystem;

const std::string kSalt = "AAECAwQFBgcICQoLDA0ODw==";
const std::string kKey = "AAECAwQFBgcICQoLDA0ODxAREhMUFRYXGBkaGxwdHh8=";
const std::string kVerifier = "SCRAM-SHA-256:4096:" + kSalt + ":" + kKey + ":" + kKey;
const Secret kPassword("correct horse");

std::string FailureOf(const std::function<void()>& call) {
  try {
    call();
  } catch (const WebAccountsError& error) {
    return error.what();
  }
  ADD_FAILURE() << "nothing was thrown";
  return "";
}

std::string ParseFailure(const std::string& text) {
  return FailureOf([&] { ParseWebAccounts(text, "F"); });
}

TEST(WebAccountsText, HasAccountsCommentsAndBlankLines) {
  const auto accounts = ParseWebAccounts(
      "# who\n\nalice:admin:" + kVerifier + "\n  \t\n9.b_c-D:monitor:" + kVerifier, "F");

  ASSERT_EQ(accounts.size(), 2U);
  EXPECT_EQ(accounts[0].name, "alice");
  EXPECT_EQ(accounts[0].role, WebRole::kAdmin);
  EXPECT_EQ(accounts[0].iterations, 4096U);
  EXPECT_EQ(accounts[0].salt, kSalt);
  EXPECT_EQ(accounts[0].stored_key.Get(), kKey);
  EXPECT_EQ(accounts[0].server_key.Get(), kKey);
  EXPECT_EQ(accounts[1].name, "9.b_c-D");
  EXPECT_EQ(accounts[1].role, WebRole::kMonitor);
}

TEST(WebAccountsText, MayBeEmpty) { EXPECT_TRUE(ParseWebAccounts("", "F").empty()); }

TEST(WebAccountsText, NamesTheLineThatDoesNotParse) {
  const std::string mechanism = ":SCRAM-SHA-256:";
  const std::string keys = ":" + kKey + ":" + kKey;
  const std::string fields = "F:2: an account has 7 fields with colons between them";
  const std::vector<std::pair<std::string, std::string>> lines = {
      {"alice", fields},
      {"alice:admin:" + kVerifier + ":", fields},
      {" # no comment", fields},
      {":admin:" + kVerifier, "F:2: is not the name of an account"},
      {"-a:admin:" + kVerifier, "F:2: is not the name of an account"},
      {"a b:admin:" + kVerifier, "F:2: is not the name of an account"},
      {"\xc3\xa9:admin:" + kVerifier, "F:2: is not the name of an account"},
      {std::string("a\0", 2) + ":admin:" + kVerifier, "F:2: is not the name of an account"},
      {std::string(65, 'a') + ":admin:" + kVerifier, "F:2: is not the name of an account"},
      {"a:root:" + kVerifier, "F:2: the role must be admin or monitor"},
      {"a:Admin:" + kVerifier, "F:2: the role must be admin or monitor"},
      {"a:admin:SCRAM-SHA-1:4096:" + kSalt + keys, "F:2: the third field must be SCRAM-SHA-256"},
      {"a:admin" + mechanism + "4095:" + kSalt + keys,
       "F:2: the iterations must be from 4096 to 1000000"},
      {"a:admin" + mechanism + "1000001:" + kSalt + keys,
       "F:2: the iterations must be from 4096 to 1000000"},
      {"a:admin" + mechanism + "-4096:" + kSalt + keys,
       "F:2: the iterations must be from 4096 to 1000000"},
      {"a:admin" + mechanism + "4096:" + keys, "F:2: the salt must be 16 bytes in base64"},
      {"a:admin" + mechanism + "4096:AAECAwQFBgcICQoLDA0O" + keys,
       "F:2: the salt must be 16 bytes in base64"},
      {"a:admin" + mechanism + "4096:AAECAwQFBgcICQoLDA0ODx==" + keys,
       "F:2: the salt must be 16 bytes in base64"},
      {"a:admin" + mechanism + "4096:" + kSalt + ":" + kSalt + ":" + kKey,
       "F:2: a key must be 32 bytes in base64"},
      {"a:admin" + mechanism + "4096:" + kSalt + ":" + kKey + ":" + kSalt,
       "F:2: a key must be 32 bytes in base64"},
      {"a:admin:" + kVerifier + "\r", "F:2: a key must be 32 bytes in base64"},
      {"first:monitor:" + kVerifier, "F:2: there is an account of this name above"},
  };
  for (const auto& [line, problem] : lines) {
    EXPECT_EQ(ParseFailure("first:admin:" + kVerifier + "\n" + line + "\nnonsense\n"), problem)
        << line;
  }
}

TEST(WebAccountsText, NamesMayBe64CharactersLong) {
  const std::string name(64, 'a');
  EXPECT_EQ(ParseWebAccounts(name + ":admin:" + kVerifier, "F").at(0).name, name);
}

TEST(WebRoleTest, HasAName) {
  EXPECT_EQ(ParseWebRole("admin"), WebRole::kAdmin);
  EXPECT_EQ(ParseWebRole("monitor"), WebRole::kMonitor);
  EXPECT_EQ(ParseWebRole(""), std::nullopt);
  EXPECT_EQ(ParseWebRole("adminx"), std::nullopt);
}

class WebAccountsFile : public testing::Test {
 protected:
  std::vector<WebAccount> Accounts() const {
    return ParseWebAccounts(ReadWebAccountsFile(path_).Get(), path_);
  }

  void Write(const std::string& text) const {
    folder_.Write("web-accounts", text);
    fs::permissions(path_, fs::perms(0600));
  }

  std::string Read() const { return folder_.Read("web-accounts"); }

  std::string ReadFailure() const {
    return FailureOf([this] { ReadWebAccountsFile(path_); });
  }

  struct stat Status() const {
    struct stat status {};
    EXPECT_EQ(::lstat(path_.c_str(), &status), 0);
    return status;
  }

  test::TemporaryFolder folder_;
  std::string path_ = folder_ / "web-accounts";
};

TEST_F(WebAccountsFile, IsMadeForTheFirstAccount) {
  EXPECT_TRUE(Accounts().empty());

  AddWebAccount(path_, "alice", WebRole::kAdmin, kPassword);

  const auto accounts = Accounts();
  ASSERT_EQ(accounts.size(), 1U);
  EXPECT_EQ(accounts[0].name, "alice");
  EXPECT_EQ(accounts[0].role, WebRole::kAdmin);
  EXPECT_EQ(accounts[0].iterations, kWebIterations);
  EXPECT_GE(kWebIterations, 10000U);
  EXPECT_EQ(Status().st_mode, S_IFREG | 0600U);
  EXPECT_EQ(Status().st_uid, 0U);
  EXPECT_THAT(Read(), testing::Not(HasSubstr(kPassword.Get())));
}

TEST_F(WebAccountsFile, HasAnotherSaltForEveryPassword) {
  AddWebAccount(path_, "alice", WebRole::kAdmin, kPassword);
  AddWebAccount(path_, "bob", WebRole::kAdmin, kPassword);
  const auto before = Accounts();
  EXPECT_NE(before[0].salt, before[1].salt);
  EXPECT_NE(before[0].stored_key.Get(), before[1].stored_key.Get());

  ChangeWebPassword(path_, "alice", kPassword);
  EXPECT_NE(Accounts()[0].salt, before[0].salt);
}

TEST_F(WebAccountsFile, KeepsWhateverElseIsInIt) {
  const std::string alice = "alice:admin:" + kVerifier + "\n";
  const std::string carol = "carol:monitor:" + kVerifier;
  Write("# first\n" + alice + "\n# second\n" + carol);

  AddWebAccount(path_, "bob", WebRole::kMonitor, kPassword);
  EXPECT_THAT(Read(), StartsWith("# first\n" + alice + "\n# second\n" + carol + "\nbob:monitor:"));
  EXPECT_THAT(Read(), EndsWith("=\n"));
  const std::string bob = Read().substr(Read().find("bob:"));

  ChangeWebRole(path_, "alice", WebRole::kMonitor);
  EXPECT_EQ(Read(), "# first\nalice:monitor:" + kVerifier + "\n\n# second\n" + carol + "\n" + bob);

  RemoveWebAccount(path_, "alice");
  EXPECT_EQ(Read(), "# first\n\n# second\n" + carol + "\n" + bob);

  ChangeWebPassword(path_, "carol", kPassword);
  EXPECT_THAT(Read(), StartsWith("# first\n\n# second\ncarol:monitor:SCRAM-SHA-256:10000:"));
  EXPECT_THAT(Read(), EndsWith("=\n" + bob));

  RemoveWebAccount(path_, "carol");
  RemoveWebAccount(path_, "bob");
  EXPECT_EQ(Read(), "# first\n\n# second\n");
  EXPECT_EQ(Status().st_mode, S_IFREG | 0600U);
}

TEST_F(WebAccountsFile, ReplacesTheFileAndLeavesNoDraft) {
  Write("alice:admin:" + kVerifier + "\n");
  const auto inode = Status().st_ino;
  folder_.Write("web-accounts.new", "left by somebody who was killed");
  const int open_before = ::open(path_.c_str(), O_RDONLY | O_CLOEXEC);

  ChangeWebRole(path_, "alice", WebRole::kMonitor);

  EXPECT_NE(Status().st_ino, inode);
  std::string old(5000, '\0');
  old.resize(static_cast<std::size_t>(::read(open_before, old.data(), old.size())));
  ::close(open_before);
  EXPECT_EQ(old, "alice:admin:" + kVerifier + "\n");
  EXPECT_FALSE(fs::exists(path_ + ".new"));
}

TEST_F(WebAccountsFile, StaysAsItIsWhenAChangeIsRefused) {
  const std::string text = "alice:admin:" + kVerifier + "\n";
  Write(text);
  const auto inode = Status().st_ino;
  const auto add = [this](const std::string& name, const std::string& password) {
    return FailureOf([&] { AddWebAccount(path_, name, WebRole::kAdmin, Secret(password)); });
  };

  EXPECT_EQ(add("alice", "correct horse"), path_ + ": there is an account alice already");
  EXPECT_THAT(add("a:b", "correct horse"), StartsWith("a:b: an account's name is 1 to 64 "));
  EXPECT_THAT(add("a\nb", "correct horse"), HasSubstr("an account's name is"));
  EXPECT_THAT(add("", "correct horse"), HasSubstr("an account's name is"));
  EXPECT_EQ(add("bob", "1234567"), "the password must have 8 characters at least");
  EXPECT_EQ(add("bob", "\xc3\xa9\xc3\xa9\xc3\xa9\xc3\xa9"),
            "the password must have 8 characters at least");
  EXPECT_THAT(add("bob", "1234567\t"), StartsWith("the password must be UTF-8"));
  EXPECT_THAT(add("bob", "1234567\xff"), StartsWith("the password must be UTF-8"));
  EXPECT_THAT(add("bob", std::string("12345678\0x", 10)), StartsWith("the password must be UTF-8"));
  EXPECT_EQ(FailureOf([this] { RemoveWebAccount(path_, "bob"); }),
            path_ + ": there is no account bob");
  EXPECT_EQ(FailureOf([this] { RemoveWebAccount(path_, "Alice"); }),
            path_ + ": there is no account Alice");
  EXPECT_EQ(FailureOf([this] { ChangeWebPassword(path_, "bob", kPassword); }),
            path_ + ": there is no account bob");
  EXPECT_EQ(FailureOf([this] { ChangeWebPassword(path_, "alice", Secret("short")); }),
            "the password must have 8 characters at least");
  EXPECT_EQ(FailureOf([this] { ChangeWebRole(path_, "bob", WebRole::kAdmin); }),
            path_ + ": there is no account bob");
  EXPECT_EQ(Read(), text);
  EXPECT_EQ(Status().st_ino, inode);
}

TEST_F(WebAccountsFile, IsNotChangedWhenALineDoesNotParse) {
  Write("# text\nalice\n");
  EXPECT_THAT(FailureOf([this] { AddWebAccount(path_, "bob", WebRole::kAdmin, kPassword); }),
              StartsWith(path_ + ":2: "));
  EXPECT_EQ(Read(), "# text\nalice\n");
}

TEST_F(WebAccountsFile, IsNotUsedWhenOthersMayReadOrWriteIt) {
  Write("");
  for (const unsigned mode : {0640U, 0620U, 0604U, 0602U, 0610U, 0601U}) {
    fs::permissions(path_, fs::perms(mode));
    EXPECT_EQ(ReadFailure(), path_ + ": others than root may read or write it, it is not used");
    EXPECT_THROW(AddWebAccount(path_, "bob", WebRole::kAdmin, kPassword), WebAccountsError);
  }
  fs::permissions(path_, fs::perms(0600));
  ASSERT_EQ(::chown(path_.c_str(), 1000, 0), 0);
  EXPECT_EQ(ReadFailure(), path_ + ": does not belong to root, it is not used");
}

TEST_F(WebAccountsFile, IsNoLinkFolderOrFifoAndNotHuge) {
  const std::string target = folder_.Write("target", "");
  fs::permissions(target, fs::perms(0600));
  fs::create_symlink(target, path_);
  EXPECT_EQ(ReadFailure(), path_ + ": is a link");
  EXPECT_THROW(AddWebAccount(path_, "bob", WebRole::kAdmin, kPassword), WebAccountsError);
  EXPECT_EQ(folder_.Read("target"), "");

  fs::remove(path_);
  fs::create_directory(path_);
  EXPECT_EQ(ReadFailure(), path_ + ": Is a directory");

  fs::remove(path_);
  ASSERT_EQ(::mkfifo(path_.c_str(), 0600), 0);
  EXPECT_EQ(ReadFailure(), path_ + ": is not a regular file");

  fs::remove(path_);
  Write("");
  fs::resize_file(path_, 1024 * 1024 + 1);
  EXPECT_EQ(ReadFailure(), path_ + ": is larger than 1024 KiB");
}

TEST_F(WebAccountsFile, DoesNotGrowLargerThanWhatIsRead) {
  const std::string comment = "#" + std::string(1024 * 1024 - 2, 'x') + "\n";
  Write(comment);
  EXPECT_EQ(FailureOf([this] { AddWebAccount(path_, "bob", WebRole::kAdmin, kPassword); }),
            path_ + ": would be too large");
  EXPECT_EQ(Read(), comment);
}

TEST_F(WebAccountsFile, IsChangedOnlyInAFolderOfRoots) {
  fs::permissions(folder_.path(), fs::perms(0777));
  EXPECT_THAT(FailureOf([this] { AddWebAccount(path_, "bob", WebRole::kAdmin, kPassword); }),
              HasSubstr("may be written to by others than root"));
  fs::permissions(folder_.path(), fs::perms(0700));
  EXPECT_FALSE(fs::exists(path_));
}

TEST_F(WebAccountsFile, IsForRootOnly) {
  Write("");
  fs::permissions(folder_.path(), fs::perms(0755));
  const test::AsNobody nobody;
  EXPECT_EQ(ReadFailure(), path_ + ": Permission denied");
  EXPECT_THROW(RemoveWebAccount(path_, "alice"), WebAccountsError);
}

TEST_F(WebAccountsFile, IsChangedByOneAtATime) {
  std::vector<std::thread> threads;
  for (int i = 0; i < 8; ++i) {
    threads.emplace_back([this, i] {
      AddWebAccount(path_, std::string("a") + std::to_string(i), WebRole::kAdmin, kPassword);
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  std::vector<std::string> names;
  for (const WebAccount& account : Accounts()) {
    names.push_back(account.name);
  }
  EXPECT_THAT(names, UnorderedElementsAre("a0", "a1", "a2", "a3", "a4", "a5", "a6", "a7"));
}

TEST_F(WebAccountsFile, IsNotWaitedForWithoutEnd) {
  const int lock = ::open((path_ + ".lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  ASSERT_EQ(::flock(lock, LOCK_EX), 0);
  EXPECT_EQ(FailureOf([this] { AddWebAccount(path_, "bob", WebRole::kAdmin, kPassword); }),
            path_ + ": is being changed by another process");
  ::close(lock);
  EXPECT_FALSE(fs::exists(path_));
}

}  // namespace
}  // namespace quillon::platform
