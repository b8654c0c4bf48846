#include <sys/stat.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <quillon/platform/configuration.h>
#include <quillon/platform/group_list.h>
#include <velamailserver/conf/smtp_ext.h>
#include <velamailserver/log_exception.h>
#include <velamailserver/velasdk/vela_group.h>
#include <velamailserver/velasdk/vela_user.h>

#include "support/temporary_folder.h"

namespace quillon::platform {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using velamailserver::LogException;
using velamailserver::velasdk::VelaGroup;
using velamailserver::velasdk::VelaUser;

// A host whose accounts are in files of its own.
class Accounts : public testing::Test {
 protected:
  Accounts() {
    configuration_.accounts.passwd_file =
        folder_.Write("passwd", "alice:x:70001:100:::\nBob:x:70002:100:::\n");
    configuration_.accounts.group_file = folder_.Write("group", "mailstaff:x:70100:alice\n");
    configuration_.log.target = "file";
    configuration_.log.file = folder_ / "log";
    UseConfiguration(configuration_);
  }

  // Which failure a lookup ends in.
  template <typename Lookup>
  static LogException FailureOf(Lookup lookup) {
    try {
      lookup();
    } catch (const LogException& error) {
      return error;
    }
    ADD_FAILURE() << "the lookup succeeded";
    return {velamailserver::ERR_INTERNAL, "", 3, "", 0};
  }

  test::TemporaryFolder folder_;
  Configuration configuration_;
};

TEST_F(Accounts, ResolveAUserByNameInAnyCaseAndByUid) {
  EXPECT_EQ(VelaUser(std::string("ALICE")).Name(), "alice");
  EXPECT_EQ(VelaUser(std::string("bob")).RealName(), "Bob");
  EXPECT_EQ(VelaUser(std::string("bob")).Uid(), 70002U);
  EXPECT_EQ(VelaUser(70001U).RealName(), "alice");
}

TEST_F(Accounts, ResolveAGroupByNameInAnyCaseAndByGid) {
  EXPECT_EQ(VelaGroup(std::string("MailStaff")).Name(), "mailstaff");
  EXPECT_EQ(VelaGroup(std::string("MailStaff")).Gid(), 70100U);
  EXPECT_EQ(VelaGroup(70100U).Name(), "mailstaff");
}

TEST_F(Accounts, AskTheNameServiceForWhatIsNotInTheFiles) {
  EXPECT_EQ(VelaUser(std::string("root")).Uid(), 0U);
  EXPECT_EQ(VelaUser(0U).Name(), "root");
  EXPECT_EQ(VelaGroup(std::string("root")).Gid(), 0U);
  EXPECT_EQ(VelaGroup(0U).Name(), "root");
}

TEST_F(Accounts, FailForUnknownSubjectsWithTheCodeOfTheCall) {
  const auto name = FailureOf([] { VelaUser(std::string("no-such-user")); });
  EXPECT_EQ(name.code(), velamailserver::ERR_SDK_USER_GET);
  EXPECT_STREQ(name.what(), "no such user: [no-such-user]");

  const auto uid = FailureOf([] { VelaUser(71234U); });
  EXPECT_EQ(uid.code(), velamailserver::ERR_SDK_USER_GET_BY_UID);
  EXPECT_STREQ(uid.what(), "no user has the uid [71234]");

  const auto group = FailureOf([] { VelaGroup(std::string("no-such-group")); });
  EXPECT_EQ(group.code(), velamailserver::ERR_SDK_GROUP_GET);
  EXPECT_STREQ(group.what(), "no such group: [no-such-group]");

  const auto gid = FailureOf([] { VelaGroup(71234U); });
  EXPECT_EQ(gid.code(), velamailserver::ERR_SDK_GROUP_GET_BY_GID);
  EXPECT_STREQ(gid.what(), "no group has the gid [71234]");
}

TEST_F(Accounts, NeverTakeANameThatNoAccountCanHaveForAnother) {
  for (const std::string& name : {std::string(), std::string("root\0x", 6), std::string("alice:x"),
                                  std::string("alice\n"), std::string("ro\not")}) {
    EXPECT_EQ(FailureOf([&] { VelaUser{name}; }).code(), velamailserver::ERR_SDK_USER_GET) << name;
    EXPECT_EQ(FailureOf([&] { VelaGroup{name}; }).code(), velamailserver::ERR_SDK_GROUP_GET)
        << name;
  }
}

TEST_F(Accounts, FindAUserAddedAMomentAgo) {
  EXPECT_THROW(VelaUser(std::string("carol")), LogException);

  std::ofstream(folder_ / "passwd", std::ios::app) << "carol:x:70003:100:::\n";

  EXPECT_EQ(VelaUser(std::string("carol")).Uid(), 70003U);
}

TEST_F(Accounts, ForgetAUserRemovedMoreThanAMomentAgo) {
  EXPECT_EQ(VelaUser(std::string("alice")).Uid(), 70001U);

  folder_.Write("passwd.new", "Bob:x:70002:100:::\n");
  std::filesystem::rename(folder_ / "passwd.new", folder_ / "passwd");
  std::this_thread::sleep_for(std::chrono::milliseconds(60));

  EXPECT_THROW(VelaUser(std::string("alice")), LogException);
  EXPECT_EQ(VelaUser(std::string("Bob")).Uid(), 70002U);
}

TEST_F(Accounts, KeepAUserAsItWasWhenTheObjectWasBuilt) {
  const VelaUser alice(std::string("alice"));

  folder_.Write("passwd", "eve:x:70009:100:::\n");
  EXPECT_EQ(VelaUser(std::string("eve")).Uid(), 70009U);

  EXPECT_EQ(alice.Name(), "alice");
  EXPECT_EQ(alice.Uid(), 70001U);
}

TEST_F(Accounts, FailWhenTheFileCannotBeReadAndNameIt) {
  std::filesystem::remove(folder_ / "passwd");
  configuration_.accounts.passwd_file = folder_ / "gone";
  UseConfiguration(configuration_);

  const auto failure = FailureOf([] { VelaUser(std::string("root")); });
  EXPECT_EQ(failure.code(), velamailserver::ERR_SDK_USER_GET);
  EXPECT_THAT(failure.what(), HasSubstr(folder_ / "gone"));
  EXPECT_EQ(FailureOf([] { velamailserver::conf::SmtpExt().EnumUsers(); }).code(),
            velamailserver::ERR_SDK_USER_ENUM);
}

TEST_F(Accounts, DoNotWaitForAFifoInTheFilesPlace) {
  ASSERT_EQ(::mkfifo((folder_ / "fifo").c_str(), 0600), 0);
  configuration_.accounts.passwd_file = folder_ / "fifo";
  UseConfiguration(configuration_);

  const auto failure = FailureOf([] { VelaUser(std::string("root")); });
  EXPECT_EQ(failure.code(), velamailserver::ERR_SDK_USER_GET);
  EXPECT_EQ(failure.what(),
            "cannot look up user [root]: " + (folder_ / "fifo") + ": is not a regular file");
}

TEST_F(Accounts, FailWhenTheFileIsTooLargeToBeOne) {
  std::filesystem::resize_file(folder_ / "group", 1ULL << 36U);

  const auto failure = FailureOf([] { VelaGroup(std::string("no-such-group")); });
  EXPECT_EQ(failure.code(), velamailserver::ERR_SDK_GROUP_GET);
  EXPECT_THAT(failure.what(), HasSubstr(folder_ / "group" + ": is larger than 262144 KiB"));
}

// As it is for a moment while it is rewritten in place.
TEST_F(Accounts, FailWhenTheFileIsEmpty) {
  EXPECT_EQ(VelaUser(std::string("alice")).Uid(), 70001U);
  folder_.Write("passwd", "");
  std::this_thread::sleep_for(std::chrono::milliseconds(60));

  for (const char* name : {"alice", "root"}) {
    const auto failure = FailureOf([name] { VelaUser(std::string(name)); });
    EXPECT_EQ(failure.code(), velamailserver::ERR_SDK_USER_GET);
    EXPECT_THAT(failure.what(), HasSubstr(folder_ / "passwd" + ": is empty"));
  }
  EXPECT_EQ(FailureOf([] { VelaUser(70001U); }).code(), velamailserver::ERR_SDK_USER_GET_BY_UID);
  EXPECT_EQ(FailureOf([] { velamailserver::conf::SmtpExt().EnumUsers(); }).code(),
            velamailserver::ERR_SDK_USER_ENUM);

  folder_.Write("passwd", "# nobody\n");
  EXPECT_EQ(VelaUser(std::string("root")).Uid(), 0U);
  EXPECT_THAT(velamailserver::conf::SmtpExt().EnumUsers(), IsEmpty());
}

TEST_F(Accounts, ReportALineThatIsNoEntryAndGoOn) {
  folder_.Write("passwd", "alice:x:70001:100:::\n<<<<<<< HEAD\nBob:x:70002:100:::\n");
  std::this_thread::sleep_for(std::chrono::milliseconds(60));

  EXPECT_EQ(VelaUser(std::string("bob")).Uid(), 70002U);

  EXPECT_THAT(folder_.Read("log"), HasSubstr(folder_ / "passwd" + ":2 is not an account entry"));
}

std::vector<std::string> MailUsers() {
  std::vector<std::string> names;
  for (const VelaUser& user : velamailserver::conf::SmtpExt().EnumUsers()) {
    names.push_back(user.Name());
  }
  return names;
}

TEST_F(Accounts, ListTheMailUsersOfTheFileWithinTheUidRangeOnceEach) {
  folder_.Write("passwd",
                "low:x:999:1:::\nlast:x:59999:1:::\nfirst:x:1000:1:::\nalias:x:1000:1:::\nhigh:x:"
                "60000:1:::\n");

  EXPECT_THAT(MailUsers(), ElementsAre("first", "last"));

  configuration_.accounts.min_uid = 60000;
  configuration_.accounts.max_uid = 60000;
  UseConfiguration(configuration_);
  EXPECT_THAT(MailUsers(), ElementsAre("high"));
}

TEST_F(Accounts, ListNoHostUsersBesideAFileOfVirtualOnes) {
  configuration_.accounts.min_uid = 0;
  configuration_.accounts.max_uid = 100000;
  UseConfiguration(configuration_);

  EXPECT_THAT(MailUsers(), ElementsAre("alice", "Bob"));
}

TEST_F(Accounts, ListTheHostsOwnUsersByDefault) {
  configuration_.accounts.passwd_file = "/etc/passwd";
  configuration_.accounts.min_uid = 0;
  configuration_.accounts.max_uid = 0;
  UseConfiguration(configuration_);

  EXPECT_THAT(MailUsers(), ElementsAre("root"));
}

std::vector<std::string> ListedGroups() {
  std::vector<std::string> names;
  for (const VelaGroup& group : ListGroups()) {
    names.push_back(group.Name());
  }
  return names;
}

TEST_F(Accounts, ListTheGroupsOfTheFileWithinTheGidRangeOnceEach) {
  folder_.Write("group",
                "low:x:999:\nlast:x:59999:alice\nfirst:x:1000:\nalias:x:1000:\nhigh:x:60000:\n");

  EXPECT_THAT(ListedGroups(), ElementsAre("first", "last"));

  configuration_.accounts.min_gid = 60000;
  configuration_.accounts.max_gid = 60000;
  UseConfiguration(configuration_);
  EXPECT_THAT(ListedGroups(), ElementsAre("high"));
}

TEST_F(Accounts, ListNoHostGroupsBesideAnotherFile) {
  configuration_.accounts.min_gid = 0;
  configuration_.accounts.max_gid = 100000;
  UseConfiguration(configuration_);

  EXPECT_THAT(ListedGroups(), ElementsAre("mailstaff"));
}

TEST_F(Accounts, ListTheHostsOwnGroupsByDefault) {
  configuration_.accounts.group_file = "/etc/group";
  configuration_.accounts.min_gid = 0;
  configuration_.accounts.max_gid = 0;
  UseConfiguration(configuration_);

  EXPECT_THAT(ListedGroups(), ElementsAre("root"));
}

TEST_F(Accounts, ListAGroupAddedAMomentAgo) {
  configuration_.accounts.max_gid = 100000;
  UseConfiguration(configuration_);
  EXPECT_THAT(ListedGroups(), ElementsAre("mailstaff"));

  std::ofstream(folder_ / "group", std::ios::app) << "sales:x:70101:\n";

  EXPECT_THAT(ListedGroups(), ElementsAre("mailstaff", "sales"));
}

TEST_F(Accounts, FailToListGroupsOfAFileThatCannotBeRead) {
  std::filesystem::remove(folder_ / "group");

  const auto failure = FailureOf([] { ListGroups(); });
  EXPECT_EQ(failure.code(), velamailserver::ERR_SDK_GROUP_INFO_ENUM_BY_SUBSTR);
  EXPECT_EQ(failure.what(),
            "cannot list the groups: " + (folder_ / "group") + ": No such file or directory");
}

TEST_F(Accounts, ServeSeveralThreadsWhileTheFileChanges) {
  std::vector<std::thread> readers;
  for (int i = 0; i < 4; ++i) {
    readers.emplace_back([] {
      for (int n = 0; n < 2000; ++n) {
        EXPECT_EQ(VelaUser(std::string("ALICE")).Uid(), 70001U);
      }
    });
  }
  for (int n = 0; n < 50; ++n) {
    folder_.Write("passwd.new",
                  "alice:x:70001:100:::\n" + std::string(static_cast<std::size_t>(n), '#') + "\n");
    std::filesystem::rename(folder_ / "passwd.new", folder_ / "passwd");
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  for (std::thread& reader : readers) {
    reader.join();
  }
}

}  // namespace
}  // namespace quillon::platform
