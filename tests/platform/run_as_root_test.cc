#include <linux/capability.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <future>
#include <stdexcept>
#include <string>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <quillon/platform/configuration.h>
#include <velamailserver/log_exception.h>
#include <velamailserver/velasdk/run_as_root.h>

#include "support/as_nobody.h"
#include "support/own_process.h"
#include "support/temporary_folder.h"

namespace velamailserver::velasdk {
namespace {

using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::MatchesRegex;
namespace test = quillon::test;

constexpr uid_t kNobody = test::AsNobody::kUid;
constexpr gid_t kSomeGroup = 54321;

using Ids = std::array<unsigned, 3>;  // real, effective, saved

Ids Uids() {
  Ids ids{};
  EXPECT_EQ(::getresuid(&ids[0], &ids[1], &ids[2]), 0);
  return ids;
}

Ids Gids() {
  Ids ids{};
  EXPECT_EQ(::getresgid(&ids[0], &ids[1], &ids[2]), 0);
  return ids;
}

void SetIds(const Ids& uids, const Ids& gids) {
  ASSERT_EQ(::setresgid(gids[0], gids[1], gids[2]), 0);
  ASSERT_EQ(::setresuid(uids[0], uids[1], uids[2]), 0);
}

// For good, so that even root's uid does not bring back the right to take any group.
void LoseRightToSetGroups() {
  __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
  std::array<__user_cap_data_struct, 2> sets{};
  ASSERT_EQ(::syscall(SYS_capget, &header, sets.data()), 0);
  sets[0].effective &= ~(1U << CAP_SETGID);
  sets[0].permitted &= ~(1U << CAP_SETGID);
  ASSERT_EQ(::syscall(SYS_capset, &header, sets.data()), 0);
}

template <typename Work>
LogException Failure(const Work& work) {
  try {
    RunAsRoot("some work", work);
  } catch (const LogException& error) {
    return error;
  }
  ADD_FAILURE() << "did not fail";
  return {ERR_INTERNAL, "", 3, "", 0};
}

void RunNothing() {}

class RunsAsRoot : public testing::Test {
 protected:
  RunsAsRoot() {
    quillon::platform::Configuration configuration;
    configuration.log = {"file", folder_.Write("mail.log", "")};
    quillon::platform::UseConfiguration(configuration);
    ::chmod(configuration.log.file.c_str(), 0666);
    ::chmod(folder_.path().c_str(), 0755);
  }

  test::TemporaryFolder folder_;
};

TEST_F(RunsAsRoot, WithTheEffectiveIdsAndGivesThemBack) {
  test::InOwnProcess([] {
    SetIds({0, kNobody, 0}, {0, kSomeGroup, 12345});
    int runs = 0;
    RunAsRoot("some work", [&runs] {
      ++runs;
      EXPECT_THAT(Uids(), ElementsAre(0, 0, 0));
      EXPECT_THAT(Gids(), ElementsAre(0, 0, 12345));
    });
    EXPECT_EQ(runs, 1);
    EXPECT_THAT(Uids(), ElementsAre(0, kNobody, 0));
    EXPECT_THAT(Gids(), ElementsAre(0, kSomeGroup, 12345));
  });
}

TEST_F(RunsAsRoot, WhenAnyOfTheUidsIsRoots) {
  for (const Ids& uids : {Ids{0, kNobody, kNobody}, Ids{kNobody, 0, kNobody},
                          Ids{kNobody, kNobody, 0}, Ids{0, 0, 0}}) {
    SCOPED_TRACE(testing::Message() << uids[0] << ' ' << uids[1] << ' ' << uids[2]);
    test::InOwnProcess([&uids] {
      SetIds(uids, {kSomeGroup, kSomeGroup, kSomeGroup});
      RunAsRoot("some work", [&uids] {
        EXPECT_THAT(Uids(), ElementsAre(uids[0], 0, uids[2]));
        EXPECT_THAT(Gids(), ElementsAre(kSomeGroup, 0, kSomeGroup));
      });
      EXPECT_EQ(Uids(), uids);
      EXPECT_THAT(Gids(), ElementsAre(kSomeGroup, kSomeGroup, kSomeGroup));
    });
  }
}

TEST_F(RunsAsRoot, AndLetsAnExceptionThroughAsTheCaller) {
  const test::AsNobody nobody;
  try {
    RunAsRoot("some work", [] { throw std::out_of_range("too far"); });
    FAIL() << "no exception";
  } catch (const std::out_of_range& error) {
    EXPECT_EQ(::geteuid(), kNobody);
    EXPECT_STREQ(error.what(), "too far");
  }
  try {
    RunAsRoot("some work", [] { throw 5; });
    FAIL() << "no exception";
  } catch (int thrown) {
    EXPECT_EQ(::geteuid(), kNobody);
    EXPECT_EQ(thrown, 5);
  }
}

TEST_F(RunsAsRoot, WithinWorkThatDoes) {
  const test::AsNobody nobody;
  RunAsRoot("outer", [] {
    RunAsRoot("inner", [] { EXPECT_EQ(::geteuid(), 0U); });
    EXPECT_EQ(::geteuid(), 0U);
    EXPECT_THROW(RunAsRoot("inner", [] { throw std::runtime_error("failed"); }),
                 std::runtime_error);
    EXPECT_EQ(::geteuid(), 0U);
  });
  EXPECT_EQ(::geteuid(), kNobody);
}

TEST_F(RunsAsRoot, WithTheWholeProcess) {
  const test::AsNobody nobody;
  std::promise<void> is_root;
  std::promise<uid_t> seen;
  std::thread other([&] {
    is_root.get_future().wait();
    seen.set_value(::geteuid());
  });
  RunAsRoot("some work", [&] {
    is_root.set_value();
    EXPECT_EQ(seen.get_future().get(), 0U);
  });
  other.join();
}

TEST_F(RunsAsRoot, WithALineInTheLog) {
  RunAsRoot("set no owner", RunNothing);
  EXPECT_THAT(folder_.Read("mail.log"),
              MatchesRegex("[^\n]* debug: platform/linux/sdk/run_as_root:[0-9]+ run as root: "
                           "set no owner\n"));
}

TEST_F(RunsAsRoot, NotAtAllWithoutTheRight) {
  test::InOwnProcess([] {
    const Ids ids = {kNobody, kNobody, kNobody};
    SetIds(ids, ids);
    const LogException failure = Failure([] { ADD_FAILURE() << "ran"; });
    EXPECT_EQ(failure.code(), ERR_SDK_RUN_AS);
    EXPECT_STREQ(failure.what(), "some work: cannot become root: Operation not permitted");
    EXPECT_EQ(Uids(), ids);
    EXPECT_EQ(Gids(), ids);
  });
  EXPECT_THAT(folder_.Read("mail.log"),
              HasSubstr("(2009) SDK failed to run as: some work: cannot become root: "));
}

TEST_F(RunsAsRoot, NotHalfWay) {
  test::InOwnProcess([] {
    SetIds({0, 0, 0}, {kSomeGroup, kSomeGroup, kSomeGroup});
    LoseRightToSetGroups();
    ASSERT_EQ(::seteuid(kNobody), 0);
    const LogException failure = Failure([] { ADD_FAILURE() << "ran"; });
    EXPECT_EQ(failure.code(), ERR_SDK_RUN_AS);
    EXPECT_STREQ(failure.what(), "some work: cannot take root's group: Operation not permitted");
    EXPECT_THAT(Uids(), ElementsAre(0, kNobody, 0));
    EXPECT_THAT(Gids(), ElementsAre(kSomeGroup, kSomeGroup, kSomeGroup));
  });
}

TEST_F(RunsAsRoot, AndFailsWhenTheIdsCannotBeGivenBack) {
  test::InOwnProcess([] {
    const LogException failure = Failure([] {
      const Ids ids = {kNobody, kNobody, kNobody};
      SetIds(ids, ids);
    });
    EXPECT_EQ(failure.code(), ERR_SDK_RUN_AS);
    EXPECT_STREQ(failure.what(),
                 "some work: cannot give up root's rights: Operation not permitted");
  });
  EXPECT_THAT(folder_.Read("mail.log"),
              HasSubstr("(2009) SDK failed to run as: some work: cannot give up root's rights: "));
}

TEST_F(RunsAsRoot, AndFailsWithThatWhateverElseFailed) {
  test::InOwnProcess([] {
    const LogException failure = Failure([] {
      const Ids ids = {kNobody, kNobody, kNobody};
      SetIds(ids, ids);
      throw std::out_of_range("too far");
    });
    EXPECT_EQ(failure.code(), ERR_SDK_RUN_AS);
    EXPECT_THAT(failure.what(), HasSubstr("cannot give up root's rights"));
  });
}

TEST_F(RunsAsRoot, AndGivesBackTheUidEvenWithoutTheGid) {
  test::InOwnProcess([] {
    SetIds({0, kNobody, 0}, {0, kSomeGroup, 0});
    const LogException failure = Failure(LoseRightToSetGroups);
    EXPECT_EQ(failure.code(), ERR_SDK_RUN_AS);
    EXPECT_THAT(failure.what(), EndsWith("cannot give up root's rights: Operation not permitted"));
    EXPECT_THAT(Uids(), ElementsAre(0, kNobody, 0));
  });
}

}  // namespace
}  // namespace velamailserver::velasdk
