#include <cstdlib>
#include <new>
#include <string>
#include <utility>

#include <gmock/gmock.h>

#include <velamailserver/log_exception.h>

#include "recording_platform/world_test.h"

namespace {

bool memory_is_exhausted = false;

}  // namespace

// This program's own, and so the library's, too.
void* operator new(std::size_t size) {
  void* const memory = memory_is_exhausted ? nullptr : std::malloc(size);
  if (memory == nullptr) {
    throw std::bad_alloc();
  }
  return memory;
}

void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t /*size*/) noexcept { std::free(memory); }

namespace velamailserver {
namespace {

using OutOfMemoryTest = recording::WorldTest;

TEST_F(OutOfMemoryTest, EndsTheConstructionOfALogExceptionBeforeItLogs) {
  const std::string detail(1000, 'd');
  std::string file(1000, 'f');
  bool is_out_of_memory = false;

  memory_is_exhausted = true;
  try {
    const LogException exception(ERR_INTERNAL, detail, 3, std::move(file), 7);
  } catch (const std::bad_alloc&) {
    is_out_of_memory = true;
  }
  memory_is_exhausted = false;

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
