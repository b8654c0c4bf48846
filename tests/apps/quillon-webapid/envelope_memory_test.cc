#include <optional>
#include <string>

#include <gtest/gtest.h>

#include "envelope.h"
#include "lib-webapi/allocations.h"

namespace quillon::webapid {
namespace {

TEST(EnvelopeMemoryTest, IsNeverCutShort) {
  const std::string message(5000, 'x');
  const std::string whole = FailureText(500, message);
  std::optional<std::string> text;
  int allocations = 0;
  while (!test::IsEnough(allocations, [&] { text = FailureText(500, message); })) {
    ASSERT_EQ(text, std::nullopt);
    ++allocations;
  }
  EXPECT_EQ(text, whole);
  EXPECT_GT(allocations, 5);
}

}  // namespace
}  // namespace quillon::webapid
