#include <ostream>

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

}  // namespace
}  // namespace quillon::test
