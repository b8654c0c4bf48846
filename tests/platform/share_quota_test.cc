#include "webapi/share_quota.h"

#include <fcntl.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <limits>
#include <map>
#include <optional>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <quillon/platform/configuration.h>
#include <vela/api_runner.h>
#include <velamailserver/log_exception.h>
#include <velamailserver/share_quota.h>

#include "support/as_nobody.h"
#include "support/own_process.h"
#include "support/parse_json.h"
#include "support/temporary_folder.h"
#include "support/typed_json.h"
#include "utils/file_descriptor.h"
#include "webapi/host_apis.h"

namespace quillon::platform {
namespace {

using test::Compact;
using test::Parse;
using test::Typed;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;
using velamailserver::LogException;
using velamailserver::velasdk::VelaUser;
namespace tarn = velamailserver::webapi::tarn;

constexpr auto kUser = QuotaSubject::kUser;
constexpr auto kGroup = QuotaSubject::kGroup;
constexpr std::uint64_t kMegabyte = 1024;  // in the kernel's units

// A host whose kernel answers what the test says: no quotas unless there is one in `quotas_`.
class ShareQuota : public testing::Test {
 protected:
  using Subject = std::pair<QuotaSubject, std::uint32_t>;

  ShareQuota() {
    configuration_.accounts.passwd_file =
        folder_.Write("passwd", "ann:x:70001:70100:::\nBob:x:70002:70100:::\n");
    configuration_.accounts.group_file =
        folder_.Write("group", "staff:x:70100:\nsales:x:70101:ann\nidle:x:70102:ann\n");
    configuration_.accounts.admin_group = "";
    configuration_.maildir.root = folder_ / "spool";
    configuration_.log = {"file", folder_.Write("mail.log", "")};
    std::filesystem::create_directory(configuration_.maildir.root);
    std::filesystem::permissions(configuration_.log.file, std::filesystem::perms::all);
    std::filesystem::permissions(folder_.path(), std::filesystem::perms::all);
    UseConfiguration(configuration_);
    gids_["ann"] = {70100, 70101, 70102};
    gids_["Bob"] = {70100};
    VELA::APIRunner::Register("VELA.Core.Quota", 1, "get",
                              [this](const Json::Value& params) { return Get(params); });
  }

  ~ShareQuota() override {
    VELA::APIRunner::Register("VELA.Core.Quota", 1, "get", [](const Json::Value& params) {
      return quillon::platform::GetShareQuota(params);
    });
  }

  Json::Value Get(const Json::Value& params) {
    return GetShareQuota(
        params, {.read_quota = [this](int folder, QuotaSubject subject,
                                      std::uint32_t id) { return Read(folder, subject, id); },
                 .gids_of = [this](const VelaUser& user) { return gids_.at(user.Name()); }});
  }

  // What the parameters are answered with.
  std::string Answer(const std::string& params) { return Typed(Get(Parse(params))); }
  std::string AnswerForUser(const std::string& name) {
    return Answer(R"({"name":")" + name + R"(","support_share_quota":true})");
  }
  std::string AnswerForGroup(const std::string& name) {
    return Answer(R"({"name":")" + name +
                  R"(","subject_type":"group","support_share_quota":true})");
  }

  // The whole envelope of a call that fails.
  static Json::Value Failure(const std::string& params) {
    Json::Value response;
    VELA::APIRunner::Exec(response, "VELA.Core.Quota", 1, "get", Parse(params), "admin");
    EXPECT_EQ(response["success"], false) << Compact(response);
    return response["error"];
  }

  test::TemporaryFolder folder_;
  Configuration configuration_;
  std::map<Subject, KernelQuota> quotas_;
  std::map<std::string, std::vector<std::uint32_t>> gids_;
  int error_ = 0;                       // that the kernel answers with
  std::vector<std::string> questions_;  // that the kernel was asked

 private:
  std::optional<KernelQuota> Read(int folder, QuotaSubject subject, std::uint32_t id) {
    questions_.push_back((subject == kUser ? "user " : "group ") + std::to_string(id));
    struct stat asked {};
    struct stat root {};
    EXPECT_EQ(::fstat(folder, &asked), 0);
    EXPECT_EQ(::stat(configuration_.maildir.root.c_str(), &root), 0);
    EXPECT_EQ(asked.st_ino, root.st_ino);
    EXPECT_EQ(::geteuid(), 0U);
    if (error_ != 0) {
      throw std::system_error(error_, std::generic_category(), "the kernel");
    }
    const auto found = quotas_.find({subject, id});
    return found == quotas_.end() ? std::nullopt : std::optional(found->second);
  }
};

TEST_F(ShareQuota, OfAUserIsItsOwnAndTheLargestOfItsGroups) {
  quotas_ = {{{kUser, 70001}, {.hard = 5 * kMegabyte}},
             {{kGroup, 70100}, {.hard = 7 * kMegabyte}},
             {{kGroup, 70101}, {.hard = 9 * kMegabyte}},
             {{kGroup, 70102}, {.hard = 8 * kMegabyte}}};

  EXPECT_EQ(AnswerForUser("ann"),
            R"({"user_quota":[{"shares":[{"group_limit":9u,"name":"Quillon","quota":5u}],)"
            R"("support_share_quota":true}]})");
  EXPECT_THAT(questions_, ElementsAre("user 70001", "group 70100", "group 70101", "group 70102"));
}

TEST_F(ShareQuota, OfAGroupIsItsOwn) {
  quotas_ = {{{kGroup, 70101}, {.hard = 9 * kMegabyte}}};

  EXPECT_EQ(AnswerForGroup("sales"), R"({"group_quota":[{"shares":[{"name":"Quillon","quota":9u}],)"
                                     R"("support_share_quota":true}]})");
  EXPECT_THAT(questions_, ElementsAre("group 70101"));
}

TEST_F(ShareQuota, IsFoundByANameInAnyLetterCase) {
  quotas_ = {{{kUser, 70002}, {.hard = kMegabyte}}, {{kGroup, 70101}, {.hard = kMegabyte}}};
  EXPECT_THAT(AnswerForUser("bOB"), HasSubstr(R"("quota":1u)"));
  EXPECT_THAT(AnswerForGroup("SALES"), HasSubstr(R"("quota":1u)"));
}

TEST_F(ShareQuota, OfAUserIsTheDefault) {
  quotas_ = {{{kUser, 70002}, {.hard = kMegabyte}}};
  EXPECT_EQ(Answer(R"({"name":"Bob","support_share_quota":true,"subject_type":"user"})"),
            AnswerForUser("Bob"));
}

TEST_F(ShareQuota, IsZeroWithoutALimit) {
  quotas_ = {{{kUser, 70001}, {}}, {{kGroup, 70100}, {}}};
  EXPECT_EQ(AnswerForUser("ann"),
            R"({"user_quota":[{"shares":[{"group_limit":0u,"name":"Quillon","quota":0u}],)"
            R"("support_share_quota":true}]})");
  EXPECT_EQ(AnswerForGroup("staff"), R"({"group_quota":[{"shares":[{"name":"Quillon","quota":0u}],)"
                                     R"("support_share_quota":true}]})");
}

TEST_F(ShareQuota, LeavesGroupsWithoutALimitOutOfTheLargest) {
  quotas_ = {{{kUser, 70001}, {}}, {{kGroup, 70100}, {}}, {{kGroup, 70101}, {.hard = kMegabyte}}};
  EXPECT_THAT(AnswerForUser("ann"), HasSubstr(R"("group_limit":1u)"));
}

TEST_F(ShareQuota, HasNoEntriesOnAFileSystemWithoutQuotas) {
  EXPECT_EQ(AnswerForUser("ann"), R"({"user_quota":[]})");
  EXPECT_EQ(AnswerForGroup("staff"), R"({"group_quota":[]})");
}

TEST_F(ShareQuota, HasAnEntryWhereOnlyOneKindOfQuotasIsKept) {
  quotas_ = {{{kGroup, 70100}, {.hard = 3 * kMegabyte}}};
  EXPECT_THAT(AnswerForUser("ann"), HasSubstr(R"("group_limit":3u,"name":"Quillon","quota":0u)"));

  quotas_ = {{{kUser, 70001}, {.hard = 2 * kMegabyte}}};
  EXPECT_THAT(AnswerForUser("ann"), HasSubstr(R"("group_limit":0u,"name":"Quillon","quota":2u)"));
  EXPECT_EQ(AnswerForGroup("staff"), R"({"group_quota":[]})");
}

TEST_F(ShareQuota, IsTheHardLimitOrElseTheSoftOne) {
  quotas_[{kUser, 70002}] = {.hard = 4 * kMegabyte, .soft = 3 * kMegabyte};
  EXPECT_THAT(AnswerForUser("Bob"), HasSubstr(R"("quota":4u)"));

  quotas_[{kUser, 70002}] = {.hard = 0, .soft = 3 * kMegabyte};
  EXPECT_THAT(AnswerForUser("Bob"), HasSubstr(R"("quota":3u)"));
}

TEST_F(ShareQuota, IsRoundedUpToMegabytes) {
  const std::vector<std::pair<std::uint64_t, std::string>> cases = {
      {1, "1"},
      {kMegabyte - 1, "1"},
      {kMegabyte, "1"},
      {kMegabyte + 1, "2"},
      {5000 * kMegabyte, "5000"},
      {std::numeric_limits<std::uint64_t>::max(), "18014398509481984"}};
  for (const auto& [limit, megabytes] : cases) {
    quotas_[{kUser, 70002}] = {.hard = limit};
    EXPECT_THAT(AnswerForUser("Bob"), HasSubstr(R"("quota":)" + megabytes + "u")) << limit;
  }
}

TEST_F(ShareQuota, IsReadAtEveryCall) {
  quotas_[{kUser, 70002}] = {.hard = kMegabyte};
  EXPECT_THAT(AnswerForUser("Bob"), HasSubstr(R"("quota":1u)"));
  quotas_[{kUser, 70002}] = {.hard = 2 * kMegabyte};
  EXPECT_THAT(AnswerForUser("Bob"), HasSubstr(R"("quota":2u)"));
}

TEST_F(ShareQuota, HasNoEntriesUnlessTheyAreAskedFor) {
  quotas_[{kUser, 70001}] = {.hard = kMegabyte};
  EXPECT_EQ(Answer(R"({"name":"ann"})"), R"({"user_quota":[]})");
  EXPECT_EQ(Answer(R"({"name":"ann","support_share_quota":false})"), R"({"user_quota":[]})");
  EXPECT_EQ(Answer(R"({"name":"staff","subject_type":"group"})"), R"({"group_quota":[]})");
  EXPECT_THAT(questions_, IsEmpty());
}

TEST_F(ShareQuota, MakesNoDifferenceForAdministrators) {
  configuration_.accounts.admin_group = "sales";
  UseConfiguration(configuration_);
  quotas_[{kUser, 70001}] = {.hard = kMegabyte};
  EXPECT_THAT(AnswerForUser("ann"), HasSubstr(R"("quota":1u)"));
}

TEST_F(ShareQuota, IsReadAsRoot) {
  quotas_ = {{{kUser, 70002}, {.hard = kMegabyte}}};
  const test::AsNobody nobody;
  EXPECT_THAT(AnswerForUser("Bob"), HasSubstr(R"("quota":1u)"));
  EXPECT_THAT(questions_, ElementsAre("user 70002", "group 70100"));
  EXPECT_EQ(::geteuid(), test::AsNobody::kUid);
  EXPECT_THAT(folder_.Read("mail.log"), HasSubstr("run as root: read share quota\n"));
}

TEST_F(ShareQuota, RefusesOtherParameters) {
  const std::map<std::string, std::string> cases = {
      {R"([])", "the parameters must be an object"},
      {R"({"name":"ann","names":1})", "unknown parameter [names]"},
      {R"({})", "parameter [name] is missing"},
      {R"(null)", "parameter [name] is missing"},
      {R"({"name":null})", "parameter [name] must be a string"},
      {R"({"name":7})", "parameter [name] must be a string"},
      {R"({"name":"ann","support_share_quota":1})",
       "parameter [support_share_quota] must be true or false"},
      {R"({"name":"ann","subject_type":"share"})",
       "parameter [subject_type] must be one of user, group"},
      {R"({"name":"ann","subject_type":null})",
       "parameter [subject_type] must be one of user, group"}};
  for (const auto& [params, message] : cases) {
    const Json::Value error = Failure(params);
    EXPECT_EQ(error["code"], VELA::APIRunner::kBadParameters) << params;
    EXPECT_EQ(error["message"], message) << params;
  }
  EXPECT_THAT(questions_, IsEmpty());
}

TEST_F(ShareQuota, NeedsAUserOrGroupThatExists) {
  // Whether or not anything is asked about it.
  for (const std::string more : {R"(,"support_share_quota":true)", ""}) {
    const Json::Value user = Failure(R"({"name":"no-such-user")" + more + "}");
    EXPECT_EQ(user["code"], velamailserver::ERR_SDK_USER_GET);
    EXPECT_EQ(user["message"], "no such user: [no-such-user]");
    const Json::Value group =
        Failure(R"({"name":"no-such-group","subject_type":"group")" + more + "}");
    EXPECT_EQ(group["code"], velamailserver::ERR_SDK_GROUP_GET);
    EXPECT_EQ(group["message"], "no such group: [no-such-group]");
  }
  // A user is no group, nor the other way round.
  EXPECT_EQ(Failure(R"({"name":"sales"})")["code"], velamailserver::ERR_SDK_USER_GET);
  EXPECT_EQ(Failure(R"({"name":"ann","subject_type":"group"})")["code"],
            velamailserver::ERR_SDK_GROUP_GET);
  EXPECT_THAT(questions_, IsEmpty());
}

TEST_F(ShareQuota, NeedsTheMaildirRoot) {
  configuration_.maildir.root = folder_ / "not-mounted";
  UseConfiguration(configuration_);
  const Json::Value error = Failure(R"({"name":"ann","support_share_quota":true})");
  EXPECT_EQ(error["code"], velamailserver::ERR_LSTAT_FILE);
  EXPECT_EQ(error["message"],
            configuration_.maildir.root + " (maildir.root): No such file or directory");
  EXPECT_THAT(questions_, IsEmpty());
}

TEST_F(ShareQuota, IsNeverNoneBecauseTheKernelDoesNotTell) {
  error_ = EIO;
  const Json::Value user = Failure(R"({"name":"ann","support_share_quota":true})");
  EXPECT_EQ(user["code"], velamailserver::ERR_INTERNAL);
  EXPECT_EQ(user["message"], "cannot read the quota of user [ann] on " +
                                 configuration_.maildir.root +
                                 " (maildir.root): the kernel: Input/output error");
  const Json::Value group =
      Failure(R"({"name":"staff","subject_type":"group","support_share_quota":true})");
  EXPECT_THAT(group["message"].asString(),
              StartsWith("cannot read the quota of group [staff] on /"));
  EXPECT_THAT(folder_.Read("mail.log"), HasSubstr("platform/linux/webapi/share_quota:62 (1001) "));
}

TEST_F(ShareQuota, IsWhatTheLibraryTells) {
  EXPECT_EQ(tarn::GetUserQuillonSharedFolderQuotaMb("ann"), 0U);
  EXPECT_EQ(tarn::GetGroupQuillonSharedFolderQuotaMb("staff"), 0U);

  quotas_ = {{{kUser, 70001}, {}}, {{kGroup, 70101}, {.hard = 9 * kMegabyte}}};
  EXPECT_EQ(tarn::GetUserQuillonSharedFolderQuotaMb("ann"), 9U);
  EXPECT_EQ(tarn::GetGroupQuillonSharedFolderQuotaMb("sales"), 9U);

  quotas_[{kUser, 70001}] = {.hard = 5 * kMegabyte};
  EXPECT_EQ(tarn::GetUserQuillonSharedFolderQuotaMb("ann"), 5U);

  error_ = EIO;
  try {
    tarn::GetGroupQuillonSharedFolderQuotaMb("sales");
    ADD_FAILURE() << "no exception";
  } catch (const LogException& error) {
    EXPECT_EQ(error.code(), velamailserver::ERR_RUN_WEBAPI);
  }
}

// The API as every program has it, on this machine's own file systems: those that are there for
// throw-away files keep no quotas.
TEST(RegisteredShareQuota, HasNoEntriesHere) {
  test::TemporaryFolder folder;
  for (const std::string& root : {folder.path().string(), std::string("/proc")}) {
    Configuration configuration;
    configuration.maildir.root = root;
    configuration.log = {"file", "/dev/null"};
    UseConfiguration(configuration);
    for (const char* subject : {"user", "group"}) {
      Json::Value params;
      params["name"] = "root";
      params["support_share_quota"] = true;
      params["subject_type"] = subject;
      Json::Value response;
      VELA::APIRunner::Exec(response, "VELA.Core.Quota", 1, "get", params, "admin");
      EXPECT_EQ(Compact(response),
                std::string(R"({"data":{")") + subject + R"(_quota":[]},"success":true})")
          << root;
    }
  }
}

// Errors of the system calls themselves, as another kernel or a container may answer them.
class KernelQuotaTest : public testing::Test {
 protected:
  // From now on, in this process.
  static void Answer(std::uint32_t error, const std::vector<std::uint32_t>& system_calls) {
    std::vector<sock_filter> code = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr))};
    for (const std::uint32_t system_call : system_calls) {
      code.push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, system_call, 0, 1));
      code.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | error));
    }
    code.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW));
    const sock_fprog program = {static_cast<unsigned short>(code.size()), code.data()};
    ASSERT_EQ(::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0), 0);
    if (::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) != 0) {
      test::SkipInOwnProcess("seccomp");
    }
  }

  // 0: no quotas.
  int ErrorOfReading() const {
    try {
      EXPECT_FALSE(ReadKernelQuota(root_.Get(), kUser, 0));
      return 0;
    } catch (const std::system_error& error) {
      EXPECT_THAT(error.what(), StartsWith("quotactl_fd: "));
      return error.code().value();
    }
  }

  test::TemporaryFolder folder_;
  FileDescriptor root_{::open(folder_.path().c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC)};
};

TEST_F(KernelQuotaTest, IsNoneOnAKernelWithoutQuotas) {
  test::InOwnProcess([this] {
    Answer(ENOSYS, {SYS_quotactl, SYS_quotactl_fd});
    EXPECT_EQ(ErrorOfReading(), 0);
  });
}

TEST_F(KernelQuotaTest, IsUnknownOnAKernelThatCannotBeAskedByFolder) {
  test::InOwnProcess([this] {
    Answer(ENOSYS, {SYS_quotactl_fd});
    EXPECT_EQ(ErrorOfReading(), ENOSYS);
  });
}

TEST_F(KernelQuotaTest, IsUnknownAfterAnyOtherError) {
  for (const int error : {EACCES, EINVAL, EIO, EROFS, ENOMEM}) {
    test::InOwnProcess([this, error] {
      Answer(static_cast<std::uint32_t>(error), {SYS_quotactl_fd});
      EXPECT_EQ(ErrorOfReading(), error);
    });
  }
}

TEST_F(KernelQuotaTest, IsNoneAndLoggedOnceWhereRootMayNotAsk) {
  test::InOwnProcess([this] {
    Configuration configuration;
    configuration.log = {"file", folder_ / "mail.log"};
    UseConfiguration(configuration);
    Answer(EPERM, {SYS_quotactl_fd});
    EXPECT_EQ(ErrorOfReading(), 0);
    EXPECT_EQ(ErrorOfReading(), 0);
    const std::string log = folder_.Read("mail.log");
    EXPECT_THAT(log,
                HasSubstr("platform/linux/webapi/kernel_quota:58 quotas of the file system are "
                          "not shown: root may not ask for them here ("));
    EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 1) << log;
  });
}

TEST_F(KernelQuotaTest, IsNoneForThoseWithoutRightsToo) {
  const test::AsNobody nobody;
  EXPECT_EQ(ErrorOfReading(), 0);
}

}  // namespace
}  // namespace quillon::platform
