#include <new>
#include <string>
#include <utility>

#include <gmock/gmock.h>

#include <velamailserver/log_exception.h>

#include "lib-webapi/allocations.h"
#include "recording_platform/world_test.h"

namespace velamailserver {
namespace {

using OutOfMemoryTest = recording::WorldTest;

TEST_F(OutOfMemoryTest, EndsTheConstructionOfALogExceptionBeforeItLogs) {
  const std::string detail(1000, 'd');
  std::string file(1000, 'f');
  bool is_out_of_memory = false;

  try {
    const quillon::test::ExhaustedMemory memory;
    const LogException exception(ERR_INTERNAL, detail, 3, std::move(file), 7);
  } catch (const std::bad_alloc&) {
    is_out_of_memory = true;
  }

  EXPECT_TRUE(is_out_of_memory);
  EXPECT_THAT(world_.transcript, testing::IsEmpty());
}

TEST_F(OutOfMemoryTest, IsNoConcernOfTheFileName) {
  std::string file(1000, 'f');
  const char* const text = file.data();

  const LogException exception(ERR_INTERNAL, "detail", 3, std::move(file), 7);

  EXPECT_EQ(exception.file().data(), text) << "copied, not moved";
}

}  // namespace
}  // namespace velamailserver
