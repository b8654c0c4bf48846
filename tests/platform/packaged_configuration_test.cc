// The configuration file that is installed shows every key there is, with its default.
#include <fstream>
#include <regex>
#include <string>
#include <tuple>

#include <gtest/gtest.h>

#include <quillon/platform/configuration.h>

#include "support/temporary_folder.h"

namespace quillon::platform {
namespace {

// All members of the tables, in a form that can be compared and counted. A member that is added to
// a table does not compile here until it is added, too.
auto Members(const Configuration::Accounts& table) {
  const auto& [a, b, c, d, e, f, g, h] = table;
  return std::make_tuple(a, b, c, d, e, f, g, h);
}
auto Members(const Configuration::Maildir& table) {
  const auto& [a, b, c] = table;
  return std::make_tuple(a, b, c);
}
auto Members(const Configuration::Quota& table) {
  const auto& [a, b, c] = table;
  return std::make_tuple(a, b, c);
}
auto Members(const Configuration::Usage& table) {
  const auto& [a, b, c, d, e, f, g, h, i, j, k] = table;
  return std::make_tuple(a, b, c, d, e, f, g, h, i, j, k);
}
auto Members(const Configuration::Cluster& table) {
  const auto& [a, b, c, d] = table;
  return std::make_tuple(a, b, c, d);
}
auto Members(const Configuration::Web& table) {
  const auto& [a, b, c, d, e, f, g, h, i, j, k, l, m, n, o, p, q, r, s, t] = table;
  return std::make_tuple(a, b, c, d, e, f, g, h, i, j, k, l, m, n, o, p, q, r, s, t);
}
auto Members(const Configuration::Log& table) {
  const auto& [a, b] = table;
  return std::make_tuple(a, b);
}
auto Members(const Configuration& configuration) {
  const auto& [accounts, maildir, quota, usage, cluster, web, log] = configuration;
  return std::tuple_cat(Members(accounts), Members(maildir), Members(quota), Members(usage),
                        Members(cluster), Members(web), Members(log));
}
constexpr std::size_t kMembers =
    std::tuple_size_v<decltype(Members(std::declval<const Configuration&>()))>;

struct Uncommented {
  std::string text;
  std::size_t keys = 0;
};

// The file with its defaults set: "#key = value" without the '#'.
Uncommented PackagedFile() {
  const std::regex setting("#([a-z_]+ = .+)");
  std::ifstream file(PACKAGED_CONFIGURATION);
  EXPECT_TRUE(file.is_open());
  Uncommented result;
  std::smatch match;
  for (std::string line; std::getline(file, line);) {
    const bool is_setting = std::regex_match(line, match, setting);
    result.text += (is_setting ? match[1].str() : line) + "\n";
    result.keys += is_setting ? 1 : 0;
  }
  return result;
}

TEST(PackagedConfiguration, ChangesNothingAsItStands) {
  EXPECT_EQ(Members(LoadConfiguration(PACKAGED_CONFIGURATION)), Members(Configuration()));
}

// No key is there twice, or is unknown: the reader would refuse it. So their number tells that none
// is missing.
TEST(PackagedConfiguration, ShowsEveryKeyWithItsDefault) {
  const test::TemporaryFolder folder;
  const Uncommented packaged = PackagedFile();
  const std::string path = folder.Write("mailserver.toml", packaged.text);
  EXPECT_EQ(Members(LoadConfiguration(path)), Members(Configuration()));
  EXPECT_EQ(packaged.keys, kMembers);
}

}  // namespace
}  // namespace quillon::platform
