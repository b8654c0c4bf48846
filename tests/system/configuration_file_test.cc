#include <ostream>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "system/world.h"

namespace quillon::test {
namespace {

using testing::HasSubstr;

struct BadFile {
  const char* content;
  const char* place;  // behind the file's name
};

// The name of the test.
void PrintTo(const BadFile& file, std::ostream* out) { *out << file.place; }

class ConfigurationFileTest : public testing::TestWithParam<BadFile> {};

TEST_P(ConfigurationFileTest, IsReportedWithItsPlace) {
  const TemporaryFolder folder;
  const std::string file = folder.Write("bad.toml", GetParam().content);
  const Outcome outcome = test::Run({QuillonctlPath(), "--config", file, "user", "list"});
  EXPECT_EQ(outcome.exit_code, 1);
  EXPECT_EQ(outcome.output, "");
  EXPECT_THAT(outcome.error, testing::StartsWith("quillonctl: " + file + GetParam().place));
}

INSTANTIATE_TEST_SUITE_P(
    Files, ConfigurationFileTest,
    testing::Values(BadFile{"[quota]\nbusy_timeout = 1\nstor = \"x\"\n", ":3: quota.stor: "},
                    BadFile{"[usage]\nport = \"many\"\n", ":2: usage.port: "},
                    BadFile{"\n[usage]\nport = 70000\n", ":3: usage.port: "},
                    BadFile{"[log]\ntarget = \n", ":2: "}, BadFile{"[log\n", ":1: "},
                    BadFile{"quota = 5\n", ":1: quota: "}));

TEST(ConfigurationFileTest, MustExistWhenItIsNamed) {
  const TemporaryFolder folder;
  const Outcome outcome =
      test::Run({QuillonctlPath(), "--config", folder / "none.toml", "user", "list"});
  EXPECT_EQ(outcome.exit_code, 1);
  EXPECT_THAT(outcome.error, HasSubstr(folder / "none.toml"));
}

// In a file system of its own, so that the host's file is not touched.
TEST(ConfigurationFileTest, TheDefaultFileIsReadAndItsFaultsAreReported) {
  const TemporaryFolder folder;
  folder.Write("upper/quillon/mailserver.toml", "\nnonsense = 1\n");
  const std::string etc = "mount -t tmpfs none /mnt && cp -a " + folder / "upper" +
                          " /mnt/upper"
                          " && mkdir /mnt/work && mount -t overlay none"
                          " -o lowerdir=/etc,upperdir=/mnt/upper,workdir=/mnt/work /etc";
  const auto run = [&](const std::string& command) {
    return test::Run({"unshare", "--mount", "sh", "-c", etc + " && " + command});
  };
  if (run("true").exit_code != 0) {
    GTEST_SKIP() << "mounting is not allowed here";
  }

  const Outcome outcome = run("exec " + QuillonctlPath() + " user list");

  EXPECT_EQ(outcome.exit_code, 1);
  EXPECT_EQ(outcome.error, "quillonctl: /etc/quillon/mailserver.toml:2: nonsense: unknown key\n");
}

}  // namespace
}  // namespace quillon::test
