#include "accounts/nobody.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <filesystem>
#include <new>
#include <string>
#include <thread>
#include <utility>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <quillon/platform/configuration.h>

#include "lib-webapi/allocations.h"
#include "nss_quillontest.h"
#include "support/own_mounts.h"
#include "support/own_process.h"
#include "support/temporary_folder.h"

namespace quillon::platform {
namespace {

using test::NameServiceAnswer;
using testing::AllOf;
using testing::HasSubstr;
namespace fs = std::filesystem;

constexpr std::uint32_t kAlice = 3000000001;
constexpr std::uint32_t kNew = 3000000002;
constexpr std::uint32_t kUnknown = 3000000003;
const std::string kAliceOnly = "alice:x:3000000001:100::/:\n";
const std::string kAliceAndNew = kAliceOnly + "new:x:3000000002:100::/:\n";

// The tests are processes of their own, because what was logged is not logged again for a minute.
class Nobody : public testing::Test {
 protected:
  Nobody() {
    configuration_.accounts.passwd_file = folder_.Write("passwd", kAliceOnly);
    configuration_.log = {"file", folder_ / "mail.log"};
    UseConfiguration(configuration_);
  }

  // On a host whose name service switch has this line for users.
  template <typename Body>
  void CheckWithServices(const std::string& services, const Body& body) {
    folder_.Write("nsswitch.conf", "group: files\n passwd : " + services + "\n");
    test::InOwnMounts([&] {
      test::BindOver("/etc/nsswitch.conf", folder_ / "nsswitch.conf");
      body();
    });
  }

  static void ExpectEverybodyToBeSomebody() {
    for (const std::uint32_t uid : {kAlice, kUnknown, 0U, 4294967295U}) {
      EXPECT_FALSE(IsNobody(uid)) << uid;
      EXPECT_FALSE(IsNobodyAskedAfresh(uid)) << uid;
    }
  }

  std::string Log() const {
    return fs::exists(folder_ / "mail.log") ? folder_.Read("mail.log") : "";
  }

  test::TemporaryFolder folder_;
  Configuration configuration_;
};

TEST_F(Nobody, IsWhomNeitherTheFileNorTheHostKnows) {
  test::InOwnProcess([&] {
    EXPECT_TRUE(IsNobody(kUnknown));
    EXPECT_TRUE(IsNobodyAskedAfresh(kUnknown));
    for (const std::uint32_t uid : {kAlice, 0U}) {
      EXPECT_FALSE(IsNobody(uid)) << uid;
      EXPECT_FALSE(IsNobodyAskedAfresh(uid)) << uid;
    }
    EXPECT_EQ(Log(), "");
  });
}

TEST_F(Nobody, IsNotWhoWasGivenTheUidMeanwhile) {
  test::InOwnProcess([&] {
    EXPECT_TRUE(IsNobody(kNew));
    folder_.Write("passwd", kAliceAndNew);
    EXPECT_FALSE(IsNobodyAskedAfresh(kNew));
    EXPECT_FALSE(IsNobody(kNew));
    EXPECT_TRUE(IsNobodyAskedAfresh(kUnknown));
  });
}

// As the writes of a program that has it in its memory.
TEST_F(Nobody, IsNotWhoIsInAFileThatDoesNotLookChanged) {
  folder_.Write("passwd", kAliceAndNew);
  test::InOwnProcess([&] {
    const int file = ::open((folder_ / "passwd").c_str(), O_RDWR | O_CLOEXEC);
    void* const memory =
        ::mmap(nullptr, kAliceAndNew.size(), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
    ASSERT_NE(memory, MAP_FAILED);
    char* const digit = static_cast<char*>(memory) + kAliceAndNew.find("3000000002");
    *digit = '4';  // from now on the file keeps its times
    EXPECT_TRUE(IsNobody(kNew));
    *digit = '3';
    EXPECT_TRUE(IsNobody(kNew)) << "its times have changed: this shows nothing";
    EXPECT_FALSE(IsNobodyAskedAfresh(kNew));
  });
}

TEST_F(Nobody, IsNoneOfTheNamesInTheFile) {
  test::InOwnProcess([&] {
    folder_.Write("passwd",
                  "\xef\xbb\xbf"
                  "first:x:3000000001:1:::\n# users\n\nalias:x:3000000001:1:::\n"
                  "last:x:3000000002:1:::");
    EXPECT_FALSE(IsNobodyAskedAfresh(kAlice));
    EXPECT_FALSE(IsNobodyAskedAfresh(kNew));
    EXPECT_TRUE(IsNobodyAskedAfresh(kUnknown));
  });
}

struct UnusableFile {
  const char* content;
  const char* problem;
};

class NobodyByAFile : public Nobody, public testing::WithParamInterface<UnusableFile> {};

TEST_P(NobodyByAFile, IsThereWhenItCannotBeUsed) {
  folder_.Write("passwd", GetParam().content);
  test::InOwnProcess([&] {
    ExpectEverybodyToBeSomebody();
    EXPECT_THAT(Log(), AllOf(HasSubstr(folder_ / "passwd"), HasSubstr(GetParam().problem)));
  });
}

INSTANTIATE_TEST_SUITE_P(
    Accounts, NobodyByAFile,
    testing::Values(UnusableFile{"", "is empty"},
                    UnusableFile{"alice:x:3000000001:100::/:\nbob:x:30\n", "line 2 is not"},
                    UnusableFile{"b:x:x:1:::\nalice:x:3000000001:100::/:\n", "line 1 is not"},
                    UnusableFile{"\n# all\nbob:x:4294967296:1:::\n", "line 3 is not"}));

TEST_F(Nobody, IsThereOnlyByAFile) {
  test::InOwnProcess([&] {
    EXPECT_TRUE(IsNobody(kUnknown));
    const std::string file = folder_ / "passwd";
    fs::remove(file);
    ExpectEverybodyToBeSomebody();
    EXPECT_THAT(Log(), HasSubstr(file + ": No such file"));

    fs::create_directory(file);
    ExpectEverybodyToBeSomebody();
    EXPECT_THAT(Log(), HasSubstr(file + ": Is a directory"));

    fs::remove(file);
    ASSERT_EQ(::mkfifo(file.c_str(), 0600), 0);
    ExpectEverybodyToBeSomebody();

    fs::remove(file);
    folder_.Write("passwd", kAliceOnly);
    EXPECT_TRUE(IsNobody(kUnknown));
    EXPECT_TRUE(IsNobodyAskedAfresh(kUnknown));
  });
}

TEST_F(Nobody, HasTheReasonAgainstItLoggedOnce) {
  fs::remove(folder_ / "passwd");
  test::InOwnProcess([&] {
    for (std::uint32_t uid = kUnknown; uid < kUnknown + 1000; ++uid) {
      EXPECT_FALSE(IsNobody(uid));
    }
    const std::string log = Log();
    EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 1) << log;
    EXPECT_THAT(log, HasSubstr("warning: platform/linux/accounts/nobody:"));

    folder_.Write("passwd", "");
    EXPECT_FALSE(IsNobody(kUnknown));
    EXPECT_THAT(Log(), HasSubstr("is empty"));
  });
}

struct Services {
  const char* line;
  NameServiceAnswer answer;
  const char* problem;
};

class NobodyByNameServices : public Nobody, public testing::WithParamInterface<Services> {};

TEST_P(NobodyByNameServices, IsThereOnlyWhenAllAnswer) {
  CheckWithServices(GetParam().line, [&] {
    test::name_service_answer = GetParam().answer;
    ExpectEverybodyToBeSomebody();
    EXPECT_THAT(Log(), HasSubstr(GetParam().problem));

    test::name_service_answer = NameServiceAnswer::kNotFound;
    const bool is_installed = std::string(GetParam().line).find("quillonnone") == std::string::npos;
    EXPECT_EQ(IsNobody(kUnknown), is_installed);
    EXPECT_EQ(IsNobodyAskedAfresh(kUnknown), is_installed);
  });
}

constexpr char kNoAnswer[] = "name service [quillontest] of /etc/nsswitch.conf has no answer: ";

INSTANTIATE_TEST_SUITE_P(
    Accounts, NobodyByNameServices,
    testing::Values(
        Services{"files quillontest", NameServiceAnswer::kUnavailable, "Connection refused"},
        Services{"files quillontest", NameServiceAnswer::kUnavailableWithoutReason, kNoAnswer},
        Services{"files quillontest", NameServiceAnswer::kTryAgain, "temporarily unavailable"},
        Services{"files quillontest", NameServiceAnswer::kNeverEnoughSpace, "out of range"},
        // The host forgets that they cannot tell, because "files" knows of no such user.
        Services{"quillontest files", NameServiceAnswer::kUnavailable, kNoAnswer},
        Services{"quillontest files", NameServiceAnswer::kUnavailableWithoutReason, kNoAnswer},
        Services{"quillontest files", NameServiceAnswer::kTryAgain, kNoAnswer},
        Services{"files[SUCCESS=return NOTFOUND=continue]quillontest [UNAVAIL=continue] files # x",
                 NameServiceAnswer::kUnavailable, kNoAnswer},
        Services{"quillonnone files # quillontest", NameServiceAnswer::kNotFound, "[quillonnone]"},
        Services{"files quillonnone", NameServiceAnswer::kNotFound, "[quillonnone]"}));

TEST_F(Nobody, IsNotWhomANameServiceKnows) {
  CheckWithServices("files quillontest", [] {
    EXPECT_TRUE(IsNobody(kUnknown));
    test::name_service_answer = NameServiceAnswer::kFound;
    EXPECT_FALSE(IsNobody(kUnknown));
    EXPECT_FALSE(IsNobodyAskedAfresh(kUnknown));
  });
}

TEST_F(Nobody, IsNotWhomAServiceKnowsThatThereIsNoMemoryToReadOf) {
  CheckWithServices("[SUCCESS=return NOTFOUND=continue] files quillontest", [] {
    test::name_service_answer = NameServiceAnswer::kFound;
    int answers = 0;
    for (int allocations = 0; allocations < 200; ++allocations) {
      try {
        const test::ExhaustedMemory memory(allocations);
        EXPECT_FALSE(IsNobodyAskedAfresh(kUnknown)) << allocations;
        ++answers;
      } catch (const std::bad_alloc&) {
      }
    }
    EXPECT_GT(answers, 0);
  });
}

// What answers from memory, as nscd and databases of the host's do, keeps others from being asked.
TEST_F(Nobody, IsNotWhomAServiceBehindAStaleOneKnows) {
  CheckWithServices("compat [NOTFOUND=return] quillontest", [] {
    EXPECT_TRUE(IsNobody(kUnknown));
    test::name_service_answer = NameServiceAnswer::kFound;
    EXPECT_FALSE(IsNobody(kUnknown));
    EXPECT_FALSE(IsNobodyAskedAfresh(kUnknown));
  });
}

TEST_F(Nobody, IsNotWhoIsInTheHostsOwnFileBehindAStaleDatabase) {
  folder_.Write("host", kAliceAndNew);
  CheckWithServices("quillontest [NOTFOUND=return] files", [&] {
    test::BindOver("/etc/passwd", folder_ / "host");
    EXPECT_FALSE(IsNobody(kNew));
    EXPECT_FALSE(IsNobodyAskedAfresh(kNew));
    EXPECT_TRUE(IsNobody(kUnknown));
    EXPECT_TRUE(IsNobodyAskedAfresh(kUnknown));
  });
}

TEST_F(Nobody, IsThereOnlyByTheHostsOwnFile) {
  for (const auto& [content, problem] :
       {std::pair("", "is empty"), std::pair("root:x:0:0:::\nbob:x:30\n", "line 2 is not")}) {
    folder_.Write("host", content);
    CheckWithServices("quillontest [NOTFOUND=return] files", [&, problem = problem] {
      test::BindOver("/etc/passwd", folder_ / "host");
      EXPECT_FALSE(IsNobody(kUnknown));
      EXPECT_THAT(Log(), HasSubstr(std::string("/etc/passwd: ") + problem));
      EXPECT_FALSE(IsNobodyAskedAfresh(kUnknown));
    });
  }
}

// In the middle of a scan.
TEST_F(Nobody, IsNoMoreOnceAServiceHasFailed) {
  CheckWithServices("quillontest files", [] {
    EXPECT_TRUE(IsNobody(kUnknown));
    test::name_service_answer = NameServiceAnswer::kUnavailable;
    EXPECT_FALSE(IsNobody(kUnknown));
  });
}

TEST_F(Nobody, HasTheServicesThatTheHostHasNow) {
  CheckWithServices("files quillonnone", [&] {
    EXPECT_FALSE(IsNobody(kUnknown));
    folder_.Write("nsswitch.conf", "passwd: files\n");
    EXPECT_TRUE(IsNobody(kUnknown));
    folder_.Write("nsswitch.conf", "passwd: files quillontest\n");
    test::name_service_answer = NameServiceAnswer::kFound;
    EXPECT_FALSE(IsNobody(kUnknown));
  });
}

TEST_F(Nobody, CostsAScanOneQuestionPerUid) {
  CheckWithServices("files quillontest", [] {
    for (std::uint32_t uid = kUnknown; uid < kUnknown + 100; ++uid) {
      EXPECT_TRUE(IsNobody(uid));
    }
    EXPECT_EQ(test::name_service_questions, 100);
  });
}

TEST_F(Nobody, IsNotThereWhileAServiceDoesNotAnswer) {
  for (const bool is_asked_afresh : {false, true}) {
    CheckWithServices("files quillontest", [&] {
      test::name_service_answer = NameServiceAnswer::kNever;
      const pid_t asking = ::fork();
      if (asking == 0) {
        const bool is_nobody = is_asked_afresh ? IsNobodyAskedAfresh(kUnknown) : IsNobody(kUnknown);
        ::_exit(is_nobody ? 1 : 0);
      }
      std::this_thread::sleep_for(std::chrono::seconds(1));
      int status = 0;
      if (::waitpid(asking, &status, WNOHANG) == 0) {
        ::kill(asking, SIGKILL);
        ::waitpid(asking, nullptr, 0);
      }
      EXPECT_EQ(status, 0);
    });
  }
}

// Without one, the C library asks "files" alone.
TEST_F(Nobody, NeedsNoNameServiceSwitch) {
  fs::create_directory(folder_ / "etc");
  fs::copy_file("/etc/passwd", folder_ / "etc/passwd");
  test::InOwnMounts([&] {
    test::BindOver("/etc", folder_ / "etc");
    EXPECT_TRUE(IsNobody(kUnknown));
    EXPECT_TRUE(IsNobodyAskedAfresh(kUnknown));
    EXPECT_FALSE(IsNobody(0));
  });
}

TEST_F(Nobody, IsNotThereByANameServiceSwitchThatCannotBeRead) {
  fs::create_directories(folder_ / "etc/nsswitch.conf");
  fs::copy_file("/etc/passwd", folder_ / "etc/passwd");
  test::InOwnMounts([&] {
    test::BindOver("/etc", folder_ / "etc");
    ExpectEverybodyToBeSomebody();
    EXPECT_THAT(Log(), HasSubstr("/etc/nsswitch.conf: Is a directory"));

    fs::remove("/etc/nsswitch.conf");
    fs::create_symlink("nsswitch.conf", "/etc/nsswitch.conf");
    ExpectEverybodyToBeSomebody();
    EXPECT_THAT(Log(), HasSubstr("/etc/nsswitch.conf: Too many levels of symbolic links"));
  });
}

class AccountAskedAfresh : public Nobody {};

TEST_F(AccountAskedAfresh, IsWhatTheFileSays) {
  test::InOwnProcess([&] {
    EXPECT_TRUE(IsAccountAskedAfresh(kAlice, "alice"));
    EXPECT_FALSE(IsAccountAskedAfresh(kAlice, "Alice"));
    EXPECT_FALSE(IsAccountAskedAfresh(kUnknown, "alice"));
    EXPECT_TRUE(IsAccountAskedAfresh(0, "root"));
    EXPECT_EQ(Log(), "");

    folder_.Write("passwd", "carol:x:3000000001:100::/:\n");
    EXPECT_FALSE(IsAccountAskedAfresh(kAlice, "alice"));
    EXPECT_TRUE(IsAccountAskedAfresh(kAlice, "carol"));
    folder_.Write("passwd", "carol:x:3000000002:100::/:\n");
    EXPECT_FALSE(IsAccountAskedAfresh(kAlice, "carol"));

    fs::remove(folder_ / "passwd");
    EXPECT_FALSE(IsAccountAskedAfresh(kAlice, "carol"));
    EXPECT_THAT(Log(), HasSubstr("No such file"));
  });
}

}  // namespace
}  // namespace quillon::platform
