#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <limits>
#include <optional>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <quillon/platform/configuration.h>
#include <velamailserver/log_exception.h>

#include "maildir/message_usage.h"
#include "support/as_nobody.h"
#include "support/directory_entries.h"
#include "support/temporary_folder.h"

namespace quillon::platform {
namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::Optional;
using velamailserver::LogException;
namespace fs = std::filesystem;

TEST(SizeInName, IsReadWhereTheMailServerWritesIt) {
  EXPECT_THAT(SizeInName("1.M1P1.host,S=1234"), Optional(1234U));
  EXPECT_THAT(SizeInName("1.M1P1.host,S=1234,W=1300:2,S"), Optional(1234U));
  EXPECT_THAT(SizeInName("1.M1P1.host,W=1300,S=0:2,"), Optional(0U));
  EXPECT_THAT(SizeInName("1.host,S=18446744073709551615"),
              Optional(std::numeric_limits<unsigned long long>::max()));
}

TEST(SizeInName, IsNothingElse) {
  for (const char* name :
       {"", "1.M1P1.host", "1.host:2,S", "1.host:2,S=5", "1.host,S=", "1.host,S=,W=5", "1.host,S=x",
        "1.host,S=5x", "1.host,S=-5", "1.host,S=+5", "1.host,S= 5", "1.host,S=5 ", "1.host,S=0x5",
        "1.host,S=18446744073709551616", "1.host,W=5", "1.host,s=5", "S=5"}) {
    EXPECT_EQ(SizeInName(name), std::nullopt) << name;
  }
}

class MaildirUsage : public testing::Test {
 protected:
  MaildirUsage() {
    Configuration configuration;
    configuration.log = {"file", folder_ / "mail.log"};
    UseConfiguration(configuration);
    MakeFolder("");
  }
  ~MaildirUsage() override { test::on_directory_entry = nullptr; }

  // A mail folder with its three directories.
  void MakeFolder(const std::string& relative) const {
    for (const char* name : {"/cur", "/new", "/tmp"}) {
      fs::create_directories(folder_ / ("maildir/" + relative + name));
    }
  }

  std::string Message(const std::string& relative, std::size_t bytes) const {
    return folder_.Write("maildir/" + relative, std::string(bytes, 'm'));
  }

  unsigned long long Count() const {
    const FileDescriptor maildir(::open(maildir_.c_str(), O_PATH | O_DIRECTORY));
    return CountMessageBytes(maildir, maildir_);
  }

  // What counting fails with.
  LogException Failure() const {
    try {
      Count();
    } catch (const LogException& error) {
      return error;
    }
    ADD_FAILURE() << "counted";
    return {velamailserver::ERR_INTERNAL, "", 3, "", 0};
  }

  LogException FailureOfNobody() const {
    const test::AsNobody nobody;
    return Failure();
  }

  test::TemporaryFolder folder_;
  std::string maildir_ = folder_ / "maildir";
};

TEST_F(MaildirUsage, IsNothingInAnEmptyDirectory) { EXPECT_EQ(Count(), 0U); }

TEST_F(MaildirUsage, IsTheMessagesOfCurAndNewInEveryFolder) {
  Message("cur/1.host:2,S", 1);
  Message("new/2.host", 20);
  Message("tmp/3.host", 300);
  Message("index.cache", 4000);
  for (const char* name : {".Sent", ".Sent.2024", "work", "work/old", "work/old/.deep"}) {
    MakeFolder(name);
  }
  Message(".Sent/cur/1.host", 100);
  Message(".Sent/index", 4000);
  Message(".Sent.2024/new/1.host", 2000);
  Message("work/new/1.host", 30000);
  Message("work/old/cur/1.host", 500000);
  Message("work/old/.deep/cur/1.host", 7000000);
  Message("work/tmp/1.host", 5);
  EXPECT_EQ(Count(), 7532121U);
}

TEST_F(MaildirUsage, TrustsTheSizeInTheName) {
  Message("cur/1.host,S=1000:2,S", 1);
  Message("new/2.host,S=500", 1);
  Message("new/3.host,S=5x", 3);
  Message("cur/4.host:2,S=70", 4);
  EXPECT_EQ(Count(), 1507U);
}

TEST_F(MaildirUsage, LeavesOutWhatIsNoMessage) {
  Message("cur/.hidden,S=100", 1);
  Message("cur/.hidden", 2);
  Message("outside", 4);
  Message("cur/folder,S=8/cur/1.host", 8);
  fs::create_symlink(folder_ / "maildir/outside", folder_ / "maildir/cur/link,S=16");
  fs::create_symlink(folder_ / "maildir/outside", folder_ / "maildir/cur/link");
  ASSERT_EQ(::mkfifo((folder_ / "maildir/cur/fifo,S=32").c_str(), 0600), 0);
  ASSERT_EQ(::mkfifo((folder_ / "maildir/cur/fifo").c_str(), 0600), 0);
  EXPECT_EQ(Count(), 0U);

  test::on_directory_entry = [](dirent64& entry) {
    entry.d_type = DT_UNKNOWN;
    return true;
  };
  EXPECT_EQ(Count(), 0U);
}

TEST_F(MaildirUsage, IsTheSameWhereTheFileSystemTellsNoTypes) {
  MakeFolder(".Sent");
  Message("cur/1.host", 1);
  Message("cur/2.host,S=20:2,S", 2);
  Message(".Sent/new/3.host", 300);
  Message("index", 4000);
  test::on_directory_entry = [](dirent64& entry) {
    entry.d_type = DT_UNKNOWN;
    return true;
  };
  EXPECT_EQ(Count(), 321U);
}

TEST_F(MaildirUsage, FollowsNoLinkToADirectory) {
  MakeFolder("../elsewhere");
  folder_.Write("elsewhere/cur/1.host", "mail");
  fs::create_directory_symlink(folder_ / "elsewhere", folder_ / "maildir/.Linked");
  fs::create_directory(folder_ / "maildir/.Half");
  fs::create_directory_symlink(folder_ / "elsewhere/cur", folder_ / "maildir/.Half/cur");
  EXPECT_EQ(Count(), 0U);

  // Nor to one that takes a directory's place after it was seen.
  MakeFolder(".Sent");
  test::on_directory_entry = [this](dirent64& entry) {
    if (std::string(entry.d_name) == ".Sent") {
      fs::remove_all(folder_ / "maildir/.Sent");
      fs::create_directory_symlink(folder_ / "elsewhere", folder_ / "maildir/.Sent");
      entry.d_type = DT_DIR;
    }
    return true;
  };
  EXPECT_EQ(Count(), 0U);
}

TEST_F(MaildirUsage, LeavesOutWhatVanishesMeanwhile) {
  MakeFolder(".Sent");
  Message("cur/1.host", 1);
  const std::string vanishing = Message("cur/2.host", 20);
  Message(".Sent/cur/1.host", 300);
  test::on_directory_entry = [&](dirent64& entry) {
    if (std::string(entry.d_name) == "2.host") {
      fs::remove(vanishing);
    }
    if (std::string(entry.d_name) == ".Sent") {
      fs::remove_all(folder_ / "maildir/.Sent");
    }
    return true;
  };
  EXPECT_EQ(Count(), 1U);
}

TEST_F(MaildirUsage, EndsAtTheLargestNumber) {
  Message("cur/1.host,S=18446744073709551615", 1);
  Message("cur/2.host,S=18446744073709551615", 1);
  Message("new/3.host", 1);
  EXPECT_EQ(Count(), std::numeric_limits<unsigned long long>::max());
}

TEST_F(MaildirUsage, EndsAtADepthThatItLogsOnce) {
  std::string folder;
  for (int level = 1; level <= 70; ++level) {
    folder += "f/";
    MakeFolder(folder);
    Message(folder + "cur/1.host", 1);
  }
  EXPECT_EQ(Count(), 64U);
  const std::string log = folder_.Read("mail.log");
  EXPECT_THAT(log, AllOf(HasSubstr(" warning: platform/linux/maildir/message_usage:"),
                         HasSubstr("not counted, too deep: " + maildir_ + "/f/f/")));
  EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 1);
}

TEST_F(MaildirUsage, IsUnknownWhenADirectoryCannotBeRead) {
  MakeFolder(".Sent");
  fs::permissions(folder_.path(), fs::perms(0755));
  for (const std::string directory : {".Sent", ".Sent/cur", "new"}) {
    fs::permissions(maildir_ + "/" + directory, fs::perms(0));
    const LogException failure = FailureOfNobody();
    EXPECT_EQ(failure.code(), velamailserver::ERR_SDK_FILE_ENUM_DIR);
    EXPECT_EQ(failure.what(), maildir_ + "/" + directory + ": Permission denied");
    fs::permissions(maildir_ + "/" + directory, fs::perms(0755));
  }
}

TEST_F(MaildirUsage, IsUnknownWhenReadingADirectoryFails) {
  Message("cur/1.host", 1);
  test::on_directory_entry = [](dirent64& entry) {
    errno = EIO;
    return std::string(entry.d_name) != "1.host";
  };
  const LogException failure = Failure();
  EXPECT_EQ(failure.code(), velamailserver::ERR_SDK_FILE_ENUM_DIR);
  EXPECT_EQ(failure.what(), maildir_ + "/cur: Input/output error");
}

TEST_F(MaildirUsage, IsUnknownWhenAMessageCannotBeLookedAt) {
  Message("cur/1.host", 1);
  fs::permissions(folder_.path(), fs::perms(0755));
  fs::permissions(maildir_ + "/cur", fs::perms(0744));  // to be listed, not to be searched
  const LogException failure = FailureOfNobody();
  EXPECT_EQ(failure.code(), velamailserver::ERR_LSTAT_FILE);
  EXPECT_EQ(failure.what(), maildir_ + "/cur/1.host: Permission denied");
}

}  // namespace
}  // namespace quillon::platform
