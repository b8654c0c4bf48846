#include <chrono>
#include <cstdint>
#include <filesystem>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <quillon/platform/configuration.h>
#include <velamailserver/log_exception.h>
#include <velamailserver/velasdk/admin_group.h>

#include "accounts/account_database.h"
#include "nss_quillontest.h"
#include "nss_quillonwalk.h"
#include "support/own_mounts.h"
#include "support/own_process.h"
#include "support/temporary_folder.h"

namespace quillon::platform {
namespace {

using test::NameServiceAnswer;
using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using velamailserver::LogException;
using velamailserver::velasdk::IsAdminGroupMember;
namespace fs = std::filesystem;

constexpr char kUsers[] =
    "alice:x:70001:100:::\nBob:x:70002:200:::\nbob:x:70003:300:::\ncarol:x:70004:80:::\n"
    "root:x:70005:500:::\n";

// A host with files of virtual users and of groups.
class Groups : public testing::Test {
 protected:
  Groups() {
    configuration_.accounts.passwd_file = folder_.Write("passwd", kUsers);
    configuration_.accounts.group_file = folder_.Write("group", "users:x:100:\n");
    configuration_.accounts.admin_group = "wheel";
    configuration_.log = {"file", folder_ / "log"};
    UseConfiguration(configuration_);
  }

  void WriteGroups(const std::string& text) const {
    folder_.Write("group.new", text);
    fs::rename(folder_ / "group.new", folder_ / "group");
    std::this_thread::sleep_for(std::chrono::milliseconds(60));
  }

  static std::vector<std::uint32_t> Of(const std::string& user) {
    const auto entry = FindUser(user);
    EXPECT_NE(entry, nullptr) << user;
    return entry ? GroupsOf(*entry) : std::vector<std::uint32_t>();
  }

  template <typename Question>
  static LogException FailureOf(const Question& question) {
    try {
      question();
    } catch (const LogException& error) {
      return error;
    }
    ADD_FAILURE() << "there was an answer";
    return {velamailserver::ERR_INTERNAL, "", 3, "", 0};
  }

  test::TemporaryFolder folder_;
  Configuration configuration_;
};

TEST_F(Groups, OfAUserAreThePrimaryOneAndTheOnesThatListTheUser) {
  WriteGroups("users:x:100:\nstaff:x:50:alice,carol\nsales:x:60:alice\nothers:x:70:carol\n");

  EXPECT_THAT(Of("alice"), ElementsAre(50, 60, 100));
  EXPECT_THAT(Of("ALICE"), ElementsAre(50, 60, 100));
  EXPECT_THAT(Of("carol"), ElementsAre(50, 70, 80)) << "80 is no group's";
}

TEST_F(Groups, CountOnceEach) {
  WriteGroups("users:x:100:alice\nstaff:x:50:alice,alice\nstaff:x:50:alice\nalias:x:50:alice\n");

  EXPECT_THAT(Of("alice"), ElementsAre(50, 100));
}

TEST_F(Groups, ListUsersByNamesThatAreLookedUpAsAccountsAre) {
  WriteGroups("a:x:10:ALICE\nb:x:20:Bob\nc:x:30:bob\nd:x:40:BOB\n");

  EXPECT_THAT(Of("alice"), ElementsAre(10, 100));
  EXPECT_THAT(Of("Bob"), ElementsAre(20, 40, 200)) << "the first in the file is BOB, too";
  EXPECT_THAT(Of("bob"), ElementsAre(30, 300));
}

TEST_F(Groups, FollowTheFile) {
  EXPECT_THAT(Of("alice"), ElementsAre(100));
  WriteGroups("users:x:100:\nstaff:x:50:alice\n");
  EXPECT_THAT(Of("alice"), ElementsAre(50, 100));
  WriteGroups("users:x:100:\n");
  EXPECT_THAT(Of("alice"), ElementsAre(100));
}

// A host whose switch has this line for groups, and files of its own.
class HostGroups : public Groups {
 protected:
  template <typename Body>
  void OnHost(const std::string& switch_lines, const Body& body) {
    folder_.Write("nsswitch.conf", "passwd: files\n" + switch_lines + "\n");
    folder_.Write("host-passwd", "root:x:0:0:::\nhanna:x:80001:800:::\nalice:x:80002:801:::\n");
    folder_.Write("host-group", "root:x:0:\nwheel:x:10:hanna,alice,root\nhosts:x:810:hanna\n");
    test::InOwnMounts([&] {
      test::BindOver("/etc/nsswitch.conf", folder_ / "nsswitch.conf");
      test::BindOver("/etc/passwd", folder_ / "host-passwd");
      test::BindOver("/etc/group", folder_ / "host-group");
      body();
    });
  }

  void UseHostFiles() {
    configuration_.accounts.passwd_file = "/etc/passwd";
    configuration_.accounts.group_file = "/etc/group";
    UseConfiguration(configuration_);
  }
};

TEST_F(HostGroups, AreThoseOfTheFileAndOfEveryNameService) {
  UseHostFiles();
  OnHost("group: files [SUCCESS=return] quillontest", [] {
    test::name_service_answer = NameServiceAnswer::kFound;
    test::name_service_gids = {900, 810, 901};
    EXPECT_THAT(Of("hanna"), ElementsAre(10, 800, 810, 900, 901));
    EXPECT_EQ(test::name_service_user, "hanna");
    for (const auto none :
         {NameServiceAnswer::kNotFound, NameServiceAnswer::kUnavailableForNoSuch}) {
      test::name_service_answer = none;
      EXPECT_THAT(Of("hanna"), ElementsAre(10, 800, 810));
    }
  });
}

// With the services that this host really has.
TEST_F(HostGroups, AreKnownOnThisHost) {
  UseHostFiles();
  test::InOwnProcess([] {  // which has the files remembered
    EXPECT_THAT(Of("root"), Contains(0));
    EXPECT_THAT(Of("daemon"), Contains(1));
  });
}

TEST_F(HostGroups, MayBeMoreThanAServicesFirstList) {
  UseHostFiles();
  OnHost("group: quillontest", [] {
    test::name_service_answer = NameServiceAnswer::kFound;
    for (gid_t gid = 1000; gid < 2000; ++gid) {
      test::name_service_gids.push_back(gid);
    }
    EXPECT_EQ(Of("hanna").size(), 1003U);
  });
}

TEST_F(HostGroups, ComeFromTheLineForThemWhenTheSwitchHasOne) {
  UseHostFiles();
  OnHost("group: files\ninitgroups: files quillontest", [] {
    test::name_service_answer = NameServiceAnswer::kFound;
    test::name_service_gids = {900};
    EXPECT_THAT(Of("hanna"), ElementsAre(10, 800, 810, 900));
  });
  OnHost("group: quillontest\ninitgroups: files", [] {
    test::name_service_answer = NameServiceAnswer::kFound;
    test::name_service_gids = {900};
    EXPECT_THAT(Of("hanna"), ElementsAre(10, 800, 810));
  });
}

TEST_F(HostGroups, CountBesideAnotherFileOfGroups) {
  configuration_.accounts.passwd_file = "/etc/passwd";
  WriteGroups("mail:x:70100:hanna\n");
  UseConfiguration(configuration_);
  OnHost("group: files quillontest", [] {
    test::name_service_answer = NameServiceAnswer::kFound;
    test::name_service_gids = {900};
    EXPECT_THAT(Of("hanna"), ElementsAre(10, 800, 810, 900, 70100));
  });
}

// A virtual user may have the name of an administrator of the host.
TEST_F(HostGroups, AreNotThoseOfAVirtualUserOfTheSameName) {
  WriteGroups("mail:x:70100:alice,hanna\n");
  OnHost("group: files quillontest", [] {
    test::name_service_answer = NameServiceAnswer::kFound;
    test::name_service_gids = {900};
    EXPECT_THAT(Of("alice"), ElementsAre(100, 70100));
    EXPECT_THAT(Of("root"), ElementsAre(500));
    EXPECT_EQ(test::name_service_questions, 0);
    EXPECT_FALSE(IsAdminGroupMember("alice"));

    EXPECT_THAT(Of("hanna"), ElementsAre(10, 800, 810, 900, 70100)) << "is the host's";
    EXPECT_TRUE(IsAdminGroupMember("hanna"));
  });
}

TEST_F(HostGroups, AreNotKnownWhenAServiceFails) {
  UseHostFiles();
  for (const auto answer :
       {NameServiceAnswer::kUnavailable, NameServiceAnswer::kUnavailableWithoutReason,
        NameServiceAnswer::kTryAgain, NameServiceAnswer::kNeverEnoughSpace}) {
    OnHost("group: files quillontest", [answer] {
      test::name_service_answer = answer;
      const auto failure = FailureOf([] { IsAdminGroupMember("hanna"); });
      EXPECT_EQ(failure.code(), velamailserver::ERR_SDK_GROUP_IS_ADMIN_MEMBER);
      EXPECT_THAT(
          failure.what(),
          HasSubstr("cannot find out whether user [hanna] is in group [wheel]: name service "
                    "[quillontest] of /etc/nsswitch.conf has no answer: "));
    });
  }
  OnHost("group: files quillonnone", [] {
    EXPECT_THAT(FailureOf([] { IsAdminGroupMember("hanna"); }).what(),
                HasSubstr("[quillonnone] of /etc/nsswitch.conf cannot be asked"));
  });
}

// Some services cannot say which groups a user is in.
class WalkedGroups : public HostGroups {
 protected:
  WalkedGroups() { UseHostFiles(); }

  static void SetAnswer(NameServiceAnswer answer) { test::name_service_answer = answer; }
};

TEST_F(WalkedGroups, AreThoseThatListTheUser) {
  OnHost("group: files quillonwalk", [] {
    SetAnswer(NameServiceAnswer::kFound);
    test::walked_groups = {
        {900, {"alice", "hanna"}}, {901, {}}, {902, {"Hanna", "hannah"}}, {903, {"hanna"}}};
    EXPECT_THAT(Of("hanna"), ElementsAre(10, 800, 810, 900, 903));
    EXPECT_THAT(Of("alice"), ElementsAre(10, 801, 900));
    EXPECT_THAT(Of("root"), ElementsAre(0, 10));
    EXPECT_EQ(test::walks_open, 0);
  });
}

TEST_F(WalkedGroups, MayHaveVeryManyMembers) {
  OnHost("group: files quillonwalk", [] {
    SetAnswer(NameServiceAnswer::kFound);
    test::walked_groups = {{900, std::vector<std::string>(100'000, "somebody")}, {901, {"hanna"}}};
    test::walked_groups.front().members.emplace_back("hanna");
    EXPECT_THAT(Of("hanna"), ElementsAre(10, 800, 810, 900, 901));
  });
}

TEST_F(WalkedGroups, AreWalkedThroughForManyUsersAtOnce) {
  OnHost("group: files quillonwalk", [] {
    SetAnswer(NameServiceAnswer::kFound);
    test::walked_groups = {{900, {"hanna"}}};
    const auto begin = std::chrono::steady_clock::now();
    for (int i = 0; i < 1000; ++i) {
      EXPECT_THAT(Of("hanna"), Contains(900));
    }
    const auto passed = std::chrono::steady_clock::now() - begin;
    EXPECT_LE(test::walks_begun, 1 + passed / std::chrono::milliseconds(50));

    test::walked_groups = {{901, {"hanna"}}};
    std::this_thread::sleep_for(std::chrono::milliseconds(60));
    EXPECT_THAT(Of("hanna"), ElementsAre(10, 800, 810, 901));
  });
}

TEST_F(WalkedGroups, AreNotKnownWhenAServiceFails) {
  for (const auto& [answer, reason] :
       {std::pair(NameServiceAnswer::kUnavailable, "Connection refused"),
        std::pair(NameServiceAnswer::kUnavailableWithoutReason, "it is not available"),
        std::pair(NameServiceAnswer::kTryAgain, "temporarily unavailable"),
        std::pair(NameServiceAnswer::kNeverEnoughSpace, "out of range")}) {
    OnHost("group: files quillonwalk", [answer = answer, reason = reason] {
      SetAnswer(answer);
      EXPECT_THAT(FailureOf([] { IsAdminGroupMember("hanna"); }).what(),
                  AllOf(HasSubstr("name service [quillonwalk] of /etc/nsswitch.conf has no answer"),
                        HasSubstr(reason)));
      EXPECT_EQ(test::walks_open, 0);
    });
  }
}

class AdminGroup : public Groups {};

TEST_F(AdminGroup, HasTheMembersThatItLists) {
  WriteGroups("Wheel:x:10:alice\nusers:x:100:carol\n");

  EXPECT_TRUE(IsAdminGroupMember("alice"));
  EXPECT_TRUE(IsAdminGroupMember("Alice"));
  EXPECT_FALSE(IsAdminGroupMember("carol"));
}

TEST_F(AdminGroup, HasTheMembersWhosePrimaryGroupItIs) {
  WriteGroups("wheel:x:100:\n");

  EXPECT_TRUE(IsAdminGroupMember("alice"));
  EXPECT_FALSE(IsAdminGroupMember("bob"));
}

TEST_F(AdminGroup, HasTheMembersOfAnotherNameOfIts) {
  WriteGroups("wheel:x:10:carol\nadmins:x:10:alice\n");

  EXPECT_TRUE(IsAdminGroupMember("alice"));
  EXPECT_TRUE(IsAdminGroupMember("carol"));
  EXPECT_FALSE(IsAdminGroupMember("bob"));
}

TEST_F(AdminGroup, HasNoMemberThatIsNoUser) {
  WriteGroups("wheel:x:10:nobody-such\n");

  for (const std::string& name : {std::string("nobody-such"), std::string(),
                                  std::string("alice\0x", 7), std::string("a:b")}) {
    EXPECT_FALSE(IsAdminGroupMember(name)) << name;
  }
}

TEST_F(AdminGroup, NeedNotBe) {
  EXPECT_FALSE(IsAdminGroupMember("alice")) << "no group has its name";

  for (const char* name : {"", "no-such-group"}) {
    configuration_.accounts.admin_group = name;
    UseConfiguration(configuration_);
    EXPECT_FALSE(IsAdminGroupMember("alice")) << name;
  }
}

TEST_F(AdminGroup, IsNotKnownWhenAFileCannotBeRead) {
  WriteGroups("wheel:x:10:alice\n");
  fs::remove(folder_ / "passwd");
  configuration_.accounts.passwd_file = folder_ / "gone";
  UseConfiguration(configuration_);
  const auto failure = FailureOf([] { IsAdminGroupMember("alice"); });
  EXPECT_EQ(failure.code(), velamailserver::ERR_SDK_GROUP_IS_ADMIN_MEMBER);
  EXPECT_EQ(failure.what(), "cannot find out whether user [alice] is in group [wheel]: " +
                                (folder_ / "gone") + ": No such file or directory");

  configuration_.accounts.passwd_file = folder_.Write("passwd", kUsers);
  configuration_.accounts.group_file = folder_ / "no-groups";
  UseConfiguration(configuration_);
  EXPECT_EQ(FailureOf([] { IsAdminGroupMember("alice"); }).code(),
            velamailserver::ERR_SDK_GROUP_IS_ADMIN_MEMBER);
  EXPECT_THAT(folder_.Read("log"), AllOf(HasSubstr(folder_ / "gone"), HasSubstr("no-groups")));
}

}  // namespace
}  // namespace quillon::platform
