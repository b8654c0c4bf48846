#include "utils/indexed_file.h"

#include <exception>
#include <memory>
#include <new>
#include <string>

#include <gtest/gtest.h>

#include <quillon/platform/configuration.h>

namespace quillon::platform {
namespace {

using File = IndexedFile<int>;

constexpr struct stat kNoFile {};

const std::string& PathOf(const Configuration::Accounts& settings) { return settings.passwd_file; }

int reads = 0;

template <typename Error>
File::Reading FailAtFirst(const std::string& /*path*/) {
  if (++reads == 1) {
    throw Error();
  }
  return {FileState(kNoFile), std::make_shared<const int>(reads)};
}

class Unusable : public std::exception {};

class IndexedFileTest : public testing::Test {
 protected:
  IndexedFileTest() {
    reads = 0;
    Configuration configuration;
    configuration.accounts.passwd_file = "/nonexistent/passwd";
    UseConfiguration(configuration);
  }
};

TEST_F(IndexedFileTest, IsNotReadAgainAtOnceWhenItCannotBeUsed) {
  File file(PathOf, FailAtFirst<Unusable>);
  EXPECT_THROW(file.Get(File::kRecent), Unusable);
  EXPECT_THROW(file.Get(File::kRecent), Unusable);
  EXPECT_EQ(reads, 1);
}

TEST_F(IndexedFileTest, IsReadAgainAtOnceWhenThereWasNoMemory) {
  File file(PathOf, FailAtFirst<std::bad_alloc>);
  EXPECT_THROW(file.Get(File::kRecent), std::bad_alloc);
  EXPECT_EQ(*file.Get(File::kRecent), 2);
}

}  // namespace
}  // namespace quillon::platform
